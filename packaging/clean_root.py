#!/usr/bin/env python3
# packaging/clean_root.py: the built packages, installed, used, removed and purged in a clean Debian
# SPDX-License-Identifier: GPL-2.0-only
"""Makes a root of nothing but Debian's essential packages and apt (mmdebstrap, from the sources that
this machine's apt has), installs headers of every kernel line that the module is tested on and the
packages of build/packages, and looks at what apt, dpkg and dkms did. Each step is one line of output;
the first that fails ends the run with status 1 and the end of what the commands said.

Root, a network, and a few minutes are needed. The root lies in --folder and goes with the run, unless
--keep is given.
"""
import argparse
import os
import re
import shutil
import sys
import tempfile
from pathlib import Path

import boot
from steps import all_steps, check, run

TOP = Path(__file__).resolve().parents[1]
PACKAGES = TOP / "build/packages"
HEADERS = ("linux-headers-amd64", "linux-headers-6.12-amd64")
LIMIT = 2400  # seconds for whatever installs packages, on a machine ten times slower than yours
NAMES = ("trak", "trak-backup", "trak-dkms", "libtrak0", "libtrak-dev")

PROGRAM = r"""
#include <stdio.h>
#include <trak.h>
int main(void) {
    struct trak *t;
    char why[TRAK_WHY_SIZE];
    int rc = trak_open("/nowhere", &t, why);
    printf("%d %s\n", rc, why);
    return rc == -19 ? 0 : 1;
}
"""


def apt_sources():
    """The machine's own sources of Debian, one a line."""
    out = run(["apt-get", "indextargets", "--format",
               "$(REPO_URI) $(RELEASE) $(COMPONENT)", "Created-By: Packages", "Origin: Debian"], 60)
    lines = sorted({f"deb {' '.join(line.split()[:3])}" for line in out.splitlines()
                    if len(line.split()) >= 3})
    check(lines, "apt knows no source of Debian (run apt-get update first)")
    return "\n".join(lines) + "\n"


class Root:
    """The clean Debian below one folder."""

    def __init__(self, path):
        self.path = Path(path)

    def make(self):
        sources = apt_sources()
        suite = re.search(r"^deb \S+ (\w+) ", sources, re.M)[1]
        listed = self.path.parent / "sources"
        listed.write_text(sources, encoding="utf-8")
        run(["mmdebstrap", "--mode=root", "--variant=apt", "--format=directory", "--quiet",
             "--dpkgopt=force-unsafe-io", "--aptopt=Acquire::Languages \"none\"",
             "--include=ca-certificates", suite, str(self.path), str(listed)], LIMIT)
        # Nothing is started in here.
        policy = self.path / "usr/sbin/policy-rc.d"
        policy.write_text("#!/bin/sh\nexit 101\n", encoding="utf-8")
        policy.chmod(0o755)

    def do(self, *words, limit=600, expect=0):
        """A command inside, with mounts of its own that go with it."""
        script = ('mount -t proc proc "$0/proc" && mount -t devtmpfs dev "$0/dev" && '
                  'mount -t tmpfs run "$0/run" && exec chroot "$0" "$@"')
        environment = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL": "C.UTF-8", "HOME": "/root",
                       "DEBIAN_FRONTEND": "noninteractive"}
        environment.update({k: v for k, v in os.environ.items() if k.lower().endswith("_proxy")})
        return run(["unshare", "--mount", "--pid", "--fork", "--kill-child", "sh", "-c", script,
                    str(self.path), *words], limit, expect, env=environment)

    def apt(self, *words, limit=LIMIT):
        return self.do("apt-get", "-q", "-y", "-o", "Acquire::Retries=2",
                       "-o", "APT::Install-Recommends=false",
                       "-o", "DPkg::Options::=--force-unsafe-io", *words, limit=limit)

    def below(self, *names):
        """Every file and folder below these, as the root sees them."""
        found = set()
        for name in names:
            for folder, folders, files in os.walk(self.path / name):
                found.update(os.path.relpath(os.path.join(folder, one), self.path)
                             for one in folders + files)
        return found

    def kernels(self):
        """The releases whose headers are installed."""
        releases = [path.name for path in (self.path / "lib/modules").iterdir()
                    if (path / "build/include/generated/utsrelease.h").exists()]
        check(len(releases) == len(HEADERS), f"headers of {releases}")
        return sorted(releases)


WATCHED = ("etc", "lib/modules", "lib/systemd", "lib/udev", "usr/bin", "usr/include", "usr/lib", "usr/sbin",
           "usr/share/bash-completion", "usr/share/doc", "usr/share/man", "usr/src", "var/lib")
# What dpkg, apt, dkms, ldconfig and systemd keep for themselves, whoever is installed.
THEIR_OWN = re.compile(r"var/lib/(dpkg|apt|systemd|dkms/mok\.|pam|ucf)|etc/ld\.so\.cache|.*__pycache__|"
                       r"(usr/)?lib/modules/[^/]+/modules\.|etc/.*-$")


class Steps:
    """One after the other: each may rely on those before."""

    def __init__(self, root):
        self.root = root

    def a_clean_root_is_made(self):
        self.root.make()
        self.root.apt("update")
        self.root.apt("install", *HEADERS, "systemd", "udev", "e2fsprogs", "gcc", "libc6-dev",
                      "pkg-config", "dkms", "g++-12", "make", "libfmt9", "libfuse3-3", "liburing2",
                      "qemu-utils", "libnbd0", "libxxhash0")
        self.before = self.root.below(*WATCHED)

    def the_packages_install(self):
        inside = self.root.path / "packages"
        inside.mkdir()
        self.files = []
        for name in NAMES:
            deb, = PACKAGES.glob(f"{name}_*.deb")
            shutil.copy(deb, inside)
            self.files.append(f"/packages/{deb.name}")
        out = self.root.apt("install", *self.files)
        check("Error!" not in out and "dpkg: error" not in out, out[-3000:])
        self.root.do("dpkg", "--audit")

    def the_module_is_built_for_every_kernel(self):
        status = self.root.do("dkms", "status")
        for release in self.root.kernels():
            check(re.search(rf"^trak/\S+, {re.escape(release)}, x86_64: installed$", status, re.M),
                  f"dkms status: {status}")
            about = self.root.do("/sbin/modinfo", "-k", release, "trak")
            check(f"/lib/modules/{release}/updates/dkms/trak.ko" in about, about)
            check(f"vermagic:       {release} " in about, about)
            check("Block Filtering and Snap Driver" in about, about)
        check(len(self.root.kernels()) == 2, "two kernel lines")

    def a_kernel_of_another_line_is_passed_over(self):
        out = self.root.do("dkms", "build", "trak/" + self._version(), "-k", "5.10.0-1-amd64/x86_64",
                           expect=None)
        check("BUILD_EXCLUSIVE" in out, out)

    def _version(self):
        return self.root.do("dpkg-query", "-W", "-f", "${Version}", "trak-dkms").strip()

    def the_programs_run(self):
        out = self.root.do("trakctl", "--version")
        check(out.strip() == f"trakctl {self._version()}", out)
        check(self.root.do("trakd", "--version").startswith("trakd"), "trakd")
        check("no driver here: load the trak module" in
              self.root.do("trakctl", "list", expect=1), "trakctl list")
        example = "/usr/share/doc/trak/examples/10-data.conf"
        check("node 0 (data)" in self.root.do("trakctl", "check-config", "--config", example), "example")

    def a_program_is_built_with_the_library(self):
        (self.root.path / "tmp/agent.c").write_text(PROGRAM, encoding="utf-8")
        for link, name in (("$(pkg-config --libs libtrak)", "shared"),
                           ("-l:libtrak.a -lpthread", "static")):
            self.root.do("sh", "-c", f"cd /tmp && gcc -Wall -Werror $(pkg-config --cflags libtrak) "
                         f"-o {name} agent.c {link}")
            out = self.root.do(f"/tmp/{name}")
            check(out.startswith("-19 no driver at /nowhere"), out)
        needed = self.root.do("sh", "-c", "objdump -p /tmp/shared | grep NEEDED")
        check("libtrak.so.0\n" in needed, needed)
        check("libtrak" not in self.root.do("sh", "-c", "objdump -p /tmp/static | grep NEEDED"), "static")

    def the_units_are_in_order(self):
        # It is the first process here, which would log elsewhere; a clean root has no man.
        out = self.root.do("env", "SYSTEMD_LOG_TARGET=console", "systemd-analyze", "verify", "--man=no",
                           "trak.service", "trak-stop.service")
        check("trak" not in out, out)
        link = self.root.path / "etc/systemd/system/sysinit.target.wants/trak.service"
        check(link.is_symlink(), "trak.service is not enabled")

    def the_manual_pages_are_there(self):
        for page in ("man8/trakctl.8", "man8/trakd.8", "man5/trak.conf.5", "man3/libtrak.3", "man4/trak.4"):
            check((self.root.path / f"usr/share/man/{page}.gz").exists(), page)

    def it_boots_and_shuts_down(self):
        """A copy of it, under QEMU, with the kernel of this Debian; each boot has lines of its own."""
        os.environ["TRAK_VM_RELEASES"] = " ".join(self.root.kernels())
        check(boot.boots(self.root.path) == 0, "see above")

    def again_is_nothing_new(self):
        """An upgrade to the same version."""
        self.root.apt("install", "--reinstall", *self.files)
        self.the_module_is_built_for_every_kernel()

    def a_removal_leaves_configuration_and_bitmaps(self):
        self.kept = {"etc/trak/10-data.conf", "var/lib/trak/trak0.incr", "var/lib/trak/trak0.diff",
                     "var/lib/trak/trak0.session"}
        for name in self.kept:
            (self.root.path / name).write_text("kept\n", encoding="utf-8")
        out = self.root.apt("remove", *NAMES)
        check("nothing to stop" in out, out)
        check(self.root.do("dkms", "status").strip() == "", "dkms status")
        left = {name for name in self._left() if name not in ("etc/trak", "var/lib/trak")}
        for name in self.kept:
            check((self.root.path / name).read_text(encoding="utf-8") == "kept\n", name)
        unit_state = {name for name in left if name.startswith("etc/systemd/system/")}
        check(left - unit_state == self.kept, f"left: {sorted(left - self.kept)}")

    def _left(self):
        return {name for name in self.root.below(*WATCHED) - self.before if not THEIR_OWN.match(name)}

    def a_purge_leaves_nothing(self):
        # Those of which a removal left nothing are not known any more.
        known = self.root.do("dpkg-query", "-W", "-f", "${Package} ${db:Status-Status}\n")
        names = [name for name in NAMES if f"{name} config-files" in known.splitlines()]
        check("trak" in names, f"left to purge: {names}")
        out = self.root.apt("purge", *names)
        check("holds other files" not in out, out)
        check(self._left() == set(), f"left: {sorted(self._left())}")
        gone = self.before - self.root.below(*WATCHED)
        check(not {name for name in gone if not THEIR_OWN.match(name)}, f"gone: {sorted(gone)}")

    def a_purge_keeps_what_is_somebody_elses(self):
        self.root.apt("install", *self.files[:1])
        (self.root.path / "var/lib/trak/snapshot.data").write_text("mine\n", encoding="utf-8")
        (self.root.path / "var/lib/trak/trak7.diff").write_text("map\n", encoding="utf-8")
        out = self.root.apt("purge", "trak")
        check("trak: /var/lib/trak holds other files and stays" in out, out)
        check((self.root.path / "var/lib/trak/snapshot.data").exists(), "a snapshot's data")
        check(not (self.root.path / "var/lib/trak/trak7.diff").exists(), "a bitmap file")
        check(not (self.root.path / "etc/trak").exists(), "/etc/trak")


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--folder", help="where the root is made (a temporary folder)")
    parser.add_argument("--keep", action="store_true", help="the root stays")
    args = parser.parse_args()
    if os.geteuid() != 0:
        sys.exit("packaging: a clean root is made by root")
    folder = tempfile.mkdtemp(prefix="trak-root.", dir=args.folder or "/var/tmp")
    try:
        return all_steps(Steps(Root(f"{folder}/root")))
    finally:
        if args.keep:
            print(f"the root stays in {folder}/root")
        else:
            shutil.rmtree(folder)


if __name__ == "__main__":
    sys.exit(main())
