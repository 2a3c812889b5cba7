// Trace files of the recording bridge, as the virtual bridge's replay reads
// them: any bytes (gzip or text, whole or cut anywhere) must be refused with
// a reason or give a trace, never crash; and a trace that reads back must be
// written again as the same calls.
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz/FuzzCheck.h"
#include "record/Trace.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size > 1 << 18)
        return 0;
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    std::string text, error;
    bool cut = false;
    if (!ktrace::decompress(bytes, &text, &cut, &error)) {
        FUZZ_CHECK(!error.empty());
        return 0;
    }
    ktrace::Trace trace;
    if (!ktrace::parseTrace(text, &trace, &error)) {
        FUZZ_CHECK(!error.empty());
        FUZZ_CHECK(trace.calls.empty());
        return 0;
    }
    // What was read is written the same way again and reads back equal.
    std::string again = ktrace::formatHeader();
    for (const auto& [key, value] : trace.meta)
        again += ktrace::formatMeta(key, value);
    for (size_t i = 0; i < trace.calls.size(); ++i) {
        FUZZ_CHECK(trace.calls[i].index == i + 1);
        again += ktrace::formatCall(trace.calls[i]);
    }
    if (trace.complete)
        again += ktrace::formatEnd(trace.calls.size());
    ktrace::Trace back;
    FUZZ_CHECK(ktrace::parseTrace(again, &back, &error));
    FUZZ_CHECK(back.calls.size() == trace.calls.size());
    FUZZ_CHECK(back.complete == trace.complete);
    FUZZ_CHECK(back.meta == trace.meta);
    for (size_t i = 0; i < trace.calls.size(); ++i) {
        FUZZ_CHECK(ktrace::formatCall(back.calls[i]) == ktrace::formatCall(trace.calls[i]));
        (void)ktrace::describeCall(trace.calls[i]);
    }
    return 0;
}
