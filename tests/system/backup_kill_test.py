# tests/system/backup_kill_test.py: backups that are killed at each of their steps, and the next one
# SPDX-License-Identifier: GPL-2.0-only
"""A round: a backup runs while the disk is written, and comes to its end at one named step in one of
four ways; then the next backup has to restore to exactly what the disk held at its freeze, older ones to
what they always did, and nothing of the killed run may be left.

Each step of each kind of backup is one round, with the ways of ending in turn. TRAK_BACKUP_ROUNDS=N: N
rounds at random points instead (TRAK_SEED decides which), TRAK_BACKUP_ROUNDS=all: every way at every step.
"""
import os
import random
import signal

from trak_backup import Disk, steps
from trak_machine import SystemTest
from trak_testing import Failed, check, main

WAYS = ("killed", "stopped_and_killed", "trakd_killed", "both_killed")
STEPS = steps()
# The map was perhaps taken, and nobody has it: everything counts as changed.
UNKNOWN = ("incr-marked", "incr-taken", "incr-written")
# The settling of a run that was killed, by the next one.
SETTLING = ("settling", "given-back", "snap-removed", "swept", "map-released", "ended")
CHAIN = 14  # backups in one store


def place(step):
    return [name for name, _ in STEPS].index(step)


def committed(step):
    return place(step) >= place("manifest-renamed")


def points():
    """(kind, step, way, step of the next run at which that one ends too, or "")."""
    wanted = os.environ.get("TRAK_BACKUP_ROUNDS", "")
    every = [(kind, step, way, "") for step, kinds in STEPS for kind in kinds for way in WAYS]
    early = [(kind, step) for step, kinds in STEPS for kind in kinds if not committed(step)]
    every += [(*early[(n * 7) % len(early)], way, again)
              for n, (again, way) in enumerate((again, way) for again in SETTLING for way in WAYS)]
    if wanted.isdigit():
        dice = random.Random(int(os.environ.get("TRAK_SEED", "1")))
        return [dice.choice(every) for _ in range(int(wanted))]
    if wanted == "all":
        return every
    # One way each, so that every step sees several of them.
    return [point for n, point in enumerate(every) if n // 4 % 4 == n % 4]


class Killed(SystemTest):
    def setUp(self):
        super().setUp()
        self.dice = random.Random(int(os.environ.get("TRAK_SEED", "1")))
        self.disk = Disk(self.m, self.dice)
        self.addCleanup(self.disk.close)
        self.kinds = {"full": 0, "incr": 0, "diff": 0}
        self.everything = False  # the incremental map says that everything has changed

    def begin_store(self):
        if self.disk.store:
            self.disk.check_all_old()
        self.disk.new_store()
        self.next_backup("full", "full")

    def next_backup(self, kind, expected):
        """A backup that nobody disturbs, but the disk is written: before it with half of them, where the
        disk is read past trakd; all the time with the others, where its own snapshot is read."""
        disk, own = self.disk, self.dice.random() < 0.5
        if own:
            disk.writer.start(60)
        agent = disk.backup(kind, "--stop-at", "frozen")
        if not agent.stopped():
            agent.wait()
            raise Failed("the backup was not stopped at its freeze")
        data = disk.snapshot() if own else disk.bytes()
        disk.writer.start(60)
        agent.go_on()
        agent.wait()
        disk.writer.pause()
        made = disk.backups()[-1]
        check(expected in (made["kind"], ""),
              f"{made['id']} is no {expected} backup: {made['reason']}")
        self.kinds[made["kind"]] += 1
        self.backup_is_there()
        disk.remember(data)
        disk.check_nothing_left()

    def backup_is_there(self):
        if self.disk.backups()[-1]["kind"] != "diff":
            self.everything = False

    def end(self, agent, step, way, allowed=(0, 1)):
        """The end that a round is about. allowed: how the agent may end that finds trakd gone."""
        disk = self.disk
        if not agent.stopped():
            status = agent.wait(expect=None)
            if way == "killed" and status == -signal.SIGKILL:
                return
            raise Failed(f"the backup did not come to {step}:\n{agent.said()[-2000:]}")
        disk.writer.write(6)
        if way in ("trakd_killed", "both_killed"):
            disk.kill()
        if way != "trakd_killed":
            agent.kill()
            return
        agent.go_on()
        status = agent.wait(expect=None)
        check(status in allowed, f"status {status} at {step}:\n{agent.said()[-2000:]}")

    def run_to_its_end(self, kind, step, way):
        """What the disk held at the freeze, if the run came that far. Where its way is not to be stopped
        before, it is written all the time."""
        disk, count = self.disk, len(self.disk.backups())
        data = disk.bytes()
        if way == "killed":
            options = ["--kill-at", step]
            if committed(step):
                options += ["--stop-at", "frozen"]
            disk.writer.start(60)
        else:
            options = ["--stop-at", step]
        agent = disk.backup(kind, *options)
        if way == "killed" and committed(step):
            check(agent.stopped(), "the backup was not stopped at its freeze")
            data = disk.snapshot()
            agent.go_on()
            status = agent.wait(expect=None)
            check(status == -signal.SIGKILL, f"status {status} at {step}:\n{agent.said()[-2000:]}")
        else:
            # After the last read of the snapshot it can do without trakd.
            self.end(agent, step, way, (0,) if committed(step) else
                     (0, 1) if place(step) >= place("copied") else (1,))
        disk.writer.pause()
        disk.wait_unlocked()
        there = len(disk.backups()) > count
        made = committed(step) or (way == "trakd_killed" and agent.process.returncode == 0)
        check(there == made, f"after {step} there are {len(disk.backups())} backups, {count} before")
        if there:
            self.backup_is_there()
            disk.remember(data)

    def restart(self, way):
        if way not in ("killed", "stopped_and_killed"):
            check(self.disk.start(), "the guard did not notice that trakd was killed")
            self.everything = True

    def round(self, kind, step, way, again):
        disk = self.disk
        if not disk.store or len(disk.known) >= CHAIN:
            self.begin_store()
        disk.writer.write(20)
        self.run_to_its_end(kind, step, way)
        self.restart(way)
        if kind != "diff" and step in UNKNOWN:
            self.everything = True
        disk.writer.write(10)
        if again:
            agent = disk.backup("incr", *(("--kill-at", again) if way == "killed" else
                                          ("--stop-at", again)))
            self.end(agent, again, way, (1,))
            disk.wait_unlocked()
            self.restart(way)
            disk.writer.write(5)
        following = self.dice.choice(("incr", "incr", "diff"))
        if following == "incr":
            expected = "full" if self.everything else "incr"
        else:
            expected = ""
        self.next_backup(following, expected)
        disk.check_old(self.dice.choice(list(disk.known)))

    def test_next_backup_restores_to_the_disk_at_its_freeze(self):
        for number, point in enumerate(points(), 1):
            self.m.tell_watcher(f"round {number}, {' '.join(point)}|300")
            try:
                self.round(*point)
            except (Failed, OSError) as what:
                raise Failed(f"round {number}, {' '.join(point)}: {what}") from what
        self.disk.check_all_old()
        print(f"{number} rounds; the next backups were {self.kinds}")


if __name__ == "__main__":
    main()
