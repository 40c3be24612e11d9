/* lib/marker.c: the session marker's file and text */
/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * That the file is there is all that counts; its text only serves sentences for people and lets a
 * session know its own marker again (key=value lines, see docs/format.md). So an empty or torn
 * marker is a marker of another session, which is the safe reading. It is rewritten in place: at
 * no time is there none.
 */
#include "lib/trak_int.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

/* Make the names in the file's directory durable. */
static int sync_dir(const char *path) {
    char dir[LT_PATH];
    int n = snprintf(dir, sizeof(dir), "%s", path);
    if (n < 0 || (size_t)n >= sizeof(dir))
        return -ENAMETOOLONG;
    char *slash = strrchr(dir, '/');
    if (slash == NULL)
        return -EINVAL;
    slash[slash == dir ? 1 : 0] = '\0';
    int fd = open(dir, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
        return -errno;
    int rc = fsync(fd) < 0 ? -errno : 0;
    close(fd);
    return rc;
}

int lt_marker_read(struct trak *t, const char *path, char *text, size_t size) {
    text[0] = '\0';
    if (t->seam.marker_read != NULL)
        return t->seam.marker_read(t->ctx, path, text, size);
    /* Not followed and not waited for: a link or a pipe in its place is an error, not a hang. */
    int fd = open(path, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (fd < 0)
        return -errno;
    ssize_t n = read(fd, text, size - 1);
    int rc = n < 0 ? -errno : (int)n;
    text[n > 0 ? n : 0] = '\0';
    close(fd);
    return rc;
}

static int write_all(int fd, const char *text, size_t len) {
    while (len > 0) {
        ssize_t n = write(fd, text, len);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return n < 0 ? -errno : -EIO;
        text += n;
        len -= (size_t)n;
    }
    return 0;
}

int lt_marker_write(struct trak *t, const char *path, const char *text) {
    if (t->seam.marker_write != NULL)
        return t->seam.marker_write(t->ctx, path, text);
    struct stat st;
    int fd = open(path, O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600);
    if (fd < 0)
        return -errno;
    int rc = 0;
    if (fstat(fd, &st) < 0)
        rc = -errno;
    else if (!S_ISREG(st.st_mode))
        rc = -EEXIST;
    if (rc == 0 && ftruncate(fd, 0) < 0)
        rc = -errno;
    if (rc == 0)
        rc = write_all(fd, text, strlen(text));
    if (rc == 0 && fsync(fd) < 0)
        rc = -errno;
    if (close(fd) < 0 && rc == 0)
        rc = -errno;
    return rc == 0 ? sync_dir(path) : rc;
}

int lt_marker_remove(struct trak *t, const char *path) {
    if (t->seam.marker_remove != NULL)
        return t->seam.marker_remove(t->ctx, path);
    /* The bitmap files' own names first: they must not be newer than the marker's absence. */
    int rc = sync_dir(path);
    if (rc < 0)
        return rc;
    if (unlink(path) < 0)
        return errno == ENOENT ? 0 : -errno;
    return sync_dir(path);
}

int lt_session(struct trak *t, char *text, size_t size) {
    char path[LT_PATH], boot[64];
    if (t->seam.session != NULL)
        return t->seam.session(t->ctx, text, size);
    int rc = lt_path(t, "/session", path, sizeof(path));
    /* trakd says who it is. The kernel module can end without order only with the kernel. */
    if (rc == 0 && strcmp(t->root, "/") != 0) {
        rc = lt_read_text(path, text, size);
        if (rc > 0)
            return rc;
    }
    snprintf(path, sizeof(path), "%s/proc/sys/kernel/random/boot_id", t->host);
    rc = lt_read_text(path, boot, sizeof(boot));
    if (rc <= 0)
        return rc < 0 ? rc : -EIO;
    rc = snprintf(text, size, "boot-%s", boot);
    return rc > 0 && (size_t)rc < size ? rc : -EIO;
}

int lt_marker_value(const char *text, const char *key, char *value, size_t size) {
    size_t key_len = strlen(key);
    value[0] = '\0';
    for (const char *line = text; line != NULL && *line != '\0';) {
        const char *end = strchr(line, '\n');
        /* A line without its end is torn. */
        if (end == NULL)
            break;
        if (strncmp(line, key, key_len) == 0 && line[key_len] == '=') {
            const char *from = line + key_len + 1;
            size_t len = (size_t)(end - from);
            if (len >= size)
                len = size - 1;
            memcpy(value, from, len);
            value[len] = '\0';
            return 0;
        }
        line = end + 1;
    }
    return -ENOENT;
}
