#!/usr/bin/env python3
"""Holds the tests that ran on Windows (or Wine) against the tests of the Linux build.

    tools/compare_tests.py --linux LIST.json --windows RESULTS.xml

LIST is the output of `ctest --show-only=json-v1`, RESULTS the file of `ctest --output-junit`. Prints what was skipped,
with the reason that the test gave. Fails if the two sets differ or a test was skipped without a line in the file of
differences, or without a reason, and if a line there fits no test. Each line is a kind, a pattern as in a shell, and
after a bar the reason. The kinds: tests of "linux" alone, tests of "windows" alone, and tests that may be skipped on
"wine", but run on Windows.

It also fails if a test that docs/porting.md names for a difference of the systems is none of either list.
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
    patterns = {"linux": [], "windows": [], "wine": []}
    for line in file.read_text(encoding="utf-8").splitlines():
        if not line.strip() or line.startswith("#"):
            continue
        rule, bar, reason = line.partition("|")
        kind, pattern = rule.split()
        if not bar or not reason.strip():
            sys.exit(f"compare_tests: without a reason: {line}")
        patterns[kind].append(pattern.replace("[", "[[]"))
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
            skipped[case.get("name")] = reason.group(1).strip() if reason else ""
    return names, skipped


def complaints(names, patterns, what, kind, known=None):
    """The names that no pattern covers, and the patterns that cover no name, or none of those that are known."""
    for name in sorted(names):
        if not any(fnmatch.fnmatchcase(name, pattern) for pattern in patterns):
            yield f"{what}: {name}"
    for pattern in patterns:
        if not fnmatch.filter(names if known is None else known, pattern):
            yield f"fits no test: {kind} {pattern}"


def tests_in_document(file):
    """The patterns of tests in the last column of the table of differences; ".Name" is of the suite before it."""
    table = re.search(r"^\| \| Linux \|.*\n\|[-|]+\|\n((?:\|.*\n)+)", file.read_text(encoding="utf-8"), re.MULTILINE)
    for line in table.group(1).splitlines() if table else ():
        names = re.findall(r"`([^`]+)`", line.split(" | ")[-1])
        if len(line.split(" | ")) != 5 or not names:
            sys.exit(f"compare_tests: a difference without a test: {line}")
        suite = ""
        for name in names:
            name = suite + name if name.startswith(".") else name
            suite = name.rpartition(".")[0]
            layered = re.match(r"(common|logging|platform|io|message|client|server|config|integration|shared)\.", name)
            yield name if layered or "." not in name and "/" not in name else f"platform.{name}"


def undocumented(file, tests):
    names = list(tests_in_document(file))
    if not names:
        yield f"no table of differences in {file}"
    for name in names:
        if not any(fnmatch.fnmatchcase(test, name) or test.startswith(name + ".") for test in tests):
            yield f"in {file.name}, but no test: {name}"


def main():
    root = pathlib.Path(__file__).parent.parent
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--linux", type=pathlib.Path, required=True)
    parser.add_argument("--windows", type=pathlib.Path, required=True)
    arguments = parser.parse_args()

    patterns = read_differences(root / "tests" / "differences.txt")
    linux = read_linux(arguments.linux)
    windows, skipped = read_windows(arguments.windows)
    problems = [
        *complaints(linux - windows, patterns["linux"], "only on Linux", "linux"),
        *complaints(windows - linux, patterns["windows"], "only on Windows", "windows"),
        *complaints(skipped.keys(), patterns["wine"], "skipped", "wine", known=linux & windows),
        *(f"skipped without a reason: {name}" for name, reason in sorted(skipped.items()) if not reason),
        *undocumented(root / "docs" / "porting.md", linux | windows),
    ]

    print(f"\n{len(windows)} tests on Windows, {len(linux)} on Linux, {len(linux & windows)} of them the same.")
    print(f"{len(skipped)} skipped on Windows:")
    for name, reason in sorted(skipped.items()):
        print(f"  {name}: {reason}")
    if problems:
        print("\nNot as tests/differences.txt and docs/porting.md have it:")
        for problem in problems:
            print(f"  {problem}")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
