/* QAX kernel: the ring buffer, one producer thread to one consumer thread. */
#ifndef ZK_RINGBUFFER_H
#define ZK_RINGBUFFER_H

#include "config.h"

ZK_EXTERN_C_BEGIN

typedef struct RingBuffer RingBuffer;

/* Null when the ring buffer is already in use. The buffer stays the caller's. */
ZK_API RingBuffer* ZK_CALL zkCreateRingBuffer(void* buffer, uint32_t size);
ZK_API void ZK_CALL zkReleaseRingBuffer(RingBuffer* ring);
ZK_API uint32_t ZK_CALL zkGetRingBufferDataSize(RingBuffer* ring);
ZK_API void* ZK_CALL zkGetRingBufferAddress(RingBuffer* ring);
/* The readable region in up to two pieces; returns the data size. */
ZK_API uint32_t ZK_CALL zkLockRingBufferForRead(RingBuffer* ring, void** first, uint32_t* firstSize,
                                               void** second, uint32_t* secondSize);
ZK_API void ZK_CALL zkUnlockRingBufferForRead(RingBuffer* ring, uint32_t count);
/* The writable region in up to two pieces; returns the free size. */
ZK_API uint32_t ZK_CALL zkLockRingBufferForWrite(RingBuffer* ring, void** first,
                                                uint32_t* firstSize, void** second,
                                                uint32_t* secondSize);
ZK_API void ZK_CALL zkUnlockRingBufferForWrite(RingBuffer* ring, uint32_t count);

ZK_EXTERN_C_END

#endif /* ZK_RINGBUFFER_H */
