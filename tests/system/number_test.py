"""Numbers of sets: they end at 65535, none is given twice, and where two sets have one all the same, each is restored
as itself."""
import json
import os
import unittest
import uuid

import harness


class Numbers(harness.Scenario):
    def setUp(self):
        super().setUp()
        self.server = harness.Test_Server("--synthetic", "bucket,30,100", "--bucket", "target", "--bucket", "source")
        self.addCleanup(self.server.stop)
        self.add_account(self.server)
        self.add_pool()

    def record_path(self, set_id):
        return next(os.path.join(folder, "set.json") for folder, _, _ in os.walk(self.pool)
                    if os.path.basename(folder) == set_id)

    def change_record(self, set_id, **values):
        path = self.record_path(set_id)
        with open(path) as file:
            record = json.load(file)
        record.update(values)
        for check in ("checked", "sha256"):   # as an older version has written it
            record.pop(check, None)
        with open(path, "w") as file:
            json.dump(record, file)
        self.agent("pool", "trust", "disk")

    def test_set_behind_the_last_number_is_full_and_begins_with_one(self):
        old = self.backup("/bucket/")["set"]
        self.change_record(old, seq=65534, start_time="2020-01-01 00:00:00", end_time="2020-01-01 00:00:01")
        last = self.backup("/bucket/")
        self.assertEqual((0, 30), (last["saved"], last["unchanged"]))
        first = self.backup("/bucket/")
        self.assertEqual((30, 0), (first["saved"], first["unchanged"]))
        self.server.client().put_object(Bucket="bucket", Key="new", Body=b"new")
        second = self.backup("/bucket/")
        self.assertEqual((1, 30), (second["saved"], second["unchanged"]))
        rows = self.agent("sets", "--json").json["sets"]
        self.assertEqual([(65534, "full"), (65535, "incremental"), (1, "full"), (2, "incremental")],
                         [(row["seq"], row["type"]) for row in rows])
        # The new chain stands on its own. Sets of one second have no order but their numbers'.
        self.change_record(last["set"], start_time="2020-01-02 00:00:00", end_time="2020-01-02 00:00:01")
        self.agent("forget", "--keep-last", "2")
        self.agent("verify", second["set"])
        self.agent("restore", second["set"], "--map", "bucket=target")
        self.assertEqual(self.contents(self.server, "bucket"), self.contents(self.server, "target"))

    def save(self, body, *options):
        """The uuid of a set of the bucket "source" with one object of that body, and another one that stays."""
        client = self.server.client()
        client.put_object(Bucket="source", Key="changes", Body=body)
        if not self.saved:
            client.put_object(Bucket="source", Key="stays", Body=b"stays")
        set_id = self.backup("/source/", "--name", "source", *options)["set"]
        self.saved[set_id] = {"changes": body, "stays": b"stays"}
        return set_id

    def rows(self):
        return self.agent("sets", "--json").json["sets"]

    def expect_each_restored_as_itself(self):
        client = self.server.client()
        for set_id, contents in self.saved.items():
            for key in self.contents(self.server, "target"):
                client.delete_object(Bucket="target", Key=key)
            outcome = self.agent("restore", set_id, "--map", "source=target", "--json").json
            self.assertEqual(("completed", 2), (outcome["outcome"], outcome["saved"]))
            self.assertEqual(contents, self.contents(self.server, "target"), set_id)

    def run_definition(self, row, expect=0, **source):
        """Runs a restore into "target" of what is named so; the result."""
        definition = {
            "type": "restore", "host_id": row["account"],
            "source": dict({"id": row["account"], "backup_host_id": row["account"],
                            "backup_minor_resource_id": row["selection"], "pool_uuid": row["pool"]}, **source),
            "options": {"channels": 2, "bucket_maps": [{"source": "source", "target": "target", "prefix": ""}]}}
        path = os.path.join(self.folder, "definition.json")
        with open(path, "w") as file:
            json.dump(definition, file)
        return self.agent("run", path, expect=expect)

    def test_each_set_around_the_last_number_is_restored_as_itself(self):
        self.saved = {}
        self.change_record(self.save(b"1"), seq=65534, start_time="2020-01-01 00:00:00")
        for body in (b"22", b"333", b"4444"):
            self.save(body)
        self.save(b"55555", "--full")
        self.save(b"666666")
        self.save(b"7777777", "--full")
        self.assertEqual([(65534, "full"), (65535, "incremental"), (1, "full"), (2, "incremental"), (3, "full"),
                          (4, "incremental"), (5, "full")], [(row["seq"], row["type"]) for row in self.rows()])
        self.assertEqual(list(self.saved), [row["set"] for row in self.rows()])
        self.expect_each_restored_as_itself()
        for row in self.rows():
            self.run_definition(row, seq=row["seq"])
            self.assertEqual(self.saved[row["set"]], self.contents(self.server, "target"))

    def test_set_that_came_back_is_neither_the_newest_nor_does_its_chain_repeat_a_number(self):
        self.saved = {}
        first = self.save(b"1")
        second = self.save(b"22")
        os.remove(self.record_path(first))
        self.agent("pool", "remove", "disk")
        self.add_pool()
        self.assertEqual([second], [row["set"] for row in self.rows()])
        self.agent("catalog", "rebuild", first)
        self.assertEqual([first, second], [row["set"] for row in self.rows()])
        third = self.save(b"333")
        self.assertEqual([(first, 1), (second, 2), (third, 3)], [(row["set"], row["seq"]) for row in self.rows()])
        with open(self.record_path(third)) as file:
            self.assertEqual([second], json.load(file)["bases"])
        self.expect_each_restored_as_itself()

    def test_set_that_comes_back_with_a_number_given_away_is_restored_as_itself(self):
        self.saved = {}
        self.save(b"1")
        second = self.save(b"22")
        place, away = os.path.dirname(self.record_path(second)), os.path.join(self.folder, "away")
        os.rename(place, away)
        self.agent("pool", "remove", "disk")
        self.add_pool()
        third = self.save(b"333")
        os.rename(away, place)
        self.assertEqual([1, 2, 2], [row["seq"] for row in self.rows()])
        self.expect_each_restored_as_itself()

        # By its number alone none of the two is.
        before = self.contents(self.server, "target")
        row = self.rows()[0]
        said = self.run_definition(row, expect=1, seq=2).stderr
        for word in ("Set 2 of", second, third, "catalog_id"):
            self.assertIn(word, said)
        self.assertEqual(before, self.contents(self.server, "target"))
        for set_id in (second, third):
            self.run_definition(row, seq=2, catalog_id=set_id)
            self.assertEqual(self.saved[set_id], self.contents(self.server, "target"))
        # Nor is another set than the one that is named.
        before = self.contents(self.server, "target")
        for seq, name in ((1, second), (2, str(uuid.uuid4())), (3, second)):
            self.assertIn("it is to be " + name, self.run_definition(row, expect=1, seq=seq, catalog_id=name).stderr)
        self.assertEqual(before, self.contents(self.server, "target"))
        # What comes next takes a number of its own.
        self.save(b"4444")
        self.assertEqual(3, self.rows()[-1]["seq"])
        self.expect_each_restored_as_itself()

    def test_number_of_a_set_that_is_away_for_a_while_is_not_given_to_another(self):
        self.saved = {}
        first, second = self.save(b"1"), self.save(b"22")
        place, away = os.path.dirname(self.record_path(second)), os.path.join(self.folder, "away")
        os.rename(place, away)
        third, full = self.save(b"333"), self.save(b"4444", "--full")
        os.rename(away, place)
        self.assertEqual({(first, 1), (second, 2), (third, 3), (full, 4)},
                         {(row["set"], row["seq"]) for row in self.rows()})
        self.expect_each_restored_as_itself()

    def test_rehearsal_restores_the_newest_of_two_sets_with_one_number(self):
        self.saved = {}
        old = self.save(b"1")
        new = self.save(b"22", "--full")
        self.change_record(new, seq=1)
        row = self.rows()[-1]
        self.assertEqual((new, 1), (row["set"], row["seq"]))
        path = os.path.join(self.folder, "rehearsal.json")
        with open(path, "w") as file:
            json.dump({"id": str(uuid.uuid4()), "host_id": row["account"],
                       "source": {"id": row["account"], "backup_host_id": row["account"], "pool_uuid": row["pool"],
                                  "backup_minor_resource_id": row["selection"], "catalog_id": old},
                       "options": {"bucket_maps": [{"source": "source", "target": "target", "prefix": ""}]}}, file)
        self.assertEqual(new, self.agent("rehearse", path, "--json").json["set"])
        self.assertEqual(self.saved[new], self.contents(self.server, "target"))

    def test_sets_are_listed_by_their_time(self):
        self.saved = {}
        for body, day in ((b"1", "03"), (b"22", "01"), (b"333", "02")):
            self.change_record(self.save(body, "--full"), start_time="2026-01-%s 00:00:00" % day)
        self.rows()   # takes up what has changed
        self.assertEqual([b"22", b"333", b"1"], [self.saved[row["set"]]["changes"] for row in self.rows()])


if __name__ == "__main__":
    harness.main()
