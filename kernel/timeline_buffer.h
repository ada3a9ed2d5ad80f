// The timeline's storage: per-thread buffers of records, and what the
// recording and its export share.
#ifndef ZK_KERNEL_TIMELINE_BUFFER_H
#define ZK_KERNEL_TIMELINE_BUFFER_H

#include "kernel/timeline.h"

#include <atomic>
#include <cstdint>

namespace zk::timeline {

constexpr uint32_t kMaxBuffers = 64;
constexpr uint32_t kBufferSize = 4u << 20;
constexpr uint32_t kMaxText = 255;
constexpr uint32_t kMaxRecordTexts = 3;

// Record kinds of the recording's own, beside the trace-event phases.
constexpr uint8_t kThreadStart = 'T'; // id: the thread number of the records that follow
constexpr uint8_t kThreadName = 'M';

// One record: this header, argCount RecordArgs, textCount key pointers, then
// the texts, each ending in a zero byte; the whole padded to 8 bytes. With
// nameInText the first text is the event's name (its key pointer is null).
struct RecordHeader {
    int64_t start;
    int64_t end;
    uint64_t id;
    const char* category;
    const char* name;
    uint16_t size;
    uint8_t phase;
    uint8_t argCount;
    uint8_t textCount;
    uint8_t nameInText;
};

struct RecordArg {
    const char* key;
    int64_t value;
};

struct ThreadBuffer {
    uint8_t* base = nullptr;          // kBufferSize bytes, taken on first claim
    std::atomic<uint32_t> used{0};    // bytes of complete records
    std::atomic<uint32_t> dropped{0}; // events that did not fit
    std::atomic<uint32_t> owner{0};   // 1 while a thread writes into it
};

extern ThreadBuffer gBuffers[kMaxBuffers];
extern std::atomic<uint32_t> gGeneration;
extern std::atomic<uint32_t> gNextThread;
extern std::atomic<uint32_t> gDroppedWithoutBuffer;
extern char gOutputPath[1024];
extern int64_t gOrigin;

// A free buffer for the calling thread (its block taken on first use), or
// null when all are taken or no memory is left.
ThreadBuffer* ClaimBuffer();
// The buffer goes back; its records stay for the export.
void ReleaseBuffer(ThreadBuffer* buffer);
// Every buffer emptied and free, counts at zero, a new generation.
void ResetBuffers();
// Writes every buffer's records to path as trace-event JSON.
void WriteFile(const char* path);

} // namespace zk::timeline

#endif // ZK_KERNEL_TIMELINE_BUFFER_H
