#!/usr/bin/env bash
# Clients that fail must cost the other clients nothing. On a private PipeWire session, with the
# producer at 1280x720 BGRA 30 fps, each failure below happens while another client captures;
# that client's frame rate is measured from its own time stamps (CLOCK_MONOTONIC, as each frame
# is dequeued), from 1 s after the failure on:
# - a GStreamer client that opened the camera before the producer, at another format, and cannot
#   follow the change: the camera cuts its link, and a fresh client is served;
# - a GStreamer client (pipewiresrc ! fakesink, which keeps its last buffer) killed with SIGKILL:
#   the camera takes back the buffer it held;
# - the same client stopped with SIGSTOP for 6 s.
# And the idle picture: a client that opens the camera before any producer sees it within 5 s at
# 30 fps, and a client sees it again when the producer stops.
#
#   client-faults-test.sh BUILD_DIR
#
# Exits 77 (skipped) when the PipeWire session tools or GStreamer are not installed.
set -uo pipefail

build="$(cd "${1:?usage: client-faults-test.sh BUILD_DIR}" && pwd)"
here="$(cd "$(dirname "$0")" && pwd)"
extension="${build}/tools/flowmere-camera-extension/flowmere-camera-extension"
producer="${build}/tools/flowmere-camera-producer/flowmere-camera-producer"

# shellcheck source=session.sh
source "${here}/session.sh"
require_tools pipewire wireplumber dbus-daemon pw-cli gst-launch-1.0 python3
test_begin flowmere-client-faults-test

monotonic_now() { python3 -c 'import time; print(time.monotonic_ns())'; }
# Frames per second that client $1 received between $2 + $3 s and $2 + $4 s ($2: a CLOCK_MONOTONIC
# instant in ns), and the longest gap between two of them in ms: prints "FPS GAP".
rate_between() {
  awk -v at="$2" -v from="$3" -v to="$4" '
    { t = $2 } t >= at + from * 1e9 && t < at + to * 1e9 {
      if (previous != "" && t - previous > gap) gap = t - previous
      previous = t; n++ }
    END { printf "%.2f %.1f\n", n / (to - from), gap / 1e6 }' "${work}/$1.times"
}
# (A client's time stamps reach its file when it ends: rates are read after that.)
# Starts our receiver as client $1 for $2 seconds, as ${client_pid}.
start_receiver() {
  "${producer}" receive --seconds "$2" --timestamps "${work}/$1.times" >"${work}/$1.out" \
    2>"${work}/$1.err" &
  client_pid=$!
  background+=("${client_pid}")
}
# Starts a GStreamer client $1 that keeps its last buffer, as ${gst_pid}, and waits until the
# camera has it as a client that streams.
start_gstreamer_client() {
  local before
  before="$(grep -c 'flowmere-camera-source streams with' "${work}/extension.log")"
  gst-launch-1.0 pipewiresrc target-object=flowmere-camera-source ! video/x-raw ! fakesink \
    >"${work}/$1.out" 2>&1 &
  gst_pid=$!
  background+=("${gst_pid}")
  wait_for "[ \$(grep -c 'flowmere-camera-source streams with' '${work}/extension.log') -gt ${before} ]" 10
}
# Runs client $1 for $2 seconds; it must get at least $3 frames at 29 fps or more ($4 says who).
check_served() {
  local frames rate
  start_receiver "$1" "$2"
  wait "${client_pid}"
  read -r frames rate < <(sed -n 's/^received \([0-9]*\) frames in [0-9.]* s (\([0-9.]*\) fps).*/\1 \2/p' "${work}/$1.out")
  if [ "${frames:-0}" -ge "$3" ] && awk -v r="${rate:-0}" 'BEGIN { exit !(r >= 29) }'; then
    pass "$4: ${frames} frames at ${rate} fps"
  else
    fail "$4: $(head -1 "${work}/$1.out")"
  fi
}
# Whether client $1's rate from 1 s to $3 s after instant $2 is at least 29 fps.
check_rate() {
  local fps gap
  read -r fps gap < <(rate_between "$1" "$2" 1 "$3")
  if awk -v r="${fps}" 'BEGIN { exit !(r >= 29) }'; then
    pass "$4: the other client got ${fps} fps (longest gap ${gap} ms) from 1 s after it"
  else
    fail "$4: the other client got ${fps} fps (longest gap ${gap} ms) from 1 s after it"
  fi
}

session_start || { echo "FAIL: no PipeWire session"; exit 1; }
start_extension

# --- 1. The idle picture before the producer; a GStreamer client linked at the first offer.
start_receiver idle 3
idle_pid=${client_pid}
if wait_for "grep -q 'receiver: first idle picture' '${work}/idle.err'" 5; then
  pass "a client that opens the camera before any producer sees the idle picture within 5 s"
else
  fail "no idle picture within 5 s"
fi
wait "${idle_pid}"
read -r idle_count idle_rate < <(sed -n 's/^idle pictures: \([0-9]*\) in [0-9.]* s (\([0-9.]*\) fps)/\1 \2/p' "${work}/idle.out")
if awk -v r="${idle_rate:-0}" 'BEGIN { exit !(r >= 29) }'; then
  pass "the idle picture at ${idle_rate} fps (${idle_count} pictures)"
else
  fail "the idle picture at ${idle_rate:-0} fps (${idle_count:-0} pictures)"
fi

start_gstreamer_client early
early_pid=${gst_pid}
"${producer}" --size 1280x720 --format bgra --fps 30 >"${work}/producer.out" \
  2>"${work}/producer.err" &
producer_pid=$!
background+=("${producer_pid}")
wait_for "grep -q 'producer: streaming' '${work}/producer.err'" 10

# The early GStreamer client usually cannot follow 1920x1080 -> 1280x720 and then keeps every
# buffer it is given: the camera cuts its link. Either way, new clients are served.
if wait_for "grep -q 'cuts off link .*gst-launch-1.0 (pid ${early_pid})' '${work}/extension.log'" 4; then
  echo "  the early client could not follow and was cut off: $(grep -o 'cuts off link.*' "${work}/extension.log" | head -1)"
else
  echo "  the early client followed the format change (no cut needed)"
fi
check_served fresh 4 100 "a fresh client after the early one"
end_processes "${early_pid}" "${producer_pid}"

# --- 2. A client killed with SIGKILL while it holds a buffer, and 3. one stopped for 6 s.
"${producer}" --size 1280x720 --format bgra --fps 30 >"${work}/producer2.out" \
  2>"${work}/producer2.err" &
producer_pid=$!
background+=("${producer_pid}")
wait_for "grep -q 'producer: streaming' '${work}/producer2.err'" 10
start_receiver watcher 60
watcher_pid=${client_pid}
wait_for "grep -q 'receiver: first frame' '${work}/watcher.err'" 10

start_gstreamer_client killed
sleep 1
killed="$(monotonic_now)"
kill -KILL "${gst_pid}"
sleep 6
if grep -q "takes back the buffers: gst-launch-1.0 (pid ${gst_pid}) went away holding" "${work}/extension.log"; then
  pass "the camera took back the killed client's buffer"
else
  fail "the camera did not take back the killed client's buffer"
fi

start_gstreamer_client stopped
stopped_pid=${gst_pid}
sleep 1
stopped="$(monotonic_now)"
kill -STOP "${stopped_pid}"
sleep 6
kill -CONT "${stopped_pid}"
end_processes "${stopped_pid}"

check_served late 3 70 "a new client after the faults"

# --- 4. The producer stops: the idle picture returns, without the client doing anything.
end_processes "${producer_pid}"
if wait_for "grep -Eq 'receiver: (first idle picture|idle picture again)' '${work}/watcher.err'" 3; then
  pass "the idle picture came back after the producer stopped"
else
  fail "no idle picture after the producer stopped"
fi
end_processes "${watcher_pid}"
check_rate watcher "${killed}" 6 "SIGKILL of a client holding a buffer"
check_rate watcher "${stopped}" 6 "SIGSTOP of a client for 6 s"


grep -E 'takes back|cuts off|idle picture' "${work}/extension.log" | sed 's/^/  log: /'
if [ "${failures}" -eq 0 ]; then
  echo "all client fault checks passed"
else
  FLOWMERE_TEST_KEEP=1
  tail -30 "${work}/extension.log"
fi
exit "${failures}"
