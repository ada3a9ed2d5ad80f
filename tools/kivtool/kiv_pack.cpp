// Laying out KIV0 archives: header, directory block (entry table, then the
// name area; slide-packed on request), then the items' bytes.
#include "kiv_pack.h"

#include <algorithm>
#include <numeric>
#include <set>

namespace kivtool {
namespace {

void Put16(std::vector<uint8_t>& s, size_t at, uint32_t v) {
    s[at] = uint8_t(v);
    s[at + 1] = uint8_t(v >> 8);
}
void Put32(std::vector<uint8_t>& s, size_t at, uint64_t v) {
    for (int i = 0; i < 4; ++i)
        s[at + i] = uint8_t(v >> (8 * i));
}

bool IsLeadByte(uint8_t c) {
    return (c >= 0x81 && c <= 0x9F) || (c >= 0xE0 && c <= 0xFC);
}

// Lower case for A-Z; a double-byte character passes as it is.
std::string Fold(const std::string& name) {
    std::string out = name;
    for (size_t i = 0; i < out.size(); ++i) {
        const uint8_t c = uint8_t(out[i]);
        if (IsLeadByte(c))
            ++i;
        else if (c >= 'A' && c <= 'Z')
            out[i] = char(c + 0x20);
    }
    return out;
}

bool Fail(std::string* error, const std::string& message) {
    if (error) *error = message;
    return false;
}

} // namespace

bool BuildArchive(const std::vector<PackItem>& items, const PackOptions& options,
                  std::vector<uint8_t>* archive, std::string* error) {
    if (items.size() > 65535) return Fail(error, "more than 65535 items");
    if (options.entrySize < 12) return Fail(error, "entry size below 12");
    if (options.packedDirectory && !options.header48)
        return Fail(error, "a packed directory needs the 48-byte header");

    std::vector<std::string> names(items.size());
    std::set<std::string> seen;
    for (size_t i = 0; i < items.size(); ++i) {
        names[i] = options.foldedNames ? Fold(items[i].name) : items[i].name;
        if (names[i].find('\0') != std::string::npos)
            return Fail(error, "a name holds a zero byte: " + items[i].name);
        if (!seen.insert(names[i]).second) return Fail(error, "duplicate name: " + items[i].name);
    }
    // Entry-table order: by name (unsigned bytes, a prefix first) or as given.
    std::vector<size_t> order(items.size());
    std::iota(order.begin(), order.end(), size_t(0));
    if (options.nameOrder) {
        std::sort(order.begin(), order.end(), [&](size_t a, size_t b) {
            return std::lexicographical_compare(
                names[a].begin(), names[a].end(), names[b].begin(), names[b].end(),
                [](char x, char y) { return uint8_t(x) < uint8_t(y); });
        });
    }
    // Data in the order given.
    std::vector<uint64_t> dataOffset(items.size());
    uint64_t dataSize = 0;
    for (size_t i = 0; i < items.size(); ++i) {
        dataOffset[i] = dataSize;
        dataSize += items[i].data.size();
        if (items[i].data.size() > 0xFFFFFFFFu || dataSize > 0xFFFFFFFFu)
            return Fail(error, "the items' data passes 4 GiB");
    }

    std::vector<uint8_t> directory(items.size() * options.entrySize, 0);
    size_t nameAreaSize = 0;
    for (size_t slot = 0; slot < order.size(); ++slot) {
        const size_t i = order[slot];
        const size_t at = slot * options.entrySize;
        Put32(directory, at, nameAreaSize);
        Put32(directory, at + 4, dataOffset[i]);
        Put32(directory, at + 8, items[i].data.size());
        nameAreaSize += names[i].size() + 1;
    }
    if (nameAreaSize > 0xFFFFFFFFu) return Fail(error, "the names pass 4 GiB");
    for (size_t i : order) {
        directory.insert(directory.end(), names[i].begin(), names[i].end());
        directory.push_back(0);
    }
    std::vector<uint8_t> packed;
    if (options.packedDirectory) packed = SlidePack(directory.data(), directory.size());
    const std::vector<uint8_t>& stored = options.packedDirectory ? packed : directory;

    const size_t headerLength = options.header48 ? 48 : 32;
    const uint64_t dataOrigin = headerLength + stored.size();
    const uint64_t archiveSize = dataOrigin + dataSize;
    if (archiveSize > 0xFFFFFFFFu) return Fail(error, "the archive passes 4 GiB");

    std::vector<uint8_t>& out = *archive;
    out.assign(headerLength, 0);
    out[0] = 'K', out[1] = 'I', out[2] = 'V', out[3] = '0';
    Put32(out, 8, archiveSize);
    Put16(out, 16, uint32_t(headerLength - 16));
    Put16(out, 18,
          (options.foldedNames ? 0x0001 : 0) | (options.nameOrder ? 0x0004 : 0) |
              (options.packedDirectory ? 0x0008 : 0));
    Put16(out, 20, uint32_t(items.size()));
    Put16(out, 22, options.entrySize);
    Put32(out, 24, nameAreaSize);
    if (options.header48) {
        Put32(out, 32, options.packedDirectory ? packed.size() : 0);
        Put32(out, 36, dataOrigin);
    }
    out.reserve(size_t(archiveSize));
    out.insert(out.end(), stored.begin(), stored.end());
    for (const PackItem& item : items)
        out.insert(out.end(), item.data.begin(), item.data.end());
    return true;
}

} // namespace kivtool
