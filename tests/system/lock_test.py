"""Processes that would change the same state folder or pool lock each other out; readers keep what they read."""
import os
import socket
import subprocess
import unittest

import harness


class Lock(harness.Scenario):
    def setUp(self):
        super().setUp()
        # A pace at which a backup or restore goes on for minutes, unless it is ended.
        self.server = harness.Test_Server("--synthetic", "bucket,3000,1000", "--bucket", "target", "--bucket", "small",
                                          "--latency", "200")
        self.addCleanup(self.server.stop)
        self.server.client().put_object(Bucket="small", Key="k", Body=b"k")
        self.add_account(self.server)
        self.add_pool()

    def start(self, *arguments):
        process = subprocess.Popen(self.command(*arguments), stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                   stderr=subprocess.DEVNULL)
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        return process

    def start_backup(self):
        before = len(self.media())
        process = self.start("backup", "work", "/bucket/", "--pool", "disk", "--readers", "2", "--channels", "1")
        while len(self.media()) == before and process.poll() is None:
            pass
        return process

    def assert_locked_out(self, process, *arguments):
        result = self.agent(*arguments, expect=1)
        self.assertIn("in use by process %d on host %s: " % (process.pid, socket.gethostname()), result.stderr)

    def test_second_process_on_one_state_folder_is_told_who_has_it(self):
        done = self.backup("/small/")["set"]
        process = self.start_backup()
        self.assert_locked_out(process, "backup", "work", "/small/", "--pool", "disk")
        self.assert_locked_out(process, "forget", "--keep-last", "1")
        # What only reads goes on.
        self.assertEqual([done], [row["set"] for row in self.agent("sets", "--json").json["sets"]])
        self.assertIn("/small/k", self.agent("ls", done, "/small/").stdout)
        self.agent("verify", done)
        self.agent("restore", done, "--map", "small=target")
        self.agent("forget", "--keep-last", "1", "--dry-run")
        process.kill()
        process.wait()
        self.backup("/small/")

    def test_second_process_on_one_pool_is_told_who_has_it(self):
        process = self.start_backup()
        mine = self.state
        self.state = os.path.join(self.folder, "other-state")
        self.add_account(self.server)
        self.add_pool()
        self.assert_locked_out(process, "backup", "work", "/small/", "--pool", "disk")
        self.assert_locked_out(process, "forget", "--keep-last", "1")
        process.kill()
        process.wait()
        self.backup("/small/")
        self.state = mine
        self.assertEqual(1, len(self.agent("sets", "--json").json["sets"]))

    def test_set_that_is_being_restored_stays_with_all_it_needs(self):
        base = self.backup("/bucket/", "--readers", "512")["set"]
        self.server.client().put_object(Bucket="bucket", Key="more", Body=b"more")
        read = self.backup("/bucket/")["set"]
        last = self.backup("/bucket/", "--full", "--readers", "512")["set"]
        process = self.start("restore", read, "--map", "bucket=target", "--concurrent", "2")
        client = self.server.client()
        while not client.list_objects(Bucket="target", MaxKeys=1).get("Contents") and process.poll() is None:
            pass
        answer = self.agent("forget", "--keep-last", "1", "--json").json
        kept = {item["set"]: item["reasons"] for item in answer["groups"][0]["kept"]}
        self.assertEqual({base, read, last}, set(kept))
        self.assertIn("it is being read", kept[read])
        self.assertIn("needed by " + read, kept[base])
        self.assertIsNone(process.poll(), "the restore ended before it was looked at")
        process.kill()
        process.wait()
        answer = self.agent("forget", "--keep-last", "1", "--json").json
        self.assertEqual({base, read}, {item["set"] for item in answer["groups"][0]["removed"]})


if __name__ == "__main__":
    harness.main()
