#!/usr/bin/env python3
# packaging/reproduce.py: the packages, built twice in circumstances that differ, must be the same bytes
# SPDX-License-Identifier: GPL-2.0-only
"""Copies the tree into two folders and builds the packages in both (build.sh), one after the other. What
differs: the path and its length, the umask, the age of the sources, the number of processes at once, the
time zone (so that the date does), the language and the time of day. No compiler's cache is used. A package
that differs fails the run, with the files in it that do.
"""
import hashlib
import os
import shutil
import sys
import tarfile
import tempfile
from pathlib import Path

from steps import all_steps, check, run

TOP = Path(__file__).resolve().parents[1]
# folder, umask, seconds since 1970 of every source, variables
WAYS = (
    ("a", 0o022, 1577934245, {"TRAK_JOBS": "2", "TZ": "Etc/GMT+12", "LC_ALL": "C"}),
    ("another-folder-whose-path-is-a-good-deal-longer/and-one-deeper", 0o077, None,
     {"TRAK_JOBS": "1", "TZ": "Etc/GMT-14", "LC_ALL": "C.UTF-8"}),
)


def sources():
    """Every file of the tree that git knows or that is new; in an unpacked archive all but what was built."""
    if (TOP / ".git").exists():
        names = run(["git", "-C", str(TOP), "ls-files", "-co", "--exclude-standard", "-z"], 120).split("\0")
        return [name for name in names if name and (TOP / name).is_file()]
    return [str(path.relative_to(TOP)) for path in TOP.rglob("*")
            if path.is_file() and path.relative_to(TOP).parts[0] != "build"]


def members(path):
    """What is in a package: name -> what tells one file from another."""
    found = {}
    for part, option in (("control", "--ctrl-tarfile"), ("data", "--fsys-tarfile")):
        with tempfile.TemporaryFile() as file:
            run(["sh", "-c", f'dpkg-deb {option} "$0" >&"$1"', str(path), str(file.fileno())], 120,
                pass_fds=[file.fileno()])
            file.seek(0)
            with tarfile.open(fileobj=file) as archive:
                for number, one in enumerate(archive):
                    data = archive.extractfile(one).read() if one.isreg() else b""
                    found[f"{part} {one.name}"] = {
                        "place": number, "mode": oct(one.mode), "time": one.mtime, "link": one.linkname,
                        "owner": (one.uid, one.gid, one.uname, one.gname), "size": len(data),
                        "bytes": hashlib.sha256(data).hexdigest()}
    return found


def differences(one, other):
    """Sentences about two packages."""
    left, right = members(one), members(other)
    said = [f"{name}: only in one of them" for name in sorted(left.keys() ^ right.keys())]
    for name in sorted(left.keys() & right.keys()):
        said += [f"{name}: {what} {left[name][what]} and {right[name][what]}" for what in left[name]
                 if left[name][what] != right[name][what]]
    return said or ["their contents are the same, and differ in how they are packed"]


class Twice:
    """The two builds and what came of them."""

    def __init__(self, folder):
        self._built = [Path(folder) / name for name, *_ in WAYS]

    def _build(self, number):
        top = self._built[number]
        _, umask, age, variables = WAYS[number]
        before = os.umask(umask)
        try:
            for name in sources():
                (top / name).parent.mkdir(parents=True, exist_ok=True)
                shutil.copy(TOP / name, top / name)
                if age is not None:
                    os.utime(top / name, (age, age))
            run([str(top / "packaging/build.sh")], 3600,
                env={**os.environ, "CCACHE_DISABLE": "1", **variables})
        finally:
            os.umask(before)

    def they_are_built_in_one_folder(self):
        self._build(0)

    def they_are_built_in_another(self):
        self._build(1)

    def they_are_the_same_bytes(self):
        names = [sorted(path.name for path in (top / "build/packages").glob("*.deb")) for top in self._built]
        check(names[0] == names[1] and len(names[0]) >= 5, f"packages: {names}")
        faults = []
        for name in names[0]:
            one, other = (top / "build/packages" / name for top in self._built)
            digests = [hashlib.sha256(path.read_bytes()).hexdigest() for path in (one, other)]
            print(f"{digests[0]}  {name}", flush=True)
            if digests[0] != digests[1]:
                faults += [f"{name}: {line}" for line in differences(one, other)[:20]]
        check(not faults, "\n".join(["they differ:", *faults]))


def main():
    # Nothing above the copies is a repository, whose files build.sh would take.
    with tempfile.TemporaryDirectory(prefix="trak-twice.", dir="/var/tmp") as folder:
        return all_steps(Twice(folder))


if __name__ == "__main__":
    sys.exit(main())
