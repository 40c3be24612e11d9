// daemon/ops.cpp: the handlers of requests from the kernel
// SPDX-License-Identifier: GPL-2.0-only
//
// Who runs what. A receiver runs names and attributes itself (they take leaf locks only) and
// submits reads, writes and flushes of nodes. Everything that enters the driver otherwise is
// posted to the workers: it may wait for locks that are held over I/O.
//
// Sizes of text files are shown as 0, as /proc does; they are opened for direct I/O, so that a
// reader goes on to the end all the same. A text is taken when it is read from its beginning.
#include <fcntl.h>
#include <linux/fuse.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <new>
#include <span>

#include "daemon/control.h"
#include "daemon/server.h"

namespace trakd {

namespace {

// Known to kernels from 6.2 on, others ignore it: writes of one file run side by side.
#ifndef FOPEN_PARALLEL_DIRECT_WRITES
#define FOPEN_PARALLEL_DIRECT_WRITES (1 << 6)
#endif

// Requests that the kernel has under way at once without a process waiting for each.
constexpr unsigned kBackground = 64;

Server *server_of(fuse_req_t req) {
    return static_cast<Server *>(fuse_req_userdata(req));
}

Handle *handle_of(const fuse_file_info *fi) {
    return reinterpret_cast<Handle *>(fi->fh);
}

void op_init(void *, fuse_conn_info *conn) {
    const unsigned wanted = FUSE_CAP_ASYNC_READ | FUSE_CAP_ASYNC_DIO | FUSE_CAP_ATOMIC_O_TRUNC |
                            FUSE_CAP_PARALLEL_DIROPS | FUSE_CAP_IOCTL_DIR;
    conn->want |= conn->capable & wanted;
    // Requests come through memory of our own (receivers.h), not through pipes.
    conn->want &= ~static_cast<unsigned>(FUSE_CAP_SPLICE_READ | FUSE_CAP_SPLICE_WRITE |
                                         FUSE_CAP_SPLICE_MOVE | FUSE_CAP_READDIRPLUS);
    conn->max_write = kMaxIo;
    conn->max_background = kBackground;
    conn->congestion_threshold = kBackground * 3 / 4;
}

void reply_entry(fuse_req_t req, const Entry &entry) {
    Tree &tree = server_of(req)->tree();
    fuse_entry_param param = {};
    param.ino = entry.ino;
    param.generation = 1;
    tree.stat(entry, &param.attr);
    tree.remember(entry);
    if (fuse_reply_entry(req, &param) != 0) {
        tree.forget(entry.ino, 1);
    }
}

void op_lookup(fuse_req_t req, fuse_ino_t parent, const char *name) {
    Entry entry;
    const int rc = server_of(req)->tree().lookup(parent, name, &entry);
    if (rc != 0) {
        fuse_reply_err(req, -rc);
        return;
    }
    reply_entry(req, entry);
}

void op_forget(fuse_req_t req, fuse_ino_t ino, std::uint64_t count) {
    server_of(req)->tree().forget(ino, count);
    fuse_reply_none(req);
}

void op_forget_multi(fuse_req_t req, std::size_t count, fuse_forget_data *forgets) {
    for (const fuse_forget_data &one : std::span(forgets, count)) {
        server_of(req)->tree().forget(one.ino, one.nlookup);
    }
    fuse_reply_none(req);
}

void reply_attr(fuse_req_t req, const Entry &entry) {
    struct stat st;
    server_of(req)->tree().stat(entry, &st);
    fuse_reply_attr(req, &st, 0);
}

void op_getattr(fuse_req_t req, fuse_ino_t ino, fuse_file_info *) {
    Entry entry;
    const int rc = server_of(req)->tree().get(ino, &entry);
    if (rc != 0) {
        fuse_reply_err(req, -rc);
        return;
    }
    reply_attr(req, entry);
}

// Sizes, owners and modes are what they are. A truncation on open is let pass, as devices and
// /proc do.
void op_setattr(fuse_req_t req, fuse_ino_t ino, struct stat *attr, int to_set, fuse_file_info *) {
    Entry entry;
    int rc = server_of(req)->tree().get(ino, &entry);
    if (rc == 0 && to_set == FUSE_SET_ATTR_SIZE) {
        const bool same = static_cast<std::uint64_t>(attr->st_size) == entry.size;
        rc = same || entry.what != What::kNode ? 0 : -EINVAL;
    } else if (rc == 0) {
        rc = -EPERM;
    }
    if (rc != 0) {
        fuse_reply_err(req, -rc);
        return;
    }
    reply_attr(req, entry);
}

void reply_open(fuse_req_t req, std::unique_ptr<Handle> handle, fuse_file_info fi) {
    Server *server = server_of(req);
    Handle *added = server->add(std::move(handle));
    // libfuse 3.14 has no field for the flag of parallel writes: the answer is put together here.
    fuse_open_out out = {};
    out.fh = reinterpret_cast<std::uint64_t>(added);
    out.open_flags = fi.direct_io != 0 ? FOPEN_DIRECT_IO | FOPEN_PARALLEL_DIRECT_WRITES : 0;
    if (fuse_reply_buf(req, reinterpret_cast<const char *>(&out), sizeof(out)) != 0) {
        // The opener is gone: no release will come.
        server->workers().post([server, added] {
            control_close(server, added);
            server->drop(added);
        });
    }
}

void op_opendir(fuse_req_t req, fuse_ino_t ino, fuse_file_info *fi) {
    auto handle = std::make_unique<Handle>();
    const int rc = server_of(req)->tree().list(ino, &handle->entries);
    if (rc != 0) {
        fuse_reply_err(req, -rc);
        return;
    }
    fi->direct_io = 0;
    reply_open(req, std::move(handle), *fi);
}

void op_readdir(fuse_req_t req, fuse_ino_t ino, std::size_t size, off_t offset,
                fuse_file_info *fi) {
    const Handle *handle = handle_of(fi);
    std::vector<char> buf(size);
    std::size_t used = 0;
    const auto add = [&](const char *name, Ino number, std::uint32_t mode, off_t next) {
        struct stat st = {};
        st.st_ino = number;
        st.st_mode = mode;
        const std::size_t need =
            fuse_add_direntry(req, buf.data() + used, size - used, name, &st, next);
        const bool fits = need <= size - used;
        used += fits ? need : 0;
        return fits;
    };
    for (std::size_t at = static_cast<std::size_t>(offset); at < handle->entries.size() + 2; ++at) {
        const off_t next = static_cast<off_t>(at + 1);
        const bool added =
            at < 2 ? add(at == 0 ? "." : "..", ino, S_IFDIR, next)
                   : add(handle->entries[at - 2].name.c_str(), handle->entries[at - 2].ino,
                         handle->entries[at - 2].mode, next);
        if (!added) {
            break;
        }
    }
    fuse_reply_buf(req, buf.data(), used);
}

void op_releasedir(fuse_req_t req, fuse_ino_t, fuse_file_info *fi) {
    server_of(req)->drop(handle_of(fi));
    fuse_reply_err(req, 0);
}

// Opens of the control device and of nodes run operations of the driver.
void op_open(fuse_req_t req, fuse_ino_t ino, fuse_file_info *fi) {
    Server *server = server_of(req);
    server->workers().post([server, req, ino, fi = *fi]() mutable {
        auto handle = std::make_unique<Handle>();
        const int rc = control_open(server, ino, fi.flags, fuse_req_ctx(req)->pid, handle.get());
        if (rc != 0) {
            fuse_reply_err(req, -rc);
            return;
        }
        fi.direct_io = 1;
        reply_open(req, std::move(handle), fi);
    });
}

void op_release(fuse_req_t req, fuse_ino_t, fuse_file_info *fi) {
    Server *server = server_of(req);
    Handle *handle = handle_of(fi);
    const bool is_node = handle->what == What::kNode;
    const os_dev_t dev = is_node ? handle->node.file->dev : 0;
    if (is_node) {
        server->release_asked(dev);
    }
    server->workers().post([=] {
        control_close(server, handle);
        server->drop(handle);
        if (is_node) {
            server->release_done(dev);
        }
        fuse_reply_err(req, 0);
    });
}

void op_read(fuse_req_t req, fuse_ino_t, std::size_t size, off_t offset, fuse_file_info *fi) {
    Server *server = server_of(req);
    Handle *handle = handle_of(fi);
    const auto from = static_cast<std::uint64_t>(offset);
    if (handle->what == What::kNode) {
        node_read(req, &handle->node, from, size);
        return;
    }
    server->workers().post([server, req, handle, from, size] {
        std::string text;
        const long rc = control_read(server, handle, from, size, fuse_req_ctx(req)->pid, &text);
        if (rc < 0) {
            fuse_reply_err(req, static_cast<int>(-rc));
        } else {
            fuse_reply_buf(req, text.data(), text.size());
        }
    });
}

void op_write(fuse_req_t req, fuse_ino_t, const char *data, std::size_t size, off_t offset,
              fuse_file_info *fi) {
    Server *server = server_of(req);
    Handle *handle = handle_of(fi);
    const auto to = static_cast<std::uint64_t>(offset);
    if (handle->what == What::kNode) {
        node_write(req, &handle->node, &server->workers(), to, data, size, fi->flags);
        return;
    }
    server->workers().post([server, req, handle, to, text = std::string(data, size)] {
        const long rc = control_write(server, handle, to, text, fuse_req_ctx(req)->pid);
        if (rc < 0) {
            fuse_reply_err(req, static_cast<int>(-rc));
        } else {
            fuse_reply_write(req, static_cast<std::size_t>(rc));
        }
    });
}

void op_fsync(fuse_req_t req, fuse_ino_t, int, fuse_file_info *fi) {
    Handle *handle = handle_of(fi);
    if (handle->what != What::kNode) {
        fuse_reply_err(req, EINVAL);
        return;
    }
    node_fsync(req, &handle->node);
}

// What a loop device sends for a discard: the range reads as zeroes afterwards.
void op_fallocate(fuse_req_t req, fuse_ino_t, int mode, off_t offset, off_t length,
                  fuse_file_info *fi) {
    Handle *handle = handle_of(fi);
    const int zeroing = mode & (FALLOC_FL_PUNCH_HOLE | FALLOC_FL_ZERO_RANGE);
    const int known = FALLOC_FL_PUNCH_HOLE | FALLOC_FL_ZERO_RANGE | FALLOC_FL_KEEP_SIZE;
    if (handle->what != What::kNode || zeroing == 0 || (mode & ~known) != 0) {
        fuse_reply_err(req, EOPNOTSUPP);
        return;
    }
    server_of(req)->workers().post([req, handle, offset, length] {
        const int rc = node_zero(&handle->node, static_cast<std::uint64_t>(offset),
                                 static_cast<std::uint64_t>(length));
        fuse_reply_err(req, -rc);
    });
}

void op_ioctl(fuse_req_t req, fuse_ino_t, unsigned cmd, void *arg, fuse_file_info *fi,
              unsigned flags, const void *in, std::size_t in_size, std::size_t out_size) {
    Server *server = server_of(req);
    Handle *handle = handle_of(fi);
    // The driver has no commands for 32-bit programs on a 64-bit kernel.
    const bool foreign = (flags & FUSE_IOCTL_COMPAT) != 0;
    if ((flags & FUSE_IOCTL_DIR) != 0 || foreign ||
        (handle->what != What::kControl && handle->what != What::kNode)) {
        fuse_reply_err(req, ENOTTY);
        return;
    }
    std::vector<std::uint8_t> record(std::max(in_size, out_size));
    if (in_size != 0) {
        std::memcpy(record.data(), in, in_size);
    }
    server->workers().post([=, record = std::move(record)]() mutable {
        const int rc =
            control_ioctl(server, req, handle, cmd, reinterpret_cast<std::uintptr_t>(arg), &record);
        if (rc < 0) {
            fuse_reply_err(req, -rc);
        } else {
            fuse_reply_ioctl(req, rc, out_size != 0 ? record.data() : nullptr, out_size);
        }
    });
}

void op_statfs(fuse_req_t req, fuse_ino_t) {
    struct statvfs st = {};
    st.f_bsize = st.f_frsize = kPage;
    st.f_namemax = NAME_MAX;
    fuse_reply_statfs(req, &st);
}

constexpr fuse_lowlevel_ops make_ops() {
    fuse_lowlevel_ops ops = {};
    ops.init = op_init;
    ops.lookup = op_lookup;
    ops.forget = op_forget;
    ops.forget_multi = op_forget_multi;
    ops.getattr = op_getattr;
    ops.setattr = op_setattr;
    ops.opendir = op_opendir;
    ops.readdir = op_readdir;
    ops.releasedir = op_releasedir;
    ops.open = op_open;
    ops.release = op_release;
    ops.read = op_read;
    ops.write = op_write;
    ops.fsync = op_fsync;
    ops.fallocate = op_fallocate;
    ops.ioctl = op_ioctl;
    ops.statfs = op_statfs;
    return ops;
}

}  // namespace

const fuse_lowlevel_ops kOps = make_ops();

}  // namespace trakd
