# tests/vm/vm_kernels.py: Debian's kernels, fetched once and unpacked, never installed
# SPDX-License-Identifier: GPL-2.0-only
"""The newest packaged kernel of a series lies in a cache that outlives a clone:

    ${TRAK_CACHE:-${XDG_CACHE_HOME:-~/.cache}/trak}/kernels/RELEASE/
        vmlinux          as the virtual machine starts it (the packed one costs seconds to unpack)
        lib/modules/RELEASE/  the modules that a guest without a screen, sound or network may need

Where TRAK_VM_RELEASES names a release of the series (./run names those that it built the module for)
it is that one; otherwise the newest that is in the cache, and only where there is none, or `update`
asks for it, the newest that the package lists have. A release is
unpacked beside its place and renamed into it, so what is there is whole.
"""
import fcntl
import glob
import lzma
import os
import re
import shutil
import subprocess
import tempfile

from vm_report import CannotRun, note

TOP = os.path.normpath(os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", ".."))
SERIES = {
    "6.1": re.compile(r"^linux-image-(6\.1\.\d+-(\d+)-amd64)$"),
    "6.12": re.compile(r"^linux-image-(6\.12\.(\d+)\+deb12-amd64)$"),
}
KEPT = ("arch", "block", "crypto", "fs", "lib", "mm", "drivers/block", "drivers/md",
        "drivers/virtio", "drivers/dax", "drivers/scsi", "drivers/char")


class Kernel:
    """One unpacked kernel."""

    def __init__(self, series, release, folder):
        self.series, self.release, self.folder = series, release, folder
        self.image = f"{folder}/vmlinux"
        self.modules = f"{folder}/lib/modules/{release}"
        self.built = f"{TOP}/build/kernel/{release}"
        self.own_fs = "ext4"

    def has(self, _option):
        """Whether the kernel was configured with an option: a packaged one has what the suites need."""
        return True

    def dependencies(self):
        """name -> (path, names it depends on) of every module; the names of those built in."""
        depends = {}
        with open(f"{self.modules}/modules.dep", encoding="utf-8") as file:
            for line in file:
                path, _, needs = line.partition(":")
                # modules.dep names what must be loaded first last.
                depends[module_name(path)] = (f"{self.modules}/{path}", [
                    module_name(need) for need in reversed(needs.split())])
        with open(f"{self.modules}/modules.builtin", encoding="utf-8") as file:
            built_in = {module_name(line.strip()) for line in file}
        return depends, built_in


def module_name(path):
    return os.path.basename(path).split(".ko")[0].replace("-", "_")


def cache():
    base = os.environ.get("TRAK_CACHE") or os.path.join(
        os.environ.get("XDG_CACHE_HOME") or os.path.expanduser("~/.cache"), "trak")
    folder = os.path.join(base, "kernels")
    os.makedirs(folder, exist_ok=True)
    return folder


def newest(series, names, form):
    """The name with the greatest number of its series."""
    found = [match for match in (SERIES[series].match(form.format(name)) for name in names)
             if match]
    return max(found, key=lambda match: int(match[2]))[1] if found else None


def wanted(series):
    """The release that the environment asks for."""
    releases = os.environ.get("TRAK_VM_RELEASES", "").split()
    return newest(series, releases, "linux-image-{}")


def cached(series):
    releases = [os.path.basename(path[:-len("/vmlinux")])
                for path in glob.glob(f"{cache()}/*/vmlinux")]
    release = newest(series, releases, "linux-image-{}")
    return Kernel(series, release, f"{cache()}/{release}") if release else None


def get(series, update=False):
    """The kernel of a series; CannotRun says why it can't be had."""
    with open(f"{cache()}/.lock", "w", encoding="utf-8") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        release = wanted(series)
        if release:
            if not os.path.exists(f"{cache()}/{release}/vmlinux"):
                fetch(release)
            return Kernel(series, release, f"{cache()}/{release}")
        have = cached(series)
        if have and not update:
            return have
        try:
            release = available(series)
            if not have or have.release != release:
                fetch(release)
        except CannotRun:
            if have:
                return have
            raise
        return cached(series)


def apt(*words, limit=600, folder=None):
    """The output of an apt command; CannotRun with its last line when it fails."""
    try:
        done = subprocess.run(words, stdin=subprocess.DEVNULL, capture_output=True, text=True,
                              timeout=limit, check=False, cwd=folder)
    except (OSError, subprocess.TimeoutExpired) as error:
        raise CannotRun(f"{words[0]}: {error}") from None
    if done.returncode != 0:
        last = (done.stderr.strip() or done.stdout.strip() or "no message").splitlines()[-1]
        raise CannotRun(f"{' '.join(words[:2])}: {last}")
    return done.stdout


def available(series):
    """The newest release of the series that the package lists name."""
    for again in (False, True):
        if again:
            apt("apt-get", "-qq", "update", limit=200)
        lines = apt("apt-cache", "search", "--names-only", "^linux-image-6").splitlines()
        release = newest(series, [line.split(" ")[0] for line in lines if line], "{}")
        if release:
            return release
    raise CannotRun(f"no linux-image package of {series} in the package lists")


def fetch(release):
    """Downloads and unpacks one release."""
    note(f"fetching linux-image-{release}")
    with tempfile.TemporaryDirectory(prefix=".new-", dir=cache()) as folder:
        os.mkdir(f"{folder}/deb")
        os.chmod(folder, 0o755)
        options = ("-o", "APT::Sandbox::User=root", "-o", "Acquire::Retries=2",
                   "-o", "Acquire::http::Timeout=30")
        try:
            apt("apt-get", *options, "-qq", "download", f"linux-image-{release}",
                folder=f"{folder}/deb")
        except CannotRun:
            apt("apt-get", "-qq", "update", limit=200)
            apt("apt-get", *options, "-qq", "download", f"linux-image-{release}",
                folder=f"{folder}/deb")
        [package] = glob.glob(f"{folder}/deb/*.deb")
        apt("dpkg", "-x", package, f"{folder}/all")
        place = f"{folder}/kernel"
        os.mkdir(place)
        keep(f"{folder}/all/lib/modules/{release}", f"{place}/lib/modules/{release}")
        apt("depmod", "-b", place, release)
        with open(f"{folder}/all/boot/vmlinuz-{release}", "rb") as file:
            plain = unpack_image(file.read())
        with open(f"{place}/vmlinux", "wb") as file:
            file.write(plain)
        shutil.rmtree(f"{cache()}/{release}", ignore_errors=True)
        os.rename(place, f"{cache()}/{release}")


def keep(source, target):
    """The modules that a guest can use, and the files that depmod reads."""
    os.makedirs(target)
    for name in glob.glob(f"{source}/modules.*"):
        shutil.copy(name, target)
    for name in KEPT:
        if os.path.isdir(f"{source}/kernel/{name}"):
            shutil.copytree(f"{source}/kernel/{name}", f"{target}/kernel/{name}")


def unpack_image(data):
    """The ELF file inside a bzImage."""
    for magic, unpack in ((b"\xfd7zXZ\x00", unpack_xz), (b"\x28\xb5\x2f\xfd", unpack_zstd)):
        at = data.find(magic)
        while at >= 0:
            plain = unpack(data[at:])
            if plain[:4] == b"\x7fELF":
                return plain
            at = data.find(magic, at + 1)
    raise CannotRun("the kernel image is packed in a way that is not known here")


def unpack_xz(data):
    try:
        return lzma.LZMADecompressor(format=lzma.FORMAT_XZ).decompress(data)
    except lzma.LZMAError:
        return b""


def unpack_zstd(data):
    """zstd complains of what follows the stream, after it has written all of it."""
    done = subprocess.run(["zstd", "-dc"], input=data, capture_output=True, timeout=300,
                          check=False)
    return done.stdout
