/* lib/guard.c: guarded attach, start, stop and delete: no crash is taken for an orderly end */
/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * What is guarded. A write reaches the disk, and a moment later the driver's dirty flag reaches the
 * bitmap file. A crash between the two leaves a file that looks clean and lacks the write. A clean
 * file therefore proves nothing by itself: the session marker beside it does.
 *
 *   marker absent   the last session ended in order (or there was none): the files are right
 *   marker present  a session runs, or ended without order: the files prove nothing
 *
 * Order of steps, and what a crash or failure after each leaves:
 *   attach 1  create the node, stopped        no write can pass; no marker, files as they were
 *          2  marker found: set both bitmaps   the old marker is still there
 *          3  write the marker, durable        the next attach sets both bitmaps: safe
 *          a failure of 2 or 3 deletes the node again and leaves an old marker where it was
 *   start  1  no marker: write it, durable
 *             this session's own: nothing to do
 *             another session's (the node was created past the guard): as attach 2 and 3
 *          2  start; on failure a marker made in 1 goes, unless the node does run
 *   stop   1  stop the node: no write passes any more
 *          2  save both bitmaps by command (the driver's own save at the stop reports no failure)
 *          3  make the directory durable, remove the marker, make that durable
 *          a failure of 2 leaves the marker, or writes one where there was none
 *   delete    as stop, then delete. Neither saved nor marked: the node is not deleted
 *
 * An orderly unload of the driver does what stop does for every node (see docs/format.md). Two
 * nodes that share a directory have markers of their own; a directory that a node of another
 * running driver uses under the same minor is refused.
 */
#include "lib/trak_int.h"

#include <errno.h>
#include <string.h>
#include <time.h>

#define MARKER_TEXT 4096

static int marker_path(const struct trak_info_arg *info, char *path, size_t size) {
    char tail[32];
    int n = snprintf(tail, sizeof(tail), "/trak%u.incr", info->minor);
    size_t len = strnlen(info->incr_bmp_fname, sizeof(info->incr_bmp_fname));
    if (len < (size_t)n || memcmp(info->incr_bmp_fname + len - (size_t)n, tail, (size_t)n) != 0)
        return -EINVAL;
    int m = snprintf(path, size, "%.*s/trak%u.session", (int)(len - (size_t)n),
                     info->incr_bmp_fname, info->minor);
    return (size_t)m < size ? 0 : -ENAMETOOLONG;
}

/* One "key=value" line; bytes that would break the line become question marks. */
static void add_line(char *text, const char *key, const char *value) {
    size_t at = strlen(text);
    snprintf(text + at, MARKER_TEXT - at, "%s=%s", key, value);
    for (char *p = text + at; *p != '\0'; p++)
        if ((unsigned char)*p < ' ')
            *p = '?';
    at = strlen(text);
    snprintf(text + at, MARKER_TEXT - at, "\n");
}

static void compose(struct trak *t, const struct trak_info_arg *info, const char *session,
                    char *text) {
    char minor[16], begun[32] = "";
    time_t now = time(NULL);
    struct tm tm;
    if (gmtime_r(&now, &tm) != NULL)
        strftime(begun, sizeof(begun), "%Y-%m-%dT%H:%M:%SZ", &tm);
    snprintf(minor, sizeof(minor), "%u", info->minor);
    text[0] = '\0';
    add_line(text, "trak_session", "1");
    add_line(text, "session", session);
    add_line(text, "uuid", info->uuid);
    add_line(text, "minor", minor);
    add_line(text, "begun", begun);
    add_line(text, "root", t->root);
    add_line(text, "disk", info->hdd_name);
}

static int is_own(const char *text, const char *session, const struct trak_info_arg *info) {
    char value[256];
    if (session[0] == '\0' || lt_marker_value(text, "session", value, sizeof(value)) < 0 ||
        strcmp(value, session) != 0)
        return 0;
    return lt_marker_value(text, "uuid", value, sizeof(value)) == 0 &&
           strcmp(value, info->uuid) == 0;
}

/* Whether the marker belongs to a node that another driver holds right now; its root in `root`. */
static int lives_elsewhere(struct trak *t, const char *text, const char *path,
                           const struct trak_info_arg *info, char *root, size_t size) {
    char tree[LT_PATH], ours[LT_PATH], file[LT_PATH + 64], dir[LT_PATH];
    struct stat theirs_st, ours_st;
    if (lt_marker_value(text, "root", root, size) < 0 || root[0] != '/')
        return 0;
    snprintf(tree, sizeof(tree), "%s/proc/trak", strcmp(root, "/") == 0 ? "" : root);
    if (lt_path(t, "/proc/trak", ours, sizeof(ours)) < 0 || t->stat(tree, &theirs_st) < 0)
        return 0;
    if (t->stat(ours, &ours_st) == 0 && ours_st.st_dev == theirs_st.st_dev &&
        ours_st.st_ino == theirs_st.st_ino)
        return 0;
    snprintf(file, sizeof(file), "%s/trak%u/bmp_dir", tree, info->minor);
    if (lt_read_text(file, dir, sizeof(dir)) <= 0)
        return 0;
    size_t len = strlen(dir);
    return strncmp(path, dir, len) == 0 && path[len] == '/' && strchr(path + len + 1, '/') == NULL;
}

static void say_all_changed(const char *text, const char *path, char *why) {
    char begun[64], disk[128];
    if (lt_marker_value(text, "begun", begun, sizeof(begun)) < 0 ||
        lt_marker_value(text, "disk", disk, sizeof(disk)) < 0) {
        lt_say(why,
               "everything counts as changed: %.200s says that the last session did not end in "
               "order, so the bitmap files may lack its last writes",
               path);
        return;
    }
    lt_say(why,
           "everything counts as changed: the session of %s on %s did not end in order (%.160s is "
           "there), so the bitmap files may lack its last writes",
           begun, disk, path);
}

/* Both bitmaps to "everything changed". */
static int mark_all(struct trak *t, uint32_t minor) {
    int incr = trak_set_bmp(t, minor, TRAK_BMP_INCR, NULL, 0);
    int diff = trak_set_bmp(t, minor, TRAK_BMP_DIFF, NULL, 0);
    return incr < 0 ? incr : diff;
}

enum own { OWN_IS_FOREIGN, OWN_IS_TRUSTED };

static int ensure_marker(struct trak *t, const struct trak_info_arg *info, enum own own, int *made,
                         char *why) {
    char path[LT_PATH], old[MARKER_TEXT], text[MARKER_TEXT], session[256], root[1024];
    *made = 0;
    int rc = marker_path(info, path, sizeof(path));
    if (rc < 0)
        return lt_refuse(-rc, why, "node %u has no usable bitmap directory (%.200s)", info->minor,
                         info->incr_bmp_fname);
    if (lt_session(t, session, sizeof(session)) < 0)
        session[0] = '\0';
    compose(t, info, session, text);

    int found = lt_marker_read(t, path, old, sizeof(old));
    if (found == -ENOENT) {
        rc = lt_marker_write(t, path, text);
        if (rc < 0) {
            /* It was not there before, and nothing runs under it. */
            (void)!lt_marker_remove(t, path);
            return lt_refuse(-rc, why, "can't write the session marker %.200s: %s", path,
                             strerror(-rc));
        }
        *made = 1;
        return 0;
    }
    if (found < 0)
        old[0] = '\0'; /* there is something, and it can't be read: another session's */
    if (own == OWN_IS_TRUSTED && is_own(old, session, info))
        return 0;
    if (lives_elsewhere(t, old, path, info, root, sizeof(root)))
        return lt_refuse(
            EBUSY, why,
            "node %u of the driver at %.100s uses the bitmap files beside %.200s: give "
            "another directory",
            info->minor, root, path);
    rc = mark_all(t, info->minor);
    if (rc < 0)
        return lt_refuse(-rc, why,
                         "%.200s says that the last session did not end in order, and the bitmaps "
                         "can't be set to everything-changed: %s",
                         path, strerror(-rc));
    rc = lt_marker_write(t, path, text);
    if (rc < 0)
        return lt_refuse(-rc, why, "can't write the session marker %.200s: %s", path,
                         strerror(-rc));
    say_all_changed(old, path, why);
    return TRAK_ALL_CHANGED;
}

int lt_guard_begin(struct trak *t, const struct trak_info_arg *info, int *made, char *why) {
    return ensure_marker(t, info, OWN_IS_TRUSTED, made, why);
}

void lt_guard_undo(struct trak *t, const struct trak_info_arg *info) {
    struct trak_info_arg now;
    char path[LT_PATH];
    if (trak_get_info(t, info->minor, &now) == 0 && now.started == 0 &&
        marker_path(info, path, sizeof(path)) == 0)
        (void)!lt_marker_remove(t, path);
}

/* After the driver created the node: marker, or no node. Guard lock held. */
static int guard_new(struct trak *t, uint32_t minor, char *why) {
    struct trak_info_arg info;
    int made, rc = lt_node(t, minor, &info, why);
    if (rc == 0)
        rc = ensure_marker(t, &info, OWN_IS_FOREIGN, &made, why);
    if (rc >= 0)
        return rc;
    int undo = trak_del_node(t, minor);
    if (undo < 0 && why != NULL) {
        size_t at = strlen(why);
        snprintf(why + at, TRAK_WHY_SIZE - at, " (node %u stays, stopped: delete it)", minor);
    }
    return rc;
}

static int add_filter(struct trak *t, struct trak_add_filter_arg *arg, char *why) {
    int rc = lt_check_filter(t, arg, why);
    if (rc < 0)
        return rc;
    rc = trak_add_filter_node(t, arg);
    switch (rc) {
    case 0:
        return guard_new(t, (uint32_t)arg->minor, why);
    case -EBUSY:
        return lt_refuse(
            EBUSY, why,
            "%.200s is mounted or open elsewhere: unmount it, attach it, and mount the "
            "node instead",
            arg->hdd_name);
    case -ENOENT:
        return lt_refuse(ENOENT, why, "the driver knows no disk %.300s", arg->hdd_name);
    case -ENOSPC:
        return lt_refuse(ENOSPC, why, "every minor is taken: delete a node first");
    case -EINVAL:
        return lt_refuse(EINVAL, why,
                         "the driver refused %.200s: is it a block device that can be written, "
                         "with blocks no larger than an extent? %s says more",
                         arg->hdd_name, lt_log_name(t));
    default:
        return lt_refuse(-rc, why, "can't attach %.300s: %s", arg->hdd_name, strerror(-rc));
    }
}

int trak_attach_filter(struct trak *t, struct trak_add_filter_arg *arg, char *why) {
    struct trak_add_filter_arg copy = *arg;
    lt_say(why, "%s", "");
    int rc = lt_guard_lock(t);
    if (rc < 0)
        return lt_refuse(-rc, why, "can't lock the control device: %s", strerror(-rc));
    rc = add_filter(t, &copy, why);
    lt_guard_unlock(t);
    if (rc >= 0)
        *arg = copy;
    return rc;
}

static int start(struct trak *t, uint32_t minor, char *why) {
    struct trak_info_arg info, filter;
    int made = 0, guarded = 0, rc = lt_node(t, minor, &info, why);
    if (rc < 0)
        return rc;
    if (info.started)
        return lt_refuse(EALREADY, why, "node %u has already been started", minor);
    rc = lt_filter_of(t, &info, &filter, why);
    if (rc < 0)
        return rc;
    if (!filter.started) {
        guarded = lt_guard_begin(t, &filter, &made, why);
        if (guarded < 0)
            return guarded;
    }
    rc = trak_start_node(t, minor);
    if (rc == 0)
        return guarded;
    if (made)
        lt_guard_undo(t, &filter);
    return lt_explain(t, rc, "start", minor, why);
}

int trak_start(struct trak *t, uint32_t minor, char *why) {
    lt_say(why, "%s", "");
    int rc = lt_guard_lock(t);
    if (rc < 0)
        return lt_refuse(-rc, why, "can't lock the control device: %s", strerror(-rc));
    rc = start(t, minor, why);
    lt_guard_unlock(t);
    return rc;
}

/* Both bitmaps are saved. A marker that is not this session's stays: the node was created past the
 * guard, from files that may have lacked writes, and what was saved now may lack them too. */
static void drop_marker(struct trak *t, const struct trak_info_arg *info, const char *path, int own,
                        char *why) {
    int rc;
    if (!own)
        lt_say(
            why,
            "%.200s is of another session than node %u: it stays, and the next attach will count "
            "everything as changed",
            path, info->minor);
    else if ((rc = lt_marker_remove(t, path)) < 0)
        lt_say(why,
               "the session marker %.200s can't be removed (%s): the next attach will count "
               "everything as changed",
               path, strerror(-rc));
}

/* A stopped filter: save both bitmaps, then no marker. Where that fails, *covered says whether a
 * marker stands in for the files. */
static int end_session(struct trak *t, const struct trak_info_arg *info, int *covered, char *why) {
    struct trak_info_arg now;
    char path[LT_PATH], text[MARKER_TEXT], session[256];
    *covered = 0;
    int rc = marker_path(info, path, sizeof(path));
    if (rc < 0)
        return lt_refuse(-rc, why, "node %u has no usable bitmap directory (%.200s)", info->minor,
                         info->incr_bmp_fname);
    int incr = trak_save_bmp(t, info->minor, TRAK_BMP_INCR);
    int diff = trak_save_bmp(t, info->minor, TRAK_BMP_DIFF);
    rc = incr < 0 ? incr : diff;
    if (rc == 0) {
        rc = trak_get_info(t, info->minor, &now);
        if (rc == 0 && now.started)
            return lt_refuse(EBUSY, why, "node %u was started again while it was being stopped",
                             info->minor);
    }
    if (lt_session(t, session, sizeof(session)) < 0)
        session[0] = '\0';
    int found = lt_marker_read(t, path, text, sizeof(text));
    if (rc == 0) {
        *covered = 1;
        if (found != -ENOENT)
            drop_marker(t, info, path, found >= 0 && is_own(text, session, info), why);
        return 0;
    }
    *covered = found != -ENOENT;
    if (!*covered) {
        compose(t, info, session, text);
        *covered = lt_marker_write(t, path, text) == 0;
    }
    if (*covered)
        return lt_refuse(-rc, why,
                         "node %u is stopped, but its bitmaps can't be saved (%s): unless a later "
                         "stop saves them, the next attach will count everything as changed",
                         info->minor, strerror(-rc));
    return lt_refuse(-rc, why,
                     "node %u is stopped, but neither its bitmaps (%s) nor a session marker can be "
                     "saved in the directory of %.150s: make room there and stop it again",
                     info->minor, strerror(-rc), path);
}

/* The common part of stop and delete; *covered as of end_session(). */
static int stop(struct trak *t, uint32_t minor, struct trak_info_arg *info, int *covered,
                char *why) {
    *covered = 0;
    int rc = lt_node(t, minor, info, why);
    if (rc < 0)
        return rc;
    rc = trak_stop_node(t, minor);
    if (rc < 0)
        return lt_explain(t, rc, "stop", minor, why);
    if (info->dev_type == TRAK_DEV_FILTER)
        return end_session(t, info, covered, why);
    if (trak_get_info(t, minor, info) == 0 && info->started && info->stop_pending)
        lt_say(why,
               "the stop of snapshot %u is postponed: it ends when the older snapshots of its "
               "filter are stopped",
               minor);
    return 0;
}

int trak_stop(struct trak *t, uint32_t minor, char *why) {
    struct trak_info_arg info;
    int covered;
    lt_say(why, "%s", "");
    int rc = lt_guard_lock(t);
    if (rc < 0)
        return lt_refuse(-rc, why, "can't lock the control device: %s", strerror(-rc));
    rc = stop(t, minor, &info, &covered, why);
    lt_guard_unlock(t);
    return rc;
}

static int detach(struct trak *t, uint32_t minor, char *why) {
    struct trak_info_arg info;
    int covered;
    int saved = stop(t, minor, &info, &covered, why);
    if (saved < 0 && !covered)
        return saved;
    int rc = trak_del_node(t, minor);
    if (rc < 0)
        return lt_explain(t, rc, "delete", minor, why);
    if (info.dev_type == TRAK_DEV_FILTER) {
        if (saved < 0)
            lt_say(why,
                   "node %u is deleted, but its bitmaps could not be saved (%s): the next attach "
                   "will count everything as changed",
                   minor, strerror(-saved));
        return 0;
    }
    lt_say(why, "%s", "");
    if (lt_minor_taken(t, minor) == 1)
        lt_say(why,
               "the deletion of snapshot %u is postponed: it goes when the older snapshots of its "
               "filter are stopped",
               minor);
    return 0;
}

int trak_detach(struct trak *t, uint32_t minor, char *why) {
    lt_say(why, "%s", "");
    int rc = lt_guard_lock(t);
    if (rc < 0)
        return lt_refuse(-rc, why, "can't lock the control device: %s", strerror(-rc));
    rc = detach(t, minor, why);
    lt_guard_unlock(t);
    return rc;
}
