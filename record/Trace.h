// Traces of bridge traffic: every call a host made to the FT4222 bridge
// library, with what went in and what came back. The recording bridge writes
// them, the virtual bridge replays them, korux reads them. The format is
// described in docs/trace.md: gzip-compressed text, one line per call.
//
// Everything here is pure (texts and buffers in, texts and buffers out)
// except TraceWriter, which owns the file.
#pragma once

#include <cstdint>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace ktrace {

constexpr int kTraceVersion = 1;
constexpr char kTraceMagic[] = "korux-trace";

// Upper bounds a trace line is held to: they are far above anything the
// bridge API can carry and keep a damaged file from asking for gigabytes.
constexpr size_t kMaxBytes = 65536 + 256; // one transfer
constexpr size_t kMaxNumbers = 16; // arguments or outputs of one call
constexpr size_t kMaxText = 256; // a serial number or description
constexpr size_t kMaxTexts = 4;
constexpr size_t kMaxDecompressed = size_t(1) << 30;

struct TraceCall {
    uint64_t index = 0; // 1 for the first call
    int64_t timeUs = 0; // monotonic, from the start of the recording
    int64_t durationUs = 0;
    std::string function;
    uint64_t handle = 0; // the handle value the call was given; 0 for none
    char port = 0; // 'A' to 'D' when known, else 0
    std::vector<int64_t> args; // the call's scalar inputs
    bool hasText = false;
    std::string text; // a text input (FT_OpenEx by serial or description)
    std::vector<uint8_t> written;
    int64_t status = 0;
    std::vector<int64_t> outputs; // scalars the call handed back
    std::vector<std::string> outputTexts; // texts the call handed back
    std::vector<uint8_t> read;
    uint64_t outputHandle = 0; // a handle the call handed back
};

struct Trace {
    int version = kTraceVersion;
    std::map<std::string, std::string> meta; // in file order is not kept
    std::vector<TraceCall> calls;
    bool complete = false; // an "end" line closes it; a killed recording has none
    bool cutCompressed = false; // the compressed stream stops early
};

// Text of one line, newline included.
std::string formatHeader();
std::string formatMeta(const std::string& key, const std::string& value);
std::string formatCall(const TraceCall& call);
std::string formatEnd(uint64_t calls);

// The text of a trace file: gzip is undone (a stream cut short gives what
// came before the cut, and *cut says so); anything else is taken as text.
// Returns false with a reason for what cannot be read at all.
bool decompress(const std::string& bytes, std::string* text, bool* cut, std::string* error);

// Reads the text of a trace. A last line without its newline is where a
// recording was cut and is left out. On error returns false with the reason,
// naming the line.
bool parseTrace(const std::string& text, Trace* trace, std::string* error);

// decompress and parseTrace on a file.
bool readTraceFile(const std::string& path, Trace* trace, std::string* error);

// One line of a call for people: what was recorded or what came, in a
// divergence report.
std::string describeCall(const TraceCall& call);
// A handle as the trace writes it ("0x..."), and numbers as "1,2,3".
std::string handleText(uint64_t handle);
std::string numberList(const std::vector<int64_t>& numbers);

// Text escapes: %XX for space, '%', ',', '=' and every byte outside 0x21-0x7E.
std::string escapeText(const std::string& text);
bool unescapeText(const std::string& text, std::string* out);

// Writes a trace: to path + ".partial" while the recording runs, flushed so
// that a killed process leaves every call up to the last flush readable, and
// renamed to path by finish().
class TraceWriter {
public:
    TraceWriter() = default;
    ~TraceWriter();
    TraceWriter(const TraceWriter&) = delete;
    TraceWriter& operator=(const TraceWriter&) = delete;

    bool open(const std::string& path, std::string* error);
    bool isOpen() const { return file_ != nullptr; }
    void meta(const std::string& key, const std::string& value);
    // Appends a call; flushes when flushIntervalUs has passed since the
    // last flush (by the call's own time).
    void write(const TraceCall& call);
    void flush();
    // Writes the end line, closes and renames. False when anything went
    // wrong since open, with the first error.
    bool finish(std::string* error);
    uint64_t calls() const { return calls_; }
    const std::string& partialPath() const { return partial_; }
    void setFlushIntervalUs(int64_t us) { flushIntervalUs_ = us; }

private:
    void put(const std::string& text);

    void* file_ = nullptr; // gzFile
    std::string path_;
    std::string partial_;
    std::string error_;
    uint64_t calls_ = 0;
    int64_t lastFlushUs_ = 0;
    int64_t flushIntervalUs_ = 200000;
};

} // namespace ktrace
