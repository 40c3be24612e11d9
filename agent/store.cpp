// agent/store.cpp: the folder that holds one disk's backups
// SPDX-License-Identifier: GPL-2.0-only
#include "agent/store.h"

#include "agent/version.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <set>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

namespace agent {
namespace {

// The number of a name "NNNNNN-KIND...", or 0.
uint64_t number_of(const std::string &name) {
    size_t digits = name.find_first_not_of("0123456789");
    if (digits == std::string::npos || digits < 6 || digits > 18 || name[digits] != '-')
        return 0;
    return std::stoull(name.substr(0, digits));
}

bool ends_with(const std::string &name, const std::string &tail) {
    return name.size() > tail.size() &&
           name.compare(name.size() - tail.size(), tail.size(), tail) == 0;
}

uint64_t random_number() {
    uint64_t number;
    if (getrandom(&number, sizeof(number), 0) != static_cast<ssize_t>(sizeof(number)))
        throw Failure("there are no random numbers", EIO);
    return number;
}

}  // namespace

std::string Store::id_of(uint64_t number, Kind kind) {
    return fmt::format("{:06}-{}", number, kind_name(kind));
}

Store::Store(const std::string &folder, Open how) : folder_(folder) {
    if (how == create && mkdir(folder.c_str(), 0700) < 0 && errno != EEXIST)
        throw Failure(fmt::format("can't make the store {}: {}", folder, strerror(errno)), errno);
    folder_ = files::absolute(folder);
    scan();
    read_head(how);
}

void Store::read_head(Open how) {
    std::string file = path("store.json");
    try {
        auto text = files::read_text(file);
        if (text) {
            head_ = store_head_from(file, *text);
            return;
        }
        head_fault_ = file + " is missing";
    } catch (const Failure &failure) {
        head_fault_ = failure.text;
    }
    // What it says stands in every manifest too.
    if (!backups_.empty()) {
        head_.store = backups_.front().store;
        head_.seed = backups_.front().seed;
        head_.created = backups_.front().begun;
        return;
    }
    if (!damaged_.empty() || files::exists(file))
        throw Failure(head_fault_ + ", and no backup here can be read");
    if (how != create)
        throw Failure(fmt::format("{} is no store: it has no store.json", folder_));
    head_ = {new_uuid(), now_text(), tool_name, random_number()};
    files::replace_durably(file, store_head_text(head_));
    head_fault_.clear();
}

void Store::scan() {
    backups_.clear();
    damaged_.clear();
    highest_ = 0;
    std::set<std::string> ids;
    for (const std::string &name : files::names_in(folder_)) {
        uint64_t number = number_of(name);
        highest_ = std::max(highest_, number);
        if (number == 0 || !ends_with(name, ".json"))
            continue;
        std::string id = name.substr(0, name.size() - 5);
        try {
            auto text = files::read_text(path(name));
            if (!text)
                continue;
            Manifest manifest = manifest_from(path(name), *text);
            if (manifest.id != id)
                throw Failure(fmt::format("{} is the manifest of {}", path(name), manifest.id));
            ids.insert(id);
            backups_.push_back(std::move(manifest));
        } catch (const Failure &failure) {
            damaged_.push_back({id, failure.text});
        }
    }
    std::sort(backups_.begin(), backups_.end(),
              [](const Manifest &a, const Manifest &b) { return a.number < b.number; });
}

const Manifest *Store::find(const std::string &id) const {
    for (const Manifest &manifest : backups_)
        if (manifest.id == id)
            return &manifest;
    return nullptr;
}

const Manifest &Store::point(const std::string &text) const {
    if (text == "latest" && !backups_.empty())
        return backups_.back();
    for (const Manifest &manifest : backups_)
        if (manifest.id == text || std::to_string(manifest.number) == text)
            return manifest;
    for (const DamagedEntry &entry : damaged_)
        if (entry.id == text)
            throw Failure(entry.why);
    throw Failure(text == "latest"
                      ? fmt::format("there is no backup in {}", folder_)
                      : fmt::format("there is no backup {} in {}: \"trak-backup list\" shows which "
                                    "there are",
                                    text, folder_));
}

std::vector<const Manifest *> Store::chain(const std::string &id) const {
    std::vector<const Manifest *> found;
    const Manifest *at = &point(id);
    found.push_back(at);
    while (!at->parent.empty()) {
        const Manifest *parent = find(at->parent);
        // Numbers fall along a chain, so this ends.
        if (parent == nullptr || parent->number >= at->number)
            throw Failure(fmt::format("{} builds on {}, which is missing or damaged in {}", at->id,
                                      at->parent, folder_));
        found.push_back(parent);
        at = parent;
    }
    std::reverse(found.begin(), found.end());
    return found;
}

const Manifest *Store::base_for(Kind kind) const {
    const Manifest *base = nullptr;
    for (const Manifest &manifest : backups_)
        if (manifest.kind == Kind::full || (kind == Kind::incr && manifest.kind == Kind::incr))
            base = &manifest;
    return base;
}

files::Fd take_lock(const std::string &path, const std::string &what) {
    files::Fd fd = files::open_file(path, O_RDWR | O_CREAT | O_NOFOLLOW, 0600);
    if (flock(fd.get(), LOCK_EX | LOCK_NB) < 0) {
        if (errno != EWOULDBLOCK)
            throw Failure(fmt::format("can't lock {}: {}", path, strerror(errno)), errno);
        char text[32] = "";
        ssize_t n = pread(fd.get(), text, sizeof(text) - 1, 0);
        long pid = n > 0 ? std::strtol(text, nullptr, 10) : 0;
        throw Failure(pid > 0 ? fmt::format("{} is in use by process {} ({})", what, pid, path)
                              : fmt::format("{} is in use by another process ({})", what, path),
                      EBUSY);
    }
    std::string pid = fmt::format("{}\n", getpid());
    if (ftruncate(fd.get(), 0) < 0)
        throw Failure(fmt::format("can't write {}: {}", path, strerror(errno)), errno);
    files::write_at(fd.get(), pid.data(), pid.size(), 0, path);
    return fd;
}

files::Fd Store::lock_for_writing() const {
    return take_lock(path("lock"), "the store " + folder_);
}

files::Fd Store::lock_for_reading() const {
    // A store on a medium that can't be written has no writer to be kept out.
    int fd = open(path("readers.lock").c_str(), O_RDONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0 && (errno == EROFS || errno == EACCES))
        return files::Fd();
    files::Fd lock(fd);
    if (fd < 0)
        throw Failure(fmt::format("can't open {}: {}", path("readers.lock"), strerror(errno)),
                      errno);
    if (flock(fd, LOCK_SH | LOCK_NB) < 0)
        throw Failure(fmt::format("the store {} is being pruned: try again later", folder_), EBUSY);
    return lock;
}

files::Fd Store::lock_readers_out() const {
    files::Fd fd = files::open_file(path("readers.lock"), O_RDWR | O_CREAT | O_NOFOLLOW, 0600);
    if (flock(fd.get(), LOCK_EX | LOCK_NB) < 0)
        throw Failure(fmt::format("backups in {} are being read: try again later", folder_), EBUSY);
    return fd;
}

std::optional<RunRecord> Store::run_record() const {
    auto text = files::read_text(run_path());
    if (!text)
        return std::nullopt;
    return run_record_from(run_path(), *text);
}

}  // namespace agent
