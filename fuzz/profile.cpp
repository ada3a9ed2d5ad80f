// Fuzz target: the profile text parser, fed arbitrary bytes as a file's text.
// The first byte picks an allocation to refuse (0: none), so the paths that
// give back a half-built table are fuzzed too. After every parse: names, keys
// and values are terminated strings no longer than the text, none starts with
// a blank or a double quote, there are no more sections than '[' bytes, and
// closing leaves the system pool with the blocks it had before.
#include "kernel/profile_parser.h"

#include "fuzz/start_library.h"

#include <zk.h>

#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

uint32_t g_refuseAt = 0;
uint32_t g_allocations = 0;

int32_t ZK_CALL RefuseOne(uint32_t, uint32_t) {
    return ++g_allocations == g_refuseAt ? 0 : 1;
}

uint32_t UsedBlocks() {
    MemoryInfo info{};
    zkGetMemoryInfo(&info);
    return info.blockCount;
}

void CheckToken(const char* token, size_t textLength) {
    if (token == nullptr) std::abort();
    const size_t length = std::strlen(token);
    if (length > textLength) std::abort();
    const unsigned char first = static_cast<unsigned char>(token[0]);
    if (first == '"' || first == ' ' || (first >= '\t' && first <= '\r')) std::abort(); // untrimmed
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    StartLibraryForFuzzing(16u << 20, 4096);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0 || size > 64 * 1024) return 0;
    g_refuseAt = data[0];
    g_allocations = 0;
    std::vector<char> text(data + 1, data + size);
    text.push_back('\0');
    const size_t textLength = std::strlen(text.data());

    const uint32_t before = UsedBlocks();
    ProfileFile profile{};
    profile.inUse = 1;
    zkSetAllocHook(g_refuseAt ? RefuseOne : nullptr);
    const bool parsed = zk::ParseProfileText(profile, text.data());
    zkSetAllocHook(nullptr);
    if (!parsed) {
        if (g_refuseAt == 0 || profile.sections != nullptr || profile.sectionCount != 0)
            std::abort();
        if (UsedBlocks() != before) std::abort();
        return 0;
    }
    size_t brackets = 0;
    for (size_t i = 0; i < textLength; ++i)
        brackets += text[i] == '[';
    if (profile.sectionCount > brackets) std::abort();
    if ((profile.sectionCount == 0) != (profile.sections == nullptr)) std::abort();
    for (uint32_t i = 0; i < profile.sectionCount; ++i) {
        const ProfileSection& section = profile.sections[i];
        CheckToken(section.name, textLength);
        if ((section.entryCount == 0) != (section.entries == nullptr)) std::abort();
        for (uint32_t k = 0; k < section.entryCount; ++k) {
            CheckToken(section.entries[k].key, textLength);
            CheckToken(section.entries[k].value, textLength);
        }
    }
    zk::FreeProfileTables(profile);
    if (UsedBlocks() != before) std::abort();
    return 0;
}
