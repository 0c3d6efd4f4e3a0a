"""What `cmake --install` leaves is a program that runs, wherever it is moved to."""
import os
import shutil
import subprocess

import harness


class Install(harness.Scenario):
    def setUp(self):
        super().setUp()
        prefix = os.path.join(self.folder, "prefix")
        done = subprocess.run(["cmake", "--install", harness.BUILD, "--prefix", prefix], stdin=subprocess.DEVNULL,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        self.assertEqual(0, done.returncode, done.stdout)
        self.prefix = os.path.join(self.folder, "moved")
        os.rename(prefix, self.prefix)
        self.program = os.path.join(self.prefix, "bin", "obs-agent")

    def files(self):
        return sorted(os.path.relpath(os.path.join(folder, name), self.prefix)
                      for folder, _, names in os.walk(self.prefix) for name in names)

    def test_program_module_and_codec_are_found_where_they_are_installed(self):
        self.assertEqual(["bin/obs-agent", "lib/codec/libagent_codec_lzop.so", "lib/libagent_platform.so",
                          "lib/obs/libobs_agent.so"], self.files())
        self.assertRegex(self.agent("--version").stdout, r"^obs-agent \d+\.\d+\.\d+\n$")
        server = harness.Test_Server("--bucket", "data", "--bucket", "back")
        self.addCleanup(server.stop)
        client = server.client()
        for number in range(20):
            client.put_object(Bucket="data", Key=str(number), Body=b"squeeze me " * 5000)
        self.add_account(server)
        self.add_pool()
        self.assertIn("/data/", self.agent("browse", "work").stdout)
        made = self.backup("--compression", "lzop")
        self.assertEqual(20, made["saved"])
        self.agent("restore", made["set"], "--map", "data=back")
        self.assertEqual(20, len(client.list_objects(Bucket="back")["Contents"]))

        # Without the codec's file what it compressed cannot be read, and that is said.
        os.remove(os.path.join(self.prefix, "lib", "codec", "libagent_codec_lzop.so"))
        self.assertIn("lzop", self.agent("verify", made["set"], expect=1).stdout)

    def test_a_program_without_its_module_says_which_file_it_looked_for(self):
        shutil.rmtree(os.path.join(self.prefix, "lib", "obs"))
        self.assertIn("lib/obs/libobs_agent.so", self.agent("browse", "work", expect=1).stderr)


if __name__ == "__main__":
    harness.main()
