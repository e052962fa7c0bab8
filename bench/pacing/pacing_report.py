#!/usr/bin/env python3
"""Summarise the pacing benchmark's CSV files: a Markdown table and a spacing-error histogram.

    pacing_report.py DIR [--svg FILE]

DIR holds pacing-deliveries.csv and pacing-runs.csv as `pacing_benchmark --pacing_out=DIR`
writes them. The table gives, per frame rate and timer slack, the median of the repeated runs'
figures with their range; the SVG shows the distribution of the spacing errors of all
deliveries of all repeats, one panel per frame rate, default slack against 1 ns. Python
standard library only.
"""

import argparse
import csv
import math
import statistics
import sys
from collections import defaultdict
from pathlib import Path

SLACK_NAMES = {0: "default", 1: "1 ns"}
SLACK_COLOURS = {0: "#d95f02", 1: "#1b9e77"}

# Histogram bins: logarithmic from 1 us to 100 ms, eight per decade; smaller errors count in
# the first bin.
BIN_LOW_US = 1.0
BINS_PER_DECADE = 8
DECADES = 5


def read_rows(path):
    with open(path, newline="") as handle:
        return list(csv.DictReader(handle))


def spread(values, digits=0):
    """'median (min-max)' of the repeats, or the single value."""
    fmt = "{:.%df}" % digits
    if len(values) == 1:
        return fmt.format(values[0])
    return "%s (%s–%s)" % (
        fmt.format(statistics.median(values)),
        fmt.format(min(values)),
        fmt.format(max(values)),
    )


def table(runs):
    rows = defaultdict(list)
    for run in runs:
        rows[(float(run["fps"]), int(run["slack_ns"]))].append(run)
    lines = [
        "| fps | slack | runs | spacing error p50 / p99 / max (µs) "
        "| target error p50 / p99 / max (µs) | CPU ms/s | refused |",
        "|---|---|---|---|---|---|---|",
    ]
    for (fps, slack), group in sorted(rows.items()):
        def column(name, digits=0):
            return spread([float(run[name]) for run in group], digits)

        lines.append(
            "| %g | %s | %d | %s / %s / %s | %s / %s / %s | %s | %d |"
            % (
                fps,
                SLACK_NAMES.get(slack, "%d ns" % slack),
                len(group),
                column("spacing_p50_us"),
                column("spacing_p99_us"),
                column("spacing_max_us"),
                column("target_p50_us"),
                column("target_p99_us"),
                column("target_max_us"),
                column("cpu_ms_per_s", 1),
                sum(int(run["refused"]) for run in group),
            )
        )
    return "\n".join(lines)


def bin_index(error_us):
    magnitude = max(abs(error_us), BIN_LOW_US)
    index = int(math.floor(math.log10(magnitude / BIN_LOW_US) * BINS_PER_DECADE))
    return min(index, DECADES * BINS_PER_DECADE - 1)


def histograms(deliveries):
    """{fps: {slack: [fraction per bin]}} over all repeats."""
    counts = defaultdict(lambda: defaultdict(lambda: [0] * (DECADES * BINS_PER_DECADE)))
    for row in deliveries:
        bins = counts[float(row["fps"])][int(row["slack_ns"])]
        bins[bin_index(float(row["spacing_error_us"]))] += 1
    result = {}
    for fps, by_slack in counts.items():
        result[fps] = {}
        for slack, bins in by_slack.items():
            total = sum(bins)
            result[fps][slack] = ([count / total for count in bins], total)
    return result


def svg(hists, title):
    panel_w, panel_h = 420, 230
    margin_l, margin_r, margin_t, margin_b = 64, 30, 34, 44
    columns = 2
    fps_values = sorted(hists)
    rows = (len(fps_values) + columns - 1) // columns
    width = columns * (panel_w + margin_l + margin_r)
    height = rows * (panel_h + margin_t + margin_b) + 70
    out = [
        '<svg xmlns="http://www.w3.org/2000/svg" width="%d" height="%d" '
        'viewBox="0 0 %d %d" font-family="sans-serif" font-size="12">' % (width, height, width, height),
        '<rect width="100%" height="100%" fill="white"/>',
        '<text x="%d" y="22" font-size="15" text-anchor="middle">%s</text>' % (width / 2, title),
    ]
    # Legend.
    legend_x = width / 2 - 250
    for i, slack in enumerate(sorted(SLACK_NAMES)):
        x = legend_x + i * 270
        out.append(
            '<rect x="%d" y="34" width="14" height="10" fill="%s" fill-opacity="0.35" '
            'stroke="%s"/>' % (x, SLACK_COLOURS[slack], SLACK_COLOURS[slack])
        )
        out.append(
            '<text x="%d" y="44">consume-queue timer slack: %s</text>' % (x + 20, SLACK_NAMES[slack])
        )
    bins = DECADES * BINS_PER_DECADE
    for panel, fps in enumerate(fps_values):
        ox = (panel % columns) * (panel_w + margin_l + margin_r) + margin_l
        oy = (panel // columns) * (panel_h + margin_t + margin_b) + margin_t + 60
        peak = max(max(fractions) for fractions, _ in hists[fps].values())
        y_top = max(0.05, math.ceil(peak * 10) / 10)

        def x_of(bin_edge):
            return ox + bin_edge / bins * panel_w

        def y_of(fraction):
            return oy + panel_h - fraction / y_top * panel_h

        totals = ", ".join(
            "%s: %d" % (SLACK_NAMES.get(slack, slack), total)
            for slack, (_, total) in sorted(hists[fps].items())
        )
        out.append(
            '<text x="%d" y="%d" font-weight="bold">%g fps</text>' % (ox, oy - 8, fps)
            + '<text x="%d" y="%d" text-anchor="end" fill="#555">deliveries %s</text>'
            % (ox + panel_w, oy - 8, totals)
        )
        # Grid and axes.
        for step in range(0, 11):
            fraction = y_top * step / 10
            if step % 2 == 0:
                y = y_of(fraction)
                out.append(
                    '<line x1="%d" y1="%.1f" x2="%d" y2="%.1f" stroke="#e5e5e5"/>'
                    % (ox, y, ox + panel_w, y)
                )
                out.append(
                    '<text x="%d" y="%.1f" text-anchor="end">%d%%</text>'
                    % (ox - 6, y + 4, round(fraction * 100))
                )
        for decade in range(DECADES + 1):
            x = x_of(decade * BINS_PER_DECADE)
            label = ["1 µs", "10 µs", "100 µs", "1 ms", "10 ms", "100 ms"][decade]
            out.append(
                '<line x1="%.1f" y1="%d" x2="%.1f" y2="%d" stroke="#e5e5e5"/>'
                % (x, oy, x, oy + panel_h)
            )
            out.append(
                '<text x="%.1f" y="%d" text-anchor="middle">%s</text>' % (x, oy + panel_h + 16, label)
            )
        out.append(
            '<rect x="%d" y="%d" width="%d" height="%d" fill="none" stroke="#888"/>'
            % (ox, oy, panel_w, panel_h)
        )
        out.append(
            '<text x="%d" y="%d" text-anchor="middle" fill="#555">'
            "|delivery spacing − producer spacing|, log scale (under 1 µs in the first bin)</text>"
            % (ox + panel_w / 2, oy + panel_h + 34)
        )
        out.append(
            '<text transform="translate(%d,%d) rotate(-90)" text-anchor="middle" fill="#555">'
            "share of deliveries</text>" % (ox - 44, oy + panel_h / 2)
        )
        # One step outline per slack, filled lightly.
        for slack in sorted(hists[fps]):
            fractions, _ = hists[fps][slack]
            points = ["%.1f,%.1f" % (x_of(0), y_of(0))]
            for index, fraction in enumerate(fractions):
                points.append("%.1f,%.1f" % (x_of(index), y_of(fraction)))
                points.append("%.1f,%.1f" % (x_of(index + 1), y_of(fraction)))
            points.append("%.1f,%.1f" % (x_of(bins), y_of(0)))
            colour = SLACK_COLOURS.get(slack, "#7570b3")
            out.append(
                '<polygon points="%s" fill="%s" fill-opacity="0.25" stroke="%s" '
                'stroke-width="1.5"/>' % (" ".join(points), colour, colour)
            )
    out.append("</svg>")
    return "\n".join(out) + "\n"


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("directory", type=Path)
    parser.add_argument("--svg", type=Path, help="write the spacing-error histogram here")
    parser.add_argument(
        "--title",
        default="Pacing in real time: spacing errors of 1080p deliveries (3 runs of 3 s per panel and slack)",
    )
    args = parser.parse_args()
    runs = read_rows(args.directory / "pacing-runs.csv")
    deliveries = read_rows(args.directory / "pacing-deliveries.csv")
    if not runs or not deliveries:
        sys.exit("pacing_report.py: no runs in %s" % args.directory)
    print(table(runs))
    if args.svg:
        args.svg.write_text(svg(histograms(deliveries), args.title), encoding="utf-8")
        print("\nwrote %s" % args.svg)


if __name__ == "__main__":
    main()
