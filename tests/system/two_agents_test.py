"""Two agents share one pool. Commands of all kinds run one after the other and side by side; some are killed, interrupted,
terminated or stopped for a while, at moments that a seed chooses. Every set that was finished verifies and restores equal,
the next commands end, and nothing waits for ever."""
import json
import os
import random
import signal
import subprocess
import time
import unittest

import harness

ITERATIONS = int(os.environ.get("OBS_ITERATIONS", "300"))
MINUTES = float(os.environ.get("OBS_MINUTES", "0"))  # go on for so long, whatever the iterations
SEED = int(os.environ.get("OBS_SEED", "300"))
PATIENCE = 300    # seconds after which a command is taken to hang; none takes one on an idle machine
SETTLE_EVERY = 15
KEYS = 60


class Agent:
    """One agent: a state folder, an account and a bucket of its own."""

    def __init__(self, state, bucket):
        self.state = state
        self.bucket = bucket
        self.contents = {}

    @property
    def path(self):
        return "/" + self.bucket + "/"


class Two_Agents(harness.Scenario):
    encrypted = False

    def setUp(self):
        super().setUp()
        self.server = harness.Test_Server("--bucket", "first", "--bucket", "second", "--bucket", "target")
        self.addCleanup(self.server.stop)
        self.client = self.server.client()
        self.chance = random.Random(SEED)
        self.number = 0
        self.took = {}
        self.history = []
        self.expected = {}       # set: contents of the bucket when it was made
        self.numbers = {}        # set: its number in its selection
        self.signalled = {}
        self.agents = [Agent(os.path.join(self.folder, name), name) for name in ("first", "second")]
        for agent in self.agents:
            self.state = agent.state
            self.add_account(self.server)
            self.add_pool()
            for number in range(KEYS):
                self.put(agent, "d%d/k%02d" % (number % 3, number))
            self.run_whole(agent, *self.backup_arguments(agent))

    # Commands

    def backup_arguments(self, agent):
        return ["backup", "work", agent.path, "--pool", "disk", "--channels", str(self.chance.randrange(1, 4)),
                "--compression", self.chance.choice(["none", "zstd"]), "--json"]

    def start(self, agent, arguments):
        self.state = agent.state
        return subprocess.Popen(self.command(*arguments), stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                stderr=subprocess.PIPE)

    def finish(self, process, arguments):
        try:
            return process.communicate(timeout=PATIENCE)
        except subprocess.TimeoutExpired:
            waits = harness.waits_of(process.pid)
            process.kill()
            process.communicate()
            self.fail("%s hangs\n%s\n%s" % (" ".join(arguments), waits, self.told()))

    def told(self):
        return "\n".join(map(str, self.history[-25:]))

    def run_whole(self, agent, *arguments):
        """A command that nobody disturbs and that must complete; its standard output."""
        process = self.start(agent, arguments)
        output, error = self.finish(process, arguments)
        self.history.append((agent.bucket, arguments, process.returncode))
        self.assertEqual(0, process.returncode, "%s\n%s\n%s" % (arguments, error.decode(errors="replace"), self.told()))
        self.learn()
        return output.decode(errors="surrogateescape")

    def sets(self, agent):
        """The sets of the agent's own selection, oldest first."""
        self.state = agent.state
        rows = self.agent("sets", "--json").json["sets"]
        own = [row for row in rows if row["selection_name"] and agent.bucket in json.dumps(row)]
        self.numbers.update((row["set"], row["seq"]) for row in own)
        return [row["set"] for row in own]

    def learn(self):
        """Of every set that is new the bucket is what it was made of, since buckets change only between commands; a merged
        one shows the moment of that one of those it replaces whose number it has."""
        for agent in self.agents:
            for set_id in self.sets(agent):
                if set_id not in self.expected:
                    replaced = self.record(set_id).get("replaces", [])
                    shown = [old for old in replaced if self.numbers.get(old) == self.numbers[set_id]]
                    self.assertEqual(bool(replaced), bool(shown), "%s replaces %s" % (set_id, replaced))
                    self.expected[set_id] = self.expected[shown[0]] if shown else dict(agent.contents)

    def record(self, set_id):
        for folder, _, files in os.walk(self.pool):
            if os.path.basename(folder) == set_id and "set.json" in files:
                with open(os.path.join(folder, "set.json")) as file:
                    return json.load(file)
        return {}

    # What happens

    def put(self, agent, key):
        self.number += 1
        body = b"%d" % self.number * (self.number % 700 + 1)  # never the same twice
        self.client.put_object(Bucket=agent.bucket, Key=key, Body=body)
        agent.contents[key] = body

    def change_something(self, agent):
        for _ in range(self.chance.randrange(1, 4)):
            key = "d%d/k%02d" % (self.chance.randrange(3), self.chance.randrange(KEYS))
            if key in agent.contents and len(agent.contents) > 10 and self.chance.random() < 0.25:
                self.client.delete_object(Bucket=agent.bucket, Key=key)
                del agent.contents[key]
            else:
                self.put(agent, key)

    def arguments(self, agent):
        sets = self.sets(agent)
        kind = self.chance.choice(["full", "incremental", "incremental", "merge", "forget", "restore", "verify",
                                   "rebuild", "ls", "sets"])
        if kind in ("full", "incremental") or len(sets) < 2:
            return kind, self.backup_arguments(agent) + (["--full"] if kind == "full" else [])
        chosen = self.chance.choice(sets)
        if kind == "merge":
            first = self.chance.randrange(len(sets) - 1)
            return kind, ["merge", *sets[first:first + self.chance.randrange(2, 4)]]
        return kind, {"forget": ["forget", "--keep-last", str(self.chance.randrange(2, 5))],
                      "restore": ["restore", chosen, "--map", agent.bucket + "=target/" + agent.bucket],
                      "verify": ["verify", chosen], "rebuild": ["catalog", "rebuild", chosen],
                      "ls": ["ls", chosen], "sets": ["sets"]}[kind]

    def disturb(self, process, kind):
        """Lets a command run for a while and then sends it a signal, or none; what was sent."""
        sent = self.chance.choice([None, signal.SIGKILL, signal.SIGKILL, signal.SIGTERM, signal.SIGINT, signal.SIGSTOP])
        moment = self.chance.random() * self.took.get(kind, 0.3)
        if sent is None:
            return sent
        try:
            process.wait(timeout=moment)
            return None
        except subprocess.TimeoutExpired:
            process.send_signal(sent)
            return sent

    def step(self):
        """One command, or one of each agent side by side, with a signal to the first."""
        first, second = self.chance.sample(self.agents, 2)
        for agent in (first, second):
            if self.chance.random() < 0.7:
                self.change_something(agent)
        kind, arguments = self.arguments(first)
        beside = self.arguments(second)[1] if self.chance.random() < 0.4 else None
        start = time.monotonic()
        process = self.start(first, arguments)
        other = self.start(second, beside) if beside else None
        sent = self.disturb(process, kind)
        if other:
            # A stopped command holds its locks: the other one is told so and ends, or does not need them.
            self.look_at(second, beside, other, None)
        if sent == signal.SIGSTOP:
            process.send_signal(signal.SIGCONT)
        self.look_at(first, arguments, process, sent)
        if sent is None:
            self.took[kind] = time.monotonic() - start
        else:
            self.signalled[sent.name] = self.signalled.get(sent.name, 0) + 1
        self.learn()

    def look_at(self, agent, arguments, process, sent):
        output, error = self.finish(process, arguments)
        self.history.append((agent.bucket, arguments, sent, process.returncode))
        text = "%s\n%s\n%s" % (arguments, error.decode(errors="replace"), self.told())
        expected = {signal.SIGKILL: [-signal.SIGKILL], signal.SIGTERM: [130, -signal.SIGTERM],
                    signal.SIGINT: [130, -signal.SIGINT]}.get(sent, []) + [0]
        if process.returncode == 1:
            # Beside another command: its lock is held, or what it asked for is gone. It says so.
            self.assertNotEqual(b"", error.strip(), text)
        else:
            self.assertIn(process.returncode, expected, text)

    # What holds

    def settle(self):
        for agent in self.agents:
            outcome = json.loads(self.run_whole(agent, *self.backup_arguments(agent)).strip().splitlines()[-1])
            self.assert_account_adds_up(outcome)
            self.assertEqual(0, outcome["skipped"] + outcome["failed"], outcome)
            for set_id in self.sets(agent):
                self.run_whole(agent, "verify", set_id)
            chosen = self.chance.choice(self.sets(agent))
            for key in self.contents(self.server, "target", self.client):
                self.client.delete_object(Bucket="target", Key=key)
            self.run_whole(agent, "restore", chosen, "--map", agent.bucket + "=target")
            self.assertEqual(self.expected[chosen], self.contents(self.server, "target", self.client), chosen + "\n" + self.told())
            self.run_whole(agent, "forget", "--keep-last", str(self.chance.randrange(2, 4)))
        self.assertEqual([], self.unfinished(), self.told())
        self.agent("media", "check", *self.media())

    def test_finished_sets_stay_whole_and_nothing_hangs(self):
        print("seed %d" % SEED, flush=True)
        end = time.monotonic() + MINUTES * 60
        done = 0
        while done < ITERATIONS or time.monotonic() < end:
            self.step()
            done += 1
            if done % SETTLE_EVERY == 0:
                self.settle()
        self.settle()
        print("%d iterations, signals: %s" % (done, self.signalled), flush=True)


if __name__ == "__main__":
    harness.main()
