// The virtual bridge replaying a trace: each call answered as recorded, the
// first call that departs from the recording reported with its index, what
// was recorded and what came, and every call after it failing.
#include <QTemporaryDir>

#include <chrono>
#include <string>

#include <gtest/gtest.h>

#include "record/Trace.h"
#include "sim/VirtualBridge.h"
#include "transport/BridgeApi.h"

extern "C" int vbridge_replay_divergence(char* error, unsigned long errorSize);
extern "C" void vbridge_replay_report_on_stderr(int on);

using namespace ktrace;

namespace {

constexpr uint64_t kHandle = 0x5000;

std::vector<TraceCall> sessionCalls()
{
    std::vector<TraceCall> calls;
    TraceCall list;
    list.function = "FT_CreateDeviceInfoList";
    list.outputs = { 1 };
    calls.push_back(list);
    TraceCall detail;
    detail.function = "FT_GetDeviceInfoDetail";
    detail.args = { 0 };
    detail.outputs = { 2, 11, 484835331, 4113 };
    detail.outputTexts = { "KX0042A", "KORUX/KORUX\xb2 A" };
    calls.push_back(detail);
    TraceCall open;
    open.function = "FT_OpenEx";
    open.args = { 4113, FT_OPEN_BY_LOCATION };
    open.port = 'A';
    open.outputHandle = kHandle;
    calls.push_back(open);
    TraceCall status;
    status.function = "FT4222_SPIMaster_MultiReadWrite";
    status.handle = kHandle;
    status.port = 'A';
    status.args = { 4, 0, 3 };
    status.written = { 0xa1, 0x80, 0xca, 0xfe };
    status.outputs = { 3 };
    status.read = { 0x40, 0x6b, 0x09 };
    calls.push_back(status);
    TraceCall failing;
    failing.function = "FT4222_SetClock";
    failing.handle = kHandle;
    failing.port = 'A';
    failing.args = { 3 };
    failing.status = FT4222_CLK_NOT_SUPPORTED;
    failing.timeUs = 60000;
    calls.push_back(failing);
    TraceCall close;
    close.function = "FT_Close";
    close.handle = kHandle;
    close.port = 'A';
    close.timeUs = 60000;
    calls.push_back(close);
    return calls;
}

class ReplayTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        vbridge_replay_report_on_stderr(0);
        vbridge::VirtualBridge::instance().reset();
    }
    void TearDown() override
    {
        vbridge::VirtualBridge::instance().reset();
        vbridge_replay_report_on_stderr(1);
    }

    std::string writeTrace(const std::vector<TraceCall>& calls, bool finish = true)
    {
        const std::string path = directory_.filePath("session.trace").toStdString();
        TraceWriter writer;
        std::string error;
        EXPECT_TRUE(writer.open(path, &error)) << error;
        for (size_t i = 0; i < calls.size(); ++i) {
            TraceCall call = calls[i];
            call.index = i + 1;
            writer.write(call);
        }
        if (finish) {
            EXPECT_TRUE(writer.finish(&error)) << error;
            return path;
        }
        writer.flush();
        return writer.partialPath();
    }

    bool loadReplay(const std::string& path, std::string* error, const std::string& extra = std::string())
    {
        return vbridge::VirtualBridge::instance().loadScenarioText(
            "{\"replay\": \"" + path + "\"" + extra + "}", "replay.json", error);
    }

    std::string divergence()
    {
        char text[2048] = {};
        return vbridge_replay_divergence(text, sizeof text) ? std::string(text) : std::string();
    }

    QTemporaryDir directory_;
};

} // namespace

TEST_F(ReplayTest, AnswersEveryCallAsRecorded)
{
    std::string error;
    ASSERT_TRUE(loadReplay(writeTrace(sessionCalls()), &error)) << error;

    DWORD count = 0;
    EXPECT_EQ(FT_CreateDeviceInfoList(&count), FT_OK);
    EXPECT_EQ(count, 1u);
    DWORD flags = 0, type = 0, id = 0, location = 0;
    char serial[16] = {}, description[64] = {};
    FT_HANDLE listed = reinterpret_cast<FT_HANDLE>(1);
    EXPECT_EQ(FT_GetDeviceInfoDetail(0, &flags, &type, &id, &location, serial, description, &listed), FT_OK);
    EXPECT_EQ(type, 11u);
    EXPECT_EQ(location, 4113u);
    EXPECT_STREQ(serial, "KX0042A");
    EXPECT_STREQ(description, "KORUX/KORUX\xb2 A");
    EXPECT_EQ(listed, nullptr);
    FT_HANDLE handle = nullptr;
    EXPECT_EQ(FT_OpenEx(reinterpret_cast<void*>(uintptr_t(4113)), FT_OPEN_BY_LOCATION, &handle), FT_OK);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(handle), kHandle);
    uint8_t command[4] = { 0xa1, 0x80, 0xca, 0xfe };
    uint8_t answer[3] = {};
    uint32 read = 0;
    EXPECT_EQ(FT4222_SPIMaster_MultiReadWrite(handle, answer, command, 4, 0, 3, &read), FT4222_OK);
    EXPECT_EQ(read, 3u);
    EXPECT_EQ(answer[0], 0x40);
    EXPECT_EQ(answer[1], 0x6b);
    EXPECT_EQ(answer[2], 0x09);
    // A recorded failure is replayed as the failure.
    EXPECT_EQ(FT4222_SetClock(handle, SYS_CLK_80), FT4222_CLK_NOT_SUPPORTED);
    EXPECT_EQ(FT_Close(handle), FT_OK);
    EXPECT_EQ(divergence(), "");
}

TEST_F(ReplayTest, OtherBytesWrittenAreADivergenceAtThatCall)
{
    std::string error;
    ASSERT_TRUE(loadReplay(writeTrace(sessionCalls()), &error)) << error;
    DWORD count = 0;
    ASSERT_EQ(FT_CreateDeviceInfoList(&count), FT_OK);
    DWORD flags = 0, type = 0, id = 0, location = 0;
    char serial[16] = {}, description[64] = {};
    FT_HANDLE handle = nullptr;
    ASSERT_EQ(FT_GetDeviceInfoDetail(0, &flags, &type, &id, &location, serial, description, &handle), FT_OK);
    ASSERT_EQ(FT_OpenEx(reinterpret_cast<void*>(uintptr_t(4113)), FT_OPEN_BY_LOCATION, &handle), FT_OK);
    uint8_t command[4] = { 0xa1, 0x80, 0xcb, 0xfe };
    uint8_t answer[3] = {};
    uint32 read = 0;
    EXPECT_EQ(FT4222_SPIMaster_MultiReadWrite(handle, answer, command, 4, 0, 3, &read), FT_OTHER_ERROR);
    const std::string report = divergence();
    EXPECT_NE(
        report.find("replay diverges at call 4: other bytes written (from byte 2 on)"), std::string::npos)
        << report;
    EXPECT_NE(report.find("recorded FT4222_SPIMaster_MultiReadWrite(handle 0x5000 port A, 4, 0, 3, writes 4 "
                          "bytes a180cafe)"),
        std::string::npos)
        << report;
    EXPECT_NE(
        report.find("came FT4222_SPIMaster_MultiReadWrite(handle 0x5000 port A, 4, 0, 3, writes 4 bytes "
                    "a180cbfe)"),
        std::string::npos)
        << report;
    // Everything after it fails too, and the first report stays.
    EXPECT_EQ(FT4222_SetClock(handle, SYS_CLK_80), FT_OTHER_ERROR);
    EXPECT_EQ(divergence(), report);
}

TEST_F(ReplayTest, AnotherFunctionOrArgumentIsADivergence)
{
    std::string error;
    ASSERT_TRUE(loadReplay(writeTrace(sessionCalls()), &error)) << error;
    DWORD vid = 0, pid = 0;
    EXPECT_EQ(FT_GetVIDPID(&vid, &pid), FT_OTHER_ERROR);
    EXPECT_NE(divergence().find("replay diverges at call 1: another function: recorded "
                                "FT_CreateDeviceInfoList(), came FT_GetVIDPID()"),
        std::string::npos)
        << divergence();

    ASSERT_TRUE(loadReplay(writeTrace(sessionCalls()), &error)) << error;
    EXPECT_EQ(divergence(), "");
    DWORD count = 0;
    ASSERT_EQ(FT_CreateDeviceInfoList(&count), FT_OK);
    DWORD flags = 0, type = 0, id = 0, location = 0;
    char serial[16] = {}, description[64] = {};
    FT_HANDLE handle = nullptr;
    EXPECT_EQ(FT_GetDeviceInfoDetail(1, &flags, &type, &id, &location, serial, description, &handle),
        FT_OTHER_ERROR);
    EXPECT_NE(divergence().find("replay diverges at call 2: other arguments ([1] where [0] was recorded)"),
        std::string::npos)
        << divergence();
}

TEST_F(ReplayTest, ACallOnAnotherHandleIsADivergence)
{
    std::string error;
    ASSERT_TRUE(loadReplay(writeTrace(sessionCalls()), &error)) << error;
    DWORD count = 0;
    ASSERT_EQ(FT_CreateDeviceInfoList(&count), FT_OK);
    DWORD flags = 0, type = 0, id = 0, location = 0;
    char serial[16] = {}, description[64] = {};
    FT_HANDLE handle = nullptr;
    ASSERT_EQ(FT_GetDeviceInfoDetail(0, &flags, &type, &id, &location, serial, description, &handle), FT_OK);
    ASSERT_EQ(FT_OpenEx(reinterpret_cast<void*>(uintptr_t(4113)), FT_OPEN_BY_LOCATION, &handle), FT_OK);
    uint8_t command[4] = { 0xa1, 0x80, 0xca, 0xfe };
    uint8_t answer[3] = {};
    uint32 read = 0;
    EXPECT_EQ(FT4222_SPIMaster_MultiReadWrite(
                  reinterpret_cast<FT_HANDLE>(uintptr_t(0x5010)), answer, command, 4, 0, 3, &read),
        FT_OTHER_ERROR);
    EXPECT_NE(
        divergence().find("call 4: another handle (0x5010 where 0x5000 was recorded)"), std::string::npos)
        << divergence();
}

TEST_F(ReplayTest, ATraceCutShortReplaysUpToTheCut)
{
    std::vector<TraceCall> calls = sessionCalls();
    calls.resize(3);
    std::string error;
    ASSERT_TRUE(loadReplay(writeTrace(calls, false), &error)) << error;
    DWORD count = 0;
    EXPECT_EQ(FT_CreateDeviceInfoList(&count), FT_OK);
    DWORD flags = 0, type = 0, id = 0, location = 0;
    char serial[16] = {}, description[64] = {};
    FT_HANDLE handle = nullptr;
    EXPECT_EQ(FT_GetDeviceInfoDetail(0, &flags, &type, &id, &location, serial, description, &handle), FT_OK);
    EXPECT_EQ(FT_OpenEx(reinterpret_cast<void*>(uintptr_t(4113)), FT_OPEN_BY_LOCATION, &handle), FT_OK);
    EXPECT_EQ(divergence(), "");
    EXPECT_EQ(FT_Close(handle), FT_OTHER_ERROR);
    EXPECT_NE(
        divergence().find("replay diverges at call 4: the recording ends after call 3 (it was cut short), "
                          "and FT_Close(handle 0x5000 port A) came"),
        std::string::npos)
        << divergence();
}

TEST_F(ReplayTest, ResettingTheMachineEndsTheReplay)
{
    std::string error;
    ASSERT_TRUE(loadReplay(writeTrace(sessionCalls()), &error)) << error;
    vbridge::VirtualBridge::instance().resetToDefault();
    // The plug-in's USB ids, as it registers them (a replay would fail this).
    EXPECT_EQ(FT_SetVIDPID(0x1ce6, 3), FT_OK);
    DWORD count = 0;
    EXPECT_EQ(FT_CreateDeviceInfoList(&count), FT_OK);
    EXPECT_EQ(count, 4u); // the default machine's sensor: four interfaces
    EXPECT_EQ(divergence(), "");
}

TEST_F(ReplayTest, RecordedTimingKeepsTheRecordedPace)
{
    std::string error;
    ASSERT_TRUE(loadReplay(writeTrace(sessionCalls()), &error, ", \"timing\": \"recorded\"")) << error;
    const auto start = std::chrono::steady_clock::now();
    DWORD count = 0;
    ASSERT_EQ(FT_CreateDeviceInfoList(&count), FT_OK);
    DWORD flags = 0, type = 0, id = 0, location = 0;
    char serial[16] = {}, description[64] = {};
    FT_HANDLE handle = nullptr;
    ASSERT_EQ(FT_GetDeviceInfoDetail(0, &flags, &type, &id, &location, serial, description, &handle), FT_OK);
    ASSERT_EQ(FT_OpenEx(reinterpret_cast<void*>(uintptr_t(4113)), FT_OPEN_BY_LOCATION, &handle), FT_OK);
    uint8_t command[4] = { 0xa1, 0x80, 0xca, 0xfe };
    uint8_t answer[3] = {};
    uint32 read = 0;
    ASSERT_EQ(FT4222_SPIMaster_MultiReadWrite(handle, answer, command, 4, 0, 3, &read), FT4222_OK);
    ASSERT_EQ(FT4222_SetClock(handle, SYS_CLK_80), FT4222_CLK_NOT_SUPPORTED);
    // The fifth call was made 60 ms after the first.
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(60));
}

TEST_F(ReplayTest, ABadReplayScenarioIsRefusedWithItsReason)
{
    std::string error;
    EXPECT_FALSE(loadReplay(directory_.filePath("missing.trace").toStdString(), &error));
    EXPECT_NE(error.find("scenario replay.json: replay: "), std::string::npos) << error;
    EXPECT_NE(error.find("missing.trace: cannot be read"), std::string::npos) << error;

    const std::string trace = writeTrace(sessionCalls());
    EXPECT_FALSE(loadReplay(trace, &error, ", \"sensors\": []"));
    EXPECT_NE(error.find("unknown key \"sensors\" beside \"replay\""), std::string::npos) << error;
    EXPECT_FALSE(loadReplay(trace, &error, ", \"timing\": \"realistic\""));
    EXPECT_NE(error.find("timing of a replay must be \"recorded\" or \"instant\""), std::string::npos)
        << error;
    EXPECT_FALSE(
        vbridge::VirtualBridge::instance().loadScenarioText("{\"replay\": 5}", "replay.json", &error));
    EXPECT_NE(error.find("\"replay\" must name a trace file"), std::string::npos) << error;
}
