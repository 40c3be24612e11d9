/* lib/connect.c: the connection to the control device, and small helpers */
/* SPDX-License-Identifier: GPL-2.0-only */
#include "lib/trak_int.h"

#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/sysmacros.h>
#include <unistd.h>

void lt_say(char *why, const char *format, ...) {
    if (why == NULL)
        return;
    va_list args;
    va_start(args, format);
    vsnprintf(why, TRAK_WHY_SIZE, format, args);
    va_end(args);
}

int lt_refuse(int error, char *why, const char *format, ...) {
    if (why != NULL) {
        va_list args;
        va_start(args, format);
        vsnprintf(why, TRAK_WHY_SIZE, format, args);
        va_end(args);
    }
    return -error;
}

int lt_path(const struct trak *t, const char *tail, char *path, size_t size) {
    const char *root = strcmp(t->root, "/") == 0 ? "" : t->root;
    int n = snprintf(path, size, "%s%s", root, tail);
    return n >= 0 && (size_t)n < size ? 0 : -ENAMETOOLONG;
}

int lt_read_text(const char *path, char *text, size_t size) {
    text[0] = '\0';
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return -errno;
    /* One read is the whole text of a status file, which may start anew at every offset. */
    ssize_t len;
    do
        len = read(fd, text, size - 1);
    while (len < 0 && errno == EINTR);
    int rc = len < 0 ? -errno : 0;
    close(fd);
    if (rc < 0)
        return rc;
    if (len > 0 && text[len - 1] == '\n')
        len--;
    text[len] = '\0';
    return (int)len;
}

int lt_make_control(const char *chr_major, const char *control,
                    int (*make)(const char *, mode_t, dev_t)) {
    char text[32], *end;
    int rc = lt_read_text(chr_major, text, sizeof(text));
    if (rc < 0)
        return rc == -ENOENT || rc == -ENOTDIR ? -ENODEV : rc;
    errno = 0;
    long major_nr = strtol(text, &end, 10);
    if (end == text || *end != '\0' || errno != 0 || major_nr <= 0 || major_nr > 0xfff)
        return -ENODEV;
    dev_t want = makedev((unsigned)major_nr, 0);

    struct stat st;
    if (lstat(control, &st) == 0) {
        /* Only a character special file can be a left-over of ours: anything else stays. */
        if (!S_ISCHR(st.st_mode) || st.st_rdev == want)
            return 0;
        if (unlink(control) < 0)
            return -errno;
    } else if (errno != ENOENT) {
        return -errno;
    }
    if (make(control, S_IFCHR | 0600, want) < 0 && errno != EEXIST)
        return -errno;
    return 0;
}

int lt_make_folder(const char *path) {
    return mkdir(path, 0755) < 0 && errno != EEXIST ? -errno : 0;
}

static int real_ioctl(void *ctx, uint32_t code, void *record) {
    struct trak *t = ctx;
    int rc = ioctl(t->fd, (unsigned long)code, record);
    return rc < 0 ? -errno : rc;
}

static int real_stat(const char *path, struct stat *st) {
    return stat(path, st) < 0 ? -errno : 0;
}

static int make(const char *root, struct trak **out) {
    *out = NULL;
    struct trak *t = calloc(1, sizeof(*t));
    if (t == NULL)
        return -ENOMEM;
    if (root == NULL || *root == '\0')
        root = "/";
    size_t len = strlen(root);
    while (len > 1 && root[len - 1] == '/')
        len--;
    if (len >= sizeof(t->root) - 64) {
        free(t);
        return -ENAMETOOLONG;
    }
    memcpy(t->root, root, len);
    t->fd = -1;
    t->stat = real_stat;
    int rc = pthread_mutex_init(&t->guard, NULL);
    if (rc != 0) {
        free(t);
        return -rc;
    }
    *out = t;
    return 0;
}

/* A sentence for a control device that could not be opened. */
static int explain_open(const struct trak *t, int rc, const char *control, char *why) {
    int kernel = strcmp(t->root, "/") == 0;
    switch (rc) {
    case -ENODEV:
    case -ENOENT:
    case -ENOTDIR:
    case -ENXIO:
        if (kernel)
            return lt_refuse(ENODEV, why,
                             "no driver here: load the trak module (modprobe trak), or name "
                             "trakd's mount point with --root DIR or TRAK_ROOT");
        return lt_refuse(ENODEV, why,
                         "no driver at %.200s: start one with \"trakd %.200s\", or name another "
                         "root",
                         t->root, t->root);
    case -ENOTCONN:
    case -ECONNABORTED:
        return lt_refuse(
            ENOTCONN, why,
            "trakd at %.160s is gone: unmount with \"fusermount3 -u %.160s\" and start "
            "it again",
            t->root, t->root);
    case -EACCES:
    case -EPERM:
        return lt_refuse(-rc, why, "no permission to use %.300s: run this as root", control);
    default:
        return lt_refuse(-rc, why, "can't open %.300s: %s", control, strerror(-rc));
    }
}

int trak_open(const char *root, struct trak **out, char *why) {
    char control[LT_PATH];
    struct trak *t;
    lt_say(why, "%s", "");
    int rc = make(root, &t);
    *out = NULL;
    if (rc < 0)
        return lt_refuse(-rc, why, "can't use the root directory: %s", strerror(-rc));
    t->ctx = t;
    t->seam.ioctl = real_ioctl;

    rc = lt_path(t, "/dev/trakctl", control, sizeof(control));
    if (rc == 0 && strcmp(t->root, "/") == 0) {
        rc = lt_make_control("/proc/trak/chr_major", control, mknod);
        /* The kernel module makes the nodes' files, but not the folder that they lie in. */
        if (rc == 0)
            rc = lt_make_folder("/dev/trak");
    }
    if (rc == 0) {
        t->fd = open(control, O_RDWR | O_CLOEXEC);
        rc = t->fd < 0 ? -errno : 0;
    }
    if (rc < 0) {
        rc = explain_open(t, rc, control, why);
        trak_close(t);
        return rc;
    }
    *out = t;
    return 0;
}

int trak_open_fn(const char *root, const struct trak_seam *seam, void *ctx, struct trak **out) {
    struct trak *t;
    *out = NULL;
    if (seam == NULL || seam->ioctl == NULL)
        return -EINVAL;
    int rc = make(root, &t);
    if (rc < 0)
        return rc;
    t->seam = *seam;
    t->ctx = ctx;
    *out = t;
    return 0;
}

void trak_close(struct trak *t) {
    if (t == NULL)
        return;
    if (t->fd >= 0)
        close(t->fd);
    pthread_mutex_destroy(&t->guard);
    free(t);
}

const char *trak_root(const struct trak *t) {
    return t->root;
}

int lt_command(struct trak *t, uint32_t code, void *record) {
    return t->seam.ioctl(t->ctx, code, record);
}

int lt_guard_lock(struct trak *t) {
    int rc = pthread_mutex_lock(&t->guard);
    if (rc != 0)
        return -rc;
    while (t->fd >= 0 && flock(t->fd, LOCK_EX) < 0) {
        if (errno == EINTR)
            continue;
        rc = -errno;
        pthread_mutex_unlock(&t->guard);
        return rc;
    }
    return 0;
}

void lt_guard_unlock(struct trak *t) {
    if (t->fd >= 0)
        flock(t->fd, LOCK_UN);
    pthread_mutex_unlock(&t->guard);
}
