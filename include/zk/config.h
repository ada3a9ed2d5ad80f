/**
 * @file
 * @brief Compiler and platform settings shared by every public header.
 */
#ifndef ZK_CONFIG_H
#define ZK_CONFIG_H

/**
 * @defgroup config Compiler settings and shared types
 * @brief The export and calling-convention macros and the integer types of
 * the interface.
 *
 * Integer widths: sizes, counts and codes are 32-bit everywhere. Every value
 * that holds an address (a block address, a pool base, a user value that an
 * application may use for a pointer, a native handle) is zkAddr, which is
 * 32 bits on 32-bit targets and pointer-sized on 64-bit hosts.
 * @{
 */

/**
 * @def ZK_API
 * @brief Marks an exported function: dllexport while building the library,
 * dllimport for applications on Windows; default visibility elsewhere.
 */
/**
 * @def ZK_CALL
 * @brief The calling convention of every exported function and callback:
 * cdecl on 32-bit Windows, the platform's default elsewhere.
 */
/**
 * @def ZK_EXTERN_C_BEGIN
 * @brief Opens C linkage around the declarations of a header when compiled as C++.
 */
/**
 * @def ZK_EXTERN_C_END
 * @brief Closes what ZK_EXTERN_C_BEGIN opened.
 */

#include <stddef.h>
#include <stdint.h>

#if defined(_WIN32)
#  if defined(ZK_BUILDING_LIBRARY)
#    define ZK_API __declspec(dllexport)
#  else
#    define ZK_API __declspec(dllimport)
#  endif
#  if defined(_M_IX86) || defined(__i386__)
#    define ZK_CALL __cdecl
#  else
#    define ZK_CALL
#  endif
#else
#  if defined(ZK_BUILDING_LIBRARY)
#    define ZK_API __attribute__((visibility("default")))
#  else
#    define ZK_API
#  endif
#  define ZK_CALL
#endif

#ifdef __cplusplus
#  define ZK_EXTERN_C_BEGIN extern "C" {
#  define ZK_EXTERN_C_END }
#else
#  define ZK_EXTERN_C_BEGIN
#  define ZK_EXTERN_C_END
#endif

/** An address-holding integer: 32-bit on the 32-bit target, pointer-sized on 64-bit hosts. */
typedef uintptr_t zkAddr;
/** The signed form of zkAddr (window message results and parameters). */
typedef intptr_t zkSAddr;

/** A native handle (module, window, mutex) as the application sees it. */
typedef void* zkNativeHandle;

/** @} */

#endif /* ZK_CONFIG_H */
