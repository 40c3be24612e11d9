# tests/unit/ctl/program_test.py: trakctl as a script meets it: exit statuses, streams, completion
# SPDX-License-Identifier: GPL-2.0-only
"""Runs the built trakctl; needs no driver."""
import os
import subprocess
import tempfile
import unittest

TRAKCTL = os.path.join(os.environ["TRAK_BIN_DIR"], "trakctl")
COMPLETION = os.path.join(os.path.dirname(os.path.abspath(__file__)),
                          "../../../ctl/trakctl.bash-completion")


def run(*words, **more):
    env = dict(os.environ)
    env.pop("TRAK_ROOT", None)
    return subprocess.run([TRAKCTL, *words], capture_output=True, text=True, timeout=60,
                          env=env, check=False, **more)


def complete(*words):
    """What bash offers for the last word."""
    script = f"""
source {COMPLETION}
COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _trakctl
printf '%s\\n' "${{COMPREPLY[@]}}"
"""
    done = subprocess.run(["bash", "-c", script, "bash", "trakctl", *words], capture_output=True,
                          text=True, timeout=60, check=True)
    return done.stdout.split()


class Program(unittest.TestCase):
    def test_help_is_on_standard_output_with_status_0(self):
        done = run("--help")
        self.assertEqual((0, ""), (done.returncode, done.stderr))
        self.assertIn("add-filter", done.stdout)

    def test_wrong_usage_is_one_line_on_standard_error_with_status_2(self):
        for words in ([], ["explode"], ["start"], ["bitmap", "get", "1", "full"]):
            done = run(*words)
            self.assertEqual((2, ""), (done.returncode, done.stdout), words)
            self.assertEqual(1, done.stderr.count("\n"), done.stderr)

    def test_a_missing_driver_is_one_line_with_status_1(self):
        with tempfile.TemporaryDirectory() as root:
            for words in (["list"], ["status", "--json"], ["start", "1"]):
                done = run("--root", root, *words)
                self.assertEqual((1, ""), (done.returncode, done.stdout), words)
                self.assertEqual(f"trakctl: no driver at {root}: start one with \"trakd {root}\", "
                                 "or name another root\n", done.stderr)

    def test_a_file_that_is_no_driver_is_an_error(self):
        with tempfile.TemporaryDirectory() as root:
            os.mkdir(os.path.join(root, "dev"))
            open(os.path.join(root, "dev/trakctl"), "wb").close()
            done = run("--root", root, "list")
            self.assertEqual(1, done.returncode)
            self.assertEqual("trakctl: can't list the nodes: this driver does not support that\n",
                             done.stderr)

    def test_completion_offers_commands_options_and_values(self):
        self.assertIn("add-filter", complete("add"))
        self.assertEqual(["bitmap"], complete("bit"))
        self.assertIn("--extent-size", complete("add-filter", "--"))
        self.assertEqual(["start", "status", "stop", "stop-all"], sorted(complete("st")))
        self.assertIn("--wait", complete("stop-all", "--config", "/x", "--"))
        self.assertEqual(["get", "get-clear"], complete("bitmap", "ge"))
        self.assertEqual(["incr", "diff"], complete("bitmap", "get", "3", ""))
        self.assertEqual(["incr", "diff", "datablock"], complete("map", "3", ""))
        self.assertIn("64K", complete("add-filter", "--extent-size", ""))
        self.assertEqual(["filter", "snap"], complete("--root", "/mnt", "list", ""))


if __name__ == "__main__":
    unittest.main(verbosity=2)
