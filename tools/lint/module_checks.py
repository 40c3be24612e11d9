# tools/lint/module_checks.py: the kernel module's objects, built for each packaged kernel
# SPDX-License-Identifier: GPL-2.0-only
"""Builds with the headers that are installed (`./run` installs those of every kernel that the module is
tested on) into build/kernel/RELEASE, and looks at what came out."""
import os
import re
from pathlib import Path

from build_checks import CONSTRUCTOR_SECTIONS, ALLOWED_UNDEFINED
from sources import Fault
from tool_checks import run_tool

HEADERS = Path("/usr/src")
MAKEFILE = "os/linux/Makefile"
# What the kernel's own flags make the compiler ask for, beside the seam and copies and fills.
OF_THE_KERNEL = re.compile(r"__x86_return_thunk|__x86_indirect_thunk_\w+|__fentry__|__stack_chk_fail")


def check_module(tree):
    """The module builds without a word of the compiler or objtool; its C++ objects need the seam and
    nothing else, and run nothing before the module's init function."""
    if MAKEFILE not in tree.paths:
        return []
    releases = [f.name.removeprefix("linux-headers-")
                for f in sorted(HEADERS.glob("linux-headers-*-amd64")) if (f / ".config").exists()]
    if not releases:
        if os.environ.get("CI") == "true":
            return [Fault(MAKEFILE, 1, "module", "no kernel headers in /usr/src to build with")]
        print("lint: module: skipped, there are no kernel headers in /usr/src")
    return [fault for release in releases for fault in check_release(tree, release)]


def check_release(tree, release):
    # objtool speaks once, when an object is made; what it said to an earlier build would be lost.
    for made in (tree.root / "build/kernel" / release).rglob("*.o"):
        made.unlink()
    status, output = run_tool(tree, ["make", "-C", "os/linux", f"-j{tree.jobs}", "TRAK_TESTS=1",
                                     f"KDIR={HEADERS}/linux-headers-{release}", "DEBIAN_KERNEL_USE_CCACHE=y"],
                              timeout=1200)
    faults = faults_of(output, release)
    if faults or status != 0:
        return faults or [Fault(MAKEFILE, 1, "module", f"{release}: {output.strip()[-1500:]}")]
    return check_objects(tree, release, has_debug_info(release))


def faults_of(output, release):
    """What compiler, objtool and modpost complain of, at the source where they name one."""
    where = re.compile(rf"\S*build/kernel/{re.escape(release)}/(\S+?):(\d+):\d+: (.*)")
    faults = []
    for line in output.splitlines():
        match = where.search(line)
        if match and re.match(r"(fatal )?error|warning", match[3]):
            faults.append(Fault(match[1], int(match[2]), "module", f"{release}: {match[3]}"))
        elif not match and re.search(r"\b(warning|WARNING|ERROR|error): |^trak: ", line):
            faults.append(Fault(MAKEFILE, 1, "module", f"{release}: {line.strip()}"))
    return faults


def check_objects(tree, release, with_debug_info):
    """What the driver's objects of this kernel's build have that they may not have, or lack."""
    folder = tree.root / "build/kernel" / release
    objects = [folder / (p.removesuffix(".cpp") + ".o") for p in tree.cpp("driver")
               if p.endswith(".cpp")]
    missing = [o for o in objects if not o.exists()]
    if missing:
        return [Fault(os.path.relpath(missing[0], folder).removesuffix(".o") + ".cpp", 1, "module",
                      f"{release}: is not part of the module")]
    defined, wanted, faults = set(), {}, []
    _, output = run_tool(tree, ["nm", "-A", *map(str, objects)])
    for line in output.splitlines():
        match = re.match(r"(.*?\.o):[0-9a-f ]* ([A-Za-z]) (\S+)$", line)
        if match and match[2] in "Uw":
            wanted.setdefault(match[3], match[1])
        elif match:
            defined.add(match[3])
    for name, path in sorted(wanted.items()):
        if name not in defined and not ALLOWED_UNDEFINED.fullmatch(name) and \
                not OF_THE_KERNEL.fullmatch(name):
            faults.append(Fault(source(folder, path), 1, "module",
                                f"{release}: needs {name}, which is neither of the seam nor of the "
                                "kernel's flags"))
    for path in objects:
        _, output = run_tool(tree, ["objdump", "-h", str(path)])
        if with_debug_info and ".debug_info" not in output:
            faults.append(Fault(source(folder, path), 1, "module",
                                f"{release}: has no debug information, which its kernel has"))
        section = CONSTRUCTOR_SECTIONS.search(output)
        if section:
            faults.append(Fault(source(folder, path), 1, "module",
                                f"{release}: has {section[0]}: no static constructors"))
    return faults


def has_debug_info(release):
    """Whether this kernel was built with debug information."""
    config = HEADERS / f"linux-headers-{release}/.config"
    return "CONFIG_DEBUG_INFO=y" in config.read_text(encoding="utf-8").splitlines()


def source(folder, path):
    return os.path.relpath(path, folder).removesuffix(".o") + ".cpp"
