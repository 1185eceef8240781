#!/usr/bin/env python3
"""What one POST costs in each process: instructions in user space, allocations, and system calls by name.

    path.py PROGRAMS [--check | --accept]

PROGRAMS is the folder of path_client, path_server and liballocation_count.so. Each figure is the difference between a
long and a short run, divided by the exchanges that the long run has more: what a start and an end cost cancels out.
Both processes run on one core, where a reader always waits for its peer, and without trying before waiting
(QVTP_SPIN=0): so the figures do not depend on what else the machine does.

--check   exits with 1 if instructions or allocations exceed limits.json by more than SLACK
--accept  writes the figures into limits.json
"""

import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile

SIZES = (64, 4096)
SIDES = ("client", "server")
SLACK = 0.05
SHORT = 200
MORE = {"instructions": 1000, "allocations": 1000, "calls": 500}
LIMITS = pathlib.Path(__file__).parent / "limits.json"
TIMEOUT_S = 120


class Lab:
    """Runs both programs, each under a tool, and reads what the tool has written."""

    def __init__(self, programs, scratch):
        self.programs = programs
        self.scratch = scratch
        self.core = min(os.sched_getaffinity(0))
        self.runs = 0

    def run(self, tool, size, rounds):
        """The tool's figures of the client and of the server, in a run of so many exchanges."""
        self.runs += 1
        pipe = f"qvtp-path-{os.getpid()}-{self.runs}"
        outputs = {side: self.scratch / f"{side}.{self.runs}" for side in SIDES}
        server = self.start(tool, outputs["server"], ["path_server", pipe])
        try:
            if server.stdout.readline() != b"ready\n":
                raise SystemExit("path: the server does not start")
            client = self.start(tool, outputs["client"], ["path_client", pipe, str(rounds), str(size)])
            client.communicate(timeout=TIMEOUT_S)
            server.communicate(timeout=TIMEOUT_S)
        finally:
            server.kill()
        if client.returncode != 0 or server.returncode != 0:
            raise SystemExit(f"path: the client ended with {client.returncode}, the server with {server.returncode}")
        return {side: tool.read(outputs[side]) for side in SIDES}

    def start(self, tool, output, command):
        environment = {**os.environ, "QVTP_SPIN": "0", "QVTP_PIPE_DIR": str(self.scratch), **tool.environment(output)}
        command = ["taskset", "-c", str(self.core), *tool.prefix(output), str(self.programs / command[0]), *command[1:]]
        return subprocess.Popen(command, env=environment, stdin=subprocess.PIPE, stdout=subprocess.PIPE)


class Callgrind:
    @staticmethod
    def prefix(output):
        return ["valgrind", "-q", "--tool=callgrind", f"--callgrind-out-file={output}"]

    @staticmethod
    def environment(_):
        return {}

    @staticmethod
    def read(output):
        return {"instructions": int(re.search(r"^(?:totals|summary): (\d+)", output.read_text(), re.M).group(1))}


class AllocationCount:
    def __init__(self, programs):
        self.library = programs / "liballocation_count.so"

    @staticmethod
    def prefix(_):
        return []

    def environment(self, output):
        return {"LD_PRELOAD": str(self.library), "ALLOCATION_COUNT_FILE": str(output)}

    @staticmethod
    def read(output):
        return {"allocations": int(output.read_text())}


class Strace:
    @staticmethod
    def prefix(output):
        return ["strace", "-f", "-c", "-U", "calls,name", "-o", str(output)]

    @staticmethod
    def environment(_):
        return {}

    @staticmethod
    def read(output):
        rows = re.findall(r"^ *(\d+) +(\w+)$", output.read_text(), re.M)
        return {name: int(calls) for calls, name in rows if name != "total"}


def per_exchange(lab, tool, size, more):
    short = lab.run(tool, size, SHORT)
    long = lab.run(tool, size, SHORT + more)
    return {side: {name: (long[side][name] - short[side].get(name, 0)) / more for name in long[side]} for side in SIDES}


def measure(programs):
    with tempfile.TemporaryDirectory() as scratch:
        lab = Lab(programs, pathlib.Path(scratch))
        tools = {"instructions": Callgrind(), "allocations": AllocationCount(programs), "calls": Strace()}
        return {size: {kind: per_exchange(lab, tool, size, MORE[kind]) for kind, tool in tools.items()}
                for size in SIZES}


def show(figures):
    for size, kinds in figures.items():
        print(f"POST of {size} bytes, answered with the same body")
        for side in SIDES:
            instructions = kinds["instructions"][side]["instructions"]
            allocations = kinds["allocations"][side]["allocations"]
            calls = {name: count for name, count in kinds["calls"][side].items() if count >= 0.05}
            named = ", ".join(f"{name} {count:.1f}" for name, count in sorted(calls.items(), key=lambda call: -call[1]))
            print(f"  {side}: {instructions:8,.0f} instructions, {allocations:5.1f} allocations, "
                  f"{sum(calls.values()):.1f} system calls: {named}")


def limited(figures):
    """The figures that have limits, by the names that limits.json gives them."""
    return {f"{size} bytes, {side}, {kind}": kinds[kind][side][kind]
            for size, kinds in figures.items() for side in SIDES for kind in ("instructions", "allocations")}


def check(figures):
    exceeded = 0
    limits = json.loads(LIMITS.read_text())
    for name, figure in limited(figures).items():
        limit = limits[name] * (1 + SLACK)
        if figure > limit:
            exceeded += 1
            print(f"TOO MUCH: {name}: {figure:,.1f}, accepted {limits[name]:,.1f} and {SLACK:.0%} more")
    print(f"{len(limits)} limits, {exceeded} exceeded")
    return 1 if exceeded else 0


def main():
    figures = measure(pathlib.Path(sys.argv[1]).resolve())
    show(figures)
    if "--accept" in sys.argv:
        accepted = {name: round(figure, 1) for name, figure in limited(figures).items()}
        LIMITS.write_text(json.dumps(accepted, indent=2) + "\n")
    return check(figures) if "--check" in sys.argv else 0


if __name__ == "__main__":
    sys.exit(main())
