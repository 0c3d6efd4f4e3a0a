"""Sets that somebody takes away from a pool, puts back, changes or replaces are named, and nothing is decided by them."""
import hashlib
import json
import os
import shutil
import signal
import subprocess
import unittest

import harness

FAULTS = os.environ.get("OBS_FILE_FAULTS", "")


class Roll(harness.Scenario):
    def setUp(self):
        super().setUp()
        self.server = harness.Test_Server("--synthetic", "bucket,20,100")
        self.addCleanup(self.server.stop)
        self.client = self.server.client()
        self.add_account(self.server)
        self.add_pool()
        self.all = [self.backup("/bucket/", "--full")["set"] for _ in range(4)]

    def folder_of(self, set_id):
        return next(folder for folder, _, _ in os.walk(self.pool) if os.path.basename(folder) == set_id)

    def sets(self):
        return [row["set"] for row in self.agent("sets", "--json").json["sets"]]

    def change_record(self, set_id, **members):
        """As who knows how records are made."""
        path = os.path.join(self.folder_of(set_id), "set.json")
        with open(path) as file:
            record = json.load(file)
        record.update(members)
        record.pop("sha256")
        text = json.dumps(record, sort_keys=True, separators=(",", ":"), ensure_ascii=False)
        record["sha256"] = hashlib.sha256(text.encode()).hexdigest()
        with open(path, "w") as file:
            json.dump(record, file)

    def assert_nothing_is_forgotten(self, words):
        refused = self.agent("forget", "--keep-last", "1", expect=1)
        self.assertIn(words, refused.stderr)
        self.assertIn(words, self.agent("pool", "show", "disk", expect=None).stdout)
        self.assertIn(words, self.agent("sets").stderr)

    def test_set_that_is_put_back_is_named(self):
        kept = os.path.join(self.folder, "kept")
        folder = self.folder_of(self.all[0])
        shutil.copytree(folder, kept)
        self.agent("forget", "--keep-last", "3")
        self.assertEqual(self.all[1:], self.sets())
        self.assertEqual("", self.agent("sets").stderr)
        shutil.copytree(kept, folder)
        self.assert_nothing_is_forgotten("is not on the pool's roll")
        # It can be read all the same.
        self.agent("verify", self.all[0])
        self.agent("pool", "trust", "disk")
        self.assertEqual("", self.agent("sets").stderr)
        self.agent("forget", "--keep-last", "1")
        self.assertEqual(self.all[3:], self.sets())

    def test_set_that_was_taken_away_is_named(self):
        shutil.rmtree(self.folder_of(self.all[1]))
        for _ in range(2):
            self.assertIn("the set %s is on the pool's roll and was taken away" % self.all[1],
                          self.agent("sets").stderr)
            self.backup("/bucket/")
        # What it needs may be any of the others, and it may come back.
        refused = self.agent("forget", "--keep-last", "1", expect=1)
        self.assertIn("nothing is forgotten while a set is away: the set %s" % self.all[1], refused.stderr)
        self.assertEqual(5, len(self.sets()))
        self.agent("pool", "trust", "disk")
        self.assertEqual("", self.agent("sets").stderr)
        self.agent("forget", "--keep-last", "1")

    @unittest.skipUnless(FAULTS, "needs the library that cuts file operations")
    def test_forget_that_was_killed_says_nothing_of_sets_that_it_left(self):
        def going():
            with open(os.path.join(self.pool, "sets.json")) as file:
                return "going" in file.read()
        operation = 0
        while not going():
            operation += 1
            self.assertLess(operation, 200)
            environment = dict(os.environ, LD_PRELOAD=FAULTS, FILE_FAULT_ROOTS=self.pool, FILE_FAULT_AT=str(operation),
                               FILE_FAULT_HOW="cut")
            killed = subprocess.run(self.command("forget", "--keep-last", "1"), env=environment,
                                    stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            self.assertEqual(-signal.SIGKILL, killed.returncode)
        self.assertEqual(4, len(self.sets()))
        self.backup("/bucket/")
        self.assertFalse(going())
        shutil.rmtree(self.folder_of(self.all[0]))
        self.assertIn("the set %s is on the pool's roll and was taken away" % self.all[0], self.agent("sets").stderr)

    def test_record_that_hides_other_sets_is_not_followed(self):
        self.change_record(self.all[0], replaces=self.all[1:])
        self.assert_nothing_is_forgotten("is not the one on the pool's roll")
        self.assertEqual(self.all, sorted(self.sets(), key=self.all.index))
        self.backup("/bucket/")
        for set_id in self.all[1:]:
            self.agent("verify", set_id)

    def test_rebuild_does_not_take_a_changed_record_over(self):
        self.change_record(self.all[0], replaces=self.all[1:])
        answer = self.agent("catalog", "rebuild", self.all[0], "--json").json
        self.assertTrue(answer["record_made"])
        self.assertEqual("", self.agent("sets").stderr)
        self.agent("forget", "--keep-last", "4")
        self.assertEqual(self.all, self.sets())

    def test_folder_that_holds_another_set_is_refused(self):
        first, second = (self.folder_of(set_id) for set_id in self.all[:2])
        shutil.rmtree(first)
        shutil.copytree(second, first)
        for command in (["verify", self.all[0]], ["ls", self.all[0]], ["restore", self.all[0], "--dry-run"]):
            refused = self.agent(*command, expect=1)
            self.assertNotIn("are good", refused.stdout)
            self.assertIn(self.all[0], refused.stderr + refused.stdout)
        self.assertIn("the set %s lies in two folders" % self.all[1], self.agent("sets").stderr)
        self.agent("verify", self.all[1])

    def test_files_of_another_set_are_refused(self):
        first, second = (self.folder_of(set_id) for set_id in self.all[:2])
        for name in ("catalog.db", "catalog.sum"):
            shutil.copy(os.path.join(second, name), first)
        self.assertIn("lies the catalog of another set",
                      self.agent("verify", self.all[0], "--json", expect=1).stdout)
        self.agent("catalog", "rebuild", self.all[0])
        self.agent("verify", self.all[0])
        self.damages_media = True
        shutil.copy(os.path.join(second, "channel-0000.mtf"), first)
        self.agent("verify", self.all[0], expect=1)

    def test_clock_that_was_behind_decides_nothing(self):
        self.change_record(self.all[3], start_time="2019-01-01 00:00:00", end_time="2019-01-01 00:00:01")
        self.agent("pool", "trust", "disk")
        rows = {row["set"]: row for row in self.agent("sets", "--json").json["sets"]}
        self.assertIn("which has a lower number", rows[self.all[3]]["time_problem"])
        self.assertIn("--trust-clock", self.agent("forget", "--keep-daily", "1", expect=1).stderr)
        self.assertEqual(4, len(self.sets()))
        self.assertEqual(self.all[3], self.agent("verify", "latest", "--json").json["set"])

    def test_clock_that_was_ahead_decides_nothing(self):
        self.change_record(self.all[0], start_time="2099-01-01 00:00:00")
        self.agent("pool", "trust", "disk")
        rows = {row["set"]: row for row in self.agent("sets", "--json").json["sets"]}
        self.assertEqual("its start time 2099-01-01 00:00:00 is later than now", rows[self.all[0]]["time_problem"])
        self.assertNotIn("time_problem", rows[self.all[1]])
        self.assertIn("is later than now", self.agent("sets").stdout)
        refused = self.agent("forget", "--keep-daily", "1", expect=1)
        self.assertIn("--trust-clock", refused.stderr)
        self.assertEqual(4, len(self.sets()))
        # The newest one is that with the highest number.
        answer = self.agent("forget", "--keep-last", "1", "--dry-run", "--json").json
        self.assertEqual([self.all[3]], [item["set"] for item in answer["groups"][0]["kept"]])
        answer = self.agent("forget", "--keep-daily", "1", "--trust-clock", "--dry-run", "--json").json
        self.assertEqual([self.all[0]], [item["set"] for item in answer["groups"][0]["kept"]])
        self.assertEqual(self.all[3], self.agent("verify", "latest", "--json").json["set"])
        # Nor does the next backup go on with that one.
        self.agent("backup", "work", "/bucket/", "--pool", "disk")
        with open(os.path.join(self.folder_of(self.sets_by_number()[-1]), "set.json")) as file:
            self.assertEqual([self.all[3]], json.load(file)["bases"])

    def sets_by_number(self):
        return [row["set"] for row in sorted(self.agent("sets", "--json").json["sets"], key=lambda row: row["seq"])]


if __name__ == "__main__":
    harness.main()
