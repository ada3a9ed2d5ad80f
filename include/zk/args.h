/* QAX kernel: application arguments, the module directory and module loading. */
#ifndef ZK_ARGS_H
#define ZK_ARGS_H

#include "config.h"

ZK_EXTERN_C_BEGIN

/* Arguments found on the command line (may exceed 32). */
ZK_API uint32_t ZK_CALL zkGetAppArgCount(void);
/* Argument index, or null when index >= count or index >= 32. */
ZK_API const char* ZK_CALL zkGetAppArg(uint32_t index);
/* Ignored when null or 260 characters or longer; one trailing separator is dropped. */
ZK_API void ZK_CALL zkSetModuleDir(const char* directory);
/* The module directory (empty until set); the library owns the text. */
ZK_API const char* ZK_CALL zkGetModuleDir(void);
/* Composes name against the module directory; returns the bytes needed including
 * the terminator (nothing is written when outSize is smaller), 0 for null name or out.
 * An empty relative name gives the directory alone (the directory "/" gives ""). */
ZK_API uint32_t ZK_CALL zkGetModulePath(const char* name, char* out, uint32_t outSize);
/* Modules are not supported: these load nothing. */
ZK_API int32_t ZK_CALL zkLoadModuleEx(void* a, void* b, void* c); /* 0 */
ZK_API int32_t ZK_CALL zkLoadModule(void);                        /* -6 */
ZK_API int32_t ZK_CALL zkUnloadModule(void);                      /* -6 */
ZK_API int32_t ZK_CALL zkLoadDefaultModule(void);                 /* -6 */

ZK_EXTERN_C_END

#endif /* ZK_ARGS_H */
