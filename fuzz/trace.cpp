// Fuzzes the trace channel and the memory dump with arbitrary bytes, through
// a trace procedure that collects every text it is handed.
//
// Checked: text without conversions arrives unchanged, cut to 1023
// characters, both as the format and through "%s"; a dump has one row per 16
// bytes whose hexadecimal and character columns give back the bytes, then
// the rule of 64 dashes.
#include <zk/trace.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

constexpr size_t kTraceLimit = 1023;
std::string g_collected;
size_t g_calls = 0;

void Check(bool condition) {
    if (!condition) std::abort();
}

void ZK_CALL Collect(const char* text) {
    Check(text != nullptr);
    Check(std::strlen(text) <= kTraceLimit);
    g_collected += text;
    ++g_calls;
}

void CheckDump(const uint8_t* bytes, size_t size) {
    const std::string& out = g_collected;
    size_t pos = 0;
    for (size_t offset = 0; offset < size; offset += 16) {
        const size_t count = size - offset < 16 ? size - offset : 16;
        const size_t end = out.find('\n', pos);
        Check(end != std::string::npos);
        const std::string row = out.substr(pos, end - pos);
        Check(row.size() == 48 + count);
        for (size_t i = 0; i < 16; ++i) {
            char hex[4];
            if (i < count)
                std::snprintf(hex, sizeof(hex), "%02x ", bytes[offset + i]);
            else
                std::strcpy(hex, "   ");
            Check(row.compare(i * 3, 3, hex) == 0);
        }
        for (size_t i = 0; i < count; ++i) {
            const uint8_t b = bytes[offset + i];
            Check(row[48 + i] == ((b >= 0x20 && b <= 0x7E) ? static_cast<char>(b) : '.'));
        }
        pos = end + 1;
    }
    Check(out.substr(pos) == std::string(64, '-') + "\n");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    zkSetTraceProc(Collect);

    // The dump reads exactly size bytes of libFuzzer's exact-size copy.
    g_collected.clear();
    zkDumpMemory(data, static_cast<uint32_t>(size));
    CheckDump(data, size);

    // The bytes as text without conversions: cut at the first zero byte,
    // every '%' turned into '#'.
    std::string text(reinterpret_cast<const char*>(data),
                     strnlen(reinterpret_cast<const char*>(data), size));
    for (char& c : text)
        if (c == '%') c = '#';
    const std::string expected = text.substr(0, kTraceLimit);

    g_collected.clear();
    g_calls = 0;
#if defined(__clang__)
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wformat-security"
#endif
    zkTrace(text.c_str()); // the text is the format: it holds no conversion
#if defined(__clang__)
#pragma clang diagnostic pop
#endif
    Check(g_calls == 1 && g_collected == expected);

    g_collected.clear();
    g_calls = 0;
    zkTrace("%s", text.c_str());
    Check(g_calls == 1 && g_collected == expected);

    zkSetTraceProc(nullptr);
    return 0;
}
