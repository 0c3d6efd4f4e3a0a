"""What commands print: for people and as JSON, of runs that end well and of runs that do not."""
import os

import harness

JSON_TIME = r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ$"


class Command_Line(harness.Scenario):
    def setUp(self):
        super().setUp()
        self.server = harness.Test_Server("--bucket", "target")
        self.addCleanup(self.server.stop)
        self.client = self.server.client()
        self.client.create_bucket(Bucket="data")
        for key in ("a/one", "a/two", "three"):
            self.client.put_object(Bucket="data", Key=key, Body=key.encode() * 1000)
        self.add_account(self.server)
        self.add_pool()

    def damage_contents(self):
        """Flips a bit in every content that lies on the pool's media."""
        for medium in self.media():
            with open(medium, "r+b") as file:
                data = file.read()
                for key in (b"a/one", b"a/two", b"three"):
                    place = data.find(key * 1000)
                    if place >= 0:
                        file.seek(place + 2000)
                        file.write(bytes([data[place + 2000] ^ 1]))

    def test_restore_in_which_every_object_fails_names_every_object(self):
        made = self.backup("/data/")["set"]
        self.damages_media = True
        self.damage_contents()
        report = self.agent("restore", made, "--map", "data=target", expect=1)
        self.assertIn("3 listed = 0 saved + 0 unchanged + 0 excluded + 0 skipped + 3 failed", report.stdout)
        for key in ("a/one", "a/two", "three"):
            self.assertRegex(report.stdout, "'[^']*%s'" % key)
        answer = self.agent("restore", made, "--map", "data=target", "--json", expect=report.returncode).json
        self.assertEqual((3, 3), (answer["failed"], len(answer["errors"])))

    def test_run_that_never_began_says_why(self):
        made = self.backup("/data/")["set"]
        self.agent("account", "change", "work", "--access-key", "WRONG")
        report = self.agent("restore", made, "--map", "data=target", expect=1)
        self.assertIn("cannot be reached", report.stderr)
        answer = self.agent("restore", made, "--map", "data=target", "--json", expect=1)
        self.assertEqual("failed", answer.json["outcome"])
        self.assertTrue(answer.json["message"])
        self.assertIn(answer.json["message"], answer.stderr)

    def test_refused_command_prints_nothing_on_standard_output(self):
        for arguments, code in ((("ls", "none"), 1), (("restore", "none"), 1), (("backup", "nobody", "--pool", "x"), 1),
                                (("verify",), 2), (("no-such-command",), 2)):
            refused = self.agent(*arguments, "--json", expect=code)
            self.assertEqual("", refused.stdout, arguments)
            self.assertTrue(refused.stderr, arguments)

    def test_sets_show_names_beside_uuids(self):
        made = self.backup("/data/", "--name", "everything\nelse")["set"]
        row, = self.agent("sets", "--json").json["sets"]
        self.assertEqual(("work", "disk", "everything\nelse"),
                         (row["account_name"], row["pool_name"], row["selection_name"]))
        for uuid in ("account", "pool", "selection"):
            self.assertRegex(row[uuid], "^[0-9a-f-]{36}$")
        line, = self.agent("sets").stdout.splitlines()
        self.assertTrue(line.startswith(made), line)
        self.assertTrue(line.endswith("  work  disk  everything\\nelse"), line)

    def test_rates_that_are_none_are_refused(self):
        made = self.backup("/data/")["set"]
        for command in (("backup", "work", "/data/", "--pool", "disk"), ("restore", made, "--map", "data=target")):
            for rate in ("-5", "-5M", "fast", "9223372036854775808", "99999999999T"):
                refused = self.agent(*command, "--limit=" + rate, expect=2)
                self.assertIn("--limit", refused.stderr)
                self.assertNotIn("unexpected", refused.stderr)
            self.assertIn("'-5' is no rate", self.agent(*command, "--limit", "-5", expect=2).stderr)
            self.agent(*command, "--limit", "20M")

    def test_selection_that_nothing_is_kept_of_is_not_forgotten_silently(self):
        self.backup("/data/", "--name", "all")
        for options in ((), ("--dry-run",)):
            refused = self.agent("forget", "--name", "nope", "--keep-last", "1", *options, expect=1)
            self.assertIn("no set of a selection 'nope'", refused.stderr)
            self.agent("forget", "--name", "all", "--keep-last", "1", *options)

    def test_folder_named_as_an_object_is_told(self):
        said = "no object '/data/a', but there are objects below '/data/a/'"
        run = self.agent("backup", "work", "/data/a", "--pool", "disk", expect=1)
        self.assertIn("file '/data/a': " + said, run.stdout)
        run = self.agent("backup", "work", "/data/a", "/data/three", "--pool", "disk", "--json", expect=3).json
        self.assertEqual([True], [error["message"].startswith(said) for error in run["errors"]])
        self.assertIn(said, self.agent("backup", "work", "/data/a", "--pool", "disk", "--dry-run", expect=1).stderr)
        for options in ((), ("--dry-run",)):
            run = self.agent("backup", "work", "/data/b", "--pool", "disk", *options, expect=1)
            self.assertNotIn("objects below", run.stdout + run.stderr)

    def test_times_say_their_zone(self):
        made = self.backup("/data/")["set"]
        row, = self.agent("sets", "--json").json["sets"]
        for member in ("start_time", "end_time"):
            self.assertRegex(row[member], JSON_TIME)
        start, end = (row[member].replace("T", " ") for member in ("start_time", "end_time"))
        self.assertIn("%s  %s to %s  full" % (made, start, end), self.agent("sets").stdout)
        self.assertIn("%s  %s  full" % (made, start), self.agent("forget", "--keep-last", "1").stdout)
        group, = self.agent("forget", "--keep-last", "1", "--json").json["groups"]
        self.assertEqual(row["start_time"], group["kept"][0]["time"])
        self.assertTrue(self.agent("find", "three").stdout.startswith("%s  %s  " % (made, end)))
        self.assertEqual(row["end_time"], self.agent("find", "three", "--json").json["set_time"])
        mtime = self.agent("ls", made, "/data/three", "--json").json["mtime"]
        self.assertRegex(mtime, JSON_TIME)
        for command in (("ls", made, "/data/three"), ("browse", "work", "/data/three")):
            self.assertTrue(self.agent(*command).stdout.startswith(mtime.replace("T", " ") + " "), command)

    def test_browse_shows_whole_paths(self):
        def shown(*arguments):
            answer = self.agent("browse", "work", *arguments, "--json").json
            paths = [entry.get("file") or entry["dir"] for entry in answer["result"]]
            lines = self.agent("browse", "work", *arguments).stdout.splitlines()
            self.assertEqual(paths, [line.split("  ")[-1] for line in lines])
            for entry in answer["result"]:
                if "file" in entry:
                    self.assertRegex(entry["mtime"], JSON_TIME)
            return paths
        self.assertIn("/data/", shown())
        for path in ("/data/", "/data"):
            self.assertEqual(["/data/a/", "/data/three"], shown(path))
        self.assertEqual(["/data/a/one", "/data/a/two"], shown("/data/a/"))
        self.assertEqual(["/data/three"], shown("/data/three"))
        self.assertEqual(["/data/a/two"], shown("/data/a/t"))

    def test_dry_run_of_a_backup_has_a_line_per_object(self):
        lines = self.agent("backup", "work", "/data/", "--pool", "disk", "--exclude", "/data/three", "--dry-run",
                           "--json").json_lines
        self.assertEqual([("/data/a/one", 5000), ("/data/a/two", 5000)],
                         [(line["file"], line["size"]) for line in lines[:-1]])
        for line in lines[:-1]:
            self.assertRegex(line["mtime"], r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ$")
        self.assertEqual({"objects": 2, "bytes": 10000, "excluded": 1, "skipped": 0}, lines[-1])

    def test_dry_run_counts_folder_objects_as_the_backup_does(self):
        self.client.put_object(Bucket="data", Key="empty/", Body=b"")
        self.client.put_object(Bucket="data", Key="full/", Body=b"not empty")
        dry = self.agent("backup", "work", "/data/", "--pool", "disk", "--dry-run", "--json").json
        run = self.backup("/data/", expect=3)
        self.assertEqual((run["saved"], run["excluded"], run["skipped"]),
                         (dry["objects"], dry["excluded"], dry["skipped"]))
        self.assertEqual((3, 1, 1), (dry["objects"], dry["excluded"], dry["skipped"]))

    def test_description_of_a_medium_is_the_same_as_text_and_as_json(self):
        self.backup("/data/", "--channels", "1")
        medium, = self.media()
        text = self.agent("media", "dump", medium).stdout.splitlines()
        self.assertTrue(text)
        self.assertEqual([{"medium": medium, "text": line} for line in text],
                         self.agent("media", "dump", medium, "--json").json_lines)


if __name__ == "__main__":
    harness.main()
