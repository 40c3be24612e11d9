// daemon/options.cpp: the command line of trakd
// SPDX-License-Identifier: GPL-2.0-only
#include "daemon/options.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "driver/module/params.h"

namespace trakd {

namespace {

struct Param {
    const char *name;
    std::int32_t *value;
};
constexpr Param kParams[] = {
    {"trak_chr_major", &trak_chr_major},
    {"trak_debug", &trak_debug},
    {"trak_blk_major", &trak_blk_major},
    {"trak_max_blk_minor", &trak_max_blk_minor},
};

// As the kernel reads an integer parameter: any base that strtol knows, 32 bits, nothing behind it.
bool parse_int32(const std::string &text, std::int32_t *value) {
    if (text.empty() || std::isspace(static_cast<unsigned char>(text[0])) != 0) {
        return false;
    }
    char *end = nullptr;
    errno = 0;
    const long number = std::strtol(text.c_str(), &end, 0);
    if (errno != 0 || *end != '\0' || number < INT32_MIN || number > INT32_MAX) {
        return false;
    }
    *value = static_cast<std::int32_t>(number);
    return true;
}

int set_param(const std::string &text, std::string *why) {
    const std::size_t eq = text.find('=');
    const std::string name = text.substr(0, eq);
    for (const Param &param : kParams) {
        if (name != param.name) {
            continue;
        }
        if (eq == std::string::npos || !parse_int32(text.substr(eq + 1), param.value)) {
            *why = fmt::format("--param {}: {} takes a whole number of 32 bits", text, name);
            return -1;
        }
        return 0;
    }
    *why = fmt::format("--param {}: no such parameter; there are trak_chr_major, trak_debug, "
                       "trak_blk_major and trak_max_blk_minor",
                       text);
    return -1;
}

// An absolute form of a path that may not exist; nothing is looked up, because a path may lead
// into a mount that does not answer.
std::string absolute(const std::string &path) {
    if (path.starts_with('/')) {
        return path;
    }
    char cwd[PATH_MAX];
    if (::getcwd(cwd, sizeof(cwd)) == nullptr) {
        return path;
    }
    return std::string(cwd) + "/" + path;
}

}  // namespace

bool options_parse(int argc, char **argv, Options *options, int *status) {
    CLI::App app{
        "Tracks changes of disks and takes snapshots of them, in user space: mounts the driver's "
        "devices, status tree and log at MOUNTPOINT.",
        "trakd"};
    app.set_version_flag("--version", "trakd " TRAK_VERSION);
    std::vector<std::string> disks;
    app.add_option("--disk", disks, "an image file, known to the driver as /dev/image/NAME")
        ->type_name("NAME=FILE")
        ->allow_extra_args(false)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    app.add_option("--param", options->params,
                   "a parameter of the driver, for example trak_debug=2")
        ->type_name("NAME=VALUE")
        ->allow_extra_args(false)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    app.add_flag("--foreground", options->foreground,
                 "stay in the foreground, log to standard error");
    app.add_option("--log-file", options->log_file, "append the log to a file")->type_name("FILE");
    app.add_option("MOUNTPOINT", options->mount_point, "the directory to mount at")->required();
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success &done) {
        *status = app.exit(done);
        return false;
    } catch (const CLI::ParseError &error) {
        fmt::print(stderr, "trakd: {}; trakd --help shows the usage\n", error.what());
        *status = kExitUsage;
        return false;
    }
    for (const std::string &disk : disks) {
        const std::size_t eq = disk.find('=');
        if (eq == std::string::npos || eq == 0 || eq + 1 == disk.size()) {
            fmt::print(stderr,
                       "trakd: --disk {}: expected NAME=FILE; trakd --help shows the usage\n",
                       disk);
            *status = kExitUsage;
            return false;
        }
        options->images.push_back({disk.substr(0, eq), disk.substr(eq + 1)});
    }
    return true;
}

int options_check(Options *options, std::string *why) {
    for (const std::string &param : options->params) {
        if (set_param(param, why) != 0) {
            return -1;
        }
    }
    for (Image &image : options->images) {
        image.file = absolute(image.file);
    }
    options->mount_point = absolute(options->mount_point);
    while (options->mount_point.size() > 1 && options->mount_point.ends_with('/')) {
        options->mount_point.pop_back();
    }
    if (!options->log_file.empty()) {
        options->log_file = absolute(options->log_file);
    }
    const int fuse = ::open("/dev/fuse", O_RDWR | O_CLOEXEC);
    if (fuse < 0) {
        *why = errno == ENOENT || errno == ENODEV || errno == ENXIO
                   ? "/dev/fuse is missing: load the kernel's fuse module first (modprobe fuse)"
                   : fmt::format("/dev/fuse can't be opened: {}", std::strerror(errno));
        return -1;
    }
    ::close(fuse);
    return 0;
}

}  // namespace trakd
