#!/usr/bin/env bash
# Producer-to-consumer latency and CPU per frame through the camera service, side by side with a
# GStreamer relay doing the same two hops (pipewiresrc ! pipewiresink), at 1080p and 4K BGRA,
# 30 fps, on one private PipeWire session. Prints the Markdown table of docs/PERFORMANCE.md; each
# run's figures go to stderr as it ends.
#
#   bash bench/pipewire/relay_latency.sh BUILD_DIR [relay_latency.py options]
#
# BUILD_DIR needs flowmere-camera-extension and flowmere-camera-producer built. Options (see
# relay_latency.py): --repeats N (3), --seconds S (10), --warmup S (2), --sizes, --fps, --cases,
# --out DIR (each run's logs and time stamp files; a temporary directory otherwise).
set -euo pipefail
build="$(cd "${1:?usage: relay_latency.sh BUILD_DIR [options]}" && pwd)"
shift
here="$(cd "$(dirname "$0")" && pwd)"
for tool in pipewire wireplumber dbus-daemon pw-cli gst-launch-1.0 python3; do
  command -v "${tool}" >/dev/null || { echo "relay_latency: ${tool} is not installed" >&2; exit 1; }
done
# shellcheck source=../../tests/pipewire/session.sh
source "${here}/../../tests/pipewire/session.sh"
session_start
trap session_stop EXIT
# session_start keeps the session's processes in order: the bus, PipeWire, WirePlumber.
python3 "${here}/relay_latency.py" "${build}" --pipewire-pid "${SESSION_PIDS[1]}" "$@"
