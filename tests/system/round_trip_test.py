"""Backup and restore against a real S3 server: what comes back is what was there."""
import itertools
import os
import unittest

import harness


class Round_Trip(harness.Scenario):
    OBJECTS = "300"

    @classmethod
    def setUpClass(cls):
        cls.server = harness.Real_Server()
        cls.addClassCleanup(cls.server.stop)
        filled = cls.server.tool("fill_bucket.py", "source", "--objects", cls.OBJECTS, "--seed", "7",
                                 "--big", "20M")
        if filled.returncode != 0:
            raise RuntimeError(filled.stdout)

    def round_trip(self, target, account, backup_options=(), restore_options=()):
        self.add_account(self.server, **account)
        self.add_pool()
        backup = self.agent("backup", "work", "/source/", "--pool", "disk", "--json", *backup_options, expect=None)
        # A folder object with data is in the bucket on purpose: it is named, and the outcome says so.
        self.assertEqual(3, backup.returncode, backup.stdout + backup.stderr)
        outcome = backup.json
        self.assertEqual("completed with errors", outcome["outcome"])
        self.assert_account_adds_up(outcome)
        self.assertEqual(0, outcome["failed"], outcome)
        self.assertTrue(all(error["name"].endswith("/") for error in outcome["errors"]), outcome["errors"])
        self.agent("verify", outcome["set"])
        restored = self.agent("restore", outcome["set"], "--map", "source=" + target, "--create-bucket",
                              "--json", *restore_options).json
        self.assertEqual("completed", restored["outcome"])
        self.assertEqual(outcome["saved"], restored["saved"])
        self.assert_account_adds_up(restored)
        compared = self.server.tool("compare_buckets.py", "--ignore-folder-objects", "source", target)
        self.assertEqual(0, compared.returncode, compared.stdout)
        return outcome

    def test_every_compression_over_http_and_tls_with_both_signatures_is_exact(self):
        combinations = list(itertools.product(["none", "zstd", "lzop"], ["http", "tls"], ["v4", "v2"]))
        source = {b"source/" + key.encode(): content for key, content in self.contents(self.server, "source").items()
                  if not key.endswith("/")}
        for number, (compression, transport, signature) in enumerate(combinations):
            with self.subTest(compression=compression, transport=transport, signature=signature):
                self.state = os.path.join(self.folder, "state-%d" % number)
                self.pool = os.path.join(self.folder, "pool-%d" % number)
                account = {"sign_method": signature}
                if transport == "tls":
                    account.update(endpoint=self.server.tls_endpoint, ca_file=self.server.ca)
                outcome = self.round_trip("target-%d" % number, account,
                                          ["--compression", compression, "--channels", str(1 + number % 4)])
                if compression == "none":
                    self.assert_readable_elsewhere(self.media(outcome["set"]), source)

    def test_automatic_compression_is_exact(self):
        self.round_trip("target-auto", {}, ["--compression", "auto", "--channels", "4"])

    def test_prefix_mapping_puts_objects_below_the_prefix(self):
        self.add_account(self.server)
        self.add_pool()
        client = self.server.client()
        client.create_bucket(Bucket="small")
        client.put_object(Bucket="small", Key="a/b.txt", Body=b"one")
        client.put_object(Bucket="small", Key="c.txt", Body=b"two")
        outcome = self.agent("backup", "work", "/small/", "--pool", "disk", "--json").json
        self.assertEqual((2, 2), (outcome["listed"], outcome["saved"]))
        self.agent("restore", outcome["set"], "--map", "small=small-mapped/restored", "--create-bucket")
        self.assertEqual(b"one", client.get_object(Bucket="small-mapped", Key="restored/a/b.txt")["Body"].read())
        self.assertEqual(b"two", client.get_object(Bucket="small-mapped", Key="restored/c.txt")["Body"].read())

    def test_existing_objects_are_kept_or_replaced_as_the_policy_says(self):
        self.add_account(self.server)
        self.add_pool()
        client = self.server.client()
        for bucket in ("policy", "policy-target"):
            client.create_bucket(Bucket=bucket)
        client.put_object(Bucket="policy", Key="k", Body=b"backed up")
        outcome = self.agent("backup", "work", "/policy/k", "--pool", "disk", "--json").json
        self.assertEqual(1, outcome["saved"])

        client.put_object(Bucket="policy-target", Key="k", Body=b"newer")
        for policy, expected in (("skip", b"newer"), ("newest", b"newer"), ("overwrite", b"backed up")):
            restored = self.agent("restore", outcome["set"], "--map", "policy=policy-target", "--existing", policy,
                                  "--json").json
            self.assert_account_adds_up(restored)
            self.assertEqual(1 if policy == "overwrite" else 0, restored["saved"], policy)
            self.assertEqual(expected, client.get_object(Bucket="policy-target", Key="k")["Body"].read(), policy)

    def test_selected_paths_alone_are_restored(self):
        self.add_account(self.server)
        self.add_pool()
        client = self.server.client()
        for bucket in ("select", "select-target"):
            client.create_bucket(Bucket=bucket)
        for key in ("a/1", "a/2", "b/1", "c"):
            client.put_object(Bucket="select", Key=key, Body=key.encode())
        set_id = self.agent("backup", "work", "/select/", "--pool", "disk", "--json").json["set"]
        restored = self.agent("restore", set_id, "/select/a/", "/select/c", "--map", "select=select-target",
                              "--json").json
        self.assertEqual(3, restored["saved"])
        keys = [item["Key"] for item in client.list_objects(Bucket="select-target")["Contents"]]
        self.assertEqual(["a/1", "a/2", "c"], keys)

    def test_sources_that_go_back_up_and_overlap_are_exact(self):
        self.add_account(self.server)
        self.add_pool()
        client = self.server.client()
        for bucket in ("overlap", "overlap-target"):
            client.create_bucket(Bucket=bucket)
        for key in ("x/f", "x/y/1", "x/y/z/2", "top"):
            client.put_object(Bucket="overlap", Key=key, Body=key.encode())
        outcome = self.agent("backup", "work", "/overlap/x/y/", "/overlap/x/f", "/overlap/x/y/z/", "/overlap/top",
                             "--pool", "disk", "--json").json
        self.assertEqual((4, 4), (outcome["listed"], outcome["saved"]))
        self.agent("restore", outcome["set"], "--map", "overlap=overlap-target")
        for key in ("x/f", "x/y/1", "x/y/z/2", "top"):
            self.assertEqual(key.encode(), client.get_object(Bucket="overlap-target", Key=key)["Body"].read())

    def test_rules_leave_out_what_they_exclude(self):
        self.add_account(self.server)
        self.add_pool()
        client = self.server.client()
        client.create_bucket(Bucket="rules")
        for key in ("keep.txt", "drop.tmp", "sub/keep.txt", "sub/drop.tmp", "cache/x"):
            client.put_object(Bucket="rules", Key=key, Body=b"x")
        outcome = self.agent("backup", "work", "/rules/", "--pool", "disk", "--exclude", "*.tmp", "--exclude",
                             "cache/", "--json").json
        self.assertEqual((4, 2, 2), (outcome["listed"], outcome["saved"], outcome["excluded"]))
        self.assert_account_adds_up(outcome)
        shown = self.agent("backup", "work", "/rules/", "--pool", "disk", "--exclude", "*.tmp", "--exclude", "cache/",
                           "--dry-run").stdout
        self.assertIn("/rules/sub/keep.txt", shown)
        self.assertNotIn("drop.tmp", shown)
        self.assertIn("2 objects", shown)
        self.assertEqual(1, len(self.agent("sets", "--json").json["sets"]))
        listed = self.agent("ls", outcome["set"], "--recursive").stdout
        self.assertIn("/rules/sub/keep.txt", listed)
        self.assertNotIn("drop.tmp", listed)


if __name__ == "__main__":
    harness.main()
