// os/user/mounts.cpp: reading the mount table and /sys
// SPDX-License-Identifier: GPL-2.0-only
#include "os/user/mounts.h"

#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdlib>

namespace user {

namespace {

bool parse_dev(std::string_view text, DevNumber *dev) {
    std::size_t colon = text.find(':');
    if (colon == std::string_view::npos)
        return false;
    const char *end = text.data() + text.size();
    auto major = std::from_chars(text.data(), text.data() + colon, dev->major);
    auto minor = std::from_chars(text.data() + colon + 1, end, dev->minor);
    return major.ec == std::errc() && major.ptr == text.data() + colon && minor.ec == std::errc() &&
           minor.ptr == end;
}

bool is_octal(char c) {
    return c >= '0' && c <= '7';
}

std::string unescape(std::string_view text) {
    std::string out;
    for (std::size_t i = 0; i < text.size(); i++) {
        if (text[i] == '\\' && i + 3 < text.size() && is_octal(text[i + 1]) &&
            is_octal(text[i + 2]) && is_octal(text[i + 3])) {
            int c = (text[i + 1] - '0') * 64 + (text[i + 2] - '0') * 8 + (text[i + 3] - '0');
            out += static_cast<char>(c);
            i += 3;
        } else {
            out += text[i];
        }
    }
    return out;
}

std::vector<std::string_view> split(std::string_view line) {
    std::vector<std::string_view> words;
    while (!line.empty()) {
        std::size_t blank = line.find(' ');
        std::string_view word = line.substr(0, blank);
        if (!word.empty())
            words.push_back(word);
        line = blank == std::string_view::npos ? std::string_view() : line.substr(blank + 1);
    }
    return words;
}

// id parent major:minor root mount-point options [tags...] - type source super-options
bool parse_mount(std::string_view line, Mount *mount) {
    std::vector<std::string_view> words = split(line);
    if (words.size() < 6 || !parse_dev(words[2], &mount->dev))
        return false;
    std::size_t dash = 6;
    while (dash < words.size() && words[dash] != "-")
        dash++;
    if (dash + 1 >= words.size())
        return false;
    mount->root = unescape(words[3]);
    mount->mount_point = unescape(words[4]);
    mount->type = unescape(words[dash + 1]);
    mount->source = dash + 2 < words.size() ? unescape(words[dash + 2]) : std::string();
    return true;
}

bool is_above(std::string_view folder, std::string_view path) {
    if (folder == "/")
        return path.starts_with('/');
    return path.starts_with(folder) && (path.size() == folder.size() || path[folder.size()] == '/');
}

bool read_whole_file(const std::string &path, std::string *text) {
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    text->clear();
    char buf[16384];
    ssize_t got;
    while ((got = read(fd, buf, sizeof(buf))) > 0 || (got < 0 && errno == EINTR))
        if (got > 0)
            text->append(buf, static_cast<std::size_t>(got));
    close(fd);
    return got == 0;
}

std::string last_component(const std::string &path) {
    return path.substr(path.rfind('/') + 1);
}

}  // namespace

bool read_small_file(const std::string &path, std::string *text) {
    if (!read_whole_file(path, text))
        return false;
    if (text->ends_with('\n'))
        text->pop_back();
    return true;
}

std::vector<Mount> parse_mountinfo(std::string_view text) {
    std::vector<Mount> mounts;
    while (!text.empty()) {
        std::size_t end = text.find('\n');
        Mount mount;
        if (parse_mount(text.substr(0, end), &mount))
            mounts.push_back(std::move(mount));
        text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
    }
    return mounts;
}

const Mount *mount_of(const std::vector<Mount> &mounts, std::string_view path) {
    const Mount *best = nullptr;
    for (const Mount &mount : mounts)
        if (is_above(mount.mount_point, path) &&
            (!best || mount.mount_point.size() >= best->mount_point.size()))
            best = &mount;
    return best;
}

std::string path_in_file_system(const Mount &mount, std::string_view path) {
    std::size_t above = mount.mount_point == "/" ? 0 : mount.mount_point.size();
    std::string inside = mount.root == "/" ? std::string() : mount.root;
    inside += path.substr(above);
    return inside.empty() ? "/" : inside;
}

std::vector<Mount> read_mounts(const std::string &root) {
    std::string text;
    if (!read_whole_file(root + "/proc/self/mountinfo", &text))
        return {};
    return parse_mountinfo(text);
}

bool describe_block(const std::string &root, DevNumber dev, BlockDevice *device) {
    std::string link =
        root + "/sys/dev/block/" + std::to_string(dev.major) + ":" + std::to_string(dev.minor);
    char resolved[PATH_MAX];
    if (!realpath(link.c_str(), resolved))
        return false;
    std::string dir = resolved;
    device->dev = dev;
    device->name = device->whole = last_component(dir);
    if (access((dir + "/partition").c_str(), F_OK) == 0) {
        dir.erase(dir.rfind('/'));
        device->whole = last_component(dir);
    }
    if (!read_small_file(dir + "/loop/backing_file", &device->backing_file))
        device->backing_file.clear();
    return true;
}

std::vector<BlockDevice> loop_devices(const std::string &root) {
    std::vector<BlockDevice> found;
    DIR *dir = opendir((root + "/sys/block").c_str());
    if (!dir)
        return found;
    while (const dirent *entry = readdir(dir)) {
        std::string name = entry->d_name;
        std::string folder = root;
        folder.append("/sys/block/").append(name);
        std::string text;
        BlockDevice device;
        if (!name.starts_with("loop") ||
            !read_small_file(folder + "/loop/backing_file", &device.backing_file) ||
            !read_small_file(folder + "/dev", &text) || !parse_dev(text, &device.dev))
            continue;
        device.name = device.whole = name;
        found.push_back(std::move(device));
    }
    closedir(dir);
    return found;
}

}  // namespace user
