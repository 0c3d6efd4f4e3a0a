"""What a restore says before it writes: --dry-run, collisions of the mapping, globs, and a restore begun again."""
import harness


class Restore_Plan(harness.Scenario):
    def setUp(self):
        super().setUp()
        self.server = harness.Test_Server()
        self.addCleanup(self.server.stop)
        self.client = self.server.client()
        for bucket, keys in {"one": ["same", "x/deep", "only-one"], "two": ["same", "deep", "*"]}.items():
            self.client.create_bucket(Bucket=bucket)
            for key in keys:
                self.client.put_object(Bucket=bucket, Key=key, Body=(bucket + key).encode())
        self.client.create_bucket(Bucket="target")
        self.add_account(self.server)
        self.add_pool()
        self.set = self.backup("/one/", "/two/")["set"]

    def keys(self, bucket):
        return [item["Key"] for item in self.client.list_objects(Bucket=bucket).get("Contents", [])]

    def test_dry_run_lists_what_would_be_written_where_and_writes_nothing(self):
        lines = self.agent("restore", self.set, "--map", "one=target/in", "--map", "two=target", "--dry-run",
                           "--json").json_lines
        self.assertEqual({"/one/same": "/target/in/same", "/one/x/deep": "/target/in/x/deep",
                          "/one/only-one": "/target/in/only-one", "/two/same": "/target/same",
                          "/two/deep": "/target/deep", "/two/*": "/target/*"},
                         {line["file"]: line["target"] for line in lines[:-1]})
        self.assertEqual((6, [], [], []), tuple(lines[-1][name] for name in
                                                ("objects", "collisions", "missing_buckets", "absent")))
        self.assertEqual([], self.keys("target"))

    def test_dry_run_names_missing_buckets_and_absent_objects(self):
        answer = self.agent("restore", self.set, "/one/same", "/one/none", "--map", "one=fresh", "--dry-run", "--json",
                            expect=3).json
        self.assertEqual((1, ["fresh"], ["/one/none"]),
                         (answer["objects"], answer["missing_buckets"], answer["absent"]))

    def test_collisions_are_named_and_nothing_is_written(self):
        maps = ["--map", "one=target", "--map", "two=target/x"]
        answer = self.agent("restore", self.set, *maps, "--dry-run", "--json", expect=1).json
        self.assertEqual([{"first": "/one/x/deep", "second": "/two/deep", "target": "/target/x/deep"}],
                         answer["collisions"])
        text = self.agent("restore", self.set, *maps, expect=1).stderr
        self.assertIn("'/one/x/deep' and '/two/deep' both to '/target/x/deep'", text)
        self.assertEqual([], self.keys("target"))

        # Where only one of the two is selected nothing collides.
        self.agent("restore", self.set, "/one/", "/two/same", *maps)
        self.assertEqual(["only-one", "same", "x/deep", "x/same"], self.keys("target"))

    def test_mapping_onto_a_bucket_of_the_set_collides_with_its_own_objects(self):
        answer = self.agent("restore", self.set, "--map", "one=two", "--dry-run", "--json", expect=1).json
        self.assertEqual(["/two/same"], [one["target"] for one in answer["collisions"]])

    def test_default_map_keeps_buckets_apart(self):
        self.agent("restore", self.set, "--map", "*=target/all")
        self.assertEqual(6, len(self.keys("target")))
        self.assertIn("all/two/*", self.keys("target"))

    def test_globs_select(self):
        self.agent("restore", self.set, "--glob", "/*/**deep", "--map", "*=target")
        self.assertEqual(["one/x/deep", "two/deep"], self.keys("target"))
        self.assertIn("nothing in the set matches",
                      self.agent("restore", self.set, "--glob", "/none/*", "--map", "*=target", expect=1).stderr)

    def test_create_bucket_makes_every_target(self):
        for bucket, keys in {"one": ["same", "x/deep", "only-one"], "two": ["same", "deep", "*"]}.items():
            for key in keys:
                self.client.delete_object(Bucket=bucket, Key=key)
            self.client.delete_bucket(Bucket=bucket)
        self.agent("restore", self.set, "--map", "two=three", "--in-place", "--create-bucket")
        self.assertEqual(["only-one", "same", "x/deep"], self.keys("one"))
        self.assertEqual(["*", "deep", "same"], self.keys("three"))

    def test_restore_begun_again_writes_only_what_is_missing(self):
        self.agent("restore", self.set, "--map", "*=target")
        written = {item["Key"]: item["LastModified"] for item in
                   self.client.list_objects(Bucket="target")["Contents"]}
        self.client.delete_object(Bucket="target", Key="two/deep")
        answer = self.agent("restore", self.set, "--map", "*=target", "--existing", "skip", "--json").json
        self.assertEqual((1, 5), (answer["saved"], answer["unchanged"]))
        after = {item["Key"]: item["LastModified"] for item in
                 self.client.list_objects(Bucket="target")["Contents"]}
        self.assertEqual(sorted(written), sorted(after))
        del written["two/deep"], after["two/deep"]
        self.assertEqual(written, after)


if __name__ == "__main__":
    harness.main()
