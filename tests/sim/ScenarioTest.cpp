// Scenario files: what a good one builds, and how a bad one is refused
// without touching the machine.
#include "SimSupport.h"

#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QStringList>
#include <QTemporaryDir>

#include <chrono>
#include <cstdlib>
#include <fcntl.h>
#include <sys/file.h>
#include <thread>
#include <unistd.h>

#include "sim/FlashContent.h"

using namespace simtest;

namespace {

class VbScenario : public VbTest {
protected:
    // Writes a scenario file into a temporary folder and gives its path.
    std::string write(const std::string& name, const std::string& text)
    {
        const QString path = directory_.filePath(QString::fromStdString(name));
        QFile file(path);
        EXPECT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(text.data(), static_cast<qint64>(text.size()));
        return path.toStdString();
    }

    // Loads text that must be refused; gives the reason.
    std::string refusal(const std::string& text)
    {
        std::string error;
        EXPECT_FALSE(bridge().loadScenario(write("bad.json", text), &error)) << text;
        return error;
    }

    std::string path(const std::string& name) const
    {
        return directory_.filePath(QString::fromStdString(name)).toStdString();
    }

    // One known sensor in the machine before a load.
    void prepareKnownMachine()
    {
        addSensor("KX0777");
        bridge().failCall("FT_Close", 5, FT_IO_ERROR);
    }

    void expectKnownMachine()
    {
        ASSERT_EQ(bridge().sensorCount(), 1);
        EXPECT_EQ(bridge().interfaceSerial(0, kPortA), "KX0777A");
    }

    QTemporaryDir directory_;
};

} // namespace

TEST_F(VbScenario, SensorsGetSerialLocationAndInside)
{
    std::string error;
    ASSERT_TRUE(bridge().loadScenario(write("s.json", R"({
        "sensors": [
            {"serial": "KX1234", "location": "0x2041", "inside": true},
            {"location": 8273}
        ]})"),
        &error))
        << error;
    ASSERT_EQ(bridge().sensorCount(), 2);
    EXPECT_EQ(bridge().interfaceSerial(0, kPortB), "KX1234B");
    EXPECT_EQ(bridge().interfaceLocation(0, kPortA), 0x2041u);
    EXPECT_TRUE(bridge().sensorConfig(0).inside);
    EXPECT_EQ(bridge().interfaceSerial(1, kPortA), "KX0002A");
    EXPECT_EQ(bridge().interfaceLocation(1, kPortA), 8273u);
    EXPECT_FALSE(bridge().sensorConfig(1).inside);
}

TEST_F(VbScenario, StatusWordAndQueueAreAnswered)
{
    std::string error;
    ASSERT_TRUE(bridge().loadScenarioText(R"({"sensors": [{
        "status": {"flags": "0x44", "diode": 75, "version": 2, "size": 1},
        "statusQueue": [{"flags": 72, "diode": 0, "version": 1, "size": 2}]}]})",
        "inline", &error))
        << error;
    FT_HANDLE handle = openPortA();
    const std::vector<uint8_t> request = bytes({ 0xA1, 0x80, 0xCA, 0xFE });
    EXPECT_EQ(hex(command(handle, request, 3)), "48 00 06");
    EXPECT_EQ(hex(command(handle, request, 3)), "44 12 c9");
}

TEST_F(VbScenario, GeneratorSettingsGoIntoTheInsideBlock)
{
    std::string error;
    ASSERT_TRUE(bridge().loadScenarioText(R"({"sensors": [{"inside": true,
        "generator": {"kV": 65, "markerOk": false, "checksumOk": false}}]})",
        "inline", &error))
        << error;
    const std::vector<uint8_t> block = command(openPortA(), bytes({ 0xA1, 0x81, 0xCA, 0xFE }), 17);
    EXPECT_EQ(hex(block.data(), 2), "53 41");
    EXPECT_FALSE(bridge().sensorConfig(0).generator.checksumOk);
}

TEST_F(VbScenario, ForeignDevicesAndOrderMakeTheList)
{
    std::string error;
    ASSERT_TRUE(bridge().loadScenarioText(R"({
        "sensors": [{}],
        "foreign": [{"id": "0x04036010", "description": "Dual RS232", "serial": "FTA1", "location": 36881}],
        "order": ["F0", "S0D", "S0C", "S0B", "S0A"]})",
        "inline", &error))
        << error;
    ASSERT_EQ(listCount(), 5u);
    char serial[16] = {};
    char description[64] = {};
    DWORD flags, type, id, location;
    FT_HANDLE handle;
    ASSERT_EQ(FT_GetDeviceInfoDetail(0, &flags, &type, &id, &location, serial, description, &handle),
        static_cast<FT_STATUS>(FT_OK));
    EXPECT_EQ(id, 0x04036010u);
    EXPECT_STREQ(description, "Dual RS232");
    ASSERT_EQ(FT_GetDeviceInfoDetail(1, &flags, &type, &id, &location, serial, description, &handle),
        static_cast<FT_STATUS>(FT_OK));
    EXPECT_STREQ(serial, "KX0001D");
}

TEST_F(VbScenario, OrderMayLeaveInterfacesOut)
{
    std::string error;
    ASSERT_TRUE(
        bridge().loadScenarioText(R"({"sensors": [{}], "order": ["S0A", "S0B", "S0C"]})", "inline", &error))
        << error;
    EXPECT_EQ(listCount(), 3u);
}

TEST_F(VbScenario, UnpluggedSensorIsNotListed)
{
    std::string error;
    ASSERT_TRUE(bridge().loadScenarioText(R"({"sensors": [{"plugged": false}, {}]})", "inline", &error))
        << error;
    EXPECT_FALSE(bridge().isPlugged(0));
    EXPECT_EQ(listCount(), 4u);
}

TEST_F(VbScenario, FaultsArePlanned)
{
    std::string error;
    ASSERT_TRUE(bridge().loadScenarioText(R"({"sensors": [{}], "faults": [
        {"call": "FT_CreateDeviceInfoList", "nth": 2, "status": 19},
        {"detail": 1}]})",
        "inline", &error))
        << error;
    DWORD count = 0;
    ASSERT_EQ(FT_CreateDeviceInfoList(&count), static_cast<FT_STATUS>(FT_OK));
    char serial[16], description[64];
    DWORD flags, type, id, location;
    FT_HANDLE handle;
    EXPECT_NE(FT_GetDeviceInfoDetail(1, &flags, &type, &id, &location, serial, description, &handle),
        static_cast<FT_STATUS>(FT_OK));
    EXPECT_EQ(FT_CreateDeviceInfoList(&count), static_cast<FT_STATUS>(FT_DEVICE_LIST_NOT_READY));
}

TEST_F(VbScenario, UnplugAtACallIsPlanned)
{
    std::string error;
    ASSERT_TRUE(bridge().loadScenarioText(
        R"({"sensors": [{}], "faults": [{"unplug": 0, "atCall": 2}]})", "inline", &error))
        << error;
    EXPECT_EQ(listCount(), 4u);
    EXPECT_EQ(listCount(), 0u);
}

TEST_F(VbScenario, FlashFilesArePlacedWithTheirHeader)
{
    std::string error;
    ASSERT_TRUE(bridge().loadScenarioText(R"({"sensors": [{"flash": {"erased": true,
        "PRD": {"text": "SN=42"}, "counter": [7]}}]})",
        "inline", &error))
        << error;
    const std::vector<uint8_t> expected = vbridge::flashFileImage({ 'S', 'N', '=', '4', '2' }, "PRD KORUX3");
    EXPECT_EQ(hex(bridge().flashContents(0, vbridge::kPrdAddress, static_cast<uint32_t>(expected.size()))),
        hex(expected));
    EXPECT_EQ(hex(bridge().flashContents(0, vbridge::kCounterAddress, 8)), "00 00 00 07 ff ff ff ff");
    EXPECT_EQ(hex(bridge().flashContents(0, vbridge::kAssAddress, 4)), "ff ff ff ff");
}

TEST_F(VbScenario, LoadReplacesTheWholeMachine)
{
    prepareKnownMachine();
    std::string error;
    ASSERT_TRUE(bridge().loadScenarioText(R"({"sensors": [{"serial": "KX0100"}]})", "inline", &error))
        << error;
    ASSERT_EQ(bridge().sensorCount(), 1);
    EXPECT_EQ(bridge().interfaceSerial(0, kPortA), "KX0100A");
    EXPECT_TRUE(bridge().trace().empty());
}

TEST_F(VbScenario, CommentsAreAllowedAnywhere)
{
    std::string error;
    EXPECT_TRUE(bridge().loadScenarioText(R"({"comment": "two", "sensors": [{"comment": "first",
        "generator": {"comment": "60 kV", "kV": 60}}]})",
        "inline", &error))
        << error;
}

TEST_F(VbScenario, BrokenJsonIsRefusedWithFileAndOffset)
{
    prepareKnownMachine();
    const std::string error = refusal(R"({"sensors": [ {"serial": "KX1"} ,, ]})");
    EXPECT_NE(error.find(path("bad.json")), std::string::npos) << error;
    EXPECT_NE(error.find("not valid JSON at offset"), std::string::npos) << error;
    expectKnownMachine();
}

TEST_F(VbScenario, TopLevelListIsRefused)
{
    EXPECT_NE(refusal("[]").find("the top level must be an object"), std::string::npos);
}

TEST_F(VbScenario, UnknownKeyIsNamed)
{
    prepareKnownMachine();
    const std::string error = refusal(R"({"sensors": [{"serail": "KX1"}]})");
    EXPECT_NE(error.find("unknown key \"serail\" in sensors[0]"), std::string::npos) << error;
    expectKnownMachine();
}

TEST_F(VbScenario, WrongTypeIsNamed)
{
    prepareKnownMachine();
    const std::string error = refusal(R"({"sensors": [{"inside": "yes"}]})");
    EXPECT_NE(error.find("sensors[0].inside must be true or false, not a text"), std::string::npos) << error;
    expectKnownMachine();
}

TEST_F(VbScenario, OutOfRangeValueIsNamed)
{
    prepareKnownMachine();
    const std::string error = refusal(R"({"sensors": [{"status": {"diode": 1024}}]})");
    EXPECT_NE(error.find("sensors[0].status.diode = 1024 is out of range (0 to 1023)"), std::string::npos)
        << error;
    expectKnownMachine();
}

TEST_F(VbScenario, NumberBeyondEveryIntegerIsOutOfRange)
{
    prepareKnownMachine();
    const std::string error = refusal(R"({"sensors": [{"status": {"flags": -1e300}}]})");
    EXPECT_NE(error.find("sensors[0].status.flags = -1e+300 is out of range (0 to 255)"), std::string::npos)
        << error;
    expectKnownMachine();
}

TEST_F(VbScenario, FractionIsRefused)
{
    const std::string error = refusal(R"({"sensors": [{"generator": {"kV": 60.5}}]})");
    EXPECT_NE(error.find("sensors[0].generator.kV must be a whole number"), std::string::npos) << error;
}

TEST_F(VbScenario, TooLongSerialIsRefused)
{
    const std::string error = refusal(R"({"sensors": [{"serial": "KX0123456789ABC"}]})");
    EXPECT_NE(error.find("sensors[0].serial is longer than 14 characters"), std::string::npos) << error;
}

TEST_F(VbScenario, SerialUsedTwiceIsRefused)
{
    const std::string error = refusal(R"({"sensors": [{"serial": "KX0002"}, {}]})");
    EXPECT_NE(error.find("sensors[1]: the serial KX0002 is used twice"), std::string::npos) << error;
}

TEST_F(VbScenario, OverlappingLocationsAreRefused)
{
    const std::string error = refusal(R"({"sensors": [{"location": 4096}, {"location": 4099}]})");
    EXPECT_NE(error.find("sensors[1]: location 0x1003 clashes with sensors[0]"), std::string::npos) << error;
}

TEST_F(VbScenario, OrderNamingNoInterfaceIsRefused)
{
    const std::string error = refusal(R"({"sensors": [{}], "order": ["S1A"]})");
    EXPECT_NE(error.find("order[0] \"S1A\" names no interface"), std::string::npos) << error;
}

TEST_F(VbScenario, FaultOnUnknownFunctionIsRefused)
{
    const std::string error = refusal(R"({"faults": [{"call": "FT_Open", "nth": 1}]})");
    EXPECT_NE(error.find("faults[0].call \"FT_Open\" is not a bridge function"), std::string::npos) << error;
}

TEST_F(VbScenario, FaultOfNoKindIsRefused)
{
    const std::string error = refusal(R"({"faults": [{"status": 4}]})");
    EXPECT_NE(error.find("faults[0] needs exactly one of"), std::string::npos) << error;
}

TEST_F(VbScenario, ShortFlashImageIsRefused)
{
    write("short.bin", "0123");
    const std::string error = refusal(R"({"sensors": [{"flash": {"image": "short.bin"}}]})");
    EXPECT_NE(error.find("holds 4 bytes, not 16777216"), std::string::npos) << error;
}

TEST_F(VbScenario, MissingFileIsNamed)
{
    prepareKnownMachine();
    std::string error;
    EXPECT_FALSE(bridge().loadScenario(path("absent.json"), &error));
    EXPECT_NE(error.find(path("absent.json") + ": cannot be read"), std::string::npos) << error;
    expectKnownMachine();
}

TEST_F(VbScenario, FlashImageIsCreatedBesideTheScenario)
{
    std::string error;
    ASSERT_TRUE(bridge().loadScenario(write("s.json", R"({"sensors": [{"flash": {"erased": true,
        "image": "flash0.bin", "counter": [3]}}]})"),
        &error))
        << error;
    QFile image(QString::fromStdString(path("flash0.bin")));
    ASSERT_TRUE(image.open(QIODevice::ReadOnly));
    EXPECT_EQ(image.size(), 16 * 1024 * 1024);
    image.seek(vbridge::kCounterAddress);
    const QByteArray counter = image.read(4);
    EXPECT_EQ(hex(counter.toStdString()), "00 00 00 03");
}

TEST_F(VbScenario, ExistingFlashImageWinsOverTheDescribedContents)
{
    std::string error;
    const std::string text
        = R"({"sensors": [{"flash": {"erased": true, "image": "flash0.bin", "counter": [3]}}]})";
    ASSERT_TRUE(bridge().loadScenario(write("s.json", text), &error)) << error;
    bridge().setFlashContents(0, vbridge::kCounterAddress, { 0, 0, 0, 4 });
    bridge().saveFlashImages();
    ASSERT_TRUE(bridge().loadScenario(path("s.json"), &error)) << error;
    EXPECT_EQ(hex(bridge().flashContents(0, vbridge::kCounterAddress, 4)), "00 00 00 04");
}

TEST_F(VbScenario, AWaitForAHeldFlashImageEndsWhenInterrupted)
{
    const std::string text = R"({"sensors": [{"flash": {"image": "flash0.bin"}}]})";
    const std::string scenario = write("s.json", text);
    // Another holder of the image's lock: flock locks belong to the open
    // file, so a second open in this process is another holder.
    const int held = ::open((path("flash0.bin") + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    ASSERT_GE(held, 0);
    ASSERT_EQ(flock(held, LOCK_EX), 0);

    std::thread interrupter([] {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        vbridge_interrupt_wait();
    });
    QElapsedTimer timer;
    timer.start();
    std::string error;
    EXPECT_FALSE(bridge().loadScenario(scenario, &error));
    interrupter.join();
    EXPECT_LT(timer.elapsed(), 10000);
    EXPECT_NE(error.find("interrupted while waiting for the flash image"), std::string::npos) << error;

    // The interruption is spent: once the holder is gone the image loads.
    close(held);
    EXPECT_TRUE(bridge().loadScenario(scenario, &error)) << error;
}

TEST_F(VbScenario, CEntryPointReportsTheReason)
{
    char error[256] = {};
    const std::string file = write("bad.json", R"({"linkTiming": 1})");
    EXPECT_NE(vbridge_load_scenario(file.c_str(), error, sizeof(error)), 0);
    EXPECT_NE(std::string(error).find("linkTiming must be true or false"), std::string::npos) << error;
}

TEST_F(VbScenario, CEntryPointLoadsAGoodFile)
{
    char error[256] = {};
    EXPECT_EQ(
        vbridge_load_scenario(write("s.json", R"({"sensors": [{}, {}]})").c_str(), error, sizeof(error)), 0)
        << error;
    EXPECT_EQ(bridge().sensorCount(), 2);
}

TEST_F(VbScenario, EnvironmentNamesTheStartUpScenario)
{
    const std::string file = write("env.json", R"({"sensors": [{"serial": "KX0500"}, {}]})");
    setenv("KORUX_SCENARIO", file.c_str(), 1);
    std::string error;
    const bool loaded = bridge().resetFromEnvironment(&error);
    unsetenv("KORUX_SCENARIO");
    ASSERT_TRUE(loaded) << error;
    EXPECT_EQ(bridge().sensorCount(), 2);
    EXPECT_EQ(bridge().interfaceSerial(0, kPortA), "KX0500A");
}

TEST_F(VbScenario, StartUpDefaultMachineTakesTheRealTime)
{
    unsetenv("KORUX_SCENARIO");
    unsetenv("KORUX_TIMING");
    ASSERT_TRUE(bridge().resetFromEnvironment());
    EXPECT_EQ(bridge().timing(), vbridge::Timing::Realistic);
}

TEST_F(VbScenario, StartUpDefaultMachineIsInstantWhenAskedFor)
{
    unsetenv("KORUX_SCENARIO");
    setenv("KORUX_TIMING", "instant", 1);
    const bool built = bridge().resetFromEnvironment();
    unsetenv("KORUX_TIMING");
    ASSERT_TRUE(built);
    EXPECT_EQ(bridge().timing(), vbridge::Timing::Instant);
}

TEST_F(VbScenario, StartUpScenarioKeepsItsOwnTiming)
{
    const std::string file = write("fast.json", R"({"sensors": [{}]})");
    setenv("KORUX_SCENARIO", file.c_str(), 1);
    const bool loaded = bridge().resetFromEnvironment();
    unsetenv("KORUX_SCENARIO");
    ASSERT_TRUE(loaded);
    EXPECT_EQ(bridge().timing(), vbridge::Timing::Instant);
}

TEST_F(VbScenario, WithoutEnvironmentTheStartUpMachineIsTheDefault)
{
    unsetenv("KORUX_SCENARIO");
    addSensor();
    addSensor();
    ASSERT_TRUE(bridge().resetFromEnvironment());
    ASSERT_EQ(bridge().sensorCount(), 1);
    EXPECT_EQ(bridge().interfaceSerial(0, kPortA), "KX0001A");
}

TEST_F(VbScenario, BadEnvironmentScenarioFallsBackToTheDefault)
{
    const std::string file = write("env.json", "{");
    setenv("KORUX_SCENARIO", file.c_str(), 1);
    std::string error;
    const bool loaded = bridge().resetFromEnvironment(&error);
    unsetenv("KORUX_SCENARIO");
    EXPECT_FALSE(loaded);
    EXPECT_NE(error.find(file), std::string::npos) << error;
    EXPECT_EQ(bridge().sensorCount(), 1);
}

TEST_F(VbScenario, EveryExampleOfTheFormatDocumentLoads)
{
    // The document sits two folders above this file in the source tree.
    const QString document = QStringLiteral(KORUX_SOURCE_DIR "/docs/scenario.md");
    QFile file(document);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly)) << document.toStdString();
    const QStringList parts = QString::fromUtf8(file.readAll()).split("```");
    int examples = 0;
    // Odd parts are inside fences; those that open with "json" are examples.
    for (int i = 1; i < parts.size(); i += 2) {
        if (!parts[i].startsWith("json"))
            continue;
        ++examples;
        const std::string text = parts[i].mid(4).toStdString();
        std::string error;
        EXPECT_TRUE(bridge().loadScenario(write("example.json", text), &error)) << error << "\n" << text;
    }
    EXPECT_GE(examples, 5);
}

TEST_F(VbScenario, DriverProfileIsChosen)
{
    std::string error;
    ASSERT_TRUE(bridge().loadScenario(write("w.json", R"({"driver": "windows", "sensors": [{}]})"), &error))
        << error;
    EXPECT_EQ(bridge().driverProfile(), vbridge::DriverProfile::Windows);
    ASSERT_TRUE(bridge().loadScenario(write("l.json", R"({"driver": "linux"})"), &error)) << error;
    EXPECT_EQ(bridge().driverProfile(), vbridge::DriverProfile::Linux);
}

TEST_F(VbScenario, UnknownDriverProfileIsRefused)
{
    prepareKnownMachine();
    const std::string error = refusal(R"({"driver": "macos"})");
    EXPECT_NE(error.find("driver must be \"linux\" or \"windows\", not \"macos\""), std::string::npos) << error;
    expectKnownMachine();
}

TEST_F(VbScenario, QuestionMarksForNonAsciiAreASwitch)
{
    std::string error;
    ASSERT_TRUE(bridge().loadScenario(write("q.json", R"({"nonAsciiAsQuestionMark": true, "sensors": [{}]})"), &error))
        << error;
    listCount();
    EXPECT_STREQ(detail(0).description, "KORUX/KORUX? A");
    EXPECT_NE(refusal(R"({"nonAsciiAsQuestionMark": "yes"})").find("must be true or false"), std::string::npos);
}

TEST_F(VbScenario, TimingIsRealisticOrInstant)
{
    std::string error;
    EXPECT_FALSE(bridge().loadScenarioText(R"({"timing": "fast"})", "fast.json", &error));
    EXPECT_NE(error.find("timing must be \"realistic\" or \"instant\", not \"fast\""), std::string::npos)
        << error;
    ASSERT_TRUE(bridge().loadScenarioText(R"({"timing": "realistic", "sensors": [{}]})", "real.json", &error))
        << error;
    EXPECT_EQ(bridge().timing(), vbridge::Timing::Realistic);
    ASSERT_TRUE(bridge().loadScenarioText(R"({"sensors": [{}]})", "plain.json", &error)) << error;
    EXPECT_EQ(bridge().timing(), vbridge::Timing::Instant);
}

TEST_F(VbScenario, FlashQuadEnableAndSensorDelaysAreRead)
{
    std::string error;
    ASSERT_TRUE(bridge().loadScenarioText(
        R"({"sensors": [{"flash": {"quadEnable": false}, "delays": {"readyMs": 60000}}]})", "qe.json",
        &error))
        << error;
    FT_HANDLE handle = openPortA();
    // Not ready for a minute: the status word has no ready flag.
    EXPECT_EQ(command(handle, bytes({ 0xA1, 0x80, 0xCA, 0xFE }), 3)[0], 0x00);
    EXPECT_FALSE(
        bridge().loadScenarioText(R"({"sensors": [{"delays": {"armMs": 60001}}]})", "d.json", &error));
    EXPECT_NE(error.find("armMs"), std::string::npos) << error;
}
