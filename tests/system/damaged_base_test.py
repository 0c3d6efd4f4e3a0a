"""A bit turns in the catalog that the next backup would build on: it is found before anything is taken from it."""
import os
import random
import unittest

import harness

SEED = int(os.environ.get("OBS_SEED", str(random.randrange(1 << 32))))
FLIPS = int(os.environ.get("OBS_FLIPS", "12"))


class Damaged_Base(harness.Scenario):
    def setUp(self):
        super().setUp()
        self.server = harness.Test_Server("--synthetic", "bucket,60,200", "--bucket", "target")
        self.addCleanup(self.server.stop)
        self.client = self.server.client()
        self.add_account(self.server)
        self.chance = random.Random(SEED)
        self.number = 0

    def change_something(self):
        self.number += 1
        self.client.put_object(Bucket="bucket", Key="changing", Body=b"x" * self.number)

    def folder_of(self, set_id):
        return next(folder for folder, _, _ in os.walk(self.pool) if os.path.basename(folder) == set_id)

    def flip(self, path):
        size = os.path.getsize(path)
        place, bit = self.chance.randrange(size), self.chance.randrange(8)
        with open(path, "r+b") as file:
            file.seek(place)
            byte = file.read(1)[0]
            file.seek(place)
            file.write(bytes([byte ^ (1 << bit)]))
        return "seed %d: bit %d of byte %d of %s" % (SEED, bit, place, os.path.basename(path))

    def assert_complete(self, set_id, what):
        """The set has every object of the bucket, and each can be read."""
        listed = {entry["file"] for entry in self.agent("ls", set_id, "--recursive", "--json").json_lines}
        expected = {"/bucket/" + key for key in self.contents(self.server, "bucket")}
        self.assertEqual(expected, listed, what)
        self.agent("verify", set_id)

    def go_through_flips(self, *files):
        newest = self.backup("/bucket/")["set"]
        for _ in range(FLIPS):
            what = self.flip(os.path.join(self.folder_of(newest), self.chance.choice(files)))
            self.change_something()
            outcome = self.backup("/bucket/", expect=None)
            self.assertEqual(0, outcome["failed"] + outcome["skipped"], what)
            self.assertIn("catalog", self.last_log_lines(), what)
            # Nothing of the damaged one is taken over.
            self.assertEqual(0, outcome["unchanged"], what)
            self.assert_complete(outcome["set"], what)
            # It is whole again, by the copy on its media.
            self.assert_complete_without_change(newest, what)
            newest = outcome["set"]
        # And the chain goes on.
        self.change_something()
        outcome = self.backup("/bucket/")
        self.assertEqual((1, 60), (outcome["saved"], outcome["unchanged"]))
        self.agent("forget", "--keep-last", "1")
        self.assert_complete(outcome["set"], "at the end")

    def assert_complete_without_change(self, set_id, what):
        done = self.agent("verify", set_id, expect=None)
        self.assertEqual(0, done.returncode, what + "\n" + done.stdout)

    def test_nothing_is_lost_by_a_flipped_bit(self):
        self.add_pool()
        self.go_through_flips("catalog.db", "catalog.sum")

    def test_nothing_is_lost_by_a_flipped_bit_in_an_encrypted_pool(self):
        passphrase = os.path.join(self.folder, "passphrase")
        with open(passphrase, "w") as file:
            file.write("a passphrase that is long enough")
        self.agent("pool", "add", "disk", "file://" + self.pool, "--encrypt", "--passphrase-file", passphrase)
        self.go_through_flips("catalog.db")

    def test_merge_builds_on_nothing_damaged(self):
        self.add_pool()
        sets = []
        for _ in range(3):
            self.change_something()
            sets.append(self.backup("/bucket/")["set"])
        what = self.flip(os.path.join(self.folder_of(sets[2]), "catalog.db"))
        merged = self.agent("merge", *sets[:2], "--json").json["set"]
        for set_id in (merged, sets[2]):
            self.assert_complete(set_id, what)

    def test_forget_removes_nothing_on_the_word_of_a_damaged_catalog(self):
        self.add_pool()
        base = self.backup("/bucket/")["set"]
        middle = self.backup("/bucket/")["set"]
        self.change_something()
        last = self.backup("/bucket/")["set"]
        path = os.path.join(self.folder_of(last), "catalog.db")
        with open(path, "rb") as file:
            whole = file.read()
        # Where it names the set that its data lie in.
        place = whole.index(base.encode())
        with open(path, "wb") as file:
            file.write(whole[:place] + bytes([whole[place] ^ 1]) + whole[place + 1:])
        answer = self.agent("forget", "--keep-last", "1", "--json", expect=1)
        self.assertEqual((3, 0), (answer.json["kept"], answer.json["removed"]))
        self.assertIn("does not match its check", answer.stderr)
        with open(path, "wb") as file:
            file.write(whole)
        answer = self.agent("forget", "--keep-last", "1", "--json").json
        self.assertEqual([middle], [item["set"] for item in answer["groups"][0]["removed"]])
        self.agent("verify", last)


if __name__ == "__main__":
    harness.main()
