# tools/lint/sources.py: which files are looked at, and what a fault is
# SPDX-License-Identifier: GPL-2.0-only
"""The tree under a root, as the checks see it."""
import re
import subprocess
from pathlib import Path
from typing import NamedTuple


class Fault(NamedTuple):
    """One finding: where, which check, what to do about it."""

    path: str
    line: int
    check: str
    text: str

    def __str__(self):
        return f"{self.path}:{self.line}: {self.check}: {self.text}"


CPP_SUFFIXES = (".h", ".c", ".cpp")
SKIPPED_FOLDERS = ("build/", ".git/", ".cache/")


class Tree:
    """The files of the tree (tracked, or new and not ignored), each read at most once."""

    def __init__(self, root):
        self.root = Path(root)
        self.paths = [p for p in self._list() if (self.root / p).is_file()]
        self._text = {}

    def _list(self):
        git = subprocess.run(["git", "ls-files", "-co", "--exclude-standard", "-z"], cwd=self.root,
                             capture_output=True, check=False, timeout=60)
        if git.returncode == 0:
            names = git.stdout.decode().split("\0")
        else:  # an unpacked archive
            names = [str(p.relative_to(self.root)) for p in self.root.rglob("*")]
        return sorted(n for n in set(names) if n and not n.startswith(SKIPPED_FOLDERS))

    def text(self, path):
        if path not in self._text:
            data = (self.root / path).read_bytes()
            self._text[path] = None if b"\0" in data else data.decode("utf-8", "replace")
        return self._text[path]

    def lines(self, path):
        return (self.text(path) or "").splitlines()

    def cpp(self, *folders):
        return [p for p in self.paths if p.endswith(CPP_SUFFIXES) and in_any(p, folders)]

    def scripts(self):
        """Shell scripts, by suffix or first line."""
        return [p for p in self.paths if p.endswith((".sh", ".bash"))
                or re.match(r"#!.*\b(ba)?sh\b", self.text(p) or "")]

    def python(self):
        return [p for p in self.paths if p.endswith(".py")]


def in_any(path, folders):
    return not folders or any(path.startswith(f.rstrip("/") + "/") for f in folders)


def blank_comments_and_strings(text):
    """C or C++ text with the inside of comments, strings and characters blanked, lines kept."""
    pattern = re.compile(r'//[^\n]*|/\*.*?\*/|R"(\w*)\(.*?\)\1"|"(?:\\.|[^"\\\n])*"'
                         r"|(?<![\w'])'(?:\\.|[^'\\\n])+'", re.S)
    return pattern.sub(lambda m: re.sub(r"[^\n]", " ", m.group(0)), text)
