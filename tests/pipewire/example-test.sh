#!/usr/bin/env bash
# The minimal producer of docs/PRODUCER.md (examples/minimal-producer) against the camera: a
# client receives its frames at 30 a second, and Ctrl-C ends it cleanly and stops the sink.
#
#   example-test.sh BUILD_DIR
#
# Exits 77 (skipped) when the PipeWire session tools are not installed.
set -uo pipefail

build="$(cd "${1:?usage: example-test.sh BUILD_DIR}" && pwd)"
here="$(cd "$(dirname "$0")" && pwd)"
extension="${build}/tools/flowmere-camera-extension/flowmere-camera-extension"
producer="${build}/tools/flowmere-camera-producer/flowmere-camera-producer"
example="${build}/examples/minimal-producer/minimal-producer"


# shellcheck source=session.sh
source "${here}/session.sh"
require_tools pipewire wireplumber dbus-daemon pw-cli
test_begin flowmere-example-test

session_start || { echo "FAIL: no PipeWire session"; exit 1; }

start_extension

# The client links first and captures for 3 s; the example runs meanwhile and is ended with
# SIGINT, as Ctrl-C would, once the client is done.
"${producer}" receive --seconds 3 >"${work}/receiver.out" 2>"${work}/receiver.err" &
receiver_pid=$!
background+=("${receiver_pid}")
wait_for "grep -q 'receiver: paused' '${work}/receiver.err'" 10
"${example}" >"${work}/example.out" 2>"${work}/example.err" &
example_pid=$!
background+=("${example_pid}")
wait "${receiver_pid}"
kill -INT "${example_pid}"
wait "${example_pid}"
status=$?

got="$(grep '^got' "${work}/receiver.out")"
if awk -v line="${got}" 'BEGIN {
      n = split(line, w, " "); count = w[2]; rate = w[n - 2]
      exit !(count >= 60 && rate >= 27 && rate <= 33) }'; then
  pass "a client received the example's frames: ${got}"
else
  fail "the example's frames: ${got:-no summary} ($(tail -2 "${work}/example.err"))"
fi
if [ "${status}" -eq 0 ] && grep -q '^sent [0-9]* frames$' "${work}/example.out" &&
  wait_for "grep -q '^sink stopped$' '${work}/extension.log'" 5; then
  pass "Ctrl-C ends the example with status 0 ($(cat "${work}/example.out")) and the sink stops"
else
  fail "the example's end: exit ${status}, $(cat "${work}/example.out"), $(tail -1 "${work}/example.err")"
fi

if [ "${failures}" -gt 0 ]; then
  echo "--- extension log (last 30 lines)"
  tail -30 "${work}/extension.log"
  exit 1
fi
echo "all example checks passed"
