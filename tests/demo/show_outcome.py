#!/usr/bin/env python3
"""Reads the last line of a run's --json output and prints its account; exits 1 when the account does not add up."""
import json
import sys

outcome = json.loads(sys.stdin.read().strip().splitlines()[-1])
if "--left-out" in sys.argv:
    print("%d excluded (empty folder objects: consoles make them, nothing is in them)" % outcome["excluded"])
    for error in outcome["errors"]:
        print("%s %r: %s" % (error["type"], error["name"], error["message"]))
    sys.exit(0)
parts = ["saved", "unchanged", "excluded", "skipped", "failed"]
print("%s: %d listed = %s" % (outcome["outcome"], outcome["listed"],
                              " + ".join("%d %s" % (outcome[part], part) for part in parts)))
print("%d bytes read, %d bytes stored, %d requests, %.1f s" % (
    outcome["bytes_read"], outcome["bytes_stored"], outcome["requests"], outcome["seconds"]))
if outcome["listed"] != sum(outcome[part] for part in parts):
    print("the account does not add up")
    sys.exit(1)
