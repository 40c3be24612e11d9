/* lib/trak.h: libtrak, the C interface to the driver's control device */
/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * Results    0 or positive on success, a negative errno on failure, unless a function says
 *            otherwise. Nothing is printed and nothing is global.
 * Threads    one connection may be used by several threads at a time.
 * Units      sizes in bytes; bitmaps hold one bit per extent, bit n at bit (n & 7) of byte n >> 3.
 * `why`      where a function takes `why`, the caller may give a buffer of TRAK_WHY_SIZE bytes (or
 *            NULL). It is emptied first. After a failure it holds one sentence for people: what was
 *            wrong and what to do. After a success it is empty, or holds a notice that the user
 *            should see.
 */
#ifndef TRAK_LIB_TRAK_H
#define TRAK_LIB_TRAK_H

#include "abi/trak_ioctl.h"

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define TRAK_API __attribute__((visibility("default")))
#define TRAK_MUST __attribute__((visibility("default"), warn_unused_result))
#else
#define TRAK_API
#define TRAK_MUST
#endif

#define TRAK_WHY_SIZE 512

/* ---- Connection -------------------------------------------------------------------------- */

struct trak;

/*
 * Connect to the driver whose tree is at `root`: trakd's mount point, or "/" for the kernel module.
 * Opens <root>/dev/trakctl; for "/" that file is made (or made anew, where its number is wrong)
 * from /proc/trak/chr_major. NULL or "" means "/".
 * -ENODEV: no driver there. -EACCES, -EPERM: not allowed. -ENOTCONN: trakd is gone, its mount
 * remains. The caller closes *out with trak_close().
 */
TRAK_MUST int trak_open(const char *root, struct trak **out, char *why);
TRAK_API void trak_close(struct trak *t);

/* The root that the connection was opened with, without a trailing slash unless it is "/". */
TRAK_API const char *trak_root(const struct trak *t);

/*
 * What a connection asks from its surroundings; for tests and simulations. Every member may be
 * NULL, which means the real thing, but for `ioctl`, which must be given.
 */
struct trak_seam {
    /* One command: 0, a negative errno, or a positive value where the driver returns one. */
    int (*ioctl)(void *ctx, uint32_t code, void *record);
    /* Text of the marker file at `path` (NUL-terminated into text): its length, -ENOENT: none. */
    int (*marker_read)(void *ctx, const char *path, char *text, size_t size);
    /* Make or replace the marker. On 0 the file and its directory entry are durable. */
    int (*marker_write)(void *ctx, const char *path, const char *text);
    /* Remove the marker; everything else in its directory is durable before it goes, and its
     * absence after it. 0 also where there was none. */
    int (*marker_remove)(void *ctx, const char *path);
    /* A text that differs between any two instances of the driver. */
    int (*session)(void *ctx, char *text, size_t size);
    /* 1: `path` lies on a file system mounted through a node (named in `node`, 128 bytes); 2: it
     * lies on none, and on no block device either; 0 otherwise. Where this is given, paths are not
     * of this machine: they go to the driver as they are. */
    int (*place)(void *ctx, const char *path, char *node);
};
TRAK_MUST int trak_open_fn(const char *root, const struct trak_seam *seam, void *ctx,
                           struct trak **out);

/* ---- The 17 commands, one function each; see trak(4) ---------------------------------------- */

TRAK_MUST int trak_add_filter_node(struct trak *t, struct trak_add_filter_arg *arg);
TRAK_MUST int trak_add_snap_node(struct trak *t, struct trak_add_snap_arg *arg);
/* The driver's positive 22 for a node that it does not know is returned as -EINVAL. */
TRAK_MUST int trak_del_node(struct trak *t, uint32_t minor);
TRAK_MUST int trak_start_node(struct trak *t, uint32_t minor);
TRAK_MUST int trak_stop_node(struct trak *t, uint32_t minor);
TRAK_MUST int trak_get_device_list(struct trak *t, struct trak_device_list_arg *arg);
/* Fields of the other node type come back as 0: the record is emptied before it is sent. */
TRAK_MUST int trak_get_info(struct trak *t, uint32_t minor, struct trak_info_arg *info);
TRAK_MUST int trak_load_bmp(struct trak *t, uint32_t minor, uint32_t type);
TRAK_MUST int trak_save_bmp(struct trak *t, uint32_t minor, uint32_t type);
TRAK_MUST int trak_clr_bmp(struct trak *t, uint32_t minor, uint32_t type);
/* bits NULL and size 0: mark everything as changed. */
TRAK_MUST int trak_set_bmp(struct trak *t, uint32_t minor, uint32_t type, const void *bits,
                           uint32_t size);
TRAK_MUST int trak_merge_bmp(struct trak *t, uint32_t minor, uint32_t type, const void *bits,
                             uint32_t size);
TRAK_MUST int trak_get_bmp(struct trak *t, uint32_t minor, uint32_t type, void *bits,
                           uint32_t size);
TRAK_MUST int trak_get_and_clr_bmp(struct trak *t, uint32_t minor, uint32_t type, void *bits,
                                   uint32_t size);
/* *size: in, bytes at bits; out, bytes written. */
TRAK_MUST int trak_get_datablock_bmp(struct trak *t, uint32_t minor, uint32_t extent_size,
                                     void *bits, int32_t *size);
TRAK_MUST int trak_test_datablock(struct trak *t, const char *disk);
TRAK_MUST int trak_resume_snap(struct trak *t, const struct trak_resume_arg *arg);

/* ---- Nodes and the status tree ------------------------------------------------------------- */

/* Highest minor that a node may have (the driver's trak_max_blk_minor; 255 where it is unknown). */
TRAK_MUST uint32_t trak_max_minor(const struct trak *t);

/*
 * Minors of all nodes of dev_type (0: of both types), ascending, at most `max`; the result is how
 * many there are. Unlike TRAK_GET_DEVICE_LIST this includes a node at the highest minor, which is
 * found in the status tree.
 */
TRAK_MUST int trak_nodes(struct trak *t, uint32_t dev_type, uint32_t *minors, int max);

/* The lowest minor without a node, or -ENOSPC. */
TRAK_MUST int trak_free_minor(struct trak *t);

/* The filter that a snap belongs to: its minor, or -ENOENT. */
TRAK_MUST int trak_filter_of(struct trak *t, uint32_t snap_minor);

/*
 * Read proc/trak/<name> (for example "trak3/use_cnt") into text, NUL-terminated and without its
 * last newline. The result is the length. -ENOENT: no such node or field.
 */
TRAK_MUST int trak_status(const struct trak *t, const char *name, char *text, size_t size);
/* The same as a decimal number. */
TRAK_MUST int trak_status_number(const struct trak *t, const char *name, int64_t *value);

TRAK_MUST int trak_debug_get(const struct trak *t, int *level);
TRAK_MUST int trak_debug_set(const struct trak *t, int level);

/* Where `path` (or its deepest existing ancestor) lies: see trak_seam.place. `node` may be NULL. */
TRAK_MUST int trak_place(struct trak *t, const char *path, char *node);

/* ---- Guarded use of filters ---------------------------------------------------------------- */
/*
 * The driver persists the mark "this bitmap is dirty" shortly after the write that made it so. A
 * crash between the two leaves a bitmap file that looks clean and lacks that write. The guard
 * closes this window with a session marker "<bmp_dir>/trak<minor>.session": it is durable before a
 * node can be started and removed only when the node was stopped and both bitmaps were saved.
 * Where it is found when a node is attached, the last session did not end in order, and both
 * bitmaps are set to "everything changed". See libtrak_guard(3).
 *
 * The guarded calls of all processes on one driver exclude one another.
 */

/* A guarded call succeeded and found a marker: everything counts as changed, `why` says why. */
#define TRAK_ALL_CHANGED 1

/*
 * Create a filter node, guarded. A negative arg->minor chooses the lowest free one. Paths may be
 * relative to the caller; they are made absolute. On success the record is as the driver returned
 * it, and the node is stopped; on failure no node was made. 0, TRAK_ALL_CHANGED or negative.
 * Refused in advance: what would run into a fault that the driver's interface keeps (see
 * libtrak_guard(3)).
 */
TRAK_MUST int trak_attach_filter(struct trak *t, struct trak_add_filter_arg *arg, char *why);

/*
 * Create a snap node, refusing in advance what would make the driver keep a lock for ever.
 * On success the record is as the driver returned it.
 */
TRAK_MUST int trak_attach_snap(struct trak *t, struct trak_add_snap_arg *arg, char *why);

/*
 * Start a node. The filter (of a snap: its filter, which the driver starts as well) gets its
 * marker before. 0, TRAK_ALL_CHANGED or negative.
 */
TRAK_MUST int trak_start(struct trak *t, uint32_t minor, char *why);

/*
 * Stop a node. For a filter, both bitmaps are then saved, and the marker goes. Where a bitmap can't
 * be saved, the marker stays, and the save's error is returned although the node was stopped.
 */
TRAK_MUST int trak_stop(struct trak *t, uint32_t minor, char *why);

/*
 * Stop and delete a node (a filter with all of its snaps; a snap with its COW files). A filter
 * whose bitmaps can neither be saved nor be covered by a marker is not deleted.
 */
TRAK_MUST int trak_detach(struct trak *t, uint32_t minor, char *why);

/* Resume a snap from its COW files; its filter is guarded as by trak_start(). */
TRAK_MUST int trak_resume(struct trak *t, const struct trak_resume_arg *arg, char *why);

/* ---- Bitmaps ------------------------------------------------------------------------------ */

struct trak_bitmap {
    uint8_t *bits; /* size bytes, freed by trak_bitmap_free() */
    uint32_t size;
    uint64_t count;     /* bits that mean something */
    uint64_t unit_size; /* bytes of disk per bit */
    uint64_t dev_size;  /* bytes of disk */
};

/* A filter's bitmap, in a buffer of the right size. */
TRAK_MUST int trak_bitmap_get(struct trak *t, uint32_t minor, uint32_t type,
                              struct trak_bitmap *out);
/*
 * The same, and reset it. A mark is never lost: where the call fails after marks were handed over,
 * they are merged back. What the caller can't store it gives back with trak_merge_bmp().
 */
TRAK_MUST int trak_bitmap_take(struct trak *t, uint32_t minor, uint32_t type,
                               struct trak_bitmap *out);
/* Which extents of a snap hold data; extent_size 0: the snap's chunk size. */
TRAK_MUST int trak_bitmap_datablocks(struct trak *t, uint32_t minor, uint32_t extent_size,
                                     struct trak_bitmap *out);
TRAK_API void trak_bitmap_free(struct trak_bitmap *bitmap);

/* Bits set among the first `count`. */
TRAK_API uint64_t trak_bits_count(const uint8_t *bits, uint64_t count);
/* The first run of set bits at or after `from`: its length (0: none), its start in *start. */
TRAK_API uint64_t trak_bits_run(const uint8_t *bits, uint64_t count, uint64_t from,
                                uint64_t *start);

/* What a snap's COW files hold. */
struct trak_cow_usage {
    uint64_t chunks_preserved;
    uint64_t chunks;
    uint64_t bytes_preserved; /* chunks_preserved in bytes, at most the volume's */
    uint64_t bytes_allocated; /* what the COW data file really takes on its file system */
    uint64_t volume_bytes;
};
TRAK_MUST int trak_cow_usage_get(const struct trak_info_arg *snap, struct trak_cow_usage *out);

/* What a started snap knows of the free space of the file system on its image. */
struct trak_datablock_usage {
    /* 1: its data-block map was built. 0: it was not, and every chunk counts as holding data.
     * -1: it can't be told, and every chunk is reported as holding data. */
    int built;
    char file_system[16]; /* "ext2", "ext3", "ext4", "ReiserFS", "XFS"; "": not known */
    uint64_t unit_size;   /* bytes of disk that are counted as one: a chunk, or more of them */
    uint64_t units;
    uint64_t units_with_data;
    uint64_t bytes_with_data; /* at most the volume's */
    uint64_t volume_bytes;
};
/*
 * Asks for the whole map once, in units so large that it takes a megabyte at most. Where the map was
 * built, the file system is read off the image: the snap is open for that moment, and a stop of it
 * would be refused. -EINVAL: no snap. -ENODATA: it is not started.
 */
TRAK_MUST int trak_datablock_usage_get(struct trak *t, const struct trak_info_arg *snap,
                                       struct trak_datablock_usage *out);

#ifdef __cplusplus
}
#endif

#endif /* TRAK_LIB_TRAK_H */
