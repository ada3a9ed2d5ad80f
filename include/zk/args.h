/**
 * @file
 * @brief Application arguments, the module directory and module loading.
 */
#ifndef ZK_ARGS_H
#define ZK_ARGS_H

#include "config.h"

/**
 * @defgroup args Arguments and module directory
 * @brief The command line split into arguments, the module directory, and
 * module loading (not supported).
 *
 * The arguments are split at zkBeginProcess. Every call of this group is for
 * the main thread; the getters may also be called from other threads while
 * the main thread changes nothing.
 * @{
 */

ZK_EXTERN_C_BEGIN

/**
 * @brief Arguments found on the command line (may exceed 32).
 * @return the count; 0 before zkBeginProcess
 * @threads The main thread (see the group).
 */
ZK_API uint32_t ZK_CALL zkGetAppArgCount(void);
/**
 * @brief One argument of the command line.
 * @param index 0 for the first
 * @return the argument (the library owns the text), or null when index >=
 *         count or index >= 32
 * @threads The main thread (see the group).
 */
ZK_API const char* ZK_CALL zkGetAppArg(uint32_t index);
/**
 * @brief Sets the module directory; one trailing separator is dropped.
 * @param directory the directory; ignored when null or 260 characters or longer
 * @threads The main thread.
 */
ZK_API void ZK_CALL zkSetModuleDir(const char* directory);
/**
 * @brief The module directory (empty until set).
 * @return the directory; the library owns the text; never null
 * @threads The main thread (see the group).
 */
ZK_API const char* ZK_CALL zkGetModuleDir(void);
/**
 * @brief Composes name against the module directory.
 *
 * An empty relative name gives the directory alone (the directory "/" gives "").
 * @param name the module's name
 * @param out receives the path when outSize is large enough
 * @param outSize the size of out in bytes
 * @return the bytes needed including the terminator (nothing is written when
 *         outSize is smaller); 0 for a null name or out
 * @threads The main thread (see the group).
 */
ZK_API uint32_t ZK_CALL zkGetModulePath(const char* name, char* out, uint32_t outSize);
/** @name Modules
 * Modules are not supported: these load nothing. Any thread. */
/** @{ */
/** @brief Loads nothing. @return 0 @threads Any thread. */
ZK_API int32_t ZK_CALL zkLoadModuleEx(void* a, void* b, void* c);
/** @brief Loads nothing. @return -6 (ZK_ERR_NOT_SUPPORTED) @threads Any thread. */
ZK_API int32_t ZK_CALL zkLoadModule(void);
/** @brief Unloads nothing. @return -6 (ZK_ERR_NOT_SUPPORTED) @threads Any thread. */
ZK_API int32_t ZK_CALL zkUnloadModule(void);
/** @brief Loads nothing. @return -6 (ZK_ERR_NOT_SUPPORTED) @threads Any thread. */
ZK_API int32_t ZK_CALL zkLoadDefaultModule(void);
/** @} */

ZK_EXTERN_C_END

/** @} */

#endif /* ZK_ARGS_H */
