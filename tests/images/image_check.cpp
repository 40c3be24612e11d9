// tests/images/image_check.cpp: a reader's answers beside a reference
// SPDX-License-Identifier: GPL-2.0-only
#include "tests/images/image_check.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>

#include "abi/trak_ioctl.h"
#include "driver/fsreaders/blkbmp.h"
#include "driver/fsreaders/datablock_commands.h"
#include "driver/module/params.h"
#include "driver/utils/trak_utils.h"
#include "os/user/user.h"

namespace images {
namespace {

std::string last_log;

// The platform with one image, for one scope.
class Platform {
  public:
    explicit Platform(const std::string &image) {
        std::string why;
        EXPECT_EQ(user::start({}, &why), 0) << why;
        EXPECT_EQ(user::add_image("image", image, &dev_, &why), 0) << why;
        bdev_ = trak_open_bdev(dev_, OS_FMODE_READ);
        EXPECT_NE(bdev_, nullptr);
    }
    ~Platform() {
        if (bdev_ != nullptr)
            trak_close_bdev(bdev_);
        last_log = user::log_text();
        user::stop();
    }
    Platform(const Platform &) = delete;
    Platform &operator=(const Platform &) = delete;
    os_bdev *bdev() { return bdev_; }

  private:
    os_dev_t dev_ = 0;
    os_bdev *bdev_ = nullptr;
};

// Chunk by chunk what the reference makes of them.
bool chunk_used(const Reference &reference, std::uint64_t chunk, std::uint64_t ratio) {
    const std::uint64_t last = (chunk + 1) * ratio - 1;
    if (reference.group != 0 && (last >= reference.used.size() ||
                                 chunk * ratio / reference.group != last / reference.group))
        return true;
    for (std::uint64_t b = chunk * ratio; b <= last; ++b)
        if (b < reference.used.size() && reference.used[b])
            return true;
    return false;
}

void compare_range(const trak_fs_reader &reader, void *context, const Reference &reference,
                   std::uint32_t chunk_size, std::uint32_t first, std::int32_t count) {
    std::vector<std::uint8_t> bits((static_cast<std::size_t>(count) + 7) / 8, 0xA5);
    ASSERT_GE(reader.read(context, first, chunk_size, bits.data(), count), 0);
    const std::uint64_t ratio = chunk_size / reference.block_size;
    for (std::int32_t k = 0; k < count; ++k) {
        const bool is = (bits[static_cast<std::size_t>(k) / 8] >> (k % 8)) % 2 == 1;
        const std::uint64_t chunk = std::uint64_t{first} + static_cast<std::uint32_t>(k);
        ASSERT_EQ(is, chunk_used(reference, chunk, ratio))
            << "chunk " << chunk << " of " << chunk_size << " bytes, read from " << first;
    }
}

}  // namespace

Folder::Folder() {
    std::array<char, 64> name{"/var/tmp/trak-images-XXXXXX"};
    const char *made = mkdtemp(name.data());
    EXPECT_NE(made, nullptr);
    path_ = made != nullptr ? made : "";
}

Folder::~Folder() {
    if (!path_.empty())
        std::filesystem::remove_all(path_);
}

namespace {

// What a command prints, and how it ended.
std::string output_of(const std::string &command, int *status) {
    std::FILE *pipe = popen(("timeout 300 " + command + " 2>&1").c_str(), "r");
    EXPECT_NE(pipe, nullptr) << command;
    *status = -1;
    if (pipe == nullptr)
        return {};
    std::string text;
    std::vector<char> buffer(65536);
    for (std::size_t n; (n = std::fread(buffer.data(), 1, buffer.size(), pipe)) > 0;)
        text.append(buffer.data(), n);
    *status = pclose(pipe);
    return text;
}

}  // namespace

std::string run(const std::string &command) {
    int status = 0;
    std::string text = output_of(command, &status);
    EXPECT_EQ(status, 0) << command << "\n" << text.substr(0, 2000);
    return text;
}

std::optional<std::string> try_run(const std::string &command) {
    int status = 0;
    std::string text = output_of(command, &status);
    return status == 0 ? std::optional<std::string>(text) : std::nullopt;
}

bool have(const std::string &program) {
    if (std::system(("command -v " + program + " > /dev/null 2>&1").c_str()) == 0)
        return true;
    EXPECT_EQ(std::getenv("CI"), nullptr) << program << " is not installed";
    return false;
}

void make_image(const std::string &path, std::uint64_t bytes) {
    std::ofstream(path).close();
    std::filesystem::resize_file(path, bytes);
}

void copy_over(const std::string &path, std::uint64_t offset,
               const std::vector<std::uint8_t> &bytes) {
    std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(static_cast<std::streamoff>(offset));
    file.write(reinterpret_cast<const char *>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
    ASSERT_TRUE(file.good()) << path;
}

std::vector<std::uint8_t> bytes_of(const std::string &path, std::uint64_t offset,
                                   std::size_t size) {
    std::vector<std::uint8_t> bytes(size);
    std::ifstream file(path, std::ios::binary);
    file.seekg(static_cast<std::streamoff>(offset));
    file.read(reinterpret_cast<char *>(bytes.data()), static_cast<std::streamsize>(size));
    EXPECT_TRUE(file.good()) << path;
    return bytes;
}

void compare(const std::string &image, const trak_fs_reader &reader, const Reference &reference) {
    Platform platform(image);
    ASSERT_NE(platform.bdev(), nullptr);
    std::int32_t block_size = 0;
    void *context = reader.init(platform.bdev(), &block_size);
    ASSERT_NE(context, nullptr) << user::log_text();
    EXPECT_EQ(static_cast<std::uint32_t>(block_size), reference.block_size);
    const std::uint64_t bytes = std::filesystem::file_size(image);
    std::mt19937 random(7);
    for (std::uint32_t size = reference.block_size; size <= 2u << 20; size *= 2) {
        const std::uint64_t chunks = (bytes + size - 1) / size;
        ASSERT_LE(chunks, std::uint64_t{INT32_MAX});
        // The whole for small disks; the beginning and the end of great ones.
        const std::uint64_t most = bytes < std::uint64_t{4} << 30 ? 1u << 20 : 1u << 14;
        const auto part = static_cast<std::int32_t>(chunks < most ? chunks : most);
        compare_range(reader, context, reference, size, 0, part);
        compare_range(reader, context, reference, size, static_cast<std::uint32_t>(chunks - part),
                      part);
        for (int n = 0; n < 8 && !::testing::Test::HasFatalFailure(); ++n) {
            const auto first = static_cast<std::uint32_t>(random() % chunks);
            const std::uint64_t rest = chunks - first;
            const auto count =
                static_cast<std::int32_t>(1 + random() % (rest < 3000 ? rest : 3000));
            compare_range(reader, context, reference, size, first, count);
        }
        if (::testing::Test::HasFatalFailure())
            break;
    }
    EXPECT_EQ(reader.destroy(context), 0);
}

void expect_refused(const std::string &image, const trak_fs_reader &reader) {
    Platform platform(image);
    ASSERT_NE(platform.bdev(), nullptr);
    void *context = reader.init(platform.bdev(), nullptr);
    EXPECT_EQ(context, nullptr);
    if (context != nullptr)
        (void)reader.destroy(context);
}

Map map_of(const std::string &image, std::uint32_t chunk_size) {
    Platform platform(image);
    trak_blkbmp bmp;
    (void)trak_blkbmp_init(&bmp);
    Map map;
    map.valid =
        platform.bdev() != nullptr && trak_blkbmp_read(&bmp, platform.bdev(), chunk_size) >= 0;
    EXPECT_EQ(map.valid, bmp.valid != 0);
    const std::uint64_t chunks = (std::filesystem::file_size(image) + chunk_size - 1) / chunk_size;
    map.used.reserve(chunks);
    for (std::uint64_t c = 0; c < chunks; ++c)
        map.used.push_back(trak_blkbmp_holds_data(&bmp, static_cast<std::uint32_t>(c)));
    (void)trak_blkbmp_destroy(&bmp);
    return map;
}

int self_test(const std::string &image) {
    Platform platform(image);
    trak_test_datablock_arg arg{};
    std::strcpy(arg.hdd_name, "/dev/image/image");
    return trak_ioctl_test_datablock(&arg);
}

std::size_t logged(const std::string &text) {
    std::size_t count = 0;
    for (std::size_t at = last_log.find(text); at != std::string::npos;
         at = last_log.find(text, at + 1))
        ++count;
    return count;
}

}  // namespace images
