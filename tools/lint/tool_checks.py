# tools/lint/tool_checks.py: checks that another program makes: format, shell, man pages, Python
# SPDX-License-Identifier: GPL-2.0-only
"""Each turns a tool's findings into faults."""
import ast
import re
import subprocess

from sources import CPP_SUFFIXES, Fault


def run_tool(tree, words, timeout=300):
    """Standard output and error of a tool, joined; a tool that is missing raises."""
    done = subprocess.run(words, cwd=tree.root, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          stdin=subprocess.DEVNULL, timeout=timeout, check=False)
    return done.returncode, done.stdout.decode("utf-8", "replace")


def check_format(tree):
    """clang-format changes nothing."""
    files = [p for p in tree.paths if p.endswith(CPP_SUFFIXES)]
    faults = []
    for start in range(0, len(files), 40):
        _, output = run_tool(tree, ["clang-format-14", "--dry-run", "-Werror", "--ferror-limit=1",
                                    *files[start:start + 40]])
        for match in re.finditer(r"^(\S+?):(\d+):\d+: (?:error|warning): (.*)$", output, re.M):
            faults.append(Fault(match[1], int(match[2]), "format",
                                f"run clang-format-14 -i {match[1]}"))
    return sorted(set(faults))


def check_shell(tree):
    """shellcheck is content with every script."""
    scripts = tree.scripts()
    if not scripts:
        return []
    status, output = run_tool(tree, ["shellcheck", "-x", "-f", "gcc", *scripts])
    found = [Fault(m[1], int(m[2]), "shell", m[3]) for m in
             re.finditer(r"^(.+?):(\d+):\d+: (.*)$", output, re.M)]
    if status != 0 and not found:
        found = [Fault(scripts[0], 1, "shell", f"shellcheck: {output.strip()[:200]}")]
    return found


def check_man_pages(tree):
    """mandoc finds nothing worth a warning in the man pages."""
    pages = [p for p in tree.paths if re.fullmatch(r"docs/man/.*\.[1-9]", p)]
    if not pages:
        return []
    _, output = run_tool(tree, ["mandoc", "-T", "lint", "-W", "warning", *pages])
    return [Fault(m[1], int(m[2] or 1), "man", m[3].strip()) for m in
            re.finditer(r"^mandoc: (.+?):(?:(\d+):\d+:)? (.*)$", output, re.M)]


def check_python(tree):
    """Every Python file parses with the language of Debian 12."""
    for path in tree.python():
        try:
            ast.parse(tree.text(path), feature_version=(3, 11))
        except SyntaxError as error:
            yield Fault(path, error.lineno or 1, "python", str(error))
