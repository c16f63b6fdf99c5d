#!/usr/bin/env python3
"""Draws the answer-latency distribution per schedule of one link as an SVG.

Reads the CSV that `lossy_link --csv FILE` writes (link, schedule, request,
latency_ms, end, transmissions) and plots, for each schedule, the share of
requests answered within a latency.  Both axes are logarithmic where the
differences lie: latency in decades, the share in nines (90%, 99%, 99.9%), so
the tail that the schedules differ in takes half the picture.  A schedule
whose requests timed out stops short of the top.  Standard library only.

    tools/cdf_plot.py lossy.csv --link rtt50 --out docs/latency_rtt50.svg
"""
import argparse
import csv
import math
from collections import OrderedDict

COLOURS = ["#d62728", "#1f77b4", "#2ca02c", "#ff7f0e", "#9467bd", "#8c564b", "#e377c2", "#7f7f7f"]


def load(path, link):
    series = OrderedDict()
    for row in csv.DictReader(open(path, newline="")):
        if row["link"] != link:
            continue
        entry = series.setdefault(row["schedule"], {"answered": [], "total": 0})
        entry["total"] += 1
        if row["end"] == "answered":
            entry["answered"].append(float(row["latency_ms"]))
    return series


def thin(points):
    """Drops repeated points and the middle of three on one vertical or horizontal line."""
    out = []
    for p in points:
        if out and p == out[-1]:
            continue
        if len(out) >= 2:
            (ax, ay), (bx, by), (cx, cy) = (q.split(",") for q in (out[-2], out[-1], p))
            if (ax == bx == cx) or (ay == by == cy):
                out[-1] = p
                continue
        out.append(p)
    return out


def draw(series, title, width=760, height=440):
    left, right, top, bottom = 70, 210, 40, 50
    pw, ph = width - left - right, height - top - bottom
    values = [v for s in series.values() for v in s["answered"] if v > 0]
    lo = 10 ** math.floor(math.log10(min(values)))
    hi = 10 ** math.ceil(math.log10(max(values)))
    x = lambda v: left + pw * (math.log10(max(v, lo)) - math.log10(lo)) / (math.log10(hi) - math.log10(lo))
    nines = 3.0  # the top of the plot: 99.9%
    y = lambda share: top + ph * (1 - min(-math.log10(max(1 - share, 10 ** -nines)), nines) / nines)
    out = [f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{height}" '
           f'font-family="sans-serif" font-size="12">',
           f'<rect width="{width}" height="{height}" fill="white"/>',
           f'<text x="{left}" y="22" font-size="14">{title}</text>']
    decade = lo
    while decade <= hi * 1.0001:
        for m in range(1, 10):
            v = decade * m
            if v > hi * 1.0001:
                break
            xv = x(v)
            out.append(f'<line x1="{xv:.1f}" y1="{top}" x2="{xv:.1f}" y2="{top + ph}" '
                       f'stroke="{"#bbb" if m == 1 else "#eee"}"/>')
        label = f"{decade:g}"
        out.append(f'<text x="{x(decade):.1f}" y="{top + ph + 16}" text-anchor="middle">{label}</text>')
        decade *= 10
    for share in (0, 0.5, 0.75, 0.9, 0.95, 0.99, 0.995, 0.999):
        yv = y(share)
        out.append(f'<line x1="{left}" y1="{yv:.1f}" x2="{left + pw}" y2="{yv:.1f}" stroke="#ddd"/>')
        out.append(f'<text x="{left - 6}" y="{yv + 4:.1f}" text-anchor="end">{share * 100:g}%</text>')
    out.append(f'<text x="{left + pw / 2}" y="{height - 12}" text-anchor="middle">'
               f'latency from Send to answer, ms (log scale)</text>')
    out.append(f'<text x="16" y="{top + ph / 2}" transform="rotate(-90 16 {top + ph / 2})" '
               f'text-anchor="middle">requests answered (scale in nines)</text>')
    for i, (name, s) in enumerate(series.items()):
        colour = COLOURS[i % len(COLOURS)]
        points, total = [], s["total"]
        for k, v in enumerate(sorted(s["answered"])):
            share_before, share_after = k / total, (k + 1) / total
            points.append(f"{x(v):.1f},{y(share_before):.1f}")
            points.append(f"{x(v):.1f},{y(share_after):.1f}")
        if points and len(s["answered"]) < total:
            points.append(f"{left + pw:.1f},{points[-1].split(',')[1]}")
        points = thin(points)
        out.append(f'<polyline fill="none" stroke="{colour}" stroke-width="1.6" points="{" ".join(points)}"/>')
        ly = top + 14 + 18 * i
        timed_out = total - len(s["answered"])
        out.append(f'<line x1="{left + pw + 12}" y1="{ly - 4}" x2="{left + pw + 32}" y2="{ly - 4}" '
                   f'stroke="{colour}" stroke-width="2"/>')
        note = f" ({timed_out} timed out)" if timed_out else ""
        out.append(f'<text x="{left + pw + 38}" y="{ly}">{name}{note}</text>')
    out.append("</svg>")
    return "\n".join(out) + "\n"


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("csv")
    parser.add_argument("--link", default="rtt50")
    parser.add_argument("--out", default="-")
    parser.add_argument("--title", default=None)
    args = parser.parse_args()
    series = load(args.csv, args.link)
    if not series:
        raise SystemExit(f"no rows for link {args.link}")
    svg = draw(series, args.title or f"Answer latency per schedule, link {args.link}")
    if args.out == "-":
        print(svg, end="")
    else:
        open(args.out, "w").write(svg)


if __name__ == "__main__":
    main()
