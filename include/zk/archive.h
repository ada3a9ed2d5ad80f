/**
 * @file
 * @brief KIV0 archives: many items in one file, read by name or index,
 * nested, loaded whole or read on demand, and mountable.
 */
#ifndef ZK_ARCHIVE_H
#define ZK_ARCHIVE_H

#include "config.h"

/**
 * @defgroup archive Archives
 * @brief Reading KIV0 archives through their own calls or mounted into the
 * file system.
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
 * Threads: archive and stream records are taken and given back under the
 * library lock, so any thread may open and close archives; lookups, loads and
 * reads of one open archive may run on any number of threads at once (for an
 * archive opened with ZK_KIV_DIRECT_READ, read one item stream from one
 * thread at a time). An item stream belongs to one thread at a time.
 * zkMountKiv and zkUnmountKiv change the mount table: main thread.
 *
 * Archives live in the library's arena: zkTerminate closes those still open,
 * with their item streams and their mounts (files opened through a mount then
 * answer -4 to reads). A call on such a handle afterwards answers as for a
 * closed handle; a call running on another thread meanwhile completes before
 * the archive goes, or answers so.
 * @{
 */

/** @name Archive open flags */
/** @{ */
#define ZK_KIV_MEMORY_IMAGE 0x02u /**< load the whole archive into memory */
#define ZK_KIV_BY_INDEX 0x04u     /**< address items by index; by-name calls answer -6 */
#define ZK_KIV_DIRECT_READ 0x10u  /**< read item bytes on the calling thread, not the I/O worker */
/** @} */

ZK_EXTERN_C_BEGIN

/** An open archive (a root, a child or a mounted archive). */
typedef struct KivArchive KivArchive;
/** An item opened for reading piece by piece. */
typedef struct KivItemStream KivItemStream;

/**
 * @brief Opens the archive file at path.
 * @param path the archive's path (through the file system)
 * @param flags ZK_KIV_MEMORY_IMAGE, ZK_KIV_BY_INDEX, ZK_KIV_DIRECT_READ
 * @return the archive, or null when 32 archives are open, the file cannot be
 *         opened, or it is no well-formed archive (wrong magic, a header,
 *         directory or image that cannot be read whole, a packed directory
 *         that does not expand to its size, an entry size below 12, a header
 *         length other than 32 or 48 bytes) or memory is short
 * @threads Any thread.
 */
ZK_API KivArchive* ZK_CALL zkOpenKiv(const char* path, uint32_t flags);
/**
 * @brief Closes the archive, with every child and item stream opened from it,
 * and frees its blocks.
 * @param archive the archive; null or a closed handle does nothing
 * @threads Any thread, while no other thread uses the archive or its children.
 */
ZK_API void ZK_CALL zkCloseKiv(KivArchive* archive);
/**
 * @brief Opens the item name of parent as an archive (a child).
 *
 * A child of a memory image is addressed inside that image. A child reads
 * only within its own item of the parent: an item of it reaching past that
 * range answers -11, in every mode.
 * @param parent the archive holding the item; null opens name as a path
 * @param name the item's name
 * @param flags as zkOpenKiv
 * @return the child, or null for a parent opened by index, a missing item, or
 *         as zkOpenKiv
 * @threads Any thread.
 */
ZK_API KivArchive* ZK_CALL zkOpenChildKiv(KivArchive* parent, const char* name, uint32_t flags);
/**
 * @brief The same by index, for a parent opened with ZK_KIV_BY_INDEX.
 * @return the child, or null (as zkOpenChildKiv, or an index out of range)
 * @threads Any thread.
 */
ZK_API KivArchive* ZK_CALL zkOpenChildKivByIndex(KivArchive* parent, uint32_t index,
                                                 uint32_t flags);
/**
 * @brief Number of items.
 * @return the count; 0 for a null or closed handle
 * @threads Any thread.
 */
ZK_API uint32_t ZK_CALL zkGetKivItemCount(KivArchive* archive);
/**
 * @brief Whether the archive (opened by name) has an item of that name.
 * @return 1 when it has, else 0 (also for a null or closed handle)
 * @threads Any thread.
 */
ZK_API int32_t ZK_CALL zkFindKivItem(KivArchive* archive, const char* name);

/**
 * @brief Loads an item into a new system-pool block that the caller owns and
 * gives back with zkReleaseKivItem.
 * @param archive the archive
 * @param name the item's name
 * @param buffer receives the block; null on failure
 * @param size receives the item's size; 0 on failure
 * @return 0; -4 (null or closed archive); -3 (null pointer); -6 (wrong access
 *         mode); -14 (no such item or index); -5 (no memory); -11 (the archive
 *         holds fewer bytes than the item's size); or the file layer's read code
 * @threads Any thread.
 */
ZK_API int32_t ZK_CALL zkLoadKivItem(KivArchive* archive, const char* name, void** buffer,
                                     uint32_t* size);
/**
 * @brief The same by index, for an archive opened with ZK_KIV_BY_INDEX.
 * @return as zkLoadKivItem; -6 for an archive opened by name
 * @threads Any thread.
 */
ZK_API int32_t ZK_CALL zkLoadKivItemByIndex(KivArchive* archive, uint32_t index, void** buffer,
                                            uint32_t* size);
/**
 * @brief Gives back a block of the load functions (zkFree).
 * @threads Any thread.
 */
ZK_API void ZK_CALL zkReleaseKivItem(void* buffer);
/**
 * @brief Opens the archive at path, loads the item and closes the archive.
 * @return -51 when the archive cannot be opened, else as zkLoadKivItem
 * @threads Any thread.
 */
ZK_API int32_t ZK_CALL zkLoadKivFileItem(const char* path, const char* name, void** buffer,
                                         uint32_t* size);
/**
 * @brief The address of an item inside a memory image; nothing is copied.
 *
 * The address stays valid until the archive that loaded the image is closed.
 * @return 0; -14 for an archive that is no memory image; -11 for an item that
 *         lies outside the image; else as the loads
 * @threads Any thread.
 */
ZK_API int32_t ZK_CALL zkGetKivItem(KivArchive* archive, const char* name, void** data,
                                    uint32_t* size);
/**
 * @brief The same by index, for an archive opened with ZK_KIV_BY_INDEX.
 * @return as zkGetKivItem; -6 for an archive opened by name
 * @threads Any thread.
 */
ZK_API int32_t ZK_CALL zkGetKivItemByIndex(KivArchive* archive, uint32_t index, void** data,
                                           uint32_t* size);

/**
 * @brief Opens an item stream: an item read piece by piece.
 * @return the stream, or null as zkLoadKivItem fails, or when 32 streams are open
 * @threads Any thread.
 */
ZK_API KivItemStream* ZK_CALL zkOpenKivItem(KivArchive* archive, const char* name);
/**
 * @brief The same by index, for an archive opened with ZK_KIV_BY_INDEX.
 * @return the stream, or null
 * @threads Any thread.
 */
ZK_API KivItemStream* ZK_CALL zkOpenKivItemByIndex(KivArchive* archive, uint32_t index);
/**
 * @brief Closes an item stream.
 * @param item the stream; null or a closed stream does nothing
 * @threads The thread that uses the stream.
 */
ZK_API void ZK_CALL zkCloseKivItem(KivItemStream* item);
/**
 * @brief Reads up to count bytes at the position (fewer at the item's end, 0 after it).
 * @param item the stream
 * @param buffer receives the bytes
 * @param count bytes to read
 * @param got may be null; the bytes delivered
 * @return 0; -4 for a null or closed stream; -3 for a null buffer; or the read's code
 * @threads The thread that uses the stream.
 */
ZK_API int32_t ZK_CALL zkReadKivItem(KivItemStream* item, void* buffer, uint32_t count,
                                     uint32_t* got);
/**
 * @brief Moves the position, held within 0..size.
 * @param item the stream
 * @param offset the distance from origin
 * @param origin from the start (0), the position (1) or the end (2)
 * @param position may be null; the new position
 * @return 0; -4 for a null or closed stream; -3 for another origin (the position stays)
 * @threads The thread that uses the stream.
 */
ZK_API int32_t ZK_CALL zkSeekKivItem(KivItemStream* item, int32_t offset, uint32_t origin,
                                     uint32_t* position);
/**
 * @brief The item's size in *size.
 * @return 0; -4 (null or closed stream); -3 (null size)
 * @threads The thread that uses the stream.
 */
ZK_API int32_t ZK_CALL zkGetKivItemSize(KivItemStream* item, uint32_t* size);
/**
 * @brief Archives open now, children and mounted archives included (of 32).
 * @threads Any thread.
 */
ZK_API uint32_t ZK_CALL zkGetOpenKivCount(void);
/**
 * @brief Item streams open now (of 32).
 * @threads Any thread.
 */
ZK_API uint32_t ZK_CALL zkGetOpenKivItemCount(void);

/**
 * @brief Opens the archive (flags | ZK_KIV_DIRECT_READ) and mounts it at
 * mountPath on the first free device kiv0: .. kiv9:.
 * @return 0; -3 (null path, or ZK_KIV_BY_INDEX); -39 (10 archives mounted);
 *         -51 (the archive cannot be opened); or zkMount's code (the archive
 *         is closed again)
 * @threads The main thread.
 */
ZK_API int32_t ZK_CALL zkMountKiv(const char* mountPath, const char* archivePath, uint32_t flags);
/**
 * @brief Unmounts mountPath and closes its archive. Close the files opened
 * through the mount first.
 * @return 0; -3 for a null path; or zkUnmount's code (such as -42)
 * @threads The main thread.
 */
ZK_API int32_t ZK_CALL zkUnmountKiv(const char* mountPath);

/**
 * @brief Expands a slide-packed stream (LZSS, 4096-byte window).
 * @param destination must have room for the whole expanded size; null does nothing
 * @param source the packed bytes; null does nothing
 * @param sourceSize their count
 * @threads Any thread.
 */
ZK_API void ZK_CALL _zkSlideExpand(uint8_t* destination, const uint8_t* source,
                                   uint32_t sourceSize);

ZK_EXTERN_C_END

/** @} */

#endif /* ZK_ARCHIVE_H */
