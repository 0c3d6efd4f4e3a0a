#!/usr/bin/env python3
"""Draws mutants of obs/agent from its syntax tree and looks which of them its tests notice.

All mutants of the module are written into one copy of it, each behind a switch (schemata.py), and the copy is built
once, into a folder of its own. A first run without any mutant must pass; it notes which test reaches which mutant.
A drawn mutant is then a run of its component's test program with that mutant on, of the tests that reach it. Those
that no switch can hold, as the value of a constant expression, are built on their own.

equivalent.toml lists mutants that change nothing that could be noticed, each with its reason; they do not count.

Exit status: 0 when enough are killed; 1 when too few are; 2 when the check itself cannot be made.
"""

import argparse
import collections
import concurrent.futures
import functools
import hashlib
import json
import os
import pathlib
import random
import re
import shlex
import shutil
import subprocess
import sys
import threading
import tomllib

import mutants as mutants_
import schemata
from build_tree import MODULE, ROOT, Build, Impossible, run_program

HERE = pathlib.Path(__file__).resolve().parent
LEAST_KILLED = 0.95
PER_FILE = 4096        # numbers of one file's mutants
TIMES_SLOWER = 10      # than without a mutant: the program hangs
LEAST_TIMEOUT = 30     # seconds
# A mutant may ask for all memory, write for ever, or never wait: kilobytes, blocks of 512 bytes, seconds.
LIMITS = ("-v 8000000", "-f 400000", "-t 60")
TEST_CODE = r".*(_test\.cpp|_testing\.h|/fake_[^/]*\.h|/failing_[^/]*\.h|/watched_[^/]*\.h|/reply_channel\.h)"
ERROR = re.compile(r"^(/[^:\s]+):(\d+):(\d+): +(?:fatal )?(error: |required from )")


def module_files():
    """The sources that count, tests and what they are made of left out."""
    found = [*(ROOT / MODULE).rglob("*.h"), *(ROOT / MODULE).rglob("*.cpp")]
    names = sorted(str(path.relative_to(ROOT)) for path in found)
    return [name for name in names if not re.fullmatch(TEST_CODE, name)]


def text_of(name):
    return (ROOT / name).read_bytes().decode("latin-1")


def program_of(name):
    return f"obs_{name.removeprefix(MODULE + '/').split('/')[0]}_test"


def tree_options(build):
    """What a parser has to know of the compiler's options."""
    argv = next(argv for output, argv in build.compile_.items() if build.source_[output].startswith(MODULE))
    options = []
    for at, word in enumerate(argv):
        if word in ("-isystem", "-I"):
            options += [word, argv[at + 1]]
        elif word.startswith(("-I", "-D", "-std=")):
            options.append(word)
    return options


def find_one(name, options, cache):
    """The mutants of one file, as found before where neither it nor the finder has changed."""
    text = text_of(name)
    digest = hashlib.sha256((HERE / "mutants.py").read_bytes() + text.encode("latin-1")).hexdigest()
    kept = cache / f"{name.replace('/', '-')}.json" if cache else None
    if kept and kept.exists():
        record = json.loads(kept.read_text())
        if record["digest"] == digest:
            return [mutants_.Mutant(**mutant) for mutant in record["mutants"]]
    found = mutants_.find(ROOT / name, name, options)
    if kept:
        kept.write_text(json.dumps({"digest": digest, "mutants": [vars(mutant) for mutant in found]}))
    return found


def find_all(names, build, cache, jobs):
    if cache:
        cache.mkdir(parents=True, exist_ok=True)
    find = functools.partial(find_one, options=tree_options(build), cache=cache)
    with concurrent.futures.ProcessPoolExecutor(jobs) as pool:
        return dict(zip(names, pool.map(find, names)))


def line_of(mutant):
    """The line that it begins on, without its indentation; after the one before where its file has it twice."""
    lines = text_of(mutant.file).splitlines()
    line = lines[mutant.line - 1].strip()
    alone = sum(other.strip() == line for other in lines) == 1
    return line if alone or mutant.line == 1 else f"{lines[mutant.line - 2].strip()} {line}"


def key_of(mutant, line=line_of):
    """What names a mutant, whatever changes elsewhere in its file."""
    return mutant.file, mutant.function, line(mutant), mutant.old, mutant.change


class Equivalent:
    """The list of mutants that change nothing that could be noticed."""

    def __init__(self, path):
        self.records = tomllib.loads(path.read_text()).get("equivalent", [])
        self.reasons = {}
        for record in self.records:
            if not record["reason"].strip():
                raise Impossible(f"{path.name}: no reason for {record['change']} in {record['file']}")
            key = self.key(record)
            if key in self.reasons:
                raise Impossible(f"{path.name}: listed twice: {key}")
            self.reasons[key] = record["reason"]

    @staticmethod
    def key(record):
        return record["file"], record.get("in", ""), record["line"], record["old"], record["change"]

    def files(self):
        return sorted({record["file"] for record in self.records})

    def stale(self, found, line=line_of):
        """What is wrong with the list: entries that are not as many mutants of those files as they say."""
        files = set(self.files())
        count = collections.Counter(key_of(mutant, line) for file, mutants in found.items() if file in files
                                    for mutant in mutants)
        return [f"{self.key(record)}: {count[self.key(record)]} such mutants, not {record.get('times', 1)}"
                for record in self.records if count[self.key(record)] != record.get("times", 1)]


class Mutated_Tree:
    """The copy of the module that holds all mutants, and its test programs."""

    def __init__(self, build, found, jobs):
        self.build, self.found, self.jobs = build, found, jobs
        self.folder = build.folder / "mutants"
        self.tree = self.folder / "tree"
        self.alone = set()       # numbers of those that have to be built on their own
        self.programs = sorted({program_of(name) for name in found})
        for place, mutants in enumerate(found.values(), 1):
            if len(mutants) >= PER_FILE:
                raise Impossible("too many mutants in one file")
            for number, mutant in enumerate(mutants):
                mutant.number = place * PER_FILE + number

    # Building

    def write(self, path, text, as_old_as_before=False):
        if not path.exists() or path.read_bytes() != text.encode("latin-1"):
            path.parent.mkdir(parents=True, exist_ok=True)
            before = path.stat() if path.exists() else None
            path.write_bytes(text.encode("latin-1"))
            if before and as_old_as_before:
                os.utime(path, ns=(before.st_atime_ns, before.st_mtime_ns))

    def write_sources(self, again=False):
        """`again`: some mutants less. What was compiled with them stays: they are never switched on."""
        self.written = {}
        sources = [*(ROOT / MODULE).rglob("*.h"), *(ROOT / MODULE).rglob("*.cpp")]
        wanted = {str(path.relative_to(ROOT)) for path in sources}
        for path in [*self.tree.rglob("*.h"), *self.tree.rglob("*.cpp")]:
            if str(path.relative_to(self.tree)) not in wanted:
                path.unlink()
        for name in sorted(wanted):
            text = text_of(name)
            if name in self.found:
                here = [m for m in self.found[name] if m.form != "own" and m.number not in self.alone]
                text, regions, missing = schemata.write(text, here)
                self.alone.update(mutant.number for mutant in missing)
                self.written[name] = text, regions
            self.write(self.tree / name, text, again)

    def options(self, argv, tree, source, target):
        """The command that compiles one source with the copy in front of the original."""
        argv = [word for word in argv if word not in ("-g1", "-Wall", "-Wextra", "-Wshadow", "-Werror")]
        argv = ["-O0" if re.fullmatch(r"-O[0-9s]", word) else word for word in argv]
        argv[argv.index("-o") + 1] = str(target)
        argv[argv.index("-c") + 1] = str(source)
        first = next(at for at, word in enumerate(argv) if word.startswith("-I"))
        return [*argv[:first], f"-I{tree}", *argv[first:], f"-ffile-prefix-map={tree}/=", "-w", "-fmax-errors=0",
                "-include", str(HERE / "mutant_switch.h")]

    def ours(self, output):
        """Whether an object is compiled again: those of the module, its tests, and what stands in for the platform."""
        return output in self.build.source_ and self.build.source_[output].startswith((MODULE, "testing/module"))

    def source_of(self, output, tree):
        name = self.build.source_[output]
        return tree / name if name.startswith(MODULE) else ROOT / name

    def write_ninja(self):
        ccache = "ccache " if shutil.which("ccache") else ""
        lines = ["rule compile", f"  command = cd {self.build.folder} && {ccache}$line -MD -MF $out.d",
                 "  depfile = $out.d", "  deps = gcc",
                 "rule link", f"  command = cd {self.build.folder} && $line"]
        objects = set()
        switch = self.folder / "mutant_switch.o"
        some = next(argv for output, argv in self.build.compile_.items() if self.ours(output))
        lines += [f"build {switch}: compile {HERE / 'mutant_switch.cpp'}",
                  "  line = " + shlex.join(self.options(some, self.tree, HERE / "mutant_switch.cpp", switch))]
        for program in self.programs:
            link = self.build.link(program)
            inputs = [word for word in link if self.ours(word)]
            for output in inputs:
                if output not in objects:
                    objects.add(output)
                    source, target = self.source_of(output, self.tree), self.folder / output
                    lines += [f"build {target}: compile {source}",
                              "  line = " + shlex.join(self.options(self.build.compile_[output], self.tree, source, target))]
            target = self.folder / "bin" / program
            lines += [f"build {target}: link {switch} " + " ".join(str(self.folder / output) for output in inputs),
                      "  line = " + shlex.join(self.link(program, target))]
        self.write(self.folder / "build.ninja", "\n".join(lines) + "\n")

    def link(self, program, target, instead=()):
        """The command that links a program from the mutated objects, some of them replaced."""
        instead = dict(instead)
        link = self.build.link(program)
        words = [str(instead.get(word, self.folder / word)) if self.ours(word) else word for word in link]
        words[words.index("-o") + 1] = str(target)
        first = next(at for at, word in enumerate(link) if self.ours(word))
        return [*words[:first], str(self.folder / "mutant_switch.o"), *words[first:]]

    def make(self):
        """Builds; what does not compile behind a switch is taken out, to be built on its own."""
        state = self.folder / "alone.json"
        known = json.loads(state.read_text()) if state.exists() else {}
        for name, mutants in self.found.items():
            digest, places = known.get(name, ("", []))
            if digest == self.digest(name):
                self.alone.update(mutants[place].number for place in places)
        self.folder.mkdir(parents=True, exist_ok=True)
        self.write_ninja()
        for attempt in range(20):
            self.write_sources(again=attempt > 0)
            # The compiler's cache must not make paths relative: errors and log lines are told by them.
            done = subprocess.run(["ninja", "-C", str(self.folder), f"-j{self.jobs}", "-k0"], capture_output=True,
                                  text=True, env=dict(os.environ, CCACHE_BASEDIR=""))
            by_file = {name: (self.digest(name), [place for place, mutant in enumerate(mutants) if mutant.number in self.alone])
                       for name, mutants in self.found.items()}
            state.write_text(json.dumps(by_file))
            if done.returncode == 0:
                return
            blamed = self.blamed(done.stdout + done.stderr)
            if not blamed:
                raise Impossible(f"the mutated copy does not build:\n{done.stdout[-6000:]}")
            self.alone.update(blamed)
            print(f"{len(blamed)} mutants do not compile behind a switch", flush=True)
        raise Impossible("the mutated copy does not build")

    def digest(self, name):
        return hashlib.sha256((HERE / "mutants.py").read_bytes() + (HERE / "schemata.py").read_bytes() +
                              text_of(name).encode("latin-1")).hexdigest()

    def blamed(self, output):
        numbers, required = set(), None
        for line in output.splitlines():
            match = ERROR.match(line)
            if not match:
                continue
            path = pathlib.Path(match[1])
            name = str(path.relative_to(self.tree)) if path.is_relative_to(self.tree) else None
            place = (name, int(match[2]), int(match[3])) if name in self.written else None
            if match[4] != "error: ":
                required = place or required
                continue
            place = place or required
            if place:
                text, regions = self.written[place[0]]
                numbers.update(m.number for m in schemata.blamed(text, regions, *place[1:]))
            required = None
        return numbers - self.alone

    # Running

    def note_reached(self):
        """Runs all tests without a mutant; who reaches what."""
        self.tests, self.always, self.seconds = {}, {}, {}
        for program in self.programs:
            notes = self.folder / f"{program}.reached"
            notes.unlink(missing_ok=True)
            passed, how, self.seconds[program] = run_program(self.folder / "bin" / program, self.build, self.folder, 1200,
                                                             {"MUTANTS_REACHED": str(notes)})
            if not passed:
                raise Impossible(f"{program} fails without any mutant: {how}")
            print(f"passes   {program} {self.seconds[program]:.1f} s", flush=True)
            reached = self.tests[program] = collections.defaultdict(list)
            self.always[program] = set()
            for line in notes.read_text().splitlines():
                test, milliseconds, *numbers = line.split()
                for number in map(int, numbers):
                    if test == "*":
                        self.always[program].add(number)
                    else:
                        reached[number].append((test, int(milliseconds) / 1000))

    def run(self, mutant, scratch):
        """(survived, what happened); None for what does not compile."""
        scratch.mkdir(parents=True, exist_ok=True)
        program = program_of(mutant.file)
        binary = self.folder / "bin" / program
        if mutant.form == "own" or mutant.number in self.alone:
            binary = self.build_alone(mutant, program, scratch)
            if binary is None:
                return None
            return self.outcome(binary, program, scratch, {})
        tests = self.tests[program].get(mutant.number, [])
        variables = {"MUTANT": str(mutant.number)}
        if mutant.number not in self.always[program]:
            if not tests:
                return True, "no test reaches it"
            names = ":".join(test for test, _ in tests)
            if len(names) < 100000:
                survived, how = self.outcome(binary, program, scratch, {**variables, "GTEST_FILTER": names},
                                             sum(seconds for _, seconds in tests))
                if not survived:
                    return survived, how
        # Also what reaches it only now and then.
        return self.outcome(binary, program, scratch, variables)

    def outcome(self, binary, program, scratch, variables, seconds=None):
        expected = self.seconds[program] if seconds is None else seconds
        passed, how, _ = run_program(binary, self.build, scratch, LEAST_TIMEOUT + TIMES_SLOWER * expected, variables, LIMITS)
        return passed, how

    def build_alone(self, mutant, program, scratch):
        """A program with one mutant, from the original sources where they depend on its file; none if it is no C++."""
        tree = scratch / "tree"
        if not tree.exists():
            shutil.copytree(ROOT / MODULE, tree / MODULE)
        path = tree / mutant.file
        path.write_bytes(mutant.apply(text_of(mutant.file)).encode("latin-1"))
        try:
            instead = {}
            for number, output in enumerate(self.affected(program, mutant.file)):
                target = scratch / f"{number}.o"
                argv = self.options(self.build.compile_[output], tree, self.source_of(output, tree), target)
                if subprocess.run(argv, cwd=self.build.folder, capture_output=True).returncode != 0:
                    return None
                instead[output] = target
            binary = scratch / program
            done = subprocess.run(self.link(program, binary, instead), cwd=self.build.folder, capture_output=True)
            return binary if done.returncode == 0 else None
        finally:
            path.write_bytes(text_of(mutant.file).encode("latin-1"))

    def affected(self, program, name):
        if not hasattr(self, "depends"):
            self.depends, output = collections.defaultdict(set), None
            done = subprocess.run(["ninja", "-C", str(self.folder), "-t", "deps"], capture_output=True, text=True)
            for line in done.stdout.splitlines():
                if line.startswith(" "):
                    if line.strip().startswith(str(self.tree)):
                        self.depends[line.strip()[len(str(self.tree)) + 1:]].add(output)
                else:
                    output = line.split(":")[0]
        return [word for word in self.build.link(program)
                if self.ours(word) and str(self.folder / word) in self.depends[name]]


def shares(sizes, count):
    """So many of `count` for each, by size, with the largest remainders rounded up."""
    total = sum(sizes.values())
    exact = {name: count * size / total for name, size in sizes.items()}
    out = {name: int(share) for name, share in exact.items()}
    for name in sorted(exact, key=lambda n: (out[n] - exact[n], n))[:count - sum(out.values())]:
        out[name] += 1
    return out


def order_of(name, mutants, seed):
    """The order in which a file's mutants are drawn."""
    order = sorted(mutants, key=lambda mutant: mutant.number)
    random.Random(f"{seed} {name}").shuffle(order)
    return order


class Check:
    def __init__(self, tree, equivalent, count, seed, only):
        self.tree, self.equivalent, self.only = tree, equivalent, only
        sizes = {name: len(text_of(name).splitlines()) for name in tree.found if tree.found[name]}
        self.shares = shares(sizes, count)
        self.seed = seed
        self.lock = threading.Lock()
        self.listed, self.killed, self.survivors = [], [], []

    def file(self, name):
        scratch = self.tree.folder / "scratch" / name.replace("/", "-")
        left = self.shares[name]
        for mutant in order_of(name, self.tree.found[name], self.seed):
            if left == 0:
                break
            reason = self.equivalent.reasons.get(key_of(mutant))
            outcome = (True, reason) if reason else self.run(mutant, scratch)
            if outcome is None:
                continue
            left -= 1
            if outcome is not False:
                self.note(mutant, *outcome, listed=reason is not None)
        shutil.rmtree(scratch, ignore_errors=True)

    def run(self, mutant, scratch):
        if self.only and not re.search(self.only, describe(mutant)):
            return False
        return self.tree.run(mutant, scratch)

    def note(self, mutant, survived, how, listed):
        with self.lock:
            (self.listed if listed else self.survivors if survived else self.killed).append((mutant, how))
            word = "listed  " if listed else "SURVIVES" if survived else "killed  "
            print(f"{word} {describe(mutant)}  [{how}]", flush=True)

    def all(self, jobs):
        names = sorted(self.shares, key=lambda name: -self.shares[name])
        with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
            for _ in pool.map(self.file, names):
                pass


def describe(mutant):
    return f"{mutant.file}:{mutant.line} {mutant.kind}: {mutant.old[:80]} -> {mutant.change[:80]}"


def toml_entry(mutant):
    quote = json.dumps
    return f'[[equivalent]]\nfile = {quote(mutant.file)}\nin = {quote(mutant.function)}\nline = {quote(line_of(mutant))}\nold = {quote(mutant.old)}\n' \
           f'change = {quote(mutant.change)}\n'


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--generated", type=int, metavar="N", default=600, help="how many mutants are drawn")
    parser.add_argument("--seed", default="1")
    parser.add_argument("--build", type=pathlib.Path, default=ROOT / "build", help="a configured tree with the libraries")
    parser.add_argument("--equivalent", type=pathlib.Path, default=HERE / "equivalent.toml")
    parser.add_argument("--jobs", type=int, default=2)
    parser.add_argument("--only", metavar="REGEX", help="of those drawn, only what matches in 'file:line kind: old -> new'")
    parser.add_argument("--check", action="store_true", help="only look whether each listed one still is a mutant")
    arguments = parser.parse_args()

    equivalent = Equivalent(arguments.equivalent)
    build = Build(arguments.build.resolve())
    cache = build.folder / "mutants" / "found"
    names = equivalent.files() if arguments.check else module_files()
    found = find_all(names, build, cache, arguments.jobs)
    stale = equivalent.stale(found)
    if stale:
        raise Impossible("listed as equivalent, but:\n" + "\n".join(stale))
    if arguments.check:
        print(f"{len(equivalent.records)} equivalent mutants, all there")
        return 0

    print(f"{sum(map(len, found.values()))} mutants in {len(found)} files", flush=True)
    tree = Mutated_Tree(build, found, arguments.jobs)
    tree.make()
    tree.note_reached()
    check = Check(tree, equivalent, arguments.generated, arguments.seed, arguments.only)
    check.all(arguments.jobs)

    for mutant, how in sorted(check.survivors, key=lambda pair: (pair[0].file, pair[0].start)):
        print(f"\nsurvivor: {describe(mutant)}\n  {how or 'all tests pass'}\n{toml_entry(mutant)}")
    counted = len(check.killed) + len(check.survivors)
    print(f"\nseed {arguments.seed}: {len(check.killed)} of {counted} mutants killed "
          f"({len(check.killed) / max(counted, 1):.1%}), {len(check.listed)} more are listed as equivalent; "
          f"at least {LEAST_KILLED:.0%} are wanted")
    return 0 if len(check.killed) >= LEAST_KILLED * counted else 1


if __name__ == "__main__":
    try:
        sys.exit(main())
    except (Impossible, mutants_.No_Libclang) as error:
        print(f"mutation: {error}", file=sys.stderr)
        sys.exit(2)
