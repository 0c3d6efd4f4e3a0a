"""What a power cut could undo: contents that were not synced since they were written, and names that were made, changed or
removed in a folder that was not synced since. Whenever the pool comes to depend on something, that must be durable."""
import os
import unittest

import harness

LIBRARY = os.environ.get("OBS_FILE_LOG", "")
RECORDS = ("set.json", "partial.json")


def is_data(path):
    name = os.path.basename(path)
    return name.endswith(".mtf") or name in ("catalog.db", "catalog.sum")


class Disk:
    """What is durable, as far as a program may rely on it: a file's content from its sync on until the next write, a name
    from the next sync of its folder on."""

    def __init__(self, root):
        self.root = root
        self.clean = {}            # file: its content is durable
        self.names = {}            # path: its name is durable
        self.removed = set()       # paths that may come back
        self.sets = set()          # folders that have or had a record
        self.faults = []

    def fault(self, line, why):
        self.faults.append("%s: %s" % (line, why))

    def below(self, folder):
        return [path for path in self.names if path.startswith(folder + "/")]

    def unsafe(self, path):
        """Why the file or folder may be lost or torn; empty when it cannot be."""
        if not self.clean.get(path, True):
            return path + " has content that was not synced"
        while path != self.root:
            if not self.names.get(path, True):
                return "the name of " + path + " was not synced"
            path = os.path.dirname(path)
        return ""

    def depend_on(self, line, folder):
        """The folder's record is about to count."""
        self.sets.add(folder)
        for path in self.below(folder):
            if is_data(path) and os.path.dirname(path) == folder and self.unsafe(path):
                self.fault(line, self.unsafe(path))

    def replace_catalog(self, line, path):
        """A catalog takes the place of another one: the other one's check must not come back to it."""
        check = os.path.join(os.path.dirname(path), "catalog.sum")
        if check in self.names or check in self.removed:
            self.fault(line, check + " is of the catalog before")

    def lose(self, line, path):
        """Data go: no record may count on them any more, and those that stand for them now must be durable."""
        folder = os.path.dirname(path)
        if os.path.basename(folder).startswith(".removed-"): # where no record counts
            if self.unsafe(folder):
                self.fault(line, self.unsafe(folder))
            return
        for record in (os.path.join(folder, name) for name in RECORDS):
            if record in self.names:
                self.fault(line, record + " still counts on it")
            if record in self.removed:
                self.fault(line, "the removal of " + record + " was not synced")
        for other in list(self.names):
            if os.path.basename(other) == "set.json" and self.unsafe(other):
                self.fault(line, self.unsafe(other))

    def take(self, line):
        what, _, rest = line.partition(" ")
        if what == "write":
            if rest.endswith(" (deleted)"):
                return
            self.names.setdefault(rest, False)
            self.clean[rest] = False
        elif what == "mkdir":
            self.names[rest] = False
        elif what == "sync":
            if rest in self.clean:
                self.clean[rest] = True
            else:
                for path in self.names:
                    if os.path.dirname(path) == rest:
                        self.names[path] = True
                self.removed = {path for path in self.removed if os.path.dirname(path) != rest}
        elif what == "unlink":
            folder = os.path.dirname(rest)
            if rest.endswith((".mtf", "/catalog.db")) and (folder in self.sets or "/.removed-" in folder):
                self.lose(line, rest)
            self.clean.pop(rest, None)
            if self.names.pop(rest, False):
                self.removed.add(rest)
        else:
            self.rename(line, *rest.split("\t"))

    def rename(self, line, source, target):
        name = os.path.basename(target)
        if source in self.clean:
            if not self.clean[source]:
                self.fault(line, "the content was not synced before")
            if name in RECORDS:
                self.depend_on(line, os.path.dirname(target))
            if name == "catalog.db" and os.path.dirname(target) in self.sets:
                self.replace_catalog(line, target)
            self.clean[target] = self.clean.pop(source)
        for path in self.below(source) + [source]:
            if path in self.names:
                moved = target + path[len(source):]
                durable = self.names.pop(path)
                self.names[moved] = durable and path != source
                if path in self.clean:
                    self.clean[moved] = self.clean.pop(path)
                if durable and path == source:
                    self.removed.add(path)
        self.removed.discard(target)

    def end(self):
        """The program has ended and has said that all is done."""
        for path in self.names:
            if os.path.basename(path) in RECORDS + ("pool.json",) and self.unsafe(path):
                self.fault("end", self.unsafe(path))
            if is_data(path) and os.path.dirname(path) + "/set.json" in self.names and self.unsafe(path):
                self.fault("end", self.unsafe(path))


@unittest.skipUnless(LIBRARY, "needs a library in front of the C library, which sanitizers do not like")
class Durable(harness.Scenario):
    def setUp(self):
        super().setUp()
        self.server = harness.Test_Server("--synthetic", "bucket,60,3000", "--bucket", "target")
        self.addCleanup(self.server.stop)
        self.client = self.server.client()
        self.log = os.path.join(self.folder, "log")
        self.pool = os.path.join(os.path.realpath(self.folder), "pool")
        self.disk = Disk(self.pool)
        self.lines = 0
        self.add_account(self.server)

    def agent(self, *arguments, **options):
        open(self.log, "w").close()
        os.environ.update(LD_PRELOAD=LIBRARY, FILE_LOG=self.log, FILE_LOG_ROOT=self.pool)
        try:
            result = super().agent(*arguments, **options)
        finally:
            for name in ("LD_PRELOAD", "FILE_LOG", "FILE_LOG_ROOT"):
                del os.environ[name]
        with open(self.log, errors="surrogateescape") as log:
            lines = log.read().splitlines()
        self.lines += len(lines)
        for line in lines:
            self.disk.take(line)
        self.disk.end()
        self.assertEqual([], self.disk.faults, " ".join(arguments) + "\n" + "\n".join(lines))
        return result

    def put(self, key, body):
        self.client.put_object(Bucket="bucket", Key=key, Body=body)

    def sets(self):
        return [row["set"] for row in self.agent("sets", "--json").json["sets"]]

    def chain(self):
        sets = [self.backup("/bucket/", "--channels", "2")["set"]]
        self.put("k/one", b"1" * 100000)
        sets.append(self.backup("/bucket/")["set"])
        self.put("k/one", b"2" * 100001)
        sets.append(self.backup("/bucket/")["set"])
        return sets

    def test_record_is_the_last_thing_that_becomes_durable(self):
        self.add_pool()
        self.chain()
        self.assertGreater(self.lines, 100)

    def test_merged_set_is_durable_before_the_old_ones_go(self):
        self.add_pool()
        sets = self.chain()
        answer = self.agent("merge", *sets[:2], "--json").json
        self.assertEqual([answer["set"], sets[2]], self.sets())

    def test_forgotten_set_loses_its_record_before_its_data(self):
        self.add_pool()
        sets = self.chain()
        last = self.backup("/bucket/", "--full")["set"]
        self.agent("forget", "--keep-last", "1", "--json")
        self.assertEqual([last], self.sets())
        self.assertEqual([], [path for path in self.disk.names if sets[0] in path and is_data(path)])

    def test_rebuilt_and_marked_catalogs_replace_the_old_ones_durably(self):
        self.add_pool()
        sets = self.chain()
        self.agent("catalog", "rebuild", sets[2], "--json")
        self.damages_media = True
        medium = self.media(sets[2])[0]
        with open(medium, "r+b") as file:
            file.seek(os.path.getsize(medium) // 2)
            byte = file.read(1)
            file.seek(-1, os.SEEK_CUR)
            file.write(bytes([byte[0] ^ 1]))
        self.agent("verify", sets[2], "--mark", "--json", expect=None)
        self.backup("/bucket/")

    def test_key_of_a_pool_is_never_without_its_old_or_its_new_lock(self):
        key = os.path.join(self.folder, "key")
        with open(key, "wb") as file:
            file.write(b"k" * 32)
        self.agent("pool", "add", "disk", "file://" + self.pool, "--encrypt", "--key-file", key)
        self.chain()
        other = os.path.join(self.folder, "other")
        with open(other, "wb") as file:
            file.write(b"o" * 32)
        self.agent("pool", "rekey", "disk", "--key-file", other)
        self.backup("/bucket/")


if __name__ == "__main__":
    harness.main()
