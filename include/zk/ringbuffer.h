/* QAX kernel: the ring buffer, one producer thread to one consumer thread. */
#ifndef ZK_RINGBUFFER_H
#define ZK_RINGBUFFER_H

#include "config.h"

ZK_EXTERN_C_BEGIN

typedef struct RingBuffer RingBuffer;

/* The library has one ring buffer. Null when it is already in use, buffer is
 * null or size 0, or its guard semaphore cannot be created. The buffer stays
 * the caller's. Every ring call treats a pointer that is not this handle as
 * null, and a released ring buffer as empty. A buffer that starts a cache
 * line (64 bytes) keeps chunks of whole lines from sharing a line, which
 * passes small chunks between two processors markedly faster. */
ZK_API RingBuffer* ZK_CALL zkCreateRingBuffer(void* buffer, uint32_t size);
/* Frees the ring buffer for the next create; the caller's buffer is not touched. */
ZK_API void ZK_CALL zkReleaseRingBuffer(RingBuffer* ring);
/* Bytes written and not yet read; 0 for null. */
ZK_API uint32_t ZK_CALL zkGetRingBufferDataSize(RingBuffer* ring);
/* The caller's buffer; null for null. */
ZK_API void* ZK_CALL zkGetRingBufferAddress(RingBuffer* ring);
/* The readable region in up to two pieces (the second is the part that wraps
 * to the buffer's start); returns the data size. Nothing is reserved. When any
 * of the four outputs is null, the given ones are cleared and only the size
 * is returned. Null ring buffer: 0, outputs untouched. */
ZK_API uint32_t ZK_CALL zkLockRingBufferForRead(RingBuffer* ring, void** first, uint32_t* firstSize,
                                               void** second, uint32_t* secondSize);
/* Consumes count bytes. A count above the bytes readable now (which is at
 * least what the last lock for read reported) is refused: nothing is consumed,
 * so the data size never leaves 0..size and later locks stay inside the buffer. */
ZK_API void ZK_CALL zkUnlockRingBufferForRead(RingBuffer* ring, uint32_t count);
/* The writable region in up to two pieces; returns the free size. Same output
 * rules as zkLockRingBufferForRead. */
ZK_API uint32_t ZK_CALL zkLockRingBufferForWrite(RingBuffer* ring, void** first,
                                                uint32_t* firstSize, void** second,
                                                uint32_t* secondSize);
/* Commits count bytes. A count above the free bytes now (at least what the
 * last lock for write reported) is refused: nothing is committed. */
ZK_API void ZK_CALL zkUnlockRingBufferForWrite(RingBuffer* ring, uint32_t count);

ZK_EXTERN_C_END

#endif /* ZK_RINGBUFFER_H */
