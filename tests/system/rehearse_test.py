"""A scheduled rehearsal of disaster recovery restores what is new since the last one, and nothing otherwise."""
import json
import os
import unittest
import uuid

import harness


class Rehearse(harness.Scenario):
    def setUp(self):
        super().setUp()
        self.server = harness.Test_Server("--bucket", "source", "--bucket", "drill")
        self.addCleanup(self.server.stop)
        self.client = self.server.client()
        self.add_account(self.server)
        self.add_pool()
        self.put("a/one", b"first")
        self.put("two", b"second")
        self.first = self.backup("/source/")

    def put(self, key, body):
        self.client.put_object(Bucket="source", Key=key, Body=body)

    def drill(self):
        return self.contents(self.server, "drill")

    def empty_drill(self):
        for key in self.drill():
            self.client.delete_object(Bucket="drill", Key=key)

    def definition(self, **changes):
        """The path of a definition that restores the bucket "source" into "drill"."""
        row = self.agent("sets", "--json").json["sets"][0]
        definition = {
            "type": "restore", "subtype": "dr_test", "id": str(uuid.uuid4()), "host_id": row["account"],
            "source": {"id": row["account"], "backup_host_id": row["account"],
                       "backup_minor_resource_id": row["selection"], "pool_uuid": row["pool"]},
            "options": {"channels": 2, "existing": "overwrite",
                        "bucket_maps": [{"source": "source", "target": "drill", "prefix": ""}]}}
        definition.update(changes)
        path = os.path.join(self.folder, "rehearsal.json")
        with open(path, "w") as file:
            json.dump({key: value for key, value in definition.items() if value is not None}, file)
        return path

    def rehearse(self, path, expect=0):
        return self.agent("rehearse", path, "--json", expect=expect).json

    def test_each_new_set_is_restored_once(self):
        path = self.definition()
        outcome = self.rehearse(path)
        self.assertEqual(("completed", 2, self.first["set"]), (outcome["outcome"], outcome["saved"], outcome["set"]))
        self.assertEqual({"a/one": b"first", "two": b"second"}, self.drill())

        self.empty_drill()
        outcome = self.rehearse(path)
        self.assertEqual(("completed", 0, 0, ""),
                         (outcome["outcome"], outcome["saved"], outcome["requests"], outcome["set"]))
        self.assertEqual({}, self.drill(), "a rehearsal without anything new wrote objects")

        self.put("two", b"second, changed")
        self.put("three", b"third")
        second = self.backup("/source/")
        self.assertEqual((2, 1), (second["saved"], second["unchanged"]))
        outcome = self.rehearse(path)
        self.assertEqual(("completed", 3, second["set"]), (outcome["outcome"], outcome["saved"], outcome["set"]))
        self.assertEqual({"a/one": b"first", "two": b"second, changed", "three": b"third"}, self.drill())
        self.assertEqual(0, self.rehearse(path)["saved"])

    def test_nothing_new_does_not_even_reach_the_service(self):
        path = self.definition()
        self.rehearse(path)
        self.server.stop()
        outcome = self.rehearse(path)
        self.assertEqual("completed", outcome["outcome"])

    def test_rehearsal_that_failed_is_still_due(self):
        path = self.definition()
        with open(path) as file:
            definition = json.load(file)
        definition["options"]["bucket_maps"][0]["target"] = "missing-bucket"
        broken = os.path.join(self.folder, "broken.json")
        with open(broken, "w") as file:
            json.dump(definition, file)
        self.assertEqual("failed", self.rehearse(broken, expect=1)["outcome"])
        self.assertEqual(2, self.rehearse(path)["saved"])

    def test_each_definition_has_a_rehearsal_of_its_own(self):
        self.assertEqual(2, self.rehearse(self.definition())["saved"])
        self.assertEqual(2, self.rehearse(self.definition())["saved"])

    def test_full_set_begun_anew_is_rehearsed(self):
        path = self.definition()
        self.rehearse(path)
        full = self.backup("/source/", "--full")
        outcome = self.rehearse(path)
        self.assertEqual((full["set"], 2), (outcome["set"], outcome["saved"]))

    def test_type_and_subtype_may_be_left_out_and_not_be_others(self):
        self.assertEqual(2, self.rehearse(self.definition(type=None, subtype=None))["saved"])
        for changes, says in (({"type": "backup"}, "type"), ({"subtype": "full"}, "subtype"), ({"id": None}, '"id"')):
            result = self.agent("rehearse", self.definition(**changes), expect=1)
            self.assertIn(says, result.stderr)


if __name__ == "__main__":
    harness.main()
