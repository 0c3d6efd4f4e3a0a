#!/usr/bin/env python3
"""Changes obs/agent by one small mistake at a time and looks whether its tests notice.

mutations.toml lists the mistakes. Each is made in a copy of obs/agent; what depends on the changed file is compiled
as the given build tree compiles it, linked with that tree's other objects to the component's test program, and the
program is run. A mutation is killed when a test fails or the program does not end; else it survives.

Exit status: 0 when enough are killed; 1 when too few are; 2 when the check itself cannot be made: a mutation whose
old text is not in its file exactly once, one that does not compile, or tests that fail without any mutation.
"""

import argparse
import concurrent.futures
import os
import pathlib
import queue
import re
import shutil
import subprocess
import sys
import tomllib

from build_tree import MODULE, ROOT, Build, Impossible, run_program

LEAST_KILLED = 58 / 60
TIMES_SLOWER = 8       # than without a mutation: the program hangs
LEAST_TIMEOUT = 60     # seconds; a busy machine is not a hanging test


class Mutation:
    def __init__(self, number, record):
        self.number = number
        self.name = record["name"]
        self.file = record["file"]
        self.old = record["old"]
        self.new = record["new"]
        self.breaks = record["breaks"]
        self.folder = self.file.removeprefix(MODULE + "/").split("/")[0]
        self.program = f"obs_{self.folder}_test"

    def apply(self, text):
        count = text.count(self.old)
        if count != 1:
            raise Impossible(f"{self.name}: its old text is in {self.file} {count} times, not once:\n{self.old}")
        if self.old == self.new:
            raise Impossible(f"{self.name}: changes nothing")
        return text.replace(self.old, self.new)


def read_list(path):
    mutations = [Mutation(number, record) for number, record in enumerate(tomllib.loads(path.read_text())["mutation"], 1)]
    names = [mutation.name for mutation in mutations]
    double = {name for name in names if names.count(name) > 1}
    if double:
        raise Impossible(f"listed twice: {', '.join(sorted(double))}")
    return mutations


class Slot:
    """A copy of the module in which one mutation at a time is made."""

    def __init__(self, folder):
        self.folder = folder
        self.copy = folder / "tree"
        shutil.rmtree(folder, ignore_errors=True)
        shutil.copytree(ROOT / MODULE, self.copy / MODULE)

    def run(self, mutation, build, timeout):
        path = self.copy / mutation.file
        original = path.read_text()
        path.write_text(mutation.apply(original))
        try:
            return self.run_mutated(mutation, build, timeout)
        finally:
            path.write_text(original)

    def run_mutated(self, mutation, build, timeout):
        link = build.link(mutation.program)
        objects = build.affected(mutation.program, mutation.file)
        if not objects:
            raise Impossible(f"{mutation.name}: nothing in {mutation.program} is made from {mutation.file}")
        for number, output in enumerate(objects):
            target = self.folder / f"{number}.o"
            done = subprocess.run(build.compile(output, self.copy, target), cwd=build.folder, capture_output=True,
                                  text=True)
            if done.returncode != 0:
                raise Impossible(f"{mutation.name}: does not compile:\n{done.stderr}")
            link[link.index(output)] = str(target)
        program = self.folder / mutation.program
        link[link.index("-o") + 1] = str(program)
        done = subprocess.run(link, cwd=build.folder, capture_output=True, text=True)
        if done.returncode != 0:
            raise Impossible(f"{mutation.name}: does not link:\n{done.stderr}")
        return run_program(program, build, self.folder, timeout)


def check_all(mutations, build, scratch, jobs, baseline):
    slots = queue.Queue()
    for number in range(jobs):
        slots.put(Slot(scratch / f"slot{number}"))

    def check(mutation):
        slot = slots.get()
        try:
            return slot.run(mutation, build, max(LEAST_TIMEOUT, TIMES_SLOWER * baseline[mutation.program]))
        finally:
            slots.put(slot)

    survivors, trouble = [], []
    width = max(len(mutation.name) for mutation in mutations)
    with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
        futures = {pool.submit(check, mutation): mutation for mutation in mutations}
        for future in concurrent.futures.as_completed(futures):
            mutation = futures[future]
            try:
                survived, how, seconds = future.result()
            except Impossible as error:
                trouble.append(str(error))
                continue
            if survived:
                survivors.append(mutation)
            print(f"{'SURVIVES' if survived else 'killed  '} {mutation.name:{width}} {seconds:6.1f} s  {how}", flush=True)
    return sorted(survivors, key=lambda mutation: mutation.number), trouble


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", type=pathlib.Path, default=ROOT / "build" / "coverage", help="a built tree")
    parser.add_argument("--list", type=pathlib.Path, default=pathlib.Path(__file__).with_name("mutations.toml"))
    parser.add_argument("--jobs", type=int, default=os.cpu_count())
    parser.add_argument("--only", metavar="REGEX", help="only the mutations whose name or file matches")
    parser.add_argument("--texts", action="store_true", help="only look whether each old text is still there")
    arguments = parser.parse_args()

    mutations = read_list(arguments.list)
    stale = []
    for mutation in mutations:
        try:
            mutation.apply((ROOT / mutation.file).read_text())
        except (Impossible, OSError) as error:
            stale.append(str(error))
    if stale:
        raise Impossible("\n".join(stale))
    if arguments.texts:
        print(f"{len(mutations)} mutations, all applicable")
        return 0
    if arguments.only:
        mutations = [m for m in mutations if re.search(arguments.only, f"{m.name} {m.file}")]
        if not mutations:
            raise Impossible(f"no mutation is called {arguments.only}")

    build = Build(arguments.build.resolve())
    scratch = build.folder / "mutation"
    scratch.mkdir(exist_ok=True)
    baseline = {}
    for program in sorted({mutation.program for mutation in mutations}):
        passed, how, baseline[program] = run_program(build.folder / "bin" / program, build, scratch, 600)
        if not passed:
            raise Impossible(f"{program} fails without any mutation: {how}")
        print(f"passes   {program} {baseline[program]:.1f} s", flush=True)

    survivors, trouble = check_all(mutations, build, scratch, max(arguments.jobs, 1), baseline)
    shutil.rmtree(scratch)
    if trouble:
        raise Impossible("\n".join(trouble))
    killed = len(mutations) - len(survivors)
    for mutation in survivors:
        print(f"\nsurvivor: {mutation.name} ({mutation.file})\n  {mutation.breaks}")
    print(f"\n{killed} of {len(mutations)} mutations killed; at least {LEAST_KILLED:.1%} are wanted")
    return 0 if killed >= LEAST_KILLED * len(mutations) else 1


if __name__ == "__main__":
    try:
        sys.exit(main())
    except Impossible as error:
        print(f"mutation: {error}", file=sys.stderr)
        sys.exit(2)
