#!/usr/bin/env python3
"""Measures obs-agent, and other tools beside it, against an S3 service of its own (s3_source).

  list         listing 1,000,000 keys in 10,000 folders, at 0 and 20 ms, with 8, 32 and 64 threads    | rclone size
  small        backup of 20,000 objects of 4 KiB, at 0 and 20 ms, with 32 and 64 readers; restore     | rclone copy
  large        backup of 8 objects of 512 MiB; restore                                                | rclone copy, curl -o
  incremental  incremental backup of 1,000,000 unchanged objects (and of 3,000,000: the same memory)
  rate         bytes per CPU second of noise, text and a log: plain, zstd level 1, AES-256-GCM, and both
  browse       one folder of the set of 1,000,000 objects, nothing in the page cache

  ./dev bench [--quick] [--runs N] [--dir DIR] [CASE...]      all cases unless told

Tools take turns, run by run. A figure is the median of the runs; CPU is user and system time of all processes of a run
but the service's. Results go to the table in doc/bench.md (with --quick only to the terminal); there is what they mean.
"""

import argparse
import json
import os
import platform
import re
import shutil
import signal
import statistics
import subprocess
import sys
import tempfile
import time
import urllib.request

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
DOC = os.path.join(ROOT, "doc", "bench.md")
BUILD = os.path.join(ROOT, "build")  # --build
MIB = 1 << 20
# Proxies, certificates and keys that the environment holds are none of the tools' business.
ENVIRONMENT = {name: value for name, value in os.environ.items() if name in ("PATH", "HOME", "TMPDIR", "LD_LIBRARY_PATH")}


class Failed(Exception):
    pass


class Source:
    """The service. Leaves with this process."""

    def __init__(self, *buckets):
        self.process = subprocess.Popen(
            [os.path.join(BUILD, "bin", "s3-source"), *buckets], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True
        )
        self.port = int(self.process.stdout.readline())
        self.url = f"http://127.0.0.1:{self.port}"

    def get(self, path):
        with urllib.request.urlopen(f"{self.url}/-/{path}") as answer:
            return answer.read()

    def latency(self, milliseconds):
        self.get(f"latency?us={milliseconds * 1000}")

    def requests(self):
        return sum(json.loads(self.get("counts")).values())

    def make_bucket(self, name):
        urllib.request.urlopen(urllib.request.Request(f"{self.url}/{name}", method="PUT"))

    def cpu(self):
        with open(f"/proc/{self.process.pid}/stat") as stat:
            fields = stat.read().rsplit(")", 1)[1].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.stdin.close()
        self.process.wait()


class Figures:
    """What runs of one command took."""

    def __init__(self):
        self.runs = []

    def add(self, wall, cpu, memory, output):
        self.runs.append((wall, cpu, memory))
        self.output = output

    wall = property(lambda self: statistics.median(run[0] for run in self.runs))
    cpu = property(lambda self: statistics.median(run[1] for run in self.runs))
    memory = property(lambda self: max(run[2] for run in self.runs))


def measure(command, figures):
    """Runs a command to its end; wait4 answers for it and for all that it waited for."""
    with tempfile.TemporaryFile() as out, tempfile.TemporaryFile() as err:
        begin = time.monotonic()
        process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=out, stderr=err, env=ENVIRONMENT)
        _, status, usage = os.wait4(process.pid, 0)
        wall = time.monotonic() - begin
        process.returncode = os.waitstatus_to_exitcode(status)
        out.seek(0)
        text = out.read().decode(errors="replace")
        if process.returncode != 0:
            err.seek(0)
            raise Failed(f"{' '.join(command)} ended with {process.returncode}:\n{err.read().decode(errors='replace')[-2000:]}\n{text[-500:]}")
    figures.add(wall, usage.ru_utime + usage.ru_stime, usage.ru_maxrss / 1024, text)
    return text


def in_turn(runs, tools, before=lambda: None):
    """tools: name -> function that does one run with a Figures. Name -> Figures."""
    figures = {name: Figures() for name in tools}
    for _ in range(runs):
        for name, run in tools.items():
            before()
            run(figures[name])
            print(f"    {name}: {figures[name].runs[-1][0]:.2f} s, CPU {figures[name].runs[-1][1]:.2f} s, "
                  f"{figures[name].runs[-1][2]:.0f} MiB", flush=True)
    return figures


class Agent:
    """obs-agent with a state of its own, an account for the service, and a pool."""

    def __init__(self, folder, source):
        self.program = os.path.join(BUILD, "bin", "obs-agent")
        self.folder = tempfile.mkdtemp(dir=folder)
        self.state = os.path.join(self.folder, "state")
        secret = os.path.join(self.folder, "secret")
        with open(secret, "w") as file:
            file.write("bench-secret")
        self.do("account", "add", "bench", "--endpoint", source.url, "--access-key", "bench", "--secret-key-file", secret)
        self.new_pool()

    def command(self, *arguments):
        return [self.program, "--state", self.state, "--json", *arguments]

    def do(self, *arguments, figures=None):
        text = measure(self.command(*arguments), figures or Figures())
        return json.loads(text.strip().splitlines()[-1])

    def new_pool(self, *flags):
        """Every full backup begins with an empty one; the last one's bytes go."""
        self.drop_pool()
        self.pool = tempfile.mkdtemp(dir=self.folder, prefix="pool.")
        self.pool_name = os.path.basename(self.pool)
        self.do("pool", "add", self.pool_name, "file://" + self.pool, *flags)

    def drop_pool(self):
        shutil.rmtree(getattr(self, "pool", ""), ignore_errors=True)

    def backup(self, figures, bucket, objects, *arguments):
        answer = self.do("backup", "bench", f"/{bucket}/", "--pool", self.pool_name, *arguments, figures=figures)
        if answer["outcome"] != "completed" or answer["listed"] != objects:
            raise Failed(f"the backup is not whole: {answer}")
        self.set, self.bucket = answer["set"], bucket
        return answer

    def restore(self, figures, source, target, *arguments):
        """Into the bucket that was backed up, or with a target into that one, where what is there is removed first."""
        source.get("forget")
        if target:
            source.make_bucket(target)
            arguments += ("--map", f"{self.bucket}={target}")
        else:
            arguments += ("--in-place",)
        answer = self.do("restore", self.set, *arguments, figures=figures)
        if answer["outcome"] != "completed":
            raise Failed(f"the restore is not whole: {answer}")
        return answer

    def remove(self):
        shutil.rmtree(self.folder, ignore_errors=True)


def rclone(source, *arguments):
    """A command of rclone for the service; `{}` before a path stands for it."""
    remote = (f":s3,provider=Other,endpoint='{source.url}',access_key_id=bench,secret_access_key=bench-secret,"
              "force_path_style=true,no_check_bucket=true:")
    return ["rclone", "--config", "/dev/null", *[one.replace("{}", remote) for one in arguments]]


def emptied(path):
    shutil.rmtree(path, ignore_errors=True)
    os.makedirs(path)
    return path


class Bench:
    def __init__(self, options):
        self.quick = options.quick
        self.runs = options.runs or (1 if options.quick else 3)
        os.makedirs(options.dir, exist_ok=True)
        self.folder = tempfile.mkdtemp(dir=options.dir, prefix="run.")
        self.has_rclone = not options.alone and shutil.which("rclone") is not None
        self.has_curl = not options.alone and shutil.which("curl") is not None
        self.rows = []

    def row(self, case, tool, figures, note="", ratio=None):
        self.rows.append({"case": case, "tool": tool, "wall": figures.wall, "cpu": figures.cpu, "memory": figures.memory,
                          "ratio": ratio, "note": note})

    def compare(self, case, all_figures, amount, unit, note=""):
        """One row per tool; the ratio is of work per CPU second, ours to theirs."""
        ours = all_figures["obs-agent"]
        for tool, figures in all_figures.items():
            text = f"{amount / figures.cpu:,.0f} {unit} per CPU s" if figures.cpu else ""
            self.row(case, tool, figures, f"{text}{'; ' + note if note and tool == 'obs-agent' else ''}",
                     None if tool == "obs-agent" else (figures.cpu / ours.cpu, figures.wall / ours.wall))

    def list(self):
        tree = "20x20x100" if self.quick else "100x100x100"
        counts = [int(n) for n in tree.split("x")]
        keys = counts[0] * counts[1] * counts[2]
        with Source(f"keys:{tree}:4096") as source:
            for latency, threads in ((0, 8), (20, 8), (20, 32), (20, 64)):
                source.latency(latency)
                lister = [os.path.join(BUILD, "bin", "bench-lister"), str(source.port), "keys", str(threads)]

                def ours(figures):
                    if int(measure(lister, figures)) != keys:
                        raise Failed(f"the listing is not whole: {figures.output}")

                def theirs(*flags):
                    command = rclone(source, "size", "--json", "{}keys", "--checkers", str(threads), *flags)

                    def run(figures):
                        if json.loads(measure(command, figures))["count"] != keys:
                            raise Failed(f"the listing is not whole: {figures.output}")

                    return run

                source.get("forget")
                measure(lister, Figures())
                requests = source.requests()
                tools = {"obs-agent": ours}
                if self.has_rclone:
                    tools["rclone size"] = theirs()
                    if latency == 0:
                        tools["rclone size --fast-list"] = theirs("--fast-list")
                figures = in_turn(self.runs, tools)
                least = requests * latency / 1000 / threads
                note = f"{requests:,} requests" + (f", at least {least:.2f} s: {figures['obs-agent'].wall / least:.2f} x" if least else "")
                self.compare(f"list {keys:,} keys, {latency} ms, {threads} threads", figures, keys, "keys", note)

    def backup_and_restore(self, name, source, bucket, objects, size, latency, readers, others, before=lambda: None):
        """Backup beside other tools, then restore of the last set."""
        agent = Agent(self.folder, source)
        source.latency(latency)

        def ours(figures):
            source.latency(0)
            agent.new_pool()
            source.latency(latency)
            agent.backup(figures, bucket, objects, "--full", *(["--readers", str(readers)] if readers else []))

        figures = in_turn(self.runs, {"obs-agent": ours, **others}, before)
        least = objects * latency / 1000 / readers if readers else 0
        amount, unit = (objects, "objects") if size < MIB else (objects * size / MIB, "MiB")
        note = f"{objects / figures['obs-agent'].wall:,.0f} objects/s" if size < MIB else \
            f"{objects * size / MIB / figures['obs-agent'].wall:,.0f} MiB/s"
        if least:
            note += f", at least {least:.2f} s: {figures['obs-agent'].wall / least:.2f} x"
        self.compare(f"backup of {name}", figures, amount, unit, note)

        concurrent = ["--concurrent", str(readers or 16)]
        for where, target in (("its own bucket", ""), ("another bucket", "restored")):
            restores = in_turn(self.runs, {"restore": lambda f: agent.restore(f, source, target, *concurrent)})
            rate = figures["obs-agent"].wall / restores["restore"].wall
            counts = json.loads(source.get("counts"))
            per = ", ".join(f"{count / objects:.2g} {kind}" for kind, count in sorted(counts.items())
                            if count >= objects)
            self.row(f"restore of {name} into {where}", "obs-agent", restores["restore"],
                     f"{rate:.2f} of the backup's rate; {per} requests per object")
        source.latency(0)
        agent.remove()

    def small(self):
        objects = 4000 if self.quick else 20000
        with Source(f"small:{objects // 100}x100:4096") as source:
            for latency, readers in ((0, 32), (20, 32), (20, 64)):
                copy = os.path.join(self.folder, "copy")
                others = {}
                if self.has_rclone:
                    command = rclone(source, "copy", "{}small", copy, "--transfers", str(readers), "--checkers", str(readers),
                                     "--fast-list", "--use-server-modtime", "--ignore-checksum", "--no-traverse")
                    others["rclone copy"] = lambda figures: measure(command, figures)
                self.backup_and_restore(f"{objects:,} x 4 KiB, {latency} ms, {readers} readers", source, "small", objects, 4096,
                                        latency, readers, others, lambda: emptied(copy))

    def large(self):
        count, size = (4, 64 * MIB) if self.quick else (8, 512 * MIB)
        with Source(f"large:{count}:{size}") as source:
            copy = os.path.join(self.folder, "copy")
            urls = []
            for i in range(count):
                urls += [f"{source.url}/large/object-{i:06}.dat", "-o", os.path.join(copy, str(i))]
            others = {}
            if self.has_curl:
                others["curl -o"] = lambda figures: measure(["curl", "-s", *urls], figures)
                others["curl -Z -o"] = lambda figures: measure(["curl", "-s", "-Z", *urls], figures)
            if self.has_rclone:
                command = rclone(source, "copy", "{}large", copy, "--transfers", "4", "--use-server-modtime", "--ignore-checksum",
                                 "--multi-thread-streams", "0")
                others["rclone copy"] = lambda figures: measure(command, figures)
            self.backup_and_restore(f"{count} x {size // MIB} MiB", source, "large", count, size, 0, 0, others,
                                    lambda: emptied(copy))
            shutil.rmtree(copy, ignore_errors=True)

    def million(self, tree, then):
        """A set of that many objects, with `then` called on its agent."""
        counts = [int(n) for n in tree.split("x")]
        objects = counts[0] * counts[1] * counts[2]
        with Source(f"many:{tree}:0") as source:
            agent = Agent(self.folder, source)
            print(f"    a full set of {objects:,} empty objects first", flush=True)
            agent.backup(Figures(), "many", objects, "--full", "--readers", "64")
            then(agent, source, objects)
            agent.remove()

    def incremental(self):
        def run(agent, source, objects):
            tools = {"obs-agent": lambda figures: self.unchanged(agent, figures, objects)}
            figures = in_turn(self.runs, tools)
            self.compare(f"incremental over {objects:,} unchanged objects", figures, objects, "objects",
                         f"peak memory {figures['obs-agent'].memory:.0f} MiB")

        for tree in ("20x20x100",) if self.quick else ("100x100x100", "300x100x100"):
            self.million(tree, run)

    @staticmethod
    def unchanged(agent, figures, objects):
        answer = agent.backup(figures, "many", objects)
        if answer["unchanged"] != objects:
            raise Failed(f"not all is unchanged: {answer}")

    def rate(self):
        count, size = (4, 4 * MIB) if self.quick else (16, 64 * MIB)
        key = os.path.join(self.folder, "key")
        with open(key, "wb") as file:
            file.write(os.urandom(32))
        sealed = ["--encrypt", "--key-file", key]
        packed = ["--compression", "zstd", "--compression-level", "1"]
        for content in ("noise", "text", "log"):
            with Source(f"{content}:{count}:{size}" + ("" if content == "noise" else ":" + content)) as source:
                agent = Agent(self.folder, source)

                def one(pool, *arguments):
                    def run(figures):
                        agent.new_pool(*pool)
                        answer = agent.backup(figures, content, count, "--full", *arguments)
                        figures.stored = answer["bytes_stored"] / (count * size)

                    return run

                tools = {"plain": one([]), "zstd 1": one([], *packed), "AES": one(sealed), "zstd 1 and AES": one(sealed, *packed)}
                figures = in_turn(self.runs, tools)
                for name, taken in figures.items():
                    self.row(f"rate per core, {count} x {size // MIB} MiB, {content}", "obs-agent, " + name, taken,
                             f"{count * size / MIB / taken.cpu:,.0f} MiB per CPU s, {figures['plain'].cpu / taken.cpu:.2f} of the "
                             f"plain rate; {taken.stored:.2f} of the size stored")
                agent.remove()

    def browse(self):
        def run(agent, source, objects):
            catalogs = [os.path.join(folder, file) for folder, _, files in os.walk(agent.pool) for file in files]

            def cold():
                os.sync()
                for path in catalogs:
                    with open(path, "rb") as file:
                        os.posix_fadvise(file.fileno(), 0, 0, os.POSIX_FADV_DONTNEED)

            where = {"a folder of 100 objects": "/many/folder-000007/folder-000007/", "the bucket": "/many/"}
            for what, path in where.items():
                figures = in_turn(max(self.runs, 5), {what: lambda f: agent.do("ls", agent.set, path, figures=f)}, cold)
                self.row(f"ls of {what}, set of {objects:,}, cold", "obs-agent", figures[what])

        self.million("20x20x100" if self.quick else "100x100x100", run)

    def close(self):
        shutil.rmtree(self.folder, ignore_errors=True)


CASES = ["list", "small", "large", "incremental", "rate", "browse"]


def machine():
    model = re.search(r"model name\s*: (.*)", open("/proc/cpuinfo").read())
    memory = int(re.search(r"MemTotal: *(\d+)", open("/proc/meminfo").read())[1]) / (1 << 20)
    tools = []
    for tool, arguments in (("rclone", ["version"]), ("curl", ["--version"])):
        if shutil.which(tool):
            tools.append(" ".join(subprocess.run([tool, *arguments], capture_output=True, text=True).stdout.split()[:2]))
    return (f"{os.cpu_count()} processors ({model[1] if model else platform.machine()}), {memory:.0f} GiB of memory, "
            f"Linux {'.'.join(platform.release().split('.')[:2])}; {', '.join(tools)}. The service, the tools and the disk share the machine.")


def table(rows):
    lines = ["| case | tool | wall s | CPU s | peak MiB | CPU and wall, ours = 1 | |", "|---|---|--:|--:|--:|--:|---|"]
    for row in rows:
        ratio = "{:.2f}, {:.2f}".format(*row["ratio"]) if row["ratio"] else ""
        lines.append(f"| {row['case']} | {row['tool']} | {row['wall']:.2f} | {row['cpu']:.2f} | {row['memory']:.0f} | {ratio} | {row['note']} |")
    return "\n".join(lines)


def write_doc(case, rows, runs):
    """Puts the case's table into its place between the two marks; the text around it stays."""
    with open(DOC) as file:
        text = file.read()
    begin, end = f"<!-- {case}: written by ./dev bench -->", f"<!-- {case}: end -->"
    if begin not in text or end not in text:
        raise Failed(f"{DOC} has no place for the results of '{case}'")
    head, rest = text.split(begin)
    taken = "One run" if runs == 1 else f"Median of {runs} runs"
    body = f"\n\n{taken}, {time.strftime('%Y-%m-%d')}. {machine()}\n\n{table(rows)}\n\n"
    with open(DOC, "w") as file:
        file.write(head + begin + body + end + rest.split(end)[1])


def main():
    global BUILD
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("case", nargs="*", metavar="CASE", help=", ".join(CASES))
    parser.add_argument("--quick", action="store_true", help="smaller sizes, one run, no table written")
    parser.add_argument("--runs", type=int, default=0, help="runs of each command (3)")
    parser.add_argument("--dir", help="where pools and copies lie meanwhile (build/bench)")
    parser.add_argument("--alone", action="store_true", help="without the other tools")
    parser.add_argument("--build", default=BUILD, help="where the programs were built")
    options = parser.parse_args()
    BUILD = options.build
    options.dir = options.dir or os.path.join(BUILD, "bench")
    unknown = [case for case in options.case if case not in CASES]
    if unknown:
        parser.error(f"no such case: {', '.join(unknown)}")
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))
    for case in options.case or CASES:
        print(f"== {case}", flush=True)
        bench = Bench(options)
        try:
            getattr(bench, case)()
            print(table(bench.rows))
            if not options.quick:
                write_doc(case, bench.rows, bench.runs)
        except Failed as failure:
            print(f"bench: {failure}", file=sys.stderr)
            return 1
        finally:
            bench.close()
    return 0


if __name__ == "__main__":
    sys.exit(main())
