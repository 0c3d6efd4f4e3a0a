"""A pool that others can write to: what they may have put in the place of its files leads nowhere, holds nobody up, and is
told by its name. Nothing outside the pool is touched."""
import os
import shutil
import stat
import subprocess
import unittest

import harness

# The longest that any of these commands may take. Each waited for ever.
BOUND = 60


class Hostile_Pool(harness.Scenario):
    def setUp(self):
        super().setUp()
        self.damages_media = True
        self.server = harness.Test_Server("--bucket", "small", "--bucket", "target")
        self.addCleanup(self.server.stop)
        for number in range(4):
            self.server.client().put_object(Bucket="small", Key="k%d" % number, Body=b"data %d" % number)
        self.add_account(self.server)
        self.add_pool()
        self.sets = [self.backup("/small/")["set"]]
        self.server.client().put_object(Bucket="small", Key="new", Body=b"new")
        self.sets.append(self.backup("/small/")["set"])
        self.outside = os.path.join(self.folder, "outside")
        os.mkdir(self.outside)
        self.victim = os.path.join(self.outside, "victim")
        with open(self.victim, "wb") as file:
            file.write(b"precious")
        self.clean = os.path.join(self.folder, "clean")
        for name in ("pool", "state"):
            shutil.copytree(os.path.join(self.folder, name), os.path.join(self.clean, name), symlinks=True)

    def begin_anew(self):
        """The state too: it knows how often the pool's roll was written."""
        for name in ("pool", "state"):
            shutil.rmtree(os.path.join(self.folder, name))
            shutil.copytree(os.path.join(self.clean, name), os.path.join(self.folder, name), symlinks=True)

    def set_folder(self, uuid):
        return next(folder for folder, _, _ in os.walk(self.pool) if os.path.basename(folder) == uuid)

    def plant(self, path, kind):
        if os.path.lexists(path):
            os.unlink(path)
        if kind == "link":
            os.symlink(self.victim, path)
        elif kind == "dangling":
            os.symlink(os.path.join(self.outside, "new"), path)
        else:
            os.mkfifo(path)

    def bounded(self, *arguments):
        """The command's result; fails where it does not end."""
        try:
            done = subprocess.run(self.command(*arguments), stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                  stderr=subprocess.PIPE, timeout=BOUND)
        except subprocess.TimeoutExpired:
            self.fail("%s does not end" % " ".join(arguments))
        return done.returncode, (done.stdout + done.stderr).decode(errors="replace")

    def assert_outside_untouched(self):
        with open(self.victim, "rb") as file:
            self.assertEqual(b"precious", file.read())
        self.assertEqual(["victim"], os.listdir(self.outside))

    def commands(self):
        newest = self.sets[-1]
        return [["sets"], ["ls", newest, "/small/"], ["find", "*"], ["diff", *self.sets], ["problems", newest],
                ["verify", newest], ["restore", newest, "--map", "small=target"],
                ["backup", "work", "/small/", "--pool", "disk"], ["forget", "--keep-last", "1"],
                ["merge", *self.sets], ["catalog", "rebuild", newest]]

    def test_each_command_ends_whatever_lies_in_the_place_of_each_file(self):
        names = ["set.json", "catalog.db", "catalog.sum", "channel-0000.mtf", ".lock", "set.json.tmp",
                 "catalog.sum.tmp", "catalog.db-journal", "catalog.db-wal"]
        places = [(os.path.relpath(self.set_folder(uuid), self.pool), name) for uuid in self.sets for name in names]
        places += [("", ".lock"), ("", "pool.json"), ("", "pool.json.tmp"), ("", "sets.json"),
                   ("", "sets.json.tmp")]
        changing = [command for command in self.commands() if command[0] in ("backup", "forget", "merge", "verify")]
        for kind, commands in (("fifo", self.commands()), ("link", changing), ("dangling", changing)):
            for folder, name in places:
                for command in commands:
                    self.begin_anew()
                    path = os.path.join(self.pool, folder, name)
                    with self.subTest(kind=kind, path=path, command=command[0]):
                        self.plant(path, kind)
                        code, text = self.bounded(*command)
                        self.assert_outside_untouched()
                        self.assertNotIn(code, (None, 139, 134), text)
                        if code == 1:
                            self.assertIn(name.replace(".tmp", ""), text)

    def test_folder_behind_a_link_is_no_part_of_the_pool(self):
        for depth in (1, 2, 3):
            with self.subTest(depth=depth):
                self.begin_anew()
                path = self.set_folder(self.sets[0])
                for _ in range(3 - depth):
                    path = os.path.dirname(path)
                away = os.path.join(self.folder, "away%d" % depth)
                shutil.move(path, away)
                os.symlink(away, path)
                before = sorted((folder, sorted(files)) for folder, _, files in os.walk(away))
                for command in self.commands():
                    self.bounded(*command)
                after = sorted((folder, sorted(files)) for folder, _, files in os.walk(away))
                self.assertEqual(before, after)

    def test_pool_s_own_folder_is_made_for_its_owner_alone(self):
        old = os.umask(0o022)
        try:
            other = os.path.join(self.folder, "deep", "other")
            self.agent("pool", "add", "other", "file://" + other)
        finally:
            os.umask(old)
        self.assertEqual(0o700, stat.S_IMODE(os.stat(other).st_mode))


if __name__ == "__main__":
    harness.main()
