#!/usr/bin/env bash
# Camera clients in every order: a V4L2 program through PipeWire's V4L2 layer on the default
# device, a client opened before the producer, clients back to back, two at once with a third
# joining and leaving, and a stretch of joins and leaves after which the rate still holds. Each
# client reads the producer's frame numbers from the pixels.
#
#   clients-test.sh BUILD_DIR [JOIN_SECONDS]
#
# Exits 77 (skipped) when the PipeWire session tools are not installed.
set -uo pipefail

build="$(cd "${1:?usage: clients-test.sh BUILD_DIR [JOIN_SECONDS]}" && pwd)"
join_seconds="${2:-90}"
here="$(cd "$(dirname "$0")" && pwd)"
extension="${build}/tools/flowmere-camera-extension/flowmere-camera-extension"
producer="${build}/tools/flowmere-camera-producer/flowmere-camera-producer"


# shellcheck source=session.sh
source "${here}/session.sh"
require_tools pipewire wireplumber dbus-daemon pw-cli
test_begin flowmere-clients-test

# Fields of a receiver's summary ("received N frames in S s (F fps): numbers A..B, M missing,
# R repeated, O out of order, U unreadable") in file $1: prints "N F M R O U".
summary_fields() {
  sed -n 's/^received \([0-9]*\) frames in [0-9.]* s (\([0-9.]*\) fps): numbers [0-9]*\.\.[0-9]*, \([0-9]*\) missing, \([0-9]*\) repeated, \([0-9]*\) out of order, \([0-9]*\) unreadable$/\1 \2 \3 \4 \5 \6/p' "$1"
}
# Whether summary $1 shows at least $2 frames, none missing, repeated, out of order or unreadable.
clean_capture() {
  local frames rate missing repeated backwards unreadable
  read -r frames rate missing repeated backwards unreadable < <(summary_fields "$1")
  [ -n "${frames:-}" ] && [ "${frames}" -ge "$2" ] && [ "${missing}" -eq 0 ] &&
    [ "${repeated}" -eq 0 ] && [ "${backwards}" -eq 0 ] && [ "${unreadable}" -eq 0 ]
}
receive() {  # receive NAME SECONDS: a client in the foreground, summary in NAME.out
  "${producer}" receive --seconds "$2" >"${work}/$1.out" 2>"${work}/$1.err"
}

session_start || { echo "FAIL: no PipeWire session"; exit 1; }
"${extension}" >"${work}/extension.log" 2>&1 &
background+=("$!")
wait_for "grep -q 'flowmere-camera-sink connecting -> paused' '${work}/extension.log'" 10 ||
  { echo "FAIL: the extension published no nodes"; exit 1; }

# --- 1. A client opened before the producer follows the producer's format and gets its frames.
"${producer}" receive --seconds 6 >"${work}/early.out" 2>"${work}/early.err" &
early_pid=$!
wait_for "grep -q 'receiver: paused' '${work}/early.err'" 10
"${producer}" --size 1280x720 --format bgra --fps 30 --timestamps "${work}/push.txt" \
  >"${work}/producer.out" 2>"${work}/producer.err" &
producer_pid=$!
background+=("${producer_pid}")
wait "${early_pid}"
if clean_capture "${work}/early.out" 90; then
  pass "a client opened before the producer: $(cat "${work}/early.out")"
else
  fail "a client opened before the producer: $(cat "${work}/early.out") ($(tail -1 "${work}/early.err"))"
fi

# --- 2. A V4L2 program through PipeWire's V4L2 layer, on the default device, no target given:
# the layer must find the camera, not the producers' input.
if command -v pw-v4l2 >/dev/null && command -v ffmpeg >/dev/null; then
  mkdir -p "${work}/v4l2"
  # Every frame as it arrives: the layer reports no frame interval, and ffmpeg's default
  # constant-rate output would duplicate and drop frames to meet a rate it guessed.
  timeout 30 pw-v4l2 ffmpeg -nostdin -loglevel error -f v4l2 -i /dev/video0 -fps_mode passthrough \
    -frames:v 30 "${work}/v4l2/frame-%05d.png" >"${work}/v4l2.log" 2>&1
  result="$("${producer}" check "${work}"/v4l2/*.png 2>&1 | tail -1)"
  if [ "$(ls "${work}/v4l2" | wc -l)" -eq 30 ] && "${producer}" check "${work}"/v4l2/*.png \
    >/dev/null 2>&1; then
    pass "pw-v4l2 ffmpeg on /dev/video0: ${result}"
  else
    fail "pw-v4l2 ffmpeg: ${result} $(tail -2 "${work}/v4l2.log")"
  fi
else
  echo "SKIP: pw-v4l2 or ffmpeg is not installed"
fi

# --- 3. Five clients back to back, each opened right after the previous one closed.
back_to_back=0
for round in 1 2 3 4 5; do
  receive "round-${round}" 2
  if clean_capture "${work}/round-${round}.out" 40; then
    back_to_back=$((back_to_back + 1))
  else
    echo "  round ${round}: $(cat "${work}/round-${round}.out") ($(tail -1 "${work}/round-${round}.err"))"
  fi
done
[ "${back_to_back}" -eq 5 ] && pass "five clients back to back each get their frames" ||
  fail "back to back: ${back_to_back} of 5 clients got clean frames"

# --- 4. Two clients at once, a third joining and leaving in the middle.
"${producer}" receive --seconds 6 >"${work}/first.out" 2>"${work}/first.err" &
first_pid=$!
"${producer}" receive --seconds 6 >"${work}/second.out" 2>"${work}/second.err" &
second_pid=$!
wait_for "grep -q 'receiver: streaming' '${work}/second.err'" 10
receive third 2
wait "${first_pid}" "${second_pid}"
if clean_capture "${work}/first.out" 150 && clean_capture "${work}/second.out" 150 &&
  clean_capture "${work}/third.out" 40; then
  pass "two clients at once and a third joining and leaving all get every frame"
else
  fail "two clients and a third: $(cat "${work}/first.out") / $(cat "${work}/second.out") / $(cat "${work}/third.out")"
fi

# --- 5. Clients joining and leaving for a while: the relay's rate holds at the end.
joins=0
deadline=$((SECONDS + join_seconds))
while [ "${SECONDS}" -lt "${deadline}" ]; do
  # Short sessions of varying length, sometimes two overlapping.
  "${producer}" receive --seconds "0.$((RANDOM % 9 + 1))" >/dev/null 2>&1 &
  short_pid=$!
  "${producer}" receive --seconds "1.$((RANDOM % 5))" >/dev/null 2>&1
  wait "${short_pid}"
  joins=$((joins + 2))
done
receive final 4
read -r frames rate _ < <(summary_fields "${work}/final.out")
if clean_capture "${work}/final.out" 100 &&
  awk -v r="${rate:-0}" 'BEGIN { exit !(r >= 28) }'; then
  pass "after ${joins} joins and leaves in ${join_seconds} s: $(cat "${work}/final.out")"
else
  fail "after ${joins} joins and leaves: $(cat "${work}/final.out")"
fi

end_processes "${producer_pid}"
if [ "${failures}" -gt 0 ]; then
  echo "--- extension log (last 30 lines)"
  grep -v "VANE-EXT\] \(sink received\|source send\)" "${work}/extension.log" | tail -30
  exit 1
fi
echo "all client checks passed"
