"""What the scripts of this folder share: a bus, servers on it, and the program that is tried."""

import json
import os
import pty
import select
import signal
import subprocess
import sys
import tempfile
import time
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "wire"))

import wire  # noqa: E402

wire.PROGRAMS = os.environ.get("NELO_RPC_TOOL_DIR", "")
TOOL = os.environ.get("NELO_RPC_TOOL", "nelo-rpc")
SOURCE = os.environ.get("NELO_RPC_TOOL_SOURCE", os.path.join(HERE, "..", "..", "tools"))

SERVER = "org.example.probes"
LIMIT = wire.LIMIT

OK, BROKEN, USAGE, NO_BUS, NO_NAME, REFUSED, NO_REPLY, NO_RESULT = range(8)


class Watching:
    """A run of the program that goes on until it is ended."""

    def __init__(self, environment, *words):
        self._process = subprocess.Popen([TOOL, *words], env=environment, stdout=subprocess.PIPE,
                                         stderr=subprocess.PIPE, encoding="utf-8", preexec_fn=wire.die_with_parent)

    def line(self):
        return self._process.stdout.readline().rstrip("\n")

    def has_output(self):
        return bool(select.select([self._process.stdout], [], [], 0)[0])

    def interrupt(self, how=signal.SIGINT):
        self._process.send_signal(how)

    def is_running(self):
        return self._process.poll() is None

    def end(self):
        """What subprocess.run returns, of a run that ends by itself or was interrupted."""
        out, err = self._process.communicate(timeout=LIMIT)
        return subprocess.CompletedProcess([], self._process.returncode, out, err)

    def kill(self):
        self._process.kill()
        self._process.wait()
        self._process.stdout.close()
        self._process.stderr.close()


class ToolTest(unittest.TestCase):
    """A bus of the test class's own, with nobody on it."""

    EXTRA_POLICY = ""

    @classmethod
    def setUpClass(cls):
        conf = wire.BUS_CONF
        if cls.EXTRA_POLICY:
            with open(conf, encoding="utf-8") as file:
                text = file.read().replace("</busconfig>", cls.EXTRA_POLICY + "</busconfig>")
            folder = tempfile.TemporaryDirectory()
            cls.addClassCleanup(folder.cleanup)
            conf = os.path.join(folder.name, "bus.conf")
            with open(conf, "w", encoding="utf-8") as file:
                file.write(text)
        cls.bus = wire.PrivateBus(conf)
        cls.addClassCleanup(cls.bus.stop)

    def start(self, *arguments, name=SERVER):
        """A server, ended with the test."""
        errors = tempfile.TemporaryFile()
        self.addCleanup(errors.close)
        server = wire.Program(self.bus, "ToolServerProgram", name, *arguments, errors=errors)
        self.addCleanup(server.stop)
        return server

    def objects(self, server):
        """How many probes there are."""
        server.say("objects")
        return int(server.next_line().split()[1])

    def tool(self, *words, environment=None):
        return subprocess.run([TOOL, *words], env=environment or self.bus.environment, capture_output=True,
                              encoding="utf-8", timeout=LIMIT)

    def on_terminal(self, *words, **variables):
        """What the program writes to a terminal, of both kinds, with these variables in its environment."""
        environment = {key: value for key, value in self.bus.environment.items() if key != "NO_COLOR"}
        environment.update({"TERM": "xterm", **variables})
        ours, its = pty.openpty()
        run = subprocess.Popen([TOOL, *words], env=environment, stdin=its, stdout=its, stderr=its,
                               preexec_fn=wire.die_with_parent)
        os.close(its)
        text = b""
        try:
            while True:
                text += os.read(ours, 4096)
        except OSError:  # how a terminal tells that nobody writes to it any more
            pass
        run.wait(LIMIT)
        os.close(ours)
        return text.decode()

    def watching(self, *words):
        run = Watching(self.bus.environment, *words)
        self.addCleanup(run.kill)
        return run

    def expect(self, out, *words):
        """Runs the program, which must go well and print this."""
        done = self.tool(*words)
        self.assertEqual((OK, out, ""), (done.returncode, done.stdout.rstrip("\n"), done.stderr))

    def expect_failure(self, code, text, *words):
        """Runs the program, which must end with this code, print nothing and say this."""
        done = self.tool(*words)
        self.assertEqual(code, done.returncode, done.stderr)
        self.assertEqual("", done.stdout)
        self.assertTrue(done.stderr.startswith("nelo-rpc: error: "), done.stderr)
        self.assertIn(text, done.stderr)
        self.assertEqual(1, done.stderr.count("\n"), "one line says it all")

    def json_of(self, *words):
        done = self.tool("--json", *words)
        self.assertEqual((OK, ""), (done.returncode, done.stderr))
        return [json.loads(line) for line in done.stdout.splitlines()]

    def eventually(self, condition):
        """Waits for something that announces itself by nothing."""
        end = time.monotonic() + LIMIT
        while not condition():
            if time.monotonic() > end:
                self.fail("it did not come about")
            time.sleep(0.02)
