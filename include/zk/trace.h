/**
 * @file
 * @brief The trace channel, assertions, memory dumps and the library registry.
 */
#ifndef ZK_TRACE_H
#define ZK_TRACE_H

#include "config.h"

/**
 * @defgroup trace Trace, assertions and library registry
 * @brief The one channel all library text goes through, assertion reports,
 * memory dumps, and the registry of library modules with their banners.
 *
 * Text goes to the trace procedure, by default the debugger output (standard
 * error on Linux). zkTrace, zkAssertFailed and zkDumpMemory may be called
 * from any thread: each call formats into its own buffer, so texts of
 * different threads interleave only between calls.
 * @{
 */

ZK_EXTERN_C_BEGIN

/** Receives every trace text (see zkSetTraceProc), on the thread that traced it. */
typedef void(ZK_CALL* TraceProc)(const char* text);
/** A registered library module. */
typedef struct LibraryRecord LibraryRecord;

/**
 * @brief Traces a printf-style text.
 *
 * Formats into a 1024-byte buffer (longer text is cut to 1023 characters)
 * and hands it to the trace procedure, or to the debugger output.
 * @param format the printf format
 * @threads Any thread, at any time.
 */
ZK_API void ZK_CALL zkTrace(const char* format, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 1, 2)))
#endif
    ;
/**
 * @brief Installs the procedure that receives every trace text.
 * @param proc the procedure; null restores the default sink
 * @threads The main thread; a text traced meanwhile goes to the old or the new procedure.
 */
ZK_API void ZK_CALL zkSetTraceProc(TraceProc proc);
/**
 * @brief Traces "Assert Failed [file(line)]"; execution continues.
 * @threads Any thread, at any time.
 */
ZK_API void ZK_CALL zkAssertFailed(const char* file, int32_t line);
/**
 * @brief Traces a hexadecimal and character dump, 16 bytes a row, then a line
 * of 64 dashes.
 * @param address the first byte; null dumps no rows
 * @param size bytes to dump
 * @threads Any thread, at any time.
 */
ZK_API void ZK_CALL zkDumpMemory(const void* address, uint32_t size);
/**
 * @brief Registers a library module (at most 16) and traces its banner.
 * @param module the module's handle
 * @param name the module's name
 * @return the record, or null when 16 are registered or for a null module
 * @threads The main thread.
 */
ZK_API LibraryRecord* ZK_CALL zkRegisterLibrary(zkNativeHandle module, const char* name);
/**
 * @brief Traces a banner with the version printed as third.fourth.first.second.
 * @threads Any thread, at any time.
 */
ZK_API void ZK_CALL zkOutputLibraryVersion(const char* name, uint32_t first, uint32_t second,
                                           uint32_t third, uint32_t fourth);

ZK_EXTERN_C_END

/** @} */

#endif /* ZK_TRACE_H */
