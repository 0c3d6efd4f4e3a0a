"""Catalogs and records are lost: the media bring them back."""
import json
import os
import shutil
import sqlite3
import unittest

import harness


class Rebuild(harness.Scenario):
    def setUp(self):
        super().setUp()
        self.server = harness.Test_Server("--synthetic", "bucket,400,700", "--bucket", "target", "--page-size", "50")
        self.addCleanup(self.server.stop)
        self.client = self.server.client()
        self.add_account(self.server)
        self.add_pool()

    def put(self, key, body):
        self.client.put_object(Bucket="bucket", Key=key, Body=body)

    def folder_of(self, set_id):
        return next(folder for folder, _, _ in os.walk(self.pool) if os.path.basename(folder) == set_id)

    def record(self, set_id):
        with open(os.path.join(self.folder_of(set_id), "set.json")) as file:
            return json.load(file)

    def listing(self, set_id):
        return self.agent("ls", set_id, "--recursive", "--json").stdout

    def chain(self):
        first = self.backup("/bucket/")["set"]
        self.put("d0000/e00/object-0000000003", b"changed")
        self.put("added/a//b", b"added")
        self.client.delete_object(Bucket="bucket", Key="d0000/e01/object-0000000107")
        return first, self.backup("/bucket/")["set"]

    def rows(self):
        return self.agent("sets", "--json").json["sets"]

    def test_lost_catalog_comes_back_as_it_was(self):
        for set_id in self.chain():
            path = os.path.join(self.folder_of(set_id), "catalog.db")
            before = open(path, "rb").read()
            for damage in (b"", before[:5000], b"no database" * 1000):
                with open(path, "wb") as file:
                    file.write(damage)
                self.agent("verify", set_id, expect=1)
                answer = self.agent("catalog", "rebuild", set_id, "--json").json
                self.assertEqual((set_id, True, False, []),
                                 (answer["set"], answer["exact"], answer["record_made"], answer["problems"]))
                self.assertEqual(before, open(path, "rb").read())
            self.agent("verify", set_id)
        self.assertEqual([], self.unfinished())
        self.put("last", b"last")
        self.assertEqual((1, 401), tuple(self.backup("/bucket/")[name] for name in ("saved", "unchanged")))

    def test_numbers_in_record_catalog_and_heads_agree(self):
        for number in (1, 2, 3):
            set_id = self.backup("/bucket/", "--full", "--channels", "1")["set"]
            folder = self.folder_of(set_id)
            with sqlite3.connect(os.path.join(folder, "catalog.db")) as db:
                self.assertEqual([(number,)], db.execute("SELECT seq FROM sets").fetchall())
            self.assertEqual(number, self.rows()[-1]["seq"])
            self.assertIn(" seq %d " % number, self.agent("media", "dump", self.media(set_id)[0]).stdout)
            os.remove(os.path.join(folder, "set.json"))
            self.agent("catalog", "rebuild", set_id)
            self.assertEqual(number, self.rows()[-1]["seq"])

    def test_record_and_copy_say_the_same_where_the_set_before_could_not_be_opened(self):
        full = self.backup("/bucket/")["set"]
        before = full
        for damaged in (False, True):
            self.put("another", b"object" * (1 + damaged))
            if damaged:
                path = os.path.join(self.folder_of(before), "catalog.db")
                catalog = open(path, "rb").read()
                with open(path, "wb") as file:
                    file.write(b"no database" * 1000)
            outcome = self.backup("/bucket/")
            self.assertEqual(401 if damaged else 1, outcome["saved"])
            made = self.record(outcome["set"])
            self.assertEqual(("incremental", full, [] if damaged else [before]),
                             (made["type"], made["incarnation"], made["bases"]))
            os.remove(os.path.join(self.folder_of(outcome["set"]), "set.json"))
            self.agent("catalog", "rebuild", outcome["set"])
            again = self.record(outcome["set"])
            for name in ("seq", "type", "incarnation", "bases", "uri", "resource_uuid", "start_time"):
                self.assertEqual(made[name], again[name], name)
            if damaged:
                with open(path, "wb") as file:
                    file.write(catalog)
            before = outcome["set"]
        # Neither needs the other, and the chain goes on.
        self.agent("verify", before)
        last = self.backup("/bucket/")["set"]
        self.assertEqual((full, [before]), tuple(self.record(last)[name] for name in ("incarnation", "bases")))

    def test_set_is_made_again_from_its_media_alone(self):
        sets = self.chain()
        rows, listings = self.rows(), [self.listing(set_id) for set_id in sets]
        folders = [self.folder_of(set_id) for set_id in sets]
        for folder in folders:
            os.remove(os.path.join(folder, "catalog.db"))
            os.remove(os.path.join(folder, "set.json"))
        # The agent has forgotten them too.
        shutil.rmtree(self.state)
        self.add_account(self.server)
        self.add_pool()
        self.assertEqual([], self.rows())
        answer = self.agent("catalog", "rebuild", folders[0], "--json").json
        self.assertEqual((True, True, 400), (answer["exact"], answer["record_made"], answer["objects"]))
        self.agent("catalog", "rebuild", sets[1])
        found = self.rows()
        for row in rows + found:
            del row["end_time"]   # the record was written after the media
            del row["account_name"]   # the new state folder's account is another one
        self.assertEqual(rows, found)
        self.assertEqual(listings, [self.listing(set_id) for set_id in sets])
        self.agent("verify", sets[1])
        self.agent("restore", sets[1], "--to", "work", "--map", "bucket=target")
        self.assertEqual(self.contents(self.server, "bucket"), self.contents(self.server, "target"))

    def test_without_the_copy_the_catalog_is_what_the_media_hold(self):
        self.damages_media = True
        full, incremental = self.chain()
        before = self.listing(full)
        for set_id, exact_objects in ((full, 400), (incremental, 2)):
            folder = self.folder_of(set_id)
            medium = os.path.join(folder, "channel-0000.mtf")
            data = bytearray(open(medium, "rb").read())
            at = data.rindex(b"OBSL")
            data[at + 200] ^= 1
            with open(medium, "wb") as file:
                file.write(data)
            self.assertIn("OBSL", self.agent("media", "check", medium, expect=None).stdout)
            os.remove(os.path.join(folder, "catalog.db"))
            answer = self.agent("catalog", "rebuild", set_id, "--json", expect=3).json
            self.assertEqual((False, exact_objects), (answer["exact"], answer["objects"]))
            self.assertTrue(answer["problems"])
        self.assertEqual(before, self.listing(full))
        listed = self.agent("ls", incremental, "--recursive").stdout
        self.assertIn("/bucket/added/a//b", listed)
        self.assertEqual(2, len(listed.splitlines()))

    def test_whole_catalog_is_not_replaced_by_less(self):
        sets = self.chain()
        before = self.listing(sets[1])
        self.lose_copy(sets[1])
        refused = self.agent("catalog", "rebuild", sets[1], expect=1)
        self.assertIn("The catalog that is there is whole, and stays as it is", refused.stderr)
        self.assertEqual(before, self.listing(sets[1]))

    def test_catalogs_answer_the_same_after_a_rebuild_from_media(self):
        self.damages_media = True
        full = self.backup("/bucket/", "--channels", "3")["set"]
        folder = self.folder_of(full)
        path = os.path.join(folder, "catalog.db")

        def dump():
            with sqlite3.connect(path) as db:
                return [db.execute("SELECT o.*, f.path FROM objects o JOIN visits v ON o.ordinal BETWEEN v.first AND "
                                   "v.last JOIN folders f ON f.id=v.folder ORDER BY o.ordinal").fetchall(),
                        db.execute("SELECT path FROM folders ORDER BY path").fetchall()]

        before = dump()
        self.assertEqual(400, len(before[0]))
        for name in sorted(os.listdir(folder)):
            if name.endswith(".mtf"):
                # A medium of a version that wrote no copy.
                with open(os.path.join(folder, name), "r+b") as file:
                    data = file.read()
                    file.seek(0)
                    file.write(data.replace(b"OBSR", b"OBSx"))
        os.remove(path)
        self.assertFalse(self.agent("catalog", "rebuild", full, "--json", expect=3).json["exact"])
        self.assertEqual(before, dump())

    def lose_copy(self, set_id):
        """The set's first medium becomes one of a version that wrote no copy."""
        self.damages_media = True
        medium = os.path.join(self.folder_of(set_id), "channel-0000.mtf")
        with open(medium, "r+b") as file:
            data = file.read()
            file.seek(data.rindex(b"OBSR") + 3)
            file.write(b"x")

    def take_back(self, set_id, expect=0):
        answer = self.agent("catalog", "rebuild", set_id, "--json", expect=expect).json
        for key in self.contents(self.server, "target"):
            self.client.delete_object(Bucket="target", Key=key)
        return answer

    def merged(self):
        """The first and the last of three sets become one. The one between finds objects in it that the last has not."""
        sets = [self.backup("/bucket/")["set"]]
        self.put("added", b"added")
        sets.append(self.backup("/bucket/")["set"])
        self.put("d0000/e00/object-0000000003", b"changed")
        self.client.delete_object(Bucket="bucket", Key="d0000/e01/object-0000000107")
        sets.append(self.backup("/bucket/")["set"])
        return sets[1], self.agent("merge", sets[0], sets[2], "--json").json["set"]

    def test_merged_set_is_made_again_from_its_media_alone(self):
        between, merged = self.merged()
        row = next(row for row in self.rows() if row["set"] == merged)
        listings = [self.listing(set_id) for set_id in (between, merged)]
        replaced = self.record(merged)["replaces"]
        for name in ("catalog.db", "set.json"):
            os.remove(os.path.join(self.folder_of(merged), name))
        answer = self.take_back(merged)
        self.assertEqual((True, True), (answer["exact"], answer["record_made"]))
        self.assertEqual(replaced, self.record(merged)["replaces"])
        self.assertEqual(row, next(row for row in self.rows() if row["set"] == merged))
        self.assertEqual(listings, [self.listing(set_id) for set_id in (between, merged)])
        for set_id in (between, merged):
            self.agent("verify", set_id)
        self.agent("restore", merged, "--map", "bucket=target")
        self.assertEqual(self.contents(self.server, "bucket"), self.contents(self.server, "target"))
        # What is merged next finds where the data went.
        self.agent("merge", between, merged)
        self.assertEqual(listings[1], self.listing(self.rows()[-1]["set"]))

    def test_merged_set_without_its_copy_holds_its_own_moment_only(self):
        between, merged = self.merged()
        listings = [self.listing(set_id) for set_id in (between, merged)]
        self.lose_copy(merged)
        os.remove(os.path.join(self.folder_of(merged), "catalog.db"))
        answer = self.take_back(merged, expect=3)
        # All but the one that lies in the set between.
        self.assertEqual((False, 399, 2), (answer["exact"], answer["objects"], answer["of_others"]))
        self.assertEqual([line for line in listings[1].splitlines() if '"/bucket/added"' not in line],
                         self.listing(merged).splitlines())
        self.assertEqual(listings[0], self.listing(between))
        self.agent("verify", between)
        self.agent("restore", merged, "--map", "bucket=target")
        expected = self.contents(self.server, "bucket")
        del expected["added"]
        self.assertEqual(expected, self.contents(self.server, "target"))

    def test_merged_set_that_may_be_of_an_earlier_version_is_named_as_such(self):
        sets = self.chain()
        merged = self.agent("merge", *sets, "--json").json["set"]
        self.lose_copy(merged)
        os.remove(os.path.join(self.folder_of(merged), "catalog.db"))
        told = self.agent("catalog", "rebuild", merged, expect=3).stdout
        self.assertIn("400 objects, as far as its media know", told)
        self.assertIn("the set was merged from others", told)

    def test_encrypted_and_compressed_set_is_made_again_from_its_media_alone(self):
        passphrase = os.path.join(self.folder, "passphrase")
        with open(passphrase, "w") as file:
            file.write("a passphrase\n")
        self.agent("pool", "remove", "disk")
        self.pool = os.path.join(self.folder, "sealed")
        self.agent("pool", "add", "disk", "file://" + self.pool, "--encrypt", "--passphrase-file", passphrase)
        self.put("text", b"words that repeat themselves " * 100000)
        self.put("noise", os.urandom(1500000))
        options = ("--compression", "zstd", "--channels", "2")
        sets = [self.backup("/bucket/", *options)["set"]]
        self.put("d0000/e00/object-0000000003", b"changed")
        sets.append(self.backup("/bucket/", *options)["set"])
        rows, listings = self.rows(), [self.listing(set_id) for set_id in sets]
        for lost in (("catalog.db",), ("set.json",), ("catalog.db", "set.json")):
            for set_id in sets:
                for name in lost:
                    os.remove(os.path.join(self.folder_of(set_id), name))
                answer = self.take_back(set_id)
                self.assertEqual((True, "set.json" in lost, []),
                                 (answer["exact"], answer["record_made"], answer["problems"]))
            found = self.rows()
            for row in rows + found:
                row.pop("end_time", None)
            self.assertEqual(rows, found)
            self.assertEqual(listings, [self.listing(set_id) for set_id in sets])
            self.agent("verify", sets[1])
        # Without the copy: what the media hold, opened with the key.
        self.lose_copy(sets[0])
        for name in ("catalog.db", "set.json"):
            os.remove(os.path.join(self.folder_of(sets[0]), name))
        answer = self.take_back(sets[0], expect=3)
        self.assertEqual((False, True, 402), (answer["exact"], answer["record_made"], answer["objects"]))
        self.assertEqual(listings[0], self.listing(sets[0]))
        self.agent("restore", sets[1], "--map", "bucket=target")
        self.assertEqual(self.contents(self.server, "bucket"), self.contents(self.server, "target"))
        for name in os.listdir(self.folder_of(sets[0])):
            with open(os.path.join(self.folder_of(sets[0]), name), "rb") as file:
                self.assertNotIn(b"object-0000000003", file.read(), name)

    def test_what_is_no_set_is_refused(self):
        self.backup("/bucket/")
        for name in ("none", "/etc", self.pool, "a/b/c"):
            self.assertIn("'%s'" % name, self.agent("catalog", "rebuild", name, expect=1).stderr)


if __name__ == "__main__":
    harness.main()
