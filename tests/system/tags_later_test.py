"""Tags and access lists that are wanted later, of objects that have not changed."""
import signal

import harness

OBJECTS = 600


class Tags_Later(harness.Scenario):
    def setUp(self):
        super().setUp()
        self.server = harness.Test_Server("--log", "--stopped-clock", "--bucket", "data", "--bucket", "back")
        self.addCleanup(self.server.stop)
        self.client = self.server.client()
        for key, access in (("plain", "private"), ("tagged", "private"), ("shared", "public-read")):
            self.client.put_object(Bucket="data", Key=key, Body=key.encode() * 1000, ACL=access)
        self.tag("tagged", "color", "red")
        self.server.ask("advance", "10")
        self.add_account(self.server)
        self.add_pool()

    def tag(self, key, name, value):
        self.client.put_object_tagging(Bucket="data", Key=key, Tagging={"TagSet": [{"Key": name, "Value": value}]})

    def asked(self, key):
        """What was asked about an object since the last call, beside what tests ask."""
        now = dict(item.split("=") for item in self.server.ask("requests", "data", key).split())
        before = getattr(self, "counts", {}).get(key, {})
        self.counts = dict(getattr(self, "counts", {}), **{key: now})
        return {name: int(count) - int(before.get(name, 0)) for name, count in now.items()
                if name.startswith("Get") and int(count) != int(before.get(name, 0))}

    def rows(self, made):
        lines = self.agent("ls", made, "-r", "--long").stdout.splitlines()
        return {line.rpartition("/")[2]: line[line.index(" tags ") + 6:line.rindex("  /")] for line in lines}

    def attributes(self, made):
        return {line["file"][6:]: line["attributes"]
                for line in self.agent("ls", made, "-r", "--long", "--json").json_lines}

    def ask_all(self):
        return [self.asked(key) for key in ("plain", "tagged", "shared")]

    def test_unchanged_objects_are_asked_once_and_not_read_again(self):
        first = self.backup("/data/", expect=None)
        self.assertEqual({"not asked access not asked"}, {" ".join(row.split()) for row in self.rows(first["set"]).values()})
        # What is missing is told as long as it is.
        again = self.backup("/data/", expect=None)
        for outcome in (first, again):
            self.assertIn("1 object has tags that were not saved", str(outcome["errors"]))
        self.ask_all()
        second = self.backup("/data/", "--tags", "--acl")
        self.assertEqual((3, 0, 0), (second["unchanged"], second["saved"], second["bytes_read"]))
        for asked in self.ask_all():
            self.assertEqual({"GetObjectTagging": 1, "GetObjectAcl": 1}, asked)
        self.assertEqual(again["requests"] + 6, second["requests"])
        self.assertEqual({"plain": "none access private", "tagged": "1 tag access private",
                          "shared": "none access 2 grants"},
                         {key: " ".join(row.split()) for key, row in self.rows(second["set"]).items()})
        self.assertEqual({"color": "red"}, self.attributes(second["set"])["tagged"]["tags"])
        # Known now: nobody asks again.
        third = self.backup("/data/", "--tags", "--acl")
        self.assertEqual([{}, {}, {}], self.ask_all())
        self.assertEqual(self.attributes(second["set"]), self.attributes(third["set"]))
        # The media of the first set have none of it, and still a restore gives it.
        restored = self.agent("restore", third["set"], "--map", "data=back", "--json").json
        self.assertEqual((3, 0), (restored["saved"], restored["incomplete"]), restored)
        self.assertEqual([{"Key": "color", "Value": "red"}],
                         self.client.get_object_tagging(Bucket="back", Key="tagged")["TagSet"])
        self.assertEqual(2, len(self.client.get_object_acl(Bucket="back", Key="shared")["Grants"]))
        self.agent("verify", third["set"])
        merged = self.agent("merge", first["set"], second["set"], third["set"], "--json").json["set"]
        self.assertEqual({"color": "red"}, self.attributes(merged)["tagged"]["tags"])
        self.agent("verify", merged)

    def test_tags_that_changed_without_a_new_date_come_when_all_are_asked(self):
        self.backup("/data/", "--tags")
        self.tag("tagged", "color", "blue")
        stale = self.backup("/data/", "--tags")
        self.assertEqual({"color": "red"}, self.attributes(stale["set"])["tagged"]["tags"])
        self.ask_all()
        fresh = self.backup("/data/", "--refresh-tags")
        self.assertEqual(3, fresh["unchanged"])
        self.assertEqual([{"GetObjectTagging": 1}] * 3, self.ask_all())
        self.assertEqual({"color": "blue"}, self.attributes(fresh["set"])["tagged"]["tags"])
        self.assertEqual({"not asked"}, {row[-9:] for row in self.rows(fresh["set"]).values()})

    def test_access_lists_that_changed_come_when_all_are_asked(self):
        self.backup("/data/", "--acl")
        now = self.client.get_object_acl(Bucket="data", Key="shared")
        self.client.put_object_acl(Bucket="data", Key="shared",
                                   AccessControlPolicy={"Grants": now["Grants"][:1], "Owner": now["Owner"]})
        self.assertIn("access 2 grants", str(self.rows(self.backup("/data/", "--acl")["set"])))
        self.ask_all()
        fresh = self.backup("/data/", "--refresh-tags", "--acl")
        self.assertEqual(3, fresh["unchanged"])
        self.assertEqual([{"GetObjectAcl": 1, "GetObjectTagging": 1}] * 3, self.ask_all())
        self.assertNotIn("access 2 grants", str(self.rows(fresh["set"])))

    def test_access_list_that_is_saved_no_longer_is_told_by_number(self):
        self.backup("/data/", "--acl", "--full")
        self.client.put_object(Bucket="data", Key="shared", Body=b"another", ACL="public-read")
        self.server.ask("advance", "10")
        outcome = self.backup("/data/", expect=None)
        self.assertIn("1 changed object is saved without the access list", str(outcome["errors"]))
        self.assertNotIn("access list", str(self.backup("/data/", expect=None)["errors"]))

    def test_what_is_refused_is_named_and_asked_for_by_the_next_run(self):
        first = self.backup("/data/", expect=None)
        self.server.ask("refuse", "GetObjectTagging", "1", "tagged")
        refused = self.backup("/data/", "--tags", expect=3)
        self.assertEqual((3, 1), (refused["unchanged"], refused["incomplete"]))
        problem, = refused["errors"]
        self.assertEqual("/data/tagged", problem["name"])
        self.assertIn("its tags (", problem["message"])
        self.assertEqual("not asked", self.rows(refused["set"])["tagged"][:9])
        self.assertEqual(first["objects"], refused["objects"])
        self.server.ask("serve")
        self.ask_all()
        self.backup("/data/", "--tags")
        self.assertEqual([{}, {"GetObjectTagging": 1}, {}], self.ask_all())

    def test_same_object_under_another_date_is_kept_whoever_asked_for_its_tags(self):
        self.backup("/data/", expect=None)
        for options in (["--tags"], [], ["--tags"]):
            self.client.put_object(Bucket="data", Key="plain", Body=b"plain" * 1000, ACL="private")
            self.server.ask("advance", "10")
            self.ask_all()
            outcome = self.backup("/data/", *options, expect=None)
            self.assertEqual((3, 0), (outcome["unchanged"], outcome["saved"]))
            self.assertIn("GetObject", self.ask_all()[0])
            self.assertEqual("none ", self.rows(outcome["set"])["plain"][:5])


class Asking(harness.Scenario):
    """What ends a run while it asks about objects whose data it has."""
    def setUp(self):
        super().setUp()
        self.server = harness.Test_Server("--synthetic", "bucket,%d,100" % OBJECTS, "--latency", "20", "--log")
        self.addCleanup(self.server.stop)
        self.add_account(self.server)
        self.add_pool()
        self.backup("/bucket/")

    def asked(self):
        return self.server.ask("sequence").count("GetObjectTagging")

    def start(self, *options):
        """A backup that has asked about some objects and not nearly all."""
        before = self.asked()
        return self.start_until(lambda: self.asked() >= before + 100, "backup", "work", "/bucket/", "--pool", "disk", "--json",
                                "--readers", "4", "--scan-threads", "1", "--tags", *options,
                                preexec_fn=lambda: signal.signal(signal.SIGINT, signal.SIG_DFL))

    def check_that_nothing_was_made_and_the_next_run_asks(self):
        self.assertEqual(1, len(self.agent("sets", "--json").json["sets"]))
        self.server.ask("serve")
        outcome = self.backup("/bucket/", "--tags")
        self.assertEqual((OBJECTS, 0, 0), (outcome["unchanged"], outcome["incomplete"], outcome["bytes_read"]))
        asked = self.asked()
        self.backup("/bucket/", "--tags")
        self.assertEqual(asked, self.asked())

    def test_cancelled_run_makes_no_set_and_names_no_object(self):
        for number in (signal.SIGINT, signal.SIGTERM):
            process = self.start()
            process.send_signal(number)
            outcome, _ = self.end_of(process, 130)
            self.assertEqual(("cancelled", "", 0, 0, 0), tuple(outcome[name] for name in (
                "outcome", "set", "skipped", "failed", "incomplete")))
            self.assertLessEqual(len(outcome["errors"]), 1, outcome["errors"])
        self.check_that_nothing_was_made_and_the_next_run_asks()

    def test_killed_run_makes_no_set(self):
        process = self.start()
        process.kill()
        process.communicate()
        self.check_that_nothing_was_made_and_the_next_run_asks()

    def test_service_that_is_gone_ends_the_run(self):
        process = self.start("--service-timeout", "2")
        self.server.ask("fail", "503", "ServiceUnavailable")
        outcome, _ = self.end_of(process, 1)
        self.assertIn("The service is gone: nothing was answered for 2 seconds.", outcome["message"])
        self.assertEqual([], outcome["errors"])
        self.check_that_nothing_was_made_and_the_next_run_asks()

    def test_short_outage_costs_no_tags(self):
        process = self.start("--service-timeout", "100")
        self.server.ask("fail", "403", "InvalidAccessKeyId")
        # Each of the readers is refused, and so is the question whether the service is there.
        while int(self.server.ask("struck")) < 5 and process.poll() is None:
            pass
        self.server.ask("serve")
        outcome, _ = self.end_of(process, 0)
        self.assertEqual((OBJECTS, 0), (outcome["unchanged"], outcome["incomplete"]))


if __name__ == "__main__":
    harness.main()
