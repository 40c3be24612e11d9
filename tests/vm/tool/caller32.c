// tests/vm/tool/caller32.c: a program of 32 bits that calls every command of the control device
// SPDX-License-Identifier: GPL-2.0-only
//
// Without any library, so that it is built where there are none of 32 bits. caller32 DEVICE: writes the
// number of each command and the errno that it ended with, a line each; 0 is success.
#include "abi/trak_ioctl.h"

static const uint32_t codes[] = {TRAK_ADD_FILTER_NODE, TRAK_ADD_SNAP_NODE,   TRAK_DEL_NODE,
                                 TRAK_START_NODE,      TRAK_STOP_NODE,       TRAK_GET_DEVICE_LIST,
                                 TRAK_GET_INFO,        TRAK_LOAD_BMP,        TRAK_SAVE_BMP,
                                 TRAK_CLR_BMP,         TRAK_SET_BMP,         TRAK_MERGE_BMP,
                                 TRAK_GET_BMP,         TRAK_GET_AND_CLR_BMP, TRAK_GET_DATABLOCK_BMP,
                                 TRAK_TEST_DATABLOCK,  TRAK_RESUME_SNAP};

static unsigned char record[8192];

enum { sys_exit = 1, sys_write = 4, sys_open = 5, sys_ioctl = 54 };

static long call(long number, long a, long b, long c) {
    long rc;

    __asm__ volatile("int $0x80" : "=a"(rc) : "a"(number), "b"(a), "c"(b), "d"(c) : "memory");
    return rc;
}

static void say(unsigned int number, unsigned int error) {
    char line[8] = {(char)('0' + number / 10),
                    (char)('0' + number % 10),
                    ' ',
                    (char)('0' + error / 100 % 10),
                    (char)('0' + error / 10 % 10),
                    (char)('0' + error % 10),
                    '\n'};

    call(sys_write, 1, (long)line, 7);
}

__attribute__((used)) void begin(long *stack) {
    const long fd = stack[0] == 2 ? call(sys_open, stack[2], 2, 0) : -1;

    if (fd < 0)
        call(sys_exit, 1, 0, 0);
    for (unsigned int n = 0; n < sizeof(codes) / sizeof(codes[0]); n++)
        say(n + 1, (unsigned int)-call(sys_ioctl, fd, (long)codes[n], (long)record));
    call(sys_exit, 0, 0, 0);
}

__asm__(".globl _start\n_start: mov %esp, %eax\n push %eax\n call begin\n");
