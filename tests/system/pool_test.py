"""A pool that was moved, and one that is not wanted here any more."""
import os
import shutil

import harness


class Pool(harness.Scenario):
    def setUp(self):
        super().setUp()
        self.server = harness.Test_Server("--synthetic", "data,5,100", "--bucket", "back")
        self.addCleanup(self.server.stop)
        self.add_account(self.server)
        self.passphrase = os.path.join(self.folder, "passphrase")
        with open(self.passphrase, "w") as file:
            file.write("correct horse battery staple")

    def url(self, name):
        return "file://" + os.path.join(self.folder, name)

    def sets(self, expect=0):
        return [row["set"] for row in self.agent("sets", "--json", expect=expect).json["sets"]]

    def restored(self, made):
        self.agent("restore", made, "--map", "data=back")
        return len(self.contents(self.server, "back"))

    def write(self, *parts):
        with open(os.path.join(*parts), "w") as file:
            file.write("{ torn")

    def test_what_killed_commands_left_beside_sets_is_cleared(self):
        # A `pool add` that was killed while it wrote the pool's file, and was the first to need a master key.
        os.mkdir(self.pool)
        self.write(self.pool, "pool.json.tmp")
        self.write(self.state, ".master.key.a8Zx3k")
        self.agent("pool", "add", "disk", self.url("pool"), "--encrypt", "--passphrase-file", self.passphrase)
        self.assertEqual({"pool.json", ".lock"}, set(os.listdir(self.pool)))
        self.assertEqual([], [name for name in os.listdir(self.state) if name.startswith(".master.key.")])
        # A `pool rekey` that was.
        self.write(self.pool, "pool.json.tmp")
        made = self.backup("/data/")["set"]
        self.assertFalse(os.path.exists(os.path.join(self.pool, "pool.json.tmp")))
        self.assertEqual(5, self.restored(made))

    def test_moved_pool_is_found_where_it_lies_now(self):
        self.add_pool()
        made = self.backup("/data/")["set"]
        os.rename(self.pool, os.path.join(self.folder, "elsewhere"))
        self.agent("restore", made, "--map", "data=back", expect=1)
        changed = self.agent("pool", "change", "disk", "--url", self.url("elsewhere"), "--json").json
        self.assertEqual(self.url("elsewhere"), changed["url"])
        self.assertEqual([made], self.sets())
        self.assertEqual(5, self.restored(made))
        self.assertEqual(5, self.backup("/data/")["unchanged"])

    def test_another_pool_or_none_is_refused_and_nothing_changes(self):
        self.add_pool()
        made = self.backup("/data/")["set"]
        self.agent("pool", "add", "other", self.url("other"))
        self.assertIn("is another one", self.agent("pool", "change", "disk", "--url", self.url("other"), expect=1).stderr)
        os.mkdir(os.path.join(self.folder, "empty"))
        self.assertIn("there is no pool", self.agent("pool", "change", "disk", "--url", self.url("empty"), expect=1).stderr)
        self.agent("pool", "change", "disk", expect=2)
        self.assertEqual("file://" + self.pool, self.agent("pool", "show", "disk", "--json").json["url"])
        self.assertEqual(5, self.restored(made))

    def test_removed_pool_is_forgotten_and_its_data_stay(self):
        self.add_pool()
        made = self.backup("/data/")["set"]
        media = self.media()
        self.assertEqual(1, self.agent("pool", "remove", "disk", "--json").json["sets"])
        self.assertEqual(([], []), (self.sets(), self.agent("pool", "list", "--json").json["pools"]))
        self.assertIn("there is no pool", self.agent("pool", "show", "disk", expect=1).stderr)
        self.assertEqual(media, self.media())
        self.agent("pool", "add", "again", "file://" + self.pool)
        self.assertEqual([made], self.sets())
        self.assertEqual(5, self.restored(made))

    def test_pool_that_is_lost_can_be_removed(self):
        self.add_pool()
        self.backup("/data/")
        shutil.rmtree(self.pool)
        self.assertIn("is forgotten here with 1 set", self.agent("pool", "remove", "disk").stdout)
        self.assertEqual([], self.sets())
        self.add_pool()

    def test_key_of_a_removed_pool_is_forgotten(self):
        secret = ("--passphrase-file", self.passphrase)
        self.agent("pool", "add", "disk", "file://" + self.pool, "--encrypt", *secret)
        made = self.backup("/data/")["set"]
        self.agent("pool", "remove", "disk")
        self.assertIn("give --passphrase-file", self.agent("pool", "add", "disk", "file://" + self.pool, expect=1).stderr)
        self.agent("pool", "add", "disk", "file://" + self.pool, *secret)
        self.assertEqual(5, self.restored(made))


if __name__ == "__main__":
    harness.main()
