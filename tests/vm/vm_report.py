# tests/vm/vm_report.py: how tests in a virtual machine report, and what ./run counts of it
# SPDX-License-Identifier: GPL-2.0-only
"""A test is one line of the guest on its second serial port, or one call of a host-side check:

    ok NAME
    not ok NAME: why
    skip NAME: why

Names are SUITE.WHAT_HOLDS. With CI=true a skipped test is a failed one.
"""
import os
import re
import sys
from xml.sax.saxutils import quoteattr

LINE = re.compile(r"^(ok|not ok|skip) ([^\s:]+)(?:: ?(.*))?$")


def in_ci():
    return os.environ.get("CI") == "true"


class CannotRun(Exception):
    """Something that the tests need is not to be had on this machine."""


class Report:
    """The results of one run with one kernel."""

    def __init__(self, title):
        self.title = title
        self.tests = []  # (name, "ok" | "not ok" | "skip", why)

    def add(self, name, verdict, why=""):
        if verdict == "skip" and in_ci():
            verdict, why = "not ok", f"can't run here, and CI=true: {why}"
        self.tests.append((name, verdict, why))
        print(f"{verdict} {name}{': ' + why if why else ''}", flush=True)

    def ok(self, name):
        self.add(name, "ok")

    def fail(self, name, why):
        self.add(name, "not ok", why)

    def skip(self, name, why):
        self.add(name, "skip", why)

    def line(self, text):
        """A line of the guest; false when it is none of the protocol."""
        match = LINE.match(text.strip())
        if not match:
            return False
        self.add(match[2], match[1], match[3] or "")
        return True

    def count(self, verdict):
        return sum(1 for test in self.tests if test[1] == verdict)

    def write(self, path):
        """As JUnit, of which ./run reads the head."""
        with open(path, "w", encoding="utf-8") as file:
            file.write(f'<testsuite name={quoteattr(self.title)} tests="{len(self.tests)}" '
                       f'failures="{self.count("not ok")}" skipped="{self.count("skip")}" '
                       f'disabled="0">\n')
            for name, verdict, why in self.tests:
                file.write(f"<testcase name={quoteattr(name)}>")
                if verdict != "ok":
                    tag = "failure" if verdict == "not ok" else "skipped"
                    file.write(f"<{tag} message={quoteattr(why)}/>")
                file.write("</testcase>\n")
            file.write("</testsuite>\n")

    def summary(self):
        return (f"{self.title}: {self.count('ok')} ok, {self.count('not ok')} not ok, "
                f"{self.count('skip')} skipped")


def note(text):
    print(f"== {text}", flush=True)


def warn(text):
    print(f"vm: {text}", file=sys.stderr, flush=True)
