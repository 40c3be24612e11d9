/* abi/trak_ioctl.h: the control device's commands and argument records, for driver and callers */
/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * Valid C11 and C++20, freestanding (needs <stdint.h> and <stddef.h> only): the driver includes
 * this file as well as libtrak.
 *
 * Every command passes the address of one fixed-size record. "in" records are read by the driver,
 * "in/out" records are also written back whole, and only when the command returned 0. Integers are
 * in host byte order. Strings are NUL-terminated within their field. Padding is spelt out, so the
 * layout is the same on 32-bit and 64-bit hosts and nothing needs a packed attribute.
 */
#ifndef TRAK_ABI_TRAK_IOCTL_H
#define TRAK_ABI_TRAK_IOCTL_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#define TRAK_ABI_ASSERT(cond) static_assert(cond, #cond)
#else
#define TRAK_ABI_ASSERT(cond) _Static_assert(cond, #cond)
#endif
#define TRAK_ABI_SIZE(type, size) TRAK_ABI_ASSERT(sizeof(struct type) == (size))
#define TRAK_ABI_FIELD(type, field, off, width)                                                    \
    TRAK_ABI_ASSERT(offsetof(struct type, field) == (off) &&                                       \
                    sizeof(((struct type *)0)->field) == (width))

/* Node types (dev_type). */
#define TRAK_DEV_FILTER 1u
#define TRAK_DEV_SNAP 2u

/* Change bitmap types. */
#define TRAK_BMP_DIFF 0u
#define TRAK_BMP_INCR 1u

/* Field widths in bytes, terminator included. */
#define TRAK_PATH_SIZE 1024
#define TRAK_UUID_SIZE 39
#define TRAK_NAME_SIZE 128
#define TRAK_SNAP_NAME_SIZE 129 /* of the add-snap record; a node keeps at most 127 characters */
#define TRAK_LIST_MAX 256

/* TRAK_ADD_FILTER_NODE, in/out: stack a stopped filter node over a disk. */
struct trak_add_filter_arg {
    char hdd_name[TRAK_PATH_SIZE]; /* in: path of the disk's block special file */
    int32_t minor;                 /* in/out: wanted minor; negative: the lowest free one */
    uint32_t extent_size;          /* in: bytes per extent, a power of two of 4096 or more */
    char bmp_dir[TRAK_PATH_SIZE];  /* in: directory of the two bitmap files */
    char uuid[TRAK_UUID_SIZE];     /* in/out: empty: one is generated */
    char name[TRAK_NAME_SIZE];     /* in/out: empty: "trak%d" of the minor */
    char reserved[1];
};
TRAK_ABI_SIZE(trak_add_filter_arg, 2224);
TRAK_ABI_FIELD(trak_add_filter_arg, hdd_name, 0, 1024);
TRAK_ABI_FIELD(trak_add_filter_arg, minor, 1024, 4);
TRAK_ABI_FIELD(trak_add_filter_arg, extent_size, 1028, 4);
TRAK_ABI_FIELD(trak_add_filter_arg, bmp_dir, 1032, 1024);
TRAK_ABI_FIELD(trak_add_filter_arg, uuid, 2056, 39);
TRAK_ABI_FIELD(trak_add_filter_arg, name, 2095, 128);
TRAK_ABI_FIELD(trak_add_filter_arg, reserved, 2223, 1);

/* TRAK_ADD_SNAP_NODE, in/out: make a stopped snap node on a filter node. */
struct trak_add_snap_arg {
    uint32_t filter_minor;               /* in: the filter to snapshot */
    int32_t snap_minor;                  /* in/out: wanted minor; negative: the lowest free one */
    uint32_t chunk_size;                 /* in/out: bytes per chunk; raised for a large volume */
    char cow_bmp_fname[TRAK_PATH_SIZE];  /* in: path of the COW bitmap file */
    char cow_data_fname[TRAK_PATH_SIZE]; /* in: path of the COW data file */
    char uuid[TRAK_UUID_SIZE];           /* in/out: empty: one is generated */
    char name[TRAK_SNAP_NAME_SIZE];      /* in/out: empty: "trak%d" of the minor */
};
TRAK_ABI_SIZE(trak_add_snap_arg, 2228);
TRAK_ABI_FIELD(trak_add_snap_arg, filter_minor, 0, 4);
TRAK_ABI_FIELD(trak_add_snap_arg, snap_minor, 4, 4);
TRAK_ABI_FIELD(trak_add_snap_arg, chunk_size, 8, 4);
TRAK_ABI_FIELD(trak_add_snap_arg, cow_bmp_fname, 12, 1024);
TRAK_ABI_FIELD(trak_add_snap_arg, cow_data_fname, 1036, 1024);
TRAK_ABI_FIELD(trak_add_snap_arg, uuid, 2060, 39);
TRAK_ABI_FIELD(trak_add_snap_arg, name, 2099, 129);

/* TRAK_DEL_NODE, TRAK_START_NODE, TRAK_STOP_NODE, in. */
struct trak_minor_arg {
    uint32_t minor;
};
TRAK_ABI_SIZE(trak_minor_arg, 4);
TRAK_ABI_FIELD(trak_minor_arg, minor, 0, 4);

/* TRAK_GET_DEVICE_LIST, in/out. */
struct trak_device_list_arg {
    uint32_t dev_type;              /* in: TRAK_DEV_FILTER or TRAK_DEV_SNAP */
    uint32_t count;                 /* out: minors returned, at most TRAK_LIST_MAX */
    uint32_t minors[TRAK_LIST_MAX]; /* out: ascending; entries beyond count come back as sent */
};
TRAK_ABI_SIZE(trak_device_list_arg, 1032);
TRAK_ABI_FIELD(trak_device_list_arg, dev_type, 0, 4);
TRAK_ABI_FIELD(trak_device_list_arg, count, 4, 4);
TRAK_ABI_FIELD(trak_device_list_arg, minors, 8, 1024);

/* TRAK_GET_INFO, in/out. Fields of the other node type come back as the caller sent them. */
struct trak_info_arg {
    uint32_t minor;    /* in */
    uint32_t dev_type; /* TRAK_DEV_FILTER or TRAK_DEV_SNAP */
    uint64_t dev_size; /* bytes of the disk (for a snap: of its filter's disk) */
    uint32_t started;
    uint32_t use_cnt; /* opens not yet released */
    char uuid[TRAK_UUID_SIZE];
    char name[TRAK_NAME_SIZE];

    /* filter nodes */
    char hdd_name[TRAK_PATH_SIZE];
    char reserved0[1];
    uint32_t extent_size; /* bytes */
    uint32_t extent_cnt;
    uint32_t snap_minors[TRAK_LIST_MAX]; /* in the order of creation */
    uint32_t snaps;                      /* entries of snap_minors */
    uint32_t incr_bmp_size;              /* bytes */
    uint32_t diff_bmp_size;
    char incr_bmp_fname[TRAK_PATH_SIZE];
    char diff_bmp_fname[TRAK_PATH_SIZE];
    uint32_t incr_bmp_clear; /* 1: no extent is marked */
    uint32_t diff_bmp_clear;
    uint32_t incr_bmp_full; /* 1: every extent is marked */
    uint32_t diff_bmp_full;

    /* snap nodes */
    uint32_t snap_valid;
    uint32_t stop_pending;
    uint32_t del_pending;
    uint32_t chunk_size;   /* bytes */
    uint32_t chunk_cnt;    /* low 32 bits of the count */
    uint32_t cow_bmp_size; /* bytes */
    char reserved1[4];
    uint64_t cow_data_size; /* bytes */
    char cow_bmp_fname[TRAK_PATH_SIZE];
    char cow_data_fname[TRAK_PATH_SIZE];
};
TRAK_ABI_SIZE(trak_info_arg, 6408);
TRAK_ABI_FIELD(trak_info_arg, minor, 0, 4);
TRAK_ABI_FIELD(trak_info_arg, dev_type, 4, 4);
TRAK_ABI_FIELD(trak_info_arg, dev_size, 8, 8);
TRAK_ABI_FIELD(trak_info_arg, started, 16, 4);
TRAK_ABI_FIELD(trak_info_arg, use_cnt, 20, 4);
TRAK_ABI_FIELD(trak_info_arg, uuid, 24, 39);
TRAK_ABI_FIELD(trak_info_arg, name, 63, 128);
TRAK_ABI_FIELD(trak_info_arg, hdd_name, 191, 1024);
TRAK_ABI_FIELD(trak_info_arg, reserved0, 1215, 1);
TRAK_ABI_FIELD(trak_info_arg, extent_size, 1216, 4);
TRAK_ABI_FIELD(trak_info_arg, extent_cnt, 1220, 4);
TRAK_ABI_FIELD(trak_info_arg, snap_minors, 1224, 1024);
TRAK_ABI_FIELD(trak_info_arg, snaps, 2248, 4);
TRAK_ABI_FIELD(trak_info_arg, incr_bmp_size, 2252, 4);
TRAK_ABI_FIELD(trak_info_arg, diff_bmp_size, 2256, 4);
TRAK_ABI_FIELD(trak_info_arg, incr_bmp_fname, 2260, 1024);
TRAK_ABI_FIELD(trak_info_arg, diff_bmp_fname, 3284, 1024);
TRAK_ABI_FIELD(trak_info_arg, incr_bmp_clear, 4308, 4);
TRAK_ABI_FIELD(trak_info_arg, diff_bmp_clear, 4312, 4);
TRAK_ABI_FIELD(trak_info_arg, incr_bmp_full, 4316, 4);
TRAK_ABI_FIELD(trak_info_arg, diff_bmp_full, 4320, 4);
TRAK_ABI_FIELD(trak_info_arg, snap_valid, 4324, 4);
TRAK_ABI_FIELD(trak_info_arg, stop_pending, 4328, 4);
TRAK_ABI_FIELD(trak_info_arg, del_pending, 4332, 4);
TRAK_ABI_FIELD(trak_info_arg, chunk_size, 4336, 4);
TRAK_ABI_FIELD(trak_info_arg, chunk_cnt, 4340, 4);
TRAK_ABI_FIELD(trak_info_arg, cow_bmp_size, 4344, 4);
TRAK_ABI_FIELD(trak_info_arg, reserved1, 4348, 4);
TRAK_ABI_FIELD(trak_info_arg, cow_data_size, 4352, 8);
TRAK_ABI_FIELD(trak_info_arg, cow_bmp_fname, 4360, 1024);
TRAK_ABI_FIELD(trak_info_arg, cow_data_fname, 5384, 1024);

/* TRAK_LOAD_BMP, TRAK_SAVE_BMP, TRAK_CLR_BMP, in. */
struct trak_bmp_arg {
    uint32_t minor;
    uint32_t type; /* TRAK_BMP_INCR or TRAK_BMP_DIFF */
};
TRAK_ABI_SIZE(trak_bmp_arg, 8);
TRAK_ABI_FIELD(trak_bmp_arg, minor, 0, 4);
TRAK_ABI_FIELD(trak_bmp_arg, type, 4, 4);

/* TRAK_SET_BMP, TRAK_MERGE_BMP, in; TRAK_GET_BMP, TRAK_GET_AND_CLR_BMP, in/out (unchanged). */
struct trak_bmp_data_arg {
    uint32_t minor;
    uint32_t type; /* TRAK_BMP_INCR or TRAK_BMP_DIFF */
    uint32_t size; /* bytes at data; the node's bitmap size (set: 0 with data 0 marks everything) */
    uint32_t reserved;
    uint64_t data; /* address of the caller's bitmap */
};
TRAK_ABI_SIZE(trak_bmp_data_arg, 24);
TRAK_ABI_FIELD(trak_bmp_data_arg, minor, 0, 4);
TRAK_ABI_FIELD(trak_bmp_data_arg, type, 4, 4);
TRAK_ABI_FIELD(trak_bmp_data_arg, size, 8, 4);
TRAK_ABI_FIELD(trak_bmp_data_arg, reserved, 12, 4);
TRAK_ABI_FIELD(trak_bmp_data_arg, data, 16, 8);

/* TRAK_GET_DATABLOCK_BMP, in/out: which extents of a snap hold file-system data. */
struct trak_datablock_arg {
    uint32_t minor;       /* in: a started snap node */
    uint32_t extent_size; /* in: bytes per bit; a power of two, at least the node's chunk size */
    int32_t size;         /* in: capacity at data in bytes; out: bytes written */
    uint32_t reserved;
    uint64_t data; /* in: address of the caller's buffer */
};
TRAK_ABI_SIZE(trak_datablock_arg, 24);
TRAK_ABI_FIELD(trak_datablock_arg, minor, 0, 4);
TRAK_ABI_FIELD(trak_datablock_arg, extent_size, 4, 4);
TRAK_ABI_FIELD(trak_datablock_arg, size, 8, 4);
TRAK_ABI_FIELD(trak_datablock_arg, reserved, 12, 4);
TRAK_ABI_FIELD(trak_datablock_arg, data, 16, 8);

/* TRAK_TEST_DATABLOCK, in: self-test of the file-system readers against an unmounted disk. */
struct trak_test_datablock_arg {
    char hdd_name[TRAK_PATH_SIZE];
};
TRAK_ABI_SIZE(trak_test_datablock_arg, 1024);
TRAK_ABI_FIELD(trak_test_datablock_arg, hdd_name, 0, 1024);

/* TRAK_RESUME_SNAP, in: restart a snap from its COW files; the three values are stored as given. */
struct trak_resume_arg {
    uint32_t minor;
    uint32_t snap_valid;
    uint32_t stop_pending;
    uint32_t del_pending;
};
TRAK_ABI_SIZE(trak_resume_arg, 16);
TRAK_ABI_FIELD(trak_resume_arg, minor, 0, 4);
TRAK_ABI_FIELD(trak_resume_arg, snap_valid, 4, 4);
TRAK_ABI_FIELD(trak_resume_arg, stop_pending, 8, 4);
TRAK_ABI_FIELD(trak_resume_arg, del_pending, 12, 4);

/*
 * Command codes: bits 0..7 number, 8..15 type, 16..29 record size, 30 caller to driver,
 * 31 driver to caller. Spelt here instead of taken from a platform header, because the driver
 * needs them where there is none.
 */
#define TRAK_IOC_TYPE 0x43u
#define TRAK_IOC_WRITE 1u
#define TRAK_IOC_READ 2u
#define TRAK_IOC(dir, nr, size)                                                                    \
    ((uint32_t)(((uint32_t)(dir) << 30) | ((uint32_t)(size) << 16) | (TRAK_IOC_TYPE << 8) | (nr)))
#define TRAK_IOC_IN(nr, type) TRAK_IOC(TRAK_IOC_WRITE, nr, sizeof(struct type))
#define TRAK_IOC_INOUT(nr, type) TRAK_IOC(TRAK_IOC_WRITE | TRAK_IOC_READ, nr, sizeof(struct type))
#define TRAK_IOC_NR(code) ((uint32_t)(code)&0xffu)
#define TRAK_IOC_GET_TYPE(code) (((uint32_t)(code) >> 8) & 0xffu)
#define TRAK_IOC_SIZE(code) (((uint32_t)(code) >> 16) & 0x3fffu)
#define TRAK_IOC_DIR(code) ((uint32_t)(code) >> 30)

#define TRAK_ADD_FILTER_NODE TRAK_IOC_INOUT(1u, trak_add_filter_arg)
#define TRAK_ADD_SNAP_NODE TRAK_IOC_INOUT(2u, trak_add_snap_arg)
#define TRAK_DEL_NODE TRAK_IOC_IN(3u, trak_minor_arg)
#define TRAK_START_NODE TRAK_IOC_IN(4u, trak_minor_arg)
#define TRAK_STOP_NODE TRAK_IOC_IN(5u, trak_minor_arg)
#define TRAK_GET_DEVICE_LIST TRAK_IOC_INOUT(6u, trak_device_list_arg)
#define TRAK_GET_INFO TRAK_IOC_INOUT(7u, trak_info_arg)
#define TRAK_LOAD_BMP TRAK_IOC_IN(8u, trak_bmp_arg)
#define TRAK_SAVE_BMP TRAK_IOC_IN(9u, trak_bmp_arg)
#define TRAK_CLR_BMP TRAK_IOC_IN(10u, trak_bmp_arg)
#define TRAK_SET_BMP TRAK_IOC_IN(11u, trak_bmp_data_arg)
#define TRAK_MERGE_BMP TRAK_IOC_IN(12u, trak_bmp_data_arg)
#define TRAK_GET_BMP TRAK_IOC_INOUT(13u, trak_bmp_data_arg)
#define TRAK_GET_AND_CLR_BMP TRAK_IOC_INOUT(14u, trak_bmp_data_arg)
#define TRAK_GET_DATABLOCK_BMP TRAK_IOC_INOUT(15u, trak_datablock_arg)
#define TRAK_TEST_DATABLOCK TRAK_IOC_IN(16u, trak_test_datablock_arg)
#define TRAK_RESUME_SNAP TRAK_IOC_IN(17u, trak_resume_arg)

TRAK_ABI_ASSERT(TRAK_ADD_FILTER_NODE == 0xc8b04301u);
TRAK_ABI_ASSERT(TRAK_ADD_SNAP_NODE == 0xc8b44302u);
TRAK_ABI_ASSERT(TRAK_DEL_NODE == 0x40044303u);
TRAK_ABI_ASSERT(TRAK_START_NODE == 0x40044304u);
TRAK_ABI_ASSERT(TRAK_STOP_NODE == 0x40044305u);
TRAK_ABI_ASSERT(TRAK_GET_DEVICE_LIST == 0xc4084306u);
TRAK_ABI_ASSERT(TRAK_GET_INFO == 0xd9084307u);
TRAK_ABI_ASSERT(TRAK_LOAD_BMP == 0x40084308u);
TRAK_ABI_ASSERT(TRAK_SAVE_BMP == 0x40084309u);
TRAK_ABI_ASSERT(TRAK_CLR_BMP == 0x4008430au);
TRAK_ABI_ASSERT(TRAK_SET_BMP == 0x4018430bu);
TRAK_ABI_ASSERT(TRAK_MERGE_BMP == 0x4018430cu);
TRAK_ABI_ASSERT(TRAK_GET_BMP == 0xc018430du);
TRAK_ABI_ASSERT(TRAK_GET_AND_CLR_BMP == 0xc018430eu);
TRAK_ABI_ASSERT(TRAK_GET_DATABLOCK_BMP == 0xc018430fu);
TRAK_ABI_ASSERT(TRAK_TEST_DATABLOCK == 0x44004310u);
TRAK_ABI_ASSERT(TRAK_RESUME_SNAP == 0x40104311u);

#ifdef __cplusplus
}
#endif

#endif /* TRAK_ABI_TRAK_IOCTL_H */
