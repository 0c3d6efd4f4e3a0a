"""Memory is a constant, whatever the number of objects."""
import os
import resource
import subprocess
import unittest

import harness

MIB = 1 << 20


class Memory(harness.Scenario):
    def peak_of_backup(self, objects):
        """Peak resident bytes of a backup of so many synthetic objects of 1 KiB."""
        server = harness.Test_Server("--synthetic", "many,%d,1024" % objects)
        self.addCleanup(server.stop)
        self.state = os.path.join(self.folder, "state-%d" % objects)
        self.pool = os.path.join(self.folder, "pool-%d" % objects)
        self.add_account(server)
        self.add_pool()
        process = subprocess.Popen(self.command("backup", "work", "/many/", "--pool", "disk", "--channels", "4",
                                                "--json"),
                                   stdout=subprocess.PIPE, stdin=subprocess.DEVNULL)
        output = process.stdout.read()
        process.stdout.close()
        _, status, usage = os.wait4(process.pid, 0)
        process.returncode = os.waitstatus_to_exitcode(status)
        self.assertEqual(0, process.returncode)
        outcome = harness.Result(0, output.decode(), "").json
        self.assertEqual((objects, objects), (outcome["listed"], outcome["saved"]))
        peak = usage.ru_maxrss * 1024
        print("%d objects: %.1f MiB, %.1f s" % (objects, peak / MIB, outcome["seconds"]), flush=True)
        return peak

    @unittest.skipIf(os.environ.get("OBS_SANITIZED"), "a sanitizer's own memory is no measure")
    def test_two_hundred_thousand_objects_take_no_more_than_twenty_thousand(self):
        few = self.peak_of_backup(20000)
        many = self.peak_of_backup(200000)
        self.assertLess(many, 256 * MIB)
        self.assertLess(many - few, 32 * MIB)


if __name__ == "__main__":
    harness.main()
