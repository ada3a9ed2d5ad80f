// Fuzzes an application pool with a sequence of operations read from the
// input: a pool over an arbitrary range (the pool never touches it), then
// allocations with arbitrary sizes, alignments and flags, frees, locks and
// unlocks, searches by address, mode changes and walks.
//
// Checked after every operation: the used ranges and the gaps are in address
// order, never overlap, and together tile the pool's range exactly; the
// blocks walk in address order inside the range; the requested sizes of the
// live blocks add up to the pool's used figure, and used + free = size; every
// block handed out lies inside the range, at its alignment, and keeps its
// requested size.
#include "fuzz/start_library.h"

#include <zk.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

void Check(bool condition) {
    if (!condition) std::abort();
}

// Reads the input front to back; zeros once it runs out.
class Input {
public:
    Input(const uint8_t* data, size_t size) : data_(data), size_(size) {}
    bool Empty() const { return pos_ >= size_; }
    uint8_t U8() { return pos_ < size_ ? data_[pos_++] : 0; }
    uint32_t U32() {
        uint32_t v = 0;
        for (int i = 0; i < 4; ++i)
            v |= static_cast<uint32_t>(U8()) << (8 * i);
        return v;
    }
    uint64_t U64() { return U32() | (static_cast<uint64_t>(U32()) << 32); }

private:
    const uint8_t* data_;
    size_t size_;
    size_t pos_ = 0;
};

struct Live {
    MemoryBlock* block;
    uint64_t address;
    uint32_t size;
    uint32_t locks;
    bool fixed;
};

struct Span {
    uint64_t start;
    uint64_t length;
};

struct Walk {
    std::vector<Span> spans;
};

int32_t ZK_CALL CollectRange(zkAddr start, uint32_t length, void* user) {
    static_cast<Walk*>(user)->spans.push_back({start, length});
    return 1;
}

struct BlockWalk {
    std::vector<Span> blocks; // address, requested size
};

int32_t ZK_CALL CollectBlock(zkAddr address, uint32_t requested, uint32_t, void* user) {
    static_cast<BlockWalk*>(user)->blocks.push_back({address, requested});
    return 1;
}

int32_t ZK_CALL StopAtFirst(zkAddr, uint32_t, void*) {
    return 0;
}

void CheckPool(MemoryPool* pool, uint64_t base, uint32_t size, const std::vector<Live>& live,
               bool rounded) {
    Walk gaps, used;
    zkEnumerateMemoryPoolGaps(pool, CollectRange, &gaps);
    zkEnumerateMemoryPoolUsed(pool, CollectRange, &used);

    // Gaps and used ranges merged by address tile the range exactly.
    std::vector<Span> all;
    size_t g = 0, u = 0;
    while (g < gaps.spans.size() || u < used.spans.size()) {
        const bool takeGap = u == used.spans.size() ||
                             (g < gaps.spans.size() && gaps.spans[g].start <= used.spans[u].start);
        all.push_back(takeGap ? gaps.spans[g++] : used.spans[u++]);
    }
    uint64_t at = base;
    for (const Span& s : all) {
        Check(s.start == at);
        at += s.length;
    }
    Check(at == base + size);

    uint64_t usedTotal = 0;
    for (size_t i = 0; i < used.spans.size(); ++i) {
        Check(used.spans[i].length > 0);
        usedTotal += used.spans[i].length;
    }

    // Every block's requested bytes lie inside one used range; a used range
    // may be longer (a zero size takes one byte, ZK_ALLOC_ROUND rounds up).
    BlockWalk blocks;
    zkEnumerateMemoryPoolBlocks(pool, CollectBlock, &blocks);
    Check(blocks.blocks.size() == live.size());
    uint64_t previousEnd = base;
    size_t range = 0;
    for (const Span& b : blocks.blocks) {
        const uint64_t length = b.length ? b.length : 1;
        Check(b.start >= previousEnd);
        previousEnd = b.start + length;
        while (range < used.spans.size() &&
               used.spans[range].start + used.spans[range].length <= b.start)
            ++range;
        Check(range < used.spans.size());
        Check(b.start >= used.spans[range].start &&
              previousEnd <= used.spans[range].start + used.spans[range].length);
    }
    uint64_t liveTotal = 0;
    for (const Live& l : live)
        liveTotal += l.size ? l.size : 1;
    Check(liveTotal <= usedTotal);
    if (!rounded) Check(liveTotal == usedTotal);

    MemoryInfo info;
    std::memset(&info, 0, sizeof(info));
    zkGetMemoryPoolInfo(pool, &info);
    Check(info.size == size);
    Check(info.used + info.free == info.size);
    Check(info.used == usedTotal);
    Check(info.blockCount == live.size() + 1); // the head block counts
    Check(zkQueryMemoryPoolInfo(pool, 9) == info.used);
    Check(zkQueryMemoryPoolInfo(pool, 10) == info.free);

    // A walk stops right after a callback that returns 0.
    Check(zkEnumerateMemoryPoolGaps(pool, StopAtFirst, nullptr) == (gaps.spans.empty() ? 0u : 1u));
}

uint32_t Alignment(uint8_t code) {
    if (code < 0xF0) return code & 0x0F ? 1u << (code & 0x0F) : 0u; // 0, 2 .. 32768
    return code;                                                    // odd ones too
}

bool IsPowerOfTwo(uint32_t v) {
    return v != 0 && (v & (v - 1)) == 0;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // A small system pool holds the pools' descriptor tables.
    StartLibraryForFuzzing(4u << 20, 512);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input in(data, size);
    // Ranges anywhere in the address space, from tiny to 4 GiB - 1.
    const uint64_t base = sizeof(zkAddr) == 8 ? in.U64() : in.U32();
    const uint32_t shift = in.U8() % 33;
    const uint32_t rangeSize = shift == 32 ? in.U32() : in.U32() & ((1ull << shift) - 1);
    // Mostly small tables; now and then one large enough for the exact-size
    // gap bins that pools with many descriptors keep.
    const uint32_t blocksByte = in.U8();
    const uint32_t maxBlocks = blocksByte >= 250 ? 1024 + blocksByte : blocksByte % 70;

    MemoryPool* pool = zkCreateMemoryPool(static_cast<zkAddr>(base), rangeSize, maxBlocks);
    // A range may end exactly at the top of the address space, not past it.
    const bool endsAtTop64 = sizeof(zkAddr) == 8 && rangeSize != 0 && base + rangeSize == 0;
    const bool wraps = (base + rangeSize < base && !endsAtTop64) ||
                       (sizeof(zkAddr) == 4 && base + rangeSize > 0x100000000ull);
    if (maxBlocks < 2 || wraps) {
        Check(pool == nullptr);
        return 0;
    }
    if (!pool) return 0; // the pool table or the system pool is full
    if (endsAtTop64) {
        // Its end does not fit the model's 64-bit arithmetic: only its shape is checked.
        MemoryInfo info{};
        zkGetMemoryPoolInfo(pool, &info);
        Check(info.size == rangeSize && info.used + info.free == info.size);
        zkReleaseMemoryPool(pool);
        return 0;
    }
    const uint64_t end = base + rangeSize;

    std::vector<Live> live;
    bool rounded = false; // a block was allocated with ZK_ALLOC_ROUND
    CheckPool(pool, base, rangeSize, live, rounded);
    while (!in.Empty()) {
        const uint8_t op = in.U8();
        switch (op % 8) {
        case 0:
        case 1: { // allocate
            const uint32_t requested = (op & 0x80) ? in.U32() : in.U8() | (in.U8() << 8);
            const uint32_t alignment = Alignment(in.U8());
            const uint32_t flags = (op & 0x40) ? in.U32() & 0xFFFu : 0u;
            MemoryBlock* block = (op & 0x20)
                                     ? zkAllocMemoryPoolBlockEx(pool, requested, alignment, flags)
                                     : zkAllocMemoryPoolBlock(pool, requested, alignment);
            if (!block) break;
            const bool fixed = (op & 0x20) && (flags & ZK_ALLOC_FIXED);
            if ((op & 0x20) && (flags & ZK_ALLOC_ROUND)) rounded = true;
            const uint64_t address = reinterpret_cast<zkAddr>(zkLockMemoryPoolBlock(block));
            if (!fixed) zkUnlockMemoryPoolBlock(block);
            const uint64_t effective = requested ? requested : 1;
            Check(address >= base && address + effective <= end);
            if (IsPowerOfTwo(alignment)) Check(address % alignment == 0);
            Check(live.size() + 1 < maxBlocks);
            Check(zkGetMemoryPoolBlockSize(block) == requested);
            live.push_back({block, address, requested, 0, fixed});
            break;
        }
        case 2: { // free
            if (live.empty()) break;
            const size_t i = in.U8() % live.size();
            zkFreeMemoryPoolBlock(pool, live[i].block);
            live.erase(live.begin() + static_cast<std::ptrdiff_t>(i));
            break;
        }
        case 3: { // lock: the address never changes
            if (live.empty()) break;
            Live& l = live[in.U8() % live.size()];
            Check(reinterpret_cast<zkAddr>(zkLockMemoryPoolBlock(l.block)) == l.address);
            if (!l.fixed) ++l.locks;
            break;
        }
        case 4: { // unlock
            if (live.empty()) break;
            Live& l = live[in.U8() % live.size()];
            zkUnlockMemoryPoolBlock(l.block);
            if (l.locks) --l.locks;
            break;
        }
        case 5: { // search by address: fixed and locked blocks only
            if (live.empty()) break;
            const Live& l = live[in.U8() % live.size()];
            MemoryBlock* found = zkFindMemoryPoolBlock(pool, static_cast<zkAddr>(l.address));
            if (l.fixed || l.locks)
                Check(found == l.block);
            else
                Check(found != l.block);
            break;
        }
        case 6: // search mode
            zkSetMemoryPoolAllocMode(pool, in.U8() % 4);
            break;
        default: { // an address that starts no block is not found
            const uint64_t address = base + (rangeSize ? in.U32() % rangeSize : 0);
            MemoryBlock* found = zkFindMemoryPoolBlock(pool, static_cast<zkAddr>(address));
            bool starts = false;
            for (const Live& l : live)
                starts |= l.address == address && (l.fixed || l.locks);
            if (!starts) Check(found == nullptr);
            break;
        }
        }
        CheckPool(pool, base, rangeSize, live, rounded);
    }
    zkReleaseMemoryPool(pool);
    return 0;
}
