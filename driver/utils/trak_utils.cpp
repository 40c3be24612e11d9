// driver/utils/trak_utils.cpp: files, paths and disks from kernel context
// SPDX-License-Identifier: GPL-2.0-only
#include "driver/utils/trak_utils.h"

#include "driver/module/log.h"
#include "driver/utils/string.h"
#include "os/lock.h"
#include "os/memory.h"
#include "os/task.h"

namespace {

// The handle and its copy of the path, or null.
trak_file *new_handle(const char *path) {
    const std::size_t size = trak_strlen(path) + 1;
    auto *file = static_cast<trak_file *>(os_kzalloc(sizeof(trak_file), OS_GFP_KERNEL));
    if (file == nullptr)
        return nullptr;
    file->fname = static_cast<char *>(os_kmalloc(size, OS_GFP_KERNEL));
    if (file->fname == nullptr) {
        os_kfree(file);
        return nullptr;
    }
    memcpy(file->fname, path, size);
    return file;
}

void free_handle(trak_file *file) {
    os_kfree(file->fname);
    os_kfree(file);
}

const char *access_name(int flags) {
    switch (flags & OS_O_ACCMODE) {
    case OS_O_RDONLY:
        return "reading";
    case OS_O_WRONLY:
        return "writing";
    default:
        return "reading and writing";
    }
}

bool is_open(const trak_file *file) {
    return file != nullptr && file->filp != nullptr && !os_is_err(file->filp);
}

}  // namespace

trak_file *trak_fopen(const char *path, int flags, int mode) {
    OS_BUG_ON(path == nullptr);
    trak_file *file = new_handle(path);
    if (file == nullptr) {
        trak_logf(TRAK_LOG_ERROR, "%s(): Memory allocation failed.");
        return nullptr;
    }
    os_file *filp = os_filp_open(path, flags, mode);
    if (os_is_err(filp)) {
        trak_logf(TRAK_LOG_ERROR, "%s(): Failed to open file %s for %s: errno=%d", path,
                  access_name(flags), os_ptr_err(filp));
        free_handle(file);
        return nullptr;
    }
    file->filp = filp;
    return file;
}

int trak_fclose(trak_file *file) {
    const int rc = is_open(file) ? os_filp_close(file->filp) : 0;
    free_handle(file);
    return rc;
}

int trak_fwrite(trak_file *file, std::int64_t offset, const void *buf, int count) {
    if (!is_open(file)) {
        trak_logf(TRAK_LOG_ERROR, "%s(): NULL or invalid file pointer passed as input!");
        return -EINVAL;
    }
    const auto *from = static_cast<const char *>(buf);
    std::int64_t pos = offset;
    int left = count > 0 ? count : 0;
    int total = 0;
    while (left > 0) {
        const auto rc = static_cast<int>(
            os_vfs_write(file->filp, from + total, static_cast<std::size_t>(left), &pos));
        if (rc < 0) {
            trak_logf(TRAK_LOG_ERROR, "%s(): Failed to write %d bytes into %s: rc=%d", left,
                      file->fname, rc);
            return rc;
        }
        if (rc == 0) {
            trak_logf(TRAK_LOG_ERROR, "%s(): Short write into %s: wrote %d instead of %d",
                      file->fname, total, count);
            return -EIO;
        }
        left -= rc;
        total += rc;
    }
    return total;
}

int trak_fwrite_pages(trak_file *file, std::int64_t offset, os_page *const *pages,
                      std::uint32_t count) {
    constexpr const char *me = "trak_fwrite";
    if (!is_open(file)) {
        trak_log(TRAK_LOG_ERROR, "%s(): NULL or invalid file pointer passed as input!", me);
        return -EINVAL;
    }
    std::int64_t pos = offset;
    while (count > 0) {
        const auto rc = static_cast<int>(os_vfs_write_pages(file->filp, pages, count, &pos));
        if (rc < 0) {
            trak_log(TRAK_LOG_ERROR, "%s(): Failed to write %d bytes into %s: rc=%d", me,
                     OS_PAGE_SIZE, file->fname, rc);
            return rc;
        }
        if (rc == 0) {
            trak_log(TRAK_LOG_ERROR, "%s(): Short write into %s: wrote %d instead of %d", me,
                     file->fname, 0, OS_PAGE_SIZE);
            return -EIO;
        }
        const int part = rc % OS_PAGE_SIZE;
        pages += rc / OS_PAGE_SIZE;
        count -= static_cast<std::uint32_t>(rc / OS_PAGE_SIZE);
        if (part == 0)
            continue;
        const auto *from = static_cast<const char *>(os_page_address(*pages)) + part;
        const int put = trak_fwrite(file, pos, from, OS_PAGE_SIZE - part);
        if (put < 0)
            return put;
        pos += put;
        ++pages;
        --count;
    }
    return 0;
}

int trak_fread(trak_file *file, std::int64_t offset, void *buf, int count) {
    if (!is_open(file)) {
        trak_logf(TRAK_LOG_ERROR, "%s(): NULL or invalid file pointer passed as input!");
        return -EINVAL;
    }
    auto *to = static_cast<char *>(buf);
    std::int64_t pos = offset;
    int left = count > 0 ? count : 0;
    int total = 0;
    while (left > 0) {
        const auto rc = static_cast<int>(
            os_vfs_read(file->filp, to + total, static_cast<std::size_t>(left), &pos));
        if (rc < 0) {
            trak_logf(TRAK_LOG_ERROR, "%s(): Failed to read %d bytes from %s: rc=%d", left,
                      file->fname, rc);
            return rc;
        }
        if (rc == 0) {
            // Not an error here: the caller compares what it got with what it asked for.
            trak_logf(TRAK_LOG_ERROR, "%s(): Unexpected EOF while trying to read %d bytes from %s",
                      left, file->fname);
            return total;
        }
        left -= rc;
        total += rc;
    }
    return total;
}

int trak_fsync(trak_file *file) {
    OS_BUG_ON(file == nullptr);
    return file->filp != nullptr ? os_vfs_fsync(file->filp) : 0;
}

int trak_ftruncate(const char *path) {
    trak_file *file = trak_fopen(path, OS_O_RDWR | OS_O_TRUNC | OS_O_LARGEFILE, 0600);
    if (file != nullptr)
        trak_fclose(file);
    return 0;
}

os_dentry *trak_get_file_dentry(const char *path, int follow) {
    OS_BUG_ON(path == nullptr);
    if (path[0] != '/') {
        trak_logf(TRAK_LOG_ERROR, "%s(): Can't lookup %s: must be an absolute path.", path);
        return static_cast<os_dentry *>(os_err_ptr(-EINVAL));
    }
    os_dentry *dentry = os_path_lookup(path, follow);
    if (dentry == nullptr || os_is_err(dentry))
        return dentry;
    if (!os_dentry_positive(dentry)) {
        os_dput(dentry);
        return nullptr;
    }
    trak_logf(TRAK_LOG_COMMAND, "%s(): %s: dentry=(%p, %s), inode=(%p, %d)", path,
              static_cast<void *>(dentry), os_dentry_name(dentry), os_dentry_inode(dentry),
              static_cast<int>(os_dentry_ino(dentry)));
    return dentry;
}

os_dev_t trak_get_file_devt(const char *path) {
    if (path[0] != '/')
        return 0;  // no cut would ever shorten it to nothing
    const std::size_t size = trak_strlen(path) + 1;
    auto *prefix = static_cast<char *>(os_kmalloc(size, OS_GFP_KERNEL));
    if (prefix == nullptr) {
        trak_logf(TRAK_LOG_ERROR, "%s(): Memory allocation failed.");
        return 0;
    }
    memcpy(prefix, path, size);
    os_dev_t dev = 0;
    while (prefix[0] != '\0') {
        os_dentry *dentry = trak_get_file_dentry(prefix, 0);
        if (dentry != nullptr && !os_is_err(dentry)) {
            dev = os_dentry_sb_dev(dentry);
            os_dput(dentry);
            break;
        }
        *trak_strrchr(prefix, '/') = '\0';
    }
    os_kfree(prefix);
    return dev;
}

os_dentry *trak_lookup_create(os_parent *parent) {
    os_parent_lock(parent);
    if (!os_parent_last_is_normal(parent))
        return static_cast<os_dentry *>(os_err_ptr(-EEXIST));
    os_dentry *dentry = os_lookup_hash(parent);
    if (os_is_err(dentry))
        return dentry;
    if (os_parent_last_has_tail(parent) && !os_dentry_positive(dentry)) {
        os_dput(dentry);
        return static_cast<os_dentry *>(os_err_ptr(-ENOENT));
    }
    return dentry;
}

// Looks the parent and the last component up for trak_unlink and trak_mknod, whose name it logs
// under. 0: *parent is locked and both are the caller's (put_entry). Else nothing is held.
static int get_entry(const char *function, const char *path, os_parent **parent,
                     os_dentry **dentry) {
    *parent = os_path_parent(path);
    if (os_is_err(*parent)) {
        const int rc = os_ptr_err(*parent);
        trak_log(TRAK_LOG_ERROR, "%s(): Failed to lookup parent of %s: rc=%d", function, path, rc);
        return rc;
    }
    *dentry = trak_lookup_create(*parent);
    if (os_is_err(*dentry)) {
        const int rc = os_ptr_err(*dentry);
        trak_log(TRAK_LOG_ERROR, "%s(): Failed to lookup %s: rc=%d", function, path, rc);
        os_parent_unlock(*parent);
        os_parent_put(*parent);
        return rc;
    }
    return 0;
}

static void put_entry(os_parent *parent, os_dentry *dentry) {
    os_dput(dentry);
    os_parent_unlock(parent);
    os_parent_put(parent);
}

int trak_unlink(const char *path) {
    trak_logf(TRAK_LOG_DETAIL, "%s(): fname=%s", path);
    os_parent *parent;
    os_dentry *dentry;
    int rc = get_entry(__func__, path, &parent, &dentry);
    if (rc != 0)
        return rc;
    rc = os_vfs_unlink(parent, dentry);
    if (rc != 0 && rc != -ENOENT)
        trak_logf(TRAK_LOG_ERROR, "%s(): Failed to unlink %s: rc=%d", path, rc);
    put_entry(parent, dentry);
    return rc;
}

int trak_mknod(const char *path, int block, int major, int minor) {
    trak_logf(TRAK_LOG_DETAIL, "%s(): fname=%s, block=%d, dev=(%d, %d)", path, block, major, minor);
    os_parent *parent;
    os_dentry *dentry;
    int rc = get_entry(__func__, path, &parent, &dentry);
    if (rc != 0)
        return rc;
    const std::uint32_t type = block != 0 ? OS_S_IFBLK : OS_S_IFCHR;
    rc = os_vfs_mknod(
        parent, dentry, type | 0600,
        os_mkdev(static_cast<std::uint32_t>(major), static_cast<std::uint32_t>(minor)));
    if (rc != 0)
        trak_logf(TRAK_LOG_ERROR, "%s(): Failed to mknod %s: rc=%d", path, rc);
    put_entry(parent, dentry);
    return rc;
}

os_bdev *trak_open_bdev(os_dev_t dev, std::uint32_t mode) {
    os_bdev *bdev = os_open_by_devnum(dev, mode);
    return os_is_err(bdev) ? nullptr : bdev;
}

void trak_close_bdev(os_bdev *bdev) {
    // Callers don't remember the mode that they opened with.
    os_blkdev_put(bdev, OS_FMODE_READ | OS_FMODE_WRITE);
}

int trak_is_mounted(os_bdev *bdev) {
    os_super *super = os_get_super(bdev);
    if (super == nullptr)
        return 0;
    os_drop_super(super);
    return 1;
}

void trak_bio_complete(os_bio *bio, int /*error*/) {
    os_complete(static_cast<os_completion *>(os_bio_private(bio)));
}

// Reads one block into the page with a bio that is used again for the next: true when it arrived.
static bool read_block(os_bdev *bdev, os_bio *bio, os_page *page, int size, std::int64_t block) {
    os_completion done;
    os_init_completion(&done);
    // The product wraps as the bytes of an absurd block number do; the device then refuses it.
    const auto offset = static_cast<std::int64_t>(static_cast<std::uint64_t>(block) *
                                                  static_cast<std::uint64_t>(size));
    os_bio_reset(bio);
    os_bio_set_bdev(bio, bdev);
    os_bio_set_sector(bio, static_cast<std::uint64_t>(offset / OS_SECTOR_SIZE));
    os_bio_set_end_io(bio, trak_bio_complete);
    os_bio_set_private(bio, &done);
    if (!os_bio_add_page(bio, page, static_cast<std::uint32_t>(size), 0))
        return false;
    os_submit_bio(0, bio);
    os_queue_unplug(os_bdev_queue(bdev));
    os_wait_for_completion(&done);
    return os_bio_uptodate(bio);
}

int trak_bread(os_bdev *bdev, void *buf, int size, std::int64_t block, int count) {
    OS_BUG_ON(bdev == nullptr || buf == nullptr);
    if (static_cast<std::uint32_t>(size) > OS_PAGE_SIZE) {
        trak_logf(TRAK_LOG_ERROR, "%s(): Block size cannot be larger than page size (%d)",
                  OS_PAGE_SIZE);
        return -EINVAL;
    }
    os_page *page = os_alloc_page(OS_GFP_KERNEL);
    os_bio *bio = page != nullptr ? os_bio_alloc(OS_GFP_KERNEL, 1) : nullptr;
    if (bio == nullptr) {
        if (page != nullptr)
            os_free_page(page);
        trak_logf(TRAK_LOG_ERROR, "%s(): Memory allocation failed.");
        return -ENOMEM;
    }
    auto *to = static_cast<char *>(buf);
    int rc = 0;
    for (int i = 0; i < count && size > 0; ++i) {
        const auto number = static_cast<std::int64_t>(static_cast<std::uint64_t>(block) +
                                                      static_cast<std::uint64_t>(i));
        if (!read_block(bdev, bio, page, size, number)) {
            trak_logf(TRAK_LOG_ERROR, "%s(): Failed to read %d-byte block #%lld", size,
                      static_cast<long long>(number));
            rc = -EIO;
            break;
        }
        os_cond_resched();
        memcpy(to, os_page_address(page), static_cast<std::size_t>(size));
        to += size;
    }
    os_bio_put(bio);
    os_free_page(page);
    return rc;
}
