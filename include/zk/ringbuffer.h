/**
 * @file
 * @brief The ring buffer, one producer thread to one consumer thread.
 */
#ifndef ZK_RINGBUFFER_H
#define ZK_RINGBUFFER_H

#include "config.h"

/**
 * @defgroup ringbuffer Ring buffer
 * @brief A byte stream from one producer thread to one consumer thread
 * through a buffer the application supplies.
 *
 * Threads: the write calls (zkLockRingBufferForWrite,
 * zkUnlockRingBufferForWrite) belong to one producer thread and the read
 * calls to one consumer thread; the two run at once without a lock. The size
 * and address queries may come from any thread. Create and release the ring
 * buffer while neither side uses it.
 * @{
 */

ZK_EXTERN_C_BEGIN

/** The ring buffer's handle. */
typedef struct RingBuffer RingBuffer;

/**
 * @brief Takes the library's one ring buffer over the caller's buffer.
 *
 * The buffer stays the caller's. Every ring call treats a pointer that is not
 * this handle as null, and a released ring buffer as empty. A buffer that
 * starts a cache line (64 bytes) keeps chunks of whole lines from sharing a
 * line, which passes small chunks between two processors markedly faster.
 * @param buffer the bytes to use
 * @param size their count
 * @return the handle, or null when it is already in use, buffer is null or
 *         size 0, or its guard semaphore cannot be created
 * @threads Any thread.
 */
ZK_API RingBuffer* ZK_CALL zkCreateRingBuffer(void* buffer, uint32_t size);
/**
 * @brief Frees the ring buffer for the next create; the caller's buffer is not touched.
 * @threads Any thread, while neither side uses the ring buffer.
 */
ZK_API void ZK_CALL zkReleaseRingBuffer(RingBuffer* ring);
/**
 * @brief Bytes written and not yet read.
 * @return the data size; 0 for null
 * @threads Any thread.
 */
ZK_API uint32_t ZK_CALL zkGetRingBufferDataSize(RingBuffer* ring);
/**
 * @brief The caller's buffer.
 * @return the buffer; null for null
 * @threads Any thread.
 */
ZK_API void* ZK_CALL zkGetRingBufferAddress(RingBuffer* ring);
/**
 * @brief The readable region in up to two pieces (the second is the part that
 * wraps to the buffer's start). Nothing is reserved.
 *
 * When any of the four outputs is null, the given ones are cleared and only
 * the size is returned.
 * @return the data size; 0 for a null ring buffer (outputs untouched)
 * @threads The consumer thread.
 */
ZK_API uint32_t ZK_CALL zkLockRingBufferForRead(RingBuffer* ring, void** first, uint32_t* firstSize,
                                               void** second, uint32_t* secondSize);
/**
 * @brief Consumes count bytes.
 *
 * A count above the bytes readable now (which is at least what the last lock
 * for read reported) is refused: nothing is consumed, so the data size never
 * leaves 0..size and later locks stay inside the buffer.
 * @threads The consumer thread.
 */
ZK_API void ZK_CALL zkUnlockRingBufferForRead(RingBuffer* ring, uint32_t count);
/**
 * @brief The writable region in up to two pieces. Same output rules as
 * zkLockRingBufferForRead.
 * @return the free size; 0 for a null ring buffer (outputs untouched)
 * @threads The producer thread.
 */
ZK_API uint32_t ZK_CALL zkLockRingBufferForWrite(RingBuffer* ring, void** first,
                                                uint32_t* firstSize, void** second,
                                                uint32_t* secondSize);
/**
 * @brief Commits count bytes.
 *
 * A count above the free bytes now (at least what the last lock for write
 * reported) is refused: nothing is committed.
 * @threads The producer thread.
 */
ZK_API void ZK_CALL zkUnlockRingBufferForWrite(RingBuffer* ring, uint32_t count);

ZK_EXTERN_C_END

/** @} */

#endif /* ZK_RINGBUFFER_H */
