// Reading KIV0 archives for the archive tool: every field checked against
// the file's bytes, so that listing, extracting and verifying a damaged
// archive reports what is wrong instead of reading outside it.
#ifndef KIVTOOL_KIV_CHECK_H
#define KIVTOOL_KIV_CHECK_H

#include <cstdint>
#include <string>
#include <vector>

namespace kivtool {

struct ArchiveEntry {
    bool named = false; // the name offset lies inside the name area
    std::string name;   // up to its terminator (or the area's end)
    uint32_t dataOffset = 0;
    uint32_t size = 0;
    uint64_t start = 0;  // data origin + dataOffset
    bool inside = false; // start + size lies inside the file
};

struct ArchiveView {
    uint32_t archiveSize = 0;
    uint32_t headerLength = 0;
    uint16_t flags = 0;
    uint16_t entrySize = 0;
    uint32_t nameAreaSize = 0;
    uint32_t packedDirectorySize = 0;
    uint64_t dataOrigin = 0;
    std::vector<ArchiveEntry> entries; // in stored order
};

// Parses an archive image. Every problem found is appended to problems (one
// line each); false when the directory could not be read at all (then the
// entries are empty).
bool ReadArchive(const std::vector<uint8_t>& bytes, ArchiveView* view,
                 std::vector<std::string>* problems);

// Expands a slide-packed stream the plain way, one byte at a time through a
// 4096-byte ring, writing at most capacity bytes; returns the number written.
uint32_t SlideUnpack(uint8_t* out, uint32_t capacity, const uint8_t* in, uint32_t size);

// Whether an item name may be written under an extraction folder: not empty,
// not absolute, no drive letter, no ".." component.
bool IsSafeName(const std::string& name);

} // namespace kivtool

#endif
