// driver/fsreaders/disk_fields.h: integers as they stand on a disk
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_FSREADERS_DISK_FIELDS_H
#define TRAK_FSREADERS_DISK_FIELDS_H

#include <cstdint>

// Byte by byte, so that neither alignment nor the machine's own order matters.
inline std::uint16_t trak_le16(const std::uint8_t *p) {
    return static_cast<std::uint16_t>(p[0] | p[1] << 8);
}
inline std::uint32_t trak_le32(const std::uint8_t *p) {
    return static_cast<std::uint32_t>(trak_le16(p)) | static_cast<std::uint32_t>(trak_le16(p + 2))
                                                          << 16;
}
inline std::uint16_t trak_be16(const std::uint8_t *p) {
    return static_cast<std::uint16_t>(p[0] << 8 | p[1]);
}
inline std::uint32_t trak_be32(const std::uint8_t *p) {
    return static_cast<std::uint32_t>(trak_be16(p)) << 16 | trak_be16(p + 2);
}
inline std::uint64_t trak_be64(const std::uint8_t *p) {
    return static_cast<std::uint64_t>(trak_be32(p)) << 32 | trak_be32(p + 4);
}

#endif
