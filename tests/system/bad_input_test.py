"""Whatever is wrong: one clear message, the right exit code, and no set."""
import json
import os
import socket
import subprocess
import unittest

import harness


class Bad_Input(harness.Scenario):
    @classmethod
    def setUpClass(cls):
        cls.server = harness.Test_Server("--synthetic", "bucket,200,65536")
        cls.addClassCleanup(cls.server.stop)

    def assert_refused(self, *arguments, code=1, says=()):
        result = self.agent(*arguments, expect=code)
        lines = [line for line in result.stderr.splitlines() if line.strip()]
        self.assertEqual(1, len(lines), result.stderr)
        for text in says:
            self.assertIn(text, lines[0])
        self.assertNotIn(self.server.secret_key, result.stdout + result.stderr)
        if os.path.isdir(self.pool):
            self.assertEqual([], self.agent("sets", "--json").json["sets"])
            self.assertEqual([], self.unfinished())

    def test_unknown_account(self):
        self.add_pool()
        self.assert_refused("backup", "nobody", "/bucket/", "--pool", "disk", says=["nobody"])

    def test_unknown_pool(self):
        self.add_account(self.server)
        self.assert_refused("backup", "work", "/bucket/", "--pool", "nowhere", says=["nowhere"])

    def test_unknown_set(self):
        self.add_account(self.server)
        self.assert_refused("restore", "00000000-0000-4000-8000-000000000000", says=["00000000"])

    def test_wrong_secret_key(self):
        self.agent("account", "add", "work", "--endpoint", self.server.endpoint, "--access-key",
                   self.server.access_key, "--secret-key-file", "-", input=b"not the key")
        self.add_pool()
        self.assert_refused("backup", "work", "/bucket/", "--pool", "disk")

    def test_wrong_access_key(self):
        self.add_account(self.server, access_key="NOBODY")
        self.add_pool()
        self.assert_refused("backup", "work", "/bucket/", "--pool", "disk")

    def test_endpoint_that_nobody_listens_on(self):
        with socket.socket() as held:
            held.bind(("127.0.0.1", 0))   # held, but it does not listen
            self.add_account(self.server, endpoint="http://127.0.0.1:%d" % held.getsockname()[1])
            self.add_pool()
            self.assert_refused("backup", "work", "/bucket/", "--pool", "disk")

    def test_malformed_endpoint(self):
        for endpoint in ("http://bad host", "ftp://host", "http://host/path", "http://", "http://host:99999"):
            result = self.agent("account", "add", "work", "--endpoint", endpoint, "--access-key", "a",
                                "--secret-key-file", "-", input=b"s", expect=None)
            self.assertIn(result.returncode, (1, 2), endpoint)
            self.assertIn("endpoint", result.stderr)

    def test_bucket_that_does_not_exist(self):
        self.add_account(self.server)
        self.add_pool()
        self.assert_refused("backup", "work", "/no-such-bucket/", "--pool", "disk")

    def test_path_that_names_no_bucket(self):
        self.add_account(self.server)
        self.add_pool()
        result = self.agent("backup", "work", "//", "--pool", "disk", expect=2)
        self.assertIn("//", result.stderr)

    def test_unreadable_pool(self):
        self.add_account(self.server)
        self.add_pool()
        os.remove(os.path.join(self.pool, "pool.json"))
        result = self.agent("backup", "work", "/bucket/", "--pool", "disk", expect=1)
        self.assertIn("pool", result.stderr)
        self.assertEqual([], self.unfinished())

    def test_pool_folder_that_is_not_empty(self):
        os.makedirs(self.pool)
        open(os.path.join(self.pool, "something"), "w").close()
        result = self.agent("pool", "add", "disk", "file://" + self.pool, expect=1)
        self.assertIn(self.pool, result.stderr)

    def test_malformed_definitions(self):
        self.add_account(self.server)
        self.add_pool()
        path = os.path.join(self.folder, "definition.json")
        for text, says in (("{", "definition"), ("[]", "object"), ("{}", "type"), ('{"type":"backup"}', "host_id"),
                           ('{"type":"backup","host_id":"x","target":{"id":"p"},"source":{"id":"i"}}', "source"),
                           ('{"type":"restore","host_id":"x","source":{"id":"i","seq":"7"}}', "source"),
                           ('{"type":"backup","host_id":"x","target":{"id":"p"},"options":{"exclusion":[1]},'
                            '"source":{"id":"i","minor_resource_id":"m","minor_resource_name":"n"}}', "options")):
            with open(path, "w") as file:
                file.write(text)
            self.assert_refused("run", path, says=[says])
        self.assert_refused("run", os.path.join(self.folder, "missing.json"), says=["missing.json"])

    def test_no_command_is_a_usage_error(self):
        self.agent(expect=2)
        self.agent("backup", expect=2)
        self.agent("no-such-command", expect=2)

    def test_file_that_is_no_module(self):
        for path in ("/etc/hostname", os.path.join(harness.BUILD, "lib", "libagent_platform.so")):
            result = self.agent("--module", path, "browse", "work", expect=1)
            self.assertIn(path, result.stderr)


@unittest.skipUnless(os.geteuid() == 0, "mounting a small file system needs root")
class Full_Disk(harness.Scenario):
    def test_full_disk_ends_with_one_message_and_no_set(self):
        os.makedirs(self.pool)
        mounted = subprocess.run(["mount", "-t", "tmpfs", "-o", "size=4m", "tmpfs", self.pool],
                                 stderr=subprocess.PIPE, text=True)
        if mounted.returncode != 0:
            self.skipTest("a small file system cannot be mounted here: " + mounted.stderr)
        self.addCleanup(subprocess.run, ["umount", "-l", self.pool])
        server = harness.Test_Server("--synthetic", "bucket,200,65536")
        self.addCleanup(server.stop)
        self.add_account(server)
        self.add_pool()
        result = self.agent("backup", "work", "/bucket/", "--pool", "disk", "--json", expect=1)
        self.assertIn("No space left on device", result.stderr + result.stdout)
        self.assertEqual("failed", result.json["outcome"])
        self.assert_account_adds_up(result.json)
        self.assertEqual([], self.agent("sets", "--json").json["sets"])
        # What fitted is not read again when there is room.
        subprocess.run(["mount", "-o", "remount,size=64m", self.pool], check=True)
        outcome = self.backup("/bucket/")
        self.assertEqual((200, 0), (outcome["saved"], outcome["failed"]))
        self.assertGreater(outcome["continued"], 10)
        self.assertEqual((200 - outcome["continued"]) * 65536, outcome["bytes_read"])
        self.assertEqual([], self.unfinished())
        self.agent("verify", outcome["set"])


if __name__ == "__main__":
    harness.main()
