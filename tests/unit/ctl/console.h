// tests/unit/ctl/console.h: trakctl with a made-up driver, its output caught
// SPDX-License-Identifier: GPL-2.0-only
#pragma once

#include "ctl/app.h"
#include "tests/unit/lib/fixture.h"

#include <nlohmann/json.hpp>

#include <sstream>

namespace fake {

struct Console : Connected {
    TempDir dir;  // the root: the status tree's files may be put there
    std::string out, err;
    int looks_left = 0;  // further rounds of status --watch
    bool terminal = false, utf8 = true, out_is_broken = false;

    int run(std::vector<std::string> words) {
        std::ostringstream out_stream, err_stream;
        if (out_is_broken)
            out_stream.setstate(std::ios::badbit);
        ctl::World world;
        world.out = &out_stream;
        world.err = &err_stream;
        world.out_is_terminal = terminal;
        world.utf8 = utf8;
        world.open = [this](const char *root, trak **t, char *) {
            opened = root;
            trak_seam seam = driver.everything();
            return trak_open_fn(dir.path().c_str(), &seam, &driver, t);
        };
        world.pause = [this](double) { return looks_left-- > 0; };
        words.insert(words.begin(), "trakctl");
        std::vector<const char *> argv;
        for (const auto &word : words)
            argv.push_back(word.c_str());
        int status = ctl::run(static_cast<int>(argv.size()), argv.data(), world);
        out = out_stream.str();
        err = err_stream.str();
        return status;
    }
    // The command succeeds and prints one JSON value.
    nlohmann::json json(std::vector<std::string> words) {
        words.push_back("--json");
        EXPECT_EQ(0, run(words)) << err;
        auto value = nlohmann::json::parse(out, nullptr, false);
        EXPECT_FALSE(value.is_discarded()) << out;
        return value;
    }
    // The command fails with exactly this line.
    void fails(std::vector<std::string> words, const std::string &sentence, int status = 1) {
        EXPECT_EQ(status, run(std::move(words)));
        EXPECT_EQ("trakctl: " + sentence + "\n", err);
        EXPECT_EQ("", out);
    }
    void add_filter(const std::string &disk = "/dev/image/a") {
        ASSERT_EQ(0, run({"add-filter", "--disk", disk, "--extent-size", "64K", "--bmp-dir", "/b"}))
            << err;
    }
    void add_snap() {
        ASSERT_EQ(0, run({"add-snap", "--filter", "0", "--chunk-size", "64K", "--cow-bmp",
                          dir.path("cow.bmp"), "--cow-data", dir.path("cow.data")}))
            << err;
    }
    std::string opened;
};

}  // namespace fake
