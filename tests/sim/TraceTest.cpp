// The trace of bridge calls: what each entry holds and its one-line form.
#include "SimSupport.h"

#include <atomic>
#include <thread>

using namespace simtest;

namespace {

const std::vector<uint8_t> kStatusRequest = bytes({ 0xA1, 0x80, 0xCA, 0xFE });

class VbTrace : public VbTest { };

} // namespace

TEST_F(VbTrace, EveryCallLeavesOneEntryInOrder)
{
    addSensor();
    FT_HANDLE handle = open("KX0001A");
    FT_SetTimeouts(handle, 900, 900);
    FT_Close(handle);
    const auto entries = bridge().trace();
    ASSERT_EQ(entries.size(), 3u);
    EXPECT_EQ(entries[0].function, "FT_OpenEx");
    EXPECT_EQ(entries[1].function, "FT_SetTimeouts");
    EXPECT_EQ(entries[2].function, "FT_Close");
    EXPECT_EQ(entries[0].seq + 1, entries[1].seq);
    EXPECT_EQ(entries[1].seq + 1, entries[2].seq);
}

TEST_F(VbTrace, CallCountCountsEveryCallSinceTheReset)
{
    addSensor();
    listCount();
    listCount();
    FT_ResetDevice(nullptr);
    EXPECT_EQ(bridge().callCount(), 3u);
}

TEST_F(VbTrace, EntryNamesTheInterfaceSerialAndPortLetter)
{
    addSensor("KX0009");
    FT_HANDLE handle = open("KX0009C");
    FT_Purge(handle, 3);
    const auto entries = bridge().trace("FT_Purge");
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].device, "KX0009C");
    EXPECT_EQ(entries[0].port, 'C');
}

TEST_F(VbTrace, ListCallsNameNoDevice)
{
    addSensor();
    listCount();
    ASSERT_EQ(bridge().trace().size(), 1u);
    EXPECT_EQ(bridge().trace()[0].device, "");
    EXPECT_EQ(bridge().trace()[0].port, 0);
}

TEST_F(VbTrace, ScalarArgumentsAreKeptInCallOrder)
{
    addSensor();
    FT_HANDLE handle = openPort(0, kPortB);
    FT4222_SPIMaster_Init(handle, SPI_IO_SINGLE, CLK_DIV_64, CLK_IDLE_LOW, CLK_LEADING, 4);
    const auto entries = bridge().trace("FT4222_SPIMaster_Init");
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(
        entries[0].args, (std::vector<int64_t> { SPI_IO_SINGLE, CLK_DIV_64, CLK_IDLE_LOW, CLK_LEADING, 4 }));
}

TEST_F(VbTrace, OpenByLocationKeepsLocationThenFlag)
{
    addSensor();
    const uint32_t location = bridge().interfaceLocation(0, kPortA);
    FT_HANDLE handle = nullptr;
    FT_OpenEx(reinterpret_cast<void*>(static_cast<uintptr_t>(location)), FT_OPEN_BY_LOCATION, &handle);
    const auto entries = bridge().trace("FT_OpenEx");
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].args, (std::vector<int64_t> { location, FT_OPEN_BY_LOCATION }));
    EXPECT_EQ(entries[0].device, "KX0001A");
}

TEST_F(VbTrace, OpenBySerialKeepsTheSerialAsText)
{
    addSensor();
    open("KX0001D");
    const auto entries = bridge().trace("FT_OpenEx");
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].text, "KX0001D");
    EXPECT_EQ(entries[0].args, (std::vector<int64_t> { FT_OPEN_BY_SERIAL_NUMBER }));
}

TEST_F(VbTrace, TransferKeepsBytesWrittenAndRead)
{
    addSensor();
    FT_HANDLE handle = openPortA();
    command(handle, kStatusRequest, 3);
    const auto entries = bridge().trace("FT4222_SPIMaster_MultiReadWrite");
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].args, (std::vector<int64_t> { 4, 0, 3 }));
    EXPECT_EQ(hex(entries[0].written), "a1 80 ca fe");
    EXPECT_EQ(hex(entries[0].read), "40 6b 09");
}

TEST_F(VbTrace, LineShowsCallArgumentsBytesAndStatus)
{
    addSensor();
    FT_HANDLE handle = openPortA();
    bridge().clearTrace();
    command(handle, kStatusRequest, 3);
    const auto entries = bridge().trace();
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].toString(),
        std::to_string(entries[0].seq)
            + " FT4222_SPIMaster_MultiReadWrite KX0001A 4 0 3 [a1 80 ca fe] -> "
              "[40 6b 09] = 0");
}

TEST_F(VbTrace, LineNamesAFailureStatus)
{
    addSensor();
    FT_HANDLE handle = open("KX0001A");
    bridge().clearTrace();
    FT4222_SPI_Reset(handle);
    EXPECT_EQ(bridge().trace()[0].toString(),
        std::to_string(bridge().trace()[0].seq) + " FT4222_SPI_Reset KX0001A = 1003 IS_NOT_SPI_MODE");
}

TEST_F(VbTrace, LineQuotesTheTextArgument)
{
    addSensor();
    open("KX0001B");
    EXPECT_EQ(bridge().trace()[0].toString(), "1 FT_OpenEx KX0001B 1 \"KX0001B\" = 0");
}

TEST_F(VbTrace, LineShortensLongData)
{
    addSensor();
    FT_HANDLE handle = openPortA();
    bridge().clearTrace();
    command(handle, bytes({ 0xA0, 0x80, 0xCA, 0xFE }), 65408);
    const std::string line = bridge().trace()[0].toString();
    EXPECT_NE(line.find(" ... (65408 bytes)] = 0"), std::string::npos) << line;
    EXPECT_LT(line.size(), 300u) << line;
}

TEST_F(VbTrace, WholeBlockIsKeptByDefault)
{
    addSensor();
    FT_HANDLE handle = openPortA();
    const std::vector<uint8_t> block = command(handle, bytes({ 0xA0, 0x80, 0xCA, 0xFE }), 65408);
    const auto entries = bridge().trace("FT4222_SPIMaster_MultiReadWrite");
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].read, block);
}

TEST_F(VbTrace, DataLimitCutsKeptBytes)
{
    addSensor();
    FT_HANDLE handle = openPortA();
    bridge().setTraceDataLimit(2);
    command(handle, kStatusRequest, 3);
    const auto entries = bridge().trace("FT4222_SPIMaster_MultiReadWrite");
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(hex(entries[0].written), "a1 80");
    EXPECT_EQ(hex(entries[0].read), "40 6b");
}

TEST_F(VbTrace, DisabledTraceKeepsNothingButCallsStillCount)
{
    addSensor();
    bridge().setTraceEnabled(false);
    listCount();
    EXPECT_TRUE(bridge().trace().empty());
    EXPECT_EQ(bridge().callCount(), 1u);
}

TEST_F(VbTrace, ClearTraceEmptiesIt)
{
    addSensor();
    listCount();
    bridge().clearTrace();
    EXPECT_TRUE(bridge().trace().empty());
}

TEST_F(VbTrace, OutputsOfTheCallAreKeptAfterItsArguments)
{
    addSensor();
    FT_HANDLE handle = openPortD();
    BOOL value = 0;
    FT4222_GPIO_Read(handle, GPIO_PORT3, &value);
    const auto entries = bridge().trace("FT4222_GPIO_Read");
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].args, (std::vector<int64_t> { GPIO_PORT3, 1 }));
}

TEST_F(VbTrace, CallsFromManyThreadsAreAllCounted)
{
    constexpr int kThreads = 4;
    constexpr int kRequests = 200;
    for (int i = 0; i < kThreads; ++i)
        addSensor();
    std::vector<FT_HANDLE> handles;
    for (int i = 0; i < kThreads; ++i)
        handles.push_back(openPortA(i));
    const uint64_t before = bridge().callCount();
    std::atomic<int> wrong { 0 };
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&, i] {
            for (int n = 0; n < kRequests; ++n) {
                std::vector<uint8_t> frame = kStatusRequest;
                uint8_t answer[3] = {};
                uint32_t read = 0;
                if (FT4222_SPIMaster_MultiReadWrite(
                        handles[static_cast<size_t>(i)], answer, frame.data(), 4, 0, 3, &read)
                        != FT4222_OK
                    || answer[0] != 0x40)
                    ++wrong;
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(wrong.load(), 0);
    EXPECT_EQ(bridge().callCount() - before, static_cast<uint64_t>(kThreads * kRequests));
}
