"""Encrypted pools: the whole road with nothing of it readable in the pool, and every way of having the wrong key."""
import json
import os
import re
import shutil
import unittest

import harness

PASSPHRASE = b"correct horse battery staple\n"
OTHER = b"another passphrase altogether\n"
# No name and no content without one of these words.
WORDS = (b"secretname", b"secretfolder", b"secretbucket", b"secretcontent")


class Encrypted:
    """The scenarios; the classes below say against which server. Every test has buckets of its own."""

    def setUp(self):
        super().setUp()
        self.client = self.server.client()
        name = "".join(part[0] for part in self._testMethodName.split("_")).lower()
        self.bucket, self.target = "secretbucket-" + name, "target-" + name
        for bucket in (self.bucket, self.target):
            self.client.create_bucket(Bucket=bucket)
        self.add_account(self.server)
        self.passphrase = self.write("passphrase", PASSPHRASE)
        self.other = self.write("other", OTHER)
        self.url = "file://" + self.pool

    def write(self, name, content):
        path = os.path.join(self.folder, name)
        with open(path, "wb") as file:
            file.write(content)
        return path

    def add_encrypted(self, *arguments):
        return self.agent("pool", "add", "disk", self.url, *(arguments or ("--encrypt", "--passphrase-file",
                                                                          self.passphrase)))

    def put(self, key, body):
        self.client.put_object(Bucket=self.bucket, Key=key, Body=body)

    def fill(self):
        for number in range(40):
            self.put("secretfolder%d/secretname%03d" % (number % 4, number), b"secretcontent " * number)
        self.put("secretname empty", b"")
        self.client.put_object(Bucket=self.bucket, Key="secretname with attributes", Body=b"secretcontent",
                               Metadata={"secretname": "secretcontent"}, ContentType="text/secretcontent")
        self.put("secretfolder/" * 30 + "secretname", b"deep secretcontent")
        self.put("secretname large", b"".join(b"secretcontent %08d " % i for i in range(150000)))

    def files(self):
        return [os.path.join(folder, name) for folder, _, names in os.walk(self.pool) for name in names]

    def read(self, path):
        with open(path, "rb") as file:
            return file.read()

    def words_in_pool(self):
        """Which of the words can be read where."""
        found = []
        for path in self.files():
            content = self.read(path)
            for word in WORDS:
                for form in (word, word.decode().encode("utf-16-le"), word.hex().encode()):
                    if form in content:
                        found.append((os.path.basename(path), word))
        return found

    def assert_nothing_readable(self):
        self.assertEqual([], self.words_in_pool())

    def assert_restores(self, set_id, expected):
        for key in self.contents(self.server, self.target):
            self.client.delete_object(Bucket=self.target, Key=key)
        restored = self.agent("restore", set_id, "--to", "work", "--map", "%s=%s" % (self.bucket, self.target),
                              "--json").json
        self.assertEqual(("completed", len(expected)), (restored["outcome"], restored["saved"]))
        self.assertEqual(expected, self.contents(self.server, self.target))

    def test_whole_road(self):
        self.fill()
        self.server.settle()
        self.add_encrypted()
        full = self.backup("/%s/" % self.bucket, "--compression", "zstd")["set"]
        before = self.contents(self.server, self.bucket)
        self.put("secretfolder1/secretname001", b"changed secretcontent")
        self.put("secretfolder9/secretname new", b"new secretcontent")
        self.client.delete_object(Bucket=self.bucket, Key="secretfolder2/secretname002")
        outcome = self.backup("/%s/" % self.bucket)
        second = outcome["set"]
        self.assertEqual((44, 2, 42, 1), tuple(outcome[key] for key in ("listed", "saved", "unchanged", "deleted")))
        after = self.contents(self.server, self.bucket)
        self.assert_nothing_readable()

        prefix = "/%s/" % self.bucket
        listed = self.agent("ls", second, prefix + "secretfolder1/").stdout
        self.assertIn(prefix + "secretfolder1/secretname001", listed)
        everything = self.agent("ls", second, "--recursive").stdout.splitlines()
        self.assertEqual(len(after), len(everything))
        self.assertIn("secretname new", self.agent("find", "*name new", "--account", "work").stdout)
        changes = self.agent("diff", full, second).stdout
        for key in ("secretfolder1/secretname001", "secretfolder9/secretname new", "secretfolder2/secretname002"):
            self.assertIn(key, changes)
        for one in (full, second):
            report = self.agent("verify", one, "--json").json
            self.assertTrue(report["clean"], report)
        self.assert_restores(second, after)
        self.assertEqual({"secretname": "secretcontent"}, self.client.head_object(
            Bucket=self.target, Key="secretname with attributes")["Metadata"])
        self.assert_restores(full, before)
        # The selection's name is made from its paths, and is found in the record of the set, where it is sealed.
        kept = self.agent("forget", "work", "--pool", "disk", "--keep-last", "1", "--json").stdout
        self.assertIn(prefix, kept)
        self.assert_nothing_readable()
        self.assertTrue(self.agent("verify", second, "--json").json["clean"])

    def test_plain_pool_can_be_read_where_an_encrypted_one_cannot(self):
        self.fill()
        self.add_pool()
        self.backup("/%s/" % self.bucket)
        found = self.words_in_pool()
        for name in ("catalog.db", "set.json", "channel-0000.mtf"):
            self.assertIn((name, b"secretbucket"), found)

    def test_state_is_lost_and_the_passphrase_brings_everything_back(self):
        self.fill()
        self.add_encrypted()
        first = self.backup("/%s/" % self.bucket)["set"]
        expected = self.contents(self.server, self.bucket)
        shutil.rmtree(self.state)
        self.add_account(self.server)
        refused = self.agent("pool", "add", "disk", self.url, expect=1)
        self.assertIn("--passphrase-file", refused.stderr)
        refused = self.agent("pool", "add", "disk", self.url, "--passphrase-file", self.other, expect=1)
        self.assertIn("the passphrase is not the pool's", refused.stderr)
        refused = self.agent("pool", "add", "disk", self.url, "--key-file", self.write("key", os.urandom(32)), expect=1)
        self.assertIn("locked with a passphrase", refused.stderr)
        added = self.agent("pool", "add", "disk", self.url, "--passphrase-file", "-", input=PASSPHRASE)
        self.assertIn("taken up, with 1 set\n", added.stdout)
        self.assertTrue(self.agent("verify", first, "--json").json["clean"])
        self.assert_restores(first, expected)
        # The chain goes on.
        self.assertEqual(0, self.agent("backup", "work", "/%s/" % self.bucket, "--pool", "disk", "--json")
                         .json["failed"])

    def test_rekey_changes_what_opens_the_pool_and_nothing_else(self):
        self.fill()
        self.add_encrypted()
        first = self.backup("/%s/" % self.bucket)["set"]
        media = {path: self.read(path) for path in self.files()
                 if os.path.basename(path) not in ("pool.json", ".lock")}
        key = self.write("key", os.urandom(64))
        self.agent("pool", "rekey", "disk", "--key-file", key)
        self.assertEqual(media, {path: self.read(path) for path in media})
        self.assertTrue(self.agent("verify", first, "--json").json["clean"])
        shutil.rmtree(self.state)
        self.add_account(self.server)
        refused = self.agent("pool", "add", "disk", self.url, "--passphrase-file", self.passphrase, expect=1)
        self.assertIn("locked with a key file", refused.stderr)
        refused = self.agent("pool", "add", "disk", self.url, "--key-file", self.write("wrong", os.urandom(64)), expect=1)
        self.assertIn("the key file is not the pool's", refused.stderr)
        self.agent("pool", "add", "disk", self.url, "--key-file", key)
        self.assert_restores(first, self.contents(self.server, self.bucket))

    def test_secrets_are_nowhere_to_be_read(self):
        self.fill()
        key = os.urandom(48)
        self.agent("pool", "add", "disk", self.url, "--encrypt", "--key-file", self.write("key", key))
        self.backup("/%s/" % self.bucket)
        os.unlink(os.path.join(self.folder, "key"))
        for folder, _, names in os.walk(self.folder):
            for name in names:
                content = self.read(os.path.join(folder, name))
                self.assertNotIn(key, content, name)
                self.assertNotIn(key.hex().encode(), content, name)

    def test_bad_arguments_make_no_pool(self):
        for arguments, reason in (
                (("--encrypt",), "--passphrase-file or --key-file"),
                (("--passphrase-file", self.passphrase), "--encrypt"),
                (("--encrypt", "--passphrase-file", self.write("short", b"short\n")), "too short"),
                (("--encrypt", "--key-file", self.write("small", b"x" * 31)), "too short"),
                (("--encrypt", "--key-file", os.path.join(self.folder, "missing")), "No such file")):
            refused = self.agent("pool", "add", "disk", self.url, *arguments, expect=1)
            self.assertIn(reason, refused.stderr)
            self.assertFalse(os.path.exists(os.path.join(self.pool, "pool.json")))
        self.add_pool()
        self.assertIn("not encrypted", self.agent("pool", "rekey", "disk", "--passphrase-file", self.passphrase,
                                                  expect=1).stderr)
        self.assertIn("not encrypted", self.agent("pool", "add", "again", self.url, "--encrypt", "--passphrase-file",
                                                  self.passphrase, expect=1).stderr)

    def test_media_can_be_checked_and_described_without_the_key(self):
        self.fill()
        self.add_encrypted()
        self.backup("/%s/" % self.bucket, "--channels", "1")
        medium, = self.media()
        opened = self.agent("media", "dump", medium, "--pool", "disk").stdout
        self.assertIn('path "%s/secretname empty"' % self.bucket, opened)
        self.assertTrue(self.agent("media", "check", medium, "--pool", "disk", "--json").json["clean"])
        shutil.rmtree(self.state)
        checked = self.agent("media", "check", medium, "--json").json
        self.assertEqual((True, 44), (checked["clean"], checked["objects"]))
        dump = self.agent("media", "dump", medium).stdout
        self.assertEqual(44, len(re.findall(r"OBSH .* encrypted", dump)))
        self.assertNotIn("????", dump)
        self.assertNotIn("secret", dump)
        self.damages_media = True
        with open(medium, "r+b") as file:
            place = int(re.search(r"(\d+) OBSX", dump).group(1)) + 80
            file.seek(place)
            byte = file.read(1)[0]
            file.seek(place)
            file.write(bytes([byte ^ 1]))
        checked = self.agent("media", "check", medium, "--json", expect=1).json_lines
        self.assertEqual(1, checked[-1]["problems"])
        self.assertRegex(checked[0]["object"], "object-[0-9]+")

    def test_plain_set_put_into_an_encrypted_pool_is_refused(self):
        self.put("secretname", b"1")
        self.add_encrypted()
        encrypted = self.backup("/%s/" % self.bucket)["set"]
        self.agent("pool", "add", "plain", "file://" + self.folder + "/plain")
        plain = self.agent("backup", "work", "/%s/" % self.bucket, "--pool", "plain", "--json").json["set"]
        place = {}
        for root in (self.pool, self.folder + "/plain"):
            for folder, _, names in os.walk(root):
                if "set.json" in names:
                    place[os.path.basename(folder)] = folder
        shutil.rmtree(self.state)
        shutil.copytree(place[plain], os.path.join(os.path.dirname(place[encrypted]), plain))
        self.add_account(self.server)
        self.add_encrypted("--passphrase-file", self.passphrase)
        refused = self.agent("ls", plain, expect=1)
        self.assertIn("is not encrypted, and the pool that it lies in is", refused.stderr)
        self.assertIn("is not encrypted", self.agent("verify", plain, "--json", expect=1).json["message"])
        self.agent("ls", encrypted)

    def test_key_can_be_given_again_when_the_master_key_is_lost(self):
        self.put("secretname", b"1")
        self.add_encrypted()
        first = self.backup("/%s/" % self.bucket)["set"]
        os.unlink(os.path.join(self.state, "master.key"))
        self.assertIn("pool unlock", self.agent("ls", first, expect=1).stderr)
        wrong = self.agent("pool", "unlock", "disk", "--passphrase-file", self.other, expect=1)
        self.assertIn("the passphrase is not the pool's", wrong.stderr)
        self.agent("pool", "unlock", "disk", "--passphrase-file", self.passphrase)
        self.agent("ls", first)

    def test_kept_key_of_another_pool_is_told_from_damage(self):
        self.put("secretname", b"1")
        self.add_encrypted()
        first = self.backup("/%s/" % self.bucket)["set"]
        path = os.path.join(self.pool, "pool.json")
        with open(path) as file:
            pool = json.load(file)
        pool["key_check"] = "0123456789abcdef"
        with open(path, "w") as file:
            json.dump(pool, file)
        self.assertIn("it has another key than when it was used last", self.agent("ls", first, expect=1).stderr)
        pool["key_check"], pool["key"]["salt"] = "0" * 16, "00" * 32
        with open(path, "w") as file:
            json.dump(pool, file)
        shutil.rmtree(self.state)
        refused = self.agent("pool", "add", "disk", self.url, "--passphrase-file", self.passphrase, expect=1)
        self.assertIn("damaged", refused.stderr)

    def test_pool_that_turned_plain_gets_nothing_in_the_clear(self):
        self.put("secretname", b"secretcontent")
        self.add_encrypted()
        first = self.backup("/%s/" % self.bucket)["set"]
        path = os.path.join(self.pool, "pool.json")
        with open(path) as file:
            text = file.read()
        with open(path, "w") as file:
            json.dump({"uuid": json.loads(text)["uuid"], "format": 1, "encryption": "none"}, file)
        self.put("secretname2", b"secretcontent 2")
        for command in (["backup", "work", "/%s/" % self.bucket, "--pool", "disk"], ["ls", first], ["verify", first],
                        ["forget", "--keep-last", "1"], ["pool", "show", "disk"],
                        ["pool", "change", "disk", "--url", self.url], ["pool", "add", "other", self.url]):
            refused = self.agent(*command, expect=None)
            self.assertNotEqual(0, refused.returncode, command)
            self.assertIn("it was encrypted when it was", refused.stderr + refused.stdout + self.last_log_lines(),
                          command)
        self.assert_nothing_readable()
        # Nor where nothing is known of it.
        known, self.state = self.state, os.path.join(self.folder, "fresh")
        self.assertIn("and holds encrypted sets", self.agent("pool", "add", "disk", self.url, expect=1).stderr)
        self.state = known
        with open(path, "w") as file:
            file.write(text)
        second = self.backup("/%s/" % self.bucket)
        self.assertEqual((1, 1), (second["saved"], second["unchanged"]))
        self.assert_nothing_readable()


class Encrypted_On_Test_Server(Encrypted, harness.Scenario):
    @classmethod
    def setUpClass(cls):
        cls.server = harness.Test_Server()
        cls.addClassCleanup(cls.server.stop)


class Encrypted_On_Real_Server(Encrypted, harness.Scenario):
    @classmethod
    def setUpClass(cls):
        cls.server = harness.Real_Server()
        cls.addClassCleanup(cls.server.stop)


if __name__ == "__main__":
    harness.main()
