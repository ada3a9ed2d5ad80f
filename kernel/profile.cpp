// Profile files: the table of 32 open profiles and the exported calls.
//
// Owns: the static table of ProfileFile records; each open record owns its
// section and entry tables and strings (blocks of the system pool, built by
// the parser in profile_parser.cpp).
// Locks: none. The table is used from one thread at a time, as the interface
// documents.
// Threads: the caller's; reading the file goes through the file system, which
// hands the read to its I/O worker.
#include "kernel/profile_parser.h"
#include "kernel/startup.h"

#include <zk/file.h>
#include <zk/memory.h>
#include <zk/result.h>

namespace {

constexpr uint32_t kProfileCount = 32;
ProfileFile g_profiles[kProfileCount];

// A handle the table gave out and that is open now.
bool IsOpen(const ProfileFile* profile) {
    for (const ProfileFile& record : g_profiles) {
        if (&record == profile) return record.inUse != 0;
    }
    return false;
}

// Compares two names without regard to the case of A-Z; every other byte
// compares as it is.
bool SameName(const char* a, const char* b) {
    auto lower = [](char c) {
        const unsigned char u = static_cast<unsigned char>(c);
        return u >= 'A' && u <= 'Z' ? u + ('a' - 'A') : u;
    };
    for (;; ++a, ++b) {
        if (lower(*a) != lower(*b)) return false;
        if (*a == '\0') return true;
    }
}

// The file's bytes in one system-pool block, terminated; null on any failure.
char* ReadText(const char* path) {
    FileHandle* file = zkOpenFile(path, ZK_OPEN_READ, 0);
    if (file == nullptr) return nullptr;
    uint32_t size = 0, got = 0;
    char* text = nullptr;
    if (zkGetFileSize(file, &size) >= 0 && size != 0xFFFFFFFFu) {
        text = static_cast<char*>(
            zkAllocateSystemMemory(size + 1, ZK_ALLOC_DEFAULT, ZK_CATEGORY_LIBRARY));
    }
    if (text != nullptr) {
        // A short read leaves the text ending where the data ended.
        if (zkReadFile(file, text, size, &got) < 0 || got > size) got = 0;
        text[got] = '\0';
    }
    zkCloseFile(file);
    return text;
}

} // namespace

extern "C" ZK_API ProfileFile* ZK_CALL zkOpenProfile(const char* path) {
    if (path == nullptr) return nullptr;
    ProfileFile* profile = nullptr;
    for (ProfileFile& record : g_profiles) {
        if (!record.inUse) {
            profile = &record;
            break;
        }
    }
    if (profile == nullptr) return nullptr;
    char* text = ReadText(path);
    if (text == nullptr) return nullptr;
    profile->inUse = 1;
    const bool parsed = zk::ParseProfileText(*profile, text);
    zkFreeSystemMemory(text);
    if (!parsed) {
        profile->inUse = 0;
        return nullptr;
    }
    return profile;
}

extern "C" ZK_API ProfileSection* ZK_CALL zkGetProfileSection(ProfileFile* profile,
                                                              const char* name) {
    if (name == nullptr || !IsOpen(profile)) return nullptr;
    for (uint32_t i = 0; i < profile->sectionCount; ++i) {
        if (SameName(profile->sections[i].name, name)) return &profile->sections[i];
    }
    return nullptr;
}

extern "C" ZK_API const char* ZK_CALL zkGetProfileString(ProfileFile* profile,
                                                         ProfileSection* section, const char* key) {
    if (section == nullptr || key == nullptr || !IsOpen(profile)) return "";
    // A section of another profile, or no section at all, matches nothing.
    if (section < profile->sections || section >= profile->sections + profile->sectionCount)
        return "";
    for (uint32_t i = 0; i < section->entryCount; ++i) {
        if (SameName(section->entries[i].key, key)) return section->entries[i].value;
    }
    return "";
}

extern "C" ZK_API void ZK_CALL zkCloseProfile(ProfileFile* profile) {
    if (!IsOpen(profile)) return;
    zk::FreeProfileTables(*profile);
    profile->inUse = 0;
}

namespace zk {

void ProfilesShutdown() {
    for (ProfileFile& record : g_profiles)
        zkCloseProfile(&record);
}

} // namespace zk
