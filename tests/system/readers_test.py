"""Plain media are read by readers that know nothing of this program."""
import unittest

import harness
import raw_s3

TYPES = ["TAPE", "SSET", "VOLB", "DIRB", "FILE", "CFIL", "ESPB", "ESET", "EOTM", "SFMB"]


class Readers(harness.Scenario):
    def setUp(self):
        super().setUp()
        self.server = harness.Test_Server("--bucket", "data")
        self.addCleanup(self.server.stop)
        self.raw = raw_s3.Raw_Client(self.server)
        self.add_account(self.server)
        self.add_pool()
        self.objects = {}

    def put(self, key, content):
        self.assertTrue(self.raw.put("data", key, content), key)
        self.objects[b"data/" + key] = content

    def fill(self):
        for size in (0, 1, 1000, 1023, 1024, 1025, 100000):
            self.put(b"sizes/%d" % size, bytes(range(256)) * (size // 256) + b"x" * (size % 256))
        self.put(b"large", b"0123456789abcdef" * (3 << 16))
        for key in (b"a", b"a/b", b"a//b", b"/lead", b"..", b"../up", b"tab\there", b"line\nbreak", b"n" * 300, b"d/" * 300 + b"deep",
                    "\u65e5\u672c/\U0001f600".encode(), b"back\\slash", b"C:", b"x~0123456789abcdef", b"\x01", b"\xff\xfe/\x80"):
            self.put(key, b"content of " + key)

    def test_every_content_and_every_name_that_can_be_carried(self):
        self.fill()
        for channels in ("1", "4"):
            outcome = self.backup("/data/", "--full", "--channels", channels)
            self.assertEqual(len(self.objects), outcome["saved"])
            media = self.media(outcome["set"])
            self.assertEqual(int(channels), len(media))
            self.assert_readable_elsewhere(media, self.objects)

    def test_incremental_holds_what_has_changed(self):
        self.fill()
        self.backup("/data/", "--channels", "2")
        self.objects = {}
        self.put(b"a/b", b"now longer than it was")
        self.put(b"new/one", b"")
        outcome = self.backup("/data/", "--channels", "2")
        self.assertEqual(2, outcome["saved"])
        self.assert_readable_elsewhere(self.media(outcome["set"]), self.objects)

    def test_merged_set_is_read_as_well(self):
        self.fill()
        first = self.backup("/data/")["set"]
        self.put(b"new/one", b"one")
        second = self.backup("/data/")["set"]
        merged = self.agent("merge", first, second, "--json").json["set"]
        self.assert_readable_elsewhere(self.media(merged), self.objects)

    def test_names_and_contents_that_look_like_blocks_lead_no_reader_astray(self):
        for number, name in enumerate(TYPES):
            for shift in range(4):
                self.put(b"%s/%d" % (name.encode() * 40, shift), b"." * shift + name.encode() * 2000)
                # A folder with content is left out, and its name stands in the record.
                self.assertTrue(self.raw.put("data", b"." * shift + name.encode() * (150 + number) + b"/", b"content"))
        for number in range(200):
            self.assertTrue(self.raw.put("data", b"%03d" % number + b"." * (number % 4) + b"FILE" * 150 + b"/", b"content"))
        outcome = self.backup("/data/", expect=3)
        self.assertEqual((40, 240), (outcome["saved"], outcome["skipped"]))
        media = self.media(outcome["set"])
        self.assert_readable_elsewhere(media, self.objects)
        record = b""
        for path in media:
            with open(path, "rb") as file:
                data = file.read()
            record += data[data.rfind(b"OBSR"):]
        # What provokes it is there: more than fits between two boundaries.
        self.assertGreater(record.count(b"FILE"), 30000)


if __name__ == "__main__":
    harness.main()
