/**
 * @file
 * @brief Profile (ini) files.
 */
#ifndef ZK_PROFILE_H
#define ZK_PROFILE_H

#include "config.h"

/**
 * @defgroup profile Profile (ini) files
 * @brief Text files of [sections] holding key=value lines, parsed once and
 * looked up by name.
 *
 * A profile is a text file of [sections] holding key=value lines, read whole
 * through the file system (so any path the file system resolves works, mounted
 * archives included), parsed once and then looked up by name without regard
 * to the case of A-Z. The text may hold Shift_JIS: the second byte of a
 * double-byte character never ends a name, key, value or line.
 *
 * Text rules: a line ends at a carriage return (with one line feed after it);
 * a line feed alone does not end a line. A line whose first non-blank
 * character is ';' is a comment. Names, keys and values lose leading and
 * trailing blanks and double quotes. Lines before the first section are
 * ignored; a line without '=' is a key with an empty value. A key may begin
 * with a double-byte character.
 *
 * At most 32 profiles are open at once. The table is not locked: open, look
 * up and close profiles from one thread at a time. Every structure and string
 * below belongs to the profile, lives in the system pool and stays valid until
 * zkCloseProfile.
 * @{
 */

ZK_EXTERN_C_BEGIN

/** One key=value line of a section. */
typedef struct ProfileEntry {
    char* key;   /**< terminated, never null in an open profile */
    char* value; /**< terminated; "" when the line had no value */
} ProfileEntry;

/** One [section] with its entries in file order. */
typedef struct ProfileSection {
    char* name;            /**< terminated */
    uint32_t entryCount;   /**< number of entries */
    ProfileEntry* entries; /**< null when there are none */
} ProfileSection;

/** An open profile, one record of the table of 32. */
typedef struct ProfileFile {
    uint32_t inUse;           /**< 1 while the record holds an open profile */
    uint32_t sectionCount;    /**< number of sections, in file order */
    ProfileSection* sections; /**< null when there are none */
} ProfileFile;

/**
 * @brief Reads and parses the file at path.
 *
 * A file without any section opens and has no sections.
 * @return the profile, or null when 32 profiles are open, the file cannot be
 *         opened or read, or a block for the text or the parsed table cannot
 *         be allocated (everything taken so far is given back)
 * @threads One thread at a time for all profiles.
 */
ZK_API ProfileFile* ZK_CALL zkOpenProfile(const char* path);
/**
 * @brief The first section whose name equals name (A-Z without regard to case).
 * @return the section, or null when profile or name is null, the profile is
 *         closed, or none matches
 * @threads One thread at a time for all profiles.
 */
ZK_API ProfileSection* ZK_CALL zkGetProfileSection(ProfileFile* profile, const char* name);
/**
 * @brief The value of the first entry of section whose key equals key (A-Z
 * without regard to case).
 * @return the value; "" (never null) when nothing matches, the profile is
 *         null or closed, section or key is null, or section is not one of
 *         this profile's sections
 * @threads One thread at a time for all profiles.
 */
ZK_API const char* ZK_CALL zkGetProfileString(ProfileFile* profile, ProfileSection* section,
                                              const char* key);
/**
 * @brief Frees every block of the profile and makes its record free.
 * @param profile the profile; null or a closed profile does nothing
 * @threads One thread at a time for all profiles.
 */
ZK_API void ZK_CALL zkCloseProfile(ProfileFile* profile);

ZK_EXTERN_C_END

/** @} */

#endif /* ZK_PROFILE_H */
