#!/usr/bin/env python3
"""Compares the library with other ways to make the same calls, and writes what it measured.

usage: run.py BUILD [--output DIR] [--rounds N] [--scale F] [--contenders A,B] [--workloads A,B]

BUILD has the programs bench_*. Every measurement has a bus, a server and clients of its own. In each round every
contender measures every workload once, and the order changes from round to round, so that what else the machine does
meets all of them alike. A figure is the median of its rounds, a ratio the median of the rounds' ratios.

Writes DIR/results.md (tables), DIR/results.jsonl (a line for each measurement) and DIR/results.svg (a plot).
"""

import argparse
import json
import os
import platform
import select
import signal
import socket
import statistics
import subprocess
import sys
import tempfile
import threading
import time
from pathlib import Path

LIMIT_SECONDS = 180
BASELINE = "raw"

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

# Name -> (workload of the program, operations, client processes, what it is).
WORKLOADS = {
    "int": ("int", 4000, 1, "echo of an int"),
    "text-1k": ("text-1k", 4000, 1, "echo of 1 KiB of text"),
    "bytes-64k": ("bytes-64k", 600, 1, "echo of 64 KiB"),
    "bytes-1m": ("bytes-1m", 40, 1, "echo of 1 MiB"),
    "clients-8": ("int", 1000, 8, "8 clients, echo of an int"),
    "callbacks": ("callbacks", 50000, 1, "callbacks to one client"),
    "in-flight-64": ("in-flight", 20000, 1, "echo of an int, 64 calls in flight"),
    "objects": ("objects", 1500, 1, "an object made and destroyed"),
}

# Not every contender has objects, and some would measure what another one of theirs has measured.
ONLY = {
    "nelo-plain": {"int", "text-1k", "bytes-64k", "bytes-1m", "clients-8", "objects"},
    "raw-worker": {"int", "text-1k", "bytes-64k", "bytes-1m", "clients-8", "in-flight-64"},
    "raw-unasked": {"callbacks"},
}
WITH_OBJECTS = {"nelo", "nelo-plain", "nelo-logged"}

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


def measure(build, contender, workload, scale, objects=0, bystanders=0):
    """One measurement: a dictionary of figures, each time in microseconds and for one operation."""
    program, variant, _ = CONTENDERS[contender]
    operation, count, clients, _ = WORKLOADS[workload]
    command = [str(build / program), variant]
    count = max(3, int(count * scale))
    with tempfile.TemporaryDirectory() as name:
        folder = Path(name)
        log = LogDaemon(str(folder / "log"))
        bus, address = start_bus(folder)
        try:
            environment = {**os.environ, "DBUS_SYSTEM_BUS_ADDRESS": address, "BENCH_LOG_SOCKET": log.path}
            with bus, Process(command + ["server", "org.example.bench"], environment) as server:
                server.line()
                pids = f"server={server.pid},bus={bus.pid}"
                idle = [
                    Process(command + ["client", "org.example.bench", "int", "1"], environment)
                    for _ in range(bystanders)
                ]
                running = [
                    Process(
                        command + ["client", "org.example.bench", operation, str(count), pids, str(objects)],
                        environment,
                    )
                    for _ in range(clients)
                ]
                try:
                    for client in idle + running:
                        client.line()
                    for client in running:
                        client.go()
                    return combined([json.loads(client.line()) for client in running])
                finally:
                    for client in running + idle:
                        client.__exit__()
        finally:
            log.close()


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


def idle_figures(build, contender, seconds):
    """What a server does that nobody calls: wake-ups a second, CPU and memory."""
    program, variant, _ = CONTENDERS[contender]
    with tempfile.TemporaryDirectory() as name:
        bus, address = start_bus(Path(name))
        environment = {**os.environ, "DBUS_SYSTEM_BUS_ADDRESS": address}
        with bus, Process([str(build / program), variant, "server", "org.example.bench"], environment) as server:
            server.line()
            time.sleep(1)
            before = process_cost(server.pid)
            time.sleep(seconds)
            after = process_cost(server.pid)
            return {
                "wakeups_per_second": (after["switches"] - before["switches"]) / seconds,
                "cpu_us_per_second": (after["cpu_us"] - before["cpu_us"]) / seconds,
                "rss_kib": after["rss_kib"],
            }


def process_cost(pid):
    switches, cpu = 0, 0.0
    for task in Path(f"/proc/{pid}/task").iterdir():
        cpu += int((task / "schedstat").read_text().split()[0]) / 1000
        switches += sum(
            int(line.split()[1]) for line in (task / "status").read_text().splitlines() if "ctxt_switches" in line
        )
    status = Path(f"/proc/{pid}/status").read_text().splitlines()
    rss = next(int(line.split()[1]) for line in status if line.startswith("VmRSS"))
    return {"switches": switches, "cpu_us": cpu, "rss_kib": rss}


def takes_part(contender, workload):
    if workload == "objects" and contender not in WITH_OBJECTS:
        return False
    return workload in ONLY.get(contender, WORKLOADS)


class Progress:
    def __init__(self, total):
        self.total = total
        self.done = 0
        self.begin = time.monotonic()
        self.is_terminal = sys.stderr.isatty()

    def step(self, what):
        self.done += 1
        elapsed = time.monotonic() - self.begin
        left = elapsed / self.done * (self.total - self.done)
        text = f"{self.done}/{self.total}  {what}  (about {left:.0f} s left)"
        if self.is_terminal:
            print(f"\r\033[K{text}", end="\n" if self.done == self.total else "", file=sys.stderr, flush=True)
        elif self.done == self.total or self.done % 20 == 0:
            print(text, file=sys.stderr, flush=True)


def run_rounds(arguments, contenders, out):
    """results[workload][contender] is a list of figures, one for each round that succeeded, by round."""
    results = {workload: {contender: {} for contender in contenders} for workload in arguments.workloads}
    pairs = [(w, c) for w in arguments.workloads for c in contenders if takes_part(c, w)]
    progress = Progress(arguments.rounds * len(pairs))
    failures = 0
    for number in range(arguments.rounds):
        for workload in arguments.workloads:
            order = [c for w, c in pairs if w == workload]
            shift = number % max(1, len(order))
            for contender in order[shift:] + order[:shift]:
                try:
                    figures = measure(arguments.build, contender, workload, arguments.scale)
                    results[workload][contender][number] = figures
                    record = {"round": number, "workload": workload, "contender": contender, **figures}
                    out.write(json.dumps(record) + "\n")
                    out.flush()
                except Failure as failure:
                    failures += 1
                    print(f"\n{contender} {workload}: {failure}", file=sys.stderr)
                progress.step(f"{workload} {contender}")
    return results, failures


def median_of(figures, key):
    return statistics.median(f[key] for f in figures.values())


def ratio(figures, baseline):
    """The median of the rounds' ratios, or None without a common round."""
    both = [figures[r]["per_second"] / baseline[r]["per_second"] for r in figures if r in baseline]
    return statistics.median(both) if both else None


def ratio_table(results, contenders, workloads):
    lines = ["| | " + " | ".join(workloads) + " |", "|---|" + "---|" * len(workloads)]
    for contender in contenders:
        cells = []
        for workload in workloads:
            value = ratio(results[workload].get(contender, {}), results[workload].get(BASELINE, {}))
            cells.append("" if value is None else f"{value:.2f}")
        lines.append(f"| {contender} | " + " | ".join(cells) + " |")
    return lines


def workload_table(results, contenders, workload):
    lines = [
        "| | per second | p50 µs | p99 µs | CPU client µs | CPU server µs | CPU bus µs | switches client | server | bus |",
        "|---|---|---|---|---|---|---|---|---|---|",
    ]
    for contender in contenders:
        figures = results[workload].get(contender)
        if not figures:
            continue
        keys = ("p50_us", "p99_us", "client_cpu_us", "server_cpu_us", "bus_cpu_us")
        cells = [f"{median_of(figures, 'per_second'):,.0f}"]
        cells += [f"{median_of(figures, key):.1f}" for key in keys]
        cells += [f"{median_of(figures, f'{who}_switches'):.2f}" for who in ("client", "server", "bus")]
        lines.append(f"| {contender} | " + " | ".join(cells) + " |")
    return lines


def idle_table(idle):
    lines = ["| | wake-ups a second | CPU µs a second | memory KiB |", "|---|---|---|---|"]
    for contender, figures in idle.items():
        lines.append(
            f"| {contender} | {figures['wakeups_per_second']:.1f} | {figures['cpu_us_per_second']:.0f} | "
            f"{figures['rss_kib']} |"
        )
    return lines


def growth_table(growth):
    lines = ["| | p50 µs | server memory KiB |", "|---|---|---|"]
    for what, figures in growth.items():
        lines.append(f"| {what} | {figures['p50_us']:.1f} | {figures['server_rss_kib']:.0f} |")
    return lines


def machine():
    model = next(
        (l.split(":")[1].strip() for l in Path("/proc/cpuinfo").read_text().splitlines() if l.startswith("model name")),
        platform.machine(),
    )
    version = subprocess.run(["dbus-daemon", "--version"], capture_output=True, text=True, check=False).stdout
    return f"{os.cpu_count()} × {model}, Linux {platform.release()}, {version.splitlines()[0] if version else ''}"


def report(results, idle, growth, contenders, arguments):
    lines = [
        f"{machine()}; {arguments.rounds} interleaved rounds, medians; log threshold Info unless said otherwise.",
        "",
        f"Calls or callbacks a second, as ratios to `{BASELINE}` in the same round:",
        "",
        *ratio_table(results, contenders, arguments.workloads),
        "",
        *(f"- `{contender}`: {CONTENDERS[contender][2]}" for contender in contenders),
        "",
    ]
    for workload in arguments.workloads:
        lines += [f"### {workload}: {WORKLOADS[workload][3]}", "", *workload_table(results, contenders, workload), ""]
    if growth:
        lines += ["### Cost of a call as work grows", "", *growth_table(growth), ""]
    if idle:
        lines += ["### An idle server", "", *idle_table(idle), ""]
    return "\n".join(lines)


def plot(results, contenders, workloads):
    """Ratios as horizontal bars, in groups by workload."""
    bar, gap, left, width = 14, 18, 190, 460
    colours = ["#1f6f8b", "#5fa8bd", "#a9cfd9", "#555555", "#888888", "#b0b0b0", "#c98b3a", "#a35c8f", "#7a9a4a"]
    groups = []
    for workload in workloads:
        values = [(c, ratio(results[workload].get(c, {}), results[workload].get(BASELINE, {}))) for c in contenders]
        groups.append((workload, [(c, v) for c, v in values if v is not None]))
    largest = max([v for _, values in groups for _, v in values] + [1.0])
    parts, y = [], 30
    for workload, values in groups:
        if not values:
            continue
        parts.append(f'<text x="8" y="{y + 11}" font-weight="bold">{workload}</text>')
        for contender, value in values:
            colour = colours[list(CONTENDERS).index(contender) % len(colours)]
            length = value / largest * width
            parts.append(f'<text x="{left - 8}" y="{y + 11}" text-anchor="end">{contender}</text>')
            parts.append(f'<rect x="{left}" y="{y}" width="{length:.1f}" height="{bar - 2}" fill="{colour}"/>')
            parts.append(f'<text x="{left + length + 5:.1f}" y="{y + 11}">{value:.2f}</text>')
            y += bar
        y += gap
    one = left + width / largest
    parts.append(f'<line x1="{one:.1f}" y1="22" x2="{one:.1f}" y2="{y - gap}" stroke="#000" stroke-dasharray="3,3"/>')
    title = f"Operations a second, relative to {BASELINE} (more is better)"
    return (
        f'<svg xmlns="http://www.w3.org/2000/svg" width="{left + width + 60}" height="{y}" '
        f'font-family="sans-serif" font-size="11">\n<rect width="100%" height="100%" fill="#fff"/>\n'
        f'<text x="8" y="16" font-size="13">{title}</text>\n' + "\n".join(parts) + "\n</svg>\n"
    )


def growth_figures(arguments):
    """What a call costs beside other objects and other clients."""
    growth = {}
    for objects in (1, 100, 10000, 100000):
        growth[f"{objects:,} more objects"] = measure(arguments.build, "nelo", "int", arguments.scale, objects=objects)
    for clients in (1, 10, 100, 200):
        growth[f"{clients} more clients"] = measure(arguments.build, "nelo", "int", arguments.scale, bystanders=clients)
    return growth


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("build", type=lambda p: Path(p).resolve())
    parser.add_argument("--output", type=Path, default=Path("."))
    parser.add_argument("--rounds", type=int, default=7)
    parser.add_argument("--scale", type=float, default=1.0, help="how many operations, relative to the usual number")
    parser.add_argument("--contenders", type=lambda s: s.split(","), default=list(CONTENDERS))
    parser.add_argument("--workloads", type=lambda s: s.split(","), default=list(WORKLOADS))
    parser.add_argument("--idle", type=float, default=0, metavar="SECONDS", help="also look at idle servers")
    parser.add_argument("--growth", action="store_true", help="also measure with many objects and many clients")
    arguments = parser.parse_args()

    contenders = [c for c in arguments.contenders if (arguments.build / CONTENDERS[c][0]).exists()]
    for contender in arguments.contenders:
        if contender not in contenders:
            print(f"{contender}: not built, left out", file=sys.stderr)
    arguments.output.mkdir(parents=True, exist_ok=True)
    with open(arguments.output / "results.jsonl", "w", encoding="utf-8") as out:
        results, failures = run_rounds(arguments, contenders, out)
    idle = {}
    if arguments.idle > 0:
        servers = [c for c in contenders if c not in ("nelo-plain", "nelo-logged", "raw-unasked")]
        idle = {c: idle_figures(arguments.build, c, arguments.idle) for c in servers}
    growth = growth_figures(arguments) if arguments.growth else {}
    text = report(results, idle, growth, contenders, arguments)
    (arguments.output / "results.md").write_text(text, encoding="utf-8")
    (arguments.output / "results.svg").write_text(plot(results, contenders, arguments.workloads), encoding="utf-8")
    print(text)
    sys.exit(1 if failures else 0)


main()
