#!/usr/bin/env python3
"""Draws the memory curve of a soak run as an SVG line chart.

Reads the CSV that `flowmere-soak --rss-out FILE` writes (seconds,rss_kib,heap_kib) and plots
resident memory and live heap in MiB against time, with the warm-up time and the allowed growth
over the warm-up sample marked. Python standard library only.

    python3 tools/flowmere-soak/plot_rss.py soak-rss.csv docs/images/soak-rss.svg \
        --warmup 60 --tolerance 8 --title "flowmere-soak, 600 s, asan-ubsan" \
        --compare "resident memory, release build=release-rss.csv"

The PipeWire soak's CSV (tests/pipewire/soak-pipewire.sh --rss-out FILE: seconds, rss_kib,
shmem_kib, ..., idle) is drawn in two panels instead: above, resident memory with its shared
part (the PipeWire buffers the process maps, which come and go with the links); below, the
private part (resident less shared) on its own scale, with the straight line fitted over the
samples from --warmup seconds on (the soak's check) and its slope, and the idle sample after
the run as a dot. --tolerance is then the allowed slope in MiB/min.

    python3 tools/flowmere-soak/plot_rss.py pipewire-rss.csv docs/images/soak-pipewire-rss.svg \
        --warmup 300 --tolerance 1 --title "PipeWire soak, 600 s"
"""

import argparse
import csv
import math
import sys
from xml.sax.saxutils import escape

WIDTH, HEIGHT = 760, 380
LEFT, RIGHT, TOP, BOTTOM = 70, 20, 64, 50
RSS_COLOUR = "#1f77b4"
HEAP_COLOUR = "#2ca02c"
COMPARE_COLOUR = "#ff7f0e"
MARK_COLOUR = "#888888"
LIMIT_COLOUR = "#d62728"


def draw_legend(parts, entries):
    """One row of (colour, label, dash pattern or None) entries between the title and the plot."""
    x = LEFT
    for colour, label, dash in entries:
        dash_attribute = f' stroke-dasharray="{dash}"' if dash else ""
        parts.append(f'<line x1="{x}" y1="42" x2="{x + 24}" y2="42" stroke="{colour}" '
                     f'stroke-width="2"{dash_attribute}/>')
        parts.append(f'<text x="{x + 30}" y="46">{escape(label)}</text>')
        x += 36 + 7 * len(label)

def read_rows(path):
    """The CSV's rows as dictionaries of numbers."""
    with open(path, newline="") as handle:
        rows = [{key: float(value) for key, value in row.items()}
                for row in csv.DictReader(handle)]
    if not rows:
        sys.exit(f"plot_rss.py: no samples in {path}")
    return rows


def read_samples(path):
    return [(row["seconds"], row["rss_kib"] / 1024.0, row["heap_kib"] / 1024.0)
            for row in read_rows(path)]


def nice_step(span, target_ticks):
    """A 1, 2 or 5 times a power of ten step giving about `target_ticks` ticks over `span`."""
    raw = span / max(target_ticks, 1)
    power = 10 ** math.floor(math.log10(raw)) if raw > 0 else 1
    for factor in (1, 2, 5, 10):
        if raw <= factor * power:
            return factor * power
    return 10 * power


def format_number(value):
    return f"{value:g}"


def polyline(points, colour, width=2, dash=None):
    path = " ".join(f"{x:.1f},{y:.1f}" for x, y in points)
    dash_attribute = f' stroke-dasharray="{dash}"' if dash else ""
    return (f'<polyline fill="none" stroke="{colour}" stroke-width="{width}"'
            f'{dash_attribute} points="{path}"/>')


def draw(samples, warmup, tolerance, title, compare=None):
    """`compare` is an optional (label, samples) pair of another run, whose resident memory is
    drawn dashed."""
    end_seconds = max(sample[0] for sample in samples) or 1.0
    warmup_sample = next((s for s in samples if s[0] >= warmup), samples[-1])
    limit = warmup_sample[1] + tolerance if tolerance is not None else None
    top_value = max(max(s[1] for s in samples), limit or 0.0) * 1.1 or 1.0
    if compare:
        top_value = max(top_value, max(s[1] for s in compare[1]) * 1.1)
    x_step = nice_step(end_seconds, 10)
    y_step = nice_step(top_value, 6)
    y_max = math.ceil(top_value / y_step) * y_step
    plot_width = WIDTH - LEFT - RIGHT
    plot_height = HEIGHT - TOP - BOTTOM

    def x_of(seconds):
        return LEFT + plot_width * seconds / end_seconds

    def y_of(mib):
        return TOP + plot_height * (1.0 - mib / y_max)

    parts = [
        f'<svg xmlns="http://www.w3.org/2000/svg" width="{WIDTH}" height="{HEIGHT}" '
        f'viewBox="0 0 {WIDTH} {HEIGHT}" font-family="sans-serif" font-size="12">',
        f'<rect width="{WIDTH}" height="{HEIGHT}" fill="white"/>',
        f'<text x="{WIDTH / 2}" y="22" text-anchor="middle" font-size="14">{escape(title)}</text>',
    ]
    # Grid and ticks.
    tick = 0.0
    while tick <= y_max + 1e-9:
        y = y_of(tick)
        parts.append(f'<line x1="{LEFT}" y1="{y:.1f}" x2="{WIDTH - RIGHT}" y2="{y:.1f}" '
                     f'stroke="#e5e5e5"/>')
        parts.append(f'<text x="{LEFT - 6}" y="{y + 4:.1f}" text-anchor="end">'
                     f'{format_number(tick)}</text>')
        tick += y_step
    tick = 0.0
    while tick <= end_seconds + 1e-9:
        x = x_of(tick)
        parts.append(f'<line x1="{x:.1f}" y1="{TOP}" x2="{x:.1f}" y2="{HEIGHT - BOTTOM}" '
                     f'stroke="#f0f0f0"/>')
        parts.append(f'<text x="{x:.1f}" y="{HEIGHT - BOTTOM + 16}" text-anchor="middle">'
                     f'{format_number(tick)}</text>')
        tick += x_step
    parts.append(f'<rect x="{LEFT}" y="{TOP}" width="{plot_width}" height="{plot_height}" '
                 f'fill="none" stroke="#333333"/>')
    parts.append(f'<text x="{LEFT + plot_width / 2}" y="{HEIGHT - 12}" text-anchor="middle">'
                 f'time since start (s)</text>')
    parts.append(f'<text transform="translate(18 {TOP + plot_height / 2}) rotate(-90)" '
                 f'text-anchor="middle">MiB</text>')

    # Warm-up and the allowed growth.
    x_warm = x_of(min(warmup_sample[0], end_seconds))
    parts.append(f'<line x1="{x_warm:.1f}" y1="{TOP}" x2="{x_warm:.1f}" y2="{HEIGHT - BOTTOM}" '
                 f'stroke="{MARK_COLOUR}" stroke-dasharray="4 4"/>')
    parts.append(f'<text x="{x_warm + 4:.1f}" y="{TOP + 14}" fill="{MARK_COLOUR}">'
                 f'end of warm-up</text>')
    if limit is not None:
        parts.append(polyline([(x_warm, y_of(limit)), (x_of(end_seconds), y_of(limit))],
                              LIMIT_COLOUR, 1, "6 3"))
        parts.append(f'<text x="{WIDTH - RIGHT - 4}" y="{y_of(limit) - 5:.1f}" '
                     f'text-anchor="end" fill="{LIMIT_COLOUR}">allowed resident memory '
                     f'({format_number(tolerance)} MiB over warm-up)</text>')

    # The curves.
    parts.append(polyline([(x_of(s[0]), y_of(s[1])) for s in samples], RSS_COLOUR))
    parts.append(polyline([(x_of(s[0]), y_of(s[2])) for s in samples], HEAP_COLOUR))
    if compare:
        other = [s for s in compare[1] if s[0] <= end_seconds]
        parts.append(polyline([(x_of(s[0]), y_of(s[1])) for s in other], COMPARE_COLOUR, 2, "6 3"))

    # End values, above the curves' last points.
    last = samples[-1]
    parts.append(f'<text x="{WIDTH - RIGHT - 4}" y="{y_of(last[1]) - 6:.1f}" text-anchor="end" '
                 f'fill="{RSS_COLOUR}">{last[1]:.1f} MiB</text>')
    parts.append(f'<text x="{WIDTH - RIGHT - 4}" y="{y_of(last[2]) - 6:.1f}" text-anchor="end" '
                 f'fill="{HEAP_COLOUR}">{last[2]:.2f} MiB</text>')
    if compare:
        other_last = compare[1][-1]
        parts.append(f'<text x="{WIDTH - RIGHT - 4}" y="{y_of(other_last[1]) - 6:.1f}" '
                     f'text-anchor="end" fill="{COMPARE_COLOUR}">{other_last[1]:.1f} MiB</text>')

    # Legend, between the title and the plot.
    entries = [(RSS_COLOUR, "resident memory", None), (HEAP_COLOUR, "live heap", None)]
    if compare:
        entries.append((COMPARE_COLOUR, compare[0], "6 3"))
    draw_legend(parts, entries)
    parts.append("</svg>")
    return "\n".join(parts) + "\n"


SPLIT_HEIGHT = 600
SHARED_COLOUR = "#ff7f0e"
PRIVATE_COLOUR = "#2ca02c"


def fit_line(points):
    """Least-squares (slope, intercept) of [(x, y)]; a flat line through the mean when the x
    values do not spread."""
    mean_x = sum(x for x, _ in points) / len(points)
    mean_y = sum(y for _, y in points) / len(points)
    spread = sum((x - mean_x) ** 2 for x, _ in points)
    if spread == 0:
        return 0.0, mean_y
    slope = sum((x - mean_x) * (y - mean_y) for x, y in points) / spread
    return slope, mean_y - slope * mean_x


def panel(parts, top, height, y_max, end_seconds, y_label):
    """Draws one panel's grid, ticks and frame; returns its (x_of, y_of)."""
    plot_width = WIDTH - LEFT - RIGHT
    y_step = nice_step(y_max, 5)
    y_max = math.ceil(y_max / y_step) * y_step

    def x_of(seconds):
        return LEFT + plot_width * seconds / end_seconds

    def y_of(mib):
        return top + height * (1.0 - mib / y_max)

    tick = 0.0
    while tick <= y_max + 1e-9:
        parts.append(f'<line x1="{LEFT}" y1="{y_of(tick):.1f}" x2="{WIDTH - RIGHT}" '
                     f'y2="{y_of(tick):.1f}" stroke="#e5e5e5"/>')
        parts.append(f'<text x="{LEFT - 6}" y="{y_of(tick) + 4:.1f}" text-anchor="end">'
                     f'{format_number(round(tick, 6))}</text>')
        tick += y_step
    x_step = nice_step(end_seconds, 10)
    tick = 0.0
    while tick <= end_seconds + 1e-9:
        parts.append(f'<line x1="{x_of(tick):.1f}" y1="{top}" x2="{x_of(tick):.1f}" '
                     f'y2="{top + height}" stroke="#f0f0f0"/>')
        parts.append(f'<text x="{x_of(tick):.1f}" y="{top + height + 16}" '
                     f'text-anchor="middle">{format_number(tick)}</text>')
        tick += x_step
    parts.append(f'<rect x="{LEFT}" y="{top}" width="{plot_width}" height="{height}" '
                 f'fill="none" stroke="#333333"/>')
    parts.append(f'<text transform="translate(18 {top + height / 2}) rotate(-90)" '
                 f'text-anchor="middle">{escape(y_label)}</text>')
    return x_of, y_of


def draw_split(rows, fit_from, bound, title):
    """The two-panel chart of a CSV with shared memory (see the module's comment)."""
    running = [row for row in rows if not row.get("idle")]
    idle = next((row for row in rows if row.get("idle")), None)
    end_seconds = max(row["seconds"] for row in rows) or 1.0
    resident = [(row["seconds"], row["rss_kib"] / 1024.0) for row in running]
    shared = [(row["seconds"], row["shmem_kib"] / 1024.0) for row in running]
    private = [(row["seconds"], (row["rss_kib"] - row["shmem_kib"]) / 1024.0) for row in running]
    fitted = [point for point in private if point[0] >= fit_from] or private
    slope, intercept = fit_line(fitted)

    parts = [
        f'<svg xmlns="http://www.w3.org/2000/svg" width="{WIDTH}" height="{SPLIT_HEIGHT}" '
        f'viewBox="0 0 {WIDTH} {SPLIT_HEIGHT}" font-family="sans-serif" font-size="12">',
        f'<rect width="{WIDTH}" height="{SPLIT_HEIGHT}" fill="white"/>',
        f'<text x="{WIDTH / 2}" y="22" text-anchor="middle" font-size="14">{escape(title)}</text>',
    ]
    # Above: everything resident, and the shared part of it.
    x_of, y_of = panel(parts, TOP, 250, max(v for _, v in resident) * 1.1 or 1.0, end_seconds,
                       "resident MiB")
    parts.append(polyline([(x_of(t), y_of(v)) for t, v in resident], RSS_COLOUR, 1.5))
    parts.append(polyline([(x_of(t), y_of(v)) for t, v in shared], SHARED_COLOUR, 1, "4 2"))
    # Below: the private part on its own scale, the fit and the idle sample.
    values = [v for _, v in private] + ([(idle["rss_kib"] - idle["shmem_kib"]) / 1024.0]
                                         if idle else [])
    top = TOP + 250 + 50
    x_of, y_of = panel(parts, top, SPLIT_HEIGHT - top - BOTTOM, max(values) * 1.3, end_seconds,
                       "private MiB")
    parts.append(polyline([(x_of(t), y_of(v)) for t, v in private], PRIVATE_COLOUR))
    start = fitted[0][0]
    parts.append(polyline([(x_of(start), y_of(intercept + slope * start)),
                           (x_of(fitted[-1][0]), y_of(intercept + slope * fitted[-1][0]))],
                          LIMIT_COLOUR, 1.5, "6 3"))
    bound_text = f" (bound {format_number(bound)})" if bound is not None else ""
    parts.append(f'<text x="{x_of(start) + 4:.1f}" y="{top + 16}" fill="{LIMIT_COLOUR}">'
                 f'line fitted from {format_number(start)} s: {60 * slope:+.3f} MiB/min'
                 f'{bound_text}</text>')
    for mark_top, mark_bottom in ((TOP, TOP + 250), (top, SPLIT_HEIGHT - BOTTOM)):
        parts.append(f'<line x1="{x_of(start):.1f}" y1="{mark_top}" x2="{x_of(start):.1f}" '
                     f'y2="{mark_bottom}" stroke="{MARK_COLOUR}" stroke-dasharray="4 4"/>')
    if idle:
        value = (idle["rss_kib"] - idle["shmem_kib"]) / 1024.0
        parts.append(f'<circle cx="{x_of(idle["seconds"]):.1f}" cy="{y_of(value):.1f}" r="3" '
                     f'fill="{PRIVATE_COLOUR}"/>')
        parts.append(f'<text x="{x_of(idle["seconds"]) - 6:.1f}" y="{y_of(value) + 16:.1f}" '
                     f'text-anchor="end" fill="{PRIVATE_COLOUR}">idle after the run: '
                     f'{value:.2f} MiB private, {idle["rss_kib"] / 1024.0:.1f} MiB resident'
                     f'</text>')
    parts.append(f'<text x="{LEFT + (WIDTH - LEFT - RIGHT) / 2}" y="{SPLIT_HEIGHT - 12}" '
                 f'text-anchor="middle">time since start (s)</text>')
    entries = [(RSS_COLOUR, "resident (VmRSS)", None),
               (SHARED_COLOUR, "of which shared (RssShmem)", "4 2"),
               (PRIVATE_COLOUR, "private: resident less shared", None)]
    draw_legend(parts, entries)
    parts.append("</svg>")
    return "\n".join(parts) + "\n"


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("csv", help="the samples, as flowmere-soak --rss-out writes them")
    parser.add_argument("svg", help="where to write the chart")
    parser.add_argument("--warmup", type=float, default=60.0,
                        help="warm-up time in seconds (default 60)")
    parser.add_argument("--tolerance", type=float, default=None,
                        help="allowed resident-memory growth over the warm-up sample, MiB")
    parser.add_argument("--title", default="flowmere-soak: memory over time")
    parser.add_argument("--compare", metavar="LABEL=CSV",
                        help="another run's samples, whose resident memory is drawn dashed")
    arguments = parser.parse_args()
    rows = read_rows(arguments.csv)
    if "shmem_kib" in rows[0]:
        with open(arguments.svg, "w") as handle:
            handle.write(draw_split(rows, arguments.warmup, arguments.tolerance, arguments.title))
        return
    samples = read_samples(arguments.csv)
    compare = None
    if arguments.compare:
        label, separator, path = arguments.compare.partition("=")
        if not separator:
            parser.error("--compare wants LABEL=CSV")
        compare = (label, read_samples(path))
    with open(arguments.svg, "w") as handle:
        handle.write(draw(samples, arguments.warmup, arguments.tolerance, arguments.title,
                          compare))


if __name__ == "__main__":
    main()
