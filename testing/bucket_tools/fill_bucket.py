#!/usr/bin/python3
"""Fills a bucket with objects of many sizes under nested prefixes and with keys that are hard to carry.

The same seed makes the same objects. Prints how many there are, their bytes, and each folder object by name."""

import argparse
import random
import sys
import time

from bucket_access import Access, add_access_arguments, for_all, list_objects, size_argument

KIB, MIB = 1 << 10, 1 << 20


def odd_keys():
    """Keys that tools are known to break on; each is a different object."""
    word = "r\u00e9sum\u00e9"                       # composed
    apart = "re\u0301sume\u0301"                    # the same word, decomposed
    keys = [
        "odd/two words", "odd/ leading blank", "odd/trailing blank ", "odd/a+b", "odd/a%2Bb", "odd/100%", "odd/%00",
        "odd/a&b", "odd/a=b&c=d", "odd/it's", "odd/say \"so\"", "odd/<tag>", "odd/a?b#c", "odd/semi;colon:at@",
        "odd/star*", "odd/(brackets)[x]{y}", "odd/back\\slash", "odd/pipe|hat^tick`", "odd/tilde~", "odd/dollar$,",
        "odd/" + word, "odd/" + apart, "odd/\u65e5\u672c\u8a9e/\u6587\u66f8", "odd/\U0001f5c4 box", "odd/UPPER",
        "odd/upper", "odd//doubled", "odd///trebled", "/leading", "//two leading", "odd/./dot", "odd/../dots", "..", ".",
        "odd/...", "odd/.hidden", "odd/stem", "odd/stem/below", "odd/stem.", "odd/tab\there", "odd/line\nend",
        "odd/return\rhere", "odd/delete\x7f", "odd/nbsp\u00a0", "odd/zero width\u200b",
        "odd/\u202eright to left",
    ]
    keys += ["odd/control-%02x-%s" % (code, chr(code)) for code in range(1, 32)]
    longest = "odd/long/" + "x" * 200 + "/" + "\u00fc" * 100 + "/"
    keys.append(longest + "y" * (1024 - len(longest.encode())))
    keys.append("odd/" + "/".join("d%d" % i for i in range(200)) + "/deep")
    keys.append("z" * 1024)
    return keys


FOLDER_OBJECTS = [("folders/empty dir/", 0), ("folders/dir with data/", 1234)]


def plan(count, rng, big):
    """(key, size, seed) of every object, in no special order."""
    wanted = [(key, rng.randrange(0, 4 * KIB)) for key in odd_keys()] + FOLDER_OBJECTS
    wanted += [("sizes/%d" % size, size) for size in
               (0, 1, 511, 512, 513, 1023, 1024, 1025, 4096, 65535, 65536, 65537, MIB - 1, MIB, MIB + 1)]
    wanted.append(("sizes/biggest", big))
    if big > 8 * MIB:
        wanted += [("sizes/%d MiB and one" % m, m * MIB + 1) for m in (5, 8, 16) if m * MIB < big]
    if count < len(wanted):
        sys.exit("--objects must be at least %d" % len(wanted))
    for i in range(count - len(wanted)):
        depth = rng.choice((0, 1, 1, 2, 2, 3, 5))
        parts = ["level%d-%d" % (level, rng.randrange(6)) for level in range(depth)]
        kind = rng.random()
        size = (0 if kind < 0.03 else rng.randrange(1, KIB) if kind < 0.4 else rng.randrange(KIB, 16 * KIB) if kind < 0.9
                else rng.randrange(16 * KIB, 256 * KIB) if kind < 0.995 else rng.randrange(MIB, 4 * MIB))
        wanted.append(("/".join(["tree"] + parts + ["file %05d.dat" % i]), min(size, big)))
    return [(key, size, rng.randrange(1 << 62)) for key, size in wanted]


def content(size, seed):
    """Half of the objects compress well, half do not."""
    rng = random.Random(seed)
    if seed % 2 and size > 64:
        line = rng.randbytes(48)
        return (line * (size // len(line) + 1))[:size]
    return rng.randbytes(size)


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    add_access_arguments(parser)
    parser.add_argument("bucket")
    parser.add_argument("--objects", type=int, default=2000)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--big", type=size_argument, default=64 * MIB, help="size of the biggest object, as 64M")
    parser.add_argument("--threads", type=int, default=8)
    args = parser.parse_args()

    started = time.monotonic()
    access = Access(args.endpoint, args.access_key, args.secret_key, args.ca_file)
    client = access.client()
    if args.bucket not in [entry["Name"] for entry in client.list_buckets()["Buckets"]]:
        client.create_bucket(Bucket=args.bucket)
    objects = plan(args.objects, random.Random(args.seed), args.big)

    def store(item):
        key, size, seed = item
        access.client().put_object(Bucket=args.bucket, Key=key, Body=content(size, seed),
                                   ContentType="application/x-filled", Metadata={"seed": str(seed)})
        return size

    total = sum(for_all(store, objects, args.threads))
    # A client that tidied a key up would have stored it under another.
    listed = dict(list_objects(client, args.bucket))
    lost = [key for key, size, _ in objects if listed.get(key) != size]
    for key in lost:
        print("not in the bucket as stored: %r" % key)
    for key, size in FOLDER_OBJECTS:
        print("folder object %s (%d bytes)" % (key, size))
    print("%d objects, %d of them with odd keys, %d folder objects, %d bytes in /%s/, seed %d, %.1f seconds"
          % (len(objects), len(odd_keys()), len(FOLDER_OBJECTS), total, args.bucket, args.seed,
             time.monotonic() - started))
    return 1 if lost else 0


if __name__ == "__main__":
    sys.exit(main())
