#!/usr/bin/env python3
"""Holds the tests that ran on Windows (or Wine) against the tests of the Linux build.

    tools/compare_tests.py --linux LIST.json --windows RESULTS.xml

LIST is the output of `ctest --show-only=json-v1`, RESULTS the file of `ctest --output-junit`. Prints what was skipped,
with the reason that the test gave. Fails if the two sets differ or a test was skipped without a line in
tests/differences.txt, or without a reason, and if a line there fits no test. Such a line is a kind, a pattern as in a
shell, and after a bar the reason. The kinds: tests of "linux" alone, tests of "windows" alone, and tests that may be
skipped on "wine", but run on Windows.

It also fails if a difference that docs/porting.md describes has no test. Each heading of its chapter needs a line
"differs  heading : tests" in tests/differences.txt, and each such line a heading, and tests that are in one of the lists.
"""

import argparse
import fnmatch
import json
import pathlib
import re
import sys
import xml.etree.ElementTree

REASON = re.compile(r"^[^\n]*: Skipped\s*\n([^\n]*)", re.MULTILINE)


def literal(pattern):
    """Brackets stand for themselves: names of tests have some."""
    return pattern.replace("[", "[[]")


def read_differences(file):
    """The patterns by kind, and by heading those of the tests that hold a difference."""
    patterns, differs = {"linux": [], "windows": [], "wine": []}, {}
    for line in file.read_text(encoding="utf-8").splitlines():
        if not line.strip() or line.startswith("#"):
            continue
        kind, rule = line.split(maxsplit=1)
        if kind == "differs":
            heading, _, tests = rule.rpartition(" : ")
            if not heading or not tests.split():
                sys.exit(f"compare_tests: without a test: {line}")
            differs.setdefault(heading.strip(), []).extend(literal(test) for test in tests.split())
            continue
        pattern, bar, reason = rule.partition("|")
        if not bar or not reason.strip():
            sys.exit(f"compare_tests: without a reason: {line}")
        patterns[kind].append(literal(pattern.strip()))
    return patterns, differs


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


def documented_differences(file):
    """The headings of the chapter of differences."""
    chapter = re.search(r"^## What differs\n(.*?)^## ", file.read_text(encoding="utf-8"), re.MULTILINE | re.DOTALL)
    return re.findall(r"^### (.*)$", chapter.group(1), re.MULTILINE) if chapter else []


def undocumented(headings, differs, tests):
    """What the document and the file of differences do not say of each other, and tests that nobody has."""
    if not headings:
        yield "docs/porting.md has no differences"
    for heading in headings:
        if heading not in differs:
            yield f"a difference without a test: {heading}"
    for heading, patterns in differs.items():
        if heading not in headings:
            yield f"not in docs/porting.md: {heading}"
        for pattern in patterns:
            if not any(fnmatch.fnmatchcase(test, pattern) or test.startswith(pattern + ".") for test in tests):
                yield f"no test: {pattern}, of: {heading}"


def main():
    root = pathlib.Path(__file__).parent.parent
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--linux", type=pathlib.Path, required=True)
    parser.add_argument("--windows", type=pathlib.Path, required=True)
    arguments = parser.parse_args()

    patterns, differs = read_differences(root / "tests" / "differences.txt")
    headings = documented_differences(root / "docs" / "porting.md")
    linux = read_linux(arguments.linux)
    windows, skipped = read_windows(arguments.windows)
    problems = [
        *complaints(linux - windows, patterns["linux"], "only on Linux", "linux"),
        *complaints(windows - linux, patterns["windows"], "only on Windows", "windows"),
        *complaints(skipped.keys(), patterns["wine"], "skipped", "wine", known=linux & windows),
        *(f"skipped without a reason: {name}" for name, reason in sorted(skipped.items()) if not reason),
        *undocumented(headings, differs, linux | windows),
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
