#!/usr/bin/env bash
# The camera on a real PipeWire, end to end: starts a private session, the extension service and
# producers, and checks what camera clients see.
#
#   camera-test.sh BUILD_DIR
#
# Exits 77 (skipped) when the PipeWire session tools are not installed.
set -uo pipefail

build="$(cd "${1:?usage: camera-test.sh BUILD_DIR}" && pwd)"
here="$(cd "$(dirname "$0")" && pwd)"
extension="${build}/tools/flowmere-camera-extension/flowmere-camera-extension"
producer="${build}/tools/flowmere-camera-producer/flowmere-camera-producer"
status_tool="${build}/tools/flowmere-camera-status/flowmere-camera-status"


# shellcheck source=session.sh
source "${here}/session.sh"
require_tools pipewire wireplumber dbus-daemon pw-cli gst-launch-1.0 gst-device-monitor-1.0
test_begin flowmere-camera-test

# Starts the producer in the background with the arguments after $1, and waits until the camera
# offers its format ($1, as the log names it: "1920x1080 BGRA") first. A client that links while
# the camera is still switching may take the old format; GStreamer's pipewiresrc then keeps its
# first caps although the link moves on to the new format.
start_producer() {
  local offer="$1"
  shift
  "${producer}" "$@" >"${work}/producer.out" 2>"${work}/producer.err" &
  producer_pid=$!
  background+=("${producer_pid}")
  wait_for_offer "${work}/extension.log" "${offer}" ||
    echo "  (the camera did not offer ${offer} first within 10 s)"
}

stop_producer() {
  kill "${producer_pid}" 2>/dev/null || true
  wait "${producer_pid}" 2>/dev/null || true
  wait_for "! pw-cli ls Node | grep -q '\"flowmere-camera-producer\"'" 5
}

# Captures $1 frames from the camera as PNG files into directory $2; $3 are the caps. The client
# copies each frame out of PipeWire's buffer at once and encodes behind an unbounded queue, so a
# slow encoder on a busy machine cannot hold the camera's buffers and make it drop frames.
capture() {
  local count="$1" directory="$2" caps="${3:-video/x-raw,format=BGRA}"
  rm -rf "${directory}" && mkdir -p "${directory}"
  timeout 60 gst-launch-1.0 -q pipewiresrc target-object=flowmere-camera-source always-copy=true \
    num-buffers="${count}" ! "${caps}" ! \
    queue max-size-buffers=0 max-size-bytes=0 max-size-time=0 ! videoconvert ! \
    pngenc compression-level=1 ! multifilesink location="${directory}/frame-%05d.png" \
    >"${directory}.log" 2>&1
}

session_start || { echo "FAIL: no PipeWire session"; exit 1; }

"${extension}" >"${work}/extension.log" 2>&1 &
extension_pid=$!
background+=("${extension_pid}")
if ! wait_for "pw-cli ls Node | grep -q flowmere-camera-source" 10; then
  fail "the extension published no source node"
  cat "${work}/extension.log"
  exit 1
fi

# --- 1. Camera clients see the camera with its ten formats.
gst-device-monitor-1.0 Video/Source >"${work}/monitor.txt" 2>&1 &
monitor_pid=$!
sleep 3
kill "${monitor_pid}" 2>/dev/null
wait "${monitor_pid}" 2>/dev/null
caps_lines="$(sed -n '/name  : Flowmere AV Camera Source/,/properties:/p' "${work}/monitor.txt" |
  grep -c 'video/x-raw')"
if [ "${caps_lines}" -eq 10 ]; then
  pass "gst-device-monitor lists \"Flowmere AV Camera Source\" with 10 formats"
else
  fail "gst-device-monitor: ${caps_lines} formats for the camera"
  cat "${work}/monitor.txt"
fi

# --- 2. A 1280x720 BGRA producer at 30 fps: 10 s of frames arrive, exact, none repeated and
# none lost. The producer must outlive the check of the 300 files and section 3 (about 30 s in
# the AddressSanitizer build, where the check alone takes half a minute).
#
# In the AddressSanitizer build the service takes more of the machine's two cores, and this
# client, which encodes every frame as PNG, may then miss a frame or three (in 4 of 17 runs,
# with the producer skipping none and the service dropping none; the fault test's lighter
# clients lose none there). That build allows up to 3 of the 300 missing; pixels stay exact.
allowed_missing=0
if grep -qa __asan_init "${extension}"; then
  allowed_missing=3
fi
start_producer "1280x720 BGRA" --size 1280x720 --format bgra --fps 30 --seconds 200
start=$(date +%s%N)
capture 300 "${work}/capture-720p"
elapsed=$(awk -v ns="$(($(date +%s%N) - start))" 'BEGIN { printf "%.2f", ns / 1e9 }')
result="$("${producer}" check --allow-gaps "${work}"/capture-720p/*.png 2>&1 | tail -3)"
checked=$?
echo "  ${result}"
read -r missing repeated < <(sed -n 's/.* \([0-9]*\) missing, \([0-9]*\) repeated,.*/\1 \2/p' <<<"${result}")
if [ "$(ls "${work}/capture-720p" | wc -l)" -eq 300 ] && [ "${checked}" -eq 0 ] &&
  [ "${missing:-300}" -le "${allowed_missing}" ] && [ "${repeated:-1}" -eq 0 ]; then
  pass "300 frames in ${elapsed} s match the producer's pattern, ${missing} missing"
else
  fail "720p capture: ${result}"
fi
if awk -v s="${elapsed}" 'BEGIN { exit !(s < 11.5) }'; then
  pass "capture rate $(awk -v s="${elapsed}" 'BEGIN { printf "%.1f", 300 / s }') fps"
else
  fail "300 frames took ${elapsed} s"
fi

# --- 3. While the producer runs, the camera offers only its format: a client asking for another
# fails its own negotiation, and the node and its other clients are not touched. PipeWire does
# not tell a client that its link failed, so the refused client waits until its timeout.
if timeout 8 gst-launch-1.0 -q pipewiresrc target-object=flowmere-camera-source num-buffers=5 ! \
  video/x-raw,width=1920,height=1080 ! fakesink >"${work}/refused.log" 2>&1; then
  fail "a client got 1920x1080 while the producer runs 1280x720"
else
  pass "a client asking for 1920x1080 gets nothing while the producer runs 1280x720"
fi
capture 10 "${work}/capture-after-refusal"
nodes_made="$(grep -c 'flowmere-camera-source connecting -> paused' "${work}/extension.log")"
if "${producer}" check "${work}"/capture-after-refusal/*.png >/dev/null 2>&1 &&
  [ "${nodes_made}" -eq 1 ]; then
  pass "the next client gets frames from the same node"
else
  fail "after a failed client: $(tail -3 "${work}/capture-after-refusal.log"), source node made ${nodes_made} times"
fi
stop_producer

# --- 4. The producer switches format: a client connected afterwards gets the new one. GStreamer's
# pipewiresrc keeps only its newest frame while it sets up its pipeline on the first one, so the
# first frames of this client may have a gap; the pixels must still be the pattern.
start_producer "1920x1080 BGRA" --size 1920x1080 --format bgra --fps 30 --seconds 60
capture 10 "${work}/capture-1080p" "video/x-raw"
result="$("${producer}" check --allow-gaps "${work}"/capture-1080p/*.png 2>&1 | tail -1)"
if "${producer}" check --allow-gaps "${work}"/capture-1080p/*.png >/dev/null 2>&1 &&
  grep -q "1920x1080 BGRA" "${work}/extension.log"; then
  pass "after the switch to 1920x1080 a new client gets 1920x1080 frames (${result})"
else
  fail "after the switch: ${result}"
fi
stop_producer

# --- 5. An HDR producer: the source offers it first and a client takes P010.
start_producer "1920x1080 P010" --size 1920x1080 --format p010 --transfer pq --fps 30 --seconds 60
if timeout 20 gst-launch-1.0 -v pipewiresrc target-object=flowmere-camera-source num-buffers=5 ! \
  video/x-raw ! fakesink >"${work}/hdr.log" 2>&1 && grep -q "format=(string)P010_10LE" "${work}/hdr.log"; then
  pass "a client gets P010 1920x1080 frames from an HDR producer"
else
  fail "HDR producer: $(grep -m1 -E 'ERROR|caps' "${work}/hdr.log")"
fi
stop_producer

# --- 6. A GStreamer producer (pipewiresink) also works. Debian's pipewiresink crashes on its
# own in some sessions, so it gets three tries; a capture failure with a live producer is real.
gst_ok=0
for attempt in 1 2 3; do
  gst-launch-1.0 -q videotestsrc is-live=true ! \
    video/x-raw,format=BGRA,width=1280,height=720,framerate=30/1 ! \
    pipewiresink target-object=flowmere-camera-sink >"${work}/gst-producer.log" 2>&1 &
  gst_pid=$!
  background+=("${gst_pid}")
  wait_for_offer "${work}/extension.log" "1280x720 BGRA"
  if ! kill -0 "${gst_pid}" 2>/dev/null; then
    echo "  pipewiresink ended by itself (attempt ${attempt})"
    continue
  fi
  capture 30 "${work}/capture-gst"
  kill "${gst_pid}" 2>/dev/null
  wait "${gst_pid}" 2>/dev/null
  if [ "$(ls "${work}/capture-gst" | wc -l)" -eq 30 ]; then
    gst_ok=1
    break
  fi
  echo "  attempt ${attempt}: $(tail -2 "${work}/capture-gst.log")"
done
[ "${gst_ok}" -eq 1 ] && pass "a GStreamer producer's frames reach a client" ||
  fail "GStreamer producer: no frames"

# --- 7. The status tool reads the store, the files and the live timeline. No producer runs
# now, so it says so and exits 1 (tests/pipewire/status-test.sh covers its verdicts).
if [ -x "${status_tool}" ]; then
  "${status_tool}" >"${work}/status.txt" 2>&1
  status_exit=$?
  if [ "${status_exit}" -eq 1 ] &&
    grep -qE "waiting for a producer|no frames arrive" "${work}/status.txt" &&
    grep -q "frames_received" "${work}/status.txt" && grep -q '"producerPID"' "${work}/status.txt"
  then
    pass "flowmere-camera-status reports the counts"
  else
    fail "flowmere-camera-status: $(cat "${work}/status.txt")"
  fi
fi

# --- 8. SIGTERM ends the service cleanly. In the AddressSanitizer build a report during the
# run or a leak (LeakSanitizer runs at exit) makes the status non-zero.
kill -TERM "${extension_pid}"
if wait_for "! kill -0 ${extension_pid}" 20 && wait "${extension_pid}"; then
  pass "SIGTERM ends the service with status 0"
else
  fail "the service did not end cleanly on SIGTERM"
fi
if print_sanitizer_reports "${work}/extension.log"; then
  fail "a sanitizer reported in the service's log"
fi

if [ "${failures}" -gt 0 ]; then
  echo "--- extension log (last 40 lines)"
  tail -40 "${work}/extension.log"
  exit 1
fi
echo "all PipeWire checks passed"
