/* lib/trak_int.h: what libtrak's own files share */
/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * Shared functions begin with lt_ and are not exported from the shared library.
 * Results: 0 or positive, or a negative errno.
 */
#ifndef TRAK_LIB_TRAK_INT_H
#define TRAK_LIB_TRAK_INT_H

#include "lib/trak.h"

#include <pthread.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

#define LT_PATH 4096

struct trak {
    /* constant after trak_open() */
    char root[TRAK_PATH_SIZE]; /* "/" or without a trailing slash */
    int fd;                    /* the control device; -1 with trak_open_fn() */
    struct trak_seam seam;     /* NULL members: the real thing */
    void *ctx;

    /* Stand-ins that tests put in: where /sys and /proc/self lie ("" is the real place), and stat
     * (following links). */
    char host[TRAK_PATH_SIZE];
    int (*stat)(const char *path, struct stat *st);

    /* One guarded call at a time: the mutex among this connection's threads, a lock on the control
     * device among processes. */
    pthread_mutex_t guard;
};

/* One command as the driver answered it: 0, positive, or a negative errno. */
int lt_command(struct trak *t, uint32_t code, void *record);

/* <root><tail> into path (tail begins with a slash): 0 or -ENAMETOOLONG. */
int lt_path(const struct trak *t, const char *tail, char *path, size_t size);

/* Whole small text file, NUL-terminated, without its last newline: length or a negative errno. */
int lt_read_text(const char *path, char *text, size_t size);

/* Make the control device's special file from the text at chr_major, where it is missing or has
 * another number. `make` is mknod(). */
int lt_make_control(const char *chr_major, const char *control,
                    int (*make)(const char *, mode_t, dev_t));

/* Make a folder (mode 0755 less the umask) unless something has the name already: 0 or a negative
 * errno. */
int lt_make_folder(const char *path);

int lt_guard_lock(struct trak *t);
void lt_guard_unlock(struct trak *t);

/* Put a sentence into why (which may be NULL); longer text is cut. */
void lt_say(char *why, const char *format, ...) __attribute__((format(printf, 2, 3)));
/* Put a sentence into why and return -error. */
int lt_refuse(int error, char *why, const char *format, ...) __attribute__((format(printf, 3, 4)));

/* The members of the seam, or the real thing where they are NULL. */
int lt_marker_read(struct trak *t, const char *path, char *text, size_t size);
int lt_marker_write(struct trak *t, const char *path, const char *text);
int lt_marker_remove(struct trak *t, const char *path);
int lt_session(struct trak *t, char *text, size_t size);

/* Value of `key=` in a marker's text: 0, or -ENOENT. */
int lt_marker_value(const char *text, const char *key, char *value, size_t size);

/* Make the path absolute; with `must_exist`, links are resolved and -ENOENT is possible, otherwise
 * only its directory is resolved. */
#define LT_MUST_EXIST 1
#define LT_MAY_EXIST 0
int lt_absolute(struct trak *t, const char *path, int must_exist, char *out, size_t size);

/* Whether a minor is taken, by its entry in the node lists and the status tree: 1, 0, negative. */
int lt_minor_taken(struct trak *t, uint32_t minor);

/* Checks before a filter is created: 0 with paths made absolute, or a refusal. */
int lt_check_filter(struct trak *t, struct trak_add_filter_arg *arg, char *why);
/* Checks that both creations share. */
int lt_check_minor(struct trak *t, int32_t minor, char *why);
int lt_check_label(struct trak *t, const char *name, size_t name_size, const char *uuid,
                   int32_t minor, char *why);
/* A size that is no power of two, or below 4096: a refusal that calls it `what`. */
int lt_check_size(uint32_t size, const char *what, char *why);

/* Where the driver's messages can be read, for a sentence. */
const char *lt_log_name(const struct trak *t);

/* The filter of a node: the node itself, or a snap's parent. */
int lt_filter_of(struct trak *t, const struct trak_info_arg *node, struct trak_info_arg *filter,
                 char *why);

/* A sentence for a failed command on a node: returns rc. */
int lt_explain(struct trak *t, int rc, const char *verb, uint32_t minor, char *why);

/* TRAK_GET_INFO with a sentence where there is no such node. */
int lt_node(struct trak *t, uint32_t minor, struct trak_info_arg *info, char *why);

/* Before the filter in `info` is started: have a durable marker. 0 or TRAK_ALL_CHANGED; *made says
 * whether the marker is new, so that a start that fails can take it away. Guard lock held. */
int lt_guard_begin(struct trak *t, const struct trak_info_arg *info, int *made, char *why);
/* Take back what lt_guard_begin() made, unless the filter runs. Guard lock held. */
void lt_guard_undo(struct trak *t, const struct trak_info_arg *info);

#ifdef __cplusplus
}
#endif

#endif /* TRAK_LIB_TRAK_INT_H */
