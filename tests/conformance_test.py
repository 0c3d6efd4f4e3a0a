"""Holds doc/conformance.md against the tests that there are.

Every row of its tables names the tests that hold a behaviour, as ctest names them. Each has to exist in the built test
programs. Where ctest's log of a whole run is there, each has to have run and passed in it; --ran takes the log whatever
it covers.

    conformance_test.py BUILD [--ran]
"""
import os
import re
import subprocess
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


def existing_tests(build):
    listed = subprocess.run(["ctest", "--test-dir", build, "-N"], stdout=subprocess.PIPE, check=True, text=True).stdout
    return set(re.findall(r"^ +Test +#\d+: (\S+)", listed, re.MULTILINE))


def last_run(build):
    """Outcome by test of ctest's last run, and how many tests that run was to cover."""
    path = os.path.join(build, "Testing", "Temporary", "LastTest.log")
    if not os.path.exists(path):
        return {}, 0
    with open(path, encoding="utf-8", errors="replace") as log:
        text = log.read()
    outcomes, total = {}, 0
    for part in re.split(r"^(?=\d+/\d+ Testing: )", text, flags=re.MULTILINE)[1:]:
        head = re.match(r"\d+/(\d+) Testing: (\S+)", part)
        total = max(total, int(head.group(1)))
        outcome = re.findall(r"^Test (Passed|Failed)\.", part, re.MULTILINE)
        outcomes[head.group(2)] = outcome[-1] if outcome else "no outcome"
    return outcomes, total


def main(build, strict):
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

    outcomes, total = last_run(build)
    # A run of some of the tests says nothing about the others.
    whole = total > 0 and total >= len(existing) - 1 and len(outcomes) >= total - 1
    if strict or whole:
        for test in sorted(named & existing):
            outcome = outcomes.get(test, "not run")
            if outcome != "Passed":
                wrong.append(f"'{test}': {outcome} in the last run")
    print("\n".join(wrong))
    print(f"{count} behaviours, {len(named)} tests, {'held against the last run' if strict or whole else 'run not asked'}")
    return 1 if wrong else 0


if __name__ == "__main__":
    if len(sys.argv) < 2:
        sys.exit(__doc__)
    sys.exit(main(sys.argv[1], "--ran" in sys.argv[2:]))
