#!/usr/bin/env python3
"""Checks the form of the documentation, and that what it links to is there.

    check_docs.py [ROOT]

Prose has at most 100 columns, and so has a cell of a table. A relative link leads to a file or folder of the tree, and
its anchor to a heading. Blocks of code are left alone.
"""

import pathlib
import re
import sys

WIDTH = 100
LINK = re.compile(r"!?\[[^\]]*\]\(([^)\s]+)\)")
HEADING = re.compile(r"^#{1,6} +(.*?) *#*$")
FENCE = re.compile(r"^ *(```|~~~)")
INLINE_CODE = re.compile(r"`[^`]*`")


def prose_of(file):
    """The lines outside of fenced blocks, with their numbers."""
    fenced = False
    for number, line in enumerate(file.read_text(encoding="utf-8").splitlines(), 1):
        if FENCE.match(line):
            fenced = not fenced
        elif not fenced:
            yield number, line
    if fenced:
        yield number, "```"  # is reported as what it is


def anchors_of(file):
    """What a link may name: headings in lower case, without punctuation, with hyphens for blanks."""
    anchors = {}
    for _, line in prose_of(file):
        if heading := HEADING.match(line):
            text = re.sub(r"\[([^\]]*)\]\([^)]*\)", r"\1", heading.group(1))
            name = re.sub(r"[^\w\- ]", "", text.lower()).replace(" ", "-")
            count = anchors.get(name, 0)
            anchors[name] = count + 1
            if count > 0:
                anchors[f"{name}-{count}"] = 1
    return anchors


class Checker:
    def __init__(self, root):
        self.root = root
        self.files = sorted([*root.glob("*.md"), *(root / "docs").glob("*.md")])
        self.errors = []
        self.links = 0

    def check(self):
        for file in self.files:
            for number, line in prose_of(file):
                self.check_width(file, number, line)
            self.check_links(file)

    def complain(self, file, number, text):
        self.errors.append(f"{file.relative_to(self.root)}:{number}: {text}")

    def check_width(self, file, number, line):
        if line.startswith("```"):
            self.complain(file, number, "a block of code does not end")
        elif not line.startswith("|"):
            if len(line) > WIDTH:
                self.complain(file, number, f"{len(line)} columns")
        else:
            for cell in line.strip("|").split("|"):
                if len(cell.strip()) > WIDTH:
                    self.complain(file, number, f"a cell of {len(cell.strip())} characters")

    def check_links(self, file):
        """In all prose at once, since the text of a link may go on in the next line."""
        lines = [""] * len(file.read_text(encoding="utf-8").splitlines())
        for number, line in prose_of(file):
            lines[number - 1] = INLINE_CODE.sub("", line)
        text = "\n".join(lines)
        for link in LINK.finditer(text):
            self.check_link(file, text.count("\n", 0, link.end()) + 1, link.group(1))

    def check_link(self, file, number, target):
        if re.match(r"[a-z]+:", target):
            return
        self.links += 1
        path, _, anchor = target.partition("#")
        leads_to = (file.parent / path).resolve() if path else file
        if not leads_to.exists() or not leads_to.is_relative_to(self.root):
            self.complain(file, number, f"leads nowhere: {target}")
        elif anchor and (leads_to.suffix != ".md" or anchor not in anchors_of(leads_to)):
            self.complain(file, number, f"no such heading: {target}")


def main():
    root = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else pathlib.Path(__file__).parent.parent).resolve()
    checker = Checker(root)
    checker.check()
    for error in checker.errors:
        print(error)
    if not checker.links:
        print("no link found")
    if checker.errors or not checker.links:
        return 1
    print(f"{len(checker.files)} documents, {checker.links} links")
    return 0


if __name__ == "__main__":
    sys.exit(main())
