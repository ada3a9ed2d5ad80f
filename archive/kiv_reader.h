// The KIV0 reader: turns an archive (a file, a range of a file, or bytes in
// memory) into an in-memory directory, and looks items up in it.
//
// Layout: a header of 32 or 48 bytes; the directory block (itemCount entries
// of entrySize bytes, then nameAreaSize bytes of names), possibly stored
// slide-packed; then the data area at the data origin. Multi-byte fields are
// little-endian.
#ifndef ZK_ARCHIVE_KIV_READER_H
#define ZK_ARCHIVE_KIV_READER_H

#include <zk/file.h>

#include <cstdint>

namespace zk {

constexpr uint16_t kKivFoldedNames = 0x0001;
constexpr uint16_t kKivNameOrder = 0x0004;
constexpr uint16_t kKivPackedDirectory = 0x0008;
constexpr uint32_t kKivMemoryImage = 0x02;
constexpr uint32_t kKivByIndex = 0x04;
constexpr uint32_t kKivDirectRead = 0x10;
constexpr uint32_t kKivMaxFoldedQuery = 1024;

struct KivHeader {
    uint32_t archiveSize;
    uint32_t headerLength; // 32 or 48
    uint16_t flags;
    uint16_t itemCount;
    uint16_t entrySize;
    uint32_t nameAreaSize;
    uint32_t packedDirectorySize;
    uint32_t dataOrigin; // 48-byte header only
};

struct KivEntry {
    uint32_t nameOffset;
    uint32_t dataOffset;
    uint32_t size;
};

// A prepared directory. The entry table (itemCount records of entrySize bytes)
// is followed by the name area. In memory-image mode imageSize bounds every
// item address; in directory mode items lie in the root archive's file.
struct KivDirectory {
    KivHeader header{};
    uint8_t* headerBlock = nullptr;
    uint8_t* entryTable = nullptr;
    uint32_t dataOrigin = 0;
    uint64_t imageSize = 0; // memory images only
    bool ownsHeaderBlock = false;
    bool ownsEntryTable = false;
    bool byIndex = false;

    KivEntry Entry(uint32_t index) const;
    const uint8_t* NameArea() const {
        return entryTable + uint32_t(header.itemCount) * header.entrySize;
    }
    // The entry index of name, or -1. Only for directories prepared by name.
    int32_t Find(const char* name) const;
    // Frees the blocks the reader allocated and forgets them.
    void Release();
};

// A source of archive bytes: a range of an open file, read through a buffer.
class KivSource {
public:
    // start and length delimit the range of the file; reads go through a
    // 2048-byte buffer and zkReadFileOffset.
    KivSource(FileHandle* file, uint32_t start, uint32_t length)
        : file_(file), position_(start), end_(uint64_t(start) + length) {}
    // Reads up to count bytes; the count delivered (a failed read delivers 0).
    uint32_t Read(void* buffer, uint32_t count);
    uint32_t Tell() const { return static_cast<uint32_t>(position_); }

private:
    uint32_t ReadInner(void* buffer, uint32_t count, uint64_t at);

    static constexpr uint32_t kBufferSize = 2048;
    FileHandle* file_;
    uint64_t position_;
    uint64_t end_;
    uint64_t bufferStart_ = 0, bufferEnd_ = 0;
    alignas(64) uint8_t buffer_[kBufferSize];
};

// Opens from a source (directory or memory-image mode by flags). 0 or a
// negative code: -5 no memory, -11 a short read or a directory that does not
// expand to its size, -13 not an archive or a header the reader refuses.
int32_t KivOpenFromSource(KivSource& source, uint32_t flags, KivDirectory* out);
// Opens an archive held in memory (a child inside a memory image). The bytes
// are not changed: a preparation that would reorder or fold them works on a
// copy of the directory.
int32_t KivOpenFromMemory(const uint8_t* bytes, uint32_t length, uint32_t flags, KivDirectory* out);

} // namespace zk

#endif
