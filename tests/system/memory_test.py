"""Memory is a constant, whatever the number of objects."""
import os
import resource
import subprocess
import unittest

import harness

MIB = 1 << 20


class Memory(harness.Scenario):
    """Each command with few and with ten times as many synthetic objects of 1 KiB. What is measured begins with this
    process's own size, from which the command is forked: so it keeps little itself."""

    FEW, MANY = 20000, 200000

    def peak(self, *arguments):
        """(peak resident bytes, standard output) of a command that ends well."""
        process = subprocess.Popen(self.command(*arguments), stdout=subprocess.PIPE, stdin=subprocess.DEVNULL)
        output = process.stdout.read().decode(errors="replace")
        process.stdout.close()
        _, status, usage = os.wait4(process.pid, 0)
        process.returncode = os.waitstatus_to_exitcode(status)
        self.assertEqual(0, process.returncode, output[-2000:])
        return usage.ru_maxrss * 1024, output

    def peaks(self, objects):
        """{command: peak bytes} over the life of a pool."""
        server = harness.Test_Server("--synthetic", "many,%d,1024" % objects, "--bucket", "target")
        self.addCleanup(server.stop)
        self.state = os.path.join(self.folder, "state-%d" % objects)
        self.pool = os.path.join(self.folder, "pool-%d" % objects)
        self.add_account(server)
        self.add_pool()
        peaks = {}

        def run(name, *arguments):
            peaks[name], output = self.peak(*arguments)
            return harness.Result(0, output, "")

        def backup(name, *arguments):
            return run(name, "backup", "work", "/many/", "--pool", "disk", "--channels", "4", "--json", *arguments).json

        first = backup("backup")
        self.assertEqual((objects, objects), (first["listed"], first["saved"]))
        second = backup("incremental")
        self.assertEqual((objects, objects), (second["listed"], second["unchanged"]))
        found = run("find", "find", "*0001", "--set", second["set"], "--json").json_lines
        self.assertEqual(objects // 10000, len(found))
        folder = found[0]["file"].rsplit("/", 1)[0] + "/"
        self.assertIn(found[0]["file"].rsplit("/", 1)[1], run("ls", "ls", second["set"], folder).stdout)
        self.assertIn("%d the same" % objects, run("diff", "diff", first["set"], second["set"]).stdout)
        self.assertIn("%d of %d objects are good" % (objects, objects), run("verify", "verify", second["set"]).stdout)
        restored = run("restore", "restore", second["set"], "--map", "many=target", "--json").json
        self.assertEqual(objects, restored["saved"])
        run("merge", "merge", first["set"], second["set"])
        backup("third")
        run("forget", "forget", "--keep-last", "1")
        for name, peak in peaks.items():
            print("%7d objects, %s: %.1f MiB" % (objects, name, peak / MIB), flush=True)
        return peaks

    @unittest.skipIf(os.environ.get("OBS_SANITIZED"), "a sanitizer's own memory is no measure")
    def test_ten_times_as_many_objects_take_no_more(self):
        few = self.peaks(self.FEW)
        many = self.peaks(self.MANY)
        for name, peak in many.items():
            self.assertLess(peak, 256 * MIB, name)
            self.assertLess(peak - few[name], 32 * MIB, name)


if __name__ == "__main__":
    harness.main()
