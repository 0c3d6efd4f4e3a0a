"""The state folder is lost: the pool brings its sets back."""
import os
import shutil
import unittest

import harness


class Recover(harness.Scenario):
    def setUp(self):
        super().setUp()
        self.server = harness.Test_Server("--synthetic", "bucket,60,300", "--bucket", "target")
        self.addCleanup(self.server.stop)
        self.client = self.server.client()
        self.add_account(self.server)
        self.add_pool()

    def rows(self):
        return self.agent("sets", "--json").json["sets"]

    def lose_state(self):
        shutil.rmtree(self.state)
        self.add_account(self.server)

    def test_sets_come_back_with_their_pool_and_restore(self):
        self.backup("/bucket/")
        self.client.put_object(Bucket="bucket", Key="added", Body=b"added")
        second = self.backup("/bucket/")["set"]
        self.backup("/bucket/", "--full")
        # The account's name went with the state folder, and the pool gets another one.
        before = [dict(row, account_name="", pool_name="disk-again") for row in self.rows()]

        self.lose_state()
        self.assertEqual([], self.rows())
        added = self.add_pool("disk-again")
        self.assertIn("3 sets", added.stdout)
        self.assertEqual(before, self.rows())
        self.assertIn("/bucket/added", self.agent("ls", second, "--recursive").stdout)
        self.agent("verify", second)
        # The account is another one now, and only the operator knows that it is the same service.
        refused = self.agent("restore", second, "--map", "bucket=target", expect=1)
        self.assertIn("--to", refused.stderr)
        restored = self.agent("restore", second, "--to", "work", "--map", "bucket=target", "--json").json
        self.assertEqual(("completed", 61), (restored["outcome"], restored["saved"]))
        self.assertEqual(self.contents(self.server, "bucket"), self.contents(self.server, "target"))

    def test_sets_made_through_another_state_folder_are_seen(self):
        mine = self.state
        self.state = os.path.join(self.folder, "other-state")
        self.add_account(self.server)
        self.add_pool()
        made = self.backup("/bucket/")["set"]
        self.state = mine
        # Looked for by its name first, while the database does not know it.
        self.assertIn("object-0000000001", self.agent("ls", made[:8], "/bucket/d0000/e00/").stdout)
        self.assertEqual([made], [row["set"] for row in self.rows()])

    def test_set_whose_folder_was_taken_away_is_no_longer_listed(self):
        gone = self.backup("/bucket/")["set"]
        kept = self.backup("/bucket/", "--full")["set"]
        folder = next(folder for folder, _, _ in os.walk(self.pool) if os.path.basename(folder) == gone)
        aside = os.path.join(self.folder, "aside")
        shutil.move(folder, aside)
        self.assertEqual([kept], [row["set"] for row in self.rows()])
        shutil.move(aside, folder)
        self.assertEqual([gone, kept], [row["set"] for row in self.rows()])

    def test_pool_that_is_away_for_a_while_loses_nothing(self):
        made = self.backup("/bucket/")["set"]
        aside = os.path.join(self.folder, "aside")
        shutil.move(self.pool, aside)
        result = self.agent("sets", "--json")
        self.assertEqual([made], [row["set"] for row in result.json["sets"]])
        self.assertIn("pool 'disk'", result.stderr)
        shutil.move(aside, self.pool)
        self.assertEqual("", self.agent("sets", "--json").stderr)


if __name__ == "__main__":
    harness.main()
