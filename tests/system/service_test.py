"""Services as they are: settings of an account, its test, busy and stuck services."""
import signal
import subprocess
import time
import unittest

import harness


class Service(harness.Scenario):
    def serve(self, *arguments):
        server = harness.Test_Server(*arguments)
        self.addCleanup(server.stop)
        return server

    def shown(self, name="work"):
        return self.agent("account", "show", name, "--json").json

    def test_account_test_tells_each_check_and_keeps_what_it_found(self):
        self.add_account(self.serve("--object", "bucket,a key,100", "--object", "bucket,other,10"))
        tested = self.agent("account", "test", "work", "--json").json
        self.assertTrue(tested["available"])
        self.assertEqual(["bucket"], [bucket["name"] for bucket in tested["buckets"]])
        self.assertEqual(["name", "connect", "tls", "http", "clock", "credentials", "signature", "addressing", "region",
                          "listing", "paging", "encoding", "range", "if-match"],
                         [check["check"] for check in tested["diagnosis"]])
        self.assertEqual({"tls"}, {check["check"] for check in tested["diagnosis"] if check["state"] != "passed"})
        self.assertEqual({"addressing": "path", "list_version": "1", "url_encoding": "on"}, tested["found"])
        self.assertEqual(tested["found"], self.shown()["found"])

    def test_account_test_says_what_to_do(self):
        server = self.serve("--object", "bucket,key,100")
        self.add_account(server, access_key="NOBODY")
        tested = self.agent("account", "test", "work", "--json", expect=1).json
        self.assertFalse(tested["available"])
        self.assertIn("InvalidAccessKeyId", tested["message"])
        failed = [check for check in tested["diagnosis"] if check["state"] == "failed"]
        self.assertEqual(["credentials.unknown-key"], [check["fault"] for check in failed])
        text = self.agent("account", "test", "work", expect=1).stdout
        self.assertIn("to do: check --access-key", text)
        self.agent("account", "change", "work", "--access-key", server.access_key)
        self.agent("account", "test", "work")

    def test_account_whose_service_is_away_is_told_at_once(self):
        server = self.serve("--bucket", "bucket")
        self.add_account(server)
        server.stop()
        began = time.monotonic()
        tested = self.agent("account", "test", "work", "--json", expect=1).json
        self.assertLess(time.monotonic() - began, 5)
        self.assertEqual("Connection refused", tested["message"])
        self.assertEqual("connect.refused", tested["diagnosis"][1]["fault"])

    def test_settings_are_shown_changed_and_refused(self):
        server = self.serve("--object", "bucket,key,100")
        self.add_account(server, list_version="2", user_agent="backup/1", idle_timeout="7", vendor="minio")
        shown = self.shown()
        self.assertEqual(("2", "backup/1", 7, "minio"),
                         (shown["list_version"], shown["user_agent"], shown["idle_timeout"], shown["vendor"]))
        self.agent("account", "test", "work")
        self.assertIn("addressing", self.shown()["found"])
        # What was found out may not hold for another way.
        changed = self.agent("account", "change", "work", "--list-version", "auto", "--json").json
        self.assertEqual(("auto", "backup/1", {}), (changed["list_version"], changed["user_agent"], changed["found"]))
        self.assertIn("there is no preset for vendor 'nobody': give one of aws,",
                      self.agent("account", "change", "work", "--vendor", "nobody", expect=None).stderr)
        self.assertIn("cannot be read",
                      self.agent("account", "change", "work", "--client-cert", "/nowhere", expect=None).stderr)
        self.assertEqual("minio", self.shown()["vendor"])

    def test_backup_by_either_list_version_is_the_same(self):
        server = self.serve("--synthetic", "bucket,300,10", "--page-size", "7", "--log")
        self.add_pool()
        for version in "1", "2":
            self.add_account(server, name="work" + version, list_version=version)
            outcome = self.agent("backup", "work" + version, "--pool", "disk", "--json").json
            self.assert_account_adds_up(outcome)
            self.assertEqual(300, outcome["saved"])
        operations = server.ask("sequence").split()
        self.assertGreater(operations.count("ListObjectsV2"), 40)
        self.assertGreater(operations.count("ListObjects"), 40)

    def test_first_page_feeds_the_readers(self):
        server = self.serve("--synthetic", "bucket,300,10", "--page-size", "5", "--latency", "20", "--log")
        self.add_account(server)
        self.add_pool()
        self.assertEqual(300, self.backup("/bucket/")["saved"])
        operations = server.ask("sequence").split()
        listings = [place for place, operation in enumerate(operations) if operation == "ListObjects"]
        self.assertLess(operations.index("GetObject"), listings[len(listings) // 2])

    def test_cancel_ends_every_wait_within_a_second(self):
        for operation in "ListBuckets", "ListObjects", "GetObject":
            with self.subTest(operation):
                self.state += operation
                self.pool += operation
                server = self.serve("--object", "bucket,a,100000", "--stall", operation + ",20")
                self.add_account(server)
                self.add_pool()
                process = subprocess.Popen(self.command("backup", "work", "--pool", "disk", "--json"),
                                           stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
                                           preexec_fn=lambda: signal.signal(signal.SIGINT, signal.SIG_DFL))
                self.addCleanup(process.stdout.close)
                self.addCleanup(process.kill)
                self.assertEqual("yes", server.ask("stalled"))
                began = time.monotonic()
                process.send_signal(signal.SIGINT)
                process.wait(timeout=50)
                # The service would be waited for a minute; how busy the machine is shall not matter.
                self.assertLess(time.monotonic() - began, 30)

    def test_service_that_admits_few_requests_loses_no_object(self):
        server = self.serve("--synthetic", "bucket,200,10", "--admit", "100", "--bucket", "target")
        self.add_account(server)
        self.add_pool()
        # A listing request that is refused and repeated leaves an error in the log, and so the run one with errors.
        outcome = self.backup("/bucket/", "--readers", "16", expect=None)
        self.assertIn(outcome["outcome"], ("completed", "completed with errors"))
        self.assertEqual((200, 200, 0, 0, []),
                         tuple(outcome[name] for name in ("listed", "saved", "skipped", "failed", "errors")))
        restored = self.agent("restore", outcome["set"], "--map", "bucket=target", "--json").json
        self.assertEqual(0, restored["failed"], restored)

    def test_restore_is_as_parallel_as_backup(self):
        source = self.serve("--synthetic", "bucket,200,1000", "--latency", "30")
        self.add_account(source)
        self.add_pool()
        outcome = self.backup("/bucket/")
        target = self.serve("--bucket", "target", "--latency", "30")
        self.add_account(target, name="other")
        self.agent("restore", outcome["set"], "--to", "other", "--map", "bucket=target")
        self.assertGreaterEqual(int(source.ask("concurrent")), 8)
        self.assertGreaterEqual(int(target.ask("concurrent")), 8)


if __name__ == "__main__":
    harness.main()
