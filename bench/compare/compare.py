#!/usr/bin/env python3
"""Measures libqvtp beside what people use instead.

    compare.py PROGRAMS RESULT [--seconds N] [--ms N] [--only CONTENDER,...] [--workloads NAME,...]

PROGRAMS is the folder of the contenders, RESULT the JSON file that is written. In each round every contender has a
short turn at every workload, with a new server process and a new client process. Rounds go on for --seconds. A turn
measures for --ms. What counts is the median, over the rounds, of the ratio to the bare socket of the same round.
"""

import argparse
import json
import os
import pathlib
import platform
import select
import statistics
import subprocess
import sys
import tempfile
import time

from charts import title_of

# Name, program, and the Debian package of which the version is noted.
CONTENDERS = (
    ("raw", "raw", None),
    ("qvtp", "qvtp", None),
    ("qvtp-64k", "qvtp", None),
    ("thrift-buffered", "thrift", "libthrift-dev"),
    ("thrift-framed", "thrift", "libthrift-dev"),
    ("beast", "beast", "libboost-dev"),
    ("httplib", "httplib", "libcpp-httplib-dev"),
    ("sd-bus", "sdbus", "libsystemd-dev"),
    ("zeromq", "zeromq", "libzmq3-dev"),
    ("nng", "nng", "libnng-dev"),
    ("capnproto", "capnproto", "libcapnp-dev"),
    ("grpc", "grpc", "libgrpc++-dev"),
)

KIB, MIB = 1 << 10, 1 << 20
# Name, workload of the harness, bytes of request and response, clients, and whether both processes share one core.
WORKLOADS = (
    ("64 B", "echo", 64, 64, 1, False),
    ("64 B @one", "echo", 64, 64, 1, True),
    ("4 KiB @one", "echo", 4 * KIB, 4 * KIB, 1, True),
    ("64 KiB @one", "echo", 64 * KIB, 64 * KIB, 1, True),
    ("1 MiB @one", "echo", MIB, MIB, 1, True),
    ("one-way @one", "oneway", 64, 64, 1, True),
    ("upload", "upload", MIB, 64, 1, False),
    ("8 clients", "clients", 64, 64, 8, False),
    ("64 clients", "clients", 64, 64, 64, False),
    ("connect @one", "connect", 64, 64, 1, True),
    ("client start", "once", 64, 64, 1, False),
)
# HTTP has no messages that are not answered.
IMPOSSIBLE = {("beast", "one-way @one"), ("httplib", "one-way @one")}

STARTS = 4
TIMEOUT_S = 30


class Failure(Exception):
    pass


class Process:
    def __init__(self, command, environment):
        self.process = subprocess.Popen(command, env=environment, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                        stderr=subprocess.PIPE, bufsize=0)

    def line(self):
        if not select.select([self.process.stdout], [], [], TIMEOUT_S)[0]:
            raise Failure("does not answer")
        line = self.process.stdout.readline()
        if not line:
            raise Failure(self.process.stderr.read().decode(errors="replace").strip() or "ended")
        return line.decode()

    def ask(self):
        self.process.stdin.write(b"\n")
        return json.loads(self.line())

    def end(self):
        self.process.stdin.close()
        try:
            self.process.wait(2)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
        self.process.stdout.close()
        self.process.stderr.close()


class Lab:
    def __init__(self, programs, scratch, ms):
        self.programs = programs
        self.scratch = scratch
        self.ms = ms
        self.turns = 0
        self.cores = os.sched_getaffinity(0)
        self.environment = {**os.environ, "QVTP_PIPE_DIR": str(scratch)}

    def turn(self, contender, workload):
        """One server and one client: what the client measured, for each request."""
        variant, program, _ = contender
        _, kind, request, response, clients, one_core = workload
        self.turns += 1
        path = self.programs / f"compare_{program}"
        arguments = [variant, str(self.scratch / f"t{self.turns}"), str(request), str(response), str(clients), kind]
        os.sched_setaffinity(0, {min(self.cores)} if one_core else self.cores)  # which children inherit
        server = Process([path, "server", *arguments], self.environment)
        try:
            server.line()
            if kind == "once":
                return self.starts([path, "client", *arguments])
            return self.measure(server, [path, "client", *arguments, str(self.ms)])
        finally:
            server.end()
            os.sched_setaffinity(0, self.cores)

    def measure(self, server, command):
        client = Process(command, self.environment)
        try:
            client.line()  # it is connected and warm
            before = server.ask()
            report = client.ask()
            after = server.ask()
        finally:
            client.end()
        requests = report["requests"]
        return {
            "us": report["seconds"] / requests * 1e6,
            "p50": report["p50"],
            "p99": report["p99"],
            "client_cpu": report["cpu"] / requests * 1e6,
            "server_cpu": (after["cpu"] - before["cpu"]) / requests * 1e6,
            "client_kib": report["memory"],
            "server_kib": after["memory"],
        }

    def starts(self, command):
        done = subprocess.run([self.programs / "launch", str(STARTS), *command], env=self.environment,
                              capture_output=True, timeout=TIMEOUT_S, check=False)
        if done.returncode != 0:
            raise Failure(done.stderr.decode(errors="replace").strip() or "ended")
        return {"us": statistics.median(float(line) for line in done.stdout.split())}


def rounds_of(lab, contenders, workloads, seconds):
    """All turns, as a list for each workload and contender, with one entry for each round."""
    turns = {workload[0]: {contender[0]: [] for contender in contenders} for workload in workloads}
    failures = set()
    start = time.monotonic()
    number = 0
    longest = 0.0
    while number < 3 or time.monotonic() - start + longest < seconds:
        began = time.monotonic()
        for workload in workloads:
            shift = number % len(contenders)
            for contender in contenders[shift:] + contenders[:shift]:
                key = (contender[0], workload[0])
                if key in IMPOSSIBLE or key in failures:
                    continue
                try:
                    turns[key[1]][key[0]].append(lab.turn(contender, workload))
                except (Failure, OSError, ValueError, subprocess.TimeoutExpired) as problem:
                    failures.add(key)
                    print(f"\n{key[0]} fails at {key[1]}: {problem}", file=sys.stderr)
        number += 1
        longest = max(longest, time.monotonic() - began)
        print(f"\r{number} rounds, {time.monotonic() - start:.0f} s ", end="", file=sys.stderr, flush=True)
    print(file=sys.stderr)
    return turns, failures, number


def summary_of(turns, failures):
    """Medians over the rounds. A ratio is that of one round, so its median is not the ratio of the medians."""
    summary = {}
    for workload, by_contender in turns.items():
        summary[workload] = {}
        for contender, own in by_contender.items():
            if not own or (contender, workload) in failures:
                continue
            figures = {name: statistics.median(turn[name] for turn in own) for name in own[0]}
            yardsticks = by_contender["raw"]
            figures["ratio"] = statistics.median(turn["us"] / raw["us"] for turn, raw in zip(own, yardsticks))
            summary[workload][contender] = {name: float(f"{value:.4g}") for name, value in figures.items()}
    return summary


def version_of(package):
    if package is None:
        return None
    command = ["dpkg-query", "-W", "-f", "${Version}", package]
    query = subprocess.run(command, capture_output=True, text=True, check=False)
    return query.stdout or None


def processor():
    for line in pathlib.Path("/proc/cpuinfo").read_text().splitlines():
        if line.startswith("model name"):
            return line.split(":", 1)[1].strip()
    return platform.machine()


def show(result):
    """The same on the terminal as on the page, and what the page leaves out."""
    print(f"{'times raw':16}" + "".join(f"{name:>14}" for name in result["summary"]))
    for contender in result["contenders"]:
        cells = [by.get(contender, {}).get("ratio") for by in result["summary"].values()]
        print(f"{contender:16}" + "".join(f"{'' if cell is None else format(cell, '.2f'):>14}" for cell in cells))
    first = next(iter(result["summary"]))
    columns = {"p50 us": ("p50", 1), "p99 us": ("p99", 1), "client CPU us": ("client_cpu", 1),
               "server CPU us": ("server_cpu", 1), "client MiB": ("client_kib", KIB), "server MiB": ("server_kib", KIB)}
    print(f"\n{first:16}" + "".join(f"{title:>14}" for title in columns))
    for contender, figures in result["summary"][first].items():
        cells = [figures[name] / unit for name, unit in columns.values() if name in figures]
        print(f"{contender:16}" + "".join(f"{cell:14.1f}" for cell in cells))
    for name, reason in result["left_out"].items():
        print(f"left out: {name}: {reason}")


def arguments_of():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("programs", type=pathlib.Path)
    parser.add_argument("result", type=pathlib.Path)
    parser.add_argument("--seconds", type=float, default=600)
    parser.add_argument("--ms", type=int, default=100)
    parser.add_argument("--only", help="contenders, with commas between; raw is always one of them")
    parser.add_argument("--workloads", help="workloads, with commas between")
    return parser.parse_args()


def main():
    arguments = arguments_of()
    programs = arguments.programs.resolve()
    chosen = [c for c in CONTENDERS if not arguments.only or c[0] in ["raw", *arguments.only.split(",")]]
    workloads = [w for w in WORKLOADS if not arguments.workloads or w[0] in arguments.workloads.split(",")]
    contenders = [c for c in chosen if (programs / f"compare_{c[1]}").exists()]
    left_out = {title_of(c[0]): "not installed or not built" for c in chosen if c not in contenders}
    with tempfile.TemporaryDirectory(prefix="qb-") as scratch:
        lab = Lab(programs, pathlib.Path(scratch), arguments.ms)
        turns, failures, rounds = rounds_of(lab, contenders, workloads, arguments.seconds)
    left_out.update({f"{title_of(contender)} at {workload}": "failed" for contender, workload in failures})
    result = {
        "date": time.strftime("%Y-%m-%d", time.gmtime()),
        "machine": f"{processor()}, {len(os.sched_getaffinity(0))} cores, Linux {platform.release().split('-')[0]}",
        "rounds": rounds,
        "ms": arguments.ms,
        "contenders": {c[0]: version_of(c[2]) for c in contenders},
        "left_out": left_out,
        "summary": summary_of(turns, failures),
    }
    show(result)
    arguments.result.write_text(json.dumps(result, indent=1) + "\n")
    arguments.result.with_suffix(".turns.json").write_text(json.dumps(turns) + "\n")
    return 1 if any(contender.startswith(("qvtp", "raw")) for contender, _ in failures) else 0


if __name__ == "__main__":
    sys.exit(main())
