"""Sets that no rule keeps go, unless another set's data lie in them."""
import os
import shutil
import subprocess
import unittest

import harness


class Forget(harness.Scenario):
    def setUp(self):
        super().setUp()
        self.server = harness.Test_Server("--synthetic", "bucket,40,100", "--bucket", "other", "--bucket", "target")
        self.addCleanup(self.server.stop)
        self.client = self.server.client()
        self.client.put_object(Bucket="other", Key="k", Body=b"k")
        self.add_account(self.server)
        self.add_pool()

    def sets(self):
        return [row["set"] for row in self.agent("sets", "--json").json["sets"]]

    def folders(self):
        """Names of the set folders in the pool."""
        return sorted(os.path.basename(folder) for folder, _, files in os.walk(self.pool) if "set.json" in files)

    def forget(self, *arguments, expect=0):
        return self.agent("forget", *arguments, "--json", expect=expect).json

    def reasons(self, answer):
        return {item["set"]: item["reasons"] for group in answer["groups"] for item in group["kept"]}

    def test_base_that_is_needed_stays_and_says_for_whom(self):
        base = self.backup("/bucket/")["set"]
        self.client.put_object(Bucket="bucket", Key="x1", Body=b"1")
        middle = self.backup("/bucket/")["set"]
        self.client.put_object(Bucket="bucket", Key="x1", Body=b"22")
        last = self.backup("/bucket/")["set"]

        dry = self.forget("--keep-last", "1", "--dry-run")
        self.assertEqual((2, 1, True), (dry["kept"], dry["removed"], dry["dry_run"]))
        self.assertEqual([base, middle, last], self.sets())
        self.assertEqual(sorted([base, middle, last]), self.folders())

        answer = self.forget("--keep-last", "1")
        self.assertEqual({base: ["needed by " + last], last: ["last"]}, self.reasons(answer))
        self.assertEqual([middle], [item["set"] for item in answer["groups"][0]["removed"]])
        self.assertEqual([base, last], self.sets())
        self.assertEqual(sorted([base, last]), self.folders())
        # What stays is whole, and the chain goes on.
        self.agent("verify", last)
        self.agent("restore", last, "--map", "bucket=target")
        self.assertEqual(self.contents(self.server, "bucket"), self.contents(self.server, "target"))
        following = self.backup("/bucket/")
        self.assertEqual((0, 41), (following["saved"], following["unchanged"]))
        self.agent("verify", following["set"])

    def test_set_that_stays_for_another_ones_sake_stays_whole(self):
        self.client.put_object(Bucket="bucket", Key="x", Body=b"x")
        self.client.put_object(Bucket="bucket", Key="y", Body=b"y")
        base = self.backup("/bucket/y", "/bucket/x", "--name", "two")["set"]
        self.client.put_object(Bucket="bucket", Key="x", Body=b"xx")
        middle = self.backup("/bucket/y", "/bucket/x", "--name", "two")["set"]
        self.client.put_object(Bucket="bucket", Key="y", Body=b"yy")
        last = self.backup("/bucket/y", "/bucket/x", "--name", "two")["set"]
        # The last one has nothing of the first any more, but the one between has.
        answer = self.forget("--keep-last", "1")
        self.assertEqual({base: ["needed by " + middle], middle: ["needed by " + last], last: ["last"]},
                         self.reasons(answer))
        for one in (base, middle, last):
            self.agent("verify", one)

    def test_set_that_another_is_removed_for_may_go_with_it(self):
        old = [self.backup("/bucket/")["set"], self.backup("/bucket/")["set"]]
        full = self.backup("/bucket/", "--full")["set"]
        answer = self.forget("--keep-last", "1")
        self.assertEqual((1, 2), (answer["kept"], answer["removed"]))
        self.assertGreater(answer["freed"], 0)
        self.assertEqual([full], self.sets())
        self.assertEqual([full], self.folders())
        for one in old:
            self.agent("restore", one, expect=1)
        self.agent("verify", full)

    def test_rules_work_on_each_selection_by_itself(self):
        first = self.backup("/bucket/", "--full")["set"]
        self.backup("/other/", "--full")
        second = self.backup("/bucket/", "--full")["set"]
        last = self.backup("/other/", "--full")["set"]
        self.assertEqual(1, self.forget("--keep-last", "1", "--name", "/other/")["removed"])
        self.assertEqual([first, second, last], self.sets())
        self.assertIn("no set of a selection 'nothing'",
                      self.agent("forget", "--keep-last", "1", "--name", "nothing", expect=1).stderr)
        self.assertEqual(0, self.forget("--keep-daily", "7", "--keep-within", "1d")["removed"])
        self.assertEqual([first, second, last], self.sets())
        self.assertEqual(1, self.forget("work", "--pool", "disk", "--keep-yearly", "1")["removed"])
        self.assertEqual([second, last], self.sets())

    def test_without_a_rule_nothing_is_forgotten(self):
        self.backup("/bucket/")
        for arguments in ([], ["--keep-last", "0"], ["--keep-within", "soon"], ["--keep-last", "-1"]):
            self.agent("forget", *arguments, expect=2)
        self.assertEqual(1, len(self.sets()))

    def test_nothing_is_forgotten_beside_what_cannot_be_read(self):
        sets = [self.backup("/bucket/", "--full")["set"] for _ in range(3)]
        for folder, _, files in os.walk(self.pool):
            if os.path.basename(folder) == sets[2]:
                shutil.copy(os.path.join(folder, "catalog.db"), os.path.join(self.folder, "catalog.db"))
                with open(os.path.join(folder, "catalog.db"), "wb") as file:
                    file.write(b"no catalog")
                broken = folder
        answer = self.forget("--keep-last", "1")
        self.assertEqual((3, 0), (answer["kept"], answer["removed"]))
        self.assertIn("a catalog beside it cannot be read", self.reasons(answer)[sets[0]])
        shutil.copy(os.path.join(self.folder, "catalog.db"), os.path.join(broken, "catalog.db"))

        with open(os.path.join(broken, "set.json"), "r+") as file:
            file.truncate(20)
        result = self.agent("forget", "--keep-last", "1", expect=1)
        self.assertIn("record", result.stderr)
        self.assertEqual(3, len(self.folders()))

    def test_running_backup_keeps_its_bases(self):
        import fcntl
        sets = [self.backup("/bucket/", "--full")["set"] for _ in range(2)]
        place = next(os.path.dirname(folder) for folder, _, files in os.walk(self.pool) if "set.json" in files)
        # As a run holds it while it writes.
        under_way = os.path.join(place, "under-way")
        os.mkdir(under_way)
        with open(os.path.join(under_way, ".lock"), "w") as lock:
            fcntl.flock(lock, fcntl.LOCK_EX)
            answer = self.forget("--keep-last", "1")
        self.assertEqual((2, 0), (answer["kept"], answer["removed"]))
        self.assertIn("a backup is running", self.reasons(answer)[sets[0]])
        self.assertEqual(1, self.forget("--keep-last", "1")["removed"])

    def test_killed_on_the_way_leaves_only_whole_sets(self):
        for round_number in range(4):
            self.backup("/bucket/", "--full")
            for number in range(2):
                self.client.put_object(Bucket="bucket", Key="x%d" % number, Body=b"x" * (round_number + 1))
                self.backup("/bucket/")
        last = self.backup("/bucket/", "--full")["set"]
        for left in (12, 9, 5):
            process = subprocess.Popen(self.command("forget", "--keep-last", "1"), stdin=subprocess.DEVNULL,
                                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            while len(self.folders()) > left and process.poll() is None:
                pass
            process.kill()
            process.wait()
            for one in self.sets():
                self.agent("verify", one)
        self.forget("--keep-last", "1")
        self.assertEqual([last], self.sets())
        self.backup("/bucket/")
        self.assertEqual([], self.unfinished())



class Forget_Incomplete(harness.Scenario):
    """Only whole sets count, and the newest of these always stays."""

    def setUp(self):
        super().setUp()
        self.server = harness.Test_Server("--synthetic", "bucket,10,100")
        self.addCleanup(self.server.stop)
        self.client = self.server.client()
        self.add_account(self.server)
        self.add_pool()

    def full(self, whole):
        """A full set, whole or not."""
        if whole:
            self.client.delete_object(Bucket="bucket", Key="lacking/")
        else:
            self.client.put_object(Bucket="bucket", Key="lacking/", Body=b"x")
        return self.backup("/bucket/", "--full", expect=0 if whole else 3)["set"]

    def forget(self, *arguments):
        answer = self.agent("forget", *arguments, "--json").json
        (group,) = answer["groups"]
        rows = group["kept"] + group["removed"]
        self.assertEqual([(row["missing"] == 0) for row in rows], [row["whole"] for row in rows])
        return {row["set"]: row["reasons"] for row in group["kept"]}, [row["set"] for row in group["removed"]]

    def test_incomplete_sets_take_no_whole_ones_place(self):
        old, torn, whole, first, second = [self.full(is_whole) for is_whole in (True, False, True, False, False)]
        newer = ["not whole but newer than any that is"]
        for rule in ("--keep-last", "--keep-hourly", "--keep-daily", "--keep-weekly", "--keep-monthly", "--keep-yearly"):
            kept, removed = self.forget(rule, "1", "--dry-run")
            self.assertEqual((newer, newer), (kept[first], kept[second]))
            self.assertEqual([torn, old], removed)
            self.assertEqual(1, len(kept[whole]))
        text = self.agent("forget", "--keep-last", "1", "--dry-run").stdout
        self.assertIn("1 object missing  (%s)" % newer[0], text)
        self.assertIn("whole  (last)", text)
        self.assertEqual([torn, old], self.forget("--keep-last", "1")[1])
        # When one is whole again, what is older goes.
        last = self.full(True)
        kept, removed = self.forget("--keep-last", "1")
        self.assertEqual(({last: ["last"]}, [second, first, whole]), (kept, removed))

    def test_without_a_whole_set_none_goes_unless_they_are_to_count(self):
        sets = [self.full(False) for _ in range(3)]
        kept, removed = self.forget("--keep-last", "1")
        self.assertEqual(({one: ["not whole and no set is"] for one in sets}, []), (kept, removed))
        kept, removed = self.forget("--keep-last", "1", "--count-incomplete")
        self.assertEqual(({sets[2]: ["last"]}, sets[1::-1]), (kept, removed))

    def test_newest_whole_set_stays_whatever_counts(self):
        whole, torn, last = self.full(True), self.full(False), self.full(False)
        kept, removed = self.forget("--keep-last", "1", "--count-incomplete")
        self.assertEqual(({whole: ["newest whole set"], last: ["last"]}, [torn]), (kept, removed))

    def test_incremental_builds_on_an_incomplete_set(self):
        self.client.put_object(Bucket="bucket", Key="lacking/", Body=b"x")
        first = self.backup("/bucket/", expect=3)["set"]
        self.client.delete_object(Bucket="bucket", Key="lacking/")
        second = self.backup("/bucket/")
        self.assertEqual((0, 10, 0), (second["saved"], second["unchanged"], second["missing"]))
        kept, removed = self.forget("--keep-last", "1")
        self.assertEqual(({first: ["needed by " + second["set"]], second["set"]: ["last"]}, []), (kept, removed))


if __name__ == "__main__":
    harness.main()
