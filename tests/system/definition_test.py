"""The job definitions that doc/definition.md shows run as they stand there."""
import json
import os
import re

import harness

PAGE = os.path.join(harness.ROOT, "doc", "definition.md")


class Definition(harness.Scenario):
    def setUp(self):
        super().setUp()
        self.server = harness.Test_Server("--bucket", "photos", "--bucket", "photos-restored")
        self.addCleanup(self.server.stop)
        self.client = self.server.client()
        for key in ("2024/a", "2024/b", "2024/b.tmp", "2023/c", "index"):
            self.client.put_object(Bucket="photos", Key=key, Body=key.encode() * 100)
        self.add_account(self.server)
        self.add_pool()
        self.backup("/photos/2023/", "--name", "pictures")
        self.row, = self.agent("sets", "--json").json["sets"]
        with open(PAGE, encoding="utf-8") as page:
            self.examples = re.findall(r"^```json\n(.*?)^```", page.read(), re.DOTALL | re.MULTILINE)

    def example(self, kind, **changes):
        """The page's example of that type, with this test's uuids for its words."""
        found = [text for text in self.examples if json.loads(text)["type"] == kind]
        self.assertEqual(1, len(found))
        text = found[0]
        for word in ("account", "pool", "selection", "set"):
            text = text.replace(word.upper(), self.row[word])
        definition = json.loads(text)
        for member, value in changes.items():
            definition[member] = value
        path = os.path.join(self.folder, kind + ".json")
        with open(path, "w") as file:
            json.dump(definition, file)
        return path

    def test_backup_is_what_the_page_says(self):
        outcome = self.agent("run", self.example("backup"), "--json").json
        self.assertEqual(("completed", 1), (outcome["outcome"], outcome["unchanged"]))
        # The selection has no exclusions: the definition's count.
        self.agent("backup", "work", "/photos/", "--pool", "disk", "--name", "pictures")
        outcome = self.agent("run", self.example("backup", subtype="full"), "--json").json
        self.assertEqual((5, 4, 1), (outcome["listed"], outcome["saved"], outcome["excluded"]))
        self.assertEqual("pictures", self.agent("sets", "--json").json["sets"][-1]["selection_name"])

    def test_restore_is_what_the_page_says(self):
        self.backup("/photos/", "--name", "pictures", "--full")
        path = self.example("restore")
        with open(path) as file:
            definition = json.load(file)
        row = self.agent("sets", "--json").json["sets"][-1]
        definition["source"].update(seq=row["seq"], catalog_id=row["set"])
        with open(path, "w") as file:
            json.dump(definition, file)
        outcome = self.agent("run", path, "--json").json
        self.assertEqual(("completed", 4), (outcome["outcome"], outcome["saved"]))
        self.assertEqual(["from/backup/2024/a", "from/backup/2024/b", "from/backup/2024/b.tmp", "from/backup/index"],
                         sorted(self.contents(self.server, "photos-restored")))
        outcome = self.agent("run", path, "--json").json
        self.assertEqual(4, outcome["unchanged"], "what exists is to be left")

    def test_every_member_of_the_tables_is_known(self):
        with open(PAGE, encoding="utf-8") as page:
            rows = re.findall(r"^\| (`[^|]*) \|", page.read(), re.MULTILINE)
        members = {name.split(".")[0] for row in rows for name in re.findall(r"`([a-z_.]+)`", row)} - {"source", "options"}
        self.assertGreater(len(members), 35)
        sources = ""
        for source in ("agent/definition.cpp", "agent/commands/run_job.cpp", "obs/agent/job/backup_job_options_parser.cpp",
                       "obs/agent/job/backup_job_source_parser.cpp", "obs/agent/job/restore_job_options_parser.cpp",
                       "obs/agent/job/restore_job_source_parser.cpp"):
            with open(os.path.join(harness.ROOT, source), encoding="utf-8") as file:
                sources += file.read()
        self.assertEqual([], sorted(name for name in members if '"%s"' % name not in sources))

    def write(self, text):
        path = os.path.join(self.folder, "written.json")
        with open(path, "w") as file:
            file.write(text)
        return path

    def test_number_that_does_not_fit_names_no_other_set(self):
        with open(self.example("restore")) as file:
            definition = json.load(file)
        del definition["source"]["catalog_id"]
        for number in ("99999999999999999999", "1e20"):
            definition["source"]["seq"] = 4711
            path = self.write(json.dumps(definition).replace("4711", number))
            printed = json.loads(self.agent("run", path, "--print").stdout)
            self.assertEqual(9223372036854775807 if number[0] == "9" else 1, printed["source"]["seq"])
        path = self.write(json.dumps(definition).replace("4711", "99999999999999999999"))
        self.agent("run", path, expect=1)
        self.assertEqual({}, self.contents(self.server, "photos-restored"))

    def test_definition_is_printed_and_kept_as_its_records_write_it(self):
        path = self.example("restore")
        printed = self.agent("run", path, "--print").stdout
        self.assertEqual({}, self.contents(self.server, "photos-restored"), "nothing was run")
        definition = json.loads(printed)
        self.assertEqual([{"dir": "/photos/2024/"}, {"file": "/photos/index"}], definition["source"]["entries"])
        self.assertEqual(printed, self.agent("run", self.write(printed), "--print").stdout)

    def test_retried_requests_that_came_right_are_no_errors_of_the_run(self):
        server = harness.Test_Server("--bucket", "slow", "--admit", "20")
        self.addCleanup(server.stop)
        client = server.client()
        for number in range(60):
            while True:
                try:
                    client.put_object(Bucket="slow", Key="%02d/k" % number, Body=b"x")
                    break
                except Exception:
                    continue
        self.add_account(server, name="slow")
        outcome = self.agent("backup", "slow", "/slow/", "--pool", "disk", "--json").json
        self.assertEqual(("completed", 60, []), (outcome["outcome"], outcome["saved"], outcome["errors"]))

    def test_failing_precondition_is_no_failure(self):
        outcome = self.agent("run", self.example("backup", precondition="exit 1"), "--json").json
        self.assertEqual(("completed", 0, ""), (outcome["outcome"], outcome["listed"], outcome["set"]))

    def test_actions_run_around_the_job(self):
        trace = os.path.join(self.folder, "trace")
        self.agent("run", self.example("backup", pre_action="echo before", redirect_pre_action_stdout=True,
                                       redirect_post_action_stdin=True, post_action="cat > '%s'" % trace))
        with open(trace) as file:
            self.assertEqual("before\n", file.read())
        self.agent("run", self.example("backup", pre_action="exit 1"), expect=1)
        self.agent("run", self.example("backup", pre_action="exit 1", ignore_pre_action_failure=True), expect=3)


if __name__ == "__main__":
    harness.main()
