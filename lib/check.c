/* lib/check.c: refusals in advance, and sentences for the driver's own */
/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * The driver keeps a few behaviours that harm a careless caller, because they are its interface:
 *   - a creation that fails after it was given a minor clears that minor's entry, also where the
 *     entry belongs to another node or lies beyond the table;
 *   - a creation removes whatever lies at /dev/trak/<name> before it makes its special file;
 *   - it finds its bitmap files by their path, so those on a file system that is mounted through a
 *     node have no place once that is unmounted, which it must be before that node can go;
 *   - snapshots whose COW files lie on each other's node wait for each other;
 *   - a snapshot creation with another chunk size than its filter's snapshots have, or one that
 *     finds no memory, never gives the node table back.
 * What would run into one is refused here, before any command is sent.
 */
#include "lib/trak_int.h"

#include <errno.h>
#include <string.h>
#include <sys/sysmacros.h>

const char *lt_log_name(const struct trak *t) {
    return strcmp(t->root, "/") == 0 ? "dmesg" : "the driver's log";
}

int lt_explain(struct trak *t, int rc, const char *verb, uint32_t minor, char *why) {
    switch (rc) {
    case -EOPNOTSUPP:
    case -ENOTTY:
        return lt_refuse(-rc, why, "can't %s node %u: this driver does not support that", verb,
                         minor);
    case -EBUSY:
        return lt_refuse(EBUSY, why,
                         "can't %s node %u: it (or one of its snapshots) is in use; unmount it and "
                         "detach its loop devices first",
                         verb, minor);
    case -EALREADY:
        return lt_refuse(EALREADY, why, "node %u has already been started", minor);
    case -EAGAIN:
        return lt_refuse(EAGAIN, why,
                         "can't %s node %u: the disk did not come to rest in time; try again under "
                         "less load",
                         verb, minor);
    case -EINVAL:
        return lt_refuse(EINVAL, why, "the driver refused to %s node %u: %s says why", verb, minor,
                         lt_log_name(t));
    default:
        return lt_refuse(-rc, why, "can't %s node %u: %s", verb, minor, strerror(-rc));
    }
}

int lt_node(struct trak *t, uint32_t minor, struct trak_info_arg *info, char *why) {
    int rc = trak_get_info(t, minor, info);
    if (rc == -EINVAL)
        return lt_refuse(EINVAL, why, "there is no node %u: \"trakctl list\" shows which there are",
                         minor);
    if (rc < 0)
        return lt_refuse(-rc, why, "can't look at node %u: %s", minor, strerror(-rc));
    return 0;
}

int lt_filter_of(struct trak *t, const struct trak_info_arg *node, struct trak_info_arg *filter,
                 char *why) {
    if (node->dev_type == TRAK_DEV_FILTER) {
        *filter = *node;
        return 0;
    }
    int minor = trak_filter_of(t, node->minor);
    if (minor < 0)
        return lt_refuse(-minor, why, "can't find the filter of snapshot %u: %s", node->minor,
                         strerror(-minor));
    return lt_node(t, (uint32_t)minor, filter, why);
}

int lt_check_minor(struct trak *t, int32_t minor, char *why) {
    if (minor < 0)
        return 0;
    uint32_t max = trak_max_minor(t);
    if ((uint32_t)minor > max)
        return lt_refuse(EINVAL, why,
                         "minor %d is too big: the highest is %u; leave it out to get a free one",
                         minor, max);
    int taken = lt_minor_taken(t, (uint32_t)minor);
    if (taken < 0)
        return lt_refuse(-taken, why, "can't see whether minor %d is free: %s", minor,
                         strerror(-taken));
    if (taken) {
        int free_minor = trak_free_minor(t);
        if (free_minor < 0)
            return lt_refuse(EEXIST, why, "minor %d is taken, and no other is free", minor);
        return lt_refuse(EEXIST, why,
                         "minor %d is taken: leave it out to get a free one (the next is %d)",
                         minor, free_minor);
    }
    return 0;
}

/* Whether the name is one that the driver gives by itself to another minor. */
static int is_default_of_another(const char *name, int32_t minor) {
    char own[32];
    size_t digits = strlen("trak");
    if (strncmp(name, "trak", digits) != 0 || name[digits] == '\0' ||
        strspn(name + digits, "0123456789") != strlen(name + digits))
        return 0;
    snprintf(own, sizeof(own), "trak%d", minor);
    return minor < 0 || strcmp(name, own) != 0;
}

int lt_check_label(struct trak *t, const char *name, size_t name_size, const char *uuid,
                   int32_t minor, char *why) {
    if (memchr(uuid, '\0', TRAK_UUID_SIZE) == NULL)
        return lt_refuse(EINVAL, why, "the identifier is longer than %d characters",
                         TRAK_UUID_SIZE - 1);
    if (memchr(name, '\0', name_size) == NULL || strlen(name) >= TRAK_NAME_SIZE)
        return lt_refuse(EINVAL, why, "the name is longer than %d characters", TRAK_NAME_SIZE - 1);
    if (name[0] == '\0')
        return 0;
    if (strchr(name, '/') != NULL || strcmp(name, ".") == 0 || strcmp(name, "..") == 0)
        return lt_refuse(
            EINVAL, why,
            "the name %.140s can't be that of a file in /dev/trak: leave the slash out", name);
    for (const char *p = name; *p != '\0'; p++)
        if ((unsigned char)*p < ' ')
            return lt_refuse(EINVAL, why, "the name holds a control character");
    if (is_default_of_another(name, minor))
        return lt_refuse(
            EINVAL, why,
            "the name %.140s is the one that the driver gives to another minor: choose "
            "another",
            name);

    uint32_t minors[1024];
    int count = trak_nodes(t, 0, minors, 1024);
    if (count < 0)
        return lt_refuse(-count, why, "can't list the nodes: %s", strerror(-count));
    for (int i = 0; i < count && i < 1024; i++) {
        struct trak_info_arg info;
        if (trak_get_info(t, minors[i], &info) == 0 && strcmp(info.name, name) == 0)
            return lt_refuse(EEXIST, why, "node %u is named %.140s already: choose another name",
                             minors[i], name);
    }
    return 0;
}

int lt_check_size(uint32_t size, const char *what, char *why) {
    if (size == 0 || (size & (size - 1)) != 0)
        return lt_refuse(EINVAL, why, "the %s size %u is no power of two: take 64K, for example",
                         what, size);
    if (size < 4096)
        return lt_refuse(EINVAL, why, "the %s size %u is below 4096: take 64K, for example", what,
                         size);
    return 0;
}

/* -EEXIST where a filter on the disk exists already (the driver refuses with -EINVAL). */
static int check_duplicate(struct trak *t, const char *disk, char *why) {
    uint32_t minors[1024];
    struct stat want, have;
    int known = t->stat(disk, &want) == 0 && S_ISBLK(want.st_mode);
    int count = trak_nodes(t, TRAK_DEV_FILTER, minors, 1024);
    if (count < 0)
        return lt_refuse(-count, why, "can't list the nodes: %s", strerror(-count));
    for (int i = 0; i < count && i < 1024; i++) {
        struct trak_info_arg info;
        if (trak_get_info(t, minors[i], &info) < 0)
            continue;
        int same = strcmp(info.hdd_name, disk) == 0 ||
                   (known && t->stat(info.hdd_name, &have) == 0 && S_ISBLK(have.st_mode) &&
                    have.st_rdev == want.st_rdev);
        if (same)
            return lt_refuse(EEXIST, why, "node %u is a filter on %.300s already", minors[i], disk);
    }
    return 0;
}

/* The directory of the bitmap files: made absolute; there; not reached through a node. */
static int check_bmp_dir(struct trak *t, char *dir, char *why) {
    char full[LT_PATH], node[128];
    struct stat st;
    int rc = lt_absolute(t, dir, LT_MUST_EXIST, full, sizeof(full));
    if (rc == 0 && t->seam.place == NULL)
        rc = t->stat(full, &st);
    if (rc == 0 && t->seam.place == NULL && !S_ISDIR(st.st_mode))
        rc = -ENOTDIR;
    if (rc < 0)
        return lt_refuse(-rc, why, "can't use the bitmap directory %.200s: %s", dir, strerror(-rc));
    if (strlen(full) + sizeof("/trak4294967295.session") > TRAK_PATH_SIZE)
        return lt_refuse(ENAMETOOLONG, why, "the path of the bitmap directory is too long");
    int place = trak_place(t, full, node);
    if (place < 0)
        return lt_refuse(-place, why, "can't see where the bitmap directory %.200s lies: %s", full,
                         strerror(-place));
    if (place == 1)
        return lt_refuse(
            EDEADLK, why,
            "the bitmap directory %.200s lies on a file system that is mounted through "
            "%.64s: unmounted before the end, it would miss the last save; give a directory on "
            "another disk",
            full, node);
    strcpy(dir, full);
    return 0;
}

int lt_check_filter(struct trak *t, struct trak_add_filter_arg *arg, char *why) {
    char full[LT_PATH];
    if (memchr(arg->hdd_name, '\0', sizeof(arg->hdd_name)) == NULL ||
        memchr(arg->bmp_dir, '\0', sizeof(arg->bmp_dir)) == NULL)
        return lt_refuse(ENAMETOOLONG, why, "a path is longer than %d characters",
                         TRAK_PATH_SIZE - 1);
    if (arg->hdd_name[0] == '\0')
        return lt_refuse(EINVAL, why, "no disk given: name its block special file");
    if (arg->bmp_dir[0] == '\0')
        return lt_refuse(EINVAL, why, "no directory for the bitmap files given");
    /* An absolute name goes as it is: trakd knows names that this machine does not. */
    if (arg->hdd_name[0] != '/') {
        int rc = lt_absolute(t, arg->hdd_name, LT_MUST_EXIST, full, sizeof(full));
        if (rc == 0 && strlen(full) >= sizeof(arg->hdd_name))
            rc = -ENAMETOOLONG;
        if (rc < 0)
            return lt_refuse(-rc, why, "can't find the disk %.300s: %s", arg->hdd_name,
                             strerror(-rc));
        strcpy(arg->hdd_name, full);
    }
    int rc = lt_check_size(arg->extent_size, "extent", why);
    if (rc == 0)
        rc = lt_check_minor(t, arg->minor, why);
    if (rc == 0)
        rc = lt_check_label(t, arg->name, sizeof(arg->name), arg->uuid, arg->minor, why);
    if (rc == 0)
        rc = check_duplicate(t, arg->hdd_name, why);
    if (rc == 0)
        rc = check_bmp_dir(t, arg->bmp_dir, why);
    return rc;
}
