#include "record/Trace.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>

#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>
#include <zlib.h>

namespace ktrace {

namespace {

constexpr char kHex[] = "0123456789abcdef";

int hexValue(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

std::string hexBytes(const std::vector<uint8_t>& bytes)
{
    std::string text;
    text.reserve(bytes.size() * 2);
    for (uint8_t byte : bytes) {
        text += kHex[byte >> 4];
        text += kHex[byte & 15];
    }
    return text;
}

bool parseHexBytes(const std::string& text, std::vector<uint8_t>* bytes)
{
    if (text.size() % 2 || text.size() / 2 > kMaxBytes)
        return false;
    bytes->clear();
    bytes->reserve(text.size() / 2);
    for (size_t i = 0; i < text.size(); i += 2) {
        const int high = hexValue(text[i]), low = hexValue(text[i + 1]);
        if (high < 0 || low < 0)
            return false;
        bytes->push_back(static_cast<uint8_t>(high << 4 | low));
    }
    return true;
}

bool parseInteger(const std::string& text, int64_t* value)
{
    if (text.empty() || text.size() > 20)
        return false;
    size_t i = 0;
    bool negative = false;
    if (text[0] == '-') {
        negative = true;
        i = 1;
        if (text.size() == 1)
            return false;
    }
    uint64_t magnitude = 0;
    for (; i < text.size(); ++i) {
        if (text[i] < '0' || text[i] > '9')
            return false;
        const uint64_t digit = static_cast<uint64_t>(text[i] - '0');
        if (magnitude > (UINT64_MAX - digit) / 10)
            return false;
        magnitude = magnitude * 10 + digit;
    }
    if (magnitude > (negative ? uint64_t(INT64_MAX) + 1 : uint64_t(INT64_MAX)))
        return false;
    *value = negative ? static_cast<int64_t>(0 - magnitude) : static_cast<int64_t>(magnitude);
    return true;
}

bool parseHandle(const std::string& text, uint64_t* value)
{
    if (text.size() < 3 || text.size() > 18 || text[0] != '0' || text[1] != 'x')
        return false;
    uint64_t result = 0;
    for (size_t i = 2; i < text.size(); ++i) {
        const int digit = hexValue(text[i]);
        if (digit < 0)
            return false;
        result = result << 4 | static_cast<uint64_t>(digit);
    }
    *value = result;
    return true;
}

std::vector<std::string> split(const std::string& text, char separator)
{
    std::vector<std::string> parts;
    size_t start = 0;
    while (true) {
        const size_t at = text.find(separator, start);
        if (at == std::string::npos) {
            parts.push_back(text.substr(start));
            return parts;
        }
        parts.push_back(text.substr(start, at - start));
        start = at + 1;
    }
}

bool parseNumberList(const std::string& text, std::vector<int64_t>* numbers)
{
    numbers->clear();
    if (text.empty())
        return true;
    const std::vector<std::string> parts = split(text, ',');
    if (parts.size() > kMaxNumbers)
        return false;
    for (const std::string& part : parts) {
        int64_t value = 0;
        if (!parseInteger(part, &value))
            return false;
        numbers->push_back(value);
    }
    return true;
}

bool validFunction(const std::string& name)
{
    if (name.empty() || name.size() > 64)
        return false;
    for (char c : name)
        if (!((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_'))
            return false;
    return true;
}

bool parseCall(const std::vector<std::string>& words, uint64_t expected, TraceCall* call, std::string* error)
{
    int64_t index = 0;
    if (words.size() < 2 || !parseInteger(words[1], &index) || index <= 0) {
        *error = "a call line starts with \"call\" and its number";
        return false;
    }
    if (static_cast<uint64_t>(index) != expected) {
        *error = "call " + std::to_string(index) + " where call " + std::to_string(expected) + " was due";
        return false;
    }
    call->index = expected;
    std::string seen;
    bool hasTime = false, hasFunction = false, hasStatus = false;
    for (size_t i = 2; i < words.size(); ++i) {
        const std::string& word = words[i];
        const size_t equals = word.find('=');
        if (equals == std::string::npos || equals == 0) {
            *error = "\"" + escapeText(word.substr(0, 32)) + "\" is not a key=value field";
            return false;
        }
        const std::string key = word.substr(0, equals);
        const std::string value = word.substr(equals + 1);
        if (seen.find(" " + key + " ") != std::string::npos) {
            *error = "the field " + escapeText(key) + " appears twice";
            return false;
        }
        seen += " " + key + " ";
        bool ok = true;
        if (key == "t") {
            ok = parseInteger(value, &call->timeUs) && call->timeUs >= 0;
            hasTime = true;
        } else if (key == "d") {
            ok = parseInteger(value, &call->durationUs) && call->durationUs >= 0;
        } else if (key == "f") {
            ok = validFunction(value);
            call->function = value;
            hasFunction = true;
        } else if (key == "h") {
            ok = parseHandle(value, &call->handle);
        } else if (key == "oh") {
            ok = parseHandle(value, &call->outputHandle);
        } else if (key == "p") {
            ok = value.size() == 1 && value[0] >= 'A' && value[0] <= 'D';
            call->port = ok ? value[0] : 0;
        } else if (key == "a") {
            ok = parseNumberList(value, &call->args);
        } else if (key == "o") {
            ok = parseNumberList(value, &call->outputs);
        } else if (key == "s") {
            call->hasText = true;
            ok = unescapeText(value, &call->text) && call->text.size() <= kMaxText;
        } else if (key == "ot") {
            const std::vector<std::string> parts = split(value, ',');
            ok = parts.size() <= kMaxTexts;
            for (size_t p = 0; ok && p < parts.size(); ++p) {
                std::string text;
                ok = unescapeText(parts[p], &text) && text.size() <= kMaxText;
                call->outputTexts.push_back(text);
            }
        } else if (key == "w") {
            ok = parseHexBytes(value, &call->written);
        } else if (key == "r") {
            ok = parseHexBytes(value, &call->read);
        } else if (key == "st") {
            ok = parseInteger(value, &call->status);
            hasStatus = true;
        } else {
            *error = "unknown field \"" + escapeText(key) + "\"";
            return false;
        }
        if (!ok) {
            *error = "the field " + key + " has a value it cannot have";
            return false;
        }
    }
    if (!hasTime || !hasFunction || !hasStatus) {
        *error = "a call needs the fields t, f and st";
        return false;
    }
    return true;
}


// fsync of a file or folder by its name.
bool syncToDisk(const std::string& path)
{
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    const bool synced = ::fsync(fd) == 0;
    const int saved = errno;
    ::close(fd);
    errno = saved;
    return synced;
}

std::string directoryOf(const std::string& path)
{
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos)
        return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

} // namespace

std::string handleText(uint64_t handle)
{
    char text[24];
    std::snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(handle));
    return text;
}

std::string numberList(const std::vector<int64_t>& numbers)
{
    std::string text;
    for (size_t i = 0; i < numbers.size(); ++i) {
        if (i)
            text += ',';
        text += std::to_string(numbers[i]);
    }
    return text;
}

std::string escapeText(const std::string& text)
{
    std::string out;
    for (unsigned char c : text) {
        if (c > 0x20 && c < 0x7F && c != '%' && c != ',' && c != '=') {
            out += static_cast<char>(c);
        } else {
            out += '%';
            out += kHex[c >> 4];
            out += kHex[c & 15];
        }
    }
    return out;
}

bool unescapeText(const std::string& text, std::string* out)
{
    out->clear();
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            out->push_back(text[i]);
            continue;
        }
        if (i + 2 >= text.size())
            return false;
        const int high = hexValue(text[i + 1]), low = hexValue(text[i + 2]);
        if (high < 0 || low < 0)
            return false;
        out->push_back(static_cast<char>(high << 4 | low));
        i += 2;
    }
    return true;
}

std::string formatHeader()
{
    return std::string(kTraceMagic) + " " + std::to_string(kTraceVersion) + "\n";
}

std::string formatMeta(const std::string& key, const std::string& value)
{
    return "meta " + escapeText(key) + " " + escapeText(value) + "\n";
}

std::string formatCall(const TraceCall& call)
{
    std::string line = "call " + std::to_string(call.index) + " t=" + std::to_string(call.timeUs)
        + " d=" + std::to_string(call.durationUs) + " f=" + call.function;
    if (call.handle)
        line += " h=" + handleText(call.handle);
    if (call.port)
        line += std::string(" p=") + call.port;
    if (!call.args.empty())
        line += " a=" + numberList(call.args);
    if (call.hasText)
        line += " s=" + escapeText(call.text);
    if (!call.written.empty())
        line += " w=" + hexBytes(call.written);
    line += " st=" + std::to_string(call.status);
    if (call.outputHandle)
        line += " oh=" + handleText(call.outputHandle);
    if (!call.outputs.empty())
        line += " o=" + numberList(call.outputs);
    if (!call.outputTexts.empty()) {
        line += " ot=";
        for (size_t i = 0; i < call.outputTexts.size(); ++i)
            line += (i ? "," : "") + escapeText(call.outputTexts[i]);
    }
    if (!call.read.empty())
        line += " r=" + hexBytes(call.read);
    return line + "\n";
}

std::string formatEnd(uint64_t calls)
{
    return "end " + std::to_string(calls) + "\n";
}

std::string describeCall(const TraceCall& call)
{
    std::string text = call.function + "(";
    bool first = true;
    auto add = [&](const std::string& part) {
        text += (first ? "" : ", ") + part;
        first = false;
    };
    if (call.handle)
        add("handle " + handleText(call.handle) + (call.port ? std::string(" port ") + call.port : ""));
    if (call.hasText)
        add("\"" + escapeText(call.text) + "\"");
    for (int64_t arg : call.args)
        add(std::to_string(arg));
    if (!call.written.empty()) {
        const size_t shown = std::min<size_t>(call.written.size(), 16);
        add("writes " + std::to_string(call.written.size()) + " bytes "
            + hexBytes(std::vector<uint8_t>(call.written.begin(), call.written.begin() + shown))
            + (shown < call.written.size() ? "..." : ""));
    }
    return text + ")";
}

bool decompress(const std::string& bytes, std::string* text, bool* cut, std::string* error)
{
    *cut = false;
    text->clear();
    if (bytes.size() < 2 || static_cast<uint8_t>(bytes[0]) != 0x1f
        || static_cast<uint8_t>(bytes[1]) != 0x8b) {
        *text = bytes;
        return true;
    }
    z_stream stream;
    std::memset(&stream, 0, sizeof stream);
    if (inflateInit2(&stream, 16 + MAX_WBITS) != Z_OK) {
        *error = "cannot start the decompression";
        return false;
    }
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(bytes.data()));
    stream.avail_in = static_cast<uInt>(bytes.size());
    char buffer[65536];
    int result = Z_OK;
    while (true) {
        stream.next_out = reinterpret_cast<Bytef*>(buffer);
        stream.avail_out = sizeof buffer;
        result = inflate(&stream, Z_NO_FLUSH);
        text->append(buffer, sizeof buffer - stream.avail_out);
        if (text->size() > kMaxDecompressed) {
            inflateEnd(&stream);
            *error = "larger than 1 GiB once decompressed";
            return false;
        }
        if (result == Z_STREAM_END) {
            // Concatenated gzip members are one stream, as gzip reads them.
            if (stream.avail_in == 0)
                break;
            if (inflateReset(&stream) != Z_OK)
                break;
            continue;
        }
        if (result == Z_BUF_ERROR && stream.avail_in == 0) {
            *cut = true; // the file ends inside the stream
            break;
        }
        if (result != Z_OK) {
            inflateEnd(&stream);
            if (text->empty()) {
                *error = "damaged compressed data";
                return false;
            }
            // Damage after readable calls: keep those, as with a cut.
            *cut = true;
            return true;
        }
    }
    inflateEnd(&stream);
    return true;
}

bool parseTrace(const std::string& text, Trace* trace, std::string* error)
{
    Trace result;
    size_t start = 0;
    uint64_t lineNumber = 0;
    bool ended = false;
    while (start < text.size()) {
        const size_t newline = text.find('\n', start);
        if (newline == std::string::npos)
            break; // cut inside the line
        const std::string line = text.substr(start, newline - start);
        start = newline + 1;
        ++lineNumber;
        const auto fail = [&](const std::string& reason) {
            *error = "line " + std::to_string(lineNumber) + ": " + reason;
            return false;
        };
        if (ended)
            return fail("text after the end line");
        const std::vector<std::string> words = split(line, ' ');
        if (lineNumber == 1) {
            int64_t version = 0;
            if (words.size() != 2 || words[0] != kTraceMagic)
                return fail("not a korux trace (it starts with \"korux-trace 1\")");
            if (!parseInteger(words[1], &version) || version != kTraceVersion)
                return fail("trace version " + escapeText(words[1].substr(0, 16))
                    + " is not one this korux reads (" + std::to_string(kTraceVersion) + ")");
            result.version = static_cast<int>(version);
            continue;
        }
        if (words[0] == "meta") {
            std::string key, value;
            if (words.size() != 3 || !unescapeText(words[1], &key) || !unescapeText(words[2], &value)
                || key.empty())
                return fail("a meta line is \"meta KEY VALUE\"");
            result.meta[key] = value;
        } else if (words[0] == "call") {
            TraceCall call;
            std::string reason;
            if (!parseCall(words, result.calls.size() + 1, &call, &reason))
                return fail(reason);
            result.calls.push_back(std::move(call));
        } else if (words[0] == "end") {
            int64_t count = 0;
            if (words.size() != 2 || !parseInteger(words[1], &count)
                || static_cast<uint64_t>(count) != result.calls.size())
                return fail("the end line does not give the number of calls");
            ended = true;
        } else {
            return fail("unknown line \"" + escapeText(words[0].substr(0, 16)) + "\"");
        }
    }
    if (lineNumber == 0) {
        *error = "empty: not a korux trace";
        return false;
    }
    result.complete = ended;
    *trace = std::move(result);
    return true;
}

bool readTraceFile(const std::string& path, Trace* trace, std::string* error)
{
    std::ifstream stream(path, std::ios::binary);
    if (!stream) {
        *error = path + ": cannot be read (" + std::strerror(errno) + ")";
        return false;
    }
    const std::string bytes((std::istreambuf_iterator<char>(stream)), std::istreambuf_iterator<char>());
    if (stream.bad()) {
        *error = path + ": cannot be read";
        return false;
    }
    std::string text, reason;
    bool cut = false;
    if (!decompress(bytes, &text, &cut, &reason) || !parseTrace(text, trace, &reason)) {
        *error = path + ": " + reason;
        return false;
    }
    trace->cutCompressed = cut;
    return true;
}

TraceWriter::~TraceWriter()
{
    // A writer that was not finished leaves its partial file as it is: the
    // calls in it are what a crash would have left.
    if (file_)
        gzclose(static_cast<gzFile>(file_));
}

bool TraceWriter::open(const std::string& path, std::string* error)
{
    path_ = path;
    partial_ = path + ".partial";
    file_ = gzopen(partial_.c_str(), "wb6");
    if (!file_) {
        *error = partial_ + ": cannot be written (" + std::strerror(errno ? errno : EIO) + ")";
        return false;
    }
    put(formatHeader());
    flush();
    if (!error_.empty()) {
        *error = error_;
        return false;
    }
    return true;
}

void TraceWriter::put(const std::string& text)
{
    if (!file_ || text.empty())
        return;
    const int written = gzwrite(static_cast<gzFile>(file_), text.data(), static_cast<unsigned>(text.size()));
    if (written != static_cast<int>(text.size()) && error_.empty()) {
        int code = 0;
        const char* message = gzerror(static_cast<gzFile>(file_), &code);
        error_ = partial_ + ": write failed ("
            + (code == Z_ERRNO ? std::string(std::strerror(errno)) : std::string(message ? message : "?"))
            + ")";
    }
}

void TraceWriter::meta(const std::string& key, const std::string& value)
{
    put(formatMeta(key, value));
}

void TraceWriter::write(const TraceCall& call)
{
    ++calls_;
    put(formatCall(call));
    if (call.timeUs - lastFlushUs_ >= flushIntervalUs_) {
        flush();
        lastFlushUs_ = call.timeUs;
    }
}

void TraceWriter::flush()
{
    if (file_ && gzflush(static_cast<gzFile>(file_), Z_SYNC_FLUSH) != Z_OK && error_.empty())
        error_ = partial_ + ": write failed (" + std::strerror(errno ? errno : EIO) + ")";
}

bool TraceWriter::finish(std::string* error)
{
    if (!file_) {
        *error = error_.empty() ? "the trace was not open" : error_;
        return false;
    }
    put(formatEnd(calls_));
    const int closed = gzclose(static_cast<gzFile>(file_));
    file_ = nullptr;
    if (closed != Z_OK && error_.empty())
        error_ = partial_ + ": write failed (" + std::strerror(errno ? errno : EIO) + ")";
    // On the disk before it takes the name, and the name with it: a power
    // cut leaves the old trace, the partial one, or the whole new one.
    if (error_.empty() && !syncToDisk(partial_))
        error_ = partial_ + ": write failed (" + std::strerror(errno) + ")";
    if (error_.empty() && std::rename(partial_.c_str(), path_.c_str()) != 0)
        error_ = path_ + ": cannot be put in place (" + std::strerror(errno) + ")";
    if (error_.empty() && !syncToDisk(directoryOf(path_)))
        error_ = path_ + ": cannot be put in place (" + std::strerror(errno) + ")";
    if (!error_.empty()) {
        *error = error_;
        return false;
    }
    return true;
}

} // namespace ktrace
