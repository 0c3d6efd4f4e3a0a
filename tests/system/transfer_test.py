"""What an operator sees of objects that are large, or lie in an archive."""
import signal
import subprocess
import time

import harness


class Large_Objects(harness.Scenario):
    SIZE = 200 << 20

    def setUp(self):
        super().setUp()
        self.server = harness.Test_Server("--object", "bucket,key,%d" % self.SIZE, "--bucket", "target", "--log",
                                          "--latency", "100")
        self.addCleanup(self.server.stop)
        self.add_account(self.server)
        self.add_pool()

    def uploads(self):
        return int(self.server.ask("uploads"))

    def wait_for(self, condition, process):
        end = time.monotonic() + 60
        while not condition():
            self.assertIsNone(process.poll(), "the program ended too early")
            self.assertLess(time.monotonic(), end)

    def test_interrupt_in_the_middle_of_a_large_upload_leaves_no_part_behind(self):
        outcome = self.backup("/bucket/")
        for number in (signal.SIGINT, signal.SIGTERM):
            with self.subTest(signal=number):
                process = subprocess.Popen(self.command("restore", outcome["set"], "--map", "bucket=target", "--json"),
                                           stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
                                           preexec_fn=lambda: signal.signal(signal.SIGINT, signal.SIG_DFL))
                self.addCleanup(process.stdout.close)
                self.addCleanup(process.kill)
                self.wait_for(lambda: self.uploads() == 1, process)
                process.send_signal(number)
                self.assertEqual(130, process.wait(timeout=60))
                self.assertEqual(0, self.uploads())
        self.assertEqual({}, self.contents(self.server, "target"))

    def test_large_object_comes_back_as_it_was(self):
        outcome = self.backup("/bucket/")
        self.agent("restore", outcome["set"], "--map", "bucket=target")
        self.assertEqual("none", self.server.ask("difference", "bucket", "key", "target", "key"))
        self.assertEqual(0, self.uploads())


class Archived_Objects(harness.Scenario):
    def setUp(self):
        super().setUp()
        self.server = harness.Test_Server("--bucket", "bucket", "--log")
        self.addCleanup(self.server.stop)
        client = self.server.client()
        client.put_object(Bucket="bucket", Key="warm", Body=b"warm")
        client.put_object(Bucket="bucket", Key="cold", Body=b"cold", StorageClass="GLACIER")
        self.add_account(self.server)
        self.add_pool()

    def run_with(self, *options):
        outcome = self.backup("/bucket/", "--full", *options, expect=3)
        self.assertEqual(1, outcome["saved"])
        error, = outcome["errors"]
        self.assertEqual("/bucket/cold", error["name"])
        self.assertIn("archive (GLACIER)", error["message"])
        return outcome, self.server.ask("requests", "bucket", "cold")

    def test_they_are_skipped_without_a_request_unless_told_otherwise(self):
        outcome, requests = self.run_with()
        self.assertEqual((1, 0), (outcome["skipped"], outcome["failed"]))
        self.assertEqual("PutObject=1", requests)

    def test_they_fail_where_the_operator_wants_that(self):
        outcome, requests = self.run_with("--archived", "fail")
        self.assertEqual((0, 1), (outcome["skipped"], outcome["failed"]))
        self.assertEqual("PutObject=1", requests)

    def test_the_service_is_asked_once_to_thaw_them(self):
        outcome, requests = self.run_with("--archived", "request")
        self.assertEqual((1, 0), (outcome["skipped"], outcome["failed"]))
        self.assertEqual("GetObject=1 PutObject=1 RestoreObject=1", requests)

    def test_other_words_are_refused(self):
        self.agent("backup", "work", "/bucket/", "--pool", "disk", "--archived", "melt", expect=2)


if __name__ == "__main__":
    harness.main()
