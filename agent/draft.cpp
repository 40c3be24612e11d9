// agent/draft.cpp: the files of a backup, under temporary names until it is whole
// SPDX-License-Identifier: GPL-2.0-only
#include "agent/draft.h"

#include "agent/events.h"

namespace agent {

std::string Draft::partial(const char *suffix) const {
    return store_.path(m_.id + suffix + ".partial");
}

void Draft::make(const std::string &backing) {
    // Images are of whole sectors.
    uint64_t size = (m_.node.size + 511) / 512 * 512;
    images_.create(partial(".qcow2"), size, m_.block_size, backing);
    image_ = images_.open_for_writing(partial(".qcow2"));
    hashes_ = std::make_unique<HashWriter>(partial(".hashes"), m_.node.size, m_.block_size);
}

void Draft::close_image() {
    image_->finish();
    image_.reset();
    files::sync_path(partial(".qcow2"));
    images_.check(partial(".qcow2"));
}

FileEntry Draft::entry(const char *suffix) const {
    return {m_.id + suffix, files::size_of(partial(suffix)),
            checksum_file(partial(suffix), check_interrupt)};
}

void Draft::measure(const Map &map) {
    hashes_->sync();
    hashes_.reset();
    std::vector<uint8_t> bytes = map_file_bytes(map, m_.run);
    files::write_synced(partial(".map"), bytes.data(), bytes.size());
    m_.image = entry(".qcow2");
    m_.hashes = entry(".hashes");
    m_.map = entry(".map");
}

void Draft::write_manifest() {
    std::string text = manifest_text(m_);
    files::write_synced(partial(".json"), text.data(), text.size());
}

void Draft::rename(const char *suffix) {
    files::rename_file(partial(suffix), store_.path(m_.id + suffix));
}

void Draft::commit(Steps &steps) {
    rename(".qcow2");
    steps.at("image-renamed");
    rename(".hashes");
    rename(".map");
    files::sync_path(store_.folder());
    steps.at("files-renamed");
    rename(".json");
    steps.at("manifest-renamed");
    files::sync_path(store_.folder());
    steps.at("committed");
}

}  // namespace agent
