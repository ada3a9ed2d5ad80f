/* QAX kernel: result codes and flag constants of every family.
 *
 * Results are signed 32-bit integers: 0 or positive for success, negative for
 * failure. A function that returns a handle returns null on failure instead.
 */
#ifndef ZK_RESULT_H
#define ZK_RESULT_H

/* ---- result codes ---------------------------------------------------- */
#define ZK_OK                       0
#define ZK_ERR_INVALID_ARGUMENT     (-3)  /* a required pointer is null, a bad seek origin */
#define ZK_ERR_INVALID_HANDLE       (-4)  /* null, closed or not open */
#define ZK_ERR_NO_MEMORY            (-5)
#define ZK_ERR_NOT_SUPPORTED        (-6)  /* not supported, or already done */
#define ZK_ERR_HOST_REMOVE_OR_COPY  (-8)  /* host directory not removed, host file not copied */
#define ZK_ERR_SHORT_READ           (-11) /* a read delivered less than asked (archives, whole-file loads) */
#define ZK_ERR_NOT_ARCHIVE          (-13) /* bad archive magic */
#define ZK_ERR_NO_ITEM              (-14) /* no such archive item */
#define ZK_ERR_NO_SLOT              (-19) /* a fixed table is full, the system refused a thread */
#define ZK_ERR_NO_DEVICE            (-23)
#define ZK_ERR_PATH_TOO_LONG        (-26)
#define ZK_ERR_WINDOW_CLASS         (-29) /* the window class could not be registered */
#define ZK_ERR_CALLBACKS_FULL       (-31) /* the event callback table is full */
#define ZK_ERR_BUFFER_TOO_SMALL     (-33)
#define ZK_ERR_HOST_READ            (-35)
#define ZK_ERR_HOST_WRITE           (-36)
#define ZK_ERR_HOST_POSITION        (-37)
#define ZK_ERR_HOST_MKDIR           (-38)
#define ZK_ERR_NO_MOUNT_SLOT        (-39)
#define ZK_ERR_NOT_MOUNTED          (-42)
#define ZK_ERR_BAD_MOUNT_PATH       (-43)
#define ZK_ERR_HOST_SEEK            (-49)
#define ZK_ERR_OPEN_FAILED          (-51) /* also: not found */
#define ZK_ERR_REQUESTS_NOT_READY   (-54) /* requests used before zkInitializeRequest */
#define ZK_ERR_NULL_REQUEST         (-55)
#define ZK_ERR_REQUEST_STATE        (-56)
#define ZK_ERR_NO_SUCH_FILE         (-57) /* a driver's answer; callers see -51 */

/* ---- window messages the library itself acts on ----------------------- */
#define ZK_WM_CREATE   0x0001u
#define ZK_WM_DESTROY  0x0002u
#define ZK_WM_CLOSE    0x0010u
#define ZK_WM_QUIT     0x0012u

/* ---- zkCheckMultipleInstances flags ------------------------------------ */
#define ZK_INSTANCE_GLOBAL    0x1u /* name the mutex in the global namespace */
#define ZK_INSTANCE_ACTIVATE  0x2u /* bring the other instance's window to the front */

/* ---- frame loop ---------------------------------------------------------- */
#define ZK_FRAME_END  0xFFFFFFFFu /* a frame procedure returning this ends the loop */

/* ---- allocation flags ------------------------------------------------------ */
#define ZK_ALLOC_TOP      0x001u /* highest fitting address (used when BOTTOM is clear) */
#define ZK_ALLOC_BOTTOM   0x002u /* lowest fitting address */
#define ZK_ALLOC_ZERO     0x100u /* zero the requested size (system-pool calls) */
#define ZK_ALLOC_DEFAULT  0x200u /* add the manager's default mode */
#define ZK_ALLOC_ROUND    0x400u /* round the size up to the alignment */
#define ZK_ALLOC_FIXED    0x800u /* fixed block, addressed by pointer */
#define ZK_BLOCK_IN_USE   0x80000000u

/* Block categories. */
#define ZK_CATEGORY_LIBRARY  8u /* every block the library allocates for itself */

/* ---- file open flags and seek origins ------------------------------------- */
#define ZK_OPEN_READ        0x01u
#define ZK_OPEN_WRITE       0x02u
#define ZK_OPEN_CREATE      0x04u
#define ZK_OPEN_CREATE_ALT  0x08u
#define ZK_OPEN_TRUNCATE    0x10u
#define ZK_OPEN_APPEND      0x20u

#define ZK_SEEK_SET  0
#define ZK_SEEK_CUR  1
#define ZK_SEEK_END  2

#endif /* ZK_RESULT_H */
