// agent/restore.cpp: a point of a chain, written to a file or a disk
// SPDX-License-Identifier: GPL-2.0-only
#include "agent/restore.h"

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <fmt/format.h>
#include <linux/fs.h>
#include <nlohmann/json.hpp>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace agent {
namespace {

// Where a point is written to.
class Target {
  public:
    Target(const RestoreOptions &options, uint64_t size) : path_(options.to), size_(size) {
        struct stat st;
        bool there = stat(path_.c_str(), &st) == 0;
        disk_ = there && S_ISBLK(st.st_mode);
        if (there && !disk_ && !S_ISREG(st.st_mode))
            throw Failure(fmt::format("{} is neither a file nor a disk", path_), EINVAL);
        if (there && !options.force)
            throw Failure(
                fmt::format("{} is there: --force overwrites {}", path_, disk_ ? "the disk" : "it"),
                EEXIST);
        if (disk_)
            open_disk();
        else
            open_file();
    }

    ~Target() {
        if (!partial_.empty())
            unlink(partial_.c_str());
    }

    // Why it is worth nothing when the restore ends before finish(): a file is taken back, a disk
    // is not. Empty: nothing was written.
    std::string harm() const {
        return touched_ ? fmt::format("{} is overwritten in part: restore it again", path_) : "";
    }

    void data(uint64_t offset, const uint8_t *bytes, size_t size) {
        touched_ = disk_;
        files::write_at(fd_.get(), bytes, size, offset, path_);
    }

    void zeros(uint64_t offset, uint64_t size) {
        if (!disk_)
            return;  // a new file holds nothing else
        touched_ = true;
        uint64_t range[2] = {offset, size};
        if (ioctl(fd_.get(), BLKZEROOUT, range) == 0)
            return;
        std::vector<uint8_t> nothing(1 << 20);
        for (uint64_t at = 0; at < size; at += nothing.size())
            data(offset + at, nothing.data(), std::min<uint64_t>(nothing.size(), size - at));
    }

    void finish() {
        files::sync_file(fd_.get(), path_);
        if (disk_)
            return;
        files::rename_file(partial_, path_);
        partial_.clear();
        files::sync_path(files::folder_of(path_));
    }

  private:
    void open_disk() {
        // O_EXCL: not while it is mounted.
        fd_ = files::open_file(path_, O_RDWR | O_EXCL, 0);
        uint64_t there = 0;
        if (ioctl(fd_.get(), BLKGETSIZE64, &there) < 0)
            throw Failure(fmt::format("can't see the size of {}: {}", path_, strerror(errno)),
                          errno);
        if (there < size_)
            throw Failure(fmt::format("{} has {} bytes, and the backup {}", path_, there, size_),
                          ENOSPC);
    }

    void open_file() {
        std::string partial = path_ + ".partial";
        fd_ = files::open_file(partial, O_RDWR | O_CREAT | O_TRUNC | O_NOFOLLOW, 0600);
        partial_ = partial;
        if (ftruncate(fd_.get(), static_cast<off_t>(size_)) < 0)
            throw Failure(fmt::format("can't size {}: {}", partial, strerror(errno)), errno);
    }

    std::string path_, partial_;
    files::Fd fd_;
    uint64_t size_;
    bool disk_ = false, touched_ = false;
};

PointOutcome write_point(ImageTool &images, Events &events, const Store &store,
                         const Manifest &point, Target &target) {
    PointJob job;
    job.images = &images;
    job.store = &store;
    job.point = &point;
    job.data = [&](uint64_t offset, const uint8_t *data, size_t size) {
        target.data(offset, data, size);
    };
    job.zeros = [&](uint64_t offset, uint64_t size) { target.zeros(offset, size); };
    job.turn = [&](uint64_t done, uint64_t total) {
        check_interrupt();
        events.progress("restore", done, total, false);
    };
    PointOutcome outcome = read_point(job);
    events.progress("restore", point.node.size, point.node.size, true);
    return outcome;
}

}  // namespace

int restore(ImageTool &images, Events &events, const RestoreOptions &options) {
    Store store(options.store, Store::existing);
    files::Fd lock = store.lock_for_reading();
    if (!store.head_fault().empty())
        events.notice(store.head_fault());
    const Manifest &point = store.point(options.point);
    Target target(options, point.node.size);
    PointOutcome outcome;
    try {
        outcome = write_point(images, events, store, point, target);
    } catch (const Interrupted &) {
        throw Interrupted{target.harm()};
    } catch (const Failure &failure) {
        if (target.harm().empty())
            throw;
        throw Failure(fmt::format("{}; {}", failure.text, target.harm()), failure.error);
    }
    if (outcome.blocks_wrong > 0) {
        std::string text =
            fmt::format("{} blocks of {} are not what was backed up (extents {}{})",
                        outcome.blocks_wrong, point.id, extent_names(outcome.extents),
                        outcome.extents.size() == 64 ? " and more" : "");
        std::string harm = target.harm().empty() ? "" : "; " + target.harm();
        if (!options.keep_going)
            throw Failure(text +
                          ": \"trak-backup verify\" names the damaged file; --keep-going "
                          "restores what there is" +
                          harm);
        events.notice(text);
    }
    target.finish();
    events.say("restored",
               {{"id", point.id},
                {"to", options.to},
                {"size", point.node.size},
                {"data", outcome.bytes_data},
                {"wrong", outcome.blocks_wrong},
                {"extents", outcome.extents}},
               fmt::format("{} is restored to {}: {}, {} of data", point.id, options.to,
                           size_text(point.node.size), size_text(outcome.bytes_data)));
    return outcome.blocks_wrong > 0 ? status_failed : status_ok;
}

}  // namespace agent
