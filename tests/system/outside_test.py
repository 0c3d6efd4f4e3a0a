"""What an account, a pool or a definition from outside has wrong is named: where, and what."""
import json
import os
import shutil

import harness


class Outside(harness.Scenario):
    def serve(self, *arguments):
        server = harness.Test_Server("--object", "data,key,1000", *arguments)
        self.addCleanup(server.stop)
        return server

    def url(self, name):
        return "file://" + os.path.join(self.folder, name)

    def refused(self, *arguments, expect=1):
        return self.agent(*arguments, expect=expect).stderr

    def test_pool_that_is_made_and_one_that_is_taken_up_are_told_apart(self):
        self.add_account(self.serve())
        made = self.agent("pool", "add", "disk", "file://" + self.pool)
        self.assertIn("a new pool 'disk' is made at", made.stdout)
        self.backup("/data/")
        self.agent("pool", "remove", "disk")
        self.assertIn("the pool 'again' that was at file://%s already is taken up, with 1 set\n" % self.pool,
                      self.agent("pool", "add", "again", "file://" + self.pool).stdout)
        self.agent("pool", "remove", "again")
        again = self.agent("pool", "add", "third", "file://" + self.pool, "--json").json
        self.assertEqual((False, 1), (again["made"], again["sets"]))
        self.assertEqual(True, self.agent("pool", "add", "new", self.url("new"), "--json").json["made"])

    def test_folders_that_are_no_place_for_a_pool_are_told_apart(self):
        self.add_pool()
        self.assertIn("is known here already, as pool 'disk'", self.refused("pool", "add", "x", "file://" + self.pool))
        shutil.copytree(self.pool, os.path.join(self.folder, "copy"))
        self.assertIn("is a copy of pool 'disk' at file://" + self.pool, self.refused("pool", "add", "x", self.url("copy")))
        os.mkdir(os.path.join(self.folder, "full"))
        open(os.path.join(self.folder, "full", "file"), "w").close()
        self.assertIn("is not empty", self.refused("pool", "add", "x", self.url("full")))
        # Whoever may read everything meets a file that is none.
        os.makedirs(os.path.join(self.folder, "unreadable", "pool.json"))
        self.assertIn("cannot read", self.refused("pool", "add", "x", self.url("unreadable")))
        os.rename(self.pool, os.path.join(self.folder, "moved"))
        self.assertIn("pool change disk --url " + self.url("moved"), self.refused("pool", "add", "x", self.url("moved")))
        self.assertEqual(["disk"], [row["name"] for row in self.agent("pool", "list", "--json").json["pools"]])

    def test_run_that_cannot_begin_says_host_bucket_and_cause(self):
        server = self.serve()
        self.add_pool()
        self.add_account(server)
        wrong = os.path.join(self.folder, "wrong")
        with open(wrong, "w") as file:
            file.write("another secret")
        host = server.endpoint

        def backup(bucket):
            return self.refused("backup", "work", "/%s/" % bucket, "--pool", "disk")

        for said in (host + ", bucket 'none': ", "NoSuchBucket"):
            self.assertIn(said, backup("none"))
        self.agent("account", "change", "work", "--secret-key-file", wrong)
        for said in (host + ", bucket 'data': ", "SignatureDoesNotMatch"):
            self.assertIn(said, backup("data"))
        self.agent("account", "change", "work", "--endpoint", "http://127.0.0.1:1")
        for said in ("http://127.0.0.1:1, bucket 'data': ", "CouldNotConnect"):
            self.assertIn(said, backup("data"))
        self.assertIn("neither http:// nor https://",
                      self.refused("account", "change", "work", "--endpoint", "127.0.0.1:9000"))

    def test_bucket_that_may_not_be_listed_says_host_bucket_and_cause(self):
        server = self.serve("--refuse", "ListObjects*,*,AccessDenied")
        self.add_pool()
        self.add_account(server)
        run = self.agent("backup", "work", "/data/", "--pool", "disk", expect=None)
        self.assertNotEqual(0, run.returncode)
        self.assertRegex(run.stdout, "'/data/': AccessDenied: .*GET %s/data" % server.endpoint)

    def test_sample_without_any_object_is_no_success(self):
        self.add_account(self.serve())
        self.add_pool()
        made = self.backup("/data/")["set"]
        self.assertIn("none of the set's 1 objects", self.refused("verify", made, "--sample", "0.000001%", "--seed", "1"))
        self.agent("verify", made)

    def test_misspelt_member_of_a_definition_is_named_and_nothing_is_done(self):
        self.add_account(self.serve())
        self.add_pool()
        path = os.path.join(self.folder, "definition.json")
        with open(path, "w") as file:
            json.dump({"type": "backup", "host_id": "x", "options": {"chanels": 3}}, file)
        self.assertIn('no member "options.chanels"', self.refused("run", path))


if __name__ == "__main__":
    harness.main()
