/* tests/unit/abi/abi_from_c.h: what the C compiler makes of the interface, for the C++ test */
/* SPDX-License-Identifier: GPL-2.0-only */
#ifndef TRAK_TESTS_ABI_FROM_C_H
#define TRAK_TESTS_ABI_FROM_C_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* One row of layout.h as compiled; field "" stands for the record as a whole (offset 0). */
struct abi_row {
    const char *record, *field;
    size_t offset, width;
};
extern const struct abi_row abi_c_rows[];
extern const size_t abi_c_row_count;

struct abi_code {
    const char *name;
    uint32_t code;
};
extern const struct abi_code abi_c_codes[];
extern const size_t abi_c_code_count;

#ifdef __cplusplus
}
#endif

#endif
