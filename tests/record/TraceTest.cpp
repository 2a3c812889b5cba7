// The trace format: what is written reads back as it was, a damaged or
// foreign file is refused with the line it fails at, and a file cut short
// (a killed recording) still gives every call before the cut.
#include <QFile>
#include <QTemporaryDir>

#include <fstream>
#include <iterator>

#include <gtest/gtest.h>

#include "record/Trace.h"

using namespace ktrace;

namespace {

TraceCall sampleCall(uint64_t index)
{
    TraceCall call;
    call.index = index;
    call.timeUs = 1000 * static_cast<int64_t>(index);
    call.durationUs = 7;
    call.function = "FT4222_SPIMaster_MultiReadWrite";
    call.handle = 0x5000;
    call.port = 'A';
    call.args = { 4, 0, 3 };
    call.written = { 0xa1, 0x80, 0xca, 0xfe };
    call.status = 0;
    call.outputs = { 3 };
    call.read = { 0x40, 0x6b, static_cast<uint8_t>(index) };
    return call;
}

std::string readBytes(const std::string& path)
{
    std::ifstream stream(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(stream)), std::istreambuf_iterator<char>());
}

void expectSameCall(const TraceCall& a, const TraceCall& b)
{
    EXPECT_EQ(a.index, b.index);
    EXPECT_EQ(a.timeUs, b.timeUs);
    EXPECT_EQ(a.durationUs, b.durationUs);
    EXPECT_EQ(a.function, b.function);
    EXPECT_EQ(a.handle, b.handle);
    EXPECT_EQ(a.port, b.port);
    EXPECT_EQ(a.args, b.args);
    EXPECT_EQ(a.hasText, b.hasText);
    EXPECT_EQ(a.text, b.text);
    EXPECT_EQ(a.written, b.written);
    EXPECT_EQ(a.status, b.status);
    EXPECT_EQ(a.outputs, b.outputs);
    EXPECT_EQ(a.outputTexts, b.outputTexts);
    EXPECT_EQ(a.read, b.read);
    EXPECT_EQ(a.outputHandle, b.outputHandle);
}

} // namespace

TEST(TraceFormat, EveryFieldReadsBackAsWritten)
{
    TraceCall open;
    open.index = 1;
    open.function = "FT_OpenEx";
    open.hasText = true;
    open.text = "KX 0001,A=%\xb2";
    open.args = { 1 };
    open.status = 0;
    open.outputHandle = 0x7f00deadbeef;
    TraceCall detail;
    detail.index = 2;
    detail.function = "FT_GetDeviceInfoDetail";
    detail.args = { 0 };
    detail.status = 0;
    detail.outputs = { 2, 11, 484835331, 4113 };
    detail.outputTexts = { "KX0001A", "KORUX/KORUX\xb2 A" };
    TraceCall failed = sampleCall(3);
    failed.status = -1000;
    failed.read.clear();
    const std::string text = formatHeader() + formatMeta("library", "/usr/lib/lib ft4222.so")
        + formatCall(open) + formatCall(detail) + formatCall(failed) + formatEnd(3);

    Trace trace;
    std::string error;
    ASSERT_TRUE(parseTrace(text, &trace, &error)) << error;
    EXPECT_TRUE(trace.complete);
    EXPECT_EQ(trace.meta["library"], "/usr/lib/lib ft4222.so");
    ASSERT_EQ(trace.calls.size(), 3u);
    expectSameCall(trace.calls[0], open);
    expectSameCall(trace.calls[1], detail);
    expectSameCall(trace.calls[2], failed);
}

TEST(TraceFormat, TextsAreEscapedToOneWordEach)
{
    EXPECT_EQ(escapeText("a b,c=d%e\n"), "a%20b%2cc%3dd%25e%0a");
    std::string back;
    ASSERT_TRUE(unescapeText(escapeText(std::string("\0\x01\xff ok", 6)), &back));
    EXPECT_EQ(back, std::string("\0\x01\xff ok", 6));
    EXPECT_FALSE(unescapeText("%4", &back));
    EXPECT_FALSE(unescapeText("%zz", &back));
}

TEST(TraceFormat, RefusesWhatIsNoTraceOrAnotherVersion)
{
    Trace trace;
    std::string error;
    EXPECT_FALSE(parseTrace("", &trace, &error));
    EXPECT_NE(error.find("empty"), std::string::npos) << error;
    EXPECT_FALSE(parseTrace("{\"sensors\": []}\n", &trace, &error));
    EXPECT_NE(error.find("not a korux trace"), std::string::npos) << error;
    EXPECT_FALSE(parseTrace("korux-trace 2\n", &trace, &error));
    EXPECT_NE(error.find("version 2"), std::string::npos) << error;
}

TEST(TraceFormat, NamesTheLineOfADamagedCall)
{
    const std::string good = formatCall(sampleCall(1));
    const struct {
        std::string line;
        const char* reason;
    } cases[] = {
        { "call 2 t=1 f=FT_Close st=0\n", "call 2 where call 1 was due" },
        { "call 1 t=1 f=FT_Close\n", "needs the fields t, f and st" },
        { "call 1 t=1 f=FT_Close st=0 st=1\n", "appears twice" },
        { "call 1 t=1 f=FT_Close st=0 w=abc\n", "field w" },
        { "call 1 t=1 f=FT_Close st=0 p=E\n", "field p" },
        { "call 1 t=1 f=FT_Close st=0 h=5000\n", "field h" },
        { "call 1 t=-5 f=FT_Close st=0\n", "field t" },
        { "call 1 t=1 f=FT(Close) st=0\n", "field f" },
        { "call 1 t=1 f=FT_Close st=99999999999999999999\n", "field st" },
        { "call 1 t=1 f=FT_Close st=0 x=1\n", "unknown field" },
        { "call 1 t=1 f=FT_Close st=0 nokey\n", "key=value" },
        { "frob 1\n", "unknown line" },
        { "meta onlykey\n", "meta KEY VALUE" },
        { "end 5\n", "number of calls" },
    };
    for (const auto& c : cases) {
        Trace trace;
        std::string error;
        EXPECT_FALSE(parseTrace(formatHeader() + c.line, &trace, &error)) << c.line;
        EXPECT_NE(error.find("line 2: "), std::string::npos) << c.line << error;
        EXPECT_NE(error.find(c.reason), std::string::npos) << c.line << error;
    }
    Trace trace;
    std::string error;
    EXPECT_FALSE(parseTrace(formatHeader() + good + formatEnd(1) + good, &trace, &error));
    EXPECT_NE(error.find("line 4: text after the end line"), std::string::npos) << error;
}

TEST(TraceFormat, ALastLineWithoutItsNewlineIsACutAndLeftOut)
{
    const std::string whole = formatHeader() + formatCall(sampleCall(1)) + formatCall(sampleCall(2));
    Trace trace;
    std::string error;
    ASSERT_TRUE(parseTrace(whole.substr(0, whole.size() - 5), &trace, &error)) << error;
    EXPECT_FALSE(trace.complete);
    ASSERT_EQ(trace.calls.size(), 1u);
    expectSameCall(trace.calls[0], sampleCall(1));
}

TEST(TraceWriter, WritesAtomicallyAndFinishesWithTheEndLine)
{
    QTemporaryDir directory;
    const std::string path = directory.filePath("session.trace").toStdString();
    TraceWriter writer;
    std::string error;
    ASSERT_TRUE(writer.open(path, &error)) << error;
    writer.meta("recorder", "test");
    for (uint64_t i = 1; i <= 50; ++i)
        writer.write(sampleCall(i));
    // Until the end, only the partial file exists.
    EXPECT_FALSE(QFile::exists(QString::fromStdString(path)));
    EXPECT_TRUE(QFile::exists(QString::fromStdString(path + ".partial")));
    ASSERT_TRUE(writer.finish(&error)) << error;
    EXPECT_FALSE(QFile::exists(QString::fromStdString(path + ".partial")));

    const std::string bytes = readBytes(path);
    ASSERT_GE(bytes.size(), 2u);
    EXPECT_EQ(static_cast<uint8_t>(bytes[0]), 0x1f); // gzip
    Trace trace;
    ASSERT_TRUE(readTraceFile(path, &trace, &error)) << error;
    EXPECT_TRUE(trace.complete);
    EXPECT_FALSE(trace.cutCompressed);
    EXPECT_EQ(trace.meta["recorder"], "test");
    ASSERT_EQ(trace.calls.size(), 50u);
    for (uint64_t i = 1; i <= 50; ++i)
        expectSameCall(trace.calls[i - 1], sampleCall(i));
}

TEST(TraceWriter, AFolderThatCannotBeWrittenIsAnError)
{
    TraceWriter writer;
    std::string error;
    EXPECT_FALSE(writer.open("/nonexistent/korux/session.trace", &error));
    EXPECT_NE(error.find("/nonexistent/korux/session.trace.partial: cannot be written"), std::string::npos)
        << error;
}

// A recording killed at any moment: the file ends anywhere in the compressed
// stream. Whatever was flushed before reads back, each call whole and as
// written, and the trace says it is not complete.
TEST(TraceWriter, AFileCutAnywhereGivesTheCallsBeforeTheCut)
{
    QTemporaryDir directory;
    const std::string path = directory.filePath("cut.trace").toStdString();
    TraceWriter writer;
    std::string error;
    ASSERT_TRUE(writer.open(path, &error)) << error;
    writer.setFlushIntervalUs(0); // a flush after every call
    for (uint64_t i = 1; i <= 40; ++i)
        writer.write(sampleCall(i));
    ASSERT_TRUE(writer.finish(&error)) << error;
    const std::string bytes = readBytes(path);

    size_t previous = 0;
    for (size_t cut = 12; cut < bytes.size(); cut += 7) {
        std::string text;
        bool cutShort = false;
        ASSERT_TRUE(decompress(bytes.substr(0, cut), &text, &cutShort, &error)) << cut << ": " << error;
        EXPECT_TRUE(cutShort) << cut;
        Trace trace;
        // Cut before the first line: nothing to read.
        if (text.find('\n') == std::string::npos) {
            EXPECT_FALSE(parseTrace(text, &trace, &error));
            continue;
        }
        ASSERT_TRUE(parseTrace(text, &trace, &error)) << cut << ": " << error;
        // Only a cut in the gzip trailer leaves the end line readable.
        if (trace.complete) {
            EXPECT_EQ(trace.calls.size(), 40u) << cut;
        }
        EXPECT_GE(trace.calls.size(), previous) << cut;
        previous = trace.calls.size();
        for (size_t i = 0; i < trace.calls.size(); ++i)
            expectSameCall(trace.calls[i], sampleCall(i + 1));
    }
    // With a flush after every call, a cut loses at most the call in flight.
    EXPECT_GE(previous, 39u);
}

TEST(TraceFormat, DescribesACallForADivergenceReport)
{
    EXPECT_EQ(describeCall(sampleCall(1)),
        "FT4222_SPIMaster_MultiReadWrite(handle 0x5000 port A, 4, 0, 3, writes 4 bytes a180cafe)");
}
