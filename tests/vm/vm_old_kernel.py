# tests/vm/vm_old_kernel.py: programs of today in a guest whose kernel is older than their C library
# SPDX-License-Identifier: GPL-2.0-only
"""The C library asks the kernel about an open file with newfstatat and an empty path, which kernels
before 2.6.39 refuse; nothing else that the guests' programs need is missing there. The copies that go
into such a guest (the kernel stays as it is) are changed at each such call: it goes through a few
instructions at the end of the program's code that make it the fstat that every kernel has.
"""
import struct

# mov $262,%eax; syscall
CALL = b"\xb8\x06\x01\x00\x00\x0f\x05"
# With flags (r10) of an empty path: fstat(edi, rdx); else newfstatat with the one flag that is known.
DETOUR = (b"\x41\xf7\xc2\x00\x10\x00\x00"  # test $0x1000,%r10d
          b"\x75\x0f"                      # jnz 1f
          b"\x41\x81\xe2\x00\x01\x00\x00"  # and $0x100,%r10d
          b"\xb8\x06\x01\x00\x00"          # mov $262,%eax
          b"\x0f\x05\xc3"                  # syscall; ret
          b"\x48\x89\xd6"                  # 1: mov %rdx,%rsi
          b"\xb8\x05\x00\x00\x00"          # mov $5,%eax
          b"\x0f\x05\xc3")                 # syscall; ret
PAGE = 4096
PT_LOAD, PF_X = 1, 1
FIRST_WITHOUT_NEED = (2, 6, 39)


def is_old(release):
    """Whether programs need the change under a kernel of this release."""
    numbers = [int(part) for part in release.split("-")[0].split(".")[:3] if part.isdigit()]
    return tuple(numbers) < FIRST_WITHOUT_NEED


def code_of(data):
    """(offset, size, index of its header) of the code segment of an ELF file of 64 bits; or None."""
    if data[:5] != b"\x7fELF\x02" or struct.unpack_from("<H", data, 18)[0] != 62:
        return None
    table, = struct.unpack_from("<Q", data, 32)
    size, count = struct.unpack_from("<HH", data, 54)
    for number in range(count):
        at = table + number * size
        kind, flags, offset, _, _, length = struct.unpack_from("<IIQQQQ", data, at)
        if kind == PT_LOAD and flags & PF_X:
            return offset, length, at
    return None


def for_old_kernel(data):
    """The file with its calls changed; the same where it has none. ValueError where its code segment
    has no room left in its last page."""
    code = code_of(data)
    if code is None:
        return data
    offset, length, header = code
    end = offset + length
    calls, at = [], data.find(CALL, offset, end)
    while at >= 0:
        calls.append(at)
        at = data.find(CALL, at + len(CALL), end)
    if not calls:
        return data
    if -end % PAGE < len(DETOUR) or any(data[end:end + len(DETOUR)]):
        raise ValueError("there is no room behind its code")
    changed = bytearray(data)
    changed[end:end + len(DETOUR)] = DETOUR
    struct.pack_into("<QQ", changed, header + 32, length + len(DETOUR), length + len(DETOUR))
    for at in calls:
        # call DETOUR; nop of two bytes
        changed[at:at + len(CALL)] = b"\xe8" + struct.pack("<i", end - at - 5) + b"\x66\x90"
    return bytes(changed)
