"""problems: the catalog names everything that a run did not save, more than the outcome keeps."""
import harness


class Problems(harness.Scenario):

    @classmethod
    def setUpClass(cls):
        cls.server = harness.Test_Server()
        cls.addClassCleanup(cls.server.stop)

    def setUp(self):
        super().setUp()
        self.add_account(self.server)
        self.add_pool()

    def test_all_are_listed_and_a_set_without_any_lists_none(self):
        client = self.server.client()
        client.create_bucket(Bucket="data")
        client.put_object(Bucket="data", Key="fine", Body=b"fine")
        first = self.backup("/data/")["set"]
        self.assertEqual("", self.agent("problems", first).stdout)
        self.assertEqual([], self.agent("problems", first, "--json").json_lines)

        for number in range(1100):
            client.put_object(Bucket="data", Key="f%04d/" % number, Body=b"x" * (number % 5 + 1))
        client.put_object(Bucket="data", Key="empty/", Body=b"")
        client.put_object(Bucket="data", Key="odd \u00e9\n/", Body=b"1234567")
        outcome = self.backup("/data/", expect=3)
        self.assertEqual((1103, 1, 1, 1101), tuple(outcome[name] for name in ("listed", "unchanged", "excluded", "skipped")))
        self.assertEqual(1000, len(outcome["errors"]))
        lines = self.agent("problems", outcome["set"], "--json").json_lines
        self.assertEqual(1101, len(lines))
        found = {line["file"]: line for line in lines}
        self.assertEqual({"/data/f%04d/" % number for number in range(1100)} | {"/data/odd \u00e9\n/"}, set(found))
        self.assertEqual({"kind": "skipped", "file": "/data/odd \u00e9\n/", "errno": None, "message":
                          'A key that ends with "/" and has data is not supported (7 bytes).'}, found["/data/odd \u00e9\n/"])
        text = self.agent("problems", outcome["set"]).stdout
        self.assertIn('skipped  /data/f0001/: A key that ends with "/" and has data is not supported (2 bytes).\n', text)
        self.assertIn("there is no set 'none'", self.agent("problems", "none", expect=None).stderr)

    def test_what_is_kept_of_a_bucket_that_is_gone_counts_as_held_by_the_set(self):
        client = self.server.client()
        for bucket, count in (("here", 3), ("gone", 5)):
            client.create_bucket(Bucket=bucket)
            for number in range(count):
                client.put_object(Bucket=bucket, Key="k%d" % number, Body=b"x")
        first = self.backup("/here/", "/gone/")
        self.assertEqual(8, first["objects"])
        for number in range(5):
            client.delete_object(Bucket="gone", Key="k%d" % number)
        client.delete_bucket(Bucket="gone")
        second = self.backup("/here/", "/gone/", expect=3)
        self.assertEqual((0, 3, 8), tuple(second[name] for name in ("saved", "unchanged", "objects")))
        self.assertEqual(8, len(self.agent("ls", second["set"], "--recursive", "--json").json_lines))
        rows = {row["set"]: row["objects"] for row in self.agent("sets", "--json").json["sets"]}
        self.assertEqual({first["set"]: 8, second["set"]: 8}, rows)


if __name__ == "__main__":
    harness.main()
