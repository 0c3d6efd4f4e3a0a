"""A chain's numbers end at 65535; the next set begins a new chain."""
import json
import os
import unittest

import harness


class Numbers(harness.Scenario):
    def setUp(self):
        super().setUp()
        self.server = harness.Test_Server("--synthetic", "bucket,30,100", "--bucket", "target")
        self.addCleanup(self.server.stop)
        self.add_account(self.server)
        self.add_pool()

    def change_record(self, set_id, **values):
        path = next(os.path.join(folder, "set.json") for folder, _, _ in os.walk(self.pool)
                    if os.path.basename(folder) == set_id)
        with open(path) as file:
            record = json.load(file)
        record.update(values)
        for check in ("checked", "sha256"):   # as an older version has written it
            record.pop(check, None)
        with open(path, "w") as file:
            json.dump(record, file)

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


if __name__ == "__main__":
    harness.main()
