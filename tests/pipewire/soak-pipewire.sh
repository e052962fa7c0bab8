#!/usr/bin/env bash
# The camera on a real PipeWire for a long while: producer restarts with format changes, camera
# clients joining and leaving at random moments, the extension's memory sampled throughout. The
# schedule, the checks and the summary are soak_pipewire.py's; this script gives it a private
# session and ends the session afterwards.
#
#   soak-pipewire.sh BUILD_DIR [soak_pipewire.py options]    e.g. --seconds 600 --rss-out rss.csv
#
# Exits 0 when every check held, 1 when one failed, 77 (skipped) when the PipeWire session tools
# are not installed.
set -uo pipefail

build="$(cd "${1:?usage: soak-pipewire.sh BUILD_DIR [options]}" && pwd)"
shift
here="$(cd "$(dirname "$0")" && pwd)"


# shellcheck source=session.sh
source "${here}/session.sh"
require_tools pipewire wireplumber dbus-daemon pw-cli python3
SESSION_PIDS=()
trap '[ "${#SESSION_PIDS[@]}" -gt 0 ] && session_stop' EXIT
session_start || { echo "FAIL: no PipeWire session"; exit 1; }
# No byte-code files in the source tree.
PYTHONDONTWRITEBYTECODE=1 python3 "${here}/soak_pipewire.py" "${build}" "$@"
