# tools/lint/build_checks.py: checks that compile: a kernel module's flags, its symbols, clang-tidy
# SPDX-License-Identifier: GPL-2.0-only
"""Uses the dev preset's configuration (build/dev), made here if it isn't there."""
import json
import os
import re
import shlex
import subprocess
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

from sources import Fault
from tool_checks import run_tool

# What an object of the driver may leave undefined, beside the seam: what every kernel has, and what
# the compiler itself emits calls of for copies and fills.
ALLOWED_UNDEFINED = re.compile(r"os_\w+|memcpy|memset|memmove|memcmp")
# Code or data that would have to run before the module's init function, or at its unload.
CONSTRUCTOR_SECTIONS = re.compile(r"\.(init_array|fini_array|ctors|dtors|preinit_array)\b")
TIDY_FOLDERS = ("driver", "os/user", "os/sim", "daemon", "lib", "ctl", "agent")
# Header libraries so large that each check costs half a second in every file that includes them:
# there only these checks are made.
HEAVY = re.compile(r"^#include <(CLI/|nlohmann/)", re.M)
HEAVY_CHECKS = ("--checks=-*,clang-diagnostic-*,bugprone-use-after-move,"
                "performance-unnecessary-copy-initialization")
# Flags that gcc knows and Clang does not.
GCC_ONLY = re.compile(r"-Wframe-larger-than=.*|-fno-var-tracking.*|-Wsuggest-\S+|-Wlogical-op")


def configure(tree):
    """Configures the dev preset; a fault when that fails."""
    status, output = run_tool(tree, ["cmake", "--preset", "dev"])
    if status != 0:
        return [Fault("CMakeLists.txt", 1, "configure", output.strip()[-1500:])]
    return []


def check_kernel_flags(tree):
    """The driver compiles as a kernel module does, and needs the seam and nothing else."""
    if not any(p.endswith(".cpp") for p in tree.cpp("driver")) or \
            "os/user/embed/os_embedded.h" not in tree.paths:
        return []
    faults = configure(tree)
    if faults:
        return faults
    targets = ["driver_kernelflags"]
    if "os/sim/embed/os_embedded.h" in tree.paths:
        targets.append("driver_sim")
    status, output = run_tool(tree, ["cmake", "--build", "build/dev", "-j", str(tree.jobs),
                                     "--target", *targets], timeout=900)
    if status != 0:
        errors = re.findall(r"^(\S+?):(\d+):\d+: error: (.*)$", output, re.M)
        return [Fault(os.path.relpath(tree.root / "build/dev" / f, tree.root), int(n),
                      "kernel-flags", text) for f, n, text in errors] or \
            [Fault("cmake/TrakDriver.cmake", 1, "kernel-flags", output.strip()[-1500:])]
    library = next(tree.root.glob("build/dev/**/libdriver_kernelflags.a"))
    faults = undefined_symbols(tree, library) + constructors(tree, library)
    for library in tree.root.glob("build/dev/**/libdriver_sim.a"):
        faults += stray_state(tree, library)
    return faults


def undefined_symbols(tree, library):
    _, output = run_tool(tree, ["nm", "-A", str(library)])
    defined, wanted = set(), {}
    for line in output.splitlines():
        match = re.match(r".*?:([^:]+):[0-9a-f ]* ([A-Za-z]) (\S+)$", line)
        if match and match[2] in "Uw":
            wanted.setdefault(match[3], match[1])
        elif match:
            defined.add(match[3])
    return [Fault(source_of(tree, member), 1, "symbols",
                  f"needs {name}, which is neither of the seam nor a compiler's memory call")
            for name, member in sorted(wanted.items())
            if name not in defined and not ALLOWED_UNDEFINED.fullmatch(name)]


def source_of(tree, member):
    """The driver's source that a member of its library was compiled from."""
    name = "/" + member.removesuffix(".o")
    return next((p for p in tree.cpp("driver") if p.endswith(name)), "driver" + name)


def constructors(tree, library):
    _, output = run_tool(tree, ["objdump", "-h", str(library)])
    member, faults = "?", []
    for line in output.splitlines():
        head = re.match(r"(\S+):\s+file format", line)
        member = head[1] if head else member
        if CONSTRUCTOR_SECTIONS.search(line):
            faults.append(Fault(source_of(tree, member), 1, "symbols",
                                f"has {line.split()[1]}: no static constructors in the driver"))
    return faults


def stray_state(tree, library):
    """Variables that a simulated reboot would not reset, because OS_MODULE_STATE is missing."""
    _, output = run_tool(tree, ["objdump", "-t", str(library)])
    member, faults = "?", []
    for line in output.splitlines():
        head = re.match(r"(\S+):\s+file format", line)
        member = head[1] if head else member
        match = re.match(r"[0-9a-f]+ .{6}O (\.(?:t?data|t?bss)(?!\.rel\.ro)\S*|\*COM\*)\s+"
                         r"[0-9a-f]+ (?:\.hidden )?(\S+)", line)
        if match:
            faults.append(Fault(source_of(tree, member), 1, "symbols",
                                f"{match[2]} is in {match[1]}: declare it with OS_MODULE_STATE"))
    return faults


def tidy_commands(tree):
    """{path: arguments}: Clang's command for each source; the driver's as the user platform's."""
    chosen = {}
    for entry in json.loads((tree.root / "build/dev/compile_commands.json").read_text()):
        # Where a target is compiled joined, its command stands for all of its sources.
        path = os.path.relpath(entry["file"], tree.root)
        joined = re.match(r"build/dev/(.*)/CMakeFiles/\w+\.dir/Unity/", path)
        path = f"{joined[1]}/{Path(path).name}" if joined else path
        if not path.startswith(tuple(f + "/" for f in TIDY_FOLDERS)):
            continue
        words = [w for w in shlex.split(entry["command"]) if not GCC_ONLY.fullmatch(w)]
        while words and "ccache" in Path(words[0]).name:
            words.pop(0)
        # Neither what is compiled nor where to: those are added per run.
        drop = {words.index(w) + n for w in ("-o", "-c") if w in words for n in (0, 1)}
        words = [w for n, w in enumerate(words) if n not in drop and w != entry["file"]]
        rank = 0 if "driver_user" in entry["command"] else 1
        words += ["-Wthread-safety", "-Wno-unknown-warning-option"]
        for source in sources_of(tree, entry["file"]) if joined else [path]:
            if source not in chosen or rank < chosen[source][0]:
                chosen[source] = (rank, words)
    return {path: words for path, (_, words) in chosen.items()}


def sources_of(tree, joined):
    """What a file made by CMake's unity build includes."""
    text = Path(joined).read_text(encoding="utf-8")
    return [os.path.relpath(p, tree.root) for p in re.findall(r'^#include "(.*\.cpp)"', text, re.M)]


def tidy_units(tree, commands):
    """[(file, arguments)] to run clang-tidy on. Most of its time goes into the headers, so the C++
    sources of a folder with the same command are joined into one file, where that compiles (two of
    them may define the same name)."""
    groups, units = {}, []
    for path, words in sorted(commands.items()):
        folder = next(f for f in TIDY_FOLDERS if path.startswith(f + "/"))
        alone = not path.endswith(".cpp") or HEAVY.search(tree.text(path) or "")
        key = (path if alone else folder, *words)
        groups.setdefault(key, []).append(path)
    for number, (key, paths) in enumerate(groups.items()):
        joined = tree.root / f"build/lint/joined_{number}.cpp"
        together = join(tree, joined, paths, list(key[2:])) if len(paths) > 1 else []
        if together:
            units.append((str(joined), list(key[1:])))
        units += [(str(tree.root / p), list(key[1:])) for p in paths if p not in together]
    # The joined ones are the long ones; none of them is to be left for the end.
    return sorted(units, key=lambda unit: "/build/lint/" not in unit[0])


def join(tree, joined, paths, words):
    """Writes a file that includes as many of the paths as compile together; returns those."""
    for _ in range(4):
        if len(paths) < 2:
            break
        joined.write_text("".join(f'#include "{tree.root / p}"\n' for p in paths))
        status, output = run_tool(tree, ["clang++-14", *words, "-w", "-fsyntax-only", str(joined)])
        if status == 0:
            return paths
        named = {os.path.relpath(p, tree.root) for p in re.findall(r"^(/\S+?):\d+", output, re.M)}
        paths = [p for p in paths if p not in named] if named & set(paths) else []
    return []


def check_tidy(tree):
    """clang-tidy's checks of .clang-tidy, and Clang's thread-safety analysis, in one parse."""
    if not any(tree.cpp(f) for f in TIDY_FOLDERS):
        return []
    faults = configure(tree)
    if faults:
        return faults
    folder = tree.root / "build/lint"
    folder.mkdir(parents=True, exist_ok=True)

    def tidy(unit):
        path, words = unit
        try:
            options = ["--quiet", "--config-file=.clang-tidy"]
            if HEAVY.search(Path(path).read_text(encoding="utf-8")):
                options.append(HEAVY_CHECKS)
            return path, *run_tool(tree, ["clang-tidy-14", *options, path, "--", *words[1:]],
                                   timeout=900)
        except subprocess.TimeoutExpired:
            return path, 124, f"{path}:1:1: error: clang-tidy took more than 900 s [timeout]"

    with ThreadPoolExecutor(tree.jobs) as pool:
        for path, status, output in pool.map(tidy, tidy_units(tree, tidy_commands(tree))):
            found = re.findall(r"^(\S+?):(\d+):\d+: (?:error|warning): (.*)$", output, re.M)
            for file, line, text in found:
                name = os.path.relpath(file, tree.root) if os.path.isabs(file) else file
                faults.append(Fault(name, int(line), "tidy", text))
            if status != 0 and not found:
                faults.append(Fault(os.path.relpath(path, tree.root), 1, "tidy",
                                    output.strip()[-500:]))
    return sorted(set(faults))
