"""A configured and built tree, and how the test programs of obs/agent are made and run with parts of it changed."""

import json
import os
import pathlib
import re
import shlex
import signal
import subprocess
import time

ROOT = pathlib.Path(__file__).resolve().parents[2]
MODULE = "obs/agent"
NOT_FOR_MUTANTS = {"-g1", "--coverage", "-fprofile-update=atomic", "-Werror"}


class Impossible(Exception):
    """The check cannot be made."""


class Build:
    """What a configured and built tree knows about compiling and linking the tests of the module."""

    def __init__(self, folder):
        self.folder = folder
        try:
            entries = json.loads((folder / "compile_commands.json").read_text())
        except OSError as error:
            raise Impossible(f"no build tree: {error}")
        self.compile_ = {}
        self.source_ = {}
        for entry in entries:
            argv = shlex.split(entry["command"])
            output = argv[argv.index("-o") + 1]
            self.compile_[output] = argv
            self.source_[output] = str(pathlib.Path(entry["file"]).relative_to(ROOT))
        self.links = {}
        self.depends = self.read_depends()

    def ninja(self, *arguments):
        done = subprocess.run(["ninja", "-C", str(self.folder), *arguments], capture_output=True, text=True)
        if done.returncode != 0:
            raise Impossible(f"ninja {' '.join(arguments)}: {done.stdout}{done.stderr}")
        return done.stdout

    def read_depends(self):
        depends, output = {}, None
        for line in self.ninja("-t", "deps").splitlines():
            if line.startswith(" "):
                # Relative to the build folder where the compiler's cache made them so.
                path = pathlib.Path(os.path.normpath(self.folder.resolve() / line.strip()))
                if output and path.is_relative_to(ROOT / MODULE):
                    depends.setdefault(str(path.relative_to(ROOT)), set()).add(output)
            else:
                output = line.split(":")[0] if line else None
        return depends

    def link(self, program):
        """The command that links a test program, run in the build folder."""
        if program not in self.links:
            line = self.ninja("-t", "commands", "-s", f"bin/{program}").splitlines()[-1]
            self.links[program] = shlex.split(line.split("&&")[1])
        return list(self.links[program])

    def affected(self, program, path):
        """The objects of a program that have to be compiled again when a file changes."""
        return [word for word in self.link(program) if word in self.depends.get(path, ())]

    def compile(self, output, copy, target):
        """The command that compiles an object from the copy of the module into `target`."""
        argv = [word for word in self.compile_[output] if word not in NOT_FOR_MUTANTS]
        argv[argv.index("-o") + 1] = str(target)
        argv[argv.index("-c") + 1] = str(copy / self.source_[output])
        first = next(at for at, word in enumerate(argv) if word.startswith("-I"))
        return [*argv[:first], f"-I{copy}", *argv[first:], f"-ffile-prefix-map={copy}/=", "-w"]


def run_program(program, build, scratch, timeout, variables=(), limits=()):
    """(passed, what happened, seconds); the limits are options of the shell's ulimit."""
    environment = dict(os.environ, GTEST_FAIL_FAST="1", GTEST_COLOR="no", GCOV_PREFIX=str(scratch / "gcov"),
                       **dict(variables))
    command = [str(program)]
    if limits:
        command = ["sh", "-c", "".join(f"ulimit {limit} && " for limit in limits) + 'exec "$0"', str(program)]
    begin = time.monotonic()
    log = scratch / "output.txt"
    with open(log, "wb") as output:
        process = subprocess.Popen(command, cwd=build.folder / MODULE, stdin=subprocess.DEVNULL, stdout=output,
                                   stderr=subprocess.STDOUT, env=environment, start_new_session=True)
        try:
            status = process.wait(timeout)
        except subprocess.TimeoutExpired:
            status = None
        # What a failing test may have left running.
        try:
            os.killpg(process.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        process.wait()
    seconds = time.monotonic() - begin
    text = log.read_text(errors="replace")
    running = re.findall(r"^\[ RUN      \] (\S+)", text, re.M)
    failed = re.findall(r"^\[  FAILED  \] (\S+?),? ", text, re.M)
    if status == 0:
        return True, "", seconds
    if status is None:
        return False, f"hangs in {running[-1] if running else '?'}", seconds
    if failed:
        return False, failed[0], seconds
    return False, f"ends with {status} in {running[-1] if running else '?'}", seconds
