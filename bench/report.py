"""Turns the JSON of opkit_bench into the table of docs/performance.md and its plots.

    python3 bench/report.py build/bench.json docs

Writes docs/performance-ratios.svg and docs/performance-growth.svg, and replaces what stands between the two markers
in docs/performance.md.
"""

import html
import json
import math
import pathlib
import sys

BEGIN = "<!-- measured: begin -->"
END = "<!-- measured: end -->"

INK = "#1f2933"
GREY = "#9aa5b1"
GOOD = "#2f855a"
BAD = "#c05621"
COLOURS = ["#2b6cb0", "#c05621", "#2f855a", "#6b46c1"]


def time_text(seconds):
    for limit, unit, factor in ((1e-6, "ns", 1e9), (1e-3, "µs", 1e6), (1.0, "ms", 1e3)):
        if seconds < limit:
            return f"{seconds * factor:.3g} {unit}"
    return f"{seconds:.3g} s"


def number(value):
    return f"{value:.3g}" if value < 100 else f"{value:.0f}"


def verdict(peer):
    if "target" not in peer:
        return "", ""
    sign = "≥" if peer["kind"] == "speed" else "≤"
    return f"{sign} {peer['target']:g}", "yes" if peer["met"] else "**no**"


def table(report):
    lines = [
        f"Measured on {report['date']}: {report['processor']}, one core, level {report['level']}.",
        f"OpenBLAS: {report['openblas']}. oneDNN: {report['onednn']}.",
        "",
        "| Limit of this core | |",
        "|---|---|",
        f"| multiply and add, rounded apart | {number(report['peaks']['separate'])} GFLOP/s |",
        f"| multiply and add, fused | {number(report['peaks']['fused'])} GFLOP/s |",
        f"| copy, 0.5 MB (read and written) | {number(report['peaks']['copyCached'])} GB/s |",
        f"| copy, 64 MB | {number(report['peaks']['copyLarge'])} GB/s |",
        f"| read, 4 MB | {number(report['peaks']['readCached'])} GB/s |",
        "",
    ]
    group = None
    for row in report["rows"]:
        if row["group"] != group:
            group = row["group"]
            lines += ["", f"### {group}", "", "| Work | opkit | | Peer or limit | | Ratio | Target | Met |",
                      "|---|---:|---:|---|---:|---:|---|---|"]
        rate = f"{number(row['rate'])} {row['unit']}" if row["unit"] else ""
        first = f"| {row['name']} | {time_text(row['seconds'])} | {rate} "
        for peer in row["peers"] or [None]:
            if peer is None:
                lines.append(first + "| | | | | |")
            elif not peer["measured"]:
                lines.append(first + f"| {peer['name']} | not installed | | | |")
            else:
                target, met = verdict(peer)
                lines.append(first + f"| {peer['name']} | {time_text(peer['seconds'])} | {number(peer['ratio'])} "
                             f"({peer['kind']}) | {target} | {met} |")
            first = "| | | "
    return "\n".join(lines)


class Svg:
    def __init__(self, width, height):
        self.width, self.height, self.parts = width, height, []

    def line(self, x1, y1, x2, y2, colour=GREY, width=1.0, dash=None):
        extra = f' stroke-dasharray="{dash}"' if dash else ""
        self.parts.append(f'<line x1="{x1:.1f}" y1="{y1:.1f}" x2="{x2:.1f}" y2="{y2:.1f}" stroke="{colour}" '
                          f'stroke-width="{width}"{extra}/>')

    def rect(self, x, y, width, height, colour):
        self.parts.append(f'<rect x="{x:.1f}" y="{y:.1f}" width="{max(width, 0.5):.1f}" height="{height:.1f}" '
                          f'fill="{colour}"/>')

    def dot(self, x, y, colour):
        self.parts.append(f'<circle cx="{x:.1f}" cy="{y:.1f}" r="3" fill="{colour}"/>')

    def text(self, x, y, content, anchor="start", size=11, colour=INK):
        self.parts.append(f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}" font-size="{size}" fill="{colour}">'
                          f"{html.escape(content)}</text>")

    def save(self, path):
        path.write_text(f'<svg xmlns="http://www.w3.org/2000/svg" width="{self.width}" height="{self.height}" '
                        f'viewBox="0 0 {self.width} {self.height}" font-family="sans-serif">\n'
                        f'<rect width="100%" height="100%" fill="white"/>\n' + "\n".join(self.parts) + "\n</svg>\n",
                        encoding="utf-8")


def ratios_plot(report, path):
    """One bar per judged ratio, as speed relative to the target: 1 is the target, right of it is better."""
    bars = []
    for row in report["rows"]:
        for peer in row["peers"]:
            if "target" in peer:
                ratio, target = peer["ratio"], peer["target"]
                score = ratio / target if peer["kind"] == "speed" else target / ratio
                # Our speed over the peer's.
                speed = ratio if peer["kind"] == "speed" else 1 / ratio
                bars.append((f"{row['group']}: {row['name']} / {peer['name']}", score, speed, peer["met"]))
    left, right, top, step = 430, 90, 46, 15
    low, high = 0.125, 8.0
    svg = Svg(980, top + step * len(bars) + 24)
    scale = (svg.width - left - right) / math.log2(high / low)
    place = lambda value: left + math.log2(min(max(value, low), high) / low) * scale
    bottom = top + step * len(bars)
    svg.text(12, 18, "opkit against its targets: 1 is the target, longer is better; the number is opkit's speed over "
             "the peer's", size=12)
    for exponent in range(-3, 4):
        x = place(2.0**exponent)
        svg.line(x, top - 6, x, bottom, INK if exponent == 0 else "#e4e7eb", 1.2 if exponent == 0 else 1)
        svg.text(x, top - 10, f"{2.0**exponent:g}", "middle", 10)
    for i, (name, score, speed, met) in enumerate(bars):
        y = top + i * step
        svg.text(left - 8, y + 10, name, "end", 10)
        svg.rect(left, y + 2, place(score) - left, step - 5, GOOD if met else BAD)
        svg.text(place(score) + 4, y + 10, number(speed), "start", 9)
    svg.save(path)


def growth_plot(report, path):
    panels = (("Gemm", "Gemm, n x n x n: GFLOP/s", lambda n, s: 2 * n**3 / s * 1e-9, False),
              ("TopK", "TopK of 5, 64 lanes of n: ns per element", lambda n, s: s / (64 * n) * 1e9, True),
              ("Unique", "Unique of n values, sorted: ns per value", lambda n, s: s / n * 1e9, True))
    width, height, pad = 330, 240, 44
    svg = Svg(width * len(panels), height + 10)
    for index, (prefix, title, value, _) in enumerate(panels):
        x0, y0 = index * width + pad, height - pad + 10
        series = {}
        for point in report.get("growth", []):
            if point["series"].startswith(prefix + "/"):
                series.setdefault(point["series"].split("/")[1], []).append(
                    (point["size"], value(point["size"], point["seconds"])))
        if not series:
            continue
        points = [p for line in series.values() for p in line]
        limits = []
        if prefix == "Gemm":
            limits = [("fused peak", report["peaks"]["fused"]), ("peak, rounded apart", report["peaks"]["separate"])]
        top = 1.1 * max([v for _, v in points] + [v for _, v in limits])
        low, high = math.log2(min(n for n, _ in points)), math.log2(max(n for n, _ in points))
        px = lambda n: x0 + (math.log2(n) - low) / (high - low) * (width - pad - 24)
        py = lambda v: y0 - v / top * (height - 2 * pad)
        svg.text(index * width + 12, 20, title, size=12)
        svg.line(x0, y0, x0 + width - pad - 24, y0, INK)
        svg.line(x0, y0, x0, py(top), INK)
        for n in sorted({n for n, _ in points}):
            exponent = round(math.log2(n) - low)
            if exponent % max(1, round((high - low) / 6)) == 0:
                svg.text(px(n), y0 + 14, f"{n:.0f}", "middle", 9)
        for tick in range(5):
            svg.text(x0 - 5, py(top * tick / 4) + 3, number(top * tick / 4), "end", 9)
        for name, limit in limits:
            svg.line(x0, py(limit), x0 + width - pad - 24, py(limit), GREY, 1, "4 3")
            svg.text(x0 + width - pad - 26, py(limit) - 4, name, "end", 9, GREY)
        for colour, (name, line) in zip(COLOURS, series.items()):
            line.sort()
            for (n1, v1), (n2, v2) in zip(line, line[1:]):
                svg.line(px(n1), py(v1), px(n2), py(v2), colour, 1.6)
            for n, v in line:
                svg.dot(px(n), py(v), colour)
            svg.text(px(line[-1][0]), py(line[-1][1]) + 14, name, "end", 10, colour)
    svg.save(path)


def main():
    report = json.loads(pathlib.Path(sys.argv[1]).read_text(encoding="utf-8"))
    docs = pathlib.Path(sys.argv[2])
    ratios_plot(report, docs / "performance-ratios.svg")
    growth_plot(report, docs / "performance-growth.svg")
    page = docs / "performance.md"
    text = page.read_text(encoding="utf-8")
    head, rest = text.split(BEGIN)
    tail = rest.split(END)[1]
    page.write_text(head + BEGIN + "\n" + table(report) + "\n" + END + tail, encoding="utf-8")


if __name__ == "__main__":
    main()
