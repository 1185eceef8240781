#!/usr/bin/env python3
"""Enters what compare.py has measured into docs/performance.md, and draws its charts.

    report.py RESULT DOCS

In performance.md only the lines between "<!-- measured: NAME -->" and "<!-- end -->" are written. All others are kept.
"""

import json
import pathlib
import re
import sys
import textwrap

import charts

WIDTH = 100
BLOCK = re.compile(r"(<!-- measured: (\w+) -->\n).*?(<!-- end -->)", re.S)


def table(result):
    """Ratios; the best of each column but the yardstick itself is bold."""
    summary = result["summary"]
    lines = ["| Times the bare socket | " + " | ".join(summary) + " |", "|---" * (len(summary) + 1) + "|"]
    best = {workload: min((figures["ratio"] for name, figures in by.items() if name != "raw"), default=None)
            for workload, by in summary.items()}
    for name in result["contenders"]:
        cells = []
        for workload, by in summary.items():
            ratio = by[name]["ratio"] if name in by else None
            cell = "" if ratio is None else f"{ratio:.2f}" if ratio < 10 else f"{ratio:.0f}"
            cells.append(f"**{cell}**" if ratio is not None and ratio == best[workload] and name != "raw" else cell)
        title = charts.title_of(name)
        lines.append(f"| {f'**{title}**' if name.startswith('qvtp') else title} | " + " | ".join(cells) + " |")
    return "\n".join(lines) + "\n"


def run(result):
    """When and where, with which versions, and who is missing."""
    raw = result["summary"]["64 B @one"]["raw"]
    sentences = [f"Measured on {result['date']} with {result['machine']}: {result['rounds']} rounds, "
                 f"{result['ms']} ms for each turn.",
                 f"One exchange of 64 bytes took the bare socket {raw['us']:.1f} µs with both processes on one core."]
    versions = {charts.title_of(name).split(",")[0]: version
                for name, version in result["contenders"].items() if version}
    if versions:
        sentences.append("Versions: " + ", ".join(f"{title} {version}" for title, version in versions.items()) + ".")
    for reason in dict.fromkeys(result["left_out"].values()):
        names = [name for name, own in result["left_out"].items() if own == reason]
        sentences.append(f"Left out ({reason}): {'; '.join(names)}.")
    return textwrap.fill(" ".join(sentences), WIDTH, break_long_words=False, break_on_hyphens=False) + "\n"


def compact(result):
    """JSON with one line for each contender's figures, so that differences can be read."""
    rest = {name: value for name, value in result.items() if name != "summary"}
    text = json.dumps(rest, indent=1)[:-2] + ',\n "summary": {'
    for number, (workload, by) in enumerate(result["summary"].items()):
        rows = ",\n".join(f"   {json.dumps(name)}: {json.dumps(figures)}" for name, figures in by.items())
        text += ("," if number else "") + f"\n  {json.dumps(workload)}: {{\n{rows}\n  }}"
    return text + "\n }\n}\n"


def main():
    result = json.loads(pathlib.Path(sys.argv[1]).read_text())
    docs = pathlib.Path(sys.argv[2])
    blocks = {"table": table(result), "run": run(result)}
    page = docs / "performance.md"
    page.write_text(BLOCK.sub(lambda match: match.group(1) + blocks[match.group(2)] + match.group(3), page.read_text()))
    (docs / "performance.json").write_text(compact(result))
    (docs / "performance").mkdir(exist_ok=True)
    for name, svg in charts.charts_of(result["summary"]).items():
        (docs / "performance" / f"{name}.svg").write_text(svg)


if __name__ == "__main__":
    sys.exit(main())
