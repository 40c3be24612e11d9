# tests/system/control_test.py: commands through the tree's control device
# SPDX-License-Identifier: GPL-2.0-only
import ctypes
import errno
import fcntl
import mmap
import os
import random
import signal
import struct
import threading

import trak_abi
from trak_abi import ALL, CLR, DIFF, GET, INCR, INFO, SAVE, SET, ioctl, ioctl_at
from trak_machine import MIB, SystemTest
from trak_testing import eventually, main, run, skip

# ioctl(fd, code, address) by the 32-bit system call of the same kernel.
COMPAT_IOCTL = bytes.fromhex("53b83600000089fb89f189d2cd805bc3")


class Control(SystemTest):
    def debug(self, daemon, level):
        with open(f"{daemon.root}/proc/trak/debug", "w", encoding="ascii") as file:
            file.write(f"{level}\n")

    def test_records_go_both_ways(self):
        d = self.filter()
        with d.control() as control:
            info = control.info(0)
        self.assertEqual((info.dev_type, info.size, info.extent_size, info.extent_cnt),
                         (trak_abi.FILTER, 64 * MIB, 65536, 1024))
        self.assertEqual(info.disk, "/dev/image/d")
        self.assertEqual(info.name, "trak0")

    def test_records_of_the_interpreters_own_ioctl_work_too(self):
        d = self.filter()
        with d.control() as control:
            record = bytearray(1032)
            struct.pack_into("<I", record, 0, trak_abi.FILTER)
            self.assertEqual(fcntl.ioctl(control.fd, trak_abi.LIST, record, True), 0)
            self.assertEqual(struct.unpack_from("<II", record, 4), (1, 0))

    def test_addresses_in_records_are_reached_in_the_caller(self):
        d = self.filter()
        with d.control() as control:
            bits = bytes(random.Random(1).randbytes(128))
            control.bits(SET, 0, INCR, bits)
            self.assertEqual(control.bits(GET, 0, INCR), bits)
            # Across pages, the last of which is not there.
            area = mmap.mmap(-1, 3 * 4096)
            start = ctypes.addressof(ctypes.c_char.from_buffer(area))
            trak_abi.libc.munmap(ctypes.c_void_p(start + 8192), ctypes.c_size_t(4096))
            record = bytearray(struct.pack("<IIIIQ", 0, INCR, 128, 0, start + 4096 - 64))
            self.assertEqual(ioctl(control.fd, GET, record), 0)
            self.assertEqual(area[4096 - 64:4096 + 64], bits)
            record = bytearray(struct.pack("<IIIIQ", 0, INCR, 128, 0, start + 8192 - 64))
            self.assertEqual(ioctl(control.fd, GET, record), -errno.EFAULT)

    def test_memory_that_is_not_there_is_a_fault(self):
        d = self.filter()
        with d.control() as control:
            for address in (0, 8, 0x7FFFFFFFF000, 0xFFFFFFFFFFFFFFF0):
                for code in (INFO, CLR, GET):
                    self.assertEqual(ioctl_at(control.fd, code, address), -errno.EFAULT,
                                     f"{code:#x} at {address:#x}")
            for address in (0x10, 0x7FFFFFFFF000, 0xFFFFFFFFFFFFFFF0):
                record = bytearray(struct.pack("<IIIIQ", 0, INCR, 128, 0, address))
                self.assertEqual(ioctl(control.fd, GET, record), -errno.EFAULT, hex(address))
                record = bytearray(struct.pack("<IIIIQ", 0, INCR, 128, 0, address))
                self.assertEqual(ioctl(control.fd, SET, record), -errno.EFAULT, hex(address))
            area = mmap.mmap(-1, 4096)
            start = ctypes.addressof(ctypes.c_char.from_buffer(area))
            trak_abi.libc.mprotect(ctypes.c_void_p(start), ctypes.c_size_t(4096), mmap.PROT_READ)
            record = bytearray(struct.pack("<IIIIQ", 0, INCR, 128, 0, start))
            self.assertEqual(ioctl(control.fd, GET, record), -errno.EFAULT)
            self.assertEqual(control.info(0).started, 1)

    def test_unknown_codes_and_sizes_are_refused(self):
        d = self.filter()
        dice = random.Random(2)
        with d.control() as control:
            record = bytearray(16384)
            for code in (0x4300, 0x40044312, 0xC0184300, 0x80044301, 0x5401, 0x58, 0xFFFFFFFF):
                self.assertIn(ioctl(control.fd, code, record),
                              (-errno.ENOTTY, -errno.EFAULT), hex(code))
            for code in ALL:
                for size in (0, 1, 4, 24, trak_abi.size_of(code) + 1, 16383):
                    other = code & 0xC000FFFF | size << 16
                    if other not in ALL:
                        self.assertEqual(ioctl(control.fd, other, record), -errno.ENOTTY,
                                         hex(other))
            for _ in range(2000):
                code = dice.getrandbits(32)
                if code not in ALL and code >> 8 & 0xFF == 0x43:
                    self.assertLess(ioctl(control.fd, code, record), 0, hex(code))
            self.assertEqual(control.info(0).started, 1)

    def test_garbage_in_records_is_refused_and_harms_nothing(self):
        d = self.filter()
        dice = random.Random(3)
        with d.control() as control:
            for _ in range(400):
                code = dice.choice(ALL)
                record = bytearray(dice.randbytes(trak_abi.size_of(code)))
                self.assertNotEqual(ioctl(control.fd, code, record), 0, hex(code))
            self.assertEqual(control.minors(trak_abi.FILTER), [0])
            self.assertEqual(control.info(0).started, 1)

    def test_unknown_nodes_are_refused(self):
        d = self.filter()
        with d.control() as control:
            for minor in (1, 255, 256, 0x7FFFFFFF, 0xFFFFFFFF):
                node = bytearray(struct.pack("<I", minor))
                self.assertEqual(ioctl(control.fd, trak_abi.START, node), -errno.EINVAL)
                self.assertEqual(ioctl(control.fd, trak_abi.DEL, node), 22, "positive, on purpose")
                info = bytearray(6408)
                info[0:4] = node
                self.assertEqual(ioctl(control.fd, INFO, info), -errno.EINVAL)

    def test_32_bit_programs_have_no_commands(self):
        d = self.filter()
        low = mmap.mmap(-1, 4096, flags=mmap.MAP_PRIVATE | mmap.MAP_ANONYMOUS | 0x40)
        low[:8] = struct.pack("<II", 0, INCR)
        record = ctypes.addressof(ctypes.c_char.from_buffer(low))
        self.assertLess(record, 1 << 32)
        with d.control() as control:
            child = os.fork()
            if child == 0:
                code = mmap.mmap(-1, 4096, prot=mmap.PROT_READ | mmap.PROT_WRITE | mmap.PROT_EXEC)
                code[:len(COMPAT_IOCTL)] = COMPAT_IOCTL
                at = ctypes.addressof(ctypes.c_char.from_buffer(code))
                call = ctypes.CFUNCTYPE(ctypes.c_int, ctypes.c_int, ctypes.c_uint32,
                                        ctypes.c_uint32)(at)
                os._exit(-call(control.fd, CLR, record) & 0xFF)
            _, status = os.waitpid(child, 0)
            self.assertEqual(ioctl_at(control.fd, CLR, record), 0)
        if os.WIFSIGNALED(status) or os.waitstatus_to_exitcode(status) == errno.ENOSYS:
            skip("this kernel runs no 32-bit programs")
        self.assertEqual(os.waitstatus_to_exitcode(status), errno.ENOTTY)

    def test_commands_of_a_killed_caller_end_and_leave_trakd_well(self):
        d = self.filter()
        volume = self.m.volume("held")
        self.debug(d, 2)
        with d.control() as control:
            control.stop(0)
            control.delete(0)
            control.add_filter("/dev/image/d", volume)
            run("fsfreeze", "-f", volume)
            child = os.fork()
            if child == 0:
                ioctl(control.fd, SAVE, bytearray(struct.pack("<II", 0, INCR)))
                os._exit(0)
            waiting = threading.Thread(target=os.waitpid, args=(child, 0))
            waiting.start()
            d.said("trak_block_save_bmp(): Saving Incremental")
            os.kill(child, signal.SIGKILL)
            self.assertEqual(control.info(0).started, 0)
            run("fsfreeze", "-u", volume)
            waiting.join(60)
            self.assertFalse(waiting.is_alive())
            control.bmp(SAVE, 0, DIFF)

    def test_node_files_pass_block_ioctls_to_the_driver(self):
        d = self.filter()
        self.debug(d, 2)
        fd = os.open(d.node(), os.O_RDONLY)
        try:
            self.assertEqual(ioctl_at(fd, 0x1261, 0), 0)
        finally:
            os.close(fd)
        eventually(lambda: "(BLKFLSBUF)" in d.log(), "the driver was asked")


if __name__ == "__main__":
    main()
