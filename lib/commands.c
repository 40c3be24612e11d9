/* lib/commands.c: the 17 commands, one function each */
/* SPDX-License-Identifier: GPL-2.0-only */
#include "lib/trak_int.h"

#include <errno.h>
#include <string.h>

/* The driver's one positive result (deleting an unknown node) is an errno without its sign. */
static int command(struct trak *t, uint32_t code, void *record) {
    int rc = lt_command(t, code, record);
    return rc > 0 ? -rc : rc;
}

static int minor_command(struct trak *t, uint32_t code, uint32_t minor) {
    struct trak_minor_arg arg = {.minor = minor};
    return command(t, code, &arg);
}

static int short_command(struct trak *t, uint32_t code, uint32_t minor, uint32_t type) {
    struct trak_bmp_arg arg = {.minor = minor, .type = type};
    return command(t, code, &arg);
}

static int long_command(struct trak *t, uint32_t code, uint32_t minor, uint32_t type,
                        const void *bits, uint32_t size) {
    struct trak_bmp_data_arg arg = {
        .minor = minor, .type = type, .size = size, .data = (uint64_t)(uintptr_t)bits};
    return command(t, code, &arg);
}

int trak_add_filter_node(struct trak *t, struct trak_add_filter_arg *arg) {
    return command(t, TRAK_ADD_FILTER_NODE, arg);
}

int trak_add_snap_node(struct trak *t, struct trak_add_snap_arg *arg) {
    return command(t, TRAK_ADD_SNAP_NODE, arg);
}

int trak_del_node(struct trak *t, uint32_t minor) {
    return minor_command(t, TRAK_DEL_NODE, minor);
}

int trak_start_node(struct trak *t, uint32_t minor) {
    return minor_command(t, TRAK_START_NODE, minor);
}

int trak_stop_node(struct trak *t, uint32_t minor) {
    return minor_command(t, TRAK_STOP_NODE, minor);
}

int trak_get_device_list(struct trak *t, struct trak_device_list_arg *arg) {
    return command(t, TRAK_GET_DEVICE_LIST, arg);
}

int trak_get_info(struct trak *t, uint32_t minor, struct trak_info_arg *info) {
    memset(info, 0, sizeof(*info));
    info->minor = minor;
    return command(t, TRAK_GET_INFO, info);
}

int trak_load_bmp(struct trak *t, uint32_t minor, uint32_t type) {
    return short_command(t, TRAK_LOAD_BMP, minor, type);
}

int trak_save_bmp(struct trak *t, uint32_t minor, uint32_t type) {
    return short_command(t, TRAK_SAVE_BMP, minor, type);
}

int trak_clr_bmp(struct trak *t, uint32_t minor, uint32_t type) {
    return short_command(t, TRAK_CLR_BMP, minor, type);
}

int trak_set_bmp(struct trak *t, uint32_t minor, uint32_t type, const void *bits, uint32_t size) {
    return long_command(t, TRAK_SET_BMP, minor, type, bits, size);
}

int trak_merge_bmp(struct trak *t, uint32_t minor, uint32_t type, const void *bits, uint32_t size) {
    return long_command(t, TRAK_MERGE_BMP, minor, type, bits, size);
}

int trak_get_bmp(struct trak *t, uint32_t minor, uint32_t type, void *bits, uint32_t size) {
    return long_command(t, TRAK_GET_BMP, minor, type, bits, size);
}

int trak_get_and_clr_bmp(struct trak *t, uint32_t minor, uint32_t type, void *bits, uint32_t size) {
    return long_command(t, TRAK_GET_AND_CLR_BMP, minor, type, bits, size);
}

int trak_get_datablock_bmp(struct trak *t, uint32_t minor, uint32_t extent_size, void *bits,
                           int32_t *size) {
    struct trak_datablock_arg arg = {.minor = minor,
                                     .extent_size = extent_size,
                                     .size = *size,
                                     .data = (uint64_t)(uintptr_t)bits};
    int rc = command(t, TRAK_GET_DATABLOCK_BMP, &arg);
    if (rc == 0)
        *size = arg.size;
    return rc;
}

int trak_test_datablock(struct trak *t, const char *disk) {
    struct trak_test_datablock_arg arg = {{0}};
    size_t len = strlen(disk);
    /* The driver takes the record as it is: a name without its terminator must not reach it. */
    if (len >= sizeof(arg.hdd_name))
        return -ENAMETOOLONG;
    memcpy(arg.hdd_name, disk, len);
    return command(t, TRAK_TEST_DATABLOCK, &arg);
}

int trak_resume_snap(struct trak *t, const struct trak_resume_arg *arg) {
    struct trak_resume_arg copy = *arg;
    return command(t, TRAK_RESUME_SNAP, &copy);
}
