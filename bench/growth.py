"""What calls, memory and the end of objects cost as objects and clients become more."""

import json
import statistics
import time
from pathlib import Path

from scene import LIMIT_SECONDS, Failure, Scene, measure

CONTENDER = "nelo"
CALLS = 4000

# What there is beside the object that is called and its client.
OBJECTS = (1, 100, 10000, 100000)
CLIENTS = (1, 10, 100, 200)
DESTROYED = (1000, 10000, 100000)

# One round makes some 300,000 objects.
MOST_ROUNDS = 3


def threads_of(process):
    return sum(1 for _ in Path(f"/proc/{process.pid}/task").iterdir())


def departure(build, objects):
    """How long it takes until a client that was killed has gone, and the server has destroyed what it had made."""
    with Scene(build, CONTENDER) as scene:
        before = threads_of(scene.server)
        client = scene.client("int", 1, objects)
        client.line()
        if threads_of(scene.server) != before + 1:
            raise Failure("the server has no worker thread for its client")
        begin = time.monotonic()
        client.process.kill()
        while threads_of(scene.server) > before:  # the worker ends when it has destroyed the objects
            if time.monotonic() > begin + LIMIT_SECONDS:
                raise Failure("the server still has the objects of a client that has gone")
            time.sleep(0.0005)
        return {"departure_us": (time.monotonic() - begin) * 1e6}


def growth_figures(build, scale, rounds, out):
    """figures[what][count] are medians; each measurement is a line of `out`."""
    calls = max(3, int(CALLS * scale))
    measurements = {
        "objects": (OBJECTS, lambda n: measure(build, CONTENDER, "int", calls, objects=n)),
        "clients": (CLIENTS, lambda n: measure(build, CONTENDER, "int", calls, bystanders=n)),
        "destroyed": (DESTROYED, lambda n: measure(build, CONTENDER, "depopulate", n, objects=n)),
        "left behind": (DESTROYED, lambda n: departure(build, n)),
    }
    samples = {}
    for number in range(min(rounds, MOST_ROUNDS)):
        for what, (counts, measured) in measurements.items():
            for count in sorted({max(2 if count > 1 else 1, int(count * min(1.0, scale))) for count in counts}):
                figures = measured(count)
                out.write(json.dumps({"round": number, "growth": what, "count": count, **figures}) + "\n")
                out.flush()
                samples.setdefault(what, {}).setdefault(count, []).append(figures)
    return {
        what: {
            count: {key: statistics.median(f[key] for f in figures) for key in figures[0]}
            for count, figures in by_count.items()
        }
        for what, by_count in samples.items()
    }


def call_table(by_count, things):
    """The last columns are what each of the things has added to the memory, compared with the least of them."""
    keys = ("p50_us", "p99_us", "server_cpu_us", "client_rss_kib", "server_rss_kib", "bus_rss_kib")
    lines = [
        f"| {things} beside | p50 µs | p99 µs | CPU server µs | memory client KiB | server | bus "
        f"| server's bytes for each | bus's |",
        "|---|---|---|---|---|---|---|---|---|",
    ]
    least = min(by_count)
    for count, figures in by_count.items():
        cells = [f"{count:,}"]
        cells += [f"{figures[key]:,.1f}" for key in keys[:3]]
        cells += [f"{figures[key]:,.0f}" for key in keys[3:]]
        for key in ("server_rss_kib", "bus_rss_kib"):
            added = (figures[key] - by_count[least][key]) * 1024
            cells.append(f"{added / (count - least):,.0f}" if count > least else "")
        lines.append("| " + " | ".join(cells) + " |")
    return lines


def end_table(destroyed, left):
    lines = ["| objects | by their proxies, µs each | with their client, ms | µs each |", "|---|---|---|---|"]
    for count, figures in destroyed.items():
        departure_us = left[count]["departure_us"]
        lines.append(
            f"| {count:,} | {figures['p50_us']:.1f} | {departure_us / 1000:,.1f} | {departure_us / count:.2f} |"
        )
    return lines


def growth_tables(growth):
    return [
        *("### Cost of a call beside other objects", "", *call_table(growth["objects"], "objects"), ""),
        *("### Cost of a call beside other clients", "", *call_table(growth["clients"], "clients"), ""),
        *("### Objects destroyed", "", *end_table(growth["destroyed"], growth["left behind"]), ""),
    ]
