// agent/files.h: files that are durable when a call says so
// SPDX-License-Identifier: GPL-2.0-only
//
// Every function throws Failure with a sentence that names the path, unless it says otherwise.
#pragma once

#include "agent/failure.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace agent::files {

// For tests: asked before each call that reaches the store; a result above 0 is the errno with which
// the call fails, without any effect. Below 0: a sync is left out, and succeeds.
extern std::function<int(const char *call, const std::string &path)> hook;

class Fd {
  public:
    Fd() = default;
    explicit Fd(int fd) : fd_(fd) {}
    Fd(Fd &&other) noexcept : fd_(other.release()) {}
    Fd &operator=(Fd &&other) noexcept {
        if (this != &other)
            reset(other.release());
        return *this;
    }
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;
    ~Fd() { reset(-1); }
    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    int release() { return std::exchange(fd_, -1); }
    void reset(int fd);

  private:
    int fd_ = -1;
};

// open(2) with O_CLOEXEC.
Fd open_file(const std::string &path, int flags, unsigned mode);
// The whole file; nothing where there is none.
std::optional<std::vector<uint8_t>> read_file(const std::string &path);
std::optional<std::string> read_text(const std::string &path);

// The new content, or the old one, also after a power cut: written beside it, synced, renamed, and
// the folder synced.
void replace_durably(const std::string &path, const void *data, size_t size);
void replace_durably(const std::string &path, const std::string &text);
// Written and synced under its own name; its directory entry is not.
void write_synced(const std::string &path, const void *data, size_t size);

void write_at(int fd, const void *data, size_t size, uint64_t offset, const std::string &path);
// Bytes read; fewer than size only at the file's end.
size_t read_at(int fd, void *data, size_t size, uint64_t offset, const std::string &path);

void sync_file(int fd, const std::string &path);
void sync_path(const std::string &path);  // a file or a folder
void rename_file(const std::string &from, const std::string &to);
// Nothing happens where there is none.
void remove_file(const std::string &path);
bool exists(const std::string &path);
uint64_t size_of(const std::string &path);
std::vector<std::string> names_in(const std::string &folder);  // sorted, without . and ..
uint64_t free_bytes(const std::string &folder);
std::string absolute(const std::string &path);
std::string folder_of(const std::string &path);

}  // namespace agent::files
