// agent/manifest.cpp: what a store says about itself and about each backup, as JSON files
// SPDX-License-Identifier: GPL-2.0-only
#include "agent/manifest.h"

#include "agent/checksum.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>

#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <sys/random.h>

namespace agent {
namespace {

using nlohmann::json;

json node_json(const NodeId &node) {
    return {{"uuid", node.uuid},   {"name", node.name}, {"disk", node.disk},
            {"minor", node.minor}, {"size", node.size}, {"extent_size", node.extent_size}};
}

NodeId node_from(const json &object) {
    NodeId node;
    node.uuid = object.at("uuid").get<std::string>();
    node.name = object.at("name").get<std::string>();
    node.disk = object.at("disk").get<std::string>();
    node.minor = object.at("minor").get<uint32_t>();
    node.size = object.at("size").get<uint64_t>();
    node.extent_size = object.at("extent_size").get<uint32_t>();
    return node;
}

json entry_json(const FileEntry &entry) {
    return {{"file", entry.file}, {"size", entry.size}, {"checksum", entry.checksum}};
}

// A name in the store and nothing else: a manifest must not lead out of its folder.
std::string plain_name(const json &value) {
    auto name = value.get<std::string>();
    if (name.find('/') != std::string::npos || name.find('\0') != std::string::npos)
        throw Failure("a file's name has a slash");
    return name;
}

FileEntry entry_from(const json &object) {
    return {plain_name(object.at("file")), object.at("size").get<uint64_t>(),
            object.at("checksum").get<std::string>()};
}

// Numbers of 64 bits that are no quantities, as text: readers of JSON may know only 53 bits.
std::string hex(uint64_t number) {
    return fmt::format("{:016x}", number);
}

uint64_t number_of(const json &value) {
    return std::stoull(value.get<std::string>(), nullptr, 16);
}

// A text that is no number, a key that is missing, a value of another type: one kind of failure.
template <class Read> auto checked(const std::string &path, Read read) {
    try {
        return read();
    } catch (const json::exception &error) {
        throw Failure(fmt::format("{} is damaged: {}", path, error.what()));
    } catch (const std::logic_error &error) {
        throw Failure(fmt::format("{} is damaged: {}", path, error.what()));
    }
}

json audit_json(const AuditResult &audit) {
    return {{"blocks", audit.blocks}, {"differing", audit.differing}, {"extents", audit.extents}};
}

json seconds_json(const Manifest &m) {
    json object = json::object();
    for (const auto &[phase, seconds] : m.seconds)
        object[phase] = static_cast<double>(static_cast<int64_t>(seconds * 1000)) / 1000;
    return object;
}

json bytes_json(const Manifest &m) {
    return {{"mapped", m.bytes_mapped},   {"read", m.bytes_read}, {"audited", m.bytes_audited},
            {"written", m.bytes_written}, {"zero", m.bytes_zero}, {"unchanged", m.bytes_unchanged}};
}

void bytes_from(const json &object, Manifest &m) {
    m.bytes_mapped = object.at("mapped").get<uint64_t>();
    m.bytes_read = object.at("read").get<uint64_t>();
    m.bytes_audited = object.at("audited").get<uint64_t>();
    m.bytes_written = object.at("written").get<uint64_t>();
    m.bytes_zero = object.at("zero").get<uint64_t>();
    m.bytes_unchanged = object.at("unchanged").get<uint64_t>();
}

void format_is(const json &object, const char *what) {
    if (object.at("format").get<std::string>() != what)
        throw std::invalid_argument(fmt::format("its format is not \"{}\"", what));
}

constexpr const char *manifest_format = "trak-backup 1";
constexpr const char *store_format = "trak-backup-store 1";
constexpr const char *run_format = "trak-backup-run 1";

Manifest manifest_of(const json &j) {
    Manifest m;
    format_is(j, manifest_format);
    m.id = plain_name(j.at("id"));
    m.number = j.at("number").get<uint64_t>();
    m.kind = kind_of(j.at("kind").get<std::string>());
    if (!j.at("parent").is_null())
        m.parent = plain_name(j.at("parent"));
    m.merged = j.at("merged").get<std::vector<std::string>>();
    m.run = j.at("run").get<std::string>();
    m.store = j.at("store").get<std::string>();
    m.tool = j.at("tool").get<std::string>();
    m.reason = j.at("reason").get<std::string>();
    m.node = node_from(j.at("node"));
    m.block_size = j.at("block_size").get<uint32_t>();
    m.seed = number_of(j.at("seed"));
    m.begun = j.at("times").at("begun").get<std::string>();
    m.frozen = j.at("times").at("frozen").get<std::string>();
    m.ended = j.at("times").at("ended").get<std::string>();
    m.extents_mapped = j.at("extents").at("mapped").get<uint64_t>();
    m.extents_after_freeze = j.at("extents").at("after_freeze").get<uint64_t>();
    m.extents_copied = j.at("extents").at("copied").get<uint64_t>();
    m.extents_unchanged = j.at("extents").at("unchanged").get<uint64_t>();
    bytes_from(j.at("bytes"), m);
    for (const auto &[phase, seconds] : j.at("seconds").items())
        m.seconds.emplace_back(phase, seconds.get<double>());
    m.image = entry_from(j.at("image"));
    m.hashes = entry_from(j.at("hashes"));
    m.map = entry_from(j.at("map"));
    m.audit = {j.at("audit").at("blocks").get<uint64_t>(),
               j.at("audit").at("differing").get<uint64_t>(),
               j.at("audit").at("extents").get<std::vector<uint64_t>>()};
    if (m.block_size == 0 || m.node.size == 0 || m.node.extent_size == 0 ||
        (m.kind == Kind::full) != m.parent.empty())
        throw std::invalid_argument("its values don't fit together");
    return m;
}

}  // namespace

const char *kind_name(Kind kind) {
    return kind == Kind::full ? "full" : kind == Kind::incr ? "incr" : "diff";
}

Kind kind_of(const std::string &name) {
    if (name == "full")
        return Kind::full;
    if (name == "incr")
        return Kind::incr;
    if (name == "diff")
        return Kind::diff;
    throw std::invalid_argument(fmt::format("\"{}\" is no kind of backup", name));
}

std::string sealed_text(json object) {
    object.erase("checksum");
    object["checksum"] = checksum_text(object.dump(2));
    return object.dump(2) + "\n";
}

json sealed_from(const std::string &path, const std::string &text) {
    return checked(path, [&] {
        json object = json::parse(text);
        if (!object.is_object() || sealed_text(object) != text)
            throw std::invalid_argument("its checksum is wrong");
        return object;
    });
}

std::string manifest_text(const Manifest &m) {
    json j = {{"format", manifest_format},
              {"id", m.id},
              {"number", m.number},
              {"kind", kind_name(m.kind)},
              {"parent", nullptr},
              {"merged", m.merged},
              {"run", m.run},
              {"store", m.store},
              {"tool", m.tool},
              {"reason", m.reason},
              {"node", node_json(m.node)},
              {"block_size", m.block_size},
              {"seed", hex(m.seed)},
              {"times", {{"begun", m.begun}, {"frozen", m.frozen}, {"ended", m.ended}}},
              {"extents",
               {{"mapped", m.extents_mapped},
                {"after_freeze", m.extents_after_freeze},
                {"copied", m.extents_copied},
                {"unchanged", m.extents_unchanged}}},
              {"bytes", bytes_json(m)},
              {"seconds", seconds_json(m)},
              {"image", entry_json(m.image)},
              {"hashes", entry_json(m.hashes)},
              {"map", entry_json(m.map)},
              {"audit", audit_json(m.audit)}};
    if (!m.parent.empty())
        j["parent"] = m.parent;
    return sealed_text(std::move(j));
}

Manifest manifest_from(const std::string &path, const std::string &text) {
    json object = sealed_from(path, text);
    return checked(path, [&] { return manifest_of(object); });
}

std::string store_head_text(const StoreHead &head) {
    return sealed_text({{"format", store_format},
                        {"store", head.store},
                        {"created", head.created},
                        {"tool", head.tool},
                        {"hash", "xxh3-128"},
                        {"seed", hex(head.seed)}});
}

StoreHead store_head_from(const std::string &path, const std::string &text) {
    json j = sealed_from(path, text);
    return checked(path, [&] {
        format_is(j, store_format);
        StoreHead head;
        head.store = j.at("store").get<std::string>();
        head.created = j.at("created").get<std::string>();
        head.tool = j.at("tool").get<std::string>();
        head.seed = number_of(j.at("seed"));
        return head;
    });
}

std::string run_record_text(const RunRecord &r) {
    return sealed_text({{"format", run_format},
                        {"run", r.run},
                        {"id", r.id},
                        {"kind", kind_name(r.kind)},
                        {"node", node_json(r.node)},
                        {"snap_uuid", r.snap_uuid},
                        {"cow_bmp", r.cow_bmp},
                        {"cow_data", r.cow_data},
                        {"begun", r.begun}});
}

RunRecord run_record_from(const std::string &path, const std::string &text) {
    json j = sealed_from(path, text);
    return checked(path, [&] {
        format_is(j, run_format);
        RunRecord r;
        r.run = j.at("run").get<std::string>();
        r.id = plain_name(j.at("id"));
        r.kind = kind_of(j.at("kind").get<std::string>());
        r.node = node_from(j.at("node"));
        r.snap_uuid = j.at("snap_uuid").get<std::string>();
        r.cow_bmp = j.at("cow_bmp").get<std::string>();
        r.cow_data = j.at("cow_data").get<std::string>();
        r.begun = j.at("begun").get<std::string>();
        return r;
    });
}

std::string new_uuid() {
    uint8_t b[16];
    if (getrandom(b, sizeof(b), 0) != static_cast<ssize_t>(sizeof(b)))
        throw Failure("there are no random numbers", EIO);
    std::string text = "{";
    for (int i = 0; i < 16; i++)
        text += fmt::format("{}{:02x}", i == 4 || i == 6 || i == 8 || i == 10 ? "-" : "", b[i]);
    return text + "}";
}

std::string now_text() {
    auto now = std::chrono::system_clock::now();
    std::time_t seconds = std::chrono::system_clock::to_time_t(now);
    auto part =
        std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count();
    std::tm tm = {};
    gmtime_r(&seconds, &tm);
    char text[32];
    size_t n = std::strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%S", &tm);
    return std::string(text, n) + fmt::format(".{:03}Z", part % 1000);
}

}  // namespace agent
