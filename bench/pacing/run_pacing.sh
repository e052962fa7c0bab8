#!/usr/bin/env bash
# Runs the pacing benchmark (8 rows x 3 repeats of 3 s) and turns its CSV files into the
# Markdown table and the spacing-error histogram of docs/PERFORMANCE.md.
#
#   bash bench/pacing/run_pacing.sh [BUILD_DIR] [SVG]
#
# BUILD_DIR defaults to build/bench-release (configured as docs/PERFORMANCE.md says), SVG to
# docs/images/pacing-spacing-hist.svg. The CSV files stay in BUILD_DIR/pacing.
set -euo pipefail
cd "$(dirname "$0")/../.."
build=${1:-build/bench-release}
svg=${2:-docs/images/pacing-spacing-hist.svg}
ninja -C "$build" pacing_benchmark
mkdir -p "$build/pacing"
"$build/bench/pacing/pacing_benchmark" --pacing_out="$build/pacing"
python3 bench/pacing/pacing_report.py "$build/pacing" --svg "$svg"
