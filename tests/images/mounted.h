// tests/images/mounted.h: an image mounted for a while
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_TESTS_IMAGES_MOUNTED_H
#define TRAK_TESTS_IMAGES_MOUNTED_H

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "tests/images/image_check.h"

namespace images {

// True where this program may mount. Its mounts are seen by itself and its children only, and with them
// go the loop devices below, however it ends. Otherwise the test is skipped with the reason, or
// fails under CI.
inline bool may_mount() {
    static const bool may = unshare(CLONE_NEWNS) == 0 &&
                            mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
    if (!may) {
        EXPECT_EQ(std::getenv("CI"), nullptr) << "mounting takes root";
    }
    return may;
}

class Mounted {
  public:
    Mounted(const std::string &image, const std::string &point, const std::string &options)
        : point_(point) {
        std::filesystem::create_directory(point);
        run("mount -o loop " + options + " " + image + " " + point);
    }
    ~Mounted() { run("umount " + point_); }
    Mounted(const Mounted &) = delete;
    Mounted &operator=(const Mounted &) = delete;

  private:
    std::string point_;
};

}  // namespace images

#endif
