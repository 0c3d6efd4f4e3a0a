"""A service that is gone ends a backup as failed, without a set, and the next one goes on; objects that cannot be had at
a service which is there are skipped. A restore ends likewise, with whole objects in its target."""
import time
import unittest

import harness

OBJECTS = 600
LARGE = "d0000/e00/large"


class Outage(harness.Scenario):
    def setUp(self):
        super().setUp()
        self.server = harness.Test_Server("--synthetic", "bucket,%d,4000" % OBJECTS, "--latency", "20", "--log")
        self.running = True
        self.addCleanup(self.stop)
        self.add_account(self.server)
        self.add_pool()

    def stop(self):
        if self.running:
            self.running = False
            self.server.stop()

    def start(self, *options):
        """A backup that has read some objects and not nearly all."""
        return self.start_until(lambda: self.server.ask("sequence").count("GetObject") >= 100, "backup", "work", "/bucket/",
                                "--pool", "disk", "--json", "--readers", "4", "--scan-threads", "1", *options)

    def end(self, process, status):
        outcome, error = self.end_of(process, status)
        self.assert_account_adds_up(outcome)
        return outcome, error

    def check_outage(self, fail, named=0):
        process = self.start("--service-timeout", "2")
        fail()
        outcome, error = self.end(process, 1)
        self.assertEqual(("failed", ""), (outcome["outcome"], outcome["set"]))
        self.assertIn("The service is gone: nothing was answered for 2 seconds.", outcome["message"])
        self.assertIn("The service is gone", error)
        self.assertEqual(1, len(error.splitlines()), error)
        self.assertEqual([], self.agent("sets", "--json").json["sets"])
        self.assertLessEqual(len(outcome["errors"]), named)
        self.assertGreater(outcome["saved"], 90)
        self.assertEqual(outcome["saved"], outcome["resumable"])
        return outcome

    def check_that_it_goes_on(self, outcome):
        self.server.ask("serve")
        after = self.backup("/bucket/")
        self.assertEqual((OBJECTS, outcome["saved"]), (after["saved"], after["continued"]))
        self.assertEqual((OBJECTS - outcome["saved"]) * 4000, after["bytes_read"])

    def test_service_that_is_down_ends_the_run_and_the_next_goes_on(self):
        self.check_that_it_goes_on(self.check_outage(lambda: self.server.ask("fail", "503", "ServiceUnavailable")))

    def test_revoked_keys_end_the_run_and_the_next_goes_on(self):
        self.check_that_it_goes_on(self.check_outage(lambda: self.server.ask("fail", "403", "InvalidAccessKeyId")))

    def test_keys_that_are_denied_everything_end_the_run(self):
        # The first ones might be denied for their own sake.
        self.check_outage(lambda: self.server.ask("fail", "403", "AccessDenied"), named=7)

    def test_service_that_nobody_can_connect_to_ends_the_run(self):
        self.check_outage(self.stop)

    def test_short_outage_costs_no_object(self):
        process = self.start("--service-timeout", "100")
        self.server.ask("fail", "503", "ServiceUnavailable")
        # Longer than a reader repeats its request for.
        deadline = time.monotonic() + 12
        while time.monotonic() < deadline and process.poll() is None:
            self.server.ask("struck")
            time.sleep(0.1)
        self.server.ask("serve")
        outcome, _ = self.end(process, 0)
        self.assertEqual(OBJECTS, outcome["saved"])

    def test_broken_objects_at_a_good_service_are_skipped_even_when_nothing_else_is_read(self):
        self.server.ask("fail", "500", "InternalError", "*000001*")
        outcome = self.backup("/bucket/", "--service-timeout", "1", expect=3)
        broken = outcome["skipped"]
        self.assertEqual((OBJECTS - broken, 0), (outcome["saved"], outcome["failed"]))
        self.assertGreater(broken, 8)
        outcome = self.backup("/bucket/", "--service-timeout", "1", expect=3)
        self.assertEqual((OBJECTS - broken, 0, broken), (outcome["unchanged"], outcome["saved"], outcome["skipped"]))
        self.assertEqual(2, len(self.agent("sets", "--json").json["sets"]))


class Restore_Outage(harness.Scenario):
    def setUp(self):
        super().setUp()
        self.server = harness.Test_Server("--synthetic", "bucket,%d,4000" % OBJECTS, "--object",
                                          "bucket,%s,%d" % (LARGE, 20 << 20), "--bucket", "target", "--latency", "20",
                                          "--log")
        self.addCleanup(self.stop)
        self.running = True
        self.add_account(self.server)
        self.add_pool()
        self.set = self.backup("/bucket/")["set"]

    def stop(self):
        if self.running:
            self.running = False
            self.server.stop()

    def start(self, *options, operation="PutObject"):
        """A restore that has written some objects and not nearly all; with policies that look first, looked at."""
        return self.start_until(lambda: self.server.ask("sequence").count(operation) >= 100, "restore", self.set, "--map",
                                "bucket=target", "--json", "--concurrent", "4", *options)

    def keys(self):
        pages = self.server.client().get_paginator("list_objects").paginate(Bucket="target")
        return [item["Key"] for page in pages for item in page.get("Contents", [])]

    def assert_whole(self, keys):
        for key in keys:
            self.assertEqual("none", self.server.ask("difference", "bucket", key, "target", key))

    def check_gone(self, outcome, error):
        self.assertEqual("failed", outcome["outcome"])
        self.assertIn("The service is gone: nothing was answered for 2 seconds.", outcome["message"])
        self.assertIn("The service is gone", error)
        self.assertEqual(1, len(error.splitlines()), error)
        self.assertEqual((0, 0, []), (outcome["skipped"], outcome["failed"], outcome["errors"]))
        self.assertTrue(0 < outcome["saved"] < OBJECTS, outcome)

    def check_that_it_goes_on(self, outcome):
        self.server.ask("serve")
        there = self.keys()
        self.assertEqual(outcome["saved"], len(there))
        self.assert_whole(there)
        after, _ = self.end_of(self.start("--existing", "different"), 0)
        # What came in parts has an ETag of another form, so it is written again whether it was there or not.
        same = len(set(there) - {LARGE})
        self.assertEqual((same, OBJECTS + 1 - same), (after["unchanged"], after["saved"]))
        there = self.keys()
        self.assertEqual(OBJECTS + 1, len(there))
        self.assert_whole(there)

    def test_service_that_is_down_ends_the_restore_and_the_next_goes_on(self):
        process = self.start("--service-timeout", "2")
        self.server.ask("fail", "503", "ServiceUnavailable")
        outcome, error = self.end_of(process, 1)
        self.check_gone(outcome, error)
        self.check_that_it_goes_on(outcome)

    def test_restore_that_looks_first_counts_no_object_that_it_could_not_look_at(self):
        process = self.start("--service-timeout", "2", "--existing", "skip", operation="HeadObject")
        self.server.ask("fail", "503", "ServiceUnavailable")
        outcome, error = self.end_of(process, 1)
        self.check_gone(outcome, error)
        self.check_that_it_goes_on(outcome)

    def test_service_that_nobody_can_connect_to_ends_the_restore(self):
        process = self.start("--service-timeout", "2")
        self.stop()
        self.check_gone(*self.end_of(process, 1))

    def test_short_outage_costs_no_object(self):
        process = self.start("--service-timeout", "100")
        self.server.ask("fail", "403", "InvalidAccessKeyId")
        # Each of the channels was refused, and so was the question whether the service is there.
        while int(self.server.ask("struck")) < 5 and process.poll() is None:
            pass
        self.server.ask("serve")
        outcome, _ = self.end_of(process, 0)
        self.assertEqual((OBJECTS + 1, []), (outcome["saved"], outcome["errors"]))
        self.assert_whole(self.keys())


if __name__ == "__main__":
    harness.main()
