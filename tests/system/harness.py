"""What the system tests share: the program under test, servers to run it against, temporary folders."""
import collections
import hashlib
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile
import time
import unittest

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
sys.path.insert(0, os.path.join(ROOT, "tests", "media"))
import plain_mtf

BUILD = os.environ.get("OBS_BUILD", os.path.join(ROOT, "build"))
AGENT = os.path.join(BUILD, "bin", "obs-agent")
SERVER = os.path.join(BUILD, "bin", "s3-test-server")
FIGURES = ["saved", "unchanged", "excluded", "skipped", "failed"]


def make_client(server):
    import boto3
    from botocore.config import Config
    return boto3.client("s3", endpoint_url=server.endpoint, aws_access_key_id=server.access_key,
                        aws_secret_access_key=server.secret_key, region_name="us-east-1",
                        config=Config(s3={"addressing_style": "path"}, retries={"max_attempts": 3}))


class Real_Server:
    """The real S3 server, in a temporary folder. `settings` are those of rgw-up.sh: storage_classes="A B"."""

    def __init__(self, **settings):
        self.folder = tempfile.mkdtemp(prefix="obs-rgw-")
        self.state = os.path.join(self.folder, "server")
        up = os.path.join(ROOT, "testing", "real_server", "rgw-up.sh")
        done = subprocess.run([up, self.state, "0"], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, env=dict(os.environ, RGW_TLS_PORT="0", RGW_TIMEOUT="180",
                                       **{"RGW_" + name.upper(): value for name, value in settings.items()}))
        if done.returncode != 0:
            self.stop()
            raise RuntimeError("the real S3 server does not start:\n" + done.stdout.decode(errors="replace"))
        with open(os.path.join(self.state, "env")) as env:
            values = dict(line.rstrip("\n").split("=", 1) for line in env)
        self.endpoint = values["endpoint"]
        self.tls_endpoint = values["tls_endpoint"]
        self.ca = values["ca"]
        self.access_key = values["access_key"]
        self.secret_key = values["secret_key"]

    def stop(self):
        down = os.path.join(ROOT, "testing", "real_server", "rgw-down.sh")
        subprocess.run([down, self.state], stdin=subprocess.DEVNULL)
        shutil.rmtree(self.folder, ignore_errors=True)

    def client(self):
        return make_client(self)

    def settle(self):
        """Waits until, by the server's own clock, nothing that is stored has just been stored."""
        from email.utils import parsedate_to_datetime
        client = self.client()
        now = lambda: parsedate_to_datetime(client.list_buckets()["ResponseMetadata"]["HTTPHeaders"]["date"])
        start = now()
        while (now() - start).total_seconds() < 2:
            time.sleep(0.1)

    def tool(self, name, *arguments):
        """Runs one of testing/bucket_tools against this server; its standard output."""
        return subprocess.run(
            ["/usr/bin/python3", os.path.join(ROOT, "testing", "bucket_tools", name), "--endpoint", self.endpoint,
             "--access-key", self.access_key, "--secret-key", self.secret_key, *arguments],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)


class Test_Server:
    """The test server as a process of its own. `arguments` describe its buckets and faults (s3-test-server --help)."""

    def __init__(self, *arguments):
        # Its clock is ahead of the dates of its objects, or what a test has just stored would count as changed at the
        # next run: tests of that rule stop the clock and move it.
        if "--stopped-clock" not in arguments:
            arguments += ("--date-ahead", "10")
        self.process = subprocess.Popen([SERVER, *arguments], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        values = {}
        for line in self.process.stdout:
            line = line.strip()
            if line == "ready":
                break
            key, value = line.split("=", 1)
            values[key] = value
        else:
            raise RuntimeError("the test server does not start")
        self.endpoint = values["endpoint"]
        self.access_key = values["access_key"]
        self.secret_key = values["secret_key"]

    def client(self):
        return make_client(self)

    def settle(self):
        """Nothing to wait for, see above."""

    def ask(self, *words):
        """The server's answer to one of its questions (the head of testing/s3_test_server/main.cpp)."""
        self.process.stdin.write(" ".join(words) + "\n")
        self.process.stdin.flush()
        return self.process.stdout.readline().rstrip("\n")

    def stop(self):
        """Idempotent."""
        self.process.stdin.close()   # it ends when its input does
        status = self.process.wait(timeout=30)
        self.process.stdout.close()
        if status != 0:
            raise RuntimeError("the test server ended with %d" % status)


class Result:
    def __init__(self, returncode, stdout, stderr):
        self.returncode = returncode
        self.stdout = stdout
        self.stderr = stderr

    @property
    def json(self):
        return json.loads(self.stdout.strip().splitlines()[-1])

    @property
    def json_lines(self):
        return [json.loads(line) for line in self.stdout.splitlines()]


def carried(path):
    """Whether "bucket/key", bytes, stands on media as it is, and not by a substitute."""
    try:
        text = path.decode()
    except UnicodeDecodeError:
        return False
    if any(part in ("", ".", "..") or len(part.encode()) > 255 or "\0" in part or re.search("~[0-9a-f]{16}$", part)
           for part in text.split("/")):
        return False
    return len((text.rpartition("/")[0] + "/").encode("utf-16-le")) <= 908


class Scenario(unittest.TestCase):
    """A test with a temporary folder, a state folder in it, and the program. In the end the media of all its sets are
    checked, unless it says that it has damaged some: `damages_media`."""

    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="obs-agent-test-")
        self.addCleanup(shutil.rmtree, self.folder, ignore_errors=True)
        self.damages_media = False
        self.addCleanup(self.check_all_media)
        self.state = os.path.join(self.folder, "state")
        self.pool = os.path.join(self.folder, "pool")
        self.program = AGENT

    def command(self, *arguments):
        return [self.program, "--state", self.state, *arguments]

    def agent(self, *arguments, expect=0, input=None):
        """Runs the program and checks its exit code; None accepts any."""
        done = subprocess.run(self.command(*arguments), input=input, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                              stdin=None if input is not None else subprocess.DEVNULL)
        result = Result(done.returncode, done.stdout.decode(errors="surrogateescape"),
                        done.stderr.decode(errors="replace"))
        if expect is not None and expect != result.returncode:
            self.fail("%s: ended with %d instead of %d\n%s\n%s\n%s" % (
                " ".join(arguments), result.returncode, expect, result.stdout, result.stderr, self.last_log_lines()))
        return result

    def start_until(self, reached, *arguments, **options):
        """The program as it runs once `reached()` is true; fails where it ends before. `options` are those of Popen."""
        process = subprocess.Popen(self.command(*arguments), stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                   stderr=subprocess.PIPE, **options)
        self.addCleanup(process.kill)
        while not reached() and process.poll() is None:
            pass
        self.assertIsNone(process.poll())
        return process

    def end_of(self, process, status):
        """The account and the messages of a program that was started so, which ends with that exit code."""
        out, error = process.communicate()
        self.assertEqual(status, process.returncode, "%s%s%s" % (out, error, self.last_log_lines()))
        return json.loads(out.splitlines()[-1]), error.decode()

    def last_log_lines(self):
        try:
            with open(os.path.join(self.state, "agent.log"), errors="replace") as log:
                return "agent.log ends with:\n" + "".join(log.readlines()[-40:])
        except OSError:
            return ""

    def add_account(self, server, name="work", **options):
        arguments = ["account", "add", name, "--endpoint", options.pop("endpoint", server.endpoint),
                     "--access-key", options.pop("access_key", server.access_key), "--secret-key-file", "-"]
        for option, value in options.items():
            arguments += ["--" + option.replace("_", "-"), value]
        return self.agent(*arguments, input=server.secret_key.encode())

    def add_pool(self, name="disk"):
        return self.agent("pool", "add", name, "file://" + self.pool)

    def backup(self, *arguments, expect=0):
        """Backs up with the account "work" into the pool "disk"; the outcome, checked for its sum."""
        outcome = self.agent("backup", "work", *arguments, "--pool", "disk", "--json", expect=expect).json
        self.assert_account_adds_up(outcome)
        return outcome

    def contents(self, server, bucket, client=None):
        """Every object of a bucket: key to bytes. `client`: one of the server's that is there already."""
        client = client or server.client()
        found = {}
        for page in client.get_paginator("list_objects").paginate(Bucket=bucket):
            for item in page.get("Contents", []):
                found[item["Key"]] = client.get_object(Bucket=bucket, Key=item["Key"])["Body"].read()
        return found

    def media(self, set_id=""):
        """The media files of the pool, or of one set."""
        found = []
        for folder, _, files in os.walk(self.pool):
            if not set_id or os.path.basename(folder) == set_id:
                found += [os.path.join(folder, name) for name in files if name.endswith(".mtf")]
        return sorted(found)

    def check_all_media(self):
        """`media check` over every medium of every finished set, and partial set, of all pools of the scenario."""
        media = []
        for folder, folders, files in os.walk(self.folder):
            folders[:] = [name for name in folders if not name.startswith(".removed-")]
            if "set.json" in files or "partial.json" in files:
                media += [os.path.join(folder, name) for name in sorted(files) if name.endswith(".mtf")]
        if self.damages_media or not media:
            return
        for first in range(0, len(media), 500):
            done = subprocess.run([AGENT, "--state", os.path.join(self.folder, "check"), "media", "check", "--json",
                                   *media[first:first + 500]], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                  stderr=subprocess.PIPE)
            lines = [json.loads(line) for line in done.stdout.splitlines()]
            self.assertEqual((0, []), (done.returncode, [line for line in lines if not line.get("clean")]), done.stderr)
            self.assertEqual(media[first:first + 500], [line["medium"] for line in lines])

    def assert_readable_elsewhere(self, media, expected):
        """An independent reader extracts just these objects, {b"bucket/key": content}, from plain media, by the names that
        media can carry, and the most primitive one finds the same."""
        wanted = {path: hashlib.sha256(content).hexdigest() for path, content in expected.items()}
        names = {"OBS/" + path.decode(): digest for path, digest in wanted.items() if carried(path)}
        found, others = {}, collections.Counter()
        for number, path in enumerate(media):
            medium = plain_mtf.Medium(path)
            self.addCleanup(medium.close)
            target = tempfile.mkdtemp(dir=self.folder)
            files = [("/".join([device] + folder + [name]), size, offset)
                     for device, folder, name, size, _, offset in medium.files()]
            self.assertEqual(files, [("/".join([device] + folder + [name]), size, offset)
                                     for device, folder, name, size, offset in medium.steps()], path)
            for name, file in medium.extract(target):
                with open(file, "rb") as content:
                    digest = hashlib.sha256(content.read()).hexdigest()
                if name in names:
                    self.assertNotIn(name, found)
                    found[name] = digest
                else:
                    self.assertRegex(name, "~[0-9a-f]{16}(/|$)")
                    others[digest] += 1
            shutil.rmtree(target)
        self.assertEqual(names, found)
        self.assertEqual(collections.Counter(digest for path, digest in wanted.items() if not carried(path)), others)

    def assert_account_adds_up(self, outcome):
        self.assertEqual(outcome["listed"], sum(outcome[figure] for figure in FIGURES), outcome)
        # The left side is what pages showed. A key that came out nowhere makes the sum right by a problem of its own.
        self.assertFalse([error for error in outcome["errors"] if "handed out" in error["message"]], outcome)

    def partial(self):
        """Folders of the pool that hold what unfinished runs left and finished sets point into."""
        return [folder for folder, _, files in os.walk(self.pool) if "partial.json" in files]

    def unfinished(self):
        """Folders of the pool that look like sets but have no record, be it that of a partial set."""
        found = []
        for folder, _, files in os.walk(self.pool):
            if any(name.endswith(".mtf") or name == "catalog.db" for name in files) \
                    and "set.json" not in files and "partial.json" not in files:
                found.append(folder)
        return found


def waits_of(pid):
    """What each thread of a process waits for, for the message about a command that hangs."""
    found = []
    for thread in sorted(os.listdir("/proc/%d/task" % pid)):
        try:
            with open("/proc/%d/task/%s/wchan" % (pid, thread)) as wait, \
                    open("/proc/%d/task/%s/syscall" % (pid, thread)) as call:
                number, _, rest = call.read().strip().partition(" ")
                found.append("thread %s: %s, system call %s %s" % (thread, wait.read(), number, rest))
        except OSError:
            continue
    for number in os.listdir("/proc/%d/fd" % pid):
        try:
            found.append("descriptor %s: %s" % (number, os.readlink("/proc/%d/fd/%s" % (pid, number))))
        except OSError:
            continue
    return "\n".join(found)


def main():
    unittest.main()
