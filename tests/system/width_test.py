"""What was built has the width that it was built for."""
import os
import subprocess
import unittest

import harness

BITS = os.environ.get("OBS_BITS", "64")
MACHINE = {"32": "Intel 80386", "64": "x86-64"}
BUILT = ["lib/obs/libobs_agent.so", "lib/libagent_platform.so", "lib/codec/libagent_codec_lzop.so",
         "bin/obs-agent", "bin/s3-test-server"]


class Width(harness.Scenario):
    def test_file_tells_the_width_of_everything_that_was_built(self):
        for name in BUILT:
            with self.subTest(name=name):
                told = subprocess.run(["file", "-b", "-L", os.path.join(harness.BUILD, name)], stdout=subprocess.PIPE,
                                      check=True, text=True).stdout
                self.assertIn("ELF %s-bit LSB" % BITS, told)
                self.assertIn(MACHINE[BITS], told)

    def test_the_module_is_a_shared_object(self):
        told = subprocess.run(["file", "-b", os.path.join(harness.BUILD, BUILT[0])], stdout=subprocess.PIPE,
                              check=True, text=True).stdout
        self.assertIn("shared object", told)


if __name__ == "__main__":
    harness.main()
