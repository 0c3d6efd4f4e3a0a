"""Backups, restores, merges and verifications are cancelled at random points, by INT and TERM: each ends with 130 or had
finished before, none leaves a set, its account adds up, and what a backup has stored is not read again."""
import collections
import json
import os
import random
import signal
import subprocess
import time
import unittest

import harness

POINTS = int(os.environ.get("OBS_CANCEL_POINTS", "200"))
SEED = int(os.environ.get("OBS_SEED", "11"))
SETTLE_EVERY = 20    # cancels in a row before everything is looked at
OBJECTS = 300
LISTING = 30         # requests that a run makes beside those for objects, at the most
BOTH = 1 << (signal.SIGINT - 1) | 1 << (signal.SIGTERM - 1)


class Cancel_Points(harness.Scenario):
    def setUp(self):
        super().setUp()
        self.server = harness.Test_Server("--synthetic", "bucket,%d,4000" % OBJECTS, "--bucket", "target",
                                          "--latency", "5")
        self.addCleanup(self.server.stop)
        self.client = self.server.client()
        self.add_account(self.server)
        self.add_pool()
        self.chance = random.Random(SEED)
        self.number = 0
        self.stored = 0       # objects that cancelled backups have stored since the last one that made a set
        self.took = {}
        self.slowest = 0      # seconds from a signal to the end of what it was for

    def sets(self):
        return [row["set"] for row in self.agent("sets", "--json").json["sets"]]

    def change_something(self):
        """Half of the objects, so that an incremental has something to be cancelled in."""
        for index in range(OBJECTS // 2):
            self.number += 1
            key = "d0000/e%02d/changed-%03d" % (index % 3, index)
            self.client.put_object(Bucket="bucket", Key=key, Body=b"%d" % self.number * (self.number % 50 + 1))

    def arguments(self, kind, sets):
        if kind == "merge":
            return ["merge", *sets[:2]]
        if kind == "verify":
            return ["verify", self.chance.choice(sets)]
        if kind == "restore":
            return ["restore", self.chance.choice(sets), "--map", "bucket=target", "--existing", "overwrite"]
        return ["backup", "work", "/bucket/", "--pool", "disk", "--channels", str(self.chance.randrange(1, 4)),
                "--readers", str(self.chance.choice([2, 8, 32]))] + (["--full"] if kind == "full" else [])

    def takes_signals(self, process):
        """Waits until the program has got so far that a signal is its own."""
        while process.poll() is None:
            with open("/proc/%d/status" % process.pid) as status:
                masks = [int(line.split()[1], 16) for line in status if line.startswith(("SigBlk", "SigCgt"))]
            if any(mask & BOTH == BOTH for mask in masks):
                return

    def cancel_one(self, kind, sets):
        """The account of what was cancelled; None when it had finished before."""
        number = self.chance.choice([signal.SIGINT, signal.SIGTERM])
        arguments = self.arguments(kind, sets)
        # A shell's background processes, tests among them, inherit that interrupts are ignored.
        process = subprocess.Popen(self.command(*arguments, "--json"), stdin=subprocess.DEVNULL,
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                   preexec_fn=lambda: signal.signal(signal.SIGINT, signal.SIG_DFL))
        self.takes_signals(process)
        start = time.monotonic()
        try:
            out, error = process.communicate(timeout=self.chance.random() * self.took.get(kind, 0.3))
        except subprocess.TimeoutExpired:
            process.send_signal(number)
            sent = time.monotonic()
            out, error = process.communicate()
            self.slowest = max(self.slowest, time.monotonic() - sent)
            self.assertLess(self.slowest, 60, arguments)
        lines = [json.loads(line) for line in out.splitlines()]
        self.assertIn(process.returncode, (0, 130), "%s: %s%s" % (arguments, out, error))
        if process.returncode == 0:
            self.took[kind] = time.monotonic() - start
            self.assertNotEqual("cancelled", lines[-1].get("outcome"))
            if kind in ("full", "incremental"):
                self.look_at_backup(lines[-1])
            return None
        self.assertEqual(sets, self.sets(), "%s was cancelled and left a set" % arguments)
        # Before it had begun there is nothing to account for.
        account = lines[-1] if lines else {}
        self.assertEqual("cancelled", account.get("outcome", "cancelled"), account)
        if account and kind in ("full", "incremental", "restore"):
            self.assert_account_adds_up(account)
            self.assertEqual((0, 0, []), (account["skipped"], account["failed"], account["errors"]), account)
        if account and kind in ("full", "incremental"):
            self.assertGreaterEqual(account["saved"], account.get("continued", 0))
            self.assertEqual(account["saved"], account.get("resumable", 0))
            self.stored = max(self.stored, account["saved"])
        return account

    def look_at_backup(self, outcome):
        """Of a backup that made a set: nothing that was stored before was read again."""
        self.assert_account_adds_up(outcome)
        self.assertEqual((0, 0, []), (outcome["skipped"], outcome["failed"], outcome["errors"]), outcome)
        # Where the set before has them as well they are unchanged and not taken over.
        read = outcome["saved"] - outcome["continued"]
        self.assertLessEqual(read, outcome["listed"] - max(self.stored, outcome["unchanged"]), outcome)
        self.assertLessEqual(outcome["requests"], read + LISTING, outcome)
        self.stored = 0

    def settle(self):
        outcome = self.backup("/bucket/")
        self.look_at_backup(outcome)
        self.agent("verify", outcome["set"])
        self.agent("restore", outcome["set"], "--map", "bucket=target", "--existing", "overwrite")
        self.assertEqual(self.contents(self.server, "bucket"), self.contents(self.server, "target"))
        self.agent("forget", "--keep-last", "3")
        self.assertEqual([], self.unfinished())
        return outcome

    def test_cancel_at_any_point_ends_with_130_and_makes_no_set(self):
        print("seed %d" % SEED, flush=True)
        self.backup("/bucket/")
        self.settle()
        cancelled, finished, tries = collections.Counter(), collections.Counter(), 0
        while sum(cancelled.values()) < POINTS:
            tries += 1
            self.assertLess(tries, 20 * POINTS, "what is to be cancelled ends before it is")
            sets = self.sets()
            kind = self.chance.choice(["full", "incremental", "restore", "merge", "verify"])
            if kind == "incremental" and self.stored == 0:
                self.change_something()
            if kind == "merge" and len(sets) < 2:
                continue
            resumed = kind in ("full", "incremental") and self.stored != 0
            account = self.cancel_one(kind, sets)
            (finished if account is None else cancelled)["resumed" if resumed else kind] += 1
            if sum(cancelled.values()) % SETTLE_EVERY == 0 and account is not None:
                self.settle()
        self.settle()
        print("cancelled:", dict(cancelled), "finished before:", dict(finished),
              "the slowest took %.1f s to end" % self.slowest, flush=True)
        self.assertEqual({"full", "incremental", "resumed", "restore", "merge", "verify"}, set(cancelled))


if __name__ == "__main__":
    harness.main()
