# tools/lint/text_checks.py: heads, lengths and words
# SPDX-License-Identifier: GPL-2.0-only
"""Checks that read one file at a time and need no compiler."""
import ast
import re

from sources import CPP_SUFFIXES, Fault, blank_comments_and_strings, in_any

MAX_COLUMNS = 100
MAX_UNWRAPPED = 110  # what clang-format does not wrap: lines that are all comment, other languages
MAX_FUNCTION = 70
MAX_FILE = 400
MAX_TEST_FILE = 600

COMMENT_LINE = re.compile(r"\s*(//|#|/\*|\* )")
HEADED = CPP_SUFFIXES + (".py", ".sh", ".cmake", "CMakeLists.txt")


def check_heads(tree):
    """A file begins with its own path and one phrase, then the licence."""
    for path in tree.paths:
        if not path.endswith(HEADED) and path not in tree.scripts():
            continue
        lines = tree.lines(path)
        first = 1 if lines and lines[0].startswith("#!") else 0
        if len(lines) <= first or not re.match(rf"(//|#|/\*) {re.escape(path)}: \S", lines[first]):
            yield Fault(path, first + 1, "head", f"the first line is not '{path}: one phrase'")
        if not any("SPDX-License-Identifier: GPL-2.0-only" in x for x in lines[:first + 3]):
            yield Fault(path, first + 2, "head", "no SPDX-License-Identifier: GPL-2.0-only")


def check_lengths(tree):
    """Columns, files and functions."""
    scripts = tree.scripts()
    for path in tree.paths:
        code = path.endswith(HEADED) or path in scripts
        if tree.text(path) is None or not code:
            continue
        lines = tree.lines(path)
        for number, line in enumerate(lines, 1):
            wrapped = path.endswith(CPP_SUFFIXES) and not COMMENT_LINE.match(line)
            limit = MAX_COLUMNS if wrapped else MAX_UNWRAPPED
            if len(line.expandtabs(8)) > limit:
                yield Fault(path, number, "columns", f"{len(line)} columns, {limit} at most")
        limit = MAX_TEST_FILE if in_any(path, ["tests"]) else MAX_FILE
        if len(lines) > limit:
            yield Fault(path, 1, "file-length", f"{len(lines)} lines, {limit} at most")
        for start, end, name in functions(path, tree.text(path), path in scripts):
            if end - start + 1 > MAX_FUNCTION:
                yield Fault(path, start, "function-length",
                            f"{name} has {end - start + 1} lines, {MAX_FUNCTION} at most")


def functions(path, text, is_script):
    """(first line, last line, name) of each function."""
    if path.endswith(CPP_SUFFIXES):
        return cpp_functions(text)
    if path.endswith(".py"):
        return python_functions(text)
    return shell_functions(text) if is_script else []


def python_functions(text):
    try:
        nodes = list(ast.walk(ast.parse(text)))
    except SyntaxError as error:
        return [(error.lineno or 1, (error.lineno or 1) + MAX_FUNCTION, "what Python can't parse")]
    return [(n.lineno, n.end_lineno, n.name) for n in nodes
            if isinstance(n, (ast.FunctionDef, ast.AsyncFunctionDef))]


def shell_functions(text):
    found, start, name = [], 0, ""
    for number, line in enumerate(text.splitlines(), 1):
        match = re.match(r"(\w+)\(\) *\{$", line)
        if match:
            start, name = number, match.group(1)
        elif line == "}" and start:
            found.append((start, number, name))
            start = 0
    return found


NOT_A_FUNCTION = re.compile(r"(namespace|struct|class|enum|union|extern)\b|.*=\s*$", re.S)


def cpp_functions(text):
    """By matching braces: a brace whose head has a parameter list opens a function, unless it
    stands inside one already or belongs to a type or a namespace."""
    code = re.sub(r"^[ \t]*#(?:\\\n|[^\n])*", lambda m: re.sub(r"[^\n]", " ", m.group(0)),
                  blank_comments_and_strings(text), flags=re.M)
    found, open_braces, head_start, inside = [], [], 0, 0
    for match in re.finditer(r"[{};]", code):
        mark, at = match.group(0), match.start()
        if mark == "{":
            head = code[head_start:at].strip()
            is_function = not inside and "(" in head and not NOT_A_FUNCTION.match(head)
            inside += is_function
            first = head_start + len(code[head_start:at]) - len(code[head_start:at].lstrip())
            open_braces.append((is_function, first, head))
        elif mark == "}" and open_braces:
            is_function, first, head = open_braces.pop()
            if is_function:
                inside -= 1
                name = re.search(r"([\w:~]+)\s*\(", head)
                found.append((code.count("\n", 0, first) + 1, code.count("\n", 0, at) + 1,
                              name.group(1) if name else "?"))
        head_start = at + 1
    return found


# (where, where not, pattern, what to do instead)
WORDS = (
    ((), (), r"\b(TODO|FIXME|XXX|HACK)\b", "finish it, or say plainly what is not done and why"),
    ((), (), r"\b(white|black)list", "allowlist, blocklist or what it really is"),
    ((), (), r"/home/\w+|/Users/\w+", "no path of one machine"),
    (("driver", "os", "daemon", "ctl", "agent"), (), r"\b(strcpy|strcat|sprintf|vsprintf|gets)\s*\(",
     "a bounded copy (snprintf, memcpy with a checked length)"),
    (("driver", "os", "daemon", "ctl", "agent"), (), r"\busing namespace std\b", "name what is used"),
    (("driver", "os", "daemon", "ctl", "agent"), ("os/linux",), r"\bNULL\b", "nullptr"),
    (("driver",), (), r"\b(throw|catch|dynamic_cast|typeid|thread_local|virtual)\b",
     "the driver is freestanding: results, not exceptions or virtual calls"),
    (("driver",), (), r"\b(new|delete)\b(?!\s*;)", "os_kmalloc and an explicit init"),
    (("driver",), (), r"\b(malloc|calloc|realloc|free|printf|fprintf|abort|exit|assert)\s*\(",
     "the seam's os_... call, or trak_log"),
    (("driver",), (), r"\bvolatile\b", "an atomic, or a lock"),
    (("driver",), (), r"\b(__linux__|__KERNEL__|__unix__|_WIN32|__APPLE__)\b",
     "no platform below the seam: what differs belongs to os/"),
    (("tests",), (), r"\bDISABLED_", "a test that runs, or none"),
    (("tests",), ("tests/support",), r"\b(sleep_for|sleep_until|usleep)\s*\(|\bnanosleep\s*\(",
     "wait for the event itself"),
    (("tests",), (), r"\bGTEST_SKIP\(\)\s*;", "say why: GTEST_SKIP() << reason"),
    (("tests",), (), r"\bTEST(_F|_P)?\(\w+,\s*(case|test|part|check|t)?_?\d+\)",
     "a name that says what holds, not a number"),
)
OWN_TABLE = ("tools/lint/text_checks.py", "tests/unit/lint/test_lint.py")


def check_words(tree):
    """Words and names that stand for a habit, each with its replacement."""
    rules = [(where, out, re.compile(pattern, re.M), instead)
             for where, out, pattern, instead in WORDS]
    for path in tree.paths:
        text = tree.text(path)
        if text is None or path in OWN_TABLE or path == "LICENSE":
            continue
        code = blank_comments_and_strings(text) if path.endswith(CPP_SUFFIXES) else text
        for where, out, pattern, instead in rules:
            if not in_any(path, where) or (out and in_any(path, out)):
                continue
            # Rules of one folder are about code; those of the whole tree about every text.
            if where and not path.endswith(CPP_SUFFIXES):
                continue
            body = code if where else text
            for match in pattern.finditer(body):
                yield Fault(path, body.count("\n", 0, match.start()) + 1, "words",
                            f"'{match.group(0).strip()}': {instead}")


LISTS = ("CMakeLists.txt", "sources.mk")


def check_test_lists(tree):
    """A test source that no CMakeLists.txt names (for a kernel module: no sources.mk) is never run."""
    lists = {p: tree.text(p) for p in tree.paths if p.endswith(LISTS)}
    for path in tree.paths:
        if not in_any(path, ["tests"]) or "/data/" in path:
            continue
        name = path.rsplit("/", 1)[1]
        if not path.endswith((".cpp", ".c")) and not re.match(r"test_\w+\.py$|.*_test\.py$", name):
            continue
        folders = path.split("/")[:-1]
        owners = ["/".join(folders[:n] + [x]) for n in range(len(folders), 0, -1) for x in LISTS]
        if path == "tests/support/test_main.cpp":
            continue  # part of trak_add_test itself
        if not any(re.search(rf"(?<![\w.-]){re.escape(name)}\b", lists.get(o) or "")
                   for o in owners):
            yield Fault(path, 1, "test-lists", "no CMakeLists.txt of its folders names this file")
