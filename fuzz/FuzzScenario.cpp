// Scenario files of the virtual bridge: any text must be refused with a
// reason or give a scenario, never crash. Relative flash image names point
// into a folder that does not exist, so nothing is created.
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz/FuzzCheck.h"
#include "sim/Scenario.h"

// Qt 5.15's JSON parser leaks the earlier value of a repeated key when that
// value is a list or an object ({"a":[1],"a":[2]}); the leak is Qt's, not
// the loader's, and would stop every run at the first such input. Qt has no
// frame pointers, so leak stacks need the slow unwinder to reach the caller.
extern "C" const char* __asan_default_options()
{
    return "fast_unwind_on_malloc=0";
}

extern "C" const char* __lsan_default_suppressions()
{
    return "leak:QJsonDocument::fromJson\n";
}

extern "C" const char* __lsan_default_options()
{
    return "print_suppressions=0";
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size > 1 << 16)
        return 0;
    const std::string text(reinterpret_cast<const char*>(data), size);
    vbridge::Scenario scenario;
    std::string error;
    const bool ok = vbridge::parseScenario(text, "/nonexistent/korux-fuzz", &scenario, &error);
    if (!ok) {
        FUZZ_CHECK(!error.empty());
        FUZZ_CHECK(scenario.sensors.empty() && scenario.faults.empty());
        return 0;
    }
    for (const vbridge::ScenarioSensor& sensor : scenario.sensors)
        FUZZ_CHECK(sensor.config.serial.size() <= 14);
    for (const vbridge::ScenarioFault& fault : scenario.faults)
        FUZZ_CHECK(fault.nth >= 1);
    FUZZ_CHECK(!scenario.hasOrder || scenario.order.size() <= 4 * scenario.sensors.size() + scenario.foreign.size());
    return 0;
}
