#!/usr/bin/env python3
"""Counts what a call costs each side in system calls and allocations, which tell more than times do.

usage: costs.py BUILD [--calls N] [--contenders A,B]

BUILD has the programs bench_*. `perf stat` counts the system calls (the kernel must let it: root, or a low enough
kernel.perf_event_paranoid), and valgrind the allocations. Client and server run twice, the second time with N further
calls (echo of an int): the difference is what those have cost.
"""

import argparse
import os
import re
import signal
import sys
import tempfile
from pathlib import Path

from scene import CONTENDERS, Failure, Scene

# What a call may consist of; there are others in the total.
NAMED = ("sendmsg", "recvmsg", "poll", "epoll_wait", "epoll_ctl", "futex", "gettid")
TOTAL = "raw_syscalls:sys_enter"


def perf(file):
    events = ",".join([TOTAL, *(f"syscalls:sys_enter_{name}" for name in NAMED)])
    return ["perf", "stat", "-x", ",", "-o", file, "-e", events, "--"]


def read_perf(text):
    counts = {}
    for line in text.splitlines():
        fields = line.split(",")
        if len(fields) > 2 and fields[0].isdigit():
            counts[fields[2].replace("syscalls:sys_enter_", "")] = int(fields[0])
    return counts


def valgrind(file):
    return ["valgrind", "--fair-sched=try", "--undef-value-errors=no", "--leak-check=no", f"--log-file={file}"]


def read_valgrind(text):
    usage = re.findall(r"total heap usage: ([\d,]+) allocs, [\d,]+ frees, ([\d,]+) bytes", text)
    if not usage:
        return {}
    allocations, size = (int(number.replace(",", "")) for number in usage[-1])
    return {"allocations": allocations, "bytes": size}


def program_of(process):
    """perf starts the program as a child of its own and leaves signals to it; valgrind becomes the program."""
    children = Path(f"/proc/{process.pid}/task/{process.pid}/children").read_text().split()
    return int(children[0]) if children else process.pid


def counted(build, contender, calls, tool, read):
    """What client and server have counted from their start to their end, and how many calls that were."""
    with tempfile.TemporaryDirectory() as folder:
        files = {side: str(Path(folder) / side) for side in ("client", "server")}
        with Scene(build, contender, server_prefix=tool(files["server"])) as scene:
            client = scene.client("int", calls, prefix=tool(files["client"]))
            client.line()
            client.go()
            client.line()
            client.go()
            client.process.wait(60)
            os.kill(program_of(scene.server), signal.SIGTERM)
            scene.server.process.wait(60)
        counts = {side: read(Path(file).read_text(encoding="utf-8")) for side, file in files.items()}
    for side, figures in counts.items():
        if not figures:
            raise Failure(f"{tool(side)[0]} has counted nothing")
    return counts, calls + max(3, calls // 20)  # a client warms up before it measures


def for_each_call(build, contender, calls, tool, read):
    few, few_calls = counted(build, contender, calls, tool, read)
    many, many_calls = counted(build, contender, 2 * calls, tool, read)
    return {
        side: {key: (many[side][key] - few[side][key]) / (many_calls - few_calls) for key in many[side]}
        for side in many
    }


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("build", type=lambda p: Path(p).resolve())
    parser.add_argument("--calls", type=int, default=2000)
    parser.add_argument("--contenders", type=lambda s: s.split(","), default=["nelo", "nelo-plain", "raw"])
    arguments = parser.parse_args()

    print("| | side | system calls | " + " | ".join(NAMED) + " | allocations | bytes allocated |")
    print("|---" * (len(NAMED) + 5) + "|")
    for contender in arguments.contenders:
        kernel = for_each_call(arguments.build, contender, arguments.calls, perf, read_perf)
        heap = for_each_call(arguments.build, contender, arguments.calls, valgrind, read_valgrind)
        for side in ("client", "server"):
            cells = [f"{kernel[side][name]:.2f}" for name in (TOTAL, *NAMED)]
            cells += [f"{heap[side]['allocations']:.1f}", f"{heap[side]['bytes']:,.0f}"]
            print(f"| {contender} | {side} | " + " | ".join(cells) + " |", flush=True)


if __name__ == "__main__":
    try:
        main()
    except (Failure, FileNotFoundError) as failure:
        sys.exit(f"costs.py: {failure}")
