// ctl/conf.cpp: the configuration's files, read and checked
// SPDX-License-Identifier: GPL-2.0-only
#include "ctl/conf.h"

#include "ctl/app.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <map>

#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

namespace ctl {
namespace {

constexpr size_t largest_file = 65536;
constexpr uint32_t longest_wait = 3600;
constexpr char suffix[] = ".conf";

bool is_blank(char c) {
    return c == ' ' || c == '\t';
}

std::string trimmed(const std::string &text) {
    auto from = std::find_if_not(text.begin(), text.end(), is_blank);
    auto to = std::find_if_not(text.rbegin(), std::make_reverse_iterator(from), is_blank).base();
    return {from, to};
}

// --- values: each takes the text after the equals sign, and throws the rest of a sentence ---------

// Decimal digits alone, at most `most`.
uint32_t number(const std::string &text, uint32_t most, const char *what) {
    uint64_t value = 0;
    for (char c : text) {
        if (c < '0' || c > '9')
            throw Failure{fmt::format("\"{}\" is no {}: a whole number is", text, what)};
        value = std::min<uint64_t>(value * 10 + static_cast<uint64_t>(c - '0'), uint64_t{1} << 40);
    }
    if (value > most)
        throw Failure{fmt::format("{} is too large: the {} is at most {}", text, what, most)};
    return static_cast<uint32_t>(value);
}

std::string absolute(const std::string &text) {
    if (text.front() != '/')
        throw Failure{fmt::format("\"{}\" does not begin with a slash: give the whole path", text)};
    if (text.size() >= TRAK_PATH_SIZE)
        throw Failure{fmt::format("the path is too long: at most {} bytes", TRAK_PATH_SIZE - 1)};
    return text;
}

uint32_t extent_size(const std::string &text) {
    auto size = parse_size(text);
    if (!size)
        throw Failure{fmt::format("\"{}\" is no size: 4096, 64K and 1M are", text)};
    if (*size < 4096 || *size > uint64_t{1} << 31 || (*size & (*size - 1)) != 0)
        throw Failure{
            fmt::format("\"{}\" is no extent size: a power of two from 4K to 2G is", text)};
    return static_cast<uint32_t>(*size);
}

std::string node_name(const std::string &text) {
    if (text.size() >= TRAK_NAME_SIZE)
        throw Failure{fmt::format("the name is too long: at most {} bytes", TRAK_NAME_SIZE - 1)};
    // It becomes a file in /dev/trak, and a word in fstab and in udev's rules.
    static const std::string letters =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._-";
    if (text.find_first_not_of(letters) != std::string::npos || text.front() == '.')
        throw Failure{fmt::format("\"{}\" is no name: letters, digits, \"-\", \"_\" and \".\" make "
                                  "one, and the first is no \".\"",
                                  text)};
    return text;
}

// --- one file -------------------------------------------------------------------------------------

using Setter = std::function<void(ConfDisk &, const std::string &)>;

const std::map<std::string, Setter> &keys() {
    static const std::map<std::string, Setter> table = {
        {"disk", [](ConfDisk &d, const std::string &v) { d.disk = absolute(v); }},
        {"minor",
         [](ConfDisk &d, const std::string &v) { d.minor = number(v, INT32_MAX, "minor number"); }},
        {"extent-size", [](ConfDisk &d, const std::string &v) { d.extent_size = extent_size(v); }},
        {"bitmaps", [](ConfDisk &d, const std::string &v) { d.bitmaps = absolute(v); }},
        {"name", [](ConfDisk &d, const std::string &v) { d.name = node_name(v); }},
        {"wait",
         [](ConfDisk &d, const std::string &v) {
             d.wait_seconds = number(v, longest_wait, "number of seconds");
         }},
    };
    return table;
}

bool is_control(char c) {
    return (static_cast<unsigned char>(c) < ' ' && c != '\t') || c == 0x7f;
}

// One line into the disk; `seen` has the lines of the keys so far.
void take_line(const std::string &line, unsigned number, std::map<std::string, unsigned> &seen,
               ConfDisk &disk) {
    if (std::any_of(line.begin(), line.end(), is_control))
        throw Failure{
            "the line holds a control character: is this a text file with plain line ends?"};
    std::string text = trimmed(line);
    if (text.empty() || text.front() == '#')
        return;
    size_t equals = text.find('=');
    if (equals == std::string::npos)
        throw Failure{fmt::format("\"{}\" is no setting: \"KEY = VALUE\" is", text)};
    std::string key = trimmed(text.substr(0, equals)), value = trimmed(text.substr(equals + 1));
    auto found = keys().find(key);
    if (found == keys().end())
        throw Failure{fmt::format("\"{}\" is no key: disk, minor, extent-size, bitmaps, name and "
                                  "wait are",
                                  key)};
    if (value.empty())
        throw Failure{fmt::format("\"{}\" has no value: leave the line out for the default", key)};
    auto [first, is_new] = seen.emplace(key, number);
    if (!is_new)
        throw Failure{fmt::format("\"{}\" stands in line {} already", key, first->second)};
    found->second(disk, value);
}

// The name that the driver gives to another minor is not free for this one.
void check_name(const ConfDisk &d) {
    if (d.name.size() > 4 && d.name.compare(0, 4, "trak") == 0 &&
        d.name.find_first_not_of("0123456789", 4) == std::string::npos &&
        d.name != fmt::format("trak{}", d.minor))
        throw Failure{fmt::format("the name {} is the one that the driver gives to another minor: "
                                  "choose another",
                                  d.name)};
}

// --- files and folders ------------------------------------------------------------------------------

struct Fd {
    int fd;
    ~Fd() {
        if (fd >= 0)
            close(fd);
    }
};

std::string whole_file(const std::string &path) {
    // Not waited for: a pipe in its place is an error, not a hang.
    Fd file{open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)};
    struct stat st;
    if (file.fd < 0 || fstat(file.fd, &st) < 0)
        throw Failure{fmt::format("{}: can't be read: {}", path, strerror(errno))};
    if (!S_ISREG(st.st_mode))
        throw Failure{fmt::format("{}: is no regular file", path)};
    std::string text(largest_file + 1, '\0');
    size_t length = 0;
    while (length < text.size()) {
        ssize_t n = read(file.fd, text.data() + length, text.size() - length);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            throw Failure{fmt::format("{}: can't be read: {}", path, strerror(errno))};
        if (n == 0)
            break;
        length += static_cast<size_t>(n);
    }
    if (length > largest_file)
        throw Failure{fmt::format("{}: is too long: at most {} bytes", path, largest_file)};
    text.resize(length);
    return text;
}

std::vector<std::string> files_of(const std::string &folder) {
    std::vector<std::string> files;
    DIR *dir = opendir(folder.c_str());
    if (dir == nullptr)
        throw Failure{
            fmt::format("can't read the configuration in {}: {}", folder, strerror(errno))};
    for (;;) {
        errno = 0;
        const dirent *entry = readdir(dir);
        if (entry == nullptr)
            break;
        std::string name = entry->d_name;
        size_t tail = sizeof(suffix) - 1;
        if (name.front() != '.' && name.size() > tail &&
            name.compare(name.size() - tail, tail, suffix) == 0)
            files.push_back(folder + "/" + name);
    }
    int error = errno;
    closedir(dir);
    if (error != 0)
        throw Failure{
            fmt::format("can't read the configuration in {}: {}", folder, strerror(error))};
    std::sort(files.begin(), files.end());
    return files;
}

std::string real_name(const ConfDisk &d) {
    return d.name.empty() ? fmt::format("trak{}", d.minor) : d.name;
}

// Two files can't have the same thing: the first one keeps it.
void check_against(const std::vector<ConfDisk> &others, const ConfDisk &d) {
    for (const ConfDisk &other : others) {
        if (other.minor == d.minor)
            throw Failure{
                fmt::format("{}: the minor {} is that of {} already", d.file, d.minor, other.file)};
        if (real_name(other) == real_name(d))
            throw Failure{fmt::format("{}: the name {} is that of {} already", d.file, real_name(d),
                                      other.file)};
        if (same_disk(other.disk, d.disk))
            throw Failure{
                fmt::format("{}: the disk {} is that of {} already", d.file, d.disk, other.file)};
    }
}

}  // namespace

ConfDisk parse_conf(const std::string &file, const std::string &text) {
    ConfDisk disk;
    disk.file = file;
    std::map<std::string, unsigned> seen;
    unsigned number = 0;
    for (size_t at = 0; at < text.size();) {
        size_t end = std::min(text.find('\n', at), text.size());
        number++;
        try {
            take_line(text.substr(at, end - at), number, seen, disk);
        } catch (const Failure &failure) {
            throw Failure{fmt::format("{}:{}: {}", file, number, failure.text)};
        }
        at = end + 1;
    }
    for (const char *key : {"disk", "minor"})
        if (seen.count(key) == 0)
            throw Failure{fmt::format("{}: no \"{}\" is given", file, key)};
    try {
        check_name(disk);
    } catch (const Failure &failure) {
        throw Failure{fmt::format("{}:{}: {}", file, seen["name"], failure.text)};
    }
    return disk;
}

Conf read_conf(const std::string &path) {
    struct stat st;
    if (stat(path.c_str(), &st) < 0)
        throw Failure{fmt::format("can't read the configuration in {}: {}", path, strerror(errno))};
    Conf conf;
    const auto files = S_ISDIR(st.st_mode) ? files_of(path) : std::vector<std::string>{path};
    for (const std::string &file : files) {
        try {
            ConfDisk disk = parse_conf(file, whole_file(file));
            check_against(conf.disks, disk);
            conf.disks.push_back(std::move(disk));
        } catch (const Failure &failure) {
            conf.faults.push_back(failure.text);
        }
    }
    return conf;
}

bool same_disk(const std::string &a, const std::string &b) {
    struct stat x, y;
    return a == b || (stat(a.c_str(), &x) == 0 && stat(b.c_str(), &y) == 0 && S_ISBLK(x.st_mode) &&
                      S_ISBLK(y.st_mode) && x.st_rdev == y.st_rdev);
}

}  // namespace ctl
