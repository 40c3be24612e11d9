// tests/fuzz/readers/fuzz_reiserfs.cpp: libFuzzer's way into the reader of ReiserFS
// SPDX-License-Identifier: GPL-2.0-only
#include "tests/fuzz/readers/reader_program.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    return fuzz::run_reader_input(fuzz::ReaderImage::kReiser, data, size);
}
