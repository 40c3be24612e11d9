// tests/images/image_check.h: a reader's answers about a real image beside those of the file system's
// own tools
// SPDX-License-Identifier: GPL-2.0-only
//
// The reference is a plain list of blocks in use, got by parsing what another program prints; from it
// follows what every chunk must be at every size and in every portion.
#ifndef TRAK_TESTS_IMAGES_IMAGE_CHECK_H
#define TRAK_TESTS_IMAGES_IMAGE_CHECK_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "driver/fsreaders/readers.h"

namespace images {

// A folder of its own that goes with its contents.
class Folder {
  public:
    Folder();
    ~Folder();
    Folder(const Folder &) = delete;
    Folder &operator=(const Folder &) = delete;
    std::string operator/(const std::string &name) const { return path_ + "/" + name; }

  private:
    std::string path_;
};

// What a shell command prints; a test failure when it fails.
std::string run(const std::string &command);
// The same, or nothing when the command fails.
std::optional<std::string> try_run(const std::string &command);
// True when the command exists; otherwise the test is skipped with the reason, or fails under CI.
bool have(const std::string &program);

// A sparse file of this size.
void make_image(const std::string &path, std::uint64_t bytes);
void copy_over(const std::string &path, std::uint64_t offset,
               const std::vector<std::uint8_t> &bytes);
std::vector<std::uint8_t> bytes_of(const std::string &path, std::uint64_t offset, std::size_t size);

struct Reference {
    std::uint32_t block_size = 0;
    std::vector<bool> used;  // by block; blocks beyond it are free
    // Blocks per group where free space is known per group only (0: not so): a chunk that no single
    // group holds whole counts as used, the one at the end included.
    std::uint64_t group = 0;
};

// Opens the image on the platform of user space and compares: block by block at the block size; at every
// chunk size up to 2 MiB; in portions from odd starts.
void compare(const std::string &image, const trak_fs_reader &reader, const Reference &reference);
// The reader takes the image for no file system of its kind, or refuses it.
void expect_refused(const std::string &image, const trak_fs_reader &reader);
// The whole way that a snapshot goes: the first reader that takes the image, and the map built with it.
struct Map {
    bool valid = false;
    std::vector<bool> used;  // by chunk of the image
};
Map map_of(const std::string &image, std::uint32_t chunk_size);
// The self-test command on the image.
int self_test(const std::string &image);
// Lines of the driver's log that hold the text, since the last start of the platform.
std::size_t logged(const std::string &text);

}  // namespace images

#endif
