#!/usr/bin/env python3
"""Runs the module's own tests and says how much of obs/agent they reach.

The build tree is one of the preset "coverage", with the test programs obs_*_test in it. Branches that only an
exception takes are left out (almost every call has one), and so are those of lines without a statement, as the
destructors behind a closing brace. What a template's instances reach counts together. Lines that are not reached are printed; doc/coverage.md says why for each of them, by
the line's text, and a line that has no reason there is marked.

Exit status: 0; 1 when a share is below its aim; 2 when a test fails.
"""

import argparse
import collections
import json
import pathlib
import re
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]
MODULE = "obs/agent"
REASONS = ROOT / "doc" / "coverage.md"
LEAST_LINES = 95.0
LEAST_BRANCHES = 85.0
# What the tests are made of is no part of the module.
TEST_CODE = r".*(_test\.cpp|_testing\.h|/fake_[^/]*\.h|/failing_[^/]*\.h|/watched_[^/]*\.h|/reply_channel\.h)"

Share = collections.namedtuple("Share", "reached total")


def percent(share):
    return 100.0 if share.total == 0 else 100.0 * share.reached / share.total


def run_tests(build):
    for counted in (build / MODULE).rglob("*.gcda"):
        counted.unlink()
    programs = sorted((build / "bin").glob("obs_*_test"))
    if not programs:
        sys.exit(f"coverage: no test programs in {build / 'bin'}")
    for program in programs:
        print(f"running {program.name}", flush=True)
        done = subprocess.run([str(program)], cwd=build / MODULE, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, text=True, errors="replace")
        if done.returncode != 0:
            print(f"{done.stdout}\ncoverage: {program.name} fails", file=sys.stderr)
            sys.exit(2)


def read_counts(build, gcov):
    """{file: ({line: count}, {line: {place of a branch: count}})} of the module's files."""
    counts = {}
    notes = sorted(str(path) for path in (build / MODULE).rglob("*.gcno"))
    for at in range(0, len(notes), 8):
        done = subprocess.run([gcov, "--json-format", "--stdout", "--branch-probabilities", *notes[at:at + 8]],
                              cwd=build, capture_output=True, text=True)
        if done.returncode != 0:
            sys.exit(f"coverage: gcov fails: {done.stderr}")
        for report in done.stdout.splitlines():
            for file in json.loads(report)["files"]:
                # Objects name their sources relative to the project.
                name = file["file"].removeprefix(f"{ROOT}/")
                if name.startswith(MODULE + "/") and not re.fullmatch(TEST_CODE, name):
                    add_counts(file, *counts.setdefault(name, ({}, {})))
    return counts


def add_counts(file, lines, branches):
    for line in file["lines"]:
        number = line["line_number"]
        lines[number] = lines.get(number, 0) + line["count"]
        taken = branches.setdefault(number, {})
        # The instances of a template come as so many records of one line.
        for place, branch in enumerate(line["branches"]):
            if not branch["throw"]:
                taken[place] = taken.get(place, 0) + branch["count"]


def read_reasons():
    """{file: texts of the lines that are known not to be reached}, from the rows "| `file` | `text` | reason |"."""
    reasons = collections.defaultdict(set)
    if REASONS.exists():
        for row in re.finditer(r"^\| `(.+?)` \| `(.+)` \| \S.* \|$", REASONS.read_text(), re.M):
            reasons[row[1]].add(row[2].replace(r"\|", "|"))
    return reasons


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", type=pathlib.Path, default=ROOT / "build" / "coverage")
    parser.add_argument("--gcov", default="gcov")
    parser.add_argument("--report", action="store_true", help="do not run the tests again")
    parser.add_argument("--branches", action="store_true", help="print the branches that are not taken too")
    arguments = parser.parse_args()
    build = arguments.build.resolve()
    if not arguments.report:
        run_tests(build)

    reasons = read_reasons()
    used = collections.defaultdict(set)
    rows, unreached, untaken, unexplained = [], [], [], 0
    for path, (lines, branches) in read_counts(build, arguments.gcov).items():
        text = (ROOT / path).read_text().splitlines()
        name = path.removeprefix(MODULE + "/")
        ways = [(number, count) for number, taken in branches.items() if text[number - 1].strip(" \t{};()")
                for count in taken.values()]
        rows.append((name, Share(sum(count > 0 for count in lines.values()), len(lines)),
                     Share(sum(count > 0 for _, count in ways), len(ways))))
        for number in sorted(number for number, count in lines.items() if count == 0):
            source = text[number - 1].strip()
            # A lone brace belongs to the block that it closes.
            known = source in reasons[name] or not source.strip("{}; ")
            used[name].add(source)
            unexplained += not known
            unreached.append(f"{name}:{number}: {source}{'' if known else '    <- no reason in doc/coverage.md'}")
        untaken += [f"{name}:{number}: {text[number - 1].strip()}"
                    for number in sorted({number for number, count in ways if count == 0})]

    if not rows:
        sys.exit(f"coverage: nothing of {MODULE} was counted in {build}")
    rows.sort()
    total = [Share(sum(row[at].reached for row in rows), sum(row[at].total for row in rows)) for at in (1, 2)]
    print(f"\n{'file':45} {'lines':>17} {'branches':>17}")
    for name, lines, branches in [*rows, ("total", *total)]:
        print(f"{name:45} {lines.reached:5}/{lines.total:<5}{percent(lines):5.1f}% "
              f"{branches.reached:5}/{branches.total:<5}{percent(branches):5.1f}%")
    if unreached:
        print("\nlines that are not reached:\n" + "\n".join(unreached))
    if arguments.branches and untaken:
        print("\nlines with a branch that is not taken:\n" + "\n".join(untaken))
    gone = [f"{name}: {text}" for name, texts in reasons.items() for text in sorted(texts - used[name])]
    if gone:
        print("\nreached by now, though doc/coverage.md says otherwise:\n" + "\n".join(gone))

    print(f"\nlines {percent(total[0]):.1f} % (aim {LEAST_LINES:.0f}), branches {percent(total[1]):.1f} % "
          f"(aim {LEAST_BRANCHES:.0f}); {len(unreached)} lines not reached, {unexplained} of them without a reason")
    if percent(total[0]) < LEAST_LINES or percent(total[1]) < LEAST_BRANCHES:
        print("coverage: below the aim", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
