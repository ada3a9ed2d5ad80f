// A memory pool with a checkpoint and a leak report: blocks alive at the
// checkpoint are the level's permanent data; what the frame allocates after
// it and forgets to free shows up in the dump.
//
//   pool_leaks
#include <zk.h>

#include <cstdio>

namespace {

alignas(16) uint8_t g_region[256 * 1024];

void ZK_CALL PrintTrace(const char* text) {
    std::fputs(text, stdout);
}

} // namespace

int main() {
    zkSetTraceProc(PrintTrace);
    if (zkInitialize() < 0) return 1;
    MemoryPool* pool = zkCreateMemoryPool(reinterpret_cast<zkAddr>(g_region), sizeof g_region, 256);
    if (!pool) return 1;

    // The level's data, loaded once.
    MemoryBlock* level[4];
    for (MemoryBlock*& b : level)
        b = zkAllocMemoryPoolBlock(pool, 16 * 1024, 16);
    zkSetMemoryPoolCheckpoint(pool, 1);

    // A frame's scratch blocks: two are freed, one is forgotten.
    MemoryBlock* scratch[3];
    for (MemoryBlock*& b : scratch)
        b = zkAllocMemoryPoolBlock(pool, 512, 16);
    zkFreeMemoryPoolBlock(pool, scratch[0]);
    zkFreeMemoryPoolBlock(pool, scratch[2]);

    std::printf("blocks allocated since the checkpoint (the leak):\n");
    const uint32_t leaked = zkDumpAllMemoryPoolBlocks(pool, 1);
    std::printf("free gaps of 1 KiB or more:\n");
    zkDumpAllMemoryPoolGaps(pool, 1024);

    zkFreeMemoryPoolBlock(pool, scratch[1]);
    for (MemoryBlock* b : level)
        zkFreeMemoryPoolBlock(pool, b);
    zkReleaseMemoryPool(pool);
    zkTerminate();
    std::printf("%u block leaked\n", leaked);
    return leaked == 1 ? 0 : 1;
}
