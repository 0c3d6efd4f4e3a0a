"""Keys of all kinds on a real S3 server: they come back byte for byte, or are named."""
import concurrent.futures
import random

import harness
import raw_s3

CLASSES = {
    "control": [bytes([code]) for code in range(1, 32)],
    "del": [b"\x7f"],
    "line breaks": [b"\r", b"\n", b"\r\n"],
    "slash": [b"/", b"//"],
    "dot segments": [b".", b"..", b"..."],
    "left and right space": [b" ", b"  ", b"x ", b" x"],
    "left and right period": [b".x", b"x."],
    "tilde": [b"~", b"~x", b"x~"],
    "backslash": [b"\\", b"a\\b"],
    "colon": [b":", b"C:"],
    "quotes": [b'"', b"'", b"`"],
    "question, star, pipe": [b"?", b"*", b"|"],
    "percent": [b"%", b"%2F", b"%25", b"%00", b"%zz", b"100%", b"a%20b"],
    "hash and plus": [b"#", b"+", b"a+b c"],
    "angles and ampersand": [b"<", b">", b"&", b"&amp;", b"<Key>", b"]]>", b"<!--"],
    "dollar and others": [b"$", b";", b",", b"=", b"@", b"!", b"^", b"(x)", b"[x]", b"{x}"],
    "invalid UTF-8": [b"\x80", b"\xbf", b"\xc0\xaf", b"\xff", b"\xfe", b"\xed\xa0\x80", b"\xc3", b"a\xc3("],
    "not in XML": [b"\xef\xbf\xbe", b"\xef\xbf\xbf", b"\xef\xbb\xbf", b"\xef\xbf\xbd"],
    "wide and combining": ["\U0001f600".encode(), "\u65e5\u672c".encode(), "e\u0301".encode(), "\u00e9".encode()],
    "queries": [b"?acl", b"?uploads", b"a?versionId=1", b"a&b=c"],
}


def all_keys():
    keys = {bytes([code]) for code in range(1, 256)}
    for texts in CLASSES.values():
        for text in texts:
            keys |= {b"a" + text, text + b"a", b"dir/" + text, text + b"/file", b"dir/a" + text + b"/b" + text}
    keys |= {b"p", b"p/", b"p/q", b"p/q/", b"p/q/r", b"pq", b"abc", b"abc/", b"/abc", b"a//b", b"//a", b"a/./b",
             b"a/../b", b"a/../../b", b"Key", b"key", b"KEY"}
    for letter in ("\u00e9", "\u65e5", "\U0001f600"):
        whole = 1024 // len(letter.encode())
        keys.add(letter.encode() * whole + b"x" * (1024 - whole * len(letter.encode())))
    rng = random.Random(11)
    while len(keys) < 2500:
        alphabet = rng.choice(["/.", "ab/", "a/. %+\\", "\x01\x7f\x80\xff/", [chr(code) for code in range(1, 0x180)]])
        keys.add("".join(rng.choice(alphabet) for _ in range(rng.randrange(1, 30))).encode())
    return sorted(keys)


def is_text(key):
    try:
        key.decode()
    except UnicodeDecodeError:
        return False
    return True


class Odd_Keys(harness.Scenario):
    @classmethod
    def setUpClass(cls):
        cls.server = harness.Real_Server()
        cls.addClassCleanup(cls.server.stop)
        cls.raw = raw_s3.Raw_Client(cls.server)

    def in_parallel(self, work, keys):
        with concurrent.futures.ThreadPoolExecutor(8) as pool:
            return list(pool.map(work, keys))

    def assert_target(self, bucket, prefix, expected):
        """The bucket holds these keys below the prefix, with their contents, and nothing else."""
        found = self.raw.keys(bucket)
        self.assertEqual(sorted(prefix + key for key in expected), sorted(found))
        for key, body in zip(expected, self.in_parallel(lambda key: self.raw.get(bucket, prefix + key), expected)):
            self.assertEqual(b"content of " + key, body, key)

    def test_keys_come_back_byte_for_byte_with_and_without_mapping(self):
        self.add_account(self.server)
        self.add_pool()
        for bucket in ("keys", "target", "below"):
            self.assertEqual(200, self.raw.request("PUT", bucket)[0])
        wanted = all_keys()
        stored = self.in_parallel(lambda key: self.raw.put("keys", key, b"content of " + key), wanted)
        refused = [key for key, done in zip(wanted, stored) if not done]
        print("%d keys, %d refused by the server: %r" % (len(wanted), len(refused), refused[:20]), flush=True)
        # This server takes no key that is not UTF-8; such keys have their test on the scripted one.
        self.assertEqual([], [key for key in refused if is_text(key)])
        keys = self.raw.keys("keys")
        self.assertEqual(sorted(set(wanted) - set(refused)), sorted(keys))
        folders = [key for key in keys if key.endswith(b"/")]
        saved = [key for key in keys if not key.endswith(b"/")]

        outcome = self.backup("/keys/", expect=3)
        self.assertEqual((len(keys), len(saved), len(folders)),
                         (outcome["listed"], outcome["saved"], outcome["skipped"]), outcome["errors"][:10])
        self.agent("verify", outcome["set"])
        self.assert_readable_elsewhere(self.media(outcome["set"]),
                                       {b"keys/" + key: b"content of " + key for key in saved})

        restored = self.agent("restore", outcome["set"], "--map", "keys=target", "--json").json
        self.assertEqual(len(saved), restored["saved"], restored["errors"][:10])
        self.assert_target("target", b"", saved)

        restored = self.agent("restore", outcome["set"], "--map", "keys=below/some/where", "--json", expect=None).json
        fits = [key for key in saved if len(key) + len(b"some/where/") <= 1024]
        self.assertEqual(len(fits), restored["saved"], restored["errors"][:10])
        self.assertEqual(len(saved) - len(fits), restored["skipped"] + restored["failed"])
        self.assert_target("below", b"some/where/", fits)

        self.in_parallel(lambda key: self.raw.delete("keys", key), keys)
        self.assertEqual([], self.raw.keys("keys"))
        restored = self.agent("restore", outcome["set"], "--in-place", "--json").json
        self.assertEqual(len(saved), restored["saved"], restored["errors"][:10])
        self.assert_target("keys", b"", saved)


if __name__ == "__main__":
    harness.main()
