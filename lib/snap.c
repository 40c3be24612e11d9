/* lib/snap.c: creating and resuming snapshots, with refusals in advance */
/* SPDX-License-Identifier: GPL-2.0-only */
#include "lib/trak_int.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>

/* A creation that finds no memory keeps the node table's lock for ever. The record is a few pages;
 * this much left over means that it is found. */
#define MEMORY_NEEDED_KIB (16l * 1024)

/* -1 where the file doesn't say. Kernels before 3.14 leave the sum to the reader: what is free, and what of
 * files can be dropped. (`Cached` also has what can't be: files of ramfs, and what is locked.) */
static long available_kib(FILE *meminfo) {
    char line[256];
    long kib, droppable = 0, free_kib = -1;
    while (fgets(line, sizeof(line), meminfo) != NULL) {
        if (sscanf(line, "MemAvailable: %ld kB", &kib) == 1)
            return kib;
        if (sscanf(line, "MemFree: %ld kB", &kib) == 1)
            free_kib = kib;
        if (sscanf(line, "Active(file): %ld kB", &kib) == 1 ||
            sscanf(line, "Inactive(file): %ld kB", &kib) == 1)
            droppable += kib;
    }
    return free_kib < 0 ? -1 : free_kib + droppable;
}

static int check_memory(struct trak *t, char *why) {
    char path[LT_PATH];
    snprintf(path, sizeof(path), "%s/proc/meminfo", t->host);
    FILE *file = fopen(path, "re");
    if (file == NULL)
        return 0;
    const long available = available_kib(file);
    fclose(file);
    if (available < 0 || available >= MEMORY_NEEDED_KIB)
        return 0;
    return lt_refuse(ENOMEM, why,
                     "only %ld KiB of memory are available: a creation that finds none would block "
                     "the driver; free some first",
                     available);
}

/* The chunk size must be that of the filter's other snapshots, and no snapshot may share files. */
static int check_siblings(struct trak *t, const struct trak_info_arg *filter,
                          const struct trak_add_snap_arg *arg, char *why) {
    if (filter->snaps >= TRAK_LIST_MAX)
        return lt_refuse(ENOSPC, why, "filter %u has %u snapshots: delete one first", filter->minor,
                         filter->snaps);
    for (uint32_t i = 0; i < filter->snaps; i++) {
        struct trak_info_arg snap;
        int rc = lt_node(t, filter->snap_minors[i], &snap, why);
        if (rc < 0)
            return rc;
        if (snap.chunk_size != arg->chunk_size)
            return lt_refuse(EINVAL, why,
                             "snapshot %u of filter %u has chunks of %u bytes: all snapshots of a "
                             "filter must have the same, so give %u",
                             snap.minor, filter->minor, snap.chunk_size, snap.chunk_size);
    }
    return 0;
}

/* Another snapshot's file would be emptied at the start. */
static int check_unused(struct trak *t, const char *path, char *why) {
    uint32_t minors[1024];
    int count = trak_nodes(t, TRAK_DEV_SNAP, minors, 1024);
    if (count < 0)
        return lt_refuse(-count, why, "can't list the snapshots: %s", strerror(-count));
    for (int i = 0; i < count && i < 1024; i++) {
        struct trak_info_arg snap;
        if (trak_get_info(t, minors[i], &snap) == 0 &&
            (strcmp(snap.cow_bmp_fname, path) == 0 || strcmp(snap.cow_data_fname, path) == 0))
            return lt_refuse(EEXIST, why, "%.300s is in use by snapshot %u: give another file",
                             path, minors[i]);
    }
    return 0;
}

/* One COW file: made absolute; not another snapshot's; on a block device, through no node. */
static int check_cow_file(struct trak *t, char *path, const char *what, char *why) {
    char full[LT_PATH], node[128];
    struct stat st;
    if (memchr(path, '\0', TRAK_PATH_SIZE) == NULL)
        return lt_refuse(ENAMETOOLONG, why, "the path of the %s is too long", what);
    if (path[0] == '\0')
        return lt_refuse(EINVAL, why, "no %s given", what);
    int rc = lt_absolute(t, path, LT_MAY_EXIST, full, sizeof(full));
    if (rc == 0 && strlen(full) >= TRAK_PATH_SIZE)
        rc = -ENAMETOOLONG;
    if (rc < 0)
        return lt_refuse(-rc, why, "can't use the %s %.200s: %s", what, path, strerror(-rc));
    if (t->stat(full, &st) == 0 && !S_ISREG(st.st_mode))
        return lt_refuse(EEXIST, why, "the %s %.200s exists and is no regular file", what, full);
    rc = check_unused(t, full, why);
    if (rc < 0)
        return rc;
    int place = trak_place(t, full, node);
    if (place < 0)
        return lt_refuse(-place, why, "can't see where the %s %.200s lies: %s", what, full,
                         strerror(-place));
    if (place == 1)
        return lt_refuse(
            EDEADLK, why,
            "the %s %.200s lies on a file system that is mounted through %.64s: give a "
            "file on another disk",
            what, full, node);
    if (place == 2)
        return lt_refuse(ENOTBLK, why,
                         "the %s %.200s lies on a file system without a block device: give a file "
                         "on a disk",
                         what, full);
    strcpy(path, full);
    return 0;
}

static int check_snap(struct trak *t, struct trak_add_snap_arg *arg, char *why) {
    struct trak_info_arg filter;
    int rc = lt_node(t, arg->filter_minor, &filter, why);
    if (rc < 0)
        return rc;
    if (filter.dev_type != TRAK_DEV_FILTER)
        return lt_refuse(EINVAL, why, "node %u is a snapshot: give the minor of a filter",
                         arg->filter_minor);
    rc = lt_check_size(arg->chunk_size, "chunk", why);
    if (rc == 0)
        rc = check_siblings(t, &filter, arg, why);
    if (rc == 0)
        rc = lt_check_minor(t, arg->snap_minor, why);
    if (rc == 0)
        rc = lt_check_label(t, arg->name, sizeof(arg->name), arg->uuid, arg->snap_minor, why);
    if (rc == 0)
        rc = check_cow_file(t, arg->cow_bmp_fname, "COW bitmap file", why);
    if (rc == 0)
        rc = check_cow_file(t, arg->cow_data_fname, "COW data file", why);
    if (rc == 0 && strcmp(arg->cow_bmp_fname, arg->cow_data_fname) == 0)
        return lt_refuse(EINVAL, why, "the COW bitmap and the COW data need two files");
    if (rc == 0)
        rc = check_memory(t, why);
    return rc;
}

static int attach(struct trak *t, struct trak_add_snap_arg *arg, char *why) {
    uint32_t asked = arg->chunk_size;
    int rc = check_snap(t, arg, why);
    if (rc < 0)
        return rc;
    rc = trak_add_snap_node(t, arg);
    if (rc == 0) {
        if (arg->chunk_size != asked)
            lt_say(why, "the volume is too large for chunks of %u bytes: they have %u", asked,
                   arg->chunk_size);
        return 0;
    }
    if (rc == -EOPNOTSUPP || rc == -ENOTTY)
        return lt_refuse(-rc, why, "this driver does not support snapshots");
    if (rc == -ENOSPC)
        return lt_refuse(ENOSPC, why, "every minor is taken: delete a node first");
    return lt_explain(t, rc, "take a snapshot of", arg->filter_minor, why);
}

int trak_attach_snap(struct trak *t, struct trak_add_snap_arg *arg, char *why) {
    struct trak_add_snap_arg copy = *arg;
    lt_say(why, "%s", "");
    int rc = lt_guard_lock(t);
    if (rc < 0)
        return lt_refuse(-rc, why, "can't lock the control device: %s", strerror(-rc));
    rc = attach(t, &copy, why);
    lt_guard_unlock(t);
    if (rc == 0)
        *arg = copy;
    return rc;
}

static int resume(struct trak *t, const struct trak_resume_arg *arg, char *why) {
    struct trak_info_arg info, filter;
    int made = 0, guarded = 0, rc = lt_node(t, arg->minor, &info, why);
    if (rc < 0)
        return rc;
    if (info.dev_type != TRAK_DEV_SNAP)
        return lt_refuse(EINVAL, why, "node %u is no snapshot: only snapshots are resumed",
                         arg->minor);
    if (info.started)
        return lt_refuse(EALREADY, why, "snapshot %u has already been started", arg->minor);
    rc = lt_filter_of(t, &info, &filter, why);
    if (rc < 0)
        return rc;
    if (!filter.started) {
        guarded = lt_guard_begin(t, &filter, &made, why);
        if (guarded < 0)
            return guarded;
    }
    rc = trak_resume_snap(t, arg);
    if (rc == 0)
        return guarded;
    if (made)
        lt_guard_undo(t, &filter);
    return lt_explain(t, rc, "resume", arg->minor, why);
}

int trak_resume(struct trak *t, const struct trak_resume_arg *arg, char *why) {
    lt_say(why, "%s", "");
    int rc = lt_guard_lock(t);
    if (rc < 0)
        return lt_refuse(-rc, why, "can't lock the control device: %s", strerror(-rc));
    rc = resume(t, arg, why);
    lt_guard_unlock(t);
    return rc;
}
