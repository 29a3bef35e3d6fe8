"""What every measurement has for itself: a bus, a server and clients."""

import contextlib
import json
import os
import select
import signal
import socket
import statistics
import subprocess
import tempfile
import threading
import time
from pathlib import Path

LIMIT_SECONDS = 180

# Name -> (program, variant, what it is).
CONTENDERS = {
    "nelo": ("bench_nelo", "delivery", "this library, client with CCallbackDelivery"),
    "nelo-plain": ("bench_nelo", "plain", "this library, client without delivery"),
    "nelo-logged": ("bench_nelo", "logged", "this library, every line written to a log socket that is read"),
    "raw": ("bench_raw", "one-thread", "libdbus, append functions, one thread on each side"),
    "raw-worker": ("bench_raw", "worker", "the same, server with a worker thread"),
    "raw-unasked": ("bench_raw", "unasked", "the same, callbacks without asking the bus for the receiver"),
    "sd-bus": ("bench_sdbus", "-", "libsystemd"),
    "sdbus-c++": ("bench_sdbuscpp", "-", "sdbus-c++"),
    "gdbus": ("bench_gdbus", "-", "GLib"),
}

BUS_CONFIGURATION = """<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>unix:tmpdir=/tmp</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_type="method_call"/>
    <allow send_type="signal"/>
    <allow send_requested_reply="true" send_type="method_return"/>
    <allow send_requested_reply="true" send_type="error"/>
    <allow receive_type="method_call"/>
    <allow receive_type="method_return"/>
    <allow receive_type="error"/>
    <allow receive_type="signal"/>
  </policy>
</busconfig>
"""


class Failure(Exception):
    pass


class Process:
    """A program that says a line when it is ready, and is ended at the latest when it goes out of scope."""

    def __init__(self, command, environment=None, errors=None):
        self.command = command
        self.process = subprocess.Popen(
            command, env=environment, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=errors, bufsize=0
        )
        self.buffer = b""

    def __enter__(self):
        return self

    def __exit__(self, *_):
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
            try:
                self.process.wait(10)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait()
        self.process.stdin.close()
        self.process.stdout.close()

    @property
    def pid(self):
        return self.process.pid

    def line(self):
        deadline = time.monotonic() + LIMIT_SECONDS
        while b"\n" not in self.buffer:
            ready, _, _ = select.select([self.process.stdout], [], [], max(0.0, deadline - time.monotonic()))
            chunk = os.read(self.process.stdout.fileno(), 65536) if ready else b""
            if not chunk:
                raise Failure(f"{' '.join(map(str, self.command))}: {'ended' if ready else 'no answer'}")
            self.buffer += chunk
        line, self.buffer = self.buffer.split(b"\n", 1)
        return line.decode()

    def go(self):
        self.process.stdin.write(b"\n")


class LogDaemon:
    """Reads what is logged, and counts it."""

    def __init__(self, path):
        self.path = path
        self.lines = 0
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.socket.bind(path)
        self.socket.settimeout(0.2)
        self.stop = False
        self.thread = threading.Thread(target=self.read, daemon=True)
        self.thread.start()

    def read(self):
        while not self.stop:
            try:
                self.socket.recv(4096)
                self.lines += 1
            except socket.timeout:
                pass

    def close(self):
        self.stop = True
        self.thread.join()
        self.socket.close()


def start_bus(folder):
    configuration = folder / "bus.conf"
    configuration.write_text(BUS_CONFIGURATION)
    command = ["dbus-daemon", "--nofork", "--nopidfile", f"--config-file={configuration}", "--print-address=1"]
    bus = Process(command, errors=subprocess.DEVNULL)
    try:
        return bus, bus.line()
    except Failure:
        bus.__exit__()
        raise


class Scene:
    """A bus, a server on it, and as many clients as are wanted. All end at the latest when it goes out of scope."""

    def __init__(self, build, contender, server_prefix=()):
        program, variant, _ = CONTENDERS[contender]
        self.command = [str(build / program), variant]
        self.server_prefix = list(server_prefix)

    def __enter__(self):
        with contextlib.ExitStack() as parts:
            folder = Path(parts.enter_context(tempfile.TemporaryDirectory()))
            log = parts.enter_context(contextlib.closing(LogDaemon(str(folder / "log"))))
            self.bus, address = start_bus(folder)
            parts.enter_context(self.bus)
            self.environment = {**os.environ, "DBUS_SYSTEM_BUS_ADDRESS": address, "BENCH_LOG_SOCKET": log.path}
            command = self.server_prefix + self.command + ["server", "org.example.bench"]
            self.server = parts.enter_context(Process(command, self.environment))
            self.server.line()
            self.parts = parts.pop_all()
        return self

    def __exit__(self, *_):
        self.parts.close()

    def client(self, operation, count, objects=0, prefix=()):
        """A client that connects, makes its objects and says a line then. It measures when it is told to go."""
        pids = f"server={self.server.pid},bus={self.bus.pid}"
        arguments = ["client", "org.example.bench", operation, str(count), pids, str(objects)]
        return self.parts.enter_context(Process(list(prefix) + self.command + arguments, self.environment))


def measure(build, contender, operation, count, clients=1, objects=0, bystanders=0):
    """One measurement: a dictionary of figures, each time in microseconds and for one operation."""
    with Scene(build, contender) as scene:
        idle = [scene.client("int", 1) for _ in range(bystanders)]
        running = [scene.client(operation, count, objects) for _ in range(clients)]
        for client in idle + running:
            client.line()
        for client in running:
            client.go()
        return combined([json.loads(client.line()) for client in running])


def combined(reports):
    """The figures of clients that ran at the same time."""
    operations = sum(report["operations"] for report in reports)
    seconds = (max(r["end"] for r in reports) - min(r["begin"] for r in reports)) / 1e6
    figures = {"operations": operations, "per_second": operations / seconds}
    for key in reports[0]:
        if key not in ("operations", "begin", "end"):
            figures[key] = statistics.median(report[key] for report in reports)
    if len(reports) > 1:
        # Each client has seen what server and bus did for all of them, over a time of its own.
        for key in list(figures):
            if key.startswith(("server_", "bus_")) and not key.endswith("_kib"):
                figures[key] /= len(reports)
    return figures
