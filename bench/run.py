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
import statistics
import subprocess
import sys
import time
from pathlib import Path

from growth import growth_figures, growth_tables
from scene import CONTENDERS, Failure, Scene, measure

BASELINE = "raw"

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

def measure_workload(build, contender, workload, scale):
    operation, count, clients, _ = WORKLOADS[workload]
    return measure(build, contender, operation, max(3, int(count * scale)), clients)


def idle_figures(build, contender, seconds):
    """What a server does that nobody calls: wake-ups a second, CPU and memory."""
    with Scene(build, contender) as scene:
        time.sleep(1)
        before = process_cost(scene.server.pid)
        time.sleep(seconds)
        after = process_cost(scene.server.pid)
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
                    figures = measure_workload(arguments.build, contender, workload, arguments.scale)
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
        lines += growth_tables(growth)
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


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("build", type=lambda p: Path(p).resolve())
    parser.add_argument("--output", type=Path, default=Path("."))
    parser.add_argument("--rounds", type=int, default=7)
    parser.add_argument("--scale", type=float, default=1.0, help="how many operations, relative to the usual number")
    parser.add_argument("--contenders", type=lambda s: s.split(","), default=list(CONTENDERS))
    parser.add_argument("--workloads", type=lambda s: s.split(","), default=list(WORKLOADS))
    parser.add_argument("--idle", type=float, default=0, metavar="SECONDS", help="also look at idle servers")
    parser.add_argument("--growth", action="store_true", help="also measure with many objects and many clients, three rounds at most")
    arguments = parser.parse_args()

    contenders = [c for c in arguments.contenders if (arguments.build / CONTENDERS[c][0]).exists()]
    for contender in arguments.contenders:
        if contender not in contenders:
            print(f"{contender}: not built, left out", file=sys.stderr)
    arguments.output.mkdir(parents=True, exist_ok=True)
    with open(arguments.output / "results.jsonl", "w", encoding="utf-8") as out:
        results, failures = run_rounds(arguments, contenders, out)
        growth = {}
        if arguments.growth:
            try:
                growth = growth_figures(arguments.build, arguments.scale, arguments.rounds, out)
            except Failure as failure:
                failures += 1
                print(f"growth: {failure}", file=sys.stderr)
    idle = {}
    if arguments.idle > 0:
        servers = [c for c in contenders if c not in ("nelo-plain", "nelo-logged", "raw-unasked")]
        idle = {c: idle_figures(arguments.build, c, arguments.idle) for c in servers}
    text = report(results, idle, growth, contenders, arguments)
    (arguments.output / "results.md").write_text(text, encoding="utf-8")
    (arguments.output / "results.svg").write_text(plot(results, contenders, arguments.workloads), encoding="utf-8")
    print(text)
    sys.exit(1 if failures else 0)


if __name__ == "__main__":
    main()
