// The KIV0 reader. See kiv_reader.h for the format.
//
// Every block it allocates comes from the system pool and is recorded in the
// KivDirectory's ownership marks; on any failure the blocks taken so far are
// freed before the open returns. Names are read only inside the name area (a
// name running to the area's end ends there), entries whose name offset lies
// outside it have no name: they sort before every named entry and never match
// a lookup. A child held in memory is never written to: folding and sorting
// work on a copy of its directory, so opening the same child again (by name or
// by index) finds its bytes as stored.
#include "archive/kiv_reader.h"
#include "archive/slide_expand.h"

#include <zk/memory.h>
#include <zk/result.h>

#include <cstring>

namespace zk {

namespace {

uint16_t Le16(const uint8_t* p) {
    return static_cast<uint16_t>(p[0] | (p[1] << 8));
}
uint32_t Le32(const uint8_t* p) {
    return uint32_t(p[0]) | (uint32_t(p[1]) << 8) | (uint32_t(p[2]) << 16) | (uint32_t(p[3]) << 24);
}

bool IsLeadByte(uint8_t c) {
    return (c >= 0x81 && c <= 0x9F) || (c >= 0xE0 && c <= 0xFC);
}
uint8_t FoldByte(uint8_t c) {
    return c >= 'A' && c <= 'Z' ? static_cast<uint8_t>(c + 0x20) : c;
}

void* Allocate(uint64_t size) {
    if (size == 0 || size > 0xFFFFFFFFu) return nullptr;
    return zkAllocateSystemMemory(static_cast<uint32_t>(size), ZK_ALLOC_DEFAULT,
                                  ZK_CATEGORY_LIBRARY);
}

uint64_t DirectorySize(const KivHeader& h) {
    return uint64_t(h.itemCount) * h.entrySize + h.nameAreaSize;
}

// Fills header from the first 32 (and, for a 48-byte header, 48) bytes. -13
// for a header the reader refuses: a header length other than 32 or 48, a
// packed directory without the 48-byte header that holds its size, entries
// shorter than 12 bytes.
int32_t ParseHeader(const uint8_t* bytes, KivHeader* header) {
    const uint32_t headerExtra = Le16(bytes + 16);
    header->headerLength = headerExtra + 16;
    header->archiveSize = Le32(bytes + 8);
    header->flags = Le16(bytes + 18);
    header->itemCount = Le16(bytes + 20);
    header->entrySize = Le16(bytes + 22);
    header->nameAreaSize = Le32(bytes + 24);
    header->packedDirectorySize = headerExtra == 32 ? Le32(bytes + 32) : 0;
    header->dataOrigin = headerExtra == 32 ? Le32(bytes + 36) : 0;
    if (headerExtra != 16 && headerExtra != 32) return ZK_ERR_NOT_ARCHIVE;
    if ((header->flags & kKivPackedDirectory) && headerExtra != 32) return ZK_ERR_NOT_ARCHIVE;
    if (header->entrySize < 12) return ZK_ERR_NOT_ARCHIVE;
    return ZK_OK;
}

uint32_t DataOrigin(const KivHeader& h) {
    if (h.headerLength == 48) return h.dataOrigin;
    return static_cast<uint32_t>(h.headerLength + DirectorySize(h));
}

bool IsMagic(const uint8_t* bytes) {
    return std::memcmp(bytes, "KIV0", 4) == 0;
}

// ---- preparing the entry table ---------------------------------------------

class Table {
public:
    explicit Table(const KivDirectory& d)
        : entries_(d.entryTable), stride_(d.header.entrySize), count_(d.header.itemCount),
          names_(d.NameArea()), nameAreaSize_(d.header.nameAreaSize) {}

    uint8_t* Record(uint32_t i) const { return entries_ + size_t(i) * stride_; }
    uint32_t Count() const { return count_; }

    // Negative, 0 or positive as name a sorts before, with or after name b.
    int CompareNames(uint32_t a, uint32_t b) const {
        const uint32_t oa = Le32(Record(a)), ob = Le32(Record(b));
        const bool hasA = oa < nameAreaSize_, hasB = ob < nameAreaSize_;
        if (!hasA || !hasB) return int(hasA) - int(hasB);
        return Compare(names_ + oa, nameAreaSize_ - oa, names_ + ob, nameAreaSize_ - ob);
    }
    // A query (terminated) against entry i's name.
    int CompareQuery(const uint8_t* query, uint32_t i) const {
        const uint32_t offset = Le32(Record(i));
        if (offset >= nameAreaSize_) return 1; // nameless entries sort first
        return Compare(query, ~uint32_t(0), names_ + offset, nameAreaSize_ - offset);
    }
    int CompareDataOffsets(uint32_t a, uint32_t b) const {
        const int32_t difference = static_cast<int32_t>(Le32(Record(a) + 4) - Le32(Record(b) + 4));
        return difference < 0 ? -1 : difference > 0;
    }
    void Swap(uint32_t a, uint32_t b) const {
        uint8_t* pa = Record(a);
        uint8_t* pb = Record(b);
        uint8_t chunk[64];
        for (uint32_t done = 0; done < stride_;) {
            const uint32_t n = stride_ - done < 64 ? stride_ - done : 64;
            std::memcpy(chunk, pa + done, n);
            std::memcpy(pa + done, pb + done, n);
            std::memcpy(pb + done, chunk, n);
            done += n;
        }
    }

    // In-place heap sort of the records (no memory beyond the stack).
    template <typename Less> void Sort(Less less) const {
        auto siftDown = [&](uint32_t root, uint32_t size) {
            for (;;) {
                uint32_t child = 2 * root + 1;
                if (child >= size) return;
                if (child + 1 < size && less(child, child + 1)) ++child;
                if (!less(root, child)) return;
                Swap(root, child);
                root = child;
            }
        };
        for (uint32_t i = count_ / 2; i-- > 0;)
            siftDown(i, count_);
        for (uint32_t end = count_; end > 1; --end) {
            Swap(0, end - 1);
            siftDown(0, end - 1);
        }
    }

private:
    // Byte strings compared as unsigned bytes, each ending at a zero byte or
    // after its limit; a prefix sorts first.
    static int Compare(const uint8_t* a, uint32_t limitA, const uint8_t* b, uint32_t limitB) {
        for (uint32_t i = 0;; ++i) {
            const uint8_t ca = i < limitA ? a[i] : 0;
            const uint8_t cb = i < limitB ? b[i] : 0;
            if (ca != cb) return ca < cb ? -1 : 1;
            if (ca == 0) return 0;
        }
    }

    uint8_t* entries_;
    uint32_t stride_;
    uint32_t count_;
    const uint8_t* names_;
    uint32_t nameAreaSize_;
};

// Folding and name sorting for by-name access, data-offset order for by-index
// access of an archive written in name order.
bool PreparationChanges(const KivHeader& h, uint32_t flags) {
    if (flags & kKivByIndex) return (h.flags & kKivNameOrder) != 0;
    return (h.flags & kKivFoldedNames) || !(h.flags & kKivNameOrder);
}

void Prepare(KivDirectory* d, uint32_t flags) {
    d->byIndex = (flags & kKivByIndex) != 0;
    const Table table(*d);
    if (d->byIndex) {
        if (d->header.flags & kKivNameOrder)
            table.Sort([&](uint32_t a, uint32_t b) { return table.CompareDataOffsets(a, b) < 0; });
        return;
    }
    if (d->header.flags & kKivFoldedNames) {
        uint8_t* names = d->entryTable + uint32_t(d->header.itemCount) * d->header.entrySize;
        for (uint32_t i = 0; i < d->header.nameAreaSize; ++i) {
            if (IsLeadByte(names[i]))
                ++i; // the trailing byte stays as it is
            else
                names[i] = FoldByte(names[i]);
        }
    }
    if (!(d->header.flags & kKivNameOrder))
        table.Sort([&](uint32_t a, uint32_t b) { return table.CompareNames(a, b) < 0; });
}

// The directory of an archive whose bytes (image) are in memory: in place when
// allowed and nothing needs changing, else in a block of its own.
int32_t OpenImage(const uint8_t* image, uint64_t length, bool mayChange, uint32_t flags,
                  KivDirectory* d) {
    if (length < 20 || !IsMagic(image)) return ZK_ERR_NOT_ARCHIVE;
    uint8_t header[48] = {};
    std::memcpy(header, image, length < 48 ? size_t(length) : 48);
    int32_t result = ParseHeader(header, &d->header);
    if (result < 0) return result;
    const KivHeader& h = d->header;
    if (h.headerLength > length) return ZK_ERR_SHORT_READ;
    const uint64_t directorySize = DirectorySize(h);
    d->headerBlock = const_cast<uint8_t*>(image);
    d->dataOrigin = DataOrigin(h);
    d->imageSize = length;
    if (h.flags & kKivPackedDirectory) {
        if (uint64_t(h.headerLength) + h.packedDirectorySize > length) return ZK_ERR_SHORT_READ;
        if (directorySize == 0) {
            d->entryTable = d->headerBlock + h.headerLength; // nothing to read there
        } else {
            d->entryTable = static_cast<uint8_t*>(Allocate(directorySize));
            if (!d->entryTable) return ZK_ERR_NO_MEMORY;
            d->ownsEntryTable = true;
            const uint32_t written =
                SlideExpandBounded(d->entryTable, static_cast<uint32_t>(directorySize),
                                   image + h.headerLength, h.packedDirectorySize);
            if (written != directorySize) return ZK_ERR_SHORT_READ;
        }
    } else {
        if (uint64_t(h.headerLength) + directorySize > length) return ZK_ERR_SHORT_READ;
        d->entryTable = d->headerBlock + h.headerLength;
        if (!mayChange && directorySize != 0 && PreparationChanges(h, flags)) {
            uint8_t* copy = static_cast<uint8_t*>(Allocate(directorySize));
            if (!copy) return ZK_ERR_NO_MEMORY;
            std::memcpy(copy, d->entryTable, size_t(directorySize));
            d->entryTable = copy;
            d->ownsEntryTable = true;
        }
    }
    Prepare(d, flags);
    return ZK_OK;
}

int32_t OpenFromSource(KivSource& source, uint32_t flags, KivDirectory* d) {
    uint8_t header[48] = {};
    if (source.Read(header, 32) != 32) return ZK_ERR_SHORT_READ;
    if (!IsMagic(header)) return ZK_ERR_NOT_ARCHIVE;
    if (Le16(header + 16) + 16u >= 48 && source.Read(header + 32, 16) != 16)
        return ZK_ERR_SHORT_READ;
    int32_t result = ParseHeader(header, &d->header);
    if (result < 0) return result;
    const KivHeader& h = d->header;

    if (flags & kKivMemoryImage) {
        if (h.archiveSize < h.headerLength) return ZK_ERR_NOT_ARCHIVE;
        d->headerBlock = static_cast<uint8_t*>(Allocate(h.archiveSize));
        if (!d->headerBlock) return ZK_ERR_NO_MEMORY;
        d->ownsHeaderBlock = true;
        std::memcpy(d->headerBlock, header, h.headerLength);
        const uint32_t rest = h.archiveSize - h.headerLength;
        if (source.Read(d->headerBlock + h.headerLength, rest) != rest) return ZK_ERR_SHORT_READ;
        return OpenImage(d->headerBlock, h.archiveSize, true, flags, d);
    }

    const uint64_t directorySize = DirectorySize(h);
    d->headerBlock = static_cast<uint8_t*>(Allocate(h.headerLength + directorySize));
    if (!d->headerBlock) return ZK_ERR_NO_MEMORY;
    d->ownsHeaderBlock = true;
    std::memcpy(d->headerBlock, header, h.headerLength);
    d->entryTable = d->headerBlock + h.headerLength;
    d->dataOrigin = DataOrigin(h);
    const uint32_t size = static_cast<uint32_t>(directorySize);
    if (!(h.flags & kKivPackedDirectory)) {
        if (source.Read(d->entryTable, size) != size) return ZK_ERR_SHORT_READ;
    } else {
        uint8_t* packed = nullptr;
        if (h.packedDirectorySize != 0) {
            packed = static_cast<uint8_t*>(Allocate(h.packedDirectorySize));
            if (!packed) return ZK_ERR_NO_MEMORY;
            if (source.Read(packed, h.packedDirectorySize) != h.packedDirectorySize) {
                zkFree(packed);
                return ZK_ERR_SHORT_READ;
            }
        }
        const uint32_t written =
            SlideExpandBounded(d->entryTable, size, packed, h.packedDirectorySize);
        if (packed) zkFree(packed);
        if (written != size) return ZK_ERR_SHORT_READ;
    }
    Prepare(d, flags);
    return ZK_OK;
}

} // namespace

KivEntry KivDirectory::Entry(uint32_t index) const {
    const uint8_t* record = entryTable + size_t(index) * header.entrySize;
    return KivEntry{Le32(record), Le32(record + 4), Le32(record + 8)};
}

int32_t KivDirectory::Find(const char* name) const {
    const uint8_t* query = reinterpret_cast<const uint8_t*>(name);
    uint8_t folded[kKivMaxFoldedQuery + 1];
    if (header.flags & kKivFoldedNames) {
        uint32_t n = 0;
        while (query[n] != 0 && n < kKivMaxFoldedQuery) {
            if (IsLeadByte(query[n]) && query[n + 1] != 0 && n + 1 < kKivMaxFoldedQuery) {
                folded[n] = query[n];
                folded[n + 1] = query[n + 1];
                n += 2;
            } else {
                folded[n] = FoldByte(query[n]);
                ++n;
            }
        }
        folded[n] = 0;
        query = folded;
    }
    const Table table(*this);
    int32_t lo = 0, hi = int32_t(header.itemCount) - 1;
    while (lo <= hi) {
        const int32_t mid = (lo + hi) / 2;
        const int c = table.CompareQuery(query, uint32_t(mid));
        if (c == 0) return mid;
        if (c < 0)
            hi = mid - 1;
        else
            lo = mid + 1;
    }
    return -1;
}

void KivDirectory::Release() {
    if (ownsEntryTable && entryTable) zkFree(entryTable);
    if (ownsHeaderBlock && headerBlock) zkFree(headerBlock);
    ownsEntryTable = ownsHeaderBlock = false;
    entryTable = headerBlock = nullptr;
}

uint32_t KivSource::ReadInner(void* buffer, uint32_t count, uint64_t at) {
    if (count == 0 || at > 0xFFFFFFFFu) return 0;
    uint32_t got = 0;
    if (zkReadFileOffset(file_, static_cast<uint32_t>(at), buffer, count, &got, 0) < 0) return 0;
    return got < count ? got : count;
}

uint32_t KivSource::Read(void* destination, uint32_t count) {
    uint8_t* out = static_cast<uint8_t*>(destination);
    if (position_ >= end_) return 0;
    if (count > end_ - position_) count = static_cast<uint32_t>(end_ - position_);
    uint32_t copied = 0;
    auto fromBuffer = [&] {
        if (position_ < bufferStart_ || position_ >= bufferEnd_) return;
        uint32_t n = static_cast<uint32_t>(bufferEnd_ - position_);
        if (n > count - copied) n = count - copied;
        std::memcpy(out + copied, buffer_ + (position_ - bufferStart_), n);
        position_ += n;
        copied += n;
    };
    fromBuffer();
    // Whole buffer-sized pieces go straight into the caller's memory.
    const uint32_t direct = (count - copied) / kBufferSize * kBufferSize;
    if (direct != 0) {
        const uint32_t got = ReadInner(out + copied, direct, position_);
        position_ += got;
        copied += got;
        if (got < direct) return copied;
    }
    if (copied < count) {
        bufferStart_ = bufferEnd_ = position_;
        uint32_t want = kBufferSize;
        if (want > end_ - position_) want = static_cast<uint32_t>(end_ - position_);
        bufferEnd_ = position_ + ReadInner(buffer_, want, position_);
        fromBuffer();
    }
    return copied;
}

int32_t KivOpenFromSource(KivSource& source, uint32_t flags, KivDirectory* out) {
    *out = KivDirectory{};
    const int32_t result = OpenFromSource(source, flags, out);
    if (result < 0) out->Release();
    return result;
}

int32_t KivOpenFromMemory(const uint8_t* bytes, uint32_t length, uint32_t flags,
                          KivDirectory* out) {
    *out = KivDirectory{};
    const int32_t result = OpenImage(bytes, length, false, flags, out);
    if (result < 0) out->Release();
    return result;
}

} // namespace zk
