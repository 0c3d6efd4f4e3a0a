#!/usr/bin/python3
"""Compares two buckets key by key and byte by byte.

Exit status 0 where they hold the same objects, 1 where they differ (each difference on a line of its own), 2 on wrong
usage."""

import argparse
import sys
import time

from bucket_access import Access, add_access_arguments, for_all, list_objects

CHUNK = 1 << 20


def read_exactly(body, length):
    pieces = []
    while length:
        piece = body.read(length)
        if not piece:
            break
        pieces.append(piece)
        length -= len(piece)
    return b"".join(pieces)


def first_difference(client_a, where_a, client_b, where_b):
    """The offset at which two objects part, or None. Holds one chunk of each."""
    a = client_a.get_object(Bucket=where_a[0], Key=where_a[1])["Body"]
    b = client_b.get_object(Bucket=where_b[0], Key=where_b[1])["Body"]
    offset = 0
    try:
        while True:
            left, right = read_exactly(a, CHUNK), read_exactly(b, CHUNK)
            if left != right:
                common = min(len(left), len(right))
                return offset + next((i for i in range(common) if left[i] != right[i]), common)
            if not left:
                return None
            offset += len(left)
    finally:
        a.close()
        b.close()


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    add_access_arguments(parser)
    add_access_arguments(parser, "b", required=False)
    parser.add_argument("bucket_a")
    parser.add_argument("bucket_b")
    parser.add_argument("--prefix", default="", help="compare only A's keys that start so")
    parser.add_argument("--map-prefix", default="", help="a key of A stands in B with this before it; B's other keys "
                                                         "are left out of the comparison")
    parser.add_argument("--ignore-folder-objects", action="store_true",
                        help="keys that end in / may be missing in B; they are listed")
    parser.add_argument("--metadata", action="store_true", help="compare content type and user metadata too")
    parser.add_argument("--threads", type=int, default=8)
    parser.add_argument("--limit", type=int, default=100, help="differences to print; all are counted")
    args = parser.parse_args()

    started = time.monotonic()
    here = Access(args.endpoint, args.access_key, args.secret_key, args.ca_file)
    there = Access(args.endpoint_b or args.endpoint, args.access_key_b or args.access_key,
                   args.secret_key_b or args.secret_key, args.ca_file_b or args.ca_file)

    a = {key: size for key, size in list_objects(here.client(), args.bucket_a) if key.startswith(args.prefix)}
    cut = len(args.map_prefix)
    b = {key[cut:]: size for key, size in list_objects(there.client(), args.bucket_b)
         if key.startswith(args.map_prefix) and key[cut:].startswith(args.prefix)}

    differences, ignored = [], []
    both = []
    for key in sorted(a.keys() | b.keys()):
        if key not in b:
            (ignored if args.ignore_folder_objects and key.endswith("/") else differences).append(
                (key, "only in %s" % args.bucket_a))
        elif key not in a:
            differences.append((key, "only in %s" % args.bucket_b))
        elif a[key] != b[key]:
            differences.append((key, "%d bytes against %d" % (a[key], b[key])))
        else:
            both.append(key)

    def compare(key):
        target = args.map_prefix + key
        offset = first_difference(here.client(), (args.bucket_a, key), there.client(), (args.bucket_b, target))
        if offset is not None:
            return key, "contents differ at byte %d" % offset
        if args.metadata:
            left = here.client().head_object(Bucket=args.bucket_a, Key=key)
            right = there.client().head_object(Bucket=args.bucket_b, Key=target)
            for name in ("ContentType", "Metadata"):
                if left.get(name) != right.get(name):
                    return key, "%s differs: %r against %r" % (name, left.get(name), right.get(name))
        return None

    differences += [found for found in for_all(compare, both, args.threads) if found]
    for key, _ in ignored:
        print("folder object left out: %r" % key)
    for key, what in sorted(differences)[:args.limit]:
        print("difference: %r: %s" % (key, what))
    print("%d objects compared, %d bytes, %d folder objects left out, %d differences, %.1f seconds"
          % (len(both), sum(a[key] for key in both), len(ignored), len(differences), time.monotonic() - started))
    return 1 if differences else 0


if __name__ == "__main__":
    sys.exit(main())
