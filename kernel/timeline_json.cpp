// Writes a recording as trace-event JSON: the object form, {"traceEvents":
// [...], "displayTimeUnit": "ms", "otherData": {...}}.
//
// Each buffer's records are indexed (an array taken from the platform for the
// export and given back after it), sorted by thread, start and, for slices
// that start together, the longer first, and written through a fixed output
// buffer with the platform's file calls. Timestamps are microseconds since
// the recording started, with three decimals. Texts are written as JSON
// strings; bytes outside ASCII (Shift_JIS paths) become \u00XX escapes, so
// the file is valid UTF-8 whatever the paths hold.
#include "kernel/context.h"
#include "kernel/timeline_buffer.h"
#include "platform/file.h"
#include "platform/platform.h"

#include <algorithm>
#include <cstring>

namespace zk::timeline {

namespace {

class JsonWriter {
public:
    explicit JsonWriter(os::File file) : file_(file) {}
    ~JsonWriter() { Flush(); }

    void Raw(const char* text) { Bytes(text, static_cast<uint32_t>(std::strlen(text))); }
    void Bytes(const char* bytes, uint32_t n) {
        for (uint32_t i = 0; i < n; ++i) {
            if (used_ == sizeof(out_)) Flush();
            out_[used_++] = bytes[i];
        }
    }
    void Char(char c) { Bytes(&c, 1); }
    void Unsigned(uint64_t v) {
        char digits[24];
        uint32_t n = 0;
        do {
            digits[n++] = static_cast<char>('0' + v % 10);
            v /= 10;
        } while (v != 0);
        while (n > 0)
            Char(digits[--n]);
    }
    void Signed(int64_t v) {
        if (v < 0) {
            Char('-');
            Unsigned(0 - static_cast<uint64_t>(v));
        } else {
            Unsigned(static_cast<uint64_t>(v));
        }
    }
    // Nanoseconds as microseconds with three decimals.
    void Micros(uint64_t ns) {
        Unsigned(ns / 1000);
        Char('.');
        const uint32_t frac = static_cast<uint32_t>(ns % 1000);
        Char(static_cast<char>('0' + frac / 100));
        Char(static_cast<char>('0' + frac / 10 % 10));
        Char(static_cast<char>('0' + frac % 10));
    }
    void String(const char* text) {
        static const char kHex[] = "0123456789abcdef";
        Char('"');
        for (const unsigned char* p = reinterpret_cast<const unsigned char*>(text); *p; ++p) {
            const unsigned char c = *p;
            if (c == '"' || c == '\\') {
                Char('\\');
                Char(static_cast<char>(c));
            } else if (c < 0x20 || c >= 0x7F) {
                const char escape[6] = {'\\', 'u', '0', '0', kHex[c >> 4], kHex[c & 15]};
                Bytes(escape, 6);
            } else {
                Char(static_cast<char>(c));
            }
        }
        Char('"');
    }
    bool Failed() const { return failed_; }

private:
    void Flush() {
        if (used_ == 0) return;
        uint32_t written = 0;
        if (!os::FileWrite(file_, out_, used_, &written) || written != used_) failed_ = true;
        used_ = 0;
    }

    os::File file_;
    char out_[65536];
    uint32_t used_ = 0;
    bool failed_ = false;
};

struct IndexEntry {
    uint32_t tid;
    uint32_t buffer;
    uint32_t offset;
    uint32_t order; // position in the buffer: ties keep recording order
    int64_t start;
    int64_t end;
};

bool Earlier(const IndexEntry& a, const IndexEntry& b) {
    if (a.tid != b.tid) return a.tid < b.tid;
    if (a.start != b.start) return a.start < b.start;
    if (a.end != b.end) return a.end > b.end; // the enclosing slice first
    return a.order < b.order;
}

class Exporter {
public:
    Exporter(JsonWriter& out, int64_t frequency) : out_(out), frequency_(frequency) {}

    uint64_t Nanoseconds(int64_t ticks) const {
        if (ticks <= gOrigin) return 0;
        const uint64_t t = static_cast<uint64_t>(ticks - gOrigin);
        const uint64_t f = static_cast<uint64_t>(frequency_);
        return t / f * 1000000000ull + t % f * 1000000000ull / f;
    }

    void Event(uint32_t tid, const RecordHeader& h, const uint8_t* body) {
        const RecordArg* args = reinterpret_cast<const RecordArg*>(body);
        const char* const* keys =
            reinterpret_cast<const char* const*>(body + h.argCount * sizeof(RecordArg));
        const char* text = reinterpret_cast<const char*>(body + h.argCount * sizeof(RecordArg) +
                                                         h.textCount * sizeof(const char*));
        const char* texts[kMaxRecordTexts] = {};
        for (uint32_t i = 0; i < h.textCount && i < kMaxRecordTexts; ++i) {
            texts[i] = text;
            text += std::strlen(text) + 1;
        }
        const char* name = h.nameInText ? texts[0] : h.name;
        const uint32_t firstArgText = h.nameInText ? 1 : 0;

        Separator();
        out_.Raw("{\"ph\":\"");
        out_.Char(static_cast<char>(h.phase));
        out_.Raw("\",\"pid\":1,\"tid\":");
        out_.Unsigned(tid);
        out_.Raw(",\"name\":");
        out_.String(name ? name : "");
        if (h.phase != kThreadName) {
            out_.Raw(",\"cat\":");
            out_.String(h.category ? h.category : "");
            out_.Raw(",\"ts\":");
            out_.Micros(Nanoseconds(h.start));
        }
        if (h.phase == 'X') {
            out_.Raw(",\"dur\":");
            out_.Micros(h.end > h.start ? Nanoseconds(h.end) - Nanoseconds(h.start) : 0);
        }
        if (h.phase == 's' || h.phase == 't' || h.phase == 'f' || h.phase == 'b' ||
            h.phase == 'e') {
            out_.Raw(",\"id\":\"0x");
            char hex[17];
            for (int i = 15; i >= 0; --i)
                hex[15 - i] = "0123456789abcdef"[(h.id >> (i * 4)) & 15];
            hex[16] = '\0';
            out_.Raw(hex);
            out_.Char('"');
            if (h.phase == 'f') out_.Raw(",\"bp\":\"e\"");
        }
        if (h.phase == 'i') out_.Raw(",\"s\":\"t\"");
        if (h.argCount != 0 || h.textCount > firstArgText) {
            out_.Raw(",\"args\":{");
            bool first = true;
            for (uint32_t i = 0; i < h.argCount; ++i) {
                if (!first) out_.Char(',');
                first = false;
                out_.String(args[i].key);
                out_.Char(':');
                out_.Signed(args[i].value);
            }
            for (uint32_t i = firstArgText; i < h.textCount && i < kMaxRecordTexts; ++i) {
                if (!first) out_.Char(',');
                first = false;
                out_.String(keys[i] ? keys[i] : "text");
                out_.Char(':');
                out_.String(texts[i]);
            }
            out_.Char('}');
        }
        out_.Char('}');
    }

    void Separator() {
        if (!first_) out_.Raw(",\n");
        first_ = false;
    }

private:
    JsonWriter& out_;
    int64_t frequency_;
    bool first_ = true;
};

// Counts the records of every buffer, then fills index with one entry each
// (the thread of each record from the markers before it).
uint32_t CountRecords() {
    uint32_t count = 0;
    for (const ThreadBuffer& buffer : gBuffers) {
        const uint32_t used = buffer.used.load(std::memory_order_acquire);
        for (uint32_t at = 0; at < used;) {
            RecordHeader h;
            std::memcpy(&h, buffer.base + at, sizeof(h));
            at += h.size;
            ++count;
        }
    }
    return count;
}

uint32_t FillIndex(IndexEntry* index, uint32_t capacity) {
    uint32_t n = 0;
    for (uint32_t b = 0; b < kMaxBuffers; ++b) {
        const ThreadBuffer& buffer = gBuffers[b];
        const uint32_t used = buffer.used.load(std::memory_order_acquire);
        uint32_t tid = 0;
        for (uint32_t at = 0, order = 0; at < used && n < capacity; ++order) {
            RecordHeader h;
            std::memcpy(&h, buffer.base + at, sizeof(h));
            if (h.phase == kThreadStart) {
                tid = static_cast<uint32_t>(h.id);
            } else {
                index[n++] = IndexEntry{tid, b, at, order, h.start, h.end};
            }
            at += h.size;
        }
    }
    return n;
}

} // namespace

void WriteFile(const char* path) {
    os::File file = os::FileOpen(path, os::kFileAccessWrite, true);
    if (file == os::kInvalidFile) return;
    os::FileTruncateHere(file);

    const uint32_t count = CountRecords();
    const size_t indexBytes = size_t(count ? count : 1) * sizeof(IndexEntry);
    IndexEntry* index = static_cast<IndexEntry*>(os::VirtualCommit(indexBytes));
    const uint32_t n = index ? FillIndex(index, count) : 0;
    std::sort(index, index + n, Earlier);

    uint64_t dropped = gDroppedWithoutBuffer.load(std::memory_order_relaxed);
    for (const ThreadBuffer& buffer : gBuffers)
        dropped += buffer.dropped.load(std::memory_order_relaxed);
    if (!index) dropped += count;

    {
        JsonWriter out(file);
        Exporter exporter(out, os::PerformanceFrequency());
        out.Raw("{\"traceEvents\":[\n");
        exporter.Separator();
        out.Raw("{\"ph\":\"M\",\"pid\":1,\"tid\":0,\"name\":\"process_name\",\"args\":{\"name\":");
        out.String(Kernel().application.name);
        out.Raw("}}");
        for (uint32_t i = 0; i < n; ++i) {
            const uint8_t* at = gBuffers[index[i].buffer].base + index[i].offset;
            RecordHeader h;
            std::memcpy(&h, at, sizeof(h));
            exporter.Event(index[i].tid, h, at + sizeof(h));
        }
        out.Raw("\n],\n\"displayTimeUnit\":\"ms\",\n\"otherData\":{\"droppedEvents\":");
        out.Unsigned(dropped);
        out.Raw(",\"recordedEvents\":");
        out.Unsigned(n);
        out.Raw("}}\n");
    }
    if (index) os::VirtualRelease(index, indexBytes);
    os::FileClose(file);
}

} // namespace zk::timeline
