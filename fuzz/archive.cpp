// Fuzz target: opening an archive held in memory, in every combination of
// the open flags (by name or by index, with and without the memory-image
// flag), then looking up every entry's name and a few fixed names, and
// reading every entry. The reader must refuse or open without reading
// outside the bytes it was given (they sit in an exact-size heap block) and
// must give back every block it took.
#include "archive/kiv_reader.h"

#include "fuzz/start_library.h"

#include <zk.h>

#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

uint32_t UsedBlocks() {
    MemoryInfo info{};
    zkGetMemoryInfo(&info);
    return info.blockCount;
}

void Exercise(const zk::KivDirectory& d, uint64_t length) {
    const uint32_t count = d.header.itemCount;
    char name[64];
    for (uint32_t i = 0; i < count; ++i) {
        const zk::KivEntry e = d.Entry(i);
        // An item's range may lie anywhere; a caller checks it against the
        // image before touching it.
        volatile bool inside = uint64_t(d.dataOrigin) + e.dataOffset + e.size <= length;
        (void)inside;
        if (d.byIndex || e.nameOffset >= d.header.nameAreaSize) continue;
        // Copy a bounded name out of the area and look it up again.
        const uint8_t* names = d.NameArea();
        uint32_t n = 0;
        while (n + 1 < sizeof name && e.nameOffset + n < d.header.nameAreaSize &&
               names[e.nameOffset + n] != 0) {
            name[n] = static_cast<char>(names[e.nameOffset + n]);
            ++n;
        }
        name[n] = 0;
        // A sorted table without folding finds every name it holds (folding
        // may differ when a name begins inside another's double-byte character).
        const bool sorted = !(d.header.flags & 0x0004) && !(d.header.flags & 0x0001);
        if (n + 1 < sizeof name && sorted && d.Find(name) < 0) std::abort();
    }
    if (!d.byIndex) {
        d.Find("");
        d.Find("a");
        d.Find("DIR/NAME.BIN");
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    StartLibraryForFuzzing(16u << 20, 4096);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > (1u << 20)) return 0;
    std::unique_ptr<uint8_t[]> bytes(new uint8_t[size ? size : 1]);
    if (size) std::memcpy(bytes.get(), data, size);
    const uint32_t before = UsedBlocks();
    for (uint32_t flags : {0u, 0x02u, 0x04u, 0x06u}) {
        zk::KivDirectory d;
        if (zk::KivOpenFromMemory(bytes.get(), static_cast<uint32_t>(size), flags, &d) == 0) {
            Exercise(d, size);
            d.Release();
        }
        // The given bytes are never changed.
        if (size && std::memcmp(bytes.get(), data, size) != 0) std::abort();
        if (UsedBlocks() != before) std::abort();
    }
    return 0;
}
