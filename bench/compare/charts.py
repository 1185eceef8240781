"""The three charts of docs/performance.md, as SVG."""

import html
import math

WIDTH, HEIGHT = 900, 500
INK, FAINT, GRID = "#2b2f36", "#6c737d", "#e4e7eb"

# Ours and the yardstick stand out; every contender has the same colour in all charts.
STYLES = {
    "raw": ("bare socket", "#2b2f36"),
    "qvtp": ("libqvtp", "#d6336c"),
    "qvtp-64k": ("libqvtp, 64 KiB buffers", "#f06595"),
    "thrift-buffered": ("Thrift, buffered", "#a0703c"),
    "thrift-framed": ("Thrift, framed", "#c08a4a"),
    "beast": ("Boost.Beast", "#4f76a3"),
    "httplib": ("cpp-httplib", "#7597c0"),
    "sd-bus": ("sd-bus", "#3f8f73"),
    "zeromq": ("ZeroMQ", "#7d64a3"),
    "nng": ("nng", "#a288c6"),
    "capnproto": ("Cap'n Proto", "#62a67c"),
    "grpc": ("gRPC", "#7b838f"),
}
PROMINENT = ("raw", "qvtp", "qvtp-64k")


def title_of(contender):
    return STYLES[contender][0]


class Svg:
    def __init__(self, title, subtitle, height=HEIGHT):
        self.height = height
        self.parts = []
        self.rectangle(0, 0, WIDTH, height, "#ffffff", radius=8)
        self.text(28, 36, title, size=20, weight="600")
        self.text(28, 58, subtitle, colour=FAINT)

    def text(self, x, y, text, size=13, colour=INK, anchor="start", weight="400"):
        self.parts.append(f'<text x="{x:.1f}" y="{y:.1f}" font-size="{size}" fill="{colour}" text-anchor="{anchor}" '
                          f'font-weight="{weight}">{html.escape(text)}</text>')

    def line(self, points, colour, width=1.0, dashes=""):
        path = " ".join(f"{x:.1f},{y:.1f}" for x, y in points)
        dashed = f' stroke-dasharray="{dashes}"' if dashes else ""
        self.parts.append(f'<polyline points="{path}" fill="none" stroke="{colour}" stroke-width="{width}" '
                          f'stroke-linejoin="round" stroke-linecap="round"{dashed}/>')

    def dot(self, x, y, colour, radius):
        self.parts.append(f'<circle cx="{x:.1f}" cy="{y:.1f}" r="{radius}" fill="{colour}" stroke="#fff"/>')

    def rectangle(self, x, y, width, height, colour, radius=0, opacity=1.0):
        self.parts.append(f'<rect x="{x:.1f}" y="{y:.1f}" width="{width:.1f}" height="{height:.1f}" rx="{radius}" '
                          f'fill="{colour}" fill-opacity="{opacity}"/>')

    def render(self):
        head = (f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {self.height}" '
                'font-family="Inter, Segoe UI, Helvetica, Arial, sans-serif">')
        return "\n".join([head, *self.parts, "</svg>"]) + "\n"


def ticks_of(low, high):
    """1, 2 and 5 of each decade."""
    exponents = range(math.floor(math.log10(low)), math.ceil(math.log10(high)) + 1)
    return [step * 10.0**exponent for exponent in exponents for step in (1, 2, 5)
            if low * 0.999 <= step * 10.0**exponent <= high * 1.001]


def spread(positions, gap):
    """Moves labels apart, each as little as it needs, in the order in which they stand."""
    groups = []
    for index in sorted(range(len(positions)), key=lambda i: positions[i]):
        groups.append([positions[index], [index]])
        while len(groups) > 1 and groups[-1][0] - groups[-2][0] < gap * (len(groups[-1][1]) + len(groups[-2][1])) / 2:
            centre, members = groups.pop()
            size, before = len(members), len(groups[-1][1])
            groups[-1] = [(groups[-1][0] * before + centre * size) / (before + size), groups[-1][1] + members]
    placed = [0.0] * len(positions)
    for centre, members in groups:
        for order, index in enumerate(members):
            placed[index] = centre + (order - (len(members) - 1) / 2) * gap
    return placed


def line_chart(title, subtitle, categories, series, label):
    """One line for each contender, on a logarithmic scale, named at its end."""
    left, right, top, bottom = 88, 690, 84, HEIGHT - 52
    svg = Svg(title, subtitle)
    values = [value for row in series.values() for value in row if value]
    low, high = min(values) / 1.15, max(values) * 1.15

    def x_at(index):
        return left + 24 + index * (right - left - 48) / (len(categories) - 1)

    def y_at(value):
        return bottom - (bottom - top) * math.log(value / low) / math.log(high / low)

    for tick in ticks_of(low, high):
        svg.line([(left, y_at(tick)), (right, y_at(tick))], GRID)
        svg.text(left - 10, y_at(tick) + 4, label(tick), size=12, colour=FAINT, anchor="end")
    for index, category in enumerate(categories):
        svg.text(x_at(index), bottom + 26, category, anchor="middle")

    names = sorted(series, key=lambda name: (name in PROMINENT, PROMINENT.index(name) if name in PROMINENT else 0))
    for name in names:
        draw_series(svg, name, [(x_at(i), y_at(value)) for i, value in enumerate(series[name]) if value])
    ends = [(name, y_at(row[-1])) for name, row in series.items() if row[-1]]
    for (name, end), y in zip(ends, spread([end for _, end in ends], 18)):
        colour = STYLES[name][1]
        svg.line([(right - 18, end), (right + 4, y), (right + 12, y)], colour, 0.8)
        svg.text(right + 18, y + 4, title_of(name), colour=colour, weight="700" if name in PROMINENT else "500")
    return svg.render()


def draw_series(svg, name, points):
    colour = STYLES[name][1]
    prominent = name in PROMINENT
    svg.line(points, colour, 3.2 if prominent else 1.8, "2 6" if name == "raw" else "")
    for x, y in points:
        svg.dot(x, y, colour, 5 if prominent else 3.5)


def bar_chart(title, subtitle, rows):
    """Rows of (contender, client, server), the smallest sum first."""
    left, right, top, step = 210, WIDTH - 90, 96, 30
    svg = Svg(title, subtitle, top + step * len(rows) + 14)
    widest = max(client + server for _, client, server in rows)
    svg.rectangle(left, top - 22, 11, 11, FAINT)
    svg.text(left + 17, top - 12, "client", size=12, colour=FAINT)
    svg.rectangle(left + 70, top - 22, 11, 11, FAINT, opacity=0.5)
    svg.text(left + 87, top - 12, "server", size=12, colour=FAINT)
    for index, (name, client, server) in enumerate(sorted(rows, key=lambda row: row[1] + row[2])):
        y = top + index * step
        colour = STYLES[name][1]
        scale = (right - left) / widest
        svg.rectangle(left, y, client * scale, 20, colour)
        svg.rectangle(left + client * scale, y, server * scale, 20, colour, opacity=0.5)
        svg.text(left - 12, y + 15, title_of(name), anchor="end", weight="700" if name in PROMINENT else "400")
        svg.text(left + (client + server) * scale + 8, y + 15, f"{client + server:.1f} µs", colour=FAINT)
    return svg.render()


def microseconds(value):
    return f"{value / 1000:g} ms" if value >= 1000 else f"{value:g} µs"


def thousands(value):
    return f"{value:,.0f}"


def series_of(summary, workloads, figure):
    return {name: [figure(workload, name) if name in summary[workload] else None for workload in workloads]
            for name in STYLES if any(name in summary[workload] for workload in workloads)}


def charts_of(summary):
    """The charts, by the names of their files."""
    sizes = ["64 B", "4 KiB", "64 KiB", "1 MiB"]
    def median_time(workload, name):
        return summary[workload][name]["p50"]

    def rate(workload, name):  # from the ratio, which drifts less than the time
        return 1e6 / (summary[workload][name]["ratio"] * summary[workload]["raw"]["us"])

    clients = {"1 client": "64 B", "8 clients": "8 clients", "64 clients": "64 clients"}
    return {
        "latency": line_chart(
            "Latency by size", "Median time of an echo, both processes on one core. Lower is better.", sizes,
            series_of(summary, [f"{size} @one" for size in sizes], median_time), microseconds),
        "clients": line_chart(
            "Requests per second by clients", "Echoes of 64 bytes, free to use all cores. Higher is better.",
            list(clients), series_of(summary, clients.values(), rate), thousands),
        "cpu": bar_chart(
            "CPU time per request", "An echo of 64 bytes, free to use all cores. Lower is better.",
            [(name, figures["client_cpu"], figures["server_cpu"]) for name, figures in summary["64 B"].items()]),
    }
