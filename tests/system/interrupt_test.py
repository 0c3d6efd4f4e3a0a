"""An interrupt cancels a job, and ends any other command at once."""
import signal
import subprocess
import unittest

import harness


class Interrupt(harness.Scenario):
    def start(self, *arguments):
        # A shell's background processes, tests among them, inherit that interrupts are ignored.
        process = subprocess.Popen(self.command(*arguments), stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                   stderr=subprocess.DEVNULL,
                                   preexec_fn=lambda: signal.signal(signal.SIGINT, signal.SIG_DFL))
        self.addCleanup(process.stdout.close)
        self.addCleanup(process.kill)
        return process

    def test_job_is_cancelled_and_leaves_no_set(self):
        server = harness.Test_Server("--synthetic", "bucket,2000,1000", "--latency", "200")
        self.addCleanup(server.stop)
        self.add_account(server)
        self.add_pool()
        process = self.start("backup", "work", "/bucket/", "--pool", "disk", "--json", "--readers", "2")
        # With two objects at a time it goes on for minutes, and the media are there before the first object.
        while not self.media() and process.poll() is None:
            pass
        process.send_signal(signal.SIGINT)
        self.assertEqual(130, process.wait(timeout=60))
        self.assertEqual("cancelled", harness.Result(130, process.stdout.read().decode(), "").json["outcome"])
        self.assertEqual([], self.agent("sets", "--json").json["sets"])

    def test_objects_that_a_cancel_cuts_are_not_named(self):
        for stalled in ("GetObject,0", "GetObject,10"):
            # Read ahead, and by the channel's writer.
            server = harness.Test_Server("--object", "bucket,small,1000", "--object", "bucket,large,%d" % (64 << 20),
                                         "--stall", stalled)
            self.addCleanup(server.stop)
            self.add_account(server, stalled)
            if stalled == "GetObject,0":
                self.add_pool()
            process = self.start("backup", stalled, "/bucket/", "--pool", "disk", "--json")
            while server.ask("stalled") != "yes" and process.poll() is None:
                pass
            process.send_signal(signal.SIGINT)
            self.assertEqual(130, process.wait(timeout=60))
            outcome = harness.Result(130, process.stdout.read().decode(), "").json
            self.assertEqual(("cancelled", 0, 0, 0, []),
                             tuple(outcome[one] for one in ("outcome", "saved", "skipped", "failed", "errors")))

    def test_other_command_ends_at_once(self):
        server = harness.Test_Server("--synthetic", "bucket,2000,1")
        self.addCleanup(server.stop)
        self.add_account(server)
        self.add_pool()
        self.backup("/bucket/", "--channels", "1")
        process = self.start("media", "dump", self.media()[0])
        # It prints more than the pipe holds, so it cannot have ended.
        process.stdout.read(1)
        process.send_signal(signal.SIGINT)
        self.assertEqual(-signal.SIGINT, process.wait(timeout=30))


if __name__ == "__main__":
    harness.main()
