"""Every file operation of every command that changes something fails once, or is the last one of its process: what was
there is there, and the next commands end.

A walk takes every operation in turn where there is time ($OBS_FAULT_POINTS=all), else so many of each command, spread
evenly, from a place that $OBS_SEED chooses."""
import contextlib
import json
import os
import random
import shutil
import signal
import sqlite3
import subprocess
import tempfile
import unittest

import harness

LIBRARY = os.environ.get("OBS_FILE_FAULTS", "")
POINTS = os.environ.get("OBS_FAULT_POINTS", "4")
SEED = int(os.environ.get("OBS_SEED", "1"))
PATIENCE = 300       # seconds after which a command is taken to hang; none takes one on an idle machine
OBJECTS = 6


@unittest.skipUnless(LIBRARY, "needs a library in front of the C library, which sanitizers do not like")
class Fault_Points(harness.Scenario):
    encrypted = False
    roots = None         # what operations are counted on, where that is not all of pool and state

    def setUp(self):
        super().setUp()
        if os.access("/dev/shm", os.W_OK): # each step begins with a fresh copy of pool and state
            shutil.rmtree(self.folder)
            self.folder = tempfile.mkdtemp(prefix="obs-agent-test-", dir="/dev/shm")
            self.addCleanup(shutil.rmtree, self.folder, ignore_errors=True)
            self.state = os.path.join(self.folder, "state")
            self.pool = os.path.join(self.folder, "pool")
        self.template = os.path.join(self.folder, "template")
        self.key = os.path.join(self.folder, "key")
        self.other_key = os.path.join(self.folder, "other-key")
        for name, byte in ((self.key, b"k"), (self.other_key, b"o")):
            with open(name, "wb") as file:
                file.write(byte * 32)
        self.server = harness.Test_Server("--bucket", "bucket", "--bucket", "target")
        self.addCleanup(self.server.stop)
        self.client = self.server.client()
        self.expected = {}
        self.make_template()

    # What each step begins with: three sets, of which the newer ones point into the older ones, and a bucket that has
    # changed since.

    def put(self, key, body):
        self.client.put_object(Bucket="bucket", Key=key, Body=body)

    def pool_arguments(self):
        return ["--encrypt", "--key-file", self.key] if self.encrypted else []

    def make_template(self):
        self.add_account(self.server)
        self.agent("pool", "add", "disk", "file://" + self.pool, *self.pool_arguments())
        for number in range(OBJECTS):
            self.put("d/%d" % number, b"%d" % number * 3000)
        self.sets = []
        for number in range(3):
            self.put("d/%d" % number, b"new %d" % number * (1000 + number))
            self.sets.append(self.backup("/bucket/")["set"])
            self.expected[self.sets[-1]] = self.contents(self.server, "bucket", self.client)
        self.put("d/4", b"newest" * 1007)
        self.client.delete_object(Bucket="bucket", Key="d/5")
        self.now = self.contents(self.server, "bucket", self.client)
        for name in ("state", "pool"):
            shutil.copytree(os.path.join(self.folder, name), os.path.join(self.template, name))

    def reset(self):
        for name in ("state", "pool"):
            shutil.rmtree(os.path.join(self.folder, name))
            shutil.copytree(os.path.join(self.template, name), os.path.join(self.folder, name))

    # One command, with a fault or without.

    def run_bounded(self, *arguments, **faults):
        environment = dict(os.environ)
        if faults:
            environment.update(LD_PRELOAD=LIBRARY, FILE_FAULT_ROOTS=self.roots or self.pool + ":" + self.state,
                               **{"FILE_FAULT_" + name: str(value) for name, value in faults.items()})
        process = subprocess.Popen(self.command(*arguments), stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                   stderr=subprocess.PIPE, env=environment)
        try:
            output, error = process.communicate(timeout=PATIENCE)
        except subprocess.TimeoutExpired:
            waits = harness.waits_of(process.pid)
            process.kill()
            process.communicate()
            self.fail("%s hangs (%s)\n%s" % (" ".join(arguments), self.where, waits))
        return harness.Result(process.returncode, output.decode(errors="surrogateescape"), error.decode(errors="replace"))

    def must(self, *arguments):
        result = self.run_bounded(*arguments)
        self.assertEqual(0, result.returncode, "%s (%s)\n%s%s\n%s" % (
            " ".join(arguments), self.where, result.stdout, result.stderr, self.last_log_lines()))
        return result

    def count_calls(self, arguments, of):
        count = os.path.join(self.folder, "count")
        self.where = "counting"
        result = self.run_bounded(*arguments, COUNT=count, OF=of)
        self.assertEqual(0, result.returncode, "%s\n%s%s" % (arguments, result.stdout, result.stderr))
        with open(count) as file:
            return int(file.read())

    # What holds afterwards, whatever happened.

    def restore(self, set_id):
        for key in self.contents(self.server, "target", self.client):
            self.client.delete_object(Bucket="target", Key=key)
        self.must("restore", set_id, "--map", "bucket=target")
        return self.contents(self.server, "target", self.client)

    def look(self, keeps, number):
        """All sets verify; those of `keeps` are there, or one that took their place is. One of them is restored."""
        listed = self.must("sets", "--json")
        if self.alarms_are_false:
            self.assertEqual("", listed.stderr, self.where)
        there = [row["set"] for row in json.loads(listed.stdout)["sets"]]
        for set_id in keeps:
            self.assertIn(set_id, there, self.where)
        for set_id in there:
            self.must("verify", set_id)
        chosen = there[number % len(there)]
        if chosen in self.expected:
            self.assertEqual(self.expected[chosen], self.restore(chosen), self.where)

    def go_on(self):
        """The next backup, merge and forget do what they are for, and leave nothing lying about."""
        outcome = json.loads(self.must("backup", "work", "/bucket/", "--pool", "disk", "--json").stdout)
        self.assert_account_adds_up(outcome)
        there = [row["set"] for row in json.loads(self.must("sets", "--json").stdout)["sets"]]
        if len(there) > 2:
            self.must("merge", *there[:2])
        self.assertEqual(self.now, self.restore(outcome["set"]), self.where)
        self.must("forget", "--keep-last", "1")
        self.must("verify", outcome["set"])
        if self.alarms_are_false:
            self.assertEqual("", self.must("sets").stderr, self.where)
        self.assertEqual([], self.unfinished(), self.where)
        left = [os.path.join(folder, name) for top in (self.pool, self.state) for folder, _, files in os.walk(top)
                for name in files if name.endswith((".tmp", "-journal"))]
        self.assertEqual([], left, self.where)

    def walk(self, name, arguments, keeps, prepare=lambda: None, ways=("cut", "EIO"), of="changes"):
        """`keeps` are the sets that must be there whatever happens to the command."""
        self.reset()
        prepare()
        calls = self.count_calls(arguments, of)
        chance = random.Random("%d %s %s" % (SEED, name, self.encrypted))
        for how in ways:
            points = range(1, calls + 1)
            if POINTS != "all" and calls > int(POINTS):
                step = calls / int(POINTS)
                first = chance.random() * step
                points = sorted({int(first + number * step) % calls + 1 for number in range(int(POINTS))})
            print("%s: %s at %d of %d" % (name, how, len(points), calls), flush=True)
            # What is removed while nothing can be written is not said anywhere, and looks as if somebody else had done it.
            self.alarms_are_false = how != "lasting-ENOSPC"
            for point in points:
                self.reset()
                prepare()
                self.where = "%s, %s at operation %d of %d" % (name, how, point, calls)
                result = self.run_bounded(*arguments, AT=point, HOW=how, OF=of)
                if how == "cut":
                    # Threads take turns: the number of operations differs by a few from run to run.
                    self.assertIn(result.returncode, (-signal.SIGKILL, 0), self.where)
                else:
                    self.assertIn(result.returncode, (0, 1, 3), self.where + result.stderr)
                    if result.returncode == 1:
                        self.assertNotEqual("", result.stderr.strip(), self.where)
                self.look(keeps, point)
                self.go_on()

    def backup_arguments(self, *more):
        return ["backup", "work", "/bucket/", "--pool", "disk", *more]

    def leave_unfinished(self):
        """A run that was killed when half of its file operations were done."""
        self.where = "leaving an unfinished run"
        for at in (60, 50, 40, 30, 20):
            result = self.run_bounded(*self.backup_arguments("--full"), AT=at, HOW="cut")
            if result.returncode == -signal.SIGKILL and self.unfinished():
                return
            self.reset()
        self.fail("no run can be left unfinished")

    def damage(self):
        """One byte of the oldest set's medium is another one."""
        self.damages_media = True
        medium = self.media(self.sets[0])[0]
        with open(medium, "r+b") as file:
            file.seek(os.path.getsize(medium) // 3)
            byte = file.read(1)
            file.seek(-1, os.SEEK_CUR)
            file.write(bytes([byte[0] ^ 1]))

    def add_full(self):
        self.where = "adding a full set"
        self.must(*self.backup_arguments("--full"))

    def test_full_backup(self):
        self.walk("full backup", self.backup_arguments("--full", "--json"), self.sets)

    def test_incremental_backup(self):
        self.walk("incremental backup", self.backup_arguments("--json"), self.sets)

    def test_resumed_backup(self):
        self.walk("resumed backup", self.backup_arguments("--full", "--json"), self.sets, self.leave_unfinished)

    def make_older(self):
        """A pool that no agent has kept a roll of, which the next change begins."""
        os.remove(os.path.join(self.pool, "sets.json"))
        with contextlib.closing(sqlite3.connect(os.path.join(self.state, "agent.db"))) as db, db:
            db.execute("DELETE FROM notes WHERE kind = 'pool_roll'")

    def test_first_change_of_an_older_pool(self):
        for of, ways in (("changes", ("cut", "EIO")), ("reads", ("EIO",))):
            self.walk("first change, " + of, self.backup_arguments("--full", "--json"), self.sets, self.make_older, ways, of)

    def test_merge(self):
        self.walk("merge", ["merge", *self.sets[:2]], self.sets[2:])

    def test_forget(self):
        self.walk("forget", ["forget", "--keep-last", "1"], self.sets[2:])

    def test_forget_of_sets_that_none_needs(self):
        self.walk("forget after a full set", ["forget", "--keep-last", "1"], [], self.add_full)

    def test_rebuild(self):
        self.walk("rebuild", ["catalog", "rebuild", self.sets[1]], self.sets)

    def test_rebuild_of_a_set_whose_base_was_merged(self):
        def merge():
            self.where = "merging"
            self.must("merge", *self.sets[:2])
        self.walk("rebuild after a merge", ["catalog", "rebuild", self.sets[2]], self.sets[2:], merge)

    def test_roll_is_right_wherever_its_change_ends(self):
        """Every operation on the roll: no set is taken for one that somebody else has put there, changed or removed."""
        for arguments, prepare in ((self.backup_arguments("--json"), lambda: None), (["merge", *self.sets[:2]], lambda: None),
                                   (["forget", "--keep-last", "1"], self.add_full)):
            def begin():
                self.roots = None
                self.reset()
                prepare()
                self.roots = os.path.join(self.pool, "sets.json")
            for how, of in (("cut", "changes"), ("EIO", "changes"), ("EIO", "reads")):
                begin()
                calls = self.count_calls(arguments, of)
                self.assertLess(3, calls)
                for point in range(1, calls + 1):
                    begin()
                    self.where = "%s, %s at operation %d of %d on the roll" % (arguments[0], how, point, calls)
                    self.run_bounded(*arguments, AT=point, HOW=how, OF=of)
                    self.assertEqual("", self.must("sets").stderr, self.where)
                    self.must(*self.backup_arguments("--json"))
                    self.assertEqual("", self.must("sets").stderr, self.where)

    def test_refused_disk(self):
        for name, arguments, keeps in (("full disk", self.backup_arguments("--json"), self.sets),
                                       ("merge on a full disk", ["merge", *self.sets[:2]], self.sets[2:]),
                                       ("forget on a full disk", ["forget", "--keep-last", "1"], self.sets[2:])):
            self.walk(name, arguments, keeps, ways=("lasting-ENOSPC", "lasting-EROFS"))

    def test_reads_that_fail(self):
        for name, arguments, keeps in (("reads of a backup", self.backup_arguments("--json"), self.sets),
                                       ("reads of a merge", ["merge", *self.sets[:2]], self.sets[2:]),
                                       ("reads of a forget", ["forget", "--keep-last", "1"], self.sets[2:]),
                                       ("reads of a rebuild", ["catalog", "rebuild", self.sets[1]], self.sets)):
            self.walk(name, arguments, keeps, ways=("EIO",), of="reads")


class Fault_Points_Encrypted(Fault_Points):
    encrypted = True

    def test_rekey(self):
        self.walk("rekey", ["pool", "rekey", "disk", "--key-file", self.other_key], self.sets)


if __name__ == "__main__":
    harness.main()
