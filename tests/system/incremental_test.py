"""Incremental sets: what did not change costs no request, and each set of a chain gives back what was there."""
import os
import random
import unittest

import harness

SEED = int(os.environ.get("OBS_SEED", "31"))


class Incremental:
    """The scenarios; the classes below say against which server. Every test has buckets of its own."""

    def setUp(self):
        super().setUp()
        self.client = self.server.client()
        self.written = False
        name = "".join(part[0] for part in self._testMethodName.split("_")).lower() + "-"
        self.bucket, self.second, self.target = name + "data", name + "more", name + "target"
        for bucket in (self.bucket, self.second, self.target):
            self.client.create_bucket(Bucket=bucket)
        self.add_account(self.server)
        self.add_pool()

    def put(self, key, body, bucket=None):
        self.written = True
        self.client.put_object(Bucket=bucket or self.bucket, Key=key, Body=body)

    def delete(self, key):
        self.client.delete_object(Bucket=self.bucket, Key=key)

    def fill(self, count, bucket=None):
        for number in range(count):
            self.put("d%d/e%d/k%03d" % (number % 3, number % 5, number), b"x" * (number + 1), bucket)

    def assert_restores(self, set_id, expected, bucket=None):
        for key in self.contents(self.server, self.target):
            self.client.delete_object(Bucket=self.target, Key=key)
        restored = self.agent("restore", set_id, "--map", "%s=%s" % (bucket or self.bucket, self.target),
                              "/%s/" % (bucket or self.bucket), "--json").json
        self.assertEqual((len(expected), "completed"), (restored["saved"], restored["outcome"]))
        self.assertEqual(expected, self.contents(self.server, self.target))

    def backup(self, *arguments, **options):
        if self.written:
            self.server.settle()
        self.written = False
        return super().backup(*arguments, **options)

    def figures(self, outcome):
        return {name: outcome[name] for name in ("listed", "saved", "unchanged", "deleted")}

    def test_unchanged_objects_cost_no_request_and_no_bytes(self):
        self.fill(60)
        full = self.backup("/%s/" % self.bucket)
        listing = full["requests"] - full["saved"]
        same = self.backup("/%s/" % self.bucket)
        self.assertEqual(dict(listed=60, saved=0, unchanged=60, deleted=0), self.figures(same))
        self.assertEqual((0, 0), (same["bytes_read"], same["bytes_stored"]))
        self.assertLessEqual(same["requests"], listing)
        # Each changed object costs one request more, and nothing else does.
        self.put("d0/e0/k000", b"another")
        self.put("d1/e1/k001", b"another one")
        two = self.backup("/%s/" % self.bucket)
        self.assertEqual(dict(listed=60, saved=2, unchanged=58, deleted=0), self.figures(two))
        self.assertEqual(same["requests"] + 2, two["requests"])
        self.assertEqual(18, two["bytes_read"])

    def test_changed_added_and_removed_objects_are_told_and_restored(self):
        self.fill(40)
        first = self.backup("/%s/" % self.bucket)
        before = self.contents(self.server, self.bucket)
        self.put("d0/e0/k000", b"of another size")
        self.put("a folder/of its own/k", b"new")
        self.put("z", b"")
        for key in ("d1/e1/k001", "d2/e2/k002", "d2/e2/k017"):
            self.delete(key)
        second = self.backup("/%s/" % self.bucket)
        self.assertEqual(dict(listed=39, saved=3, unchanged=36, deleted=3), self.figures(second))
        after = self.contents(self.server, self.bucket)
        self.agent("verify", second["set"])
        self.assert_restores(second["set"], after)
        self.assert_restores(first["set"], before)
        listed = self.agent("ls", second["set"], "--recursive").stdout
        self.assertNotIn("/%s/d1/e1/k001" % self.bucket, listed)
        self.assertIn("/%s/a folder/of its own/k" % self.bucket, listed)

    def test_every_set_of_a_long_chain_is_exact(self):
        print("seed %d" % SEED, flush=True)
        chance = random.Random(SEED)
        content = {}
        size = 0
        sets = []
        for step in range(6):
            for _ in range(12):
                key = "f%d/%s" % (chance.randrange(4), chance.choice("abcdefgh ~é") * chance.randrange(1, 4))
                if key in content and chance.random() < 0.4:
                    self.delete(key)
                    del content[key]
                else:
                    size += 1   # never the same twice, whatever the clock's second is
                    content[key] = bytes([chance.randrange(256)]) * size
                    self.put(key, content[key])
            outcome = self.backup("/%s/" % self.bucket, "--compression", chance.choice(["none", "zstd", "lzop"]),
                                  "--channels", str(chance.randrange(1, 5)))
            self.assertEqual(len(content), outcome["listed"])
            sets.append((outcome["set"], dict(content)))
        rows = self.agent("sets", "--json").json["sets"]
        self.assertEqual([1, 2, 3, 4, 5, 6], [row["seq"] for row in rows])
        self.assertEqual(["full"] + ["incremental"] * 5, [row["type"] for row in rows])
        chance.shuffle(sets)
        for set_id, expected in sets:
            self.agent("verify", set_id)
            self.assert_restores(set_id, expected)
        self.agent("media", "check", *self.media())

    def test_bucket_that_was_emptied_gives_an_empty_set(self):
        self.fill(5)
        first = self.backup("/%s/" % self.bucket, "/%s/" % self.second, "--name", "n")
        before = self.contents(self.server, self.bucket)
        self.put("stays", b"s", self.second)
        for key in before:
            self.delete(key)
        # Named, since the set before had something there.
        second = self.backup("--name", "n", expect=3)
        self.assertEqual(dict(listed=1, saved=1, unchanged=0, deleted=5), self.figures(second))
        self.agent("verify", second["set"])
        self.assert_restores(first["set"], before)

    def test_sources_in_another_order_are_unchanged(self):
        self.fill(20)
        self.fill(10, self.second)
        sources = ["/%s/d0/" % self.bucket, "/%s/" % self.second, "/%s/d2/" % self.bucket]
        first = self.backup(*sources, "--name", "n")
        chain = self.backup(*reversed(sources), "--name", "n")
        self.assertEqual(dict(listed=first["saved"], saved=0, unchanged=first["saved"], deleted=0),
                         self.figures(chain))
        third = self.backup(sources[1], sources[2], sources[0], "--name", "n")
        self.assertEqual((0, first["saved"]), (third["saved"], third["unchanged"]))
        self.agent("verify", third["set"])
        self.assert_restores(third["set"], self.contents(self.server, self.second), self.second)

    def test_sources_may_be_added_and_removed(self):
        self.fill(15)
        self.fill(6, self.second)
        first = self.backup("/%s/" % self.bucket, "--name", "n")
        both = self.backup("/%s/" % self.second, "/%s/" % self.bucket, "--name", "n")
        self.assertEqual(dict(listed=21, saved=6, unchanged=15, deleted=0), self.figures(both))
        alone = self.backup("/%s/" % self.second, "--name", "n")
        self.assertEqual((6, 0, 6), (alone["listed"], alone["saved"], alone["unchanged"]))
        self.assertNotIn("/%s/" % self.bucket, self.agent("ls", alone["set"]).stdout)
        self.assert_restores(both["set"], self.contents(self.server, self.second), self.second)
        self.assert_restores(first["set"], self.contents(self.server, self.bucket))

    def test_second_full_set_gets_a_number_of_its_own(self):
        self.fill(10)
        one = self.backup("/%s/" % self.bucket)
        old = self.contents(self.server, self.bucket)
        self.put("d0/e0/k000", b"of the second full set")
        self.backup("/%s/" % self.bucket)
        self.delete("d1/e1/k001")
        two = self.backup("/%s/" % self.bucket, "--full")
        self.assertEqual((9, 0), (two["saved"], two["unchanged"]))
        new = self.contents(self.server, self.bucket)
        self.put("last", b"last")
        three = self.backup("/%s/" % self.bucket)
        self.assertEqual((1, 9), (three["saved"], three["unchanged"]))
        rows = self.agent("sets", "--json").json["sets"]
        self.assertEqual([1, 2, 3, 4], [row["seq"] for row in rows])
        self.assertEqual(["full", "incremental", "full", "incremental"], [row["type"] for row in rows])
        self.assert_restores(one["set"], old)
        self.assert_restores(two["set"], new)
        self.assert_restores(three["set"], dict(new, last=b"last"))
        # The later chain stands on its own.
        self.agent("forget", "--keep-last", "2")
        self.assert_restores(three["set"], dict(new, last=b"last"))

    def test_excluded_from_now_on_is_neither_kept_nor_deleted_wrongly(self):
        self.put("keep.txt", b"k")
        self.put("drop.tmp", b"d")
        self.backup("/%s/" % self.bucket, "--name", "n")
        outcome = self.backup("/%s/" % self.bucket, "--exclude", "*.tmp", "--name", "n")
        self.assertEqual((2, 0, 1, 1), tuple(outcome[name] for name in ("listed", "saved", "unchanged", "excluded")))
        self.assertNotIn("drop.tmp", self.agent("ls", outcome["set"], "--recursive").stdout)
        self.assertEqual(0, outcome["deleted"])
        self.assertNotIn("deleted", self.agent("find", "drop.tmp").stdout)

    def test_what_was_deleted_is_found_with_its_size_and_the_set_that_missed_it(self):
        self.put("a/keep", b"k")
        self.put("a/b/gone", b"12345")
        self.put("gone too", b"7654321")
        first = self.backup("/%s/" % self.bucket)
        for key in ("a/b/gone", "gone too"):
            self.client.delete_object(Bucket=self.bucket, Key=key)
        second = self.backup("/%s/" % self.bucket)
        self.assertEqual(2, second["deleted"])
        lines = self.agent("find", "gone*", "--json").json_lines
        deleted = {line["file"]: line for line in lines if line.get("deleted")}
        held = {line["file"]: line for line in lines if not line.get("deleted")}
        self.assertEqual({"/%s/a/b/gone" % self.bucket: 5, "/%s/gone too" % self.bucket: 7},
                         {path: line["size"] for path, line in deleted.items()})
        self.assertEqual(set(deleted), set(held))
        self.assertEqual({second["set"]}, {line["set"] for line in deleted.values()})
        self.assertEqual({first["set"]}, {line["set"] for line in held.values()})
        for path, line in deleted.items():
            self.assertEqual(held[path]["mtime"], line["mtime"])
        self.assertIn("/%s/gone too  (deleted)" % self.bucket, self.agent("find", "gone too").stdout)
        # What is gone for good is told once.
        self.assertEqual(0, self.backup("/%s/" % self.bucket)["deleted"])


class Incremental_On_Test_Server(Incremental, harness.Scenario):
    @classmethod
    def setUpClass(cls):
        cls.server = harness.Test_Server("--page-size", "7")
        cls.addClassCleanup(cls.server.stop)


class Incremental_On_Real_Server(Incremental, harness.Scenario):
    @classmethod
    def setUpClass(cls):
        cls.server = harness.Real_Server()
        cls.addClassCleanup(cls.server.stop)


class Just_Written(harness.Scenario):
    """What was modified less than two seconds before it was read counts as changed, by the service's clock alone."""

    def setUp(self):
        super().setUp()
        self.server = harness.Test_Server("--stopped-clock", "--bucket", "bucket", "--log")
        self.addCleanup(self.server.stop)
        self.client = self.server.client()
        self.add_account(self.server)
        self.add_pool()

    def put(self, key, body):
        self.client.put_object(Bucket="bucket", Key=key, Body=body)

    def counts(self, outcome):
        return outcome["saved"], outcome["unchanged"]

    def test_overwritten_in_the_same_second_with_the_same_size_is_seen(self):
        self.put("old", b"o")
        self.server.ask("advance", "2")
        self.put("k", b"one")
        self.assertEqual((2, 0), self.counts(self.backup("/bucket/")))
        self.put("k", b"two")
        second = self.backup("/bucket/")
        self.assertEqual((1, 1), self.counts(second))
        self.agent("restore", second["set"], "--map", "bucket=restored", "--create-bucket")
        self.assertEqual({"old": b"o", "k": b"two"}, self.contents(self.server, "restored"))

    def look(self):
        """A run that finds nothing changed; whether it has asked for the object all the same."""
        before = self.server.ask("requests", "bucket", "k")
        self.assertEqual((0, 1), self.counts(self.backup("/bucket/")))
        return before != self.server.ask("requests", "bucket", "k")

    def test_looked_at_anew_until_its_second_is_over_and_then_never_again(self):
        self.put("k", b"one")
        self.assertEqual((1, 0), self.counts(self.backup("/bucket/")))
        self.server.ask("advance", "1")
        self.assertTrue(self.look())
        self.server.ask("advance", "1")
        self.assertTrue(self.look())
        self.assertFalse(self.look())
        self.assertFalse(self.look())

    def test_clock_of_this_machine_does_not_count(self):
        # The service lives in another time; only the distance of its own dates matters.
        for number, seconds in enumerate(("600", "-1200")):
            self.server.ask("advance", seconds)
            self.put("k", b"one" + b"." * number)
            self.assertEqual((1, 0), self.counts(self.backup("/bucket/")))
            self.server.ask("advance", "2")
            self.assertTrue(self.look())
            self.assertFalse(self.look())


if __name__ == "__main__":
    harness.main()
