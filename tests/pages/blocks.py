"""The fenced blocks of the pages, each with what its first line says about it."""

import pathlib
import re

FENCE = re.compile(r"^(`{3,})(.*)$")
ATTRIBUTE = re.compile(r'([\w-]+)(?:=("[^"]*"|\S+))?')


class Block:
    def __init__(self, page, line, info, text):
        self.page, self.line, self.text = page, line, text
        words = ATTRIBUTE.findall(info)
        self.language = words[0][0] if words else ""
        self.attributes = {name: value.strip('"') for name, value in words[1:]}

    @property
    def place(self):
        return f"{self.page}:{self.line}"


def pages_of(root):
    """README.md and its neighbours, and all of docs/, relative to the root."""
    files = sorted([*root.glob("*.md"), *(root / "docs").glob("*.md")])
    return [file.relative_to(root) for file in files]


def blocks_of(root, page):
    blocks, info, text, begin = [], None, [], 0
    for number, line in enumerate(pathlib.Path(root, page).read_text(encoding="utf-8").splitlines(), 1):
        fence = FENCE.match(line)
        if fence and info is None:
            info, text, begin = fence.group(2), [], number
        elif fence:
            blocks.append(Block(page, begin, info, "\n".join(text) + "\n"))
            info = None
        elif info is not None:
            text.append(line)
    return blocks
