"""A service that is gone ends a backup as failed, without a set, and the next one goes on; objects that cannot be had at
a service which is there are skipped."""
import json
import subprocess
import time
import unittest

import harness

OBJECTS = 600


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
        process = subprocess.Popen(self.command("backup", "work", "/bucket/", "--pool", "disk", "--json", "--readers",
                                                "4", "--scan-threads", "1", *options),
                                   stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.addCleanup(process.kill)
        while self.server.ask("sequence").count("GetObject") < 100 and process.poll() is None:
            pass
        self.assertIsNone(process.poll())
        return process

    def end(self, process, status):
        out, error = process.communicate()
        self.assertEqual(status, process.returncode, "%s%s%s" % (out, error, self.last_log_lines()))
        outcome = json.loads(out.splitlines()[-1])
        self.assert_account_adds_up(outcome)
        return outcome, error.decode()

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


if __name__ == "__main__":
    harness.main()
