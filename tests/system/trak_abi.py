# tests/system/trak_abi.py: the control device's commands and records, written down by hand
# SPDX-License-Identifier: GPL-2.0-only
"""Independent of abi/trak_ioctl.h on purpose: numbers, offsets and widths stand here as they are
documented, so that a change there is a failure here.
"""
import ctypes
import errno
import os
import struct

INCR, DIFF = 1, 0
FILTER, SNAP = 1, 2

ADD_FILTER, ADD_SNAP = 0xC8B04301, 0xC8B44302
DEL, START, STOP = 0x40044303, 0x40044304, 0x40044305
LIST, INFO = 0xC4084306, 0xD9084307
LOAD, SAVE, CLR = 0x40084308, 0x40084309, 0x4008430A
SET, MERGE, GET, GET_AND_CLR = 0x4018430B, 0x4018430C, 0xC018430D, 0xC018430E
DATABLOCK, TEST_DATABLOCK, RESUME = 0xC018430F, 0x44004310, 0x40104311
ALL = (ADD_FILTER, ADD_SNAP, DEL, START, STOP, LIST, INFO, LOAD, SAVE, CLR, SET, MERGE, GET,
       GET_AND_CLR, DATABLOCK, TEST_DATABLOCK, RESUME)

libc = ctypes.CDLL(None, use_errno=True)
libc.ioctl.argtypes = [ctypes.c_int, ctypes.c_ulong, ctypes.c_void_p]


def size_of(code):
    return code >> 16 & 0x3FFF


def ioctl_at(fd, code, address):
    """The system call as it is: the result, or minus errno. Other threads run meanwhile."""
    rc = libc.ioctl(fd, code, address)
    return -ctypes.get_errno() if rc == -1 else rc


def ioctl(fd, code, record):
    """With a record (bytearray), which takes what comes back."""
    buffer = (ctypes.c_char * max(len(record), 1)).from_buffer(record or bytearray(1))
    return ioctl_at(fd, code, ctypes.addressof(buffer))


def text(record, offset, width):
    return bytes(record[offset:offset + width]).split(b"\0")[0].decode()


def put(record, offset, value):
    data = value.encode() if isinstance(value, str) else value
    record[offset:offset + len(data)] = data


def u32(record, offset):
    return struct.unpack_from("<I", record, offset)[0]


def u64(record, offset):
    return struct.unpack_from("<Q", record, offset)[0]


class Refused(Exception):
    """A command that did not return 0."""

    def __init__(self, code, result):
        name = errno.errorcode.get(-result, result)
        super().__init__(f"command {code:#x} returned {result} ({name})")
        self.result = result


class Control:
    """The control device of a tree. Commands raise Refused unless they return 0."""

    def __init__(self, root):
        self.fd = os.open(f"{root}/dev/trakctl", os.O_RDWR | os.O_CLOEXEC)

    def close(self):
        os.close(self.fd)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def command(self, code, record):
        result = ioctl(self.fd, code, record)
        if result != 0:
            raise Refused(code, result)
        return record

    def add_filter(self, disk, bmp_dir, extent_size=65536, minor=-1, name=""):
        record = bytearray(2224)
        put(record, 0, disk)
        struct.pack_into("<iI", record, 1024, minor, extent_size)
        put(record, 1032, bmp_dir)
        put(record, 2095, name)
        self.command(ADD_FILTER, record)
        return struct.unpack_from("<i", record, 1024)[0]

    def add_snap(self, filter_minor, cow_bmp, cow_data, chunk_size=65536, minor=-1):
        record = bytearray(2228)
        struct.pack_into("<IiI", record, 0, filter_minor, minor, chunk_size)
        put(record, 12, cow_bmp)
        put(record, 1036, cow_data)
        self.command(ADD_SNAP, record)
        return struct.unpack_from("<i", record, 4)[0]

    def minor(self, code, minor):
        self.command(code, bytearray(struct.pack("<I", minor)))

    def start(self, minor):
        self.minor(START, minor)

    def stop(self, minor):
        self.minor(STOP, minor)

    def delete(self, minor):
        self.minor(DEL, minor)

    def resume(self, minor):
        self.command(RESUME, bytearray(struct.pack("<IIII", minor, 1, 0, 0)))

    def minors(self, dev_type):
        record = bytearray(1032)
        struct.pack_into("<I", record, 0, dev_type)
        self.command(LIST, record)
        return list(struct.unpack_from(f"<{u32(record, 4)}I", record, 8))

    def info(self, minor):
        record = bytearray(6408)
        struct.pack_into("<I", record, 0, minor)
        self.command(INFO, record)
        return Info(record)

    def bmp(self, code, minor, which):
        self.command(code, bytearray(struct.pack("<II", minor, which)))

    def bits(self, code, minor, which, bits=None):
        """One of the four commands with a bitmap; returns the bitmap as it is afterwards."""
        bits = bytearray(bits if bits is not None else self.info(minor).bmp_size)
        data = (ctypes.c_char * len(bits)).from_buffer(bits)
        record = struct.pack("<IIIIQ", minor, which, len(bits), 0, ctypes.addressof(data))
        self.command(code, bytearray(record))
        return bytes(bits)


class Info:
    """The information record."""

    def __init__(self, record):
        self.raw = bytes(record)
        self.dev_type, self.size = u32(record, 4), u64(record, 8)
        self.started, self.use_cnt = u32(record, 16), u32(record, 20)
        self.uuid, self.name = text(record, 24, 39), text(record, 63, 128)
        self.disk = text(record, 191, 1024)
        self.extent_size, self.extent_cnt = u32(record, 1216), u32(record, 1220)
        self.snaps = [u32(record, 1224 + 4 * n) for n in range(u32(record, 2248))]
        self.bmp_size = u32(record, 2252)
        self.clear = {INCR: u32(record, 4308), DIFF: u32(record, 4312)}
        self.full = {INCR: u32(record, 4316), DIFF: u32(record, 4320)}
        self.valid, self.stop_pending = u32(record, 4324), u32(record, 4328)
        self.del_pending, self.chunk_size = u32(record, 4332), u32(record, 4336)


def marked(bits):
    """Numbers of the bits that are set."""
    return [8 * at + bit for at, byte in enumerate(bits) if byte for bit in range(8)
            if byte >> bit & 1]
