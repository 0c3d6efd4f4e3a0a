"""A set knows whether it is whole: what is missing in it is counted, shown and named, and outlives the state folder."""
import json
import os
import shutil
import unittest

import harness


class Whole_Set(harness.Scenario):
    def setUp(self):
        super().setUp()
        self.server = harness.Test_Server("--synthetic", "bucket,40,100", "--bucket", "gone", "--bucket", "target")
        self.addCleanup(self.server.stop)
        self.client = self.server.client()
        self.add_account(self.server)

    def lack(self, count):
        """Objects that cannot be saved: keys that end with "/" and have data."""
        for number in range(count):
            self.client.put_object(Bucket="bucket", Key="lacking%d/" % number, Body=b"x")

    def folder_of(self, set_id):
        return next(folder for folder, _, _ in os.walk(self.pool) if os.path.basename(folder) == set_id)

    def change_record(self, set_id, change):
        """As an older version would have written it: without a check."""
        path = os.path.join(self.folder_of(set_id), "set.json")
        with open(path) as file:
            record = json.load(file)
        del record["sha256"], record["checked"]
        change(record)
        with open(path, "w") as file:
            json.dump(record, file)

    def outcomes(self):
        """What `sets` says of each, as JSON and as text."""
        rows = self.agent("sets", "--json").json["sets"]
        lines = self.agent("sets").stdout.splitlines()
        texts = []
        for row, line in zip(rows, lines):
            self.assertTrue(line.startswith(row["set"]), line)
            texts.append(line.split(" stored)  ")[1].split("  ")[0])
        return [(row["whole"], row["missing"], text) for row, text in zip(rows, texts)]

    def expected(self, *missing):
        text = lambda count: "whole" if count == 0 else "1 object missing" if count == 1 else "%d objects missing" % count
        return [(None, None, "not known whether whole") if count is None else (count == 0, count, text(count))
                for count in missing]

    def lose_state(self):
        shutil.rmtree(self.state)
        self.add_account(self.server)

    def test_what_is_missing_is_counted_shown_and_named(self):
        self.client.put_object(Bucket="gone", Key="k", Body=b"k")
        self.add_pool()
        whole = self.backup("/bucket/", "/gone/")
        self.lack(1)
        one = self.backup("/bucket/", "/gone/", expect=3)
        self.lack(3)
        self.client.delete_object(Bucket="gone", Key="k")
        self.client.delete_bucket(Bucket="gone")
        four = self.backup("/bucket/", "/gone/", expect=3)
        self.assertEqual([0, 1, 4], [outcome["missing"] for outcome in (whole, one, four)])
        self.assertEqual(self.expected(0, 1, 4), self.outcomes())
        for outcome, names in ((whole, []), (one, ["/bucket/lacking0/"]),
                               (four, ["/bucket/lacking%d/" % number for number in range(3)] + ["/gone/"])):
            lines = self.agent("problems", outcome["set"], "--json").json_lines
            self.assertEqual(sorted(names), sorted(line["file"] for line in lines))
        self.lose_state()
        self.add_pool()
        self.assertEqual(self.expected(0, 1, 4), self.outcomes())

    def test_encrypted_sets_know_it_without_their_key(self):
        phrase = os.path.join(self.folder, "phrase")
        with open(phrase, "w") as file:
            file.write("a long enough passphrase\n")
        self.agent("pool", "add", "disk", "file://" + self.pool, "--encrypt", "--passphrase-file", phrase)
        self.backup("/bucket/")
        self.lack(2)
        self.backup("/bucket/", expect=3)
        self.assertEqual(self.expected(0, 2), self.outcomes())
        self.lose_state()
        self.agent("pool", "add", "disk", "file://" + self.pool, "--passphrase-file", phrase)
        self.assertEqual(self.expected(0, 2), self.outcomes())

    def test_older_records_give_what_their_run_counted(self):
        self.client.put_object(Bucket="gone", Key="k", Body=b"k")
        self.add_pool()
        sets = [self.backup("/bucket/", "/gone/")["set"]]
        self.lack(2)
        self.client.delete_object(Bucket="gone", Key="k")
        self.client.delete_bucket(Bucket="gone")
        sets.append(self.backup("/bucket/", "/gone/", expect=3)["set"])
        for one in sets:
            self.change_record(one, lambda record: record["figures"].pop("missing"))
        os.remove(os.path.join(self.pool, "sets.json")) # nor had pools a roll then
        self.lose_state()
        self.add_pool()
        self.assertEqual(self.expected(0, 3), self.outcomes())

    def test_what_media_alone_cannot_tell_is_not_taken_for_whole(self):
        self.add_pool()
        first = self.backup("/bucket/")["set"]
        self.client.put_object(Bucket="bucket", Key="new", Body=b"new")
        second = self.backup("/bucket/")["set"]
        for one in (first, second):
            with open(os.path.join(self.folder_of(one), "catalog.db"), "wb") as file:
                file.write(b"damaged")
        self.agent("catalog", "rebuild", first)
        self.agent("catalog", "rebuild", second)
        self.assertEqual(self.expected(0, 0), self.outcomes())
        # Without the copy on the medium: what lies in another set is missing.
        self.damages_media = True
        for one in (first, second):
            os.remove(os.path.join(self.folder_of(one), "catalog.db"))
            medium = os.path.join(self.folder_of(one), "channel-0000.mtf")
            with open(medium, "rb") as file:
                content = bytearray(file.read())
            at = content.rfind(b"SQLite format 3")
            content[at:at + 4] = b"xxxx"
            with open(medium, "wb") as file:
                file.write(content)
        self.agent("catalog", "rebuild", first, expect=None)
        self.agent("catalog", "rebuild", second, expect=None)
        self.assertEqual(self.expected(0, 40), self.outcomes())
        os.remove(os.path.join(self.folder_of(first), "set.json"))
        self.agent("catalog", "rebuild", self.folder_of(first), expect=None)
        self.assertEqual(self.expected(None, 40), self.outcomes())
        self.assertIn("there is no whole set: 2 are there", self.agent("ls", "latest", expect=1).stderr)
        restore = ["restore", first, "--map", "bucket=target"]
        self.assertIn("not known to be whole", self.agent(*restore, "--delete-extra", "--yes", expect=1).stderr)
        self.assertIn("not known whether it is whole", self.agent(*restore, "--dry-run").stderr)

    def test_restore_says_first_what_a_set_lacks(self):
        self.add_pool()
        whole = self.backup("/bucket/")["set"]
        self.lack(2)
        lacking = self.backup("/bucket/", expect=3)["set"]
        said = self.agent("restore", whole, "--map", "bucket=target").stderr
        self.assertNotIn("missing", said)
        for extra in ([], ["--json"], ["--dry-run"]):
            said = self.agent("restore", lacking, "--map", "bucket=target", *extra).stderr
            self.assertIn("obs-agent: set %s is not whole: 2 objects missing" % lacking, said.splitlines()[0])


if __name__ == "__main__":
    harness.main()
