// Profile text parser.
//
// The scan works on bytes and is Shift_JIS aware: a lead byte (0x81-0x9F,
// 0xE0-0xFC) and the byte after it are stepped over as one character, so a
// trailing byte that happens to equal ']', '=' or a line end never acts as
// one. A line ends at a carriage return, consumed with one line feed after
// it; a line feed alone is ordinary whitespace. Two passes per level: the
// sections (and then each section's entries) are counted first so that each
// table is one zero-filled block.
#include "kernel/profile_parser.h"

#include <zk/memory.h>
#include <zk/result.h>

#include <cstring>

namespace zk {
namespace {

bool IsLeadByte(unsigned char c) {
    return (c >= 0x81 && c <= 0x9F) || (c >= 0xE0 && c <= 0xFC);
}

// The classic isspace set, independent of any locale.
bool IsBlank(unsigned char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

// One character further: both bytes of a double-byte character, but never
// past the terminator when a lead byte is the text's last byte.
const char* NextChar(const char* p) {
    return IsLeadByte(static_cast<unsigned char>(p[0])) && p[1] != '\0' ? p + 2 : p + 1;
}

// Past the end of the current line: to after its carriage return and one
// line feed, or to the end of the text.
const char* SkipLine(const char* p) {
    while (*p != '\0' && *p != '\r')
        p = NextChar(p);
    if (*p == '\r' && *++p == '\n') ++p;
    return p;
}

// Over whitespace, line ends and comment lines, to the first character of the
// next line that says something. A double-byte character stops the skip, so
// a key may begin with one.
const char* SkipBlanksAndComments(const char* p) {
    for (;;) {
        const unsigned char c = static_cast<unsigned char>(*p);
        if (c == '\0') return p;
        if (c == ';') {
            p = SkipLine(p);
        } else if (c == '\r') {
            if (*++p == '\n') ++p;
        } else if (IsBlank(c)) {
            ++p;
        } else {
            return p;
        }
    }
}

struct Token {
    const char* begin;
    const char* end;
    const char* stop; // the delimiter or the terminator the scan stopped at
};

bool IsTrimmed(unsigned char c) {
    return IsBlank(c) || c == '"';
}

// A token up to the first of delimiters (or the end of the text), without
// leading and trailing blanks and double quotes. Delimiters are tested first,
// so a carriage return or line feed in the set stops the token although it
// is whitespace too.
Token ReadToken(const char* p, const char* delimiters) {
    auto isDelimiter = [delimiters](char c) { return c != '\0' && std::strchr(delimiters, c); };
    while (*p != '\0' && !isDelimiter(*p) && IsTrimmed(static_cast<unsigned char>(*p)))
        ++p;
    Token token{p, p, p};
    while (*p != '\0' && !isDelimiter(*p)) {
        if (IsTrimmed(static_cast<unsigned char>(*p))) {
            ++p;
        } else {
            p = NextChar(p);
            token.end = p;
        }
    }
    token.stop = p;
    return token;
}

void* Allocate(uint32_t size) {
    return zkAllocateSystemMemory(size, ZK_ALLOC_DEFAULT, ZK_CATEGORY_LIBRARY);
}

char* CopyToken(const Token& token) {
    const size_t length = static_cast<size_t>(token.end - token.begin);
    // A text longer than 4 GiB cannot be held by a 32-bit size; nor read.
    if (length >= 0xFFFFFFFFu) return nullptr;
    char* copy = static_cast<char*>(Allocate(static_cast<uint32_t>(length + 1)));
    if (copy == nullptr) return nullptr;
    std::memcpy(copy, token.begin, length);
    copy[length] = '\0';
    return copy;
}

// A zero-filled array of count elements of size bytes; null on overflow.
void* AllocateTable(uint32_t count, uint32_t size) {
    if (count > 0xFFFFFFFFu / size) return nullptr;
    void* table = Allocate(count * size);
    if (table != nullptr) std::memset(table, 0, size_t(count) * size);
    return table;
}

// Lines from p up to the next section header or the end of the text.
uint32_t CountEntryLines(const char* p) {
    uint32_t count = 0;
    while (*p != '\0' && *p != '[') {
        ++count;
        p = SkipBlanksAndComments(SkipLine(p));
    }
    return count;
}

uint32_t CountSections(const char* p) {
    uint32_t count = 0;
    for (; *p != '\0'; p = SkipBlanksAndComments(SkipLine(p))) {
        if (*p == '[') ++count;
    }
    return count;
}

// Reads the entry lines that follow a section header into section. Returns
// where the next section header (or the end) starts, null when out of memory.
const char* ParseEntries(ProfileSection& section, const char* p) {
    const uint32_t count = CountEntryLines(p);
    if (count == 0) return p;
    section.entries = static_cast<ProfileEntry*>(AllocateTable(count, sizeof(ProfileEntry)));
    if (section.entries == nullptr) return nullptr;
    section.entryCount = count;
    for (uint32_t i = 0; i < count; ++i) {
        ProfileEntry& entry = section.entries[i];
        Token key = ReadToken(p, "=\r\n");
        const char* rest = key.stop;
        Token value{rest, rest, rest};
        if (*rest == '=') {
            value = ReadToken(rest + 1, "\r\n");
            rest = value.stop;
        }
        entry.key = CopyToken(key);
        entry.value = CopyToken(value);
        if (entry.key == nullptr || entry.value == nullptr) return nullptr;
        p = SkipBlanksAndComments(SkipLine(rest));
    }
    return p;
}

} // namespace

bool ParseProfileText(ProfileFile& profile, const char* text) {
    const char* p = SkipBlanksAndComments(text);
    const uint32_t count = CountSections(p);
    if (count == 0) return true;
    profile.sections = static_cast<ProfileSection*>(AllocateTable(count, sizeof(ProfileSection)));
    if (profile.sections == nullptr) return false;
    profile.sectionCount = count;
    for (uint32_t i = 0; i < count; ++i) {
        while (*p != '[')
            p = SkipBlanksAndComments(SkipLine(p)); // lines before the first header
        ProfileSection& section = profile.sections[i];
        const Token name = ReadToken(p + 1, "]\r\n");
        section.name = CopyToken(name);
        if (section.name == nullptr) break;
        p = ParseEntries(section, SkipBlanksAndComments(SkipLine(name.stop)));
        if (p == nullptr) break;
        if (i + 1 == count) return true;
    }
    FreeProfileTables(profile);
    return false;
}

void FreeProfileTables(ProfileFile& profile) {
    for (uint32_t i = 0; i < profile.sectionCount; ++i) {
        ProfileSection& section = profile.sections[i];
        for (uint32_t k = 0; k < section.entryCount; ++k) {
            if (section.entries[k].key) zkFreeSystemMemory(section.entries[k].key);
            if (section.entries[k].value) zkFreeSystemMemory(section.entries[k].value);
        }
        if (section.entries) zkFreeSystemMemory(section.entries);
        if (section.name) zkFreeSystemMemory(section.name);
    }
    if (profile.sections) zkFreeSystemMemory(profile.sections);
    profile.sections = nullptr;
    profile.sectionCount = 0;
}

} // namespace zk
