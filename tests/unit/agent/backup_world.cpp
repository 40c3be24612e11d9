// tests/unit/agent/backup_world.cpp: a disk, a made-up driver, images that are plain files, a judge
// SPDX-License-Identifier: GPL-2.0-only
#include "tests/unit/agent/backup_world.h"

#include <cerrno>
#include <cstring>
#include <deque>
#include <stdexcept>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace fake {
namespace {

constexpr const char *node_uuid = "{00000000-0000-0000-0000-000000000001}";

class PlainIo : public agent::ImageIo {
  public:
    PlainIo(const std::string &path, int flags)
        : path_(path), fd_(agent::files::open_file(path, flags, 0)) {}
    uint64_t size() const override { return agent::files::size_of(path_); }
    void read(uint64_t offset, void *data, size_t size, Done done) override {
        size_t got = agent::files::read_at(fd_.get(), data, size, offset, path_);
        memset(static_cast<uint8_t *>(data) + got, 0, size - got);
        answers_.push_back([done = std::move(done)] { done(0); });
    }
    void write(uint64_t offset, const void *data, size_t size, Done done) override {
        // Answered later, as by a server.
        int error = 0;
        try {
            agent::files::write_at(fd_.get(), data, size, offset, path_);
        } catch (const agent::Failure &failure) {
            error = failure.error;
        }
        answers_.push_back([done = std::move(done), error] { done(error); });
    }
    void zero(uint64_t offset, uint64_t size, Done done) override {
        std::vector<uint8_t> nothing(size);
        write(offset, nothing.data(), size, std::move(done));
    }
    void turn(int wake_fd, int) override {
        if (answers_.empty() && wake_fd >= 0) {
            fd_set set;
            FD_ZERO(&set);
            FD_SET(wake_fd, &set);
            timeval time = {0, 100000};
            select(wake_fd + 1, &set, nullptr, nullptr, &time);
        }
        while (!answers_.empty()) {
            auto answer = std::move(answers_.front());
            answers_.pop_front();
            answer();
        }
    }
    void finish() override {
        turn(-1, 0);
        agent::files::sync_file(fd_.get(), path_);
    }
    bool holds_data(uint64_t, uint64_t wanted, uint64_t *length) override {
        *length = wanted;
        return true;
    }

  private:
    std::string path_;
    agent::files::Fd fd_;
    std::deque<std::function<void()>> answers_;
};

std::vector<uint8_t> bytes_of(const std::string &path) {
    std::string text = read_file(path);
    return std::vector<uint8_t>(text.begin(), text.end());
}

}  // namespace

void PlainImages::create(const std::string &path, uint64_t size, uint32_t,
                         const std::string &backing) {
    std::vector<uint8_t> bytes(size);
    if (!backing.empty())
        bytes = bytes_of(agent::files::folder_of(path) + "/" + backing);
    agent::files::write_synced(path, bytes.data(), bytes.size());
}

std::unique_ptr<agent::ImageIo> PlainImages::open_for_writing(const std::string &path) {
    return std::make_unique<PlainIo>(path, O_RDWR);
}

std::unique_ptr<agent::ImageIo> PlainImages::open_for_reading(const std::string &path) {
    return std::make_unique<PlainIo>(path, O_RDONLY);
}

void PlainImages::check(const std::string &path) {
    if (check_fails)
        throw agent::Failure("qemu-img check of " + path + " is not content");
}

void PlainImages::merge(const std::string &path, const std::string &to, uint32_t,
                        const std::string &) {
    std::vector<uint8_t> bytes = bytes_of(path);
    agent::files::write_synced(to, bytes.data(), bytes.size());
}

void PlainImages::compare(const std::string &one, const std::string &other) {
    if (bytes_of(one) != bytes_of(other))
        throw agent::Failure("they differ");
}

World::World() : store(dir.path("store")), driver(std::make_unique<Driver>(durable)) {
    disk.resize(size_t{extent_count} * extent_bytes - 1024);
    for (size_t i = 0; i < disk.size(); i++)
        disk[i] = static_cast<uint8_t>(i * 7 + i / extent_bytes);
    dir.make_dir("maps");
    wire();
    attach(node_uuid, true);
}

World::~World() {
    agent::files::hook = nullptr;
    agent::interrupted = 0;
    trak_close(t_);
}

void World::wire() {
    driver->dev_size = disk.size();
    driver->refuse = [this](uint32_t) {
        if (dead_)
            return -ENOTCONN;
        return commands++ == fail_command ? -EIO : 0;
    };
    driver->lose = [this](uint32_t code) {
        for (auto &[minor, node] : driver->nodes)
            if (node.type == TRAK_DEV_SNAP)
                node.data_chunks = data_chunks;
        if (code == TRAK_START_NODE)
            frozen_ = disk;
        if (code == TRAK_START_NODE && snap_dies)
            for (auto &[minor, node] : driver->nodes)
                node.valid = false;
        return 0;
    };
    agent::files::hook = [this](const char *call, const std::string &) {
        if (dead_)
            return EIO;
        if (store_calls++ == fail_store_call)
            return EIO;
        // Nobody cuts the power here: what is written is there.
        return std::string(call) == "sync" ? -1 : 0;
    };
    trak_close(t_);
    t_ = nullptr;
    trak_seam seam = driver->everything();
    if (trak_open_fn("/nowhere", &seam, driver.get(), &t_) < 0)
        throw std::runtime_error("no connection");
}

void World::attach(const std::string &uuid, bool changed) {
    trak_add_filter_arg arg = {};
    strcpy(arg.hdd_name, "/dev/image/a");
    snprintf(arg.bmp_dir, sizeof(arg.bmp_dir), "%s", dir.path("maps").c_str());
    snprintf(arg.uuid, sizeof(arg.uuid), "%s", uuid.c_str());
    arg.minor = 0;
    arg.extent_size = extent_bytes;
    if (trak_add_filter_node(t_, &arg) < 0 || trak_start_node(t_, 0) < 0)
        throw std::runtime_error("no node");
    for (uint32_t type : {TRAK_BMP_DIFF, TRAK_BMP_INCR})
        if ((changed ? trak_set_bmp(t_, 0, type, nullptr, 0) : trak_clr_bmp(t_, 0, type)) < 0)
            throw std::runtime_error("no map");
}

void World::lose_driver() {
    driver = std::make_unique<Driver>(durable);
    wire();
}

void World::write(uint32_t extent) {
    memset(disk.data() + size_t{extent} * extent_bytes, content_++, extent_bytes - 1024);
    // Driver::write is no command: it is not counted, and doesn't fail.
    driver->write(0, extent);
}

void World::write_past_the_filter(uint32_t extent) {
    memset(disk.data() + size_t{extent} * extent_bytes + 1024, content_++, 512);
}

agent::files::Fd World::open_snap() {
    if (snap_dies)
        return agent::files::open_file(dir.path("maps"), O_RDONLY, 0);  // reads of a folder fail
    int fd = memfd_create("snap", MFD_CLOEXEC);
    agent::files::Fd file(fd);
    if (::write(fd, frozen_.data(), frozen_.size()) != static_cast<ssize_t>(frozen_.size()))
        throw std::runtime_error("no snapshot");
    return file;
}

agent::BackupOptions World::options(agent::Kind kind) const {
    agent::BackupOptions options;
    options.kind = kind;
    options.disk = "0";
    options.store = store;
    options.cow_reserve = 1;
    options.chunk_size = extent_bytes;
    return options;
}

template <class Run> int World::with_agent(Run run) {
    agent::Driver commands(t_);
    commands.open_hook = [this](const agent::SnapNode &) { return open_snap(); };
    agent::Events events;
    events.out = &out_;
    events.err = &err_;
    agent::Steps steps;
    steps.seen = [this](const char *name) {
        seen.emplace_back(name);
        if (kill_at == name) {
            dead_ = true;
            throw Killed{};
        }
        if (busy)
            write(next_write_ = (next_write_ * 5 + 3) % extent_count);
        if (std::string(name) == "frozen") {
            // The run is known by its record.
            auto record = agent::files::read_text(store + "/run.json");
            moments_[agent::run_record_from("run.json", *record).run] = frozen_;
        }
    };
    agent::Context context = {commands, images, events, steps};
    return run(context);
}

int World::backup(const agent::BackupOptions &wanted) {
    return with_agent([&](agent::Context &c) { return agent::make_backup(c, wanted); });
}

int World::backup(agent::Kind kind) {
    return backup(options(kind));
}

int World::audit(bool all) {
    agent::AuditOptions wanted;
    wanted.disk = "0";
    wanted.store = store;
    wanted.cow_reserve = 1;
    wanted.all = all;
    wanted.chunk_size = extent_bytes;
    return with_agent([&](agent::Context &c) { return agent::make_audit(c, wanted); });
}

void World::revive() {
    dead_ = false;
    kill_at.clear();
    fail_store_call = fail_command = -1;
    store_calls = commands = 0;
}

void World::forget_said() {
    out_.str("");
    err_.str("");
}

std::vector<std::string> World::backups() {
    agent::Store found(store, agent::Store::existing);
    std::vector<std::string> ids;
    for (const agent::Manifest &manifest : found.backups())
        ids.push_back(manifest.id);
    return ids;
}

agent::Manifest World::newest() {
    agent::Store found(store, agent::Store::existing);
    return found.point("latest");
}

std::vector<std::string> World::store_files() const {
    return agent::files::names_in(store);
}

std::string World::judge() {
    agent::Store found(store, agent::Store::existing);
    if (!found.damaged().empty())
        return found.damaged().front().why;
    for (const agent::Manifest &manifest : found.backups()) {
        auto moment = moments_.find(manifest.run);
        if (moment == moments_.end())
            return manifest.id + " is of no run that froze the disk";
        std::vector<uint8_t> image = bytes_of(found.path(manifest.image.file));
        image.resize(disk.size());
        for (uint32_t extent = 0; extent < extent_count; extent++) {
            size_t at = size_t{extent} * extent_bytes;
            size_t size = std::min<size_t>(extent_bytes, disk.size() - at);
            if (memcmp(image.data() + at, moment->second.data() + at, size) != 0)
                return manifest.id + " differs in extent " + std::to_string(extent);
        }
    }
    return "";
}

}  // namespace fake
