// tests/unit/user/user_testing.h: a platform for one test, images, buffers, a driver of one node
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_TESTS_UNIT_USER_USER_TESTING_H
#define TRAK_TESTS_UNIT_USER_USER_TESTING_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "os/disk.h"
#include "os/user/user.h"
#include "tests/support/eventually.h"

namespace user_testing {

using trak_testing::eventually;

using Bytes = std::vector<std::uint8_t>;

// A folder of the test's own, gone with everything in it.
class Folder {
  public:
    explicit Folder(const std::string &above = "/tmp") {
        std::string pattern = above + "/trak-user-XXXXXX";
        if (char *made = mkdtemp(pattern.data()))
            path_ = made;
    }
    ~Folder() {
        std::error_code ignored;
        if (!path_.empty())
            std::filesystem::remove_all(path_, ignored);
    }
    const std::string &path() const { return path_; }
    std::string operator/(const std::string &name) const { return path_ + "/" + name; }

  private:
    std::string path_;
};

inline void make_file(const std::string &path, std::uint64_t size) {
    int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    ASSERT_GE(fd, 0) << path;
    ASSERT_EQ(ftruncate(fd, static_cast<off_t>(size)), 0) << path;
    close(fd);
}

inline Bytes file_bytes(const std::string &path, std::uint64_t offset, std::size_t size) {
    Bytes bytes(size);
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    ssize_t got = fd < 0 ? -1 : pread(fd, bytes.data(), size, static_cast<off_t>(offset));
    if (fd >= 0)
        close(fd);
    bytes.resize(got < 0 ? 0 : static_cast<std::size_t>(got));
    return bytes;
}

// Bytes that differ by place and by seed.
inline Bytes pattern(std::size_t size, std::uint64_t seed) {
    Bytes bytes(size);
    std::uint64_t x = seed * 0x9e3779b97f4a7c15ull + 1;
    for (std::size_t i = 0; i < size; i++) {
        x ^= x << 13;
        x ^= x >> 7;
        x ^= x << 17;
        bytes[i] = static_cast<std::uint8_t>(x >> 32);
    }
    return bytes;
}

// A platform that runs while the test does.
class PlatformTest : public testing::Test {
  protected:
    void SetUp() override {
        std::string why;
        ASSERT_EQ(user::start(options_, &why), 0) << why;
    }
    void TearDown() override { user::stop(); }
    user::Options options_;
};

// A disk on an image of its own.
class ImageTest : public PlatformTest {
  protected:
    void open_image(const std::string &above, std::uint64_t size) {
        folder_ = std::make_unique<Folder>(above);
        file_ = *folder_ / "image";
        ASSERT_NO_FATAL_FAILURE(make_file(file_, size));
        std::string why;
        ASSERT_EQ(user::add_image("disk", file_, &dev_, &why), 0) << why;
        disk_ = os_open_by_devnum(dev_, OS_FMODE_READ | OS_FMODE_WRITE);
        ASSERT_FALSE(os_is_err(disk_)) << os_ptr_err(disk_);
    }
    void TearDown() override {
        if (disk_ && !os_is_err(disk_))
            os_blkdev_put(disk_, 3);
        PlatformTest::TearDown();
    }
    int read(std::uint64_t offset, void *to, std::size_t size) {
        return user::submit_wait(disk_, 0, offset, to, size);
    }
    int write(std::uint64_t offset, const void *from, std::size_t size, std::uint32_t flags = 0) {
        return user::submit_wait(disk_, OS_BIO_WRITE | flags, offset, const_cast<void *>(from),
                                 size);
    }

    std::unique_ptr<Folder> folder_;
    std::string file_;
    os_dev_t dev_ = 0;
    os_bdev *disk_ = nullptr;
};

}  // namespace user_testing

#endif
