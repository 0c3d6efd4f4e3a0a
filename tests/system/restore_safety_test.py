"""What a restore never does: destroy what is there, or carry out what was mistyped."""
import os
import pty
import random
import subprocess

import harness

ROUNDS = int(os.environ.get("OBS_RESTORE_ROUNDS", "100"))
SEED = int(os.environ.get("OBS_SEED", "0")) or random.SystemRandom().randrange(1, 2 ** 32)


class With_Set(harness.Scenario):
    KEYS = {"a/one": b"first", "a/two": b"second", "b/three": b"third", "four": b"fourth"}

    def setUp(self):
        super().setUp()
        self.server = harness.Test_Server("--log", "--bucket", "data", "--bucket", "target")
        self.addCleanup(self.server.stop)
        self.client = self.server.client()
        for key, content in self.KEYS.items():
            self.client.put_object(Bucket="data", Key=key, Body=content)
        self.add_account(self.server)
        self.add_pool()
        self.set = self.backup("/data/")["set"]

    def put(self, bucket, **objects):
        for key, content in objects.items():
            self.client.put_object(Bucket=bucket, Key=key, Body=content)

    def written(self):
        """How many requests have changed anything since the scenario began."""
        return [one for one in self.server.ask("sequence").split() if one.startswith(("Put", "Delete", "Copy", "Create"))]

    def restore(self, *arguments, expect=0):
        return self.agent("restore", *arguments, "--json", expect=expect)

    def refused(self, *arguments, expect, says):
        before = self.written()
        done = self.restore(*arguments, expect=expect)
        self.assertEqual("", done.stdout)
        for text in says:
            self.assertIn(text, done.stderr)
        self.assertEqual(before, self.written())
        return done


class Replacing(With_Set):
    def test_objects_are_replaced_without_being_removed_first(self):
        self.put("target", four=b"old")
        answer = self.restore(self.set, "--map", "data=target").json
        self.assertEqual(("completed", 4), (answer["outcome"], answer["saved"]))
        self.assertEqual(self.KEYS, self.contents(self.server, "target"))
        self.assertNotIn("DeleteObject", self.server.ask("sequence"))

    def test_target_that_may_be_written_and_not_deleted_is_restored_to(self):
        self.server.ask("refuse", "DeleteObject", "1")
        answer = self.restore(self.set, "--map", "data=target").json
        self.assertEqual(("completed", 4), (answer["outcome"], answer["saved"]))

    def test_target_that_may_be_deleted_and_not_written_keeps_what_it_has(self):
        old = {key: b"old" for key in self.KEYS}
        self.put("target", **old)
        self.server.ask("refuse", "PutObject", "1")
        self.assertEqual(0, self.restore(self.set, "--map", "data=target", expect=1).json["saved"])
        self.assertEqual(old, self.contents(self.server, "target"))

    def test_target_that_refuses_at_random_never_loses_an_object(self):
        print("seed %d" % SEED, flush=True)
        chance = random.Random(SEED)
        content = {"k%d" % i: chance.randbytes(chance.choice([0, 10, 5000, 70000])) for i in range(10)}
        content["in parts"] = chance.randbytes(17 << 20)
        server = harness.Test_Server("--seed", str(SEED), "--bucket", "source", "--bucket", "kept")
        self.addCleanup(server.stop)
        client = server.client()
        for key, data in content.items():
            client.put_object(Bucket="source", Key=key, Body=data)
        self.add_account(server, "random")
        made = self.agent("backup", "random", "/source/", "--pool", "disk", "--json").json["set"]
        operations = ["PutObject", "DeleteObject", "HeadObject", "CreateMultipartUpload", "UploadPart",
                      "CompleteMultipartUpload", "AbortMultipartUpload"]
        outcomes = {}
        for number in range(ROUNDS):
            there = {key: b"old %d" % number for key in content if chance.random() < 0.7}
            for key in content:
                if key in there:
                    client.put_object(Bucket="kept", Key=key, Body=there[key])
                else:
                    client.delete_object(Bucket="kept", Key=key)
            for operation in chance.sample(operations, chance.randrange(1, 5)):
                server.ask("refuse", operation, str(chance.choice([0.2, 0.5, 1])))
            policy = chance.choice(["overwrite", "skip", "newest", "different"])
            done = self.agent("restore", made, "--map", "source=kept", "--existing", policy, "--concurrent",
                              str(chance.randrange(1, 5)), "--json", expect=None)
            server.ask("serve")
            outcome = done.json
            outcomes[outcome["outcome"]] = outcomes.get(outcome["outcome"], 0) + 1
            self.assert_account_adds_up(outcome)
            now = self.contents(server, "kept")
            for key, old in there.items():
                self.assertIn(now.get(key), (old, content[key]), "round %d: %s of %s" % (number, key, outcome))
            for key in set(content) - set(there):
                self.assertIn(now.get(key), (None, content[key]), "round %d: %s of %s" % (number, key, outcome))
            fresh = sum(now.get(key) == data for key, data in content.items())
            self.assertGreaterEqual(fresh, outcome["saved"], outcome)
        print("ended:", outcomes, flush=True)


class Mistyped(With_Set):
    def test_map_of_a_bucket_that_the_set_does_not_have_is_refused(self):
        self.refused(self.set, "--map", "dat=target", expect=1, says=["'dat'", "'data'"])
        self.refused(self.set, "--map", "data=target", "--map", "more=target/x", expect=1, says=["'more'", "'data'"])
        self.assertIn("'dat'", self.restore(self.set, "--map", "dat=target", "--dry-run", expect=1).stderr)

    def test_map_of_a_bucket_that_nothing_is_selected_of_is_refused(self):
        self.client.create_bucket(Bucket="more")
        self.put("more", x=b"x")
        both = self.backup("/data/", "/more/")["set"]
        self.refused(both, "/data/", "--map", "more=target", expect=1, says=["'more'", "'data'"])
        self.restore(both, "/more/", "--map", "more=target")
        self.restore(both, "--map", "more=target/more", "--map", "*=target/all")

    def test_path_that_selects_nothing_is_refused_with_what_is_there_instead(self):
        self.refused(self.set, "/data/c/", "--map", "data=target", expect=1, says=["'/data/c/'", "'/data/a/'", "'/data/b/'"])
        self.refused(self.set, "/data/a/", "/data/a/tow", "--map", "data=target", expect=1,
                     says=["'/data/a/tow'", "'/data/a/one'", "'/data/a/two'"])
        self.refused(self.set, "/dat/", "--in-place", expect=1, says=["'/dat/'", "'/data/'"])

    def test_places_that_objects_came_from_need_in_place(self):
        self.put("data", four=b"newer")
        for arguments in ([], ["--map", "data=data"], ["/data/a/"], ["--to", "work"]):
            self.refused(self.set, *arguments, expect=2, says=["'data'", "--in-place", "--map"])
        self.add_account(self.server, "again")
        self.refused(self.set, "--to", "again", expect=2, says=["--in-place"])
        self.assertEqual(b"newer", self.contents(self.server, "data")["four"])
        self.restore(self.set, "--in-place")
        self.assertEqual(self.KEYS, self.contents(self.server, "data"))
        self.restore(self.set, "--map", "data=data/below")

    def test_places_of_an_account_that_is_not_known_here_need_in_place(self):
        self.state = os.path.join(self.folder, "another state")
        self.add_account(self.server)
        self.add_pool()
        self.refused(self.set, "--to", "work", expect=2, says=["'data'", "--in-place"])
        # Nor is it known what the set was made of.
        self.refused(self.set, "--to", "work", "--in-place", "--delete-extra", "--yes", expect=1, says=["not known here"])

    def test_same_names_at_another_service_need_nothing(self):
        other = harness.Test_Server("--bucket", "data")
        self.addCleanup(other.stop)
        self.add_account(other, "other")
        self.assertEqual(4, self.restore(self.set, "--to", "other").json["saved"])

    def test_yes_at_a_terminal_is_enough(self):
        self.put("data", four=b"newer")
        for answer, code, content in ((b"n\n", 2, b"newer"), (b"\n", 2, b"newer"), (b"y\n", 0, b"fourth")):
            ours, theirs = pty.openpty()
            os.write(ours, answer)
            done = subprocess.run(self.command("restore", self.set), stdin=theirs, stderr=theirs, stdout=subprocess.DEVNULL,
                                  timeout=300)
            os.close(ours)
            os.close(theirs)
            self.assertEqual(code, done.returncode)
            self.assertEqual(content, self.contents(self.server, "data")["four"])


class Different(With_Set):
    def test_only_what_differs_is_written(self):
        self.put("data", four=b"fourtH")   # as long as before
        self.client.delete_object(Bucket="data", Key="a/one")
        self.put("data", **{"a/two": b"longer than before"})
        before = len([one for one in self.written() if one == "PutObject"])
        answer = self.restore(self.set, "--in-place", "--existing", "different").json
        self.assertEqual(("completed", 3, 1), (answer["outcome"], answer["saved"], answer["unchanged"]))
        self.assertEqual(before + 3, len([one for one in self.written() if one == "PutObject"]))
        self.assertEqual(self.KEYS, self.contents(self.server, "data"))
        answer = self.restore(self.set, "--in-place", "--existing", "different").json
        self.assertEqual((0, 4), (answer["saved"], answer["unchanged"]))

    def test_what_cannot_be_looked_at_is_left_and_named(self):
        self.put("target", four=b"old")
        self.server.ask("refuse", "HeadObject", "1")
        answer = self.restore(self.set, "--map", "data=target", "--existing", "different", expect=1).json
        self.assertEqual((0, 4), (answer["saved"], answer["failed"]))
        self.assertEqual({"four": b"old"}, self.contents(self.server, "target"))


class Incremental_After(With_Set):
    def test_objects_restored_onto_their_places_are_not_stored_again(self):
        large = random.Random(1).randbytes(17 << 20)
        self.put("data", large=large)
        made = self.backup("/data/")["set"]
        self.restore(made, "--in-place")
        self.put("data", four=b"fourtH")   # as long as before, and another object
        self.client.put_object(Bucket="data", Key="a/two", Body=self.KEYS["a/two"], Metadata={"new": "1"})
        after = self.backup("/data/")
        self.assertEqual((3, 2), (after["unchanged"], after["saved"]))
        self.assertLess(after["bytes_stored"], 1 << 20)
        kept = [line for line in self.agent("ls", after["set"], "--recursive", "--json").json_lines if "file" in line]
        dates = {"/data/" + item["Key"]: item["LastModified"].strftime("%Y-%m-%dT%H:%M:%SZ")
                 for item in self.client.list_objects(Bucket="data")["Contents"]}
        self.assertEqual(dates, {line["file"]: line["mtime"] for line in kept})
        self.assertEqual(5, self.backup("/data/")["unchanged"])
        self.agent("verify", after["set"])
        self.restore(after["set"], "--map", "data=target")
        self.assertEqual(self.contents(self.server, "data"), self.contents(self.server, "target"))
        self.assertEqual({"new": "1"}, self.client.head_object(Bucket="target", Key="a/two")["Metadata"])
        self.agent("merge", *[one["set"] for one in self.agent("sets", "--json").json["sets"]])
        merged, = self.agent("sets", "--json").json["sets"]
        self.agent("verify", merged["set"])


class Deleting(With_Set):
    def setUp(self):
        super().setUp()
        self.put("data", **{"a/extra": b"1", "extra": b"22", "b/": b""})
        self.put("target", other=b"not ours")

    def test_number_is_told_and_confirmed_and_only_extras_go(self):
        done = self.refused(self.set, "--in-place", "--delete-extra", expect=2, says=["2 objects", "'/data/a/extra'", "--yes"])
        self.assertIn("'/data/extra'", done.stderr)
        answer = self.restore(self.set, "--in-place", "--delete-extra", "--yes").json
        self.assertEqual(("completed", 2), (answer["outcome"], answer["removed"]))
        self.assertEqual(dict(self.KEYS, **{"b/": b""}), self.contents(self.server, "data"))
        self.assertEqual({"other": b"not ours"}, self.contents(self.server, "target"))
        again = self.restore(self.set, "--in-place", "--delete-extra").json
        self.assertEqual(("completed", 0), (again["outcome"], again["removed"]))

    def test_only_below_what_is_restored(self):
        answer = self.restore(self.set, "/data/a/", "--in-place", "--delete-extra", "--yes").json
        self.assertEqual(1, answer["removed"])
        self.assertIn("extra", self.contents(self.server, "data"))
        self.put("target", **{"in/extra": b"x", "in/a/extra": b"x", "inner": b"x"})
        answer = self.restore(self.set, "--map", "data=target/in", "--delete-extra", "--yes").json
        self.assertEqual(2, answer["removed"])
        self.assertEqual({"other", "inner"} | {"in/" + key for key in self.KEYS}, set(self.contents(self.server, "target")))

    def test_refused_where_the_set_does_not_tell_all(self):
        extra = ["--in-place", "--delete-extra", "--yes"]
        self.refused(self.set, "--glob", "/data/a/*", *extra, expect=2, says=["--glob"])
        self.refused(self.set, "/data/four", *extra, expect=1, says=["single objects"])
        ruled = self.backup("/data/", "--exclude", "*.tmp")["set"]
        self.refused(ruled, *extra, expect=1, says=["rules"])
        ruled = self.backup("/data/", "--include", "a/")["set"]
        self.refused(ruled, *extra, expect=1, says=["rules"])
        single = self.backup("/data/four")["set"]
        self.refused(single, *extra, expect=1, says=["was made of single objects, as '/data/four'"])
        self.client.create_bucket(Bucket="more")
        self.put("more", x=b"x")
        both = self.backup("/data/", "/more/")["set"]
        for maps in (("data=target", "more=target/in"), ("data=target/in", "more=target"), ("data=target/in", "more=target/in")):
            self.refused(both, "--map", maps[0], "--map", maps[1], *extra, expect=1, says=["inside each other"])
        part = self.backup("/data/a/")["set"]
        self.refused(part, "/data/", *extra, expect=1, says=["'/data/'"])
        self.server.ask("refuse", "GetObject", "1")
        self.put("data", new=b"unreadable")
        broken = self.backup("/data/", expect=3)["set"]
        self.server.ask("serve")
        self.refused(broken, *extra, expect=1, says=["whole"])

    def test_nothing_goes_when_the_listing_breaks_off(self):
        self.server.ask("refuse", "ListObjects*", "1")
        self.refused(self.set, "--in-place", "--delete-extra", "--yes", expect=1, says=["could not be listed"])

    def test_nothing_goes_when_anything_failed_before(self):
        before = self.contents(self.server, "data")
        self.server.ask("refuse", "PutObject", "1", "a/one")
        answer = self.restore(self.set, "--in-place", "--delete-extra", "--yes", expect=3).json
        self.assertEqual((3, 0), (answer["saved"], answer["removed"]))
        self.assertIn("Nothing that the set does not have was removed", str(answer["errors"]))
        self.assertNotIn("DeleteObject", self.server.ask("sequence"))
        self.assertEqual(before, self.contents(self.server, "data"))

    def test_object_that_cannot_be_removed_is_named(self):
        self.server.ask("refuse", "DeleteObject", "1")
        answer = self.restore(self.set, "--in-place", "--delete-extra", "--yes", expect=3).json
        self.assertEqual(0, answer["removed"])
        self.assertEqual({"/data/a/extra", "/data/extra"}, {error["name"] for error in answer["errors"]})

    def test_bucket_that_the_restore_makes_has_nothing_to_remove(self):
        answer = self.restore(self.set, "--map", "data=fresh", "--create-bucket", "--delete-extra").json
        self.assertEqual(("completed", 4, 0), (answer["outcome"], answer["saved"], answer["removed"]))

    def serve_full(self, count, *arguments):
        """Another service, "other", whose bucket "full" has so many objects that the set does not have."""
        server = harness.Test_Server("--log", "--synthetic", "full,%d,1" % count, "--page-size", "7", *arguments)
        self.addCleanup(server.stop)
        self.add_account(server, "other")
        return server

    FULL = ["--to", "other", "--map", "data=full", "--delete-extra", "--yes"]

    def test_extras_of_all_pages_go(self):
        server = self.serve_full(30)
        self.assertEqual(30, self.restore(self.set, *self.FULL).json["removed"])
        self.assertEqual(self.KEYS, self.contents(server, "full"))

    def test_removing_ends_when_many_in_a_row_cannot_be_removed(self):
        server = self.serve_full(30)
        for number in range(0, 30, 2):
            server.ask("refuse", "DeleteObject", "1", "d0000/e00/object-%010d" % number)
        answer = self.restore(self.set, *self.FULL, expect=3).json
        self.assertEqual((15, 15), (answer["removed"], len(answer["errors"])))
        server.ask("refuse", "DeleteObject", "1")
        answer = self.restore(self.set, *self.FULL, expect=3).json
        self.assertEqual((0, 11), (answer["removed"], len(answer["errors"])))
        self.assertIn("5 more that the set does not have were left", str(answer["errors"][-1]))
        self.assertEqual(10, server.ask("sequence").split().count("DeleteObject") - 30)

    def cancel(self, is_time):
        """Cancels such a restore as soon as it is time; its account."""
        process = subprocess.Popen(self.command("restore", self.set, *self.FULL, "--json"), stdin=subprocess.DEVNULL,
                                   stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        while not is_time() and process.poll() is None:
            pass
        process.terminate()
        said, _ = process.communicate(timeout=300)
        self.assertEqual(130, process.returncode)
        answer = harness.Result(130, said, "").json
        self.assertEqual("cancelled", answer["outcome"])
        return answer

    def test_nothing_goes_after_a_cancelled_restore(self):
        server = self.serve_full(3, "--stall", "PutObject,0")
        answer = self.cancel(lambda: server.ask("stalled") == "yes")
        self.assertEqual((0, 0, 0, []), (answer["removed"], answer["skipped"], answer["failed"], answer["errors"]))
        self.assertNotIn("DeleteObject", server.ask("sequence"))

    def test_cancel_ends_the_removing(self):
        server = self.serve_full(300, "--latency", "50")
        self.assertLess(self.cancel(lambda: "DeleteObject" in server.ask("sequence"))["removed"], 300)


class Latest(With_Set):
    def test_latest_is_the_newest_whole_set_wherever_a_set_is_named(self):
        self.put("data", five=b"fifth")
        newest = self.backup("/data/")["set"]
        self.server.ask("refuse", "GetObject", "1")
        self.put("data", six=b"sixth")
        self.assertNotEqual(newest, self.backup("/data/", expect=3)["set"])
        self.server.ask("serve")
        listed = self.agent("ls", "latest", "--recursive", "--json").json_lines
        self.assertEqual(5, len([line for line in listed if "file" in line]))
        self.agent("verify", "latest")
        self.agent("problems", "latest")
        self.assertEqual(1, self.agent("diff", self.set, "latest", "--json").json["added"])
        answer = self.restore("latest", "--map", "data=target")
        self.assertEqual(5, answer.json["saved"])

    def test_several_selections_are_named(self):
        other = self.backup("/data/a/")["set"]
        self.refused("latest", "--map", "data=target", expect=1, says=[self.set, other, "latest:", "'/data/a/'"])
        self.assertEqual(2, self.restore("latest:/data/a/", "--map", "data=target").json["saved"])
        self.refused("latest:nobody", "--map", "data=target", expect=1, says=["'nobody'"])

    def test_as_of_takes_the_newest_set_of_that_time(self):
        import time
        zone = os.environ.get("TZ")
        os.environ["TZ"] = "XXX-9"   # far from UTC: what is printed does not depend on it
        self.addCleanup(lambda: os.environ.pop("TZ") if zone is None else os.environ.update(TZ=zone))
        ended = self.agent("sets", "--json").json["sets"][0]["end_time"]
        shown = self.agent("sets").stdout.split("  ")[1].split(" to ")[1]
        while time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime()) <= ended:
            time.sleep(0.05)   # sets have whole seconds
        self.put("data", five=b"fifth")
        self.backup("/data/")
        self.assertEqual(4, self.restore("--as-of", ended, "--map", "data=target").json["saved"])
        self.assertEqual(2, self.restore("/data/a/", "--as-of", shown, "--map", "data=target").json["saved"])
        self.assertEqual(5, self.restore("latest", "--as-of", "2999-01-01", "--map", "data=target").json["saved"])
        self.refused("--as-of", "2001-01-01 12:00+02:00", "--map", "data=target", expect=1,
                     says=["2001-01-01 10:00:59 UTC", "no whole set"])
        self.refused("--as-of", "yesterday", "--map", "data=target", expect=2, says=["'yesterday'", "2026-05-01 14:30"])
        self.refused(self.set, "--as-of", "2999-01-01", "--map", "data=target", expect=2, says=["latest"])
        self.refused("--map", "data=target", expect=2, says=["name a set"])


if __name__ == "__main__":
    harness.main()
