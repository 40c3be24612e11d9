/* lib/status.c: which nodes there are, the status tree, the driver's parameters */
/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * Nodes are found in two places: TRAK_GET_DEVICE_LIST, which stops one short of the highest minor
 * and at 256 entries, and the status tree, which has a directory for every node. Asking for each
 * minor with TRAK_GET_INFO would do as well, but the driver logs an error for every empty one.
 */
#include "lib/trak_int.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#define DEFAULT_MAX_MINOR 255u
#define SANE_MAX_MINOR 0xfffffu /* what a device number can hold */

/* A decimal number that is the whole text: 0 or -EINVAL. */
static int number(const char *text, int64_t *value) {
    char *end;
    errno = 0;
    long long v = strtoll(text, &end, 10);
    if (end == text || *end != '\0' || errno != 0)
        return -EINVAL;
    *value = v;
    return 0;
}

uint32_t trak_max_minor(const struct trak *t) {
    char path[LT_PATH], text[32];
    int64_t value;
    if (lt_path(t, "/sys/module/trak/parameters/trak_max_blk_minor", path, sizeof(path)) < 0 ||
        lt_read_text(path, text, sizeof(text)) < 0 || number(text, &value) < 0 || value < 0 ||
        value > (int64_t)SANE_MAX_MINOR)
        return DEFAULT_MAX_MINOR;
    return (uint32_t)value;
}

int trak_status(const struct trak *t, const char *name, char *text, size_t size) {
    char tail[LT_PATH], path[LT_PATH];
    int n = snprintf(tail, sizeof(tail), "/proc/trak/%s", name);
    if (n < 0 || (size_t)n >= sizeof(tail) || lt_path(t, tail, path, sizeof(path)) < 0)
        return -ENAMETOOLONG;
    return lt_read_text(path, text, size);
}

int trak_status_number(const struct trak *t, const char *name, int64_t *value) {
    char text[64];
    int rc = trak_status(t, name, text, sizeof(text));
    return rc < 0 ? rc : number(text, value);
}

int trak_debug_get(const struct trak *t, int *level) {
    int64_t value;
    int rc = trak_status_number(t, "debug", &value);
    if (rc == 0)
        *level = (int)value;
    return rc;
}

int trak_debug_set(const struct trak *t, int level) {
    char path[LT_PATH], text[32];
    int rc = lt_path(t, "/proc/trak/debug", path, sizeof(path));
    if (rc < 0)
        return rc;
    int fd = open(path, O_WRONLY | O_CLOEXEC);
    if (fd < 0)
        return -errno;
    int n = snprintf(text, sizeof(text), "%d\n", level);
    ssize_t done = write(fd, text, (size_t)n);
    rc = done == n ? 0 : done < 0 ? -errno : -EIO;
    if (close(fd) < 0 && rc == 0)
        rc = -errno;
    return rc;
}

/* A set of minors as one bit each. */
struct minor_set {
    uint32_t limit; /* minors below it fit */
    uint8_t *bits;
};

static void set_add(struct minor_set *set, uint64_t minor) {
    if (minor < set->limit)
        set->bits[minor >> 3] |= (uint8_t)(1u << (minor & 7));
}

static int set_has(const struct minor_set *set, uint32_t minor) {
    return set->bits[minor >> 3] >> (minor & 7) & 1;
}

/* Add the minors of the status tree's node directories of dev_type (0: both). -ENOENT: no tree. */
static int from_tree(const struct trak *t, uint32_t dev_type, struct minor_set *set) {
    char path[LT_PATH];
    int rc = lt_path(t, "/proc/trak", path, sizeof(path));
    if (rc < 0)
        return rc;
    DIR *dir = opendir(path);
    if (dir == NULL)
        return -errno;
    struct dirent *entry;
    while (errno = 0, (entry = readdir(dir)) != NULL) {
        int64_t minor;
        if (strncmp(entry->d_name, "trak", 4) != 0 || entry->d_name[4] < '0' ||
            entry->d_name[4] > '9' || number(entry->d_name + 4, &minor) < 0)
            continue;
        if (dev_type != 0) {
            char field[300], text[16];
            snprintf(field, sizeof(field), "%s/dev_type", entry->d_name);
            const char *want = dev_type == TRAK_DEV_FILTER ? "filter" : "snap";
            if (trak_status(t, field, text, sizeof(text)) < 0 || strcmp(text, want) != 0)
                continue;
        }
        set_add(set, (uint64_t)minor);
    }
    rc = errno != 0 ? -errno : 0;
    closedir(dir);
    return rc;
}

static int from_list(struct trak *t, uint32_t dev_type, struct minor_set *set) {
    struct trak_device_list_arg list;
    memset(&list, 0, sizeof(list));
    list.dev_type = dev_type;
    int rc = trak_get_device_list(t, &list);
    if (rc < 0)
        return rc;
    for (uint32_t i = 0; i < list.count && i < TRAK_LIST_MAX; i++)
        set_add(set, list.minors[i]);
    return 0;
}

/* Fill the set with the nodes of dev_type; the caller frees set->bits also after a failure. */
static int collect(struct trak *t, uint32_t dev_type, struct minor_set *set) {
    set->limit = trak_max_minor(t) + 1;
    set->bits = calloc(1, (set->limit >> 3) + 1);
    if (set->bits == NULL)
        return -ENOMEM;
    int rc = 0;
    for (uint32_t type = TRAK_DEV_FILTER; rc == 0 && type <= TRAK_DEV_SNAP; type++)
        if (dev_type == 0 || dev_type == type)
            rc = from_list(t, type, set);
    if (rc == 0) {
        rc = from_tree(t, dev_type, set);
        if (rc == -ENOENT || rc == -ENOTDIR) /* a connection without a tree: the lists must do */
            rc = 0;
    }
    return rc;
}

int trak_nodes(struct trak *t, uint32_t dev_type, uint32_t *minors, int max) {
    struct minor_set set;
    if (dev_type > TRAK_DEV_SNAP)
        return -EINVAL;
    int rc = collect(t, dev_type, &set), count = 0;
    for (uint32_t m = 0; rc == 0 && m < set.limit; m++) {
        if (!set_has(&set, m))
            continue;
        if (count < max)
            minors[count] = m;
        count++;
    }
    free(set.bits);
    return rc < 0 ? rc : count;
}

int trak_free_minor(struct trak *t) {
    struct minor_set set;
    int rc = collect(t, 0, &set);
    if (rc == 0) {
        rc = -ENOSPC;
        for (uint32_t m = 0; m < set.limit; m++) {
            if (!set_has(&set, m)) {
                rc = (int)m;
                break;
            }
        }
    }
    free(set.bits);
    return rc;
}

int lt_minor_taken(struct trak *t, uint32_t minor) {
    struct minor_set set;
    int rc = collect(t, 0, &set);
    if (rc == 0)
        rc = minor < set.limit && set_has(&set, minor);
    free(set.bits);
    return rc;
}

int trak_filter_of(struct trak *t, uint32_t snap_minor) {
    struct minor_set set;
    int rc = collect(t, TRAK_DEV_FILTER, &set);
    if (rc == 0)
        rc = -ENOENT;
    for (uint32_t m = 0; rc == -ENOENT && m < set.limit; m++) {
        struct trak_info_arg info;
        if (!set_has(&set, m) || trak_get_info(t, m, &info) < 0 || info.dev_type != TRAK_DEV_FILTER)
            continue;
        for (uint32_t i = 0; i < info.snaps && i < TRAK_LIST_MAX; i++)
            if (info.snap_minors[i] == snap_minor)
                rc = (int)m;
    }
    free(set.bits);
    return rc;
}
