/* lib/where.c: which device a path lies on, and whether the way down leads through a node */
/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * From a path to the devices under it, step by step, at most DEPTH steps:
 *   1. the path (or its deepest existing ancestor) has the device number of its file system;
 *   2. a number of the driver's block major is a node (kernel module only: trakd has no block
 *      devices of its own);
 *   3. a loop device stands on a backing file: one in trakd's tree is a node, another is a path
 *      again; a partition of a loop device stands on the whole one;
 *   4. a stacked device (device mapper, RAID) stands on each of its slaves;
 *   5. a file system with no device number of its own names its source, or the directory that it
 *      lays over, in the mount table.
 * What can't be read counts as not leading to a node: the driver has the last word.
 */
#include "lib/trak_int.h"

#include <dirent.h>
#include <errno.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#define DEPTH 12
#define NODE_SIZE 128

static int path_on_node(struct trak *t, const char *path, int depth, char *node);
static int device_on_node(struct trak *t, dev_t dev, int depth, char *node);

static void name_node(char *node, const char *name, size_t len) {
    if (node != NULL)
        snprintf(node, NODE_SIZE, "%.*s", (int)(len < NODE_SIZE ? len : NODE_SIZE - 1), name);
}

/* trakd: whether a backing file lies in its tree, by device number or, where it can't be reached
 * from here, by name. */
static int backing_is_node(struct trak *t, const char *path, char *node) {
    char root[PATH_MAX];
    struct stat of_root, of_file;
    if (strcmp(t->root, "/") == 0)
        return 0;
    const char *base = strrchr(path, '/');
    base = base != NULL ? base + 1 : path;
    if (t->stat(t->root, &of_root) == 0 && t->stat(path, &of_file) == 0) {
        /* A root that is no mount of its own shares its number with half of the machine. */
        char up[LT_PATH + 4];
        struct stat of_up;
        snprintf(up, sizeof(up), "%s/..", t->root);
        if (of_file.st_dev == of_root.st_dev && t->stat(up, &of_up) == 0 &&
            of_up.st_dev != of_root.st_dev) {
            name_node(node, base, strlen(base));
            return 1;
        }
    }
    if (realpath(t->root, root) == NULL)
        snprintf(root, sizeof(root), "%s", t->root);
    size_t len = strlen(root);
    static const char nodes[] = "/dev/trak/";
    if (strncmp(path, root, len) != 0 || strncmp(path + len, nodes, sizeof(nodes) - 1) != 0)
        return 0;
    size_t name_len = strcspn(base, " "); /* "NAME (deleted)" */
    name_node(node, base, name_len);
    return 1;
}

/* Read <sysfs directory>/<file>. */
static int read_sys(const char *dir, const char *file, char *text, size_t size) {
    char path[2 * LT_PATH];
    int n = snprintf(path, sizeof(path), "%s/%s", dir, file);
    if (n < 0 || (size_t)n >= sizeof(path))
        return -ENAMETOOLONG;
    return lt_read_text(path, text, size);
}

static int loop_on_node(struct trak *t, const char *sys, int depth, char *node) {
    char backing[LT_PATH];
    struct stat st;
    if (read_sys(sys, "loop/backing_file", backing, sizeof(backing)) <= 0 || backing[0] != '/')
        return 0;
    if (backing_is_node(t, backing, node))
        return 1;
    if (t->stat(backing, &st) < 0)
        return 0;
    if (S_ISBLK(st.st_mode))
        return device_on_node(t, st.st_rdev, depth - 1, node);
    return path_on_node(t, backing, depth - 1, node);
}

static int slaves_on_node(struct trak *t, const char *sys, int depth, char *node) {
    char path[2 * LT_PATH], text[64];
    int found = 0;
    snprintf(path, sizeof(path), "%s/slaves", sys);
    DIR *dir = opendir(path);
    if (dir == NULL)
        return 0;
    struct dirent *entry;
    while (!found && (entry = readdir(dir)) != NULL) {
        unsigned ma, mi;
        char file[300];
        if (entry->d_name[0] == '.')
            continue;
        snprintf(file, sizeof(file), "slaves/%s/dev", entry->d_name);
        if (read_sys(sys, file, text, sizeof(text)) > 0 && sscanf(text, "%u:%u", &ma, &mi) == 2)
            found = device_on_node(t, makedev(ma, mi), depth - 1, node);
    }
    closedir(dir);
    return found;
}

static int block_on_node(struct trak *t, dev_t dev, int depth, char *node) {
    int64_t blk_major;
    if (strcmp(t->root, "/") == 0 && trak_status_number(t, "blk_major", &blk_major) == 0 &&
        blk_major == (int64_t)major(dev)) {
        char name[NODE_SIZE];
        snprintf(name, sizeof(name), "trak%u", minor(dev));
        name_node(node, name, strlen(name));
        return 1;
    }
    char link[LT_PATH], sys[PATH_MAX], text[32];
    snprintf(link, sizeof(link), "%s/sys/dev/block/%u:%u", t->host, major(dev), minor(dev));
    if (realpath(link, sys) == NULL)
        return 0;
    if (read_sys(sys, "partition", text, sizeof(text)) > 0) {
        char *slash = strrchr(sys, '/');
        if (slash != NULL)
            *slash = '\0';
    }
    return loop_on_node(t, sys, depth, node) || slaves_on_node(t, sys, depth, node);
}

/* Undo the mount table's octal escapes in place. */
static void unescape(char *text) {
    char *to = text;
    for (char *p = text; *p != '\0'; p++) {
        if (p[0] == '\\' && p[1] >= '0' && p[1] <= '3' && p[2] >= '0' && p[2] <= '7' &&
            p[3] >= '0' && p[3] <= '7') {
            *to++ = (char)((p[1] - '0') << 6 | (p[2] - '0') << 3 | (p[3] - '0'));
            p += 3;
        } else {
            *to++ = *p;
        }
    }
    *to = '\0';
}

/* One line of the mount table whose file system has no device: what lies under it. */
static int mount_on_node(struct trak *t, char *line, int depth, char *node) {
    char *rest = strstr(line, " - "), *save = NULL;
    if (rest == NULL)
        return 0;
    char *type = strtok_r(rest + 3, " \n", &save);
    char *source = strtok_r(NULL, " \n", &save), *options = strtok_r(NULL, " \n", &save);
    struct stat st;
    if (type == NULL || source == NULL)
        return 0;
    unescape(source);
    if (source[0] == '/' && t->stat(source, &st) == 0 && S_ISBLK(st.st_mode))
        return device_on_node(t, st.st_rdev, depth - 1, node);
    char *upper = options != NULL ? strstr(options, "upperdir=") : NULL;
    if (strcmp(type, "overlay") != 0 || upper == NULL)
        return 0;
    upper += strlen("upperdir=");
    upper[strcspn(upper, ",")] = '\0';
    unescape(upper);
    return path_on_node(t, upper, depth - 1, node);
}

static int anonymous_on_node(struct trak *t, dev_t dev, int depth, char *node) {
    char path[LT_PATH], *line = NULL;
    size_t size = 0;
    int found = 0;
    snprintf(path, sizeof(path), "%s/proc/self/mountinfo", t->host);
    FILE *table = fopen(path, "re");
    if (table == NULL)
        return 0;
    while (!found && getline(&line, &size, table) > 0) {
        unsigned ma, mi;
        if (sscanf(line, "%*u %*u %u:%u", &ma, &mi) == 2 && makedev(ma, mi) == dev)
            found = mount_on_node(t, line, depth, node);
    }
    free(line);
    fclose(table);
    return found;
}

static int device_on_node(struct trak *t, dev_t dev, int depth, char *node) {
    if (depth <= 0)
        return 0;
    return major(dev) == 0 ? anonymous_on_node(t, dev, depth, node)
                           : block_on_node(t, dev, depth, node);
}

/* Cut the path back until it exists: 0, or the error of the last look. */
static int existing(struct trak *t, char *path, struct stat *st) {
    for (;;) {
        int rc = t->stat(path, st);
        if (rc != -ENOENT && rc != -ENOTDIR)
            return rc;
        char *slash = strrchr(path, '/');
        if (slash == NULL || strcmp(path, "/") == 0)
            return rc;
        slash[slash == path ? 1 : 0] = '\0';
    }
}

static int path_on_node(struct trak *t, const char *path, int depth, char *node) {
    char copy[LT_PATH];
    struct stat st;
    if (depth <= 0 || strlen(path) >= sizeof(copy))
        return 0;
    strcpy(copy, path);
    return existing(t, copy, &st) == 0 && device_on_node(t, st.st_dev, depth, node);
}

int trak_place(struct trak *t, const char *path, char *node) {
    char full[LT_PATH];
    struct stat st;
    if (node != NULL)
        node[0] = '\0';
    if (t->seam.place != NULL)
        return t->seam.place(t->ctx, path, node);
    int rc = lt_absolute(t, path, LT_MAY_EXIST, full, sizeof(full));
    if (rc == 0)
        rc = existing(t, full, &st);
    if (rc < 0)
        return rc;
    /* trakd's own tree: what is written there comes back to the driver as well. */
    if (backing_is_node(t, full, node))
        return 1;
    if (device_on_node(t, st.st_dev, DEPTH, node))
        return 1;
    return major(st.st_dev) == 0 ? 2 : 0;
}

int lt_absolute(struct trak *t, const char *path, int must_exist, char *out, size_t size) {
    char copy[LT_PATH], resolved[PATH_MAX];
    if (t->seam.place != NULL) { /* paths of another machine */
        int n = snprintf(out, size, "%s", path);
        return (size_t)n < size ? 0 : -ENAMETOOLONG;
    }
    if (path[0] == '\0')
        return -ENOENT;
    if (strlen(path) >= sizeof(copy))
        return -ENAMETOOLONG;
    if (realpath(path, resolved) != NULL) {
        int n = snprintf(out, size, "%s", resolved);
        return (size_t)n < size ? 0 : -ENAMETOOLONG;
    }
    if (errno != ENOENT || must_exist)
        return -errno;
    /* The file may be made later: its directory must be there. */
    strcpy(copy, path);
    char *slash = strrchr(copy, '/');
    const char *name = slash != NULL ? slash + 1 : copy;
    const char *dir = slash == NULL ? "." : slash == copy ? "/" : copy;
    char base[NAME_MAX + 1];
    if (name[0] == '\0' || strlen(name) > NAME_MAX)
        return name[0] == '\0' ? -ENOENT : -ENAMETOOLONG;
    strcpy(base, name);
    if (slash != NULL && slash != copy)
        *slash = '\0';
    if (realpath(dir, resolved) == NULL)
        return -errno;
    int n = snprintf(out, size, "%s/%s", strcmp(resolved, "/") == 0 ? "" : resolved, base);
    return (size_t)n < size ? 0 : -ENAMETOOLONG;
}
