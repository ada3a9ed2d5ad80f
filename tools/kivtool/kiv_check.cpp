// The archive tool's own reader: bounds-checked, independent of the library.
#include "kiv_check.h"

#include <cstring>

namespace kivtool {
namespace {

uint32_t Le16(const uint8_t* p) {
    return uint32_t(p[0]) | (uint32_t(p[1]) << 8);
}
uint32_t Le32(const uint8_t* p) {
    return Le16(p) | (Le16(p + 2) << 16);
}

} // namespace

uint32_t SlideUnpack(uint8_t* out, uint32_t capacity, const uint8_t* in, uint32_t size) {
    uint8_t window[4096];
    std::memset(window, 0, sizeof window);
    uint32_t r = 4078, flags = 0, written = 0, i = 0;
    for (;;) {
        flags >>= 1;
        if (!(flags & 0x100)) {
            if (i == size) break;
            flags = in[i++] | 0xFF00u;
        }
        if (flags & 1) {
            if (i == size || written == capacity) break;
            const uint8_t x = in[i++];
            out[written++] = x;
            window[r] = x;
            r = (r + 1) & 0xFFF;
            continue;
        }
        if (i == size) break;
        const uint32_t b0 = in[i++];
        if (i == size) break;
        const uint32_t b1 = in[i++];
        const uint32_t p = b0 | ((b1 & 0xF0) << 4), n = (b1 & 0x0F) + 3;
        for (uint32_t k = 0; k < n; ++k) {
            if (written == capacity) return written;
            const uint8_t x = window[(p + k) & 0xFFF];
            out[written++] = x;
            window[r] = x;
            r = (r + 1) & 0xFFF;
        }
    }
    return written;
}

bool ReadArchive(const std::vector<uint8_t>& bytes, ArchiveView* view,
                 std::vector<std::string>* problems) {
    *view = ArchiveView{};
    auto problem = [&](const std::string& text) { problems->push_back(text); };
    const uint64_t fileSize = bytes.size();
    if (fileSize < 32) {
        problem("shorter than a header (" + std::to_string(fileSize) + " bytes)");
        return false;
    }
    if (std::memcmp(bytes.data(), "KIV0", 4) != 0) {
        problem("not a KIV0 archive (wrong magic)");
        return false;
    }
    const uint8_t* b = bytes.data();
    view->archiveSize = Le32(b + 8);
    view->headerLength = Le16(b + 16) + 16;
    view->flags = uint16_t(Le16(b + 18));
    const uint32_t itemCount = Le16(b + 20);
    view->entrySize = uint16_t(Le16(b + 22));
    view->nameAreaSize = Le32(b + 24);
    if (view->headerLength != 32 && view->headerLength != 48) {
        problem("header length " + std::to_string(view->headerLength) + " (32 or 48 expected)");
        return false;
    }
    if (view->headerLength == 48 && fileSize < 48) {
        problem("the 48-byte header is cut short");
        return false;
    }
    if (view->entrySize < 12) {
        problem("entry size " + std::to_string(view->entrySize) + " is below 12");
        return false;
    }
    const bool packed = view->flags & 0x0008;
    if (packed && view->headerLength != 48) {
        problem("packed directory without the 48-byte header");
        return false;
    }
    if (view->archiveSize != fileSize)
        problem("archive size field " + std::to_string(view->archiveSize) +
                " differs from the file's " + std::to_string(fileSize));
    const uint64_t directorySize = uint64_t(itemCount) * view->entrySize + view->nameAreaSize;
    std::vector<uint8_t> directory;
    if (packed) {
        view->packedDirectorySize = Le32(b + 32);
        if (48 + uint64_t(view->packedDirectorySize) > fileSize) {
            problem("packed directory runs past the end of the file");
            return false;
        }
        if (directorySize > (uint64_t(1) << 31)) {
            problem("directory size " + std::to_string(directorySize) + " is implausible");
            return false;
        }
        directory.resize(size_t(directorySize));
        const uint32_t n = SlideUnpack(directory.data(), uint32_t(directorySize), b + 48,
                                       view->packedDirectorySize);
        if (n != directorySize) {
            problem("packed directory expands to " + std::to_string(n) + " bytes, not " +
                    std::to_string(directorySize));
            return false;
        }
        // A stream that would go on past the directory is damaged too.
        std::vector<uint8_t> probe(size_t(directorySize) + 1);
        if (SlideUnpack(probe.data(), uint32_t(directorySize + 1), b + 48,
                        view->packedDirectorySize) != directorySize)
            problem("packed directory expands past its size");
    } else {
        if (view->headerLength + directorySize > fileSize) {
            problem("directory runs past the end of the file");
            return false;
        }
        directory.assign(b + view->headerLength, b + view->headerLength + directorySize);
    }
    view->dataOrigin = view->headerLength == 48 ? Le32(b + 36) : view->headerLength + directorySize;

    const uint8_t* names = directory.data() + size_t(itemCount) * view->entrySize;
    for (uint32_t i = 0; i < itemCount; ++i) {
        const uint8_t* e = directory.data() + size_t(i) * view->entrySize;
        ArchiveEntry entry;
        const uint32_t nameOffset = Le32(e);
        entry.dataOffset = Le32(e + 4);
        entry.size = Le32(e + 8);
        entry.start = view->dataOrigin + entry.dataOffset;
        entry.inside = entry.start + entry.size <= fileSize;
        entry.named = nameOffset < view->nameAreaSize;
        const std::string label = "entry " + std::to_string(i);
        if (entry.named) {
            const uint8_t* p = names + nameOffset;
            const void* end = std::memchr(p, 0, view->nameAreaSize - nameOffset);
            const size_t length = end ? size_t(static_cast<const uint8_t*>(end) - p)
                                      : view->nameAreaSize - nameOffset;
            entry.name.assign(reinterpret_cast<const char*>(p), length);
            if (!end) problem(label + ": name not terminated inside the name area");
        } else {
            problem(label + ": name offset " + std::to_string(nameOffset) +
                    " lies outside the name area");
        }
        if (!entry.inside)
            problem(label + (entry.named ? " (" + entry.name + ")" : "") + ": data at " +
                    std::to_string(entry.start) + " + " + std::to_string(entry.size) +
                    " runs past the end of the file");
        view->entries.push_back(entry);
    }
    return true;
}

bool IsSafeName(const std::string& name) {
    if (name.empty() || name[0] == '/' || name[0] == '\\') return false;
    if (name.size() >= 2 && name[1] == ':') return false;
    size_t start = 0;
    while (start <= name.size()) {
        size_t end = name.find_first_of("/\\", start);
        if (end == std::string::npos) end = name.size();
        const std::string part = name.substr(start, end - start);
        if (part.empty() || part == "..") return false;
        if (part.find(':') != std::string::npos) return false;
        start = end + 1;
    }
    return true;
}

} // namespace kivtool
