"""`media check` finds media as they should be, and damage where it is; `media dump` names every block."""
import os
import shutil
import unittest

import harness


class Media(harness.Scenario):
    @classmethod
    def setUpClass(cls):
        cls.server = harness.Test_Server("--synthetic", "bucket,300,5000")
        cls.addClassCleanup(cls.server.stop)

    def make_sets(self):
        self.add_account(self.server)
        self.add_pool()
        for compression in ("none", "zstd", "lzop"):
            self.backup("/bucket/", "--full", "--channels", "3", "--compression", compression)

    def test_every_medium_of_every_set_is_clean(self):
        self.make_sets()
        self.backup("/bucket/")
        media = self.media()
        self.assertEqual(12, len(media))
        result = self.agent("media", "check", *media, "--json")
        self.assertEqual(media, [line["medium"] for line in result.json_lines])
        self.assertTrue(all(line["clean"] for line in result.json_lines))
        self.assertEqual(900, sum(line["objects"] for line in result.json_lines))
        self.assertEqual(900 * 5000, sum(line["bytes"] for line in result.json_lines))
        self.assertIn("clean", self.agent("media", "check", media[0]).stdout)

    def test_flipped_bit_is_named_with_its_object(self):
        self.make_sets()
        for medium in self.media():
            size = os.path.getsize(medium)
            copy = os.path.join(self.folder, "copy.mtf")
            shutil.copy(medium, copy)
            with open(copy, "r+b") as file:
                file.seek(size // 2)
                byte = file.read(1)[0]
                file.seek(size // 2)
                file.write(bytes([byte ^ 0x10]))
            lines = self.agent("media", "check", copy, "--json", expect=1).json_lines
            self.assertFalse(lines[-1]["clean"], medium)
            self.assertEqual(lines[-1]["problems"], len(lines) - 1)
            # A problem may reach over the whole object that holds the byte.
            self.assertTrue(any(line["offset"] <= size // 2 < line["offset"] + max(line["length"], 1)
                                for line in lines[:-1]), (size // 2, lines))
            self.assertIn("problems", self.agent("media", "check", copy, expect=1).stdout)

    def test_cut_medium_is_not_clean(self):
        self.make_sets()
        copy = os.path.join(self.folder, "copy.mtf")
        shutil.copy(self.media()[0], copy)
        os.truncate(copy, os.path.getsize(copy) // 2)
        self.assertFalse(self.agent("media", "check", copy, "--json", expect=1).json["clean"])

    def test_one_bad_medium_does_not_hide_the_others(self):
        self.make_sets()
        good = self.media()[0]
        result = self.agent("media", "check", os.path.join(self.folder, "missing"), good, "--json", expect=1)
        self.assertEqual([False, True], [line["clean"] for line in result.json_lines])
        self.assertIn("missing", result.stderr)

    def test_file_that_is_no_medium_is_refused_or_reported(self):
        path = os.path.join(self.folder, "text")
        with open(path, "wb") as file:
            file.write(b"nothing of the kind" * 1000)
        self.assertFalse(self.agent("media", "check", path, "--json", expect=1).json["clean"])

    def test_dump_names_every_object_and_each_kind_of_block(self):
        self.make_sets()
        text = "".join(self.agent("media", "dump", medium).stdout for medium in self.media())
        for block in ("TAPE", "SSET", "VOLB", "DIRB", "FILE", "ESET"):
            self.assertIn(" %s FLA" % block, text)
        self.assertEqual(3, text.count('path "bucket/d0000/e02/object-0000000250"'))
        result = self.agent("media", "dump", os.path.join(self.folder, "missing"), expect=1)
        self.assertIn("missing", result.stderr)


if __name__ == "__main__":
    harness.main()
