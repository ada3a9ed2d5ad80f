// The trace channel, assertion reports and the hexadecimal memory dump.
//
// zkTrace may be called from any thread: it formats into its own stack buffer
// and hands the text to the trace procedure read once per call, so texts of
// different threads interleave only between calls.
#include <zk/trace.h>

#include "platform/platform.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>

namespace zk {

namespace {

constexpr uint32_t kTraceBufferSize = 1024;
constexpr uint32_t kDumpRowBytes = 16;
constexpr uint32_t kDumpRuleLength = 64;

std::atomic<TraceProc> g_traceProc{nullptr};

void DumpRow(const unsigned char* row, uint32_t count) {
    for (uint32_t i = 0; i < kDumpRowBytes; ++i) {
        if (i < count)
            zkTrace("%02x ", row[i]);
        else
            zkTrace("   ");
    }
    for (uint32_t i = 0; i < count; ++i) {
        unsigned char byte = row[i];
        if (byte >= 0x20 && byte <= 0x7E)
            zkTrace("%c", byte);
        else
            zkTrace(".");
    }
    zkTrace("\n");
}

void TraceText(const char* text) {
    TraceProc proc = g_traceProc.load(std::memory_order_acquire);
    if (proc)
        proc(text);
    else
        os::DebugOutput(text);
}

} // namespace
} // namespace zk

extern "C" ZK_API void ZK_CALL zkTrace(const char* format, ...) {
    if (!format) return;
    char buffer[zk::kTraceBufferSize];
    va_list args;
    va_start(args, format);
    // Longer text is cut to 1023 characters; the buffer always ends in a terminator.
    std::vsnprintf(buffer, sizeof(buffer), format, args);
    va_end(args);
    buffer[sizeof(buffer) - 1] = '\0';
    zk::TraceText(buffer);
}

extern "C" ZK_API void ZK_CALL zkSetTraceProc(TraceProc proc) {
    zk::g_traceProc.store(proc, std::memory_order_release);
}

extern "C" ZK_API void ZK_CALL zkAssertFailed(const char* file, int32_t line) {
    zkTrace("Assert Failed [%s(%d)]\n", file ? file : "", static_cast<int>(line));
}

extern "C" ZK_API void ZK_CALL zkDumpMemory(const void* address, uint32_t size) {
    const unsigned char* bytes = static_cast<const unsigned char*>(address);
    if (!bytes) size = 0;
    for (uint32_t offset = 0; offset < size; offset += zk::kDumpRowBytes) {
        uint32_t remaining = size - offset;
        zk::DumpRow(bytes + offset, remaining < zk::kDumpRowBytes ? remaining : zk::kDumpRowBytes);
    }
    for (uint32_t i = 0; i < zk::kDumpRuleLength; ++i)
        zkTrace("-");
    zkTrace("\n");
}
