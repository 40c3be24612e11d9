// tests/unit/lib/fake_driver.cpp: a control device for tests
// SPDX-License-Identifier: GPL-2.0-only
#include "tests/unit/lib/fake_driver.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include <unistd.h>

namespace fake {
namespace {

uint32_t u32(const void *record) {
    uint32_t value;
    memcpy(&value, record, sizeof(value));
    return value;
}

template <size_t N> void fill(char (&field)[N], const std::string &text) {
    memset(field, 0, N);
    memcpy(field, text.data(), text.size() < N ? text.size() : N - 1);
}

// Tests may give a node fewer bits than extents.
uint64_t marked_bits(const std::vector<uint8_t> &bits, uint64_t count) {
    uint64_t room = bits.size() * 8;
    return trak_bits_count(bits.data(), count < room ? count : room);
}

const char *name_of(uint32_t code) {
    switch (code) {
    case TRAK_ADD_FILTER_NODE:
        return "add";
    case TRAK_ADD_SNAP_NODE:
        return "add-snap";
    case TRAK_DEL_NODE:
        return "delete";
    case TRAK_START_NODE:
        return "start";
    case TRAK_STOP_NODE:
        return "stop";
    case TRAK_SET_BMP:
        return "set";
    case TRAK_SAVE_BMP:
        return "save";
    case TRAK_MERGE_BMP:
        return "merge";
    case TRAK_RESUME_SNAP:
        return "resume";
    default:
        return "";
    }
}

}  // namespace

int Driver::step(const std::string &event) {
    uint64_t now = steps++;
    if (now >= dies_at)
        return -ENXIO;
    if (now == fails_at)
        return -EIO;
    if (!event.empty())
        events.push_back(event);
    return 0;
}

bool Driver::write(uint32_t minor, uint32_t extent) {
    auto node = nodes.find(minor);
    if (dead() || node == nodes.end() || !node->second.started)
        return false;
    for (int type = 0; type < 2; type++) {
        node->second.bits[type][extent >> 3] |= static_cast<uint8_t>(1u << (extent & 7));
        node->second.dirty[type] = true;
    }
    durable.written.insert(extent);
    return true;
}

std::string Driver::file(const Node &node, uint32_t minor, uint32_t type) {
    return node.bmp_dir + "/trak" + std::to_string(minor) +
           (type == TRAK_BMP_INCR ? ".incr" : ".diff");
}

void Driver::save(Node &node, uint32_t minor, uint32_t type) {
    node.dirty[type] = saves_fail;
    if (!saves_fail)
        durable.bitmaps[file(node, minor, type)] = {false, node.bits[type]};
}

void Driver::load(Node &node, uint32_t minor, uint32_t type) {
    size_t size = (node.extents() - 1) / 8 + 1;
    auto found = durable.bitmaps.find(file(node, minor, type));
    bool good =
        found != durable.bitmaps.end() && !found->second.dirty && found->second.bits.size() == size;
    node.bits[type] = good ? found->second.bits : std::vector<uint8_t>(size, 0xff);
    node.dirty[type] = !good;
}

bool Driver::marked(uint32_t minor, uint32_t type, uint32_t extent) const {
    return (nodes.at(minor).bits[type][extent >> 3] >> (extent & 7) & 1) != 0;
}

uint32_t Driver::lowest_free() const {
    uint32_t minor = 0;
    while (nodes.count(minor) != 0)
        minor++;
    return minor;
}

int Driver::on_filter_added(trak_add_filter_arg *arg) {
    if (arg->minor >= 0 && (static_cast<uint32_t>(arg->minor) > max_minor ||
                            nodes.count(static_cast<uint32_t>(arg->minor)) != 0)) {
        nodes.erase(static_cast<uint32_t>(arg->minor));  // the harm that callers must avoid
        return -EINVAL;
    }
    uint32_t minor = arg->minor < 0 ? lowest_free() : static_cast<uint32_t>(arg->minor);
    if (minor > max_minor)
        return -ENOSPC;
    arg->minor = static_cast<int32_t>(minor);
    if (arg->name[0] == '\0')
        fill(arg->name, "trak" + std::to_string(minor));
    if (arg->uuid[0] == '\0')
        fill(arg->uuid, "{fresh-" + session + "-" + std::to_string(steps) + "}");
    Node node;
    node.name = arg->name;
    node.uuid = arg->uuid;
    node.disk = arg->hdd_name;
    node.bmp_dir = arg->bmp_dir;
    node.unit = arg->extent_size;
    node.dev_size = dev_size;
    load(node, minor, TRAK_BMP_DIFF);
    load(node, minor, TRAK_BMP_INCR);
    nodes[minor] = node;
    return 0;
}

int Driver::on_snap_added(trak_add_snap_arg *arg) {
    auto filter = nodes.find(arg->filter_minor);
    if (!supports_snaps)
        return -EOPNOTSUPP;
    if (filter == nodes.end() || filter->second.type != TRAK_DEV_FILTER)
        return -EINVAL;
    uint32_t minor = arg->snap_minor < 0 ? lowest_free() : static_cast<uint32_t>(arg->snap_minor);
    while (filter->second.dev_size > static_cast<uint64_t>(arg->chunk_size) << 30)
        arg->chunk_size *= 2;
    arg->snap_minor = static_cast<int32_t>(minor);
    if (arg->name[0] == '\0')
        fill(arg->name, "trak" + std::to_string(minor));
    if (arg->uuid[0] == '\0')
        fill(arg->uuid, "{snap}");
    Node node;
    node.type = TRAK_DEV_SNAP;
    node.filter = arg->filter_minor;
    node.name = arg->name;
    node.uuid = arg->uuid;
    node.unit = arg->chunk_size;
    node.cow_bmp = arg->cow_bmp_fname;
    node.cow_data = arg->cow_data_fname;
    node.dev_size = filter->second.dev_size;
    filter->second.snaps.push_back(minor);
    nodes[minor] = node;
    return 0;
}

int Driver::on_info(trak_info_arg *arg) {
    const Node &node = nodes.at(arg->minor);
    arg->dev_type = node.type;
    arg->dev_size = node.dev_size;
    arg->started = node.started;
    arg->use_cnt = node.use_cnt;
    fill(arg->uuid, node.uuid);
    fill(arg->name, node.name);
    if (node.type == TRAK_DEV_SNAP) {
        arg->snap_valid = node.valid;
        arg->stop_pending = node.stop_pending;
        arg->del_pending = node.del_pending;
        arg->chunk_size = node.unit;
        arg->chunk_cnt = node.extents();
        arg->cow_bmp_size = (node.extents() - 1) / 8 + 1;
        arg->cow_data_size = static_cast<uint64_t>(node.extents()) * node.unit;
        fill(arg->cow_bmp_fname, node.cow_bmp);
        fill(arg->cow_data_fname, node.cow_data);
        return 0;
    }
    fill(arg->hdd_name, node.disk);
    arg->extent_size = node.unit;
    arg->extent_cnt = node.extents();
    for (uint32_t snap : node.snaps)
        if (arg->snaps < TRAK_LIST_MAX)
            arg->snap_minors[arg->snaps++] = snap;
    arg->incr_bmp_size = static_cast<uint32_t>(node.bits[TRAK_BMP_INCR].size());
    arg->diff_bmp_size = static_cast<uint32_t>(node.bits[TRAK_BMP_DIFF].size());
    fill(arg->incr_bmp_fname, file(node, arg->minor, TRAK_BMP_INCR));
    fill(arg->diff_bmp_fname, file(node, arg->minor, TRAK_BMP_DIFF));
    uint64_t incr = marked_bits(node.bits[TRAK_BMP_INCR], node.extents());
    uint64_t diff = marked_bits(node.bits[TRAK_BMP_DIFF], node.extents());
    arg->incr_bmp_clear = incr == 0;
    arg->diff_bmp_clear = diff == 0;
    arg->incr_bmp_full = incr == node.extents();
    arg->diff_bmp_full = diff == node.extents();
    return 0;
}

int Driver::on_data(uint32_t code, trak_bmp_data_arg *arg, Node &node) {
    auto &bits = node.bits[arg->type];
    auto *data = reinterpret_cast<uint8_t *>(static_cast<uintptr_t>(arg->data));
    bool all = code == TRAK_SET_BMP && arg->size == 0 && data == nullptr;
    if (!all && (arg->size != bits.size() || data == nullptr))
        return -EINVAL;
    if (code == TRAK_GET_BMP || code == TRAK_GET_AND_CLR_BMP)
        memcpy(data, bits.data(), bits.size());
    if (code == TRAK_GET_BMP)
        return 0;
    for (size_t i = 0; i < bits.size(); i++) {
        if (code == TRAK_GET_AND_CLR_BMP)
            bits[i] = 0;
        else if (code == TRAK_MERGE_BMP)
            bits[i] |= data[i];
        else
            bits[i] = all ? 0xff : data[i];
    }
    node.dirty[arg->type] = true;
    save(node, arg->minor, arg->type);  // its failure is not reported
    return 0;
}

int Driver::on_bitmap(uint32_t code, void *record, Node &node) {
    auto *arg = static_cast<trak_bmp_arg *>(record);
    if (node.type != TRAK_DEV_FILTER || arg->type > 1)
        return -EINVAL;
    switch (code) {
    case TRAK_LOAD_BMP:
        load(node, arg->minor, arg->type);
        return 0;
    case TRAK_SAVE_BMP:
        save(node, arg->minor, arg->type);
        return saves_fail ? -ENOSPC : 0;
    case TRAK_CLR_BMP:
        node.bits[arg->type].assign(node.bits[arg->type].size(), 0);
        save(node, arg->minor, arg->type);
        return 0;
    default:
        return on_data(code, static_cast<trak_bmp_data_arg *>(record), node);
    }
}

int Driver::on_datablocks(trak_datablock_arg *arg) {
    const Node &node = nodes.at(arg->minor);
    if (!supports_snaps)
        return -EOPNOTSUPP;
    if (node.type != TRAK_DEV_SNAP || !node.started || arg->data == 0)
        return -EINVAL;
    uint32_t ratio = arg->extent_size / node.unit;
    auto need = static_cast<int32_t>(((node.extents() + ratio - 1) / ratio + 7) / 8);
    if (need > arg->size)
        return -EINVAL;
    auto *bits = reinterpret_cast<uint8_t *>(static_cast<uintptr_t>(arg->data));
    bool pattern = node.map_built && node.data_chunks < 0;
    memset(bits, pattern ? 0x0f : node.map_built ? 0 : 0xff, static_cast<size_t>(need));
    for (int64_t c = 0; node.map_built && c < node.data_chunks; c++)
        bits[c / ratio / 8] |= static_cast<uint8_t>(1u << (c / ratio % 8));
    arg->size = need;
    return 0;
}

void Driver::forget(std::map<uint32_t, Node>::iterator node) {
    auto filter = nodes.find(node->second.filter);
    if (node->second.type == TRAK_DEV_SNAP && filter != nodes.end())
        std::erase(filter->second.snaps, node->first);
    nodes.erase(node);
}

int Driver::on_stopped(uint32_t minor, Node &node) {
    if (!node.started)
        return 0;
    if (node.use_cnt != 0)
        return -EBUSY;
    if (node.type == TRAK_DEV_FILTER)
        for (uint32_t type = 0; type < 2; type++)
            if (node.dirty[type])
                save(node, minor, type);
    if (node.type == TRAK_DEV_SNAP && node.stop_pending)
        return 0;
    node.started = false;
    return 0;
}

int Driver::dispatch(uint32_t code, void *record) {
    if (code == TRAK_ADD_FILTER_NODE)
        return on_filter_added(static_cast<trak_add_filter_arg *>(record));
    if (code == TRAK_ADD_SNAP_NODE)
        return on_snap_added(static_cast<trak_add_snap_arg *>(record));
    if (code == TRAK_TEST_DATABLOCK)
        return supports_snaps ? 0 : -EOPNOTSUPP;
    uint32_t minor = u32(record);
    if (code == TRAK_GET_DEVICE_LIST) {
        auto *arg = static_cast<trak_device_list_arg *>(record);
        arg->count = 0;
        for (const auto &[m, node] : nodes)
            if (node.type == arg->dev_type && m < max_minor && arg->count < TRAK_LIST_MAX)
                arg->minors[arg->count++] = m;
        return 0;
    }
    auto found = nodes.find(minor);
    if (found == nodes.end())
        return code == TRAK_DEL_NODE ? EINVAL : -EINVAL;
    Node &node = found->second;
    switch (code) {
    case TRAK_GET_INFO:
        return on_info(static_cast<trak_info_arg *>(record));
    case TRAK_START_NODE:
        if (node.started)
            return -EALREADY;
        if (node.type == TRAK_DEV_SNAP)
            nodes.at(node.filter).started = node.valid = true;
        node.started = true;
        return 0;
    case TRAK_RESUME_SNAP:
        nodes.at(node.filter).started = node.started = true;
        node.valid = static_cast<trak_resume_arg *>(record)->snap_valid != 0;
        return 0;
    case TRAK_STOP_NODE:
        return on_stopped(minor, node);
    case TRAK_DEL_NODE: {
        int rc = on_stopped(minor, node);
        if (rc == 0 && node.type == TRAK_DEV_SNAP && node.stop_pending)
            node.del_pending = true;
        else if (rc == 0)
            forget(found);
        return rc;
    }
    case TRAK_GET_DATABLOCK_BMP:
        return on_datablocks(static_cast<trak_datablock_arg *>(record));
    default:
        return on_bitmap(code, record, node);
    }
}

int Driver::command(uint32_t code, void *record) {
    auto *bytes = static_cast<uint8_t *>(record);
    codes.push_back(code);
    records.emplace_back(bytes, bytes + TRAK_IOC_SIZE(code));
    std::string event = name_of(code);
    if (!event.empty() && code != TRAK_ADD_FILTER_NODE && code != TRAK_ADD_SNAP_NODE)
        event += " " + std::to_string(u32(record));
    if (code == TRAK_SET_BMP || code == TRAK_SAVE_BMP || code == TRAK_MERGE_BMP)
        event += u32(bytes + 4) == TRAK_BMP_INCR ? " incr" : " diff";
    int rc = step(event);
    if (rc == 0)
        rc = refuse(code);
    // The record comes back only where the command succeeds.
    std::vector<uint8_t> copy(bytes, bytes + TRAK_IOC_SIZE(code));
    if (rc == 0)
        rc = dispatch(code, copy.data());
    if (rc == 0)
        rc = lose(code);
    if (rc == 0 && (TRAK_IOC_DIR(code) & TRAK_IOC_READ) != 0)
        memcpy(record, copy.data(), copy.size());
    return rc;
}

int Driver::ioctl(void *ctx, uint32_t code, void *record) {
    return static_cast<Driver *>(ctx)->command(code, record);
}

int Driver::marker_read(void *ctx, const char *path, char *text, size_t size) {
    auto *self = static_cast<Driver *>(ctx);
    int rc = self->step("");
    if (rc < 0)
        return rc;
    auto found = self->durable.markers.find(path);
    if (found == self->durable.markers.end())
        return -ENOENT;
    snprintf(text, size, "%s", found->second.c_str());
    return static_cast<int>(found->second.size());
}

int Driver::marker_write(void *ctx, const char *path, const char *text) {
    auto *self = static_cast<Driver *>(ctx);
    int rc = self->step(std::string("marker+ ") + path);
    if (rc == 0)
        self->durable.markers[path] = text;
    return rc;
}

int Driver::marker_remove(void *ctx, const char *path) {
    auto *self = static_cast<Driver *>(ctx);
    int rc = self->step(std::string("marker- ") + path);
    if (rc == 0)
        self->durable.markers.erase(path);
    return rc;
}

int Driver::session_text(void *ctx, char *text, size_t size) {
    return snprintf(text, size, "%s", static_cast<Driver *>(ctx)->session.c_str());
}

int Driver::place(void *ctx, const char *path, char *node) {
    auto *self = static_cast<Driver *>(ctx);
    auto found = self->places.find(path);
    if (found == self->places.end())
        return 0;
    if (found->second.empty())
        return 2;
    if (node != nullptr)
        snprintf(node, 128, "%s", found->second.c_str());
    return 1;
}

trak_seam Driver::commands_only() const {
    trak_seam seam = {};
    seam.ioctl = ioctl;
    seam.session = session_text;
    return seam;
}

trak_seam Driver::everything() const {
    trak_seam seam = commands_only();
    seam.marker_read = marker_read;
    seam.marker_write = marker_write;
    seam.marker_remove = marker_remove;
    seam.place = place;
    return seam;
}

TempDir::TempDir() {
    std::string name = std::filesystem::temp_directory_path() / "trak-unit-XXXXXX";
    if (mkdtemp(name.data()) == nullptr)
        throw std::runtime_error("can't make a temporary directory");
    path_ = std::filesystem::canonical(name);
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::string TempDir::path(const std::string &name) const {
    return name.empty() ? path_ : path_ + "/" + name;
}

std::string TempDir::put(const std::string &name, const std::string &text) const {
    std::filesystem::path file = path(name);
    std::filesystem::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary) << text;
    return file;
}

std::string TempDir::make_dir(const std::string &name) const {
    std::filesystem::create_directories(path(name));
    return path(name);
}

std::string read_file(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

}  // namespace fake
