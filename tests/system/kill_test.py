"""A backup that is killed leaves no set, and the next one goes on with what it has stored."""
import os
import random
import signal
import subprocess
import time
import unittest

import harness

POINTS = 10
SEED = int(os.environ.get("OBS_SEED", "20"))


class Kill(harness.Scenario):
    def media_bytes(self):
        total = 0
        for folder, _, files in os.walk(self.pool):
            for name in files:
                try:
                    total += os.stat(os.path.join(folder, name)).st_size
                except FileNotFoundError:
                    pass
        return total

    def test_kill_at_ten_points_leaves_no_set_and_the_next_run_succeeds(self):
        print("seed %d" % SEED, flush=True)
        server = harness.Test_Server("--synthetic", "bucket,20000,8192", "--latency", "2")
        self.addCleanup(server.stop)
        self.add_account(server)
        self.add_pool()
        points = random.Random(SEED)
        killed = 0
        while killed < POINTS:
            # The point is a number of bytes on media, so that it is a place in the work and not a time. All points lie
            # in the first part of the work, so that a busy machine does not let the backup end before its kill.
            point = self.media_bytes() + points.randrange(0, 8 << 20)
            process = subprocess.Popen(self.command("backup", "work", "/bucket/", "--pool", "disk", "--full"),
                                       stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            while self.media_bytes() < point and process.poll() is None:
                time.sleep(0.001)
            process.send_signal(signal.SIGKILL)
            if process.wait() == -signal.SIGKILL:
                killed += 1
                self.assertEqual([], self.agent("sets", "--json").json["sets"], "a killed run left a set")
            else:
                self.fail("the backup ended before the point was reached")

        outcome = self.backup("/bucket/")
        self.assertEqual((20000, 20000), (outcome["listed"], outcome["saved"]))
        # No object that was whole on media is asked for again: a megabyte for each medium may not have been written.
        self.assertGreater(outcome["continued"], 0)
        self.assertEqual((20000 - outcome["continued"]) * 8192, outcome["bytes_read"])
        self.assertLessEqual(outcome["requests"], 20000 - outcome["continued"] + 500)
        self.assertEqual([], self.unfinished())
        self.agent("media", "check", *self.media())
        self.assertEqual(1, len(self.agent("sets", "--json").json["sets"]))
        self.agent("verify", outcome["set"])


if __name__ == "__main__":
    harness.main()
