"""Old sets become one new set, and nothing else changes for anybody."""
import fcntl
import os
import subprocess
import unittest

import harness


class Merge(harness.Scenario):
    def setUp(self):
        super().setUp()
        self.server = harness.Test_Server("--synthetic", "bucket,200,900", "--bucket", "target")
        self.addCleanup(self.server.stop)
        self.client = self.server.client()
        self.add_account(self.server)
        self.add_pool()
        self.moments = {}

    def put(self, key, body):
        self.client.put_object(Bucket="bucket", Key=key, Body=body)

    def delete(self, key):
        self.client.delete_object(Bucket="bucket", Key=key)

    def take(self, *arguments):
        set_id = self.backup("/bucket/", *arguments)["set"]
        self.moments[set_id] = self.contents(self.server, "bucket")
        return set_id

    def chain(self):
        """Four sets; the second one has an object that only the last one has beside it."""
        sets = [self.take("--compression", "zstd")]
        self.put("k/one", b"1" * 3000)
        self.put("d0000/e00/object-0000000003", b"changed")
        self.delete("d0000/e01/object-0000000107")
        sets.append(self.take("--channels", "2"))
        self.put("k/one", b"2" * 3001)
        self.put("k//two", b"")
        self.delete("d0000/e00/object-0000000003")
        sets.append(self.take())
        self.put("k/three", os.urandom(100000))
        sets.append(self.take())
        return sets

    def sets(self):
        return [row["set"] for row in self.agent("sets", "--json").json["sets"]]

    def folders(self):
        return sorted(os.path.basename(folder) for folder, _, files in os.walk(self.pool)
                      if "set.json" in files or "partial.json" in files)

    def folder_of(self, set_id):
        return next(folder for folder, _, _ in os.walk(self.pool) if os.path.basename(folder) == set_id)

    def merge(self, *sets, expect=0):
        answer = self.agent("merge", *sets, "--json", expect=expect).json
        self.moments[answer["set"]] = self.moments[sets[-1]]
        return answer

    def assert_whole(self, set_id):
        self.agent("verify", set_id)
        for key in self.contents(self.server, "target"):
            self.client.delete_object(Bucket="target", Key=key)
        self.agent("restore", set_id, "--map", "bucket=target")
        self.assertEqual(self.moments[set_id], self.contents(self.server, "target"))

    def test_old_sets_become_one_and_later_ones_go_on(self):
        sets = self.chain()
        listing = self.agent("ls", sets[2], "--recursive").stdout
        answer = self.merge(*sets[:3])
        merged = answer["set"]
        self.assertEqual(("full", [], sets[:3]), (answer["type"], answer["waiting"], answer["replaced"]))
        self.assertEqual([merged, sets[3]], self.sets())
        self.assertEqual(sorted([merged, sets[3]]), self.folders())
        self.assertEqual(listing, self.agent("ls", merged, "--recursive").stdout)
        self.assert_whole(merged)
        self.assert_whole(sets[3])
        self.agent("media", "check", *self.media())
        # The last set is still what the next one is compared with.
        following = self.backup("/bucket/")
        self.assertEqual((0, 201), (following["saved"], following["unchanged"]))
        self.moments[following["set"]] = self.moments[sets[3]]
        # Merged sets are merged again, and what lay in the first ones is still found.
        again = self.merge(merged, sets[3])["set"]
        self.assertEqual([again, following["set"]], self.sets())
        self.assert_whole(again)
        self.assert_whole(following["set"])
        self.assertEqual(1, self.agent("forget", "--keep-last", "1", "--json").json["kept"] - 1)

    def test_middle_of_a_chain_points_on_to_what_it_pointed_to(self):
        sets = self.chain()
        answer = self.merge(sets[1], sets[2])
        self.assertEqual("incremental", answer["type"])
        self.assertEqual([sets[0], answer["set"], sets[3]], self.sets())
        for set_id in self.sets():
            self.assert_whole(set_id)
        rows = self.agent("sets", "--json").json["sets"]
        self.assertEqual([1, 3, 4], [row["seq"] for row in rows])

    def test_rebuilt_catalogs_find_their_data_in_the_merged_set(self):
        sets = self.chain()
        merged = self.merge(*sets[:3])["set"]
        for set_id in (merged, sets[3]):
            os.remove(os.path.join(self.folder_of(set_id), "catalog.db"))
            self.assertTrue(self.agent("catalog", "rebuild", set_id, "--json").json["exact"])
            self.assert_whole(set_id)

    @unittest.skipUnless(os.environ.get("OBS_FILE_LOG"), "needs the library that writes down what the program does")
    def test_rebuilt_catalog_of_a_set_whose_base_was_merged_comes_at_once(self):
        sets = self.chain()
        merged = self.merge(*sets[:3])["set"]
        catalog = os.path.join(self.folder_of(sets[3]), "catalog.db")
        log = os.path.join(self.folder, "log")
        done = subprocess.run(self.command("catalog", "rebuild", sets[3]), stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                              env=dict(os.environ, LD_PRELOAD=os.environ["OBS_FILE_LOG"], FILE_LOG=log,
                                       FILE_LOG_ROOT=self.pool))
        self.assertEqual(0, done.returncode, done.stderr)
        with open(log, errors="surrogateescape") as lines:
            installed = [line for line in lines if line.startswith("rename ") and
                         line.rstrip("\n").endswith("\t" + catalog)]
        # Cut short before or after this, the set can be read: what is put there points to where its data are.
        self.assertEqual(1, len(installed), installed)
        for set_id in (merged, sets[3]):
            self.assert_whole(set_id)

    def test_damaged_object_is_named_and_nothing_changes(self):
        self.damages_media = True
        sets = self.chain()
        hits = 0
        for medium in self.media(sets[2]):   # whichever channel has stored it
            with open(medium, "r+b") as file:
                place = file.read().find(b"2" * 3001)
                if place >= 0:
                    file.seek(place + 1500)
                    file.write(b"x")
                    hits += 1
        self.assertEqual(1, hits)
        before = self.folders()
        result = self.agent("merge", *sets, expect=1)
        self.assertIn("k/one", result.stderr)
        self.assertIn("nothing is merged", result.stderr)
        self.assertEqual((before, sets, []), (self.folders(), self.sets(), self.unfinished()))

    def test_what_unfinished_runs_left_is_merged_too(self):
        process = subprocess.Popen(self.command("backup", "work", "/bucket/", "--pool", "disk", "--channels", "1"),
                                   stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        process.communicate()
        first = self.sets()[0]
        # As if it had been killed before its record was written.
        os.remove(os.path.join(self.folder_of(first), "set.json"))
        outcome = self.backup("/bucket/")
        self.assertEqual((200, 200), (outcome["saved"], outcome["continued"]))
        self.assertEqual(1, len(self.partial()))
        last = self.backup("/bucket/")["set"]
        self.moments[last] = self.contents(self.server, "bucket")
        merged = self.merge(outcome["set"], last)["set"]
        self.assertEqual(([merged], []), (self.folders(), self.partial()))
        self.assert_whole(merged)

    def test_forget_clears_away_a_merge_that_was_killed_before_its_commit(self):
        sets = self.chain()
        left = os.path.join(os.path.dirname(self.folder_of(sets[0])), "11111111-2222-4333-8444-555555555555")
        os.mkdir(left, 0o700)
        for name in ("merging", "channel-0000.mtf", ".lock"):
            open(os.path.join(left, name), "w").close()
        try:
            subprocess.run(self.command("forget", "--keep-last", "4"), check=True, timeout=30)
        except subprocess.TimeoutExpired:
            self.fail("forget waits for a lock that nobody lets go of")
        self.assertFalse(os.path.exists(left))
        self.assertEqual(sorted(sets), self.folders())
        self.assert_whole(self.take())

    def test_set_that_is_being_restored_stays_until_that_is_done(self):
        sets = self.chain()
        folder = self.folder_of(sets[0])
        with open(os.path.join(folder, "set.json")) as record:
            fcntl.flock(record, fcntl.LOCK_SH)   # as a restore of it holds it
            answer = self.merge(*sets[:3])
            self.assertEqual([sets[0]], answer["waiting"])
            self.assertEqual([answer["set"], sets[3]], self.sets())
            self.assertTrue(os.path.exists(os.path.join(folder, "catalog.db")))
            self.assert_whole(sets[3])
            kept = self.agent("forget", "--keep-last", "1", "--json").json["groups"][0]["kept"]
            self.assertEqual({answer["set"], sets[3]}, {item["set"] for item in kept})
        self.backup("/bucket/")
        self.assertFalse(os.path.exists(folder))

    def test_sets_that_do_not_belong_together_are_refused(self):
        one = self.take()
        other = self.backup("/target/")["set"]
        self.assertIn("selection", self.agent("merge", one, other, expect=1).stderr)
        self.agent("merge", one, "none", expect=1)
        self.agent("merge", expect=2)
        self.assertEqual([one, other], self.sets())

    def test_one_set_alone_is_not_merged(self):
        one = self.take()
        for names in ((one,), (one, one), ("latest", one)):
            self.assertIn("name two sets at least", self.agent("merge", *names, expect=2).stderr)
        self.assertEqual([one], self.sets())

    def test_second_merge_of_one_selection_is_refused(self):
        one, other = self.take(), self.take()
        place = os.path.dirname(self.folder_of(one))
        folder = os.path.join(self.pool, ".merging", os.path.basename(place))
        os.makedirs(folder)
        with open(os.path.join(folder, ".lock"), "w") as lock:
            fcntl.flock(lock, fcntl.LOCK_EX)
            self.assertIn("in use", self.agent("merge", one, other, expect=1).stderr)
        self.merge(one, other)


if __name__ == "__main__":
    harness.main()
