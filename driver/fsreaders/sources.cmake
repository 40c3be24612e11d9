# driver/fsreaders/sources.cmake: which chunks of a disk hold data
# SPDX-License-Identifier: GPL-2.0-only
list(APPEND TRAK_DRIVER_SOURCES
     fsreaders/blkbmp.cpp
     fsreaders/datablock_commands.cpp
     fsreaders/ext2_reader.cpp
     fsreaders/readers.cpp
     fsreaders/reiserfs_reader.cpp
     fsreaders/self_test.cpp
     fsreaders/self_test_reader.cpp
     fsreaders/sparse_array.cpp
     fsreaders/xfs_log.cpp
     fsreaders/xfs_reader.cpp
     fsreaders/xfs_tree.cpp)
