"""verify: what is damaged is named, what is good is told, and so is what a restore would lack."""
import os
import shutil
import unittest

import harness


class Verify:
    """The scenarios; the classes below say of which pool."""
    encrypt = False

    @classmethod
    def setUpClass(cls):
        cls.server = harness.Test_Server()
        cls.addClassCleanup(cls.server.stop)

    def setUp(self):
        super().setUp()
        self.client = self.server.client()
        name = "".join(part[0] for part in self._testMethodName.split("_")).lower()
        self.bucket, self.target = "data-" + name, "target-" + name
        for bucket in (self.bucket, self.target):
            if bucket not in [one["Name"] for one in self.client.list_buckets()["Buckets"]]:
                self.client.create_bucket(Bucket=bucket)
        for number in range(50):
            self.client.put_object(Bucket=self.bucket, Key="d%d/k%02d" % (number % 3, number), Body=b"v%03d" % number * 50)
        self.add_account(self.server)
        self.passphrase = os.path.join(self.folder, "passphrase")
        with open(self.passphrase, "w") as file:
            file.write("correct horse battery staple")
        self.agent("pool", "add", "disk", "file://" + self.pool, *self.arguments())

    def arguments(self):
        return ("--encrypt", "--passphrase-file", self.passphrase) if self.encrypt else ()

    def flip(self, path, place):
        with open(path, "r+b") as file:
            file.seek(place)
            byte = file.read(1)[0]
            file.seek(place)
            file.write(bytes([byte ^ 1]))

    def verify(self, set_id, *arguments, expect=0):
        return self.agent("verify", set_id, "--json", *arguments, expect=expect).json_lines

    def test_damaged_objects_are_named_and_a_restore_lacks_just_these(self):
        self.damages_media = True
        made = self.backup("/%s/" % self.bucket, "--channels", "1")["set"]
        medium, = self.media()
        size = os.path.getsize(medium)
        places = [size * part // 20 for part in (2, 5, 7)]   # before the copy of the catalog
        for place in places:
            self.flip(medium, place)
        lines = self.verify(made, expect=1)
        report = lines[-1]
        named = {line["name"] for line in lines[:-1]}
        lost = {line["name"] for line in lines[:-1] if line["lost"]}
        self.assertFalse(report["clean"])
        self.assertEqual(50, report["good"] + report["damaged"])
        # Some of the bits may have hit padding or a block in front of an object, which costs no object.
        self.assertGreaterEqual(3, report["damaged"])
        self.assertEqual(report["damaged"], len(named))
        self.assertGreaterEqual(report["damaged"] + len(report["media"]), 3)
        self.assertEqual({damage["name"] for damage in report["damages"]}, named)
        text = self.agent("verify", made, expect=1).stdout
        for name in named:
            self.assertIn("damaged: '%s'" % name, text)
        restored = self.agent("restore", made, "--map", "%s=%s" % (self.bucket, self.target), "--json",
                              expect=3 if named else 0).json
        self.assertEqual((50 - len(lost), len(lost)), (restored["saved"], restored["failed"]))
        self.assertEqual(len(lost), report["lost"])
        got = {"/%s/%s" % (self.bucket, key) for key in self.contents(self.server, self.target)}
        self.assertEqual(50 - len(lost), len(got))
        self.assertFalse(lost & got)

    def test_set_that_others_need_is_gone(self):
        first = self.backup("/%s/" % self.bucket)["set"]
        self.client.put_object(Bucket=self.bucket, Key="new", Body=b"new")
        second = self.backup("/%s/" % self.bucket)["set"]
        self.assertTrue(self.verify(second)[-1]["clean"])
        folder = next(folder for folder, _, _ in os.walk(self.pool) if os.path.basename(folder) == first)
        shutil.move(folder, os.path.join(self.folder, "away"))
        lines = self.verify(second, expect=1)
        report = lines[-1]
        self.assertEqual((51, 1, 50), tuple(report[key] for key in ("objects", "good", "damaged")))
        self.assertEqual(50, len(lines) - 1)
        self.assertEqual({first}, {line["set"] for line in lines[:-1]})
        self.assertEqual(50 * 200, report["lost_bytes"])
        own = [place for place in report["places"] if place["own"]]
        self.assertEqual([1], [place["good"] for place in own if place["objects"]])
        for place in report["places"]:
            if not place["own"]:
                self.assertIn("is missing", place["error"])
        text = self.agent("verify", second, "--sample", "1%", expect=1).stdout
        self.assertIn("a restore would lack 50 objects", text)

    def test_what_is_marked_is_stored_anew_by_the_next_backup(self):
        self.damages_media = True
        made = self.backup("/%s/" % self.bucket, "--channels", "1")["set"]
        second = self.backup("/%s/" % self.bucket, "--channels", "1")["set"]
        expected = self.contents(self.server, self.bucket)
        medium, = self.media(made)
        named = set()
        for part in range(2, 10):   # until an object's own bytes are hit
            # Not always the same place in a block, whatever the medium's length is.
            self.flip(medium, os.path.getsize(medium) * part // 40 + 77 * part)
            lines = self.verify(second, expect=1 if named else None)
            named = {line["name"] for line in lines[:-1]}
            if len(named) >= 2:
                break
        self.assertGreaterEqual(len(named), 2)
        self.assertIn("with --mark the next incremental backup", self.agent("verify", second, expect=1).stdout)
        self.assertEqual(0, self.backup("/%s/" % self.bucket)["saved"], "nobody has said that anything is wrong")
        marked = self.verify(second, "--mark", expect=1)[-1]
        self.assertEqual(3 * len(named), marked["marked"], "the catalogs of all three sets point to the damage")
        shown = self.agent("find", "/%s/**" % self.bucket, "--set", second, "--json").json_lines
        self.assertEqual(named, {line["file"] for line in shown if line.get("damaged")})
        text = self.agent("verify", second, "--mark", expect=1).stdout
        self.assertIn("0 entries of catalogs are marked", text)
        mended = self.backup("/%s/" % self.bucket)
        self.assertEqual((len(named), 50 - len(named)), (mended["saved"], mended["unchanged"]))
        self.assertTrue(self.verify(mended["set"])[-1]["clean"])
        restored = self.agent("restore", mended["set"], "--map", "%s=%s" % (self.bucket, self.target), "--json").json
        self.assertEqual((50, "completed"), (restored["saved"], restored["outcome"]))
        self.assertEqual(expected, self.contents(self.server, self.target))

    def test_medium_that_is_gone_is_named_and_its_objects_are_stored_anew(self):
        made = self.backup("/%s/" % self.bucket, "--channels", "2")["set"]
        gone = self.media(made)[1]
        os.remove(gone)
        again = self.backup("/%s/" % self.bucket)
        self.assertGreater(again["saved"], 0)
        self.assertEqual(50, again["saved"] + again["unchanged"])
        self.assertIn(os.path.basename(gone), again["errors"][0]["name"])
        self.assertTrue(self.verify(again["set"])[-1]["clean"])

    def test_sample_reads_a_part_and_says_which(self):
        made = self.backup("/%s/" % self.bucket)["set"]
        report = self.verify(made, "--sample", "40%")[-1]
        self.assertTrue(report["clean"])
        self.assertEqual(40, report["sample"])
        self.assertLess(report["checked"], 50)
        self.assertEqual(report["checked"], report["good"])
        again = self.verify(made, "--sample", "40", "--seed", str(report["seed"]))[-1]
        self.assertEqual((report["checked"], report["bytes"]), (again["checked"], again["bytes"]))
        for bad in ("0%", "101%", "x", "", "-5%", "5%%", "nan"):
            self.assertIn("is no part of a set", self.agent("verify", made, "--sample", bad, expect=2).stderr)


class Verify_Plain(Verify, harness.Scenario):
    pass


class Verify_Encrypted(Verify, harness.Scenario):
    encrypt = True


if __name__ == "__main__":
    harness.main()
