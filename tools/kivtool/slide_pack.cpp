// The slide packer: LZSS for the library's slide expansion. The encoder sees
// the window the expander will hold: 4078 zero bytes, then everything
// written so far; a reference names the window position where its match
// starts (12 bits) and a length of 3 to 18. Matches are found through hash
// chains over three-byte prefixes, at most kChainDepth candidates each, and
// may overlap the bytes they produce, as the expander copies one byte at a
// time.
#include "kiv_pack.h"

#include <algorithm>

namespace kivtool {
namespace {

constexpr size_t kZeroPrefix = 4078; // window positions that start as zero
constexpr size_t kMaxDistance = 4095;
constexpr size_t kMinMatch = 3, kMaxMatch = 18;
constexpr int kChainDepth = 96;
constexpr size_t kHashBits = 15;

uint32_t Hash(const uint8_t* p) {
    return ((uint32_t(p[0]) << 10) ^ (uint32_t(p[1]) << 5) ^ p[2]) & ((1u << kHashBits) - 1);
}

// Collects tokens into groups of a flag byte and up to eight tokens.
class TokenWriter {
public:
    explicit TokenWriter(std::vector<uint8_t>* out) : out_(out) {}
    void Literal(uint8_t b) {
        Begin();
        (*out_)[flagAt_] |= uint8_t(1u << count_++);
        out_->push_back(b);
    }
    void Reference(uint32_t position, uint32_t length) {
        Begin();
        ++count_;
        out_->push_back(uint8_t(position & 0xFF));
        out_->push_back(uint8_t(((position >> 4) & 0xF0) | (length - kMinMatch)));
    }

private:
    void Begin() {
        if (count_ == 8 || !started_) {
            flagAt_ = out_->size();
            out_->push_back(0);
            count_ = 0;
            started_ = true;
        }
    }
    std::vector<uint8_t>* out_;
    size_t flagAt_ = 0;
    int count_ = 0;
    bool started_ = false;
};

} // namespace

std::vector<uint8_t> SlidePack(const uint8_t* data, size_t size) {
    std::vector<uint8_t> out;
    if (size == 0) return out;
    // The stream as the expander's window sees it: the zero prefix, then the data.
    std::vector<uint8_t> ext(kZeroPrefix + size, 0);
    std::copy(data, data + size, ext.begin() + kZeroPrefix);
    std::vector<int64_t> head(size_t(1) << kHashBits, -1);
    std::vector<int64_t> previous(ext.size(), -1);
    auto insert = [&](size_t at) {
        if (at + kMinMatch > ext.size()) return;
        const uint32_t h = Hash(&ext[at]);
        previous[at] = head[h];
        head[h] = int64_t(at);
    };
    for (size_t at = kZeroPrefix >= kMaxDistance ? kZeroPrefix - kMaxDistance : 0; at < kZeroPrefix;
         ++at)
        insert(at);

    TokenWriter tokens(&out);
    size_t at = kZeroPrefix;
    while (at < ext.size()) {
        const size_t limit = std::min(kMaxMatch, ext.size() - at);
        size_t bestLength = 0, bestFrom = 0;
        if (limit >= kMinMatch) {
            int64_t candidate = head[Hash(&ext[at])];
            for (int depth = 0; candidate >= 0 && depth < kChainDepth; ++depth) {
                const size_t from = size_t(candidate);
                if (at - from > kMaxDistance) break;
                size_t length = 0;
                while (length < limit && ext[from + length] == ext[at + length])
                    ++length;
                if (length > bestLength) {
                    bestLength = length;
                    bestFrom = from;
                    if (length == limit) break;
                }
                candidate = previous[from];
            }
        }
        if (bestLength >= kMinMatch) {
            // ext index e sits at window position e & 0xFFF (the data's first
            // byte, ext index 4078, is written at position 4078).
            tokens.Reference(uint32_t(bestFrom & 0xFFF), uint32_t(bestLength));
            for (size_t k = 0; k < bestLength; ++k)
                insert(at + k);
            at += bestLength;
        } else {
            tokens.Literal(ext[at]);
            insert(at);
            ++at;
        }
    }
    return out;
}

} // namespace kivtool
