"""Nothing listed is no success where something was, and no set is made when too much of the last one is gone."""
import json
import os
import unittest

import harness


class Deletion(harness.Scenario):
    def setUp(self):
        super().setUp()
        self.server = harness.Test_Server("--bucket", "data", "--bucket", "empty", "--log")
        self.addCleanup(self.server.stop)
        self.client = self.server.client()
        self.add_account(self.server)
        self.add_pool()

    def put(self, count, prefix="k"):
        for number in range(count):
            self.client.put_object(Bucket="data", Key="%s%04d" % (prefix, number), Body=b"x%d" % number)

    def delete(self, numbers, prefix="k"):
        for number in numbers:
            self.client.delete_object(Bucket="data", Key="%s%04d" % (prefix, number))

    def sets(self):
        return [row["set"] for row in self.agent("sets", "--json").json["sets"]]

    def fails(self, *arguments):
        """A backup that fails with a message, and makes no set."""
        before = self.sets()
        outcome = self.backup(*arguments, expect=1)
        self.assertEqual((before, ""), (self.sets(), outcome["set"]))
        return outcome["message"]

    def named(self, outcome):
        return [error["name"] for error in outcome["errors"]]

    def test_path_that_selects_nothing_is_named(self):
        self.put(3, "photos/")
        outcome = self.backup("/data/photos/", "/data/phtos/", expect=3)
        self.assertEqual((3, ["/data/phtos/"], 1), (outcome["saved"], self.named(outcome), outcome["missing"]))
        self.assertIn("Nothing is listed", outcome["errors"][0]["message"])
        self.assertEqual(["/data/phtos/"], [line["file"] for line in
                                            self.agent("problems", outcome["set"], "--json").json_lines])
        # Also one that another PATH takes in, and one alone.
        self.assertEqual(["/data/photos/typo/"], self.named(self.backup("/data/", "/data/photos/typo/", expect=3)))
        self.assertEqual(["/data/phtos/"], self.named(self.backup("/data/phtos/", expect=3)))
        text = self.agent("backup", "work", "/data/phtos/", "--pool", "disk", expect=3).stdout
        self.assertIn("directory '/data/phtos/': Nothing is listed below this path.", text)
        # An object by its name.
        self.assertEqual(["/data/none"], self.named(self.backup("/data/photos/", "/data/none", expect=3)))

    def test_path_with_something_in_it_is_not_named_whatever_becomes_of_that(self):
        self.put(3, "photos/")
        self.put(1, "left/")
        self.client.put_object(Bucket="data", Key="folder/", Body=b"")
        self.backup("/data/photos/", "/data/left/", "--exclude", "left/*")
        self.backup("/data/photos/", "/data/left/", "--exclude", "left/")
        self.backup("/data/photos/", "/data/folder/")
        self.backup("/data/photos/", "/empty/")
        self.assertEqual(0, self.backup("/data/photos/", "/data/none/", "--allow-empty")["missing"])

    def test_bucket_that_had_something_is_named_when_it_is_empty(self):
        self.put(3)
        self.client.put_object(Bucket="empty", Key="k", Body=b"k")
        self.backup("/data/", "/empty/")
        self.client.delete_object(Bucket="empty", Key="k")
        outcome = self.backup("/data/", "/empty/", expect=3)
        self.assertEqual(["/empty/"], self.named(outcome))

    def test_nothing_listed_where_something_was_is_a_failure(self):
        self.put(5)
        whole = self.backup("/data/", "--name", "all")["set"]
        self.delete(range(5))
        for arguments in (["/data/"], ["/data/", "--full"], ["/data/mistyped/"]):
            message = self.fails(*arguments, "--name", "all")
            self.assertIn("--allow-empty", message)
            self.assertIn("5 objects", message)
        self.assertEqual([whole], self.sets())
        outcome = self.backup("/data/", "--name", "all", "--allow-empty")
        self.assertEqual((0, 5, 0), (outcome["listed"], outcome["deleted"], outcome["missing"]))
        # From now on it is as empty as it was.
        self.backup("/data/", "--name", "all")
        self.assertEqual(3, len(self.sets()))

    def test_bucket_that_was_never_otherwise_may_be_empty(self):
        for _ in range(2):
            self.assertEqual("completed", self.backup("/empty/")["outcome"])

    def test_incomplete_sets_in_between_do_not_hide_what_was_there(self):
        self.put(5)
        self.backup("/data/", "--name", "all")
        self.client.put_object(Bucket="data", Key="lacking/", Body=b"x")
        self.backup("/data/", "--name", "all", expect=3)
        self.delete(range(5))
        self.client.delete_object(Bucket="data", Key="lacking/")
        self.assertIn("last whole set has 5 objects", self.fails("/data/", "--name", "all"))

    def test_more_deletions_than_may_be_make_no_set(self):
        self.put(120)
        self.backup("/data/")
        self.delete(range(70))
        self.put(9, "new")
        for arguments in ([], ["--full"]):
            message = self.fails("/data/", *arguments)
            self.assertIn("--max-deleted", message)
            self.assertIn("50%", message)
            self.assertIn("of the 120 objects", message)
        self.fails("/data/", "--max-deleted", "60")
        self.fails("/data/", "--max-deleted", "10%")
        self.assertEqual([], self.unfinished_records())
        outcome = self.backup("/data/", "--max-deleted", "70")
        self.assertEqual((9, 50, 70), (outcome["saved"], outcome["unchanged"], outcome["deleted"]))
        # Nothing is read twice.
        for number in range(9):
            self.assertIn("GetObject=1", self.server.ask("requests", "data", "new%04d" % number))

    def unfinished_records(self):
        """Folders with a set's record beside unfinished ones: none that a failed run made."""
        known = set(self.sets())
        return [folder for folder, _, files in os.walk(self.pool)
                if "set.json" in files and os.path.basename(folder) not in known]

    def test_half_may_go_and_small_sets_may_lose_more_and_all_may_by_order(self):
        self.put(120)
        self.backup("/data/")
        self.delete(range(60))
        outcome = self.backup("/data/")
        self.assertEqual((60, 60), (outcome["unchanged"], outcome["deleted"]))
        self.delete(range(60, 119))
        self.assertEqual(59, self.backup("/data/")["deleted"])
        self.put(120)
        self.backup("/data/")
        self.delete(range(119))
        self.assertEqual(119, self.backup("/data/", "--max-deleted", "100%")["deleted"])

    def test_all_of_many_may_go_where_nothing_need_be_there(self):
        self.put(120)
        self.backup("/data/")
        self.delete(range(120))
        self.assertEqual(120, self.backup("/data/", "--allow-empty")["deleted"])

    def test_what_could_not_be_listed_has_not_gone(self):
        self.put(110, "a/")
        self.client.put_object(Bucket="empty", Key="k", Body=b"k")
        self.backup("/data/", "/empty/", "--name", "all")
        server = self.server.ask
        server("refuse", "ListObjects*", "1")
        self.assertNotIn("--allow-empty", self.fails("/data/", "/empty/", "--name", "all", "--full"))
        server("serve")
        self.delete(range(110), "a/")
        self.client.delete_bucket(Bucket="data")
        outcome = self.backup("/data/", "/empty/", "--name", "all", "--full", expect=3)
        self.assertEqual(1, outcome["saved"])

    def test_limit_that_makes_no_sense_is_refused(self):
        for limit in ("half", "101%", "-1", ""):
            if limit:
                self.assertIn("--max-deleted", self.agent("backup", "work", "/data/", "--pool", "disk", "--max-deleted",
                                                          limit, expect=2).stderr)

    def test_rules_that_leave_nothing_are_no_success(self):
        self.put(120)
        whole = self.backup("/data/", "--name", "rl")["set"]
        self.put(1, "logs/")
        for rules in (["--include", "*.nothing"], ["--exclude", "k*", "--exclude", "logs/"]):
            for arguments in ([], ["--full"], ["--full", "--max-deleted", "1"], ["--max-deleted", "100%"]):
                message = self.fails("/data/", "--name", "rl", *rules, *arguments)
                self.assertIn("--allow-empty", message)
                self.assertIn("last whole set has 120 objects", message)
        self.assertEqual([whole], self.sets())
        outcome = self.backup("/data/", "--name", "rl", "--include", "*.nothing", "--allow-empty")
        self.assertEqual((0, 0, 120), (outcome["saved"], outcome["deleted"], outcome["excluded_since"]))

    def test_rules_that_leave_nothing_are_named_where_there_was_no_set(self):
        self.put(3, "logs/")
        for rule in (["--include", "*.nothing"], ["--exclude", "logs/"], ["--exclude", "*"]):
            outcome = self.backup("/data/", *rule, expect=3)
            self.assertEqual((0, ["/"], 1), (outcome["saved"], self.named(outcome), outcome["missing"]))
            self.assertIn("exclude everything", outcome["errors"][0]["message"])
            self.backup("/data/", *rule, "--allow-empty")
        # Where something is left nothing is named, nor where there is nothing at all.
        self.backup("/data/", "--exclude", "k0000")
        self.backup("/empty/", "--exclude", "logs/")

    def test_what_is_excluded_since_is_as_good_as_gone(self):
        self.put(70)
        self.put(50, "m")
        self.backup("/data/", "--name", "rl")
        self.delete(range(10), "m")
        self.put(30, "new")
        rule = ["--name", "rl", "--exclude", "k*"]
        for arguments, gone in (([], 80), (["--full"], 70), (["--max-deleted", "79"], 80)):
            message = self.fails("/data/", *rule, *arguments)
            self.assertIn("%d of the 120 objects" % gone, message)
            self.assertIn("70 excluded by the rules now", message)
        outcome = self.backup("/data/", *rule, "--max-deleted", "80")
        self.assertEqual((30, 40, 10, 70),
                         (outcome["saved"], outcome["unchanged"], outcome["deleted"], outcome["excluded_since"]))
        # From then on it is what the set before had.
        self.assertNotIn("excluded_since", self.backup("/data/", *rule))
        self.assertNotIn("excluded_since", self.backup("/data/", *rule, "--full"))

    def test_paths_that_changed_under_a_name_are_told(self):
        self.put(70, "a/")
        self.put(50, "b/")
        self.client.put_object(Bucket="empty", Key="one", Body=b"1")
        self.backup("/data/", "--name", "m")
        for paths, outside in ((["/data/b/"], 70), (["/empty/"], 120), (["/data/a/0000", "/data/a/0001"], 118)):
            for arguments in ([], ["--full"]):
                message = self.fails(*paths, "--name", "m", *arguments)
                self.assertIn("%d of the 120 objects" % outside, message)
                self.assertIn("%d below none of the paths" % outside, message)
        line = "the paths of 'm' have changed: 50 objects of its last set are not below them"
        for arguments in ([], ["--full"]):
            text = self.agent("backup", "work", "/data/a/", "--name", "m", "--pool", "disk", "--max-deleted", "49",
                              *arguments, expect=1).stdout
            self.assertIn(line + "\n", text)
        # So many may go.
        outcome = self.backup("/data/a/", "--name", "m")
        self.assertEqual((70, 0, 50, line), (outcome["unchanged"], outcome["deleted"], outcome["outside_paths"],
                                             outcome["paths_changed"]))
        for arguments in ([], ["--full"]):
            self.assertNotIn("paths_changed", self.backup("/data/a/", "--name", "m", *arguments))
        # Wider ones, and what lies below them, are no change that takes anything away.
        self.assertNotIn("paths_changed", self.backup("/data/", "/empty/", "--name", "m"))
        self.assertNotIn("paths_changed", self.backup("--name", "m", "/data/b/", "/data/a/", "/empty/one", "--full"))

    def test_definition_says_it_too(self):
        self.put(5)
        first = self.backup("/data/", "--name", "all")
        row = self.agent("sets", "--json").json["sets"][0]
        definition = {"type": "backup", "host_id": row["account"], "target": {"id": row["pool"]}, "source": {
            "id": row["account"], "minor_resource_id": row["selection"], "minor_resource_name": "all"}}
        path = os.path.join(self.folder, "definition.json")

        def run(expect, **members):
            with open(path, "w") as file:
                json.dump(dict(definition, **members), file)
            return self.agent("run", path, "--json", expect=expect)
        self.delete(range(3))
        self.assertIn("--max-deleted", run(1, max_deleted="2").json["message"])
        self.assertIn("max_deleted", run(1, max_deleted="many").stderr)
        self.assertEqual(3, run(0, max_deleted="3").json["deleted"])
        self.delete(range(3, 5))
        self.assertIn("--allow-empty", run(1).json["message"])
        self.assertEqual(2, run(0, allow_empty=True).json["deleted"])
        self.assertEqual(first["set"], self.sets()[0])

    def test_account_shows_deletions(self):
        self.put(5)
        text = lambda: self.agent("backup", "work", "/data/", "--pool", "disk").stdout
        self.assertNotIn("deleted", text())
        self.delete(range(2))
        self.assertIn("2 deleted since the set before\n", text())


if __name__ == "__main__":
    harness.main()
