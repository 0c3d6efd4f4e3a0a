"""Holds doc/compatibility.md against the tests and the presets that there are.

Every row of its tables names the tests that hold it, as ctest names them: each has to exist in the built test programs.
Every preset of a vendor has a row, and every row of a preset the preset.

    compatibility_test.py BUILD
"""
import os
import re
import sys

import conformance_test

HERE = os.path.dirname(os.path.abspath(__file__))
DOCUMENT = os.path.join(HERE, "..", "doc", "compatibility.md")
PRESETS = os.path.join(HERE, "..", "platform", "s3", "vendor_presets.cpp")
COLUMNS = 4


def presets():
    """The names of the table's rows."""
    with open(PRESETS, encoding="utf-8") as source:
        return set(re.findall(r'^      \{"([a-z0-9-]+)",', source.read(), re.MULTILINE))


def described():
    """The presets that have a row."""
    with open(DOCUMENT, encoding="utf-8") as document:
        section = document.read().split("## Presets")[1].split("\n## ")[0]
    return set(re.findall(r"^\| `([a-z0-9-]+)` \|", section, re.MULTILINE))


def main(build):
    wrong, named, count = [], set(), 0
    existing = conformance_test.existing_tests(build)
    for number, cells in conformance_test.rows(DOCUMENT):
        count += 1
        tests = re.findall(r"`([^`]+)`", cells[-1]) if len(cells) == COLUMNS else []
        if not tests:
            wrong.append(f"line {number}: no row of {COLUMNS} cells that names a test")
        for test in tests:
            named.add(test)
            if test not in existing:
                wrong.append(f"line {number}: there is no test '{test}'")
    known = presets()
    if not known or count == 0:
        wrong.append("no presets or no rows were found")
    wrong += [f"preset '{name}' has no row" for name in sorted(known - described())]
    wrong += [f"there is no preset '{name}'" for name in sorted(described() - known)]
    for line in wrong:
        print(line)
    print(f"{count} rows, {len(known)} presets, {len(named)} tests")
    return 1 if wrong else 0


if __name__ == "__main__":
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    sys.exit(main(sys.argv[1]))
