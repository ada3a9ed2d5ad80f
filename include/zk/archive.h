/* QAX kernel: KIV0 archives.
 *
 * An archive is one file holding many items, reached by name (the default) or
 * by index (ZK_KIV_BY_INDEX). In directory mode only the header and directory
 * are read at open and item bytes are read on demand from the archive file; in
 * memory-image mode (ZK_KIV_MEMORY_IMAGE) the whole archive is read into one
 * block and items are addressed in place. An item may itself be an archive
 * (a child), opened with zkOpenChildKiv; children nest to any depth.
 *
 * At most 32 archives (children and mounted archives included) and 32 item
 * streams are open at once. Close children and item streams before the
 * archive they came from: they use its file and its memory.
 *
 * zkMountKiv makes an archive's items readable through the ordinary file calls
 * under a mount path (devices kiv0: to kiv9:).
 *
 * Archives live in the library's arena: zkTerminate closes those still open,
 * with their item streams and their mounts (files opened through a mount then
 * answer -4 to reads). A call on such a handle afterwards answers as for a
 * closed handle; a call running on another thread meanwhile completes before
 * the archive goes, or answers so.
 */
#ifndef ZK_ARCHIVE_H
#define ZK_ARCHIVE_H

#include "config.h"

#define ZK_KIV_MEMORY_IMAGE 0x02u /* load the whole archive into memory */
#define ZK_KIV_BY_INDEX 0x04u     /* address items by index; by-name calls answer -6 */
#define ZK_KIV_DIRECT_READ 0x10u  /* read item bytes on the calling thread, past the I/O worker */

ZK_EXTERN_C_BEGIN

typedef struct KivArchive KivArchive;
typedef struct KivItemStream KivItemStream;

/* Opens the archive file at path. Null when 32 archives are open, the file
 * cannot be opened, or it is no well-formed archive (wrong magic, a header,
 * directory or image that cannot be read whole, a packed directory that does
 * not expand to its size, an entry size below 12, a header length other than
 * 32 or 48 bytes) or memory is short. */
ZK_API KivArchive* ZK_CALL zkOpenKiv(const char* path, uint32_t flags);
/* Closes the archive and frees its blocks; null or a closed handle: nothing. */
ZK_API void ZK_CALL zkCloseKiv(KivArchive* archive);
/* Opens the item name of parent as an archive (a null parent opens name as a
 * path). Null for a parent opened by index, a missing item, or as zkOpenKiv.
 * A child of a memory image is addressed inside that image. A child reads
 * only within its own item of the parent: an item of it reaching past that
 * range answers -11, in every mode. */
ZK_API KivArchive* ZK_CALL zkOpenChildKiv(KivArchive* parent, const char* name, uint32_t flags);
/* The same by index, for a parent opened with ZK_KIV_BY_INDEX. */
ZK_API KivArchive* ZK_CALL zkOpenChildKivByIndex(KivArchive* parent, uint32_t index,
                                                 uint32_t flags);
/* Number of items; 0 for a null or closed handle. */
ZK_API uint32_t ZK_CALL zkGetKivItemCount(KivArchive* archive);
/* 1 when the archive (opened by name) has an item of that name, else 0. */
ZK_API int32_t ZK_CALL zkFindKivItem(KivArchive* archive, const char* name);

/* Loads an item into a new system-pool block that the caller owns and gives
 * back with zkReleaseKivItem. 0; -4 (null or closed archive), -3 (null
 * pointer), -6 (wrong access mode), -14 (no such item or index), -5 (no
 * memory), -11 (the archive holds fewer bytes than the item's size), or the
 * file layer's read code. On failure *buffer is null and *size 0. */
ZK_API int32_t ZK_CALL zkLoadKivItem(KivArchive* archive, const char* name, void** buffer,
                                     uint32_t* size);
/* The same by index, for an archive opened with ZK_KIV_BY_INDEX (-6 else). */
ZK_API int32_t ZK_CALL zkLoadKivItemByIndex(KivArchive* archive, uint32_t index, void** buffer,
                                            uint32_t* size);
/* Gives back a block of the load functions (zkFree). */
ZK_API void ZK_CALL zkReleaseKivItem(void* buffer);
/* Opens the archive at path, loads the item and closes the archive; -51 when
 * the archive cannot be opened, else as zkLoadKivItem. */
ZK_API int32_t ZK_CALL zkLoadKivFileItem(const char* path, const char* name, void** buffer,
                                         uint32_t* size);
/* The address of an item inside a memory image, valid until the archive that
 * loaded the image is closed; nothing is copied. -14 for an archive that is no
 * memory image, -11 for an item that lies outside the image; else as the loads. */
ZK_API int32_t ZK_CALL zkGetKivItem(KivArchive* archive, const char* name, void** data,
                                    uint32_t* size);
/* The same by index, for an archive opened with ZK_KIV_BY_INDEX (-6 else). */
ZK_API int32_t ZK_CALL zkGetKivItemByIndex(KivArchive* archive, uint32_t index, void** data,
                                           uint32_t* size);

/* Item streams: an item read piece by piece. Null as zkLoadKivItem fails, or
 * when 32 streams are open. */
ZK_API KivItemStream* ZK_CALL zkOpenKivItem(KivArchive* archive, const char* name);
/* The same by index, for an archive opened with ZK_KIV_BY_INDEX. */
ZK_API KivItemStream* ZK_CALL zkOpenKivItemByIndex(KivArchive* archive, uint32_t index);
/* Null or a closed stream: nothing. */
ZK_API void ZK_CALL zkCloseKivItem(KivItemStream* item);
/* Reads up to count bytes at the position (fewer at the item's end, 0 after
 * it); *got (may be null) the bytes delivered. 0, -4, -3, or the read's code. */
ZK_API int32_t ZK_CALL zkReadKivItem(KivItemStream* item, void* buffer, uint32_t count,
                                     uint32_t* got);
/* Moves the position from the start (0), the position (1) or the end (2),
 * held within 0..size; *position (may be null) the new position. 0, -4, or -3
 * for another origin (the position stays). */
ZK_API int32_t ZK_CALL zkSeekKivItem(KivItemStream* item, int32_t offset, uint32_t origin,
                                     uint32_t* position);
/* The item's size in *size. 0, -4 (null or closed stream), -3 (null size). */
ZK_API int32_t ZK_CALL zkGetKivItemSize(KivItemStream* item, uint32_t* size);
/* Archives open now, children and mounted archives included (of 32). */
ZK_API uint32_t ZK_CALL zkGetOpenKivCount(void);
/* Item streams open now (of 32). */
ZK_API uint32_t ZK_CALL zkGetOpenKivItemCount(void);

/* Opens the archive (flags | ZK_KIV_DIRECT_READ) and mounts it at mountPath on
 * the first free device kiv0: .. kiv9:. 0; -3 (null path, or ZK_KIV_BY_INDEX),
 * -39 (10 archives mounted), -51 (the archive cannot be opened), or zkMount's
 * code (the archive is closed again). */
ZK_API int32_t ZK_CALL zkMountKiv(const char* mountPath, const char* archivePath, uint32_t flags);
/* Unmounts mountPath and closes its archive. -3, or zkUnmount's code. Close
 * the files opened through the mount first. */
ZK_API int32_t ZK_CALL zkUnmountKiv(const char* mountPath);

/* Expands a slide-packed stream (LZSS, 4096-byte window) of sourceSize bytes
 * into destination, which must have room for the whole expanded size. */
ZK_API void ZK_CALL _zkSlideExpand(uint8_t* destination, const uint8_t* source,
                                   uint32_t sourceSize);

ZK_EXTERN_C_END

#endif /* ZK_ARCHIVE_H */
