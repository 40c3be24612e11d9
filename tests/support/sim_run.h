// tests/support/sim_run.h: running pieces of the driver on the simulated kernel
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_TESTS_SUPPORT_SIM_RUN_H
#define TRAK_TESTS_SUPPORT_SIM_RUN_H

#include <cstdint>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <string_view>

#include "driver/module/log.h"
#include "os/sim/seeds.h"
#include "os/sim/sim.h"

namespace sim_run {

// One boot for a piece of the driver that is used without its module being loaded: the logging buffer
// that the piece's messages allocate is given back, so that a leak of anything else is seen.
inline void boot(sim::Storage &storage, const std::function<void()> &fn,
                 const sim::Options &options) {
    sim::World world(storage, options);
    world.run([&] {
        fn();
        trak_debug_destroy();
    });
}

inline void boot(sim::Storage &storage, const std::function<void()> &fn, std::uint64_t seed = 1) {
    sim::Options options;
    options.seed = seed;
    boot(storage, fn, options);
}

inline void boot(const std::function<void()> &fn, std::uint64_t seed = 1) {
    sim::Storage storage;
    boot(storage, fn, seed);
}

// A boot that must break a rule of the machine: the Failure's text, or "" when none was broken.
inline std::string failure_of(const std::function<void()> &fn, std::uint64_t seed = 1) {
    try {
        boot(fn, seed);
    } catch (const sim::Failure &failure) {
        return failure.what();
    }
    return "";
}

inline bool logged(std::string_view line) {
    for (const std::string &l : sim::log()) {
        if (l == line)
            return true;
    }
    return false;
}

// The whole log, for the text of a failed expectation.
inline std::string log_text() {
    std::string text = "log:\n";
    for (const std::string &l : sim::log())
        text += l + "\n";
    return text;
}

// A line of the log that holds `message` at `level` ("<3>ERROR: " or "<6>pid: ").
inline bool logged_error(std::string_view message) {
    return logged("<3>ERROR: " + std::string(message));
}
inline bool logged_info(std::string_view message) {
    for (const std::string &l : sim::log()) {
        if (l.rfind("<6>", 0) == 0 && l.size() > message.size() + 2 &&
            l.compare(l.size() - message.size() - 2, std::string::npos,
                      ": " + std::string(message)) == 0)
            return true;
    }
    return false;
}

#define EXPECT_LOGGED_ERROR(message)                                                               \
    EXPECT_TRUE(sim_run::logged_error(message)) << message << "\n" << sim_run::log_text()
#define EXPECT_LOGGED_INFO(message)                                                                \
    EXPECT_TRUE(sim_run::logged_info(message)) << message << "\n" << sim_run::log_text()
#define EXPECT_NOTHING_LOGGED() EXPECT_TRUE(sim::log().empty()) << sim_run::log_text()

// A command's record, by byte offsets.
class Record {
  public:
    explicit Record(std::size_t size, std::uint8_t fill = 0) : bytes(size, fill) {}

    template <typename T> T get(std::size_t offset) const {
        T value;
        std::memcpy(&value, bytes.data() + offset, sizeof value);
        return value;
    }
    template <typename T> Record &put(std::size_t offset, T value) {
        std::memcpy(bytes.data() + offset, &value, sizeof value);
        return *this;
    }
    std::uint32_t u32(std::size_t offset) const { return get<std::uint32_t>(offset); }
    std::uint64_t u64(std::size_t offset) const { return get<std::uint64_t>(offset); }
    Record &u32(std::size_t offset, std::uint32_t value) { return put(offset, value); }
    std::string text(std::size_t offset, std::size_t limit) const {
        const char *from = reinterpret_cast<const char *>(bytes.data()) + offset;
        return std::string(from, strnlen(from, limit));
    }
    Record &text(std::size_t offset, std::string_view value) {
        std::memcpy(bytes.data() + offset, value.data(), value.size());
        return *this;
    }

    sim::Bytes bytes;
};

// One command with its record in the caller's memory, which holds the answer afterwards.
inline int command(std::uint32_t code, Record &record) {
    const os_uaddr addr = sim::user_alloc(record.bytes.size());
    std::memcpy(sim::user_bytes(addr, record.bytes.size()).data(), record.bytes.data(),
                record.bytes.size());
    const int rc = sim::chr_ioctl(code, addr);
    std::memcpy(record.bytes.data(), sim::user_bytes(addr, record.bytes.size()).data(),
                record.bytes.size());
    sim::user_free(addr);
    return rc;
}

}  // namespace sim_run

#endif
