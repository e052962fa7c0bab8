#!/usr/bin/env bash
# Frames from another program: ffmpeg's raw video piped into `flowmere-camera-producer --file -`
# reaches a camera client at the rate, byte for byte, and the end of the input stops the
# camera's sink; a truncated or empty input gets its one-line message and a failing exit status.
#
#   stdin-test.sh BUILD_DIR
#
# Exits 77 (skipped) when the PipeWire session tools or ffmpeg are not installed.
set -uo pipefail

build="$(cd "${1:?usage: stdin-test.sh BUILD_DIR}" && pwd)"
here="$(cd "$(dirname "$0")" && pwd)"
extension="${build}/tools/flowmere-camera-extension/flowmere-camera-extension"
producer="${build}/tools/flowmere-camera-producer/flowmere-camera-producer"


# shellcheck source=session.sh
source "${here}/session.sh"
require_tools pipewire wireplumber dbus-daemon pw-cli ffmpeg
test_begin flowmere-stdin-test

frame_bytes=$((1280 * 720 * 4))
# testsrc2 at 720p, 5 s: the source of the issue's pipeline, and its frames' checksums.
testsrc=(-nostdin -loglevel error -f lavfi -i testsrc2=size=1280x720:rate=30 -t 5)

session_start || { echo "FAIL: no PipeWire session"; exit 1; }

start_extension

stops() { grep -c '^sink stopped$' "${work}/extension.log"; }

# Starts a receiver ($1 names its files) that keeps the first frame it gets, and waits until it
# is linked to the camera, so that it sees the producer's first frames.
start_receiver() {
  "${producer}" receive --save-frame "${work}/$1.raw" >"${work}/$1.out" 2>"${work}/$1.err" &
  receiver_pid=$!
  background+=("${receiver_pid}")
  wait_for "grep -q 'receiver: paused' '${work}/$1.err'" 10
}

# After the producer has ended: waits for the sink's stop, then ends the receiver, which prints
# its summary. $1: the stops counted before the producer started.
finish_run() {
  if wait_for "[ \$(stops) -gt $1 ]" 5; then
    sink_stopped=1
  else
    sink_stopped=0
  fi
  kill -TERM "${receiver_pid}" 2>/dev/null
  wait "${receiver_pid}" 2>/dev/null
}

# The buffer count and rate of a receiver's "got N buffers of WxH BGRA in S s: R a second".
buffers_of() { sed -n 's/^got \([0-9]*\) buffers of 1280x720 BGRA .*/\1/p' "$1"; }
rate_of() { sed -n 's/^got .*: \([0-9.]*\) a second$/\1/p' "$1"; }
# Whether receiver summary $1 shows at least $2 frames at 27 to 33 a second.
received_at_rate() {
  awk -v n="$(buffers_of "$1")" -v r="$(rate_of "$1")" -v min="$2" \
    'BEGIN { exit !(n != "" && n >= min && r >= 27 && r <= 33) }'
}

ffmpeg "${testsrc[@]}" -pix_fmt bgra -f framemd5 - 2>/dev/null | awk -F', *' '/^[0-9]/ { print $6 }' \
  >"${work}/frames.md5"
if [ "$(wc -l <"${work}/frames.md5")" -ne 150 ]; then
  fail "ffmpeg's framemd5 of testsrc2 gave $(wc -l <"${work}/frames.md5") frames, not 150"
fi

# --- 1. The issue's pipeline, exactly. Without -re ffmpeg writes as fast as it can, and the
# producer's schedule paces it (its ring and the pipe hold ffmpeg back): every one of the 150
# frames goes out, in order, 1/30 s apart.
before="$(stops)"
start_receiver scheduled
ffmpeg -f lavfi -i testsrc2=size=1280x720:rate=30 -t 5 -f rawvideo -pix_fmt bgra - \
  </dev/null 2>"${work}/ffmpeg.err" |
  "${producer}" --file - --size 1280x720 >"${work}/scheduled-producer.out" 2>"${work}/scheduled-producer.err"
statuses=("${PIPESTATUS[@]}")
finish_run "${before}"
summary="$(cat "${work}/scheduled-producer.out") / $(grep '^got' "${work}/scheduled.out")"
if [ "${statuses[*]}" = "0 0" ] &&
  grep -qx 'flowmere-camera-producer: standard input ended after 150 frames' \
    "${work}/scheduled-producer.err" &&
  grep -q '^pushed 150 frames' "${work}/scheduled-producer.out"; then
  pass "ffmpeg | producer: exit 0, \"standard input ended after 150 frames\" (${summary})"
else
  fail "ffmpeg | producer: exit statuses ${statuses[*]}, $(tail -1 "${work}/scheduled-producer.err") (${summary})"
fi
# The receiver linked before the producer, so it sees nearly all 150; a few may fall in its
# move from the camera's idle format to the producer's.
if received_at_rate "${work}/scheduled.out" 140; then
  pass "a client received $(buffers_of "${work}/scheduled.out") frames at $(rate_of "${work}/scheduled.out") a second"
else
  fail "the client's frames: $(cat "${work}/scheduled.out")"
fi
first="$(md5sum "${work}/scheduled.raw" 2>/dev/null | cut -d' ' -f1)"
if [ -n "${first}" ] && grep -qx "${first}" "${work}/frames.md5"; then
  pass "the client's first frame is ffmpeg's frame $(($(grep -nx "${first}" "${work}/frames.md5" | cut -d: -f1 | head -1) - 1)) (from 0), byte for byte"
else
  fail "the client's first frame (md5 ${first:-none}) is none of ffmpeg's frames"
fi
if [ "${sink_stopped}" -eq 1 ]; then
  pass "the end of the input stops the camera's sink (\"sink stopped\")"
else
  fail "no \"sink stopped\" after the input ended"
fi

# --- 2. A live input, paced by ffmpeg's -re as the issue's example is: frames go out as they
# arrive, stamped with their arrival, and a client still gets them at the rate. Frames that
# arrive before the link are stale to a live source and dropped, so a few may be missing.
before="$(stops)"
start_receiver live
ffmpeg -re "${testsrc[@]}" -f rawvideo -pix_fmt bgra - |
  "${producer}" --file - --size 1280x720 --live >"${work}/live-producer.out" 2>"${work}/live-producer.err"
statuses=("${PIPESTATUS[@]}")
finish_run "${before}"
if [ "${statuses[*]}" = "0 0" ] && [ "${sink_stopped}" -eq 1 ] &&
  grep -qx 'flowmere-camera-producer: standard input ended after 150 frames' \
    "${work}/live-producer.err" && received_at_rate "${work}/live.out" 135; then
  pass "ffmpeg -re | producer --live: exit 0, sink stopped, $(grep '^got' "${work}/live.out")"
else
  fail "live: exit statuses ${statuses[*]}, sink stopped ${sink_stopped}, $(tail -1 "${work}/live-producer.err"), $(cat "${work}/live.out")"
fi

# --- 3. Input that ends inside a frame: the whole frames go out, then the one-line message, a
# failing exit status, and the sink stops.
before="$(stops)"
head -c $((3 * frame_bytes + 1000)) /dev/zero |
  "${producer}" --file - --size 1280x720 >"${work}/short.out" 2>"${work}/short.err"
status="${PIPESTATUS[1]}"
expected="flowmere-camera-producer: the last frame was short: 1000 of ${frame_bytes} bytes (after 3 whole frames of 1280x720 bgra)"
if [ "${status}" -eq 1 ] && grep -qxF "${expected}" "${work}/short.err" &&
  [ "$(grep -c '^flowmere-camera-producer: ' "${work}/short.err")" -eq 1 ] &&
  grep -q '^pushed 3 frames' "${work}/short.out" && wait_for "[ \$(stops) -gt ${before} ]" 5; then
  pass "a truncated input: exit 1, \"${expected#flowmere-camera-producer: }\", sink stopped"
else
  fail "truncated input: exit ${status}, $(grep '^flowmere-camera-producer: ' "${work}/short.err"), $(cat "${work}/short.out")"
fi

# --- 4. An empty input (an upstream program that failed) is a failure too.
"${producer}" --file - --size 1280x720 </dev/null >"${work}/empty.out" 2>"${work}/empty.err"
status=$?
if [ "${status}" -eq 1 ] &&
  grep -qx 'flowmere-camera-producer: standard input ended before its first frame' "${work}/empty.err"; then
  pass "an empty input: exit 1, \"standard input ended before its first frame\""
else
  fail "empty input: exit ${status}, $(grep '^flowmere-camera-producer: ' "${work}/empty.err")"
fi

if [ "${failures}" -gt 0 ]; then
  echo "--- extension log (last 30 lines)"
  tail -30 "${work}/extension.log"
  exit 1
fi
echo "all standard-input checks passed"
