#!/usr/bin/env python3
"""Runs the module's own tests and says how much of obs/agent they reach.

The build tree is one of the preset "coverage", with the test programs obs_*_test in it. gcovr reads what gcov counted.
Branches that only an exception takes are left out (almost every call has one), and so are those that the compiler
makes where the source has none. Lines that are not reached are printed; doc/coverage.md says why for each of them, by
the line's text, and a line that has no reason there is marked.

Exit status: 0; 1 when a share is below its aim; 2 when a test fails.
"""

import argparse
import collections
import json
import os
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
TEST_CODE = r".*(_test\.cpp|_testing\.h|/fake_[^/]*\.h|/failing_[^/]*\.h|/reply_channel\.h)"

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
        if subprocess.run([str(program), "--gtest_brief=1"], cwd=build / MODULE, stdin=subprocess.DEVNULL).returncode != 0:
            print(f"coverage: {program.name} fails", file=sys.stderr)
            sys.exit(2)


def read_counts(build, gcov):
    done = subprocess.run(
        ["/usr/bin/gcovr", "--root", str(ROOT), "--object-directory", str(build / MODULE), "--gcov-executable", gcov,
         "--filter", re.escape(MODULE) + "/", "--exclude", TEST_CODE, "--exclude-throw-branches",
         "--exclude-unreachable-branches", "-j", str(os.cpu_count()), "--json", "-", str(build / MODULE)],
        cwd=ROOT, capture_output=True, text=True)
    if done.returncode != 0:
        sys.exit(f"coverage: gcovr fails: {done.stderr}")
    return json.loads(done.stdout)["files"]


def read_reasons():
    """{file: texts of the lines that are known not to be reached}, from the rows "| `file` | `text` | reason |"."""
    reasons = collections.defaultdict(set)
    if REASONS.exists():
        for row in re.finditer(r"^\| `(.+?)` \| `(.+)` \| \S.* \|$", REASONS.read_text(), re.M):
            reasons[row[1]].add(row[2].replace(r"\|", "|"))
    return reasons


def counted_lines(file):
    return [line for line in file["lines"] if not line.get("gcovr/noncode") and not line.get("gcovr/excluded")]


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
    for file in read_counts(build, arguments.gcov):
        lines = counted_lines(file)
        branches = [(line["line_number"], branch) for line in lines for branch in line["branches"]]
        text = (ROOT / file["file"]).read_text().splitlines()
        name = file["file"].removeprefix(MODULE + "/")
        rows.append((name, Share(sum(line["count"] > 0 for line in lines), len(lines)),
                     Share(sum(branch["count"] > 0 for _, branch in branches), len(branches))))
        for line in lines:
            if line["count"] > 0:
                continue
            source = text[line["line_number"] - 1].strip()
            known = source in reasons[name]
            used[name].add(source)
            unexplained += not known
            unreached.append(f"{name}:{line['line_number']}: {source}{'' if known else '    <- no reason in doc/coverage.md'}")
        untaken += [f"{name}:{number}: {text[number - 1].strip()}"
                    for number in sorted({number for number, branch in branches if branch["count"] == 0})]

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
