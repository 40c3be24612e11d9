// driver/fsreaders/readers.cpp: the readers of file systems, in the order in which they are probed
// SPDX-License-Identifier: GPL-2.0-only
#include "driver/fsreaders/readers.h"

#include "driver/fsreaders/ext2_reader.h"
#include "driver/fsreaders/reiserfs_reader.h"
#include "driver/fsreaders/xfs_reader.h"

namespace {

constexpr trak_fs_reader kReaders[] = {
    {ext2_reader_init, ext2_reader_read, ext2_reader_destroy},
    {reiserfs_reader_init, reiserfs_reader_read, reiserfs_reader_destroy},
    {xfs_reader_init, xfs_reader_read, xfs_reader_destroy},
};

}  // namespace

const trak_fs_reader *const trak_fs_readers = kReaders;
const int trak_fs_reader_count = sizeof kReaders / sizeof kReaders[0];
