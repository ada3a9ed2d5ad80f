// Splitting the command line into arguments, in place.
#ifndef ZK_KERNEL_ARGUMENTS_H
#define ZK_KERNEL_ARGUMENTS_H

#include <cstdint>

namespace zk {

// Splits text in place: a leading double quote starts a quoted argument, whose
// next quote ends the quoting; an unquoted argument ends at a space (only the
// space character). Whitespace between arguments is passed over. The first
// maxArgs argument addresses are stored; the number found is returned.
uint32_t SplitCommandLine(char* text, char** args, uint32_t maxArgs);

} // namespace zk

#endif // ZK_KERNEL_ARGUMENTS_H
