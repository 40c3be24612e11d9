# tools/lint/layers.py: which folder may include which
# SPDX-License-Identifier: GPL-2.0-only
"""The arrows between the folders run one way."""
import re

from sources import Fault, in_any

FREESTANDING = r"c?std(int|def|arg|bool)(\.h)?|type_traits|bit|atomic|os_embedded\.h"
CONTRACT = r"os/\w+\.h"

# folder -> (what "quoted" and known <angle> includes of the tree may match, what <system> may)
ARROWS = (
    ("driver", rf"driver/.*|abi/.*|{CONTRACT}", FREESTANDING),
    ("abi", r"abi/.*", r"std(int|def)\.h|linux/\w+\.h|sys/ioctl\.h"),
    ("os/sim", rf"os/sim/.*|{CONTRACT}", r".*"),
    ("os/user", rf"os/user/.*|{CONTRACT}", r".*"),
    ("os/linux", rf"os/linux/.*|{CONTRACT}", r".*"),
    ("os", CONTRACT, FREESTANDING),
    ("daemon", rf"daemon/.*|driver/module/.*|os/user/.*|abi/.*|{CONTRACT}", r".*"),
    ("lib", r"lib/.*|abi/.*", r".*"),
    ("ctl", r"ctl/.*|lib/.*|abi/.*", r".*"),
    ("agent", r"agent/.*|lib/trak\.h", r".*"),
)
OURS = ("driver/", "abi/", "os/", "daemon/", "lib/", "ctl/", "agent/", "tests/", "bench/")
# The public header of libtrak includes what is installed beside it.
INSTALLED = {"trak_ioctl.h": "abi/trak_ioctl.h", "trak.h": "lib/trak.h"}

INCLUDE = re.compile(r'^[ \t]*#[ \t]*include[ \t]*([<"])([^>"]+)[>"]', re.M)


def check_layers(tree):
    """Every #include against the table above."""
    for path in tree.cpp():
        rule = next((r for r in ARROWS if in_any(path, [r[0]])), None)
        if rule is None:
            continue
        folder, ours, system = rule
        for match in INCLUDE.finditer(tree.text(path)):
            quoted, target = match.group(1) == '"', match.group(2)
            line = tree.text(path).count("\n", 0, match.start()) + 1
            target = resolve(tree, path, target, quoted)
            if target == "os_embedded.h" or quoted or target.startswith(OURS):
                allowed = rf"{ours}|os_embedded\.h" if in_any(path, ["driver", "os"]) else ours
            else:
                allowed = system
            if not re.fullmatch(allowed, target):
                yield Fault(path, line, "layers", f"{folder}/ may not include {target}")


def resolve(tree, path, target, quoted):
    """The tree's path of an include: a bare name is taken from the file's own folder."""
    beside = f"{path.rsplit('/', 1)[0]}/{target}"
    if quoted and beside in tree.paths:
        return beside
    if target in INSTALLED and INSTALLED[target] in tree.paths:
        return INSTALLED[target]
    return target
