#!/usr/bin/env python3
"""Holds the tests that ran on Windows (or Wine) against the tests of the Linux build.

    tools/compare_tests.py --linux LIST.json --windows RESULTS.xml [--differences FILE]

LIST is the output of `ctest --show-only=json-v1`, RESULTS the file of `ctest --output-junit`. Prints what was skipped,
with the reason that the test gave. Fails if the two sets differ or a test was skipped without a line in the file of
differences, and if a line there fits no test: each is "linux", "windows" or "skipped", a pattern as in a shell, and
after a bar the reason.
"""

import argparse
import fnmatch
import json
import pathlib
import re
import sys
import xml.etree.ElementTree

REASON = re.compile(r"^[^\n]*: Skipped\s*\n([^\n]*)", re.MULTILINE)


def read_differences(file):
    """The patterns by kind. Brackets in them stand for themselves: names of tests have some."""
    patterns = {"linux": [], "windows": [], "skipped": []}
    for line in file.read_text(encoding="utf-8").splitlines():
        if not line.strip() or line.startswith("#"):
            continue
        rule, bar, reason = line.partition("|")
        kind, pattern = rule.split()
        if not bar or not reason.strip():
            sys.exit(f"compare_tests: without a reason: {line}")
        patterns[kind].append(pattern)
    return patterns


def read_linux(file):
    return {test["name"] for test in json.loads(file.read_text(encoding="utf-8"))["tests"]}


def read_windows(file):
    """All names, and the reasons of those that were skipped."""
    names, skipped = set(), {}
    for case in xml.etree.ElementTree.parse(file).getroot().iter("testcase"):
        names.add(case.get("name"))
        if case.find("skipped") is not None:
            reason = REASON.search(case.findtext("system-out") or "")
            skipped[case.get("name")] = reason.group(1).strip() if reason else "no reason given"
    return names, skipped


def complaints(names, patterns, what, kind):
    """The names that no pattern covers, and the patterns that cover no name."""
    for name in sorted(names):
        if not any(fnmatch.fnmatchcase(name, pattern) for pattern in patterns):
            yield f"{what}: {name}"
    for pattern in patterns:
        if not fnmatch.filter(names, pattern):
            yield f"fits no test: {kind} {pattern}"


def main():
    default = pathlib.Path(__file__).parent.parent / "tests" / "differences.txt"
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--linux", type=pathlib.Path, required=True)
    parser.add_argument("--windows", type=pathlib.Path, required=True)
    parser.add_argument("--differences", type=pathlib.Path, default=default)
    arguments = parser.parse_args()

    patterns = read_differences(arguments.differences)
    linux = read_linux(arguments.linux)
    windows, skipped = read_windows(arguments.windows)
    problems = [
        *complaints(linux - windows, patterns["linux"], "only on Linux", "linux"),
        *complaints(windows - linux, patterns["windows"], "only on Windows", "windows"),
        *complaints(skipped.keys(), patterns["skipped"], "skipped", "skipped"),
    ]

    print(f"\n{len(windows)} tests on Windows, {len(linux)} on Linux, {len(linux & windows)} of them the same.")
    print(f"{len(skipped)} skipped on Windows:")
    for name, reason in sorted(skipped.items()):
        print(f"  {name}: {reason}")
    if problems:
        print("\nNot named in the list of differences, or named there in vain:")
        for problem in problems:
            print(f"  {problem}")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
