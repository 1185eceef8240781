#!/usr/bin/env python3
"""Draws the pictures of docs/pictures: sequences of messages, and the ruler of the time-outs.

    tools/draw_pictures.py             writes them
    tools/draw_pictures.py --check     fails if one of them is not what this program draws

The pictures follow the reader's choice of light or dark, need no font of their own, and have a text for those who do not
see them in the page that shows them.
"""

import html
import pathlib
import sys

FOLDER = pathlib.Path(__file__).parent.parent / "docs" / "pictures"
STYLE = """
  svg { --paper: #ffffff; --ink: #22262b; --faint: #5d6670; --line: #c3c9d0; --bar: #e8edf2; --note: #fff6da;
        --client: #1f6feb; --server: #1a7f4b; --bad: #c62f3d; --fixed: #7a838d; }
  @media (prefers-color-scheme: dark) {
    svg { --paper: #15191e; --ink: #e4e8ec; --faint: #a2abb4; --line: #48515a; --bar: #262d35; --note: #3a341f;
          --client: #6cb0ff; --server: #56c98b; --bad: #ff7b85; --fixed: #98a2ac; } }
  .paper { fill: var(--paper) } .bar { fill: var(--bar); stroke: var(--line) } .note { fill: var(--note) }
  text { font: 14px system-ui, "Segoe UI", "DejaVu Sans", Helvetica, Arial, sans-serif; fill: var(--ink) }
  .small { font-size: 12.5px; fill: var(--faint) } .code { font-family: ui-monospace, "DejaVu Sans Mono", monospace;
  font-size: 13px } .strong { font-weight: 600 } .middle { text-anchor: middle } .end { text-anchor: end }
  .life { stroke: var(--line); stroke-dasharray: 4 4 } .rule { stroke: var(--line) } path { fill: none }
  .client { stroke: var(--client) } .server { stroke: var(--server) } .bad { stroke: var(--bad) }
  .fixed { stroke: var(--fixed) } text.client { fill: var(--client); stroke: none }
  text.server { fill: var(--server); stroke: none } text.bad { fill: var(--bad); stroke: none }
  text.fixed { fill: var(--fixed); stroke: none }
  text.halo { paint-order: stroke; stroke: var(--paper); stroke-width: 5px } .arrow { stroke-width: 1.8 } .span { stroke-width: 7 }
"""


class Svg:
    def __init__(self, width, height):
        self.width, self.height, self.parts = width, height, []
        self.rectangle(0, 0, width, height, "paper")

    def rectangle(self, x, y, width, height, kind, radius=6):
        self.parts.append(f'<rect class="{kind}" x="{x:g}" y="{y:g}" width="{width:g}" height="{height:g}" rx="{radius}"/>')

    def text(self, x, y, text, kind=""):
        self.parts.append(f'<text class="{kind}" x="{x:g}" y="{y:g}">{html.escape(text)}</text>')

    def path(self, points, kind):
        self.parts.append(f'<path class="{kind}" d="M{" L".join(f"{x:g} {y:g}" for x, y in points)}"/>')

    def arrow(self, begin, end, y, kind):
        way = 1 if end > begin else -1
        self.path([(begin, y), (end - way, y)], f"arrow {kind}")
        self.path([(end - 8 * way, y - 5), (end, y), (end - 8 * way, y + 5)], f"arrow {kind}")

    def render(self):
        return (f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {self.width} {self.height}" '
                f'width="{self.width}" height="{self.height}">\n<style>{STYLE}</style>\n' + "\n".join(self.parts) + "\n</svg>\n")


class Sequence:
    """Life lines from left to right, and rows from top to bottom."""

    TOP, STEP, MARGIN = 62, 50, 130

    def __init__(self, names, rows, gap=270):
        self.xs = {name: self.MARGIN + index * gap for index, name in enumerate(names)}
        height = self.TOP + sum(self.STEP * (0.8 if row[0] == "gap" else 1) for row in rows) + 34
        self.svg = Svg(2 * self.MARGIN + (len(names) - 1) * gap, int(height))
        for name, x in self.xs.items():
            self.svg.path([(x, 44), (x, height - 14)], "life")
            width = max(168, 9 * len(name) + 24)
            self.svg.rectangle(x - width / 2, 14, width, 30, "bar")
            self.svg.text(x, 34, name, "strong middle")
        y = self.TOP + 24
        for row in rows:
            getattr(self, row[0])(y, *row[1:])
            y += self.STEP * (0.8 if row[0] == "gap" else 1)

    def send(self, y, begin, end, text, kind="client", note=""):
        left, right = self.xs[begin], self.xs[end]
        self.svg.arrow(left, right, y, kind)
        self.svg.text((left + right) / 2, y - 7, text, "code middle")
        if note:
            self.svg.text((left + right) / 2, y + 17, note, "small middle halo")

    def lost(self, y, begin, end, text, note=""):
        left, right = self.xs[begin], self.xs[end]
        stop = left + (right - left) * 0.72
        self.svg.path([(left, y), (stop, y)], "arrow bad")
        self.svg.path([(stop - 6, y - 6), (stop + 6, y + 6)], "arrow bad")
        self.svg.path([(stop - 6, y + 6), (stop + 6, y - 6)], "arrow bad")
        self.svg.text((left + right) / 2, y - 9, text, "code middle")
        if note:
            self.svg.text((left + right) / 2, y + 19, note, "small middle bad halo")

    def does(self, y, name, text):
        width = 7.4 * len(text) + 20
        self.svg.rectangle(self.xs[name] - width / 2, y - 19, width, 26, "note")
        self.svg.text(self.xs[name], y - 1, text, "small middle")

    def gap(self, y, text):
        self.svg.path([(14, y - 4), (self.svg.width - 14, y - 4)], "rule")
        width = 7.2 * len(text) + 16
        self.svg.rectangle(self.svg.width / 2 - width / 2, y - 16, width, 22, "paper")
        self.svg.text(self.svg.width / 2, y, text, "small middle")


def post():
    client, pipe, worker = "client", "server: run()", "worker"
    return Sequence([client, pipe, worker], [
        ("send", client, pipe, "connect", "client", "only if no connection is idle"),
        ("send", pipe, worker, "the connection", "server", "a thread of its own"),
        ("send", client, worker, "POST /hello QVTP/1.0, headers, body", "client"),
        ("does", worker, "calls the handler"),
        ("send", worker, client, "QVTP/1.0 200 OK, headers, body", "server"),
        ("does", client, "keeps the connection"),
        ("gap", "the next request, on the same connection"),
        ("send", client, worker, "POST /hello QVTP/1.0", "client"),
        ("send", worker, client, "QVTP/1.0 200 OK", "server"),
    ])


def notify():
    client, worker = "client", "worker"
    return Sequence([client, worker], [
        ("send", client, worker, "NOTIFY /log QVTP/1.0, headers, body", "client"),
        ("does", client, "the call returns"),
        ("does", worker, "calls the handler"),
        ("gap", "no answer: whether it was handled is not known"),
    ], gap=420)


def hand_over():
    one, two, server = "client A", "client B", "the last worker"
    return Sequence([one, server, two], [
        ("send", one, server, "POST", "client"),
        ("send", server, one, "200 OK", "server"),
        ("does", one, "silent, keeps its connection"),
        ("send", two, server, "connect, POST", "client", "waits: all workers are taken"),
        ("does", server, "A is silent: it makes room"),
        ("lost", server, one, "closes A's connection", "nothing of A's is lost: what it wrote is served first"),
        ("gap", "the worker is free"),
        ("send", server, two, "200 OK", "server"),
        ("gap", "A has a new request"),
        ("send", one, server, "POST, on a new connection", "client", "A's program notices nothing"),
    ], gap=300)


def resend():
    client, old, new = "client", "server", "server, started again"
    return Sequence([client, old, new], [
        ("send", client, old, "POST", "client"),
        ("send", old, client, "200 OK", "server"),
        ("does", client, "keeps the connection"),
        ("does", old, "stops, and starts again"),
        ("lost", client, old, "POST, on the kept connection", "broken before its first byte has left"),
        ("does", client, "drops it, connects anew"),
        ("send", client, new, "POST, sent again", "client", "safe: the first try has reached nobody"),
        ("send", new, client, "200 OK", "server"),
    ], gap=300)


PHASES = [("connect", 130), ("send head", 100), ("send body", 130), ("handler works", 150), ("reply: head", 110),
          ("reply: body", 130), ("idle", 130)]
# Kind, name, what it counts, first and last phase.
SPANS = [
    ("client", "connectTimeout", "until a worker or the queue has room", 0, 0),
    ("client", "timeout", "each pause until the reply is complete", 3, 5),
    ("client", "idleTimeout of a client", "then the connection is closed", 6, 6),
    ("fixed", "write time-out, 10 s", "each step that the server takes", 1, 2),
    ("server", "idleTimeout of a server", "each pause in a head, and between requests", 1, 1),
    ("server", "limits.headMs", "the whole head", 1, 1),
    ("server", "receiveTimeout", "each pause in a body", 2, 2),
    ("server", "limits.requestMs", "head and body as a whole", 1, 2),
    ("fixed", "write time-out, 10 s", "each step that the client takes", 4, 5),
    ("server", "idleTimeout of a server", "as above: the worker waits", 6, 6),
]


def time_outs():
    left, row, top = 250, 40, 74
    edges = [left]
    for _, width in PHASES:
        edges.append(edges[-1] + width)
    svg = Svg(edges[-1] + 24, top + row * len(SPANS) + 62)
    svg.text(24, 42, "One POST", "strong")
    for (name, width), x in zip(PHASES, edges):
        svg.rectangle(x + 1, 22, width - 2, 30, "bar", 4)
        svg.text(x + width / 2, 42, name, "middle")
    bottom = top + row * len(SPANS)
    for x in edges:
        svg.path([(x, 56), (x, bottom)], "life")
    for index, (kind, name, what, first, last) in enumerate(SPANS):
        y = top + row * index + 22
        svg.text(left - 16, y, name, f"end {kind}")
        svg.path([(edges[first] + 6, y - 5), (edges[last + 1] - 6, y - 5)], f"span {kind}")
        is_late = first >= 5
        x = edges[last + 1] - 6 if is_late else edges[first] + 6
        svg.text(x, y + 14, what, "small end halo" if is_late else "small halo")
    svg.path([(24, bottom + 12), (edges[-1], bottom + 12)], "rule")
    for x, kind, text in ((24, "client", "set on the client"), (240, "server", "set on the server"),
                          (460, "fixed", "fixed: it cannot be set")):
        svg.path([(x, bottom + 36), (x + 40, bottom + 36)], f"span {kind}")
        svg.text(x + 52, bottom + 41, text)
    return svg


def pictures():
    return {"post.svg": post().svg, "notify.svg": notify().svg, "hand-over.svg": hand_over().svg,
            "resend.svg": resend().svg, "time-outs.svg": time_outs()}


def main():
    wrong = []
    for name, svg in pictures().items():
        file, text = FOLDER / name, svg.render()
        if "--check" not in sys.argv:
            FOLDER.mkdir(exist_ok=True)
            file.write_text(text, encoding="utf-8")
        elif not file.is_file() or file.read_text(encoding="utf-8") != text:
            wrong.append(name)
    for name in wrong:
        print(f"docs/pictures/{name} is not what tools/draw_pictures.py draws")
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
