"""Holds doc/conformance.md against the tests that there are.

Every row of its tables names the tests that hold a behaviour, as ctest names them. Each has to exist in the built test
programs; with --ran each has to have run and passed in ctest's last run too.

    conformance_test.py BUILD [--ran]
"""
import os
import re
import sys

DOCUMENT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "doc", "conformance.md")
COLUMNS = 3


def rows(path):
    """(line number, cells) of every table row but headings and rules."""
    with open(path, encoding="utf-8") as document:
        for number, line in enumerate(document, 1):
            if not line.startswith("|") or re.match(r"^\|[-| ]+\|$", line.strip()):
                continue
            cells = [cell.strip() for cell in re.split(r"(?<!\\)\|", line.strip())[1:-1]]
            if cells[-1] != "Held by":
                yield number, cells


def existing_tests(folder):
    """The tests that ctest knows in a build folder. Its own list is not asked for: that would wipe out its log."""
    path = os.path.join(folder, "CTestTestfile.cmake")
    if not os.path.exists(path):
        return set()
    with open(path, encoding="utf-8") as listing:
        text = listing.read()
    # A test program's list is made when the program is built.
    for include in re.findall(r'^include\("(.*)_include\.cmake"\)', text, re.MULTILINE):
        if os.path.exists(include + "_tests.cmake"):
            with open(include + "_tests.cmake", encoding="utf-8") as listing:
                text += listing.read()
    found = set(re.findall(r"^add_test\((?:\[=+\[|\"?)([^\s\]\")]+)", text, re.MULTILINE))
    for below in re.findall(r'^subdirs\("(.*)"\)', text, re.MULTILINE):
        found |= existing_tests(os.path.join(folder, below))
    return found


def last_run(build):
    """Outcome by test of ctest's last run."""
    path = os.path.join(build, "Testing", "Temporary", "LastTest.log")
    if not os.path.exists(path):
        return {}
    with open(path, encoding="utf-8", errors="replace") as log:
        text = log.read()
    outcomes = {}
    for part in re.split(r"^(?=\d+/\d+ Testing: )", text, flags=re.MULTILINE)[1:]:
        name = re.match(r"\S+ Testing: (\S+)", part).group(1)
        outcome = re.findall(r"^Test (Passed|Failed)\.", part, re.MULTILINE)
        outcomes[name] = outcome[-1] if outcome else "no outcome"
    return outcomes


def main(build, ran):
    wrong, named, count = [], set(), 0
    existing = existing_tests(build)
    for number, cells in rows(DOCUMENT):
        count += 1
        tests = re.findall(r"`([^`]+)`", cells[-1]) if len(cells) == COLUMNS else []
        if not tests:
            wrong.append(f"line {number}: no row of {COLUMNS} cells that names a test")
        for test in tests:
            named.add(test)
            if test not in existing:
                wrong.append(f"line {number}: there is no test '{test}'")
    if count == 0:
        wrong.append("the document has no rows")

    if ran:
        outcomes = last_run(build)
        for test in sorted(named & existing):
            outcome = outcomes.get(test, "not run")
            if outcome != "Passed":
                wrong.append(f"'{test}': {outcome} in the last run")
    for line in wrong:
        print(line)
    print(f"{count} behaviours, {len(named)} tests" + (", held against the last run" if ran else ""))
    return 1 if wrong else 0


if __name__ == "__main__":
    if len(sys.argv) < 2:
        sys.exit(__doc__)
    sys.exit(main(sys.argv[1], "--ran" in sys.argv[2:]))
