# tests/system/backup_terminal_test.py: what a user at a terminal sees while a backup runs
# SPDX-License-Identifier: GPL-2.0-only
import fcntl
import json
import os
import re
import shutil
import signal
import struct
import subprocess
import termios
import threading
import time

from backup_machine import LIMIT, BackupTest, digest
from trak_machine import MIB
from trak_testing import Failed, eventually, main, run

UNITS = {"B": 1, "KiB": 1 << 10, "MiB": 1 << 20, "GiB": 1 << 30}
BAR = re.compile(r"(\w+) +(?:\[(=*)( *)\])? +(\d+)% ([\d.]+ \w+) of ([\d.]+ \w+), ([\d.]+ \w+)/s, (.+) left")


def size(text):
    number, unit = text.split()
    return float(number) * UNITS[unit]


def seconds(text):
    found = dict(reversed(part) for part in re.findall(r"(\d+) (\w+)", text))
    return int(found.get("h", 0)) * 3600 + int(found.get("min", 0)) * 60 + int(found.get("s", 0))


class Terminal:
    """A command in a terminal of its own, as wide as `columns`."""

    def __init__(self, words, columns):
        self.screen, self.ended = b"", threading.Event()
        self.master, inside = os.openpty()
        fcntl.ioctl(inside, termios.TIOCSWINSZ, struct.pack("HHHH", 24, columns, 0, 0))
        self.process = subprocess.Popen(["setsid", "--ctty", *words], stdin=inside, stdout=inside,
                                        stderr=inside)
        os.close(inside)
        self.reader = threading.Thread(target=self.read, daemon=True)
        self.reader.start()

    def read(self):
        try:
            while data := os.read(self.master, 65536):
                self.screen += data
        except OSError:
            pass  # the last one who had the other end is gone

    def wait_stopped(self):
        def stopped():
            pid, status = os.waitpid(self.process.pid, os.WNOHANG | os.WUNTRACED)
            if pid and not os.WIFSTOPPED(status):
                self.process.returncode = os.waitstatus_to_exitcode(status)
                raise Failed(f"it ended with {self.process.returncode}: {self.screen}")
            return bool(pid)
        eventually(stopped, "the agent stops at its step", LIMIT)

    def press(self, key):
        os.write(self.master, key)

    def end(self):
        """Goes on; (exit status, what the screen was sent)."""
        self.process.send_signal(signal.SIGCONT)
        try:
            status = self.process.wait(LIMIT)
        except subprocess.TimeoutExpired:
            raise Failed(f"it does not end: {self.screen}") from None
        self.reader.join(LIMIT)
        return status, self.screen.decode()

    def close(self):
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait(LIMIT)
        self.reader.join(LIMIT)
        os.close(self.master)


def painted(screen):
    """Each text that was painted over the one before it."""
    return re.findall(r"\r([^\r\n\x1b]+)\x1b\[K", screen)


class AtATerminal(BackupTest):
    # More than twice what a copy holds in memory: half of it is not reached at once.
    size = 40 * MIB

    def terminal(self, *words, columns=100):
        if not shutil.which("setsid"):
            raise Failed("there is no setsid")
        one = Terminal([word for word in words if word != "--json"], columns)
        self.addCleanup(one.close)
        return one

    def full(self, columns=100):
        """One that stands still at its half for a while: so much the rate has to take in."""
        one = self.terminal(*self.words("full", "--stop-at", "copy-half"), columns=columns)
        one.wait_stopped()
        begun = time.monotonic()
        while time.monotonic() < begun + 1.2:
            time.sleep(0.1)
        return one

    def test_the_bar_tells_what_is_done_and_the_rate_and_how_long_is_left(self):
        self.begin()
        status, screen = self.full().end()
        self.assertEqual(status, 0, screen)
        bars = painted(screen)
        first = BAR.fullmatch(bars[0])
        self.assertTrue(first, bars[0])
        phase, filled, empty, percent, done, total, rate, left = first.groups()
        done, total, rate = size(done), size(total), size(rate)
        self.assertEqual((phase, total), ("copy", self.size))
        self.assertGreaterEqual(done, total / 2 - 0.05 * MIB)
        self.assertLess(done, total)
        self.assertAlmostEqual(int(percent), 100 * done / total, delta=1)
        self.assertAlmostEqual(len(filled) / len(filled + empty), done / total, delta=0.1)
        # It stood still for 1.2 seconds.
        self.assertLess(rate, done / 1.1)
        self.assertGreater(rate, 0)
        self.assertAlmostEqual(seconds(left), (total - done) / rate, delta=1 + 0.1 * seconds(left))
        last = BAR.fullmatch(bars[-1])
        self.assertTrue(last, bars[-1])
        self.assertEqual((last[4], size(last[5]), last[8]), ("100", self.size, "0 s"))
        self.assertEqual(last[3], "")
        self.assertRegex(screen, r"0 s left\x1b\[K\r\n000001-full is there: 40.0 MiB read")
        self.assertNotIn("room for about", screen)

    def test_the_bar_fits_a_narrow_terminal_in_one_line(self):
        self.begin()
        for columns in (40, 55, 72):
            status, screen = self.full(columns).end()
            self.assertEqual(status, 0, screen)
            bars = painted(screen)
            self.assertGreater(len(bars), 1)
            for bar in bars:
                self.assertLess(len(bar), columns)
                self.assertRegex(bar, r"^copy .* \d+%.* left$")

    def test_nothing_is_painted_where_no_terminal_is(self):
        self.begin()
        done = run(*(word for word in self.words("full") if word != "--json"), timeout=LIMIT)
        self.assertNotIn("\r", done.out + done.err)
        self.assertNotIn("\x1b", done.out + done.err)

    def test_a_restore_has_a_bar_and_gives_what_was_backed_up(self):
        self.begin()
        self.agent("full")
        target = self.m.path("restored.img")
        status, screen = self.terminal(*self.words("restore", "--to", target)).end()
        self.assertEqual(status, 0, screen)
        self.assertRegex(painted(screen)[-1], r"^restore +\[=+\] 100% 40.0 MiB of 40.0 MiB, ")
        self.assertEqual(digest(target, self.size), digest(self.m.path("d.img"), self.size))

    def test_control_c_takes_the_backup_back(self):
        self.begin()
        one = self.full()
        one.press(b"\x03")
        status, screen = one.end()
        self.assertEqual(status, 130, screen)
        self.assertIn("trak-backup: interrupted; nothing is left half-done\r\n", screen)
        self.assert_nothing_left()
        self.assertEqual([name for name in os.listdir(self.store) if name.startswith("0")], [])


class LittleRoom(BackupTest):
    """COW files on a file system of their own, of which two thirds are used while the agent stands
    still: however slow the machine is, it lasts for half as long again."""

    size = 40 * MIB

    def use_up(self):
        """Writes to places that the snapshot has to keep."""
        room = os.statvfs(self.cow)
        used = room.f_bavail * room.f_frsize * 2 // 3 // MIB
        self.assertTrue(8 <= used <= self.size // MIB, used)
        begun = time.monotonic()
        for at in range(used):
            self.write(at * MIB, MIB)
        while time.monotonic() < begun + 1.2:  # it looks once a second
            time.sleep(0.1)
        return used * MIB

    def check_told(self, said, used, passed):
        events = [json.loads(line) for line in said.splitlines() if line.startswith("{")]
        told = [event for event in events if event["event"] == "cow-space"]
        self.assertTrue(told, events)
        free = told[0]["free"]
        room = os.statvfs(self.cow)
        self.assertLess(free, room.f_blocks * room.f_frsize / 2)
        self.assertGreater(free, 0)
        # As it was used up from the start of the copy to this moment.
        self.assertGreater(told[0]["lasts"], 0.9 * free / used)
        self.assertLess(told[0]["lasts"], 1.1 * passed * free / (used * 0.9))

    def test_how_long_it_lasts_is_told_while_a_backup_copies(self):
        self.begin()
        self.cow = self.m.volume("cow", 32 * MIB)
        begun = time.monotonic()
        one = self.stop_at("copy-begun", "full", "--cow-dir", self.cow, "--cow-reserve", "1M")
        used = self.use_up()
        status, said = one.end()
        self.assertEqual(status, 0, said)
        self.check_told(said, used, time.monotonic() - begun)
        self.assert_nothing_left()

    def test_it_is_told_in_a_sentence_too(self):
        self.begin()
        self.cow = self.m.volume("cow", 32 * MIB)
        words = self.words("full", "--cow-dir", self.cow, "--cow-reserve", "1M", "--stop-at",
                           "copy-begun")
        one = Terminal([word for word in words if word != "--json"], 100)
        self.addCleanup(one.close)
        one.wait_stopped()
        self.use_up()
        status, screen = one.end()
        self.assertEqual(status, 0, screen)
        self.assertRegex(screen, rf"\ntrak-backup: note: {self.cow} has room for about [\w ]+ more of "
                         r"copy-on-write \([\d.]+ [KM]iB free\); the copy needs about [\w ]+\r\n")

    def test_it_is_told_while_an_audit_reads(self):
        self.begin()
        self.agent("full")
        self.cow = self.m.volume("cow", 32 * MIB)
        begun = time.monotonic()
        one = self.stop_at("frozen", "audit", "--all", "--cow-dir", self.cow, "--cow-reserve", "1M")
        used = self.use_up()
        status, said = one.end()
        self.assertEqual(status, 0, said)
        self.check_told(said, used, time.monotonic() - begun)
        self.assert_nothing_left()


if __name__ == "__main__":
    main()
