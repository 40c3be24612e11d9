/* tests/unit/abi/abi_from_c.c: the interface header seen by the C compiler */
/* SPDX-License-Identifier: GPL-2.0-only */
#include "abi/trak_ioctl.h"

#include "abi_from_c.h"

const struct abi_row abi_c_rows[] = {
#define RECORD(r, size) {#r, "", 0, sizeof(struct trak_##r##_arg)},
#define FIELD(r, f, off, width)                                                                    \
    {#r, #f, offsetof(struct trak_##r##_arg, f), sizeof(((struct trak_##r##_arg *)0)->f)},
#include "layout.h"
#undef RECORD
#undef FIELD
};
const size_t abi_c_row_count = sizeof(abi_c_rows) / sizeof(abi_c_rows[0]);

const struct abi_code abi_c_codes[] = {
#define CODE(name, nr, code, size, back) {#name, name},
#include "codes.h"
#undef CODE
};
const size_t abi_c_code_count = sizeof(abi_c_codes) / sizeof(abi_c_codes[0]);
