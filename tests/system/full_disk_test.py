"""A disk that stays full: whatever is tried on it, what is whole stays whole, and is used when there is room."""
import json
import os
import subprocess
import unittest

import harness

OBJECTS = 600
SIZE = 20000


@unittest.skipUnless(os.geteuid() == 0, "mounting a small file system needs root")
class Full_Disk(harness.Scenario):
    def mount(self, size):
        os.makedirs(self.pool)
        mounted = subprocess.run(["mount", "-t", "tmpfs", "-o", "size=%d" % size, "tmpfs", self.pool],
                                 stderr=subprocess.PIPE, text=True)
        if mounted.returncode != 0:
            self.skipTest("a small file system cannot be mounted here: " + mounted.stderr)
        self.addCleanup(subprocess.run, ["umount", "-l", self.pool])
        self.add_pool()

    def resize(self, size):
        subprocess.run(["mount", "-o", "remount,size=%d" % size, self.pool], check=True)

    def used(self):
        disk = os.statvfs(self.pool)
        return (disk.f_blocks - disk.f_bfree) * disk.f_frsize

    def serve(self, *buckets):
        self.server = harness.Test_Server(*buckets)
        self.addCleanup(self.server.stop)
        self.add_account(self.server)

    def try_backup(self):
        """A run that finds no room; its messages."""
        result = self.agent("backup", "work", "/bucket/", "--pool", "disk", "--channels", "4", "--json", expect=1)
        self.assertEqual("failed", result.json["outcome"])
        self.assertEqual([], self.agent("sets", "--json").json["sets"])
        return result

    def whole_objects(self, folders):
        """How many whole objects the media in these folders hold."""
        media = [os.path.join(folder, name) for folder in folders for name in os.listdir(folder)
                 if name.endswith(".mtf")]
        lines = [json.loads(line) for line in
                 self.agent("media", "check", "--json", *media, expect=None).stdout.splitlines()]
        return sum(line["objects"] for line in lines if "objects" in line)

    def test_runs_that_find_no_room_lose_nothing_that_was_stored(self):
        self.serve("--synthetic", "bucket,%d,%d" % (OBJECTS, SIZE))
        self.mount(4 << 20)
        self.try_backup()
        self.assertEqual(1, len(self.unfinished()))
        first = self.unfinished()
        whole = self.whole_objects(first)
        self.assertGreater(whole, 100)
        for _ in range(3):
            result = self.try_backup()
            # Be it as it was left or as a partial set, it is there with all its objects.
            self.assertEqual(whole, self.whole_objects(first))
            if first[0] in self.unfinished():
                self.assertTrue([error for error in result.json["errors"] if error["name"] == first[0]], result.json)
        self.resize(64 << 20)
        outcome = self.backup("/bucket/")
        self.assertEqual((OBJECTS, 0), (outcome["saved"], outcome["failed"]))
        self.assertGreaterEqual(outcome["continued"], whole)
        self.assertEqual((OBJECTS - outcome["continued"]) * SIZE, outcome["bytes_read"])
        self.assertEqual([], self.unfinished())
        self.agent("verify", outcome["set"])

    def test_room_that_comes_bit_by_bit_brings_every_step_to_fail_and_none_to_lose(self):
        self.serve("--synthetic", "bucket,%d,%d" % (OBJECTS, SIZE))
        self.mount(4 << 20)
        self.try_backup()
        first = self.unfinished()
        whole = self.whole_objects(first)
        partial_at = None
        # Any run may take what little room there is, so each gets no more than what the first has left.
        for step in range(40):
            for folder in self.unfinished():
                if folder not in first:
                    subprocess.run(["rm", "-rf", folder], check=True)
            self.resize(self.used() + step * 8192)
            self.try_backup()
            self.assertEqual(whole, self.whole_objects(first), step)
            if partial_at is None and first[0] in self.partial():
                partial_at = step
        self.assertIsNotNone(partial_at)
        self.resize(64 << 20)
        outcome = self.backup("/bucket/")
        self.assertGreaterEqual(outcome["continued"], whole)
        self.assertEqual(OBJECTS, outcome["saved"])
        self.agent("verify", outcome["set"])

    def test_merge_without_room_leaves_everything_as_it_was(self):
        self.serve("--synthetic", "bucket,200,%d" % SIZE)
        self.mount(64 << 20)
        client = self.server.client()
        sets = [self.backup("/bucket/", "--channels", "2")["set"]]
        client.put_object(Bucket="bucket", Key="more", Body=os.urandom(300000))
        sets.append(self.backup("/bucket/")["set"])

        def state():
            files = {}
            for folder, _, names in os.walk(self.pool):
                for name in names:
                    if name != ".lock":
                        with open(os.path.join(folder, name), "rb") as file:
                            files[os.path.join(folder, name)] = file.read()
            return files, self.agent("sets", "--json").json["sets"]

        before = state()
        used = self.used()
        refused = 0
        for room in range(0, 8 << 20, 256 << 10):
            self.resize(used + room)
            result = self.agent("merge", *sets, expect=None)
            if result.returncode != 1:
                break
            refused += 1
            self.assertEqual(1, len(result.stderr.strip().splitlines()), result.stderr)
            self.assertIn("merge", result.stderr)
            after = state()
            self.assertEqual(set(before[0]), set(after[0]), room)
            self.assertTrue(before == after, room)
        self.assertGreater(refused, 10)
        # What was merged with little room may be cleared up later.
        self.resize(64 << 20)
        if result.returncode != 0:
            self.backup("/bucket/")
        rows = self.agent("sets", "--json").json["sets"]
        self.assertNotIn(sets[0], [row["set"] for row in rows])
        self.agent("verify", rows[0]["set"])


if __name__ == "__main__":
    harness.main()
