#!/usr/bin/env bash
# Start-up of the camera service on PipeWire: from starting the process to each of its two nodes
# being published and ready for links ("connecting -> paused"), over N starts on a private
# session.
#
#   bash bench/startup/pipewire_startup.sh BUILD_DIR [N]
set -euo pipefail
build="$(cd "${1:?usage: pipewire_startup.sh BUILD_DIR [N]}" && pwd)"
starts="${2:-20}"
here="$(cd "$(dirname "$0")" && pwd)"
# shellcheck source=../../tests/pipewire/session.sh
source "${here}/../../tests/pipewire/session.sh"
session_start
trap session_stop EXIT
python3 - "${build}/tools/flowmere-camera-extension/flowmere-camera-extension" "${starts}" <<'PY'
import statistics
import subprocess
import sys
import time

program, starts = sys.argv[1], int(sys.argv[2])
marks = {
    "source published": "published node flowmere-camera-source",
    "sink published": "published node flowmere-camera-sink",
    "both ready for links": "flowmere-camera-sink connecting -> paused",
}
times = {name: [] for name in marks}
for _ in range(starts):
    start = time.monotonic()
    process = subprocess.Popen([program], stderr=subprocess.PIPE, text=True)
    seen = {}
    for line in process.stderr:
        for name, text in marks.items():
            if text in line and name not in seen:
                seen[name] = (time.monotonic() - start) * 1e3
        if len(seen) == len(marks):
            break
    process.terminate()
    process.wait()
    for name in marks:
        times[name].append(seen.get(name, float("nan")))
print(f"{starts} starts, milliseconds from process start:")
for name, values in times.items():
    values.sort()
    print(f"  {name:22} median {statistics.median(values):6.1f}  "
          f"p90 {values[max(0, int(len(values) * 0.9) - 1)]:6.1f}  min {values[0]:6.1f}")
PY
