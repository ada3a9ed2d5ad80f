/**
 * @file zk/result.h
 * @brief Result codes and the flag constants of every family.
 */
#ifndef ZK_RESULT_H
#define ZK_RESULT_H

#include "config.h"

/**
 * @defgroup results Result codes and flags
 * @brief Result codes, their texts, and the flag constants of every family.
 *
 * Results are signed 32-bit integers: 0 or positive for success, negative for
 * failure. A function that returns a handle returns null on failure instead.
 * zkGetResultText() turns a code into a short English text.
 * @{
 */

/** @name Result codes
 * Each function's comment says which of them it returns. */
/** @{ */
#define ZK_OK                       0     /**< success */
#define ZK_ERR_INIT_REFUSED         (-1)  /**< zkMain: the init procedure returned 0 */
#define ZK_ERR_INVALID_ARGUMENT     (-3)  /**< a required pointer is null, a bad seek origin */
#define ZK_ERR_INVALID_HANDLE       (-4)  /**< null, closed or not open */
#define ZK_ERR_NO_MEMORY            (-5)  /**< out of memory (no system pool, or no room in it) */
#define ZK_ERR_NOT_SUPPORTED        (-6)  /**< not supported, or already done */
#define ZK_ERR_HOST_REMOVE_OR_COPY  (-8)  /**< host directory not removed, host file not copied */
/** a read delivered less than asked (archives, whole-file loads) */
#define ZK_ERR_SHORT_READ           (-11)
#define ZK_ERR_NOT_ARCHIVE          (-13) /**< bad archive magic */
#define ZK_ERR_NO_ITEM              (-14) /**< no such archive item */
#define ZK_ERR_NO_SLOT              (-19) /**< a fixed table is full, the system refused a thread */
/** no driver claims the path, or the handle has no open file */
#define ZK_ERR_NO_DEVICE            (-23)
#define ZK_ERR_PATH_TOO_LONG        (-26) /**< a mount path or physical path longer than 260 */
#define ZK_ERR_WINDOW_CLASS         (-29) /**< the window class could not be registered */
#define ZK_ERR_CALLBACKS_FULL       (-31) /**< the event callback table is full */
#define ZK_ERR_BUFFER_TOO_SMALL     (-33) /**< the caller's buffer is too small */
#define ZK_ERR_HOST_READ            (-35) /**< a host read or size query failed */
#define ZK_ERR_HOST_WRITE           (-36) /**< a host write failed */
#define ZK_ERR_HOST_POSITION        (-37) /**< host positioning for a read at an offset failed */
#define ZK_ERR_HOST_MKDIR           (-38) /**< a host directory could not be created */
#define ZK_ERR_NO_MOUNT_SLOT        (-39) /**< no free mount record or archive device */
#define ZK_ERR_NOT_MOUNTED          (-42) /**< nothing is mounted at that path */
/** a mount path that is empty or lacks its leading slash */
#define ZK_ERR_BAD_MOUNT_PATH       (-43)
#define ZK_ERR_HOST_SEEK            (-49) /**< a host seek failed */
#define ZK_ERR_OPEN_FAILED          (-51) /**< the file could not be opened (also: not found) */
#define ZK_ERR_REQUESTS_NOT_READY   (-54) /**< requests used before zkInitializeRequest */
#define ZK_ERR_NULL_REQUEST         (-55) /**< a null request */
#define ZK_ERR_REQUEST_STATE        (-56) /**< the request's state does not allow the call */
#define ZK_ERR_NO_SUCH_FILE         (-57) /**< a driver's answer; callers see -51 */
/** @} */

ZK_EXTERN_C_BEGIN

/**
 * @brief A short English text for a result code.
 *
 * An extension of this library beyond the interface it implements. Every code
 * above has a text of its own; any other value gives "unknown result".
 * @param result a result code returned by any function of the library
 * @return a static, terminated text; never null
 * @threads Any thread, at any time, also before zkBeginProcess.
 */
ZK_API const char* ZK_CALL zkGetResultText(int32_t result);

ZK_EXTERN_C_END

/** @name Window messages the library itself acts on */
/** @{ */
#define ZK_WM_CREATE   0x0001u /**< a window is being created */
#define ZK_WM_DESTROY  0x0002u /**< a window is being destroyed */
#define ZK_WM_CLOSE    0x0010u /**< a window's close was requested */
#define ZK_WM_QUIT     0x0012u /**< the thread's message loop should end */
/** @} */

/** @name zkCheckMultipleInstances flags */
/** @{ */
#define ZK_INSTANCE_GLOBAL    0x1u /**< name the mutex in the global namespace */
#define ZK_INSTANCE_ACTIVATE  0x2u /**< bring the other instance's window to the front */
/** @} */

/** @name Frame loop */
/** @{ */
#define ZK_FRAME_END  0xFFFFFFFFu /**< a frame procedure returning this ends the loop */
/** @} */

/** @name Allocation flags */
/** @{ */
#define ZK_ALLOC_TOP      0x001u /**< highest fitting address (used when BOTTOM is clear) */
#define ZK_ALLOC_BOTTOM   0x002u /**< lowest fitting address */
#define ZK_ALLOC_ZERO     0x100u /**< zero the requested size (system-pool calls) */
#define ZK_ALLOC_DEFAULT  0x200u /**< add the manager's default mode */
#define ZK_ALLOC_ROUND    0x400u /**< round the size up to the alignment */
#define ZK_ALLOC_FIXED    0x800u /**< fixed block, addressed by pointer */
#define ZK_BLOCK_IN_USE   0x80000000u /**< a block's flag word: the block is allocated */
/** @} */

/** @name Block categories */
/** @{ */
#define ZK_CATEGORY_LIBRARY  8u /**< every block the library allocates for itself */
/** @} */

/** @name File open flags */
/** @{ */
#define ZK_OPEN_READ        0x01u /**< open for reading */
#define ZK_OPEN_WRITE       0x02u /**< open for writing */
/** create the file, and its missing parent folders, when it is missing */
#define ZK_OPEN_CREATE      0x04u
/**
 * make missing parent folders and open again (the file itself is made by
 * drivers that honour it)
 */
#define ZK_OPEN_CREATE_ALT  0x08u
#define ZK_OPEN_TRUNCATE    0x10u /**< cut an existing file to length 0 */
#define ZK_OPEN_APPEND      0x20u /**< start at the end of the file */
/** @} */

/** @name Seek origins */
/** @{ */
#define ZK_SEEK_SET  0 /**< from the start */
#define ZK_SEEK_CUR  1 /**< from the current position */
#define ZK_SEEK_END  2 /**< from the end */
/** @} */

/** @} */

#endif /* ZK_RESULT_H */
