// agent/draft.h: the files of a backup, under temporary names until it is whole
// SPDX-License-Identifier: GPL-2.0-only
#pragma once

#include "agent/bits.h"
#include "agent/hashes.h"
#include "agent/image.h"
#include "agent/steps.h"
#include "agent/store.h"

#include <memory>

namespace agent {

// Nothing is removed here: settle_run() does that, which knows the names too.
class Draft {
  public:
    // The manifest is filled by the caller, and with the files' sizes and checksums here.
    Draft(const Store &store, ImageTool &images, Manifest &manifest)
        : store_(store), images_(images), m_(manifest) {}

    // An image on top of `backing` (empty: none), open for writing, and the file of hashes.
    void make(const std::string &backing);
    ImageIo &image() { return *image_; }
    HashWriter &hashes() { return *hashes_; }
    // Flushed, closed by the server, synced and checked.
    void close_image();
    // Hashes and map are synced; sizes and checksums stand in the manifest.
    void measure(const Map &map);
    void write_manifest();
    // All get their names, the manifest last; on return the backup is there, durably.
    void commit(Steps &steps);

  private:
    std::string partial(const char *suffix) const;
    void rename(const char *suffix);
    FileEntry entry(const char *suffix) const;

    const Store &store_;
    ImageTool &images_;
    Manifest &m_;
    std::unique_ptr<ImageIo> image_;
    std::unique_ptr<HashWriter> hashes_;
};

}  // namespace agent
