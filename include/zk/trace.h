/* QAX kernel: the trace channel, assertions, memory dumps and the library registry. */
#ifndef ZK_TRACE_H
#define ZK_TRACE_H

#include "config.h"

ZK_EXTERN_C_BEGIN

/* Receives every trace text (see zkSetTraceProc). */
typedef void(ZK_CALL* TraceProc)(const char* text);
typedef struct LibraryRecord LibraryRecord;

/* printf-style; formats into a 1024-byte buffer (longer text is cut to 1023
 * characters) and hands it to the trace procedure, or to the debugger output. */
ZK_API void ZK_CALL zkTrace(const char* format, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 1, 2)))
#endif
    ;
/* Null restores the default sink. */
ZK_API void ZK_CALL zkSetTraceProc(TraceProc proc);
/* Traces "Assert Failed [file(line)]"; execution continues. */
ZK_API void ZK_CALL zkAssertFailed(const char* file, int32_t line);
/* Hexadecimal and character dump, 16 bytes a row, then a line of 64 dashes. */
ZK_API void ZK_CALL zkDumpMemory(const void* address, uint32_t size);
/* Registers a library module (at most 16) and traces its banner; null when
 * full or for a null module. */
ZK_API LibraryRecord* ZK_CALL zkRegisterLibrary(zkNativeHandle module, const char* name);
/* Traces a banner with the version printed as third.fourth.first.second. */
ZK_API void ZK_CALL zkOutputLibraryVersion(const char* name, uint32_t first, uint32_t second,
                                           uint32_t third, uint32_t fourth);

ZK_EXTERN_C_END

#endif /* ZK_TRACE_H */
