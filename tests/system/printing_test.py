"""What reaches a terminal: names and messages of others are shown escaped, on lines that are the program's own."""
import json
import os
import re
import subprocess
import unicodedata

import harness
import raw_s3

# Each with the form that is shown, written down here and not computed.
ODD = {
    b"plain": "plain",
    "wide/\u65e5\u672c \U0001f600".encode(): "wide/\u65e5\u672c \U0001f600",
    b"color\x1b[31mred": "color\\x1b[31mred",
    b"forged\n2026-01-01T00:00:00Z error a line": "forged\\n2026-01-01T00:00:00Z error a line",
    b"back\rover": "back\\rover",
    b"tab\there": "tab\\there",
    b"bell\x07del\x7f": "bell\\x07del\\x7f",
    "c1\u009b31m\u0085".encode(): "c1\\xc2\\x9b31m\\xc2\\x85",
    "line\u2028paragraph\u2029".encode(): "line\\xe2\\x80\\xa8paragraph\\xe2\\x80\\xa9",
    "right\u202egpj.exe".encode(): "right\\xe2\\x80\\xaegpj.exe",
    "isolate\u2067x\u2069".encode(): "isolate\\xe2\\x81\\xa7x\\xe2\\x81\\xa9",
    b"invalid\xff\xc3(": "invalid\\xff\\xc3(",
    b"escaped\\x1b": "escaped\\\\x1b",
}
# A folder object with data, which is skipped and named.
FOLDER, FOLDER_SHOWN = b"folder\x1b]0;title\x07/", "folder\\x1b]0;title\\x07/"
# What the service answers instead of one object.
CODE, CODE_SHOWN = "Odd\nobs-agent: forged\u009b31m\u202e", "Odd\\nobs-agent: forged\\xc2\\x9b31m\\xe2\\x80\\xae"
NAME, NAME_SHOWN = "na\x1bme\n", "na\\x1bme\\n"


def text_of(data):
    return os.fsdecode(data)


class Printing(harness.Scenario):
    @classmethod
    def setUpClass(cls):
        cls.server = harness.Test_Server("--bucket", "data", "--bucket", "target", "--bucket", "extras", "--bucket", "pages", "--refuse", "GetObject,refused," + CODE)
        cls.addClassCleanup(cls.server.stop)
        cls.raw = raw_s3.Raw_Client(cls.server)
        for key in [*ODD, FOLDER, b"refused"]:
            if not cls.raw.put("data", key, b"content of " + key):
                raise RuntimeError("the server does not take %r" % key)

    def setUp(self):
        super().setUp()
        self.add_account(self.server)
        self.add_pool()
        self.shown = ["/data/" + shown for shown in ODD.values()]
        self.all = sorted(self.shown + ["/data/refused"])

    def say(self, *arguments, expect=0, **options):
        """Runs a command that prints text; nothing that it prints, or logs, acts on a terminal."""
        result = self.agent("--verbose", *arguments, expect=expect, **options)
        self.assert_harmless(result.stdout, result.stderr)
        return result

    def assert_harmless(self, *texts):
        with open(os.path.join(self.state, "agent.log"), "rb") as log:
            texts += (log.read().decode(),)
        for text in texts:
            text.encode()   # no byte that is not UTF-8
            for c in text:
                self.assertTrue(c == "\n" or unicodedata.category(c) not in ("Cc", "Cf", "Zl", "Zp"), repr(text))
            # Nothing of theirs begins a line.
            self.assertFalse([line for line in text.split("\n") if re.match("2026-01-01|obs-agent: forged", line)], text)

    def assert_objects(self, expected, text, pattern):
        """The lines that match have these names, one each."""
        found = [match.group(1) for match in (re.search(pattern, line) for line in text.split("\n")) if match]
        self.assertEqual(sorted(expected), sorted(found), text)

    def save(self, *arguments):
        result = self.say("backup", "work", "/data/", "--pool", "disk", "--channels", "1", *arguments, expect=3)
        return result, re.search("^set (.*)$", result.stdout, re.M).group(1)

    def test_names_in_accounts_as_they_are_now(self):
        page = self.say("browse", "work", "/data/").stdout
        self.assert_objects(["/data/" + shown for shown in ODD.values() if "/" not in shown] + ["/data/refused"], page,
                            r"^\d{4}-\S+ \S+Z +\d+  (.*)$")
        self.assert_objects(["/data/wide/", "/data/" + FOLDER_SHOWN], page, "^ +-  (.*)$")
        page = self.say("browse", "work", "/data/", "--limit", "4").stdout
        self.assertIn("--marker $'color\\x1b[31mred'\n", page)
        self.assert_objects(self.all, self.say("backup", "work", "/data/", "--pool", "disk", "--dry-run").stdout,
                            "^ +\\d+  (/.*)$")

    def test_marker_is_what_a_shell_takes(self):
        keys = [b"\x01\x02", b"back\\slash", b"it's", "na\u00efve $HOME".encode(), b"tab\tand\nline"]
        for key in keys:
            self.raw.put("pages", key, b"content")
        self.raw.put("pages", b"~", b"the last")
        seen = []
        for _ in keys:
            page = self.say("browse", "work", "/pages/", "--limit", "1", *(["--marker", text_of(seen[-1])] if seen else []))
            word = re.search("--marker (.*)$", page.stdout).group(1)
            seen.append(subprocess.run(["bash", "-c", "printf %s " + word], stdout=subprocess.PIPE, check=True).stdout)
        self.assertEqual(sorted(keys), seen)

    def test_names_in_sets(self):
        run, made = self.save()
        self.assertIn("'/data/refused': ", run.stdout)
        self.assertIn(CODE_SHOWN, run.stdout)
        self.assertIn("/data/" + FOLDER_SHOWN, run.stdout)
        problems = self.say("problems", made).stdout
        self.assert_objects(["/data/refused", "/data/" + FOLDER_SHOWN], problems, r"^(?:skipped|failed)  (/[^:]*): ")
        self.assertIn(CODE_SHOWN, problems)
        head = r"^\S+ \S+ +\d+  "
        self.assert_objects(self.shown, self.say("ls", made, "-r").stdout, head + "(.*)$")
        self.assert_objects(self.shown, self.say("ls", made, "-r", "--long").stdout, r" access .{9}  (.*)$")
        self.assert_objects(self.shown, self.say("find", "/data/**").stdout, r"  \d+  (/.*)$")
        self.assert_objects([name + " -> /target" + name[5:] for name in self.shown],
                            self.say("restore", made, "--map", "data=target", "--dry-run").stdout, r"  (/.* -> .*)$")
        medium, = self.media(made)
        dump = self.say("media", "dump", medium).stdout
        self.assert_objects([shown[1:] for shown in self.shown], dump, r'ordinal .* path "(.*)"$')
        self.assertIn("not in the set: '/data/none\\x1b'",
                      self.say("restore", made, "--dry-run", "/data/none\x1b", "/data/plain", expect=None).stdout)

    def test_names_of_what_changed(self):
        _, before = self.save()
        for key in ODD:
            self.raw.put("data", key, b"another content of " + key)
        _, after = self.save()
        self.assert_objects(self.shown, self.say("diff", before, after).stdout, r"^M \S+ \S+ +\d+  (.*)  \(.*\)$")
        for key in ODD:
            self.raw.delete("data", key)
        self.addCleanup(lambda: [self.raw.put("data", key, b"content of " + key) for key in ODD])
        self.raw.put("data", b"left", b"over")
        self.addCleanup(self.raw.delete, "data", b"left")
        _, gone = self.save("--max-deleted", "100%") if self.knows("backup", "--max-deleted") else self.save()
        self.assert_objects(self.shown, self.say("diff", after, gone).stdout, r"^- \S+ \S+ +\d+  (.*)$")
        self.assert_objects(self.shown, self.say("find", "/data/**", "--set", gone).stdout, r"  (/[^ ].*)  \(deleted\)$")

    def knows(self, command, option):
        return option in self.agent(command, "--help").stdout

    def test_names_in_what_a_restore_asks_and_refuses(self):
        self.raw.put("extras", b"kept", b"kept")
        made = self.backup("/extras/")["set"]
        odd = {b"kept": "kept", b"forged\n2026-01-01 ": "forged\\n2026-01-01 ", b"red\x1b[31m": "red\\x1b[31m"}
        for key in odd:
            self.raw.put("extras", key, b"content")
            self.addCleanup(self.raw.delete, "extras", key)
        preview = self.say("restore", made, "--in-place", "--delete-extra", expect=2).stderr
        self.assertIn("2 objects", preview)
        for key, shown in odd.items():
            self.assertEqual(key != b"kept", "'/extras/%s'" % shown in preview, preview)
        self.assertIn("nothing at '/extras/none\\x1b'",
                      self.say("restore", made, "/extras/none\x1b", "--map", "extras=target", expect=None).stderr)
        self.assertIn("bucket 'no\\x1bne'", self.say("restore", made, "--map", "no\x1bne=target", expect=None).stderr)

    def test_names_of_what_is_damaged(self):
        _, made = self.save()
        self.damages_media = True
        medium, = self.media(made)
        with open(medium, "r+b") as file:
            data = file.read()
            for key in ODD:
                place = data.find(b"content of " + key)
                file.seek(place)
                file.write(bytes([data[place] ^ 1]))
        self.assert_objects(self.shown, self.say("verify", made, expect=1).stdout, "^damaged: '(.*)': ")
        self.assert_objects(self.shown, self.say("media", "check", medium, expect=1).stdout, ": at \\d+, '(.*)': ")
        restored = self.say("restore", made, "--map", "data=target", expect=1).stdout
        self.assert_objects([name.replace("/data/", "") for name in self.shown], restored, r"^file '.*?/(?:data|target)/(.*)': ")

    def test_names_that_operators_gave(self):
        self.add_account(self.server, name=NAME)
        self.say("account", "test", NAME)
        self.assertIn(NAME_SHOWN + "  http://", self.say("account", "list").stdout)
        self.assertIn("na\\\\u001Bme\\\\n", self.say("account", "show", NAME).stdout)
        self.assertIn("account '%s' changed" % NAME_SHOWN, self.say("account", "change", NAME, "--region", "x").stdout)
        self.agent("pool", "add", NAME, "file://" + self.pool + "-2")
        for arguments in (("pool", "list"), ("pool", "show", NAME)):
            self.assertIn(NAME_SHOWN + "  file://", self.say(*arguments).stdout)
        self.agent("backup", NAME, "/data/plain", "--pool", NAME, "--name", NAME)
        line, = self.say("sets", NAME).stdout.splitlines()
        self.assertTrue(line.endswith("  %s  %s  %s" % ((NAME_SHOWN,) * 3)), line)
        self.assertIn("pool %s, %s\n" % (NAME_SHOWN, NAME_SHOWN), self.say("forget", "--keep-last", "1").stdout)
        self.assertIn("account '%s' is in use" % NAME_SHOWN, self.say("account", "remove", NAME, expect=1).stderr)
        for arguments in (("account", "show"), ("pool", "show"), ("ls",), ("browse",), ("find",), ("run",),
                          ("media", "dump"), ("catalog", "rebuild")):
            self.assertIn("no\\nsuch\\x1b", self.say(*arguments, "no\nsuch\x1b", expect=1).stderr, arguments)
        self.assertIn("no\\nsuch\\x1b", self.say("sets", "work", "no\nsuch\x1b", expect=2).stderr)

    def test_json_has_names_as_json_has_them(self):
        made = self.backup("/data/", expect=3)["set"]
        rows = [json.loads(line) for line in self.agent("ls", made, "-r", "--json").stdout.split("\n") if line]
        self.assertEqual(sorted("/data/" + key.decode(errors="replace") for key in ODD),
                         sorted(row["file"].encode(errors="surrogateescape").decode(errors="replace") for row in rows))


if __name__ == "__main__":
    harness.main()
