"""An object larger than 32 bits can count: exact in the 64-bit build, refused by name in the 32-bit build."""
import os
import shutil
import tempfile
import time
import unittest

import harness

GIB = 1 << 30
SIZE = 5 * GIB
CUT = 4 * GIB + GIB // 2 + 1
SMALL = {"a-small": 1000, "z-small": 70000}   # before and behind the huge one
HUGE = "/big/huge"


def width(build):
    """Bits of the program in that build folder; 0 where there is none."""
    try:
        with open(os.path.join(build, "bin", "obs-agent"), "rb") as program:
            return {b"\x7fELF\x01": 32, b"\x7fELF\x02": 64}.get(program.read(5), 0)
    except FileNotFoundError:
        return 0


def build_of(bits):
    """The build under test, or else the usual folder of that width; None where it was not built."""
    usual = os.path.join(harness.ROOT, "build", "i386") if bits == 32 else os.path.join(harness.ROOT, "build")
    return next((build for build in (harness.BUILD, usual) if width(build) == bits), None)


NARROW = build_of(32)
WIDE = build_of(64)


@unittest.skipIf(os.environ.get("OBS_SANITIZED"), "5 GiB under a sanitizer tell no more and take very long")
class Huge_Object(harness.Scenario):
    def setUp(self):
        super().setUp()
        options = ["--object", "big,huge,%d" % SIZE, "--cut", "huge,%d" % CUT, "--throw-away", "--log",
                   # So slow that one stream is not enough, whatever processors there are.
                   "--rate", "100000000", "--bucket", "wide", "--bucket", "narrow"]
        for key, size in SMALL.items():
            options += ["--object", "big,%s,%d" % (key, size)]
        self.server = harness.Test_Server(*options)
        self.addCleanup(self.server.stop)
        self.started = time.monotonic()

    def use(self, build):
        self.program = os.path.join(build, "bin", "obs-agent")

    def step(self, what):
        now = time.monotonic()
        print("%s: %.1f s" % (what, now - self.started), flush=True)
        self.started = now

    def assert_only_the_huge_one_was_refused(self, outcome, message):
        self.assertEqual("completed with errors", outcome["outcome"])
        self.assert_account_adds_up(outcome)
        self.assertEqual((len(SMALL), 1, 0), (outcome["saved"], outcome["skipped"], outcome["failed"]), outcome)
        self.assertEqual([(HUGE, message)], [(error["name"], error["message"]) for error in outcome["errors"]])

    def assert_restored(self, bucket, keys):
        for key in keys:
            self.assertEqual("none", self.server.ask("difference", "big", key, bucket, key), key)

    @unittest.skipIf(NARROW is None, "there is no 32-bit build here (./dev i386 makes it)")
    def test_32_bits_leave_it_out_of_a_backup_by_name_and_keep_the_rest(self):
        self.use(NARROW)
        self.add_account(self.server)
        self.add_pool()
        outcome = self.agent("backup", "work", "/big/", "--pool", "disk", "--json", expect=3).json
        self.assert_only_the_huge_one_was_refused(outcome, "The object is larger than this platform can read.")
        self.assertEqual("", self.server.ask("requests", "big", "huge"), "not a byte of it was asked for")
        self.agent("verify", outcome["set"])
        restored = self.agent("restore", outcome["set"], "--map", "big=narrow", "--json").json
        self.assertEqual(("completed", len(SMALL)), (restored["outcome"], restored["saved"]))
        self.assert_restored("narrow", SMALL)

    @unittest.skipIf(WIDE is None, "there is no 64-bit build here (./dev build makes it)")
    def test_64_bits_bring_it_back_exact_and_32_bits_restore_the_rest_of_that_set(self):
        free = shutil.disk_usage(tempfile.gettempdir()).free
        if free < SIZE + 2 * GIB:
            self.skipTest("%s has %.1f GiB free, this needs 7" % (tempfile.gettempdir(), free / GIB))
        self.use(WIDE)
        # These signatures leave the bodies alone, so that neither side computes another digest of 5 GiB.
        self.add_account(self.server, sign_method="v2")
        self.add_pool()
        outcome = self.agent("backup", "work", "/big/", "--pool", "disk", "--channels", "1", "--compression", "none",
                             "--json").json
        self.assertEqual(("completed", 1 + len(SMALL)), (outcome["outcome"], outcome["saved"]), outcome)
        self.assertEqual(SIZE + sum(SMALL.values()), outcome["bytes_read"])
        self.assertGreater(outcome["bytes_stored"], SIZE)
        asked = self.server.ask("requests", "big", "huge")
        self.assertGreater(int(asked.split("=")[1]), 1000, "it is read in ranges")
        self.assertEqual("1", self.server.ask("struck"), "one of them, beyond 4 GiB, was cut and resumed")
        self.step("backup")

        restored = self.agent("restore", outcome["set"], "--map", "big=wide", "--json").json
        self.assertEqual(("completed", 1 + len(SMALL)), (restored["outcome"], restored["saved"]), restored)
        self.step("restore")
        self.assert_restored("wide", ["huge", *SMALL])
        self.step("comparison")
        if NARROW is None:
            print("the 32-bit half is left out: there is no 32-bit build here (./dev i386 makes it)", flush=True)
            return

        self.use(NARROW)
        listed = self.agent("ls", outcome["set"], "/big/", "--recursive").stdout
        self.assertIn("huge", listed)
        restored = self.agent("restore", outcome["set"], "--map", "big=narrow", "--json", expect=3).json
        self.assert_only_the_huge_one_was_refused(restored, "The object is larger than this platform can write.")
        self.assert_restored("narrow", SMALL)
        self.assertEqual("", self.server.ask("requests", "narrow", "huge"), "its target was not touched")
        self.step("32-bit restore")
        self.agent("verify", outcome["set"])
        self.step("32-bit verification")


if __name__ == "__main__":
    harness.main()
