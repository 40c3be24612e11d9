# tests/unit/packaging/packaging_test.py: units, maintainer scripts, dkms.conf and the example
# SPDX-License-Identifier: GPL-2.0-only
"""What needs neither root nor built packages; packaging/clean_root.py does the rest."""
import os
import re
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

TOP = Path(__file__).resolve().parents[3]
PACKAGING = TOP / "packaging"
TRAKCTL = os.path.join(os.environ["TRAK_BIN_DIR"], "trakctl")

sys.path.insert(0, str(TOP / "tests/system"))
from trak_testing import main, skip  # noqa: E402


def run(*words, **more):
    return subprocess.run(words, capture_output=True, text=True, timeout=100, check=False, **more)


def read(name):
    return (PACKAGING / name).read_text(encoding="utf-8")


class Units(unittest.TestCase):
    def setUp(self):
        if not os.path.exists("/usr/bin/systemd-analyze"):
            skip("there is no systemd-analyze")

    def verify(self, change=lambda text: text):
        """What systemd says of both units, with the built trakctl in them."""
        with tempfile.TemporaryDirectory() as folder:
            files = []
            for path in sorted((PACKAGING / "systemd").glob("*.service")):
                files.append(f"{folder}/{path.name}")
                text = change(path.read_text(encoding="utf-8"))
                Path(files[-1]).write_text(text.replace("/usr/bin/trakctl", TRAKCTL), encoding="utf-8")
            self.assertEqual(2, len(files))
            done = run("systemd-analyze", "verify", "--man=no", *files)
        return [line for line in (done.stdout + done.stderr).splitlines() if "trak" in line]

    def test_systemd_finds_no_fault(self):
        self.assertEqual([], self.verify())

    def test_systemd_would_find_a_fault(self):
        self.assertNotEqual([], self.verify(lambda text: text.replace("Before=", "Befor=")))
        self.assertNotEqual([], self.verify(lambda text: text.replace(
            "Before=local-fs-pre.target", "After=local-fs-pre.target\nBefore=local-fs-pre.target")
            .replace("trakctl", "no-such-program")))

    def test_the_commands_are_trakctls(self):
        words = re.findall(r"^Exec\w+=/usr/bin/trakctl (.*)$", "".join(
            read(f"systemd/{name}.service") for name in ("trak", "trak-stop")), re.M)
        self.assertEqual(3, len(words))
        with tempfile.TemporaryDirectory() as empty:
            for line in words:
                done = run(TRAKCTL, "--root", empty, *line.split(), "--config", empty)
                self.assertEqual((0, ""), (done.returncode, done.stderr), line)


class Scripts(unittest.TestCase):
    def prerm(self, action, status):
        """The script's result with a trakctl whose stop-all ends so, and how that was called."""
        with tempfile.TemporaryDirectory() as folder:
            fake = Path(folder) / "trakctl"
            fake.write_text(f'#!/bin/sh\necho "$*" >>{folder}/calls\n[ "$1" != stop-all ] || exit {status}\n',
                            encoding="utf-8")
            fake.chmod(0o755)
            calls = Path(folder) / "calls"
            calls.touch()
            done = run("sh", str(PACKAGING / "debian/trak.prerm"), action,
                       env={"PATH": f"{folder}:/usr/bin:/bin"})
            return done, calls.read_text(encoding="utf-8").split()

    def test_a_removal_stops_every_node_first(self):
        done, calls = self.prerm("remove", 0)
        self.assertEqual((0, "", ["stop-all"]), (done.returncode, done.stderr, calls))

    def test_a_removal_is_refused_where_a_node_cant_be_stopped(self):
        done, calls = self.prerm("remove", 1)
        self.assertEqual((1, ["stop-all", "attach-all"]), (done.returncode, calls))
        self.assertEqual("trak: not removed: the node above can't be stopped, and its changes would be "
                         "lost\n", done.stderr)

    def test_a_trakctl_that_cant_run_holds_no_package(self):
        done, calls = self.prerm("remove", 127)
        self.assertEqual((0, ["stop-all"]), (done.returncode, calls))

    def test_an_upgrade_leaves_the_nodes_alone(self):
        done, calls = self.prerm("upgrade", 1)
        self.assertEqual((0, []), (done.returncode, calls))


class Contents(unittest.TestCase):
    def test_the_example_is_a_good_configuration(self):
        example = str(PACKAGING / "examples/10-data.conf")
        done = run(TRAKCTL, "check-config", "--config", example)
        self.assertEqual((0, ""), (done.returncode, done.stderr))
        # With every line that is commented out taken in, too.
        with tempfile.TemporaryDirectory() as folder:
            every = Path(folder) / "every.conf"
            every.write_text(read("examples/10-data.conf").replace("\n#", "\n"), encoding="utf-8")
            whole = run(TRAKCTL, "check-config", "--config", str(every))
        self.assertEqual((0, ""), (whole.returncode, whole.stderr))
        self.assertEqual(done.stdout.split(": ", 1)[1], whole.stdout.split(": ", 1)[1])

    def test_the_packages_have_the_version_of_the_tree(self):
        version = re.search(r"project\(trak VERSION (\S+)", (TOP / "CMakeLists.txt").read_text())[1]
        self.assertTrue(read("debian/changelog").startswith(f"trak ({version}) "))

    def test_dkms_builds_for_the_lines_that_the_glue_supports(self):
        lines = sorted(path.name for path in (TOP / "os/linux/compat").iterdir())
        # As dkms reads it.
        done = run("bash", "-c", "eval \"$(sh packaging/dkms/conf.sh)\"; echo \"$BUILD_EXCLUSIVE_KERNEL\"",
                   cwd=TOP)
        pattern = done.stdout.strip()
        for line in lines:
            for release in (line, f"{line}.0-56-amd64", f"{line}-amd64"):
                self.assertRegex(release, pattern)
        for release in ("6.11.2-amd64", "6.120.1", "5.10.0-30-amd64", "16.1", "6x1"):
            self.assertNotRegex(release, pattern)


if __name__ == "__main__":
    main()
