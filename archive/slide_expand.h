// Slide expansion: the LZSS format of packed archive directories (4096-byte
// window, 12-bit window positions, match lengths 3 to 18, a flag byte per
// eight tokens, least significant bit first).
#ifndef ZK_ARCHIVE_SLIDE_EXPAND_H
#define ZK_ARCHIVE_SLIDE_EXPAND_H

#include <cstdint>

namespace zk {

// Expands source into destination, writing at most destinationSize bytes;
// returns the number written. The stream ends where its bytes end, or where
// the destination is full.
uint32_t SlideExpandBounded(uint8_t* destination, uint32_t destinationSize, const uint8_t* source,
                            uint32_t sourceSize);

} // namespace zk

#endif
