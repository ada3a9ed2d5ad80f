// Building KIV0 archives: the packer behind `kivtool pack`, also used by the
// tests and benchmarks to make archives. It holds the project's only slide
// (LZSS) compressor; the library never links it.
#ifndef KIVTOOL_KIV_PACK_H
#define KIVTOOL_KIV_PACK_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace kivtool {

struct PackItem {
    std::string name;          // stored as given ('/' separated), NUL-terminated in the name area
    std::vector<uint8_t> data; // stored unpacked
};

struct PackOptions {
    bool header48 = true;         // 48-byte header (required for a packed directory)
    bool packedDirectory = false; // store the directory block slide-packed
    bool foldedNames = false;     // names folded to lower case (Shift_JIS aware) and flagged so
    bool nameOrder =
        true; // entry table sorted by name and flagged so; else stored in the given order
    uint16_t entrySize = 12; // bytes per entry, at least 12; the extra bytes are zero
};

// Slide-packs data (4096-byte window, write position starting at 4078,
// positions 0..4077 zero, lengths 3..18, flag byte per eight tokens, least
// significant bit first). Deterministic.
std::vector<uint8_t> SlidePack(const uint8_t* data, size_t size);

// Lays out an archive: header, directory (packed or not), then the items'
// data in the order given. False with a message in *error when the items do
// not fit the format (more than 65535 items, sizes past 4 GiB, a packed
// directory with a 32-byte header, entrySize below 12, duplicate names).
bool BuildArchive(const std::vector<PackItem>& items, const PackOptions& options,
                  std::vector<uint8_t>* archive, std::string* error);

} // namespace kivtool

#endif
