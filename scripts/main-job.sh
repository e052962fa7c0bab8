#!/usr/bin/env bash
# The main job: builds the release preset and runs the relay demo on the embedded camera service
# for a few seconds, printing a progress line a second and a summary; the extension's log goes to
# the file the summary names (--verbose also copies it to stderr). Installs what is missing first.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh
cmake --preset release >/dev/null
cmake --build --preset release -j "$(nproc)" --target flowmere-camera-sim
exec ./build/release/tools/flowmere-camera-sim/flowmere-camera-sim demo --seconds "${SECONDS_TO_RUN:-5}" \
  --snapshot build/demo-snapshot.png "$@"
