// Profile text parser: turns a terminated text into a profile's section and
// entry tables, every array and string a block of its own in the system pool.
#ifndef ZK_KERNEL_PROFILE_PARSER_H
#define ZK_KERNEL_PROFILE_PARSER_H

#include <zk/profile.h>

namespace zk {

// Parses text (ending at its first zero byte) into profile, whose tables must
// be empty. false when a block could not be allocated: whatever had been
// built is freed again and the tables are left empty.
bool ParseProfileText(ProfileFile& profile, const char* text);

// Frees every string and array of profile and empties its tables.
void FreeProfileTables(ProfileFile& profile);

} // namespace zk

#endif
