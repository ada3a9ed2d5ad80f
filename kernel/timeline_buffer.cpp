// The timeline's thread buffers: claimed with one compare-exchange, their
// blocks taken from the platform the first time and kept for the process.
#include "kernel/timeline_buffer.h"

#include "platform/platform.h"

namespace zk::timeline {

ThreadBuffer gBuffers[kMaxBuffers];
std::atomic<uint32_t> gGeneration{1};
std::atomic<uint32_t> gNextThread{1};
std::atomic<uint32_t> gDroppedWithoutBuffer{0};
char gOutputPath[1024];
int64_t gOrigin = 0;

ThreadBuffer* ClaimBuffer() {
    for (uint32_t i = 0; i < kMaxBuffers; ++i) {
        ThreadBuffer& buffer = gBuffers[i];
        uint32_t expected = 0;
        if (buffer.owner.load(std::memory_order_relaxed) != 0 ||
            !buffer.owner.compare_exchange_strong(expected, 1, std::memory_order_acquire))
            continue;
        if (!buffer.base) {
            buffer.base = static_cast<uint8_t*>(os::VirtualCommit(kBufferSize));
            // Without memory the buffer stays taken until the next recording,
            // so that no other thread tries again.
            if (!buffer.base) return nullptr;
        }
        return &buffer;
    }
    return nullptr;
}

void ReleaseBuffer(ThreadBuffer* buffer) {
    buffer->owner.store(0, std::memory_order_release);
}

void ResetBuffers() {
    for (ThreadBuffer& buffer : gBuffers) {
        buffer.used.store(0, std::memory_order_relaxed);
        buffer.dropped.store(0, std::memory_order_relaxed);
        buffer.owner.store(0, std::memory_order_relaxed);
    }
    gNextThread.store(1, std::memory_order_relaxed);
    gDroppedWithoutBuffer.store(0, std::memory_order_relaxed);
    gGeneration.fetch_add(1, std::memory_order_acq_rel);
}

} // namespace zk::timeline
