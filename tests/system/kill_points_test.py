"""Backups, incrementals, merges and restores are killed at random points: what is finished stays whole, and whatever
comes next goes on."""
import os
import random
import signal
import subprocess
import time
import unittest

import harness

POINTS = int(os.environ.get("OBS_KILL_POINTS", "200"))
SEED = int(os.environ.get("OBS_SEED", "200"))
SETTLE_EVERY = 10   # kills in a row before everything is looked at


class Kill_Points(harness.Scenario):
    def setUp(self):
        super().setUp()
        self.server = harness.Test_Server("--synthetic", "bucket,150,4000", "--bucket", "target")
        self.addCleanup(self.server.stop)
        self.client = self.server.client()
        self.add_account(self.server)
        self.add_pool()
        self.chance = random.Random(SEED)
        self.number = 0
        self.took = {}
        self.history = []

    def sets(self):
        return [row["set"] for row in self.agent("sets", "--json").json["sets"]]

    def change_something(self):
        for _ in range(self.chance.randrange(1, 4)):
            self.number += 1
            key = "d0000/e0%d/k%02d" % (self.chance.randrange(3), self.chance.randrange(40))
            if self.chance.random() < 0.25:
                self.client.delete_object(Bucket="bucket", Key=key)
            else:
                # Never the same size twice.
                self.client.put_object(Bucket="bucket", Key=key, Body=b"%d" % self.number * (self.number + 1))

    def arguments(self, kind, sets):
        if kind == "merge":
            first = self.chance.randrange(len(sets) - 1)
            return ["merge", *sets[first:first + self.chance.randrange(2, 4)]]
        if kind == "restore":
            return ["restore", self.chance.choice(sets), "--map", "bucket=target", "--existing", "overwrite"]
        compression = self.chance.choice(["none", "zstd"])
        return ["backup", "work", "/bucket/", "--pool", "disk", "--channels", str(self.chance.randrange(1, 4)),
                "--compression", compression] + (["--full"] if kind == "full" else [])

    def temporary_files(self):
        found = []
        for top in (self.pool, self.state):
            for folder, folders, files in os.walk(top):
                found += [os.path.join(folder, name) for name in files + folders
                          if name.endswith((".tmp", "-journal")) or name == "merging"]
        return found

    def folders(self):
        return {folder[-36:]: "set" if "set.json" in files else "partial" if "partial.json" in files else "-"
                for folder, _, files in os.walk(self.pool) if "channel-0000.mtf" in files}

    def kill_one(self, kind, sets):
        arguments = self.arguments(kind, sets)
        start = time.monotonic()
        process = subprocess.Popen(self.command(*arguments), stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                   stderr=subprocess.PIPE)
        try:
            error = process.communicate(timeout=self.chance.random() * self.took.get(kind, 0.3))[1]
        except subprocess.TimeoutExpired:
            process.kill()
            error = process.communicate()[1]
        self.history.append((kind, process.returncode, arguments[1:], self.folders()))
        if process.returncode == -signal.SIGKILL:
            return True
        self.assertEqual(0, process.returncode, "%s: %s" % (arguments, error))
        self.took[kind] = time.monotonic() - start
        return False

    def verify(self, set_id):
        result = self.agent("verify", set_id, expect=None)
        if result.returncode != 0:
            for step in self.history[-25:]:
                print(*step, flush=True)
            self.fail(result.stdout)

    def look_at_everything(self):
        outcome = self.backup("/bucket/")
        self.assertEqual(0, outcome["skipped"] + outcome["failed"])
        for set_id in self.sets():
            self.verify(set_id)
        for key in self.client.list_objects(Bucket="target").get("Contents", []):
            self.client.delete_object(Bucket="target", Key=key["Key"])
        self.agent("restore", outcome["set"], "--map", "bucket=target")
        self.assertEqual(self.contents(self.server, "bucket"), self.contents(self.server, "target"))
        self.agent("forget", "--keep-last", str(self.chance.randrange(2, 5)))
        self.assertEqual([], self.unfinished())
        self.assertEqual([], self.temporary_files())
        self.agent("media", "check", *self.media())

    def test_finished_sets_stay_whole_and_the_next_run_completes(self):
        print("seed %d" % SEED, flush=True)
        self.backup("/bucket/")
        kills, tries = {}, 0
        while sum(kills.values()) < POINTS:
            tries += 1
            self.assertLess(tries, 20 * POINTS, "what is to be killed ends before it is")
            sets = self.sets()
            kind = self.chance.choice(["full", "incremental", "merge", "restore"])
            if kind == "merge" and len(sets) < 2:
                continue
            if kind in ("full", "incremental"):
                self.change_something()
            if not self.kill_one(kind, sets):
                continue
            kills[kind] = kills.get(kind, 0) + 1
            sets = self.sets()
            self.assertTrue(sets, "all sets are gone")
            self.verify(self.chance.choice(sets))
            if sum(kills.values()) % SETTLE_EVERY == 0:
                self.look_at_everything()
        print("killed:", kills, flush=True)


if __name__ == "__main__":
    harness.main()
