#!/usr/bin/env bash
# The camera on a real PipeWire in real time: frames keep the producer's rate at 4K in both join
# orders, the sink reports waiting only when the producer really pauses, and the status reads
# "received N" while frames flow. The precise latency and CPU figures are the benchmark's
# (bench/pipewire/relay_latency.sh); this test catches a relay that collapses.
#
#   realtime-test.sh BUILD_DIR
#
# Exits 77 (skipped) when the PipeWire session tools are not installed.
set -uo pipefail

build="$(cd "${1:?usage: realtime-test.sh BUILD_DIR}" && pwd)"
here="$(cd "$(dirname "$0")" && pwd)"
extension="${build}/tools/flowmere-camera-extension/flowmere-camera-extension"
producer="${build}/tools/flowmere-camera-producer/flowmere-camera-producer"


# shellcheck source=session.sh
source "${here}/session.sh"
require_tools pipewire wireplumber dbus-daemon pw-cli
test_begin flowmere-realtime-test

# The frame rate in a receiver's summary line ("received N frames in S s (F fps): ...").
rate_of() { sed -n 's/.*(\([0-9.]*\) fps).*/\1/p' "$1"; }
# Whether the rate in summary $1 is at least $2 frames/s.
rate_at_least() { awk -v r="$(rate_of "$1")" -v min="$2" 'BEGIN { exit !(r != "" && r >= min) }'; }

session_start || { echo "FAIL: no PipeWire session"; exit 1; }
export FLOWMERE_STATE="${XDG_DATA_HOME}/group.com.flowmere.av.shared/com.flowmere.av.state"

start_extension

# Runs one producer ($2...) with a receiver for 5 s; $1 is the join order: "producer-first" or
# "client-first". The receiver's summary goes to ${work}/$3.out.
relay_run() {
  local order="$1" name="$2"
  shift 2
  local producer_pid receiver_pid
  if [ "${order}" = client-first ]; then
    "${producer}" receive --seconds 7 >"${work}/${name}.out" 2>"${work}/${name}.err" &
    receiver_pid=$!
    wait_for "grep -q 'receiver: paused' '${work}/${name}.err'" 10
  fi
  "${producer}" "$@" >"${work}/${name}-producer.out" 2>"${work}/${name}-producer.err" &
  producer_pid=$!
  background+=("${producer_pid}")
  if [ "${order}" = producer-first ]; then
    wait_for "grep -q 'producer: streaming' '${work}/${name}-producer.err'" 10
    "${producer}" receive --seconds 5 >"${work}/${name}.out" 2>"${work}/${name}.err" &
    receiver_pid=$!
  fi
  wait "${receiver_pid}"
  kill "${producer_pid}" 2>/dev/null
  wait "${producer_pid}" 2>/dev/null
  wait_for "! pw-cli ls Node | grep -q '\"flowmere-camera-producer\"'" 5
}

# --- 1. 4K BGRA at 30 fps in both join orders: the relay keeps up. A collapsing relay delivers
# 6-15 frames/s here; 27 leaves room for a busy machine.
for order in producer-first client-first; do
  relay_run "${order}" "4k-${order}" --size 3840x2160 --format bgra --fps 30 --seconds 30
  summary="$(cat "${work}/4k-${order}.out")"
  if rate_at_least "${work}/4k-${order}.out" 27; then
    pass "4K, ${order}: ${summary}"
  else
    fail "4K, ${order}: ${summary:-no summary} ($(tail -1 "${work}/4k-${order}.err"))"
  fi
done

# --- 2. 1080p at 30 fps: while frames flow the sink never reports waiting, and the status the
# extension records is the frame count. Only lines after this producer's sink start count: the
# previous producer's stop may still be logging its last (empty) request.
"${producer}" --size 1920x1080 --format bgra --fps 30 --seconds 30 \
  >"${work}/flow-producer.out" 2>"${work}/flow-producer.err" &
flow_pid=$!
background+=("${flow_pid}")
wait_for "grep -q 'producer: streaming' '${work}/flow-producer.err'" 10
"${producer}" receive --seconds 4 >"${work}/flow.out" 2>"${work}/flow.err" &
flow_receiver=$!
# Read while the client captures: the frame count's status is written every 30 frames, so the
# client's own "source started" is the latest status for up to a second.
wait_for "grep -q 'receiver: first frame' '${work}/flow.err'" 10
wait_for "grep -q '^received ' '${FLOWMERE_STATE}/bridge_extension_status'" 3
status="$(cat "${FLOWMERE_STATE}/bridge_extension_status" 2>/dev/null)"
wait "${flow_receiver}"
# Not a check (see the issue notes): whether the count still grows once the client has gone.
count_after="$(cat "${FLOWMERE_STATE}/bridge_frames_received" 2>/dev/null)"
sleep 1.5
count_later="$(cat "${FLOWMERE_STATE}/bridge_frames_received" 2>/dev/null)"
echo "frames received by the sink, 1.5 s apart after the client left: ${count_after:-?} -> ${count_later:-?}"
start_line="$(grep -n 'sink startStream started=true' "${work}/extension.log" | tail -1 | cut -d: -f1)"
waiting="$(tail -n +"${start_line:-1}" "${work}/extension.log" | grep -c 'sink waiting')"
if [ "${waiting}" -eq 0 ] && [[ "${status}" == received\ * ]]; then
  pass "frames flowing: no waiting line, status \"${status}\""
else
  fail "frames flowing: ${waiting} waiting lines, status \"${status}\""
fi
stops="$(grep -c 'sink stopStream' "${work}/extension.log")"
kill "${flow_pid}" 2>/dev/null
wait "${flow_pid}" 2>/dev/null
# The next check reads the log from here on: the stop of this producer must be logged first.
wait_for "[ \$(grep -c 'sink stopStream' '${work}/extension.log') -gt ${stops} ]" 5
wait_for "grep -q '^sink stopped$' <(tail -1 '${work}/extension.log')" 2

# --- 3. A producer that stalls for 1.2 s while linked: the sink reports waiting during the
# stall, and the relay resumes after it.
lines_before="$(wc -l <"${work}/extension.log")"
"${producer}" --size 1280x720 --format bgra --fps 30 --seconds 5 --pause 1.5,1.2 \
  >"${work}/pause-producer.out" 2>"${work}/pause-producer.err" &
pause_pid=$!
background+=("${pause_pid}")
wait "${pause_pid}"
wait_for "tail -n +$((lines_before + 1)) '${work}/extension.log' | grep -q 'sink stopStream'" 5
tail -n +"$((lines_before + 1))" "${work}/extension.log" >"${work}/pause.log"
waiting_line="$(grep -n -m1 'sink waiting polls=1' "${work}/pause.log" | cut -d: -f1)"
stop_line="$(grep -n -m1 'sink stopStream' "${work}/pause.log" | cut -d: -f1)"
if [ -n "${waiting_line}" ] && [ -n "${stop_line}" ] && [ "${waiting_line}" -lt "${stop_line}" ] &&
  grep -q '^sink waiting for buffers polls=1$' "${work}/pause.log"; then
  pass "a stalled producer makes the sink report waiting before it stops"
else
  fail "stalled producer: waiting line ${waiting_line:-none}, stop line ${stop_line:-none}"
fi
if [ "${failures}" -gt 0 ]; then
  echo "--- extension log (last 40 lines)"
  tail -40 "${work}/extension.log"
  exit 1
fi
echo "all real-time checks passed"
