"""What sets hold, over all of them and between two."""
import os
import subprocess
import unittest

import harness

MIB = 1 << 20


class Catalogs(harness.Scenario):
    def setUp(self):
        super().setUp()
        self.server = harness.Test_Server("--synthetic", "bucket,300,100", "--bucket", "other")
        self.addCleanup(self.server.stop)
        self.client = self.server.client()
        self.add_account(self.server)
        self.add_pool()

    def change(self):
        """Changes one object, removes one, adds two, and touches one without changing its bytes."""
        body = self.client.get_object(Bucket="bucket", Key="d0000/e01/object-0000000100")["Body"].read()
        self.client.put_object(Bucket="bucket", Key="d0000/e01/object-0000000100", Body=body)
        self.client.put_object(Bucket="bucket", Key="d0000/e00/object-0000000007", Body=b"shorter")
        self.client.delete_object(Bucket="bucket", Key="d0000/e00/object-0000000008")
        self.client.put_object(Bucket="bucket", Key="new.txt", Body=b"new")
        self.client.put_object(Bucket="bucket", Key="d0000/e02/ x[1]", Body=b"also new")

    def find(self, *arguments, expect=0):
        return self.agent("find", *arguments, "--json", expect=expect).json_lines

    def test_versions_of_an_object_are_found_over_all_sets(self):
        first = self.backup("/bucket/")["set"]
        self.change()
        second = self.backup("/bucket/")["set"]
        third = self.backup("/bucket/")["set"]

        changed = self.find("/bucket/d0000/e00/object-0000000007")
        self.assertEqual([(first, first, 100), (second, second, 7), (third, second, 7)],
                         [(line["set"], line["stored_in"], line["size"]) for line in changed])
        self.assertNotEqual(changed[0]["sha256"], changed[1]["sha256"])
        self.assertEqual(changed[1]["sha256"], changed[2]["sha256"])
        removed = self.find("object-0000000008")
        self.assertEqual([(first, None), (second, True)], [(line["set"], line.get("deleted")) for line in removed])
        self.assertEqual(removed[0]["size"], removed[1]["size"])
        self.assertEqual([third], [line["set"] for line in self.find("*.txt", "--set", third)])
        self.assertEqual(100, len(self.find("/bucket/*/e01/", "--set", first)))
        self.assertEqual(10, len(self.find("**/object-000000020?", "--set", third)))
        self.assertEqual(["/bucket/d0000/e02/ x[1]"], [line["file"] for line in self.find("* x[1]", "--set", second)])
        self.assertEqual(3, len(self.find("object-0000000299", "--account", "work")))

    def test_what_is_nowhere_and_what_is_no_pattern_is_said(self):
        self.backup("/bucket/")
        for glob in ("*.nothing", "/bucket/d0000/e00/nothing", "/nothing/**", "/bucket/new.txt"):
            self.assertIn(glob, self.agent("find", glob, expect=1).stderr)
        self.agent("find", "", expect=2)
        self.agent("find", "a***b", expect=2)
        self.agent("find", "x", "--set", "a", "--account", "b", expect=2)

    def test_account_narrows_the_search(self):
        self.backup("/bucket/")
        self.add_account(self.server, name="second")
        self.agent("find", "object-0000000001", "--account", "second", expect=1)

    def test_difference_of_two_sets_is_exact(self):
        first = self.backup("/bucket/")["set"]
        self.change()
        second = self.backup("/bucket/")["set"]
        lines = self.agent("diff", first, second, "--json").json_lines
        self.assertEqual({"added": 2, "removed": 1, "changed": 2, "same": 297}, lines[-1])
        by_file = {line["file"]: line for line in lines[:-1]}
        self.assertEqual(5, len(by_file))
        self.assertEqual("removed", by_file["/bucket/d0000/e00/object-0000000008"]["change"])
        self.assertEqual("added", by_file["/bucket/new.txt"]["change"])
        self.assertEqual("added", by_file["/bucket/d0000/e02/ x[1]"]["change"])
        changed = by_file["/bucket/d0000/e00/object-0000000007"]
        self.assertEqual((["size", "mtime", "content"], 7, 100),
                         (changed["differs"], changed["size"], changed["before"]["size"]))
        self.assertEqual(["mtime"], by_file["/bucket/d0000/e01/object-0000000100"]["differs"])

        back = self.agent("diff", second, first, "--json").json_lines
        self.assertEqual({"added": 1, "removed": 2, "changed": 2, "same": 297}, back[-1])
        self.assertEqual({"added": 0, "removed": 0, "changed": 0, "same": 300},
                         self.agent("diff", first, first, "--json").json)
        text = self.agent("diff", first, second).stdout
        self.assertIn("2 added, 1 removed, 2 changed, 297 the same", text)

    def test_sets_listed_in_another_order_are_the_same(self):
        for key in ("b/1", "a/2", "c"):
            self.client.put_object(Bucket="other", Key=key, Body=key.encode())
        first = self.backup("/other/", "/bucket/")["set"]
        second = self.backup("/bucket/", "/other/")["set"]
        self.assertEqual({"added": 0, "removed": 0, "changed": 0, "same": 303},
                         self.agent("diff", first, second, "--json").json)
        alone = self.backup("/other/")["set"]
        self.assertEqual({"added": 0, "removed": 300, "changed": 0, "same": 3},
                         self.agent("diff", first, alone, "--json").json)


class Catalog_Memory(harness.Scenario):
    def peak(self, *arguments):
        """Peak resident bytes of a command, and its last line."""
        process = subprocess.Popen(self.command(*arguments, "--json"), stdout=subprocess.PIPE,
                                   stdin=subprocess.DEVNULL)
        output = process.stdout.read()
        process.stdout.close()
        _, status, usage = os.wait4(process.pid, 0)
        process.returncode = os.waitstatus_to_exitcode(status)
        self.assertEqual(0, process.returncode)
        return usage.ru_maxrss * 1024, harness.Result(0, output.decode(), "").json

    def peaks(self, objects):
        server = harness.Test_Server("--synthetic", "many,%d,1" % objects)
        self.addCleanup(server.stop)
        self.state = os.path.join(self.folder, "state-%d" % objects)
        self.pool = os.path.join(self.folder, "pool-%d" % objects)
        self.add_account(server)
        self.add_pool()
        first = self.backup("/many/")["set"]
        server.client().delete_object(Bucket="many", Key="d0000/e00/object-0000000001")
        second = self.backup("/many/")["set"]
        diff, answer = self.peak("diff", first, second)
        self.assertEqual({"added": 0, "removed": 1, "changed": 0, "same": objects - 1}, answer)
        find, answer = self.peak("find", "**/object-0000000002")
        self.assertEqual(second, answer["set"])
        print("%d objects: diff %.1f MiB, find %.1f MiB" % (objects, diff / MIB, find / MIB), flush=True)
        return diff, find

    @unittest.skipIf(os.environ.get("OBS_SANITIZED"), "a sanitizer's own memory is no measure")
    def test_many_objects_take_no_more_memory_than_few(self):
        for few, many in zip(self.peaks(1000), self.peaks(50000)):
            self.assertLess(many, 64 * MIB)
            self.assertLess(many - few, 16 * MIB)


if __name__ == "__main__":
    harness.main()
