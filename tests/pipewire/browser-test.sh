#!/usr/bin/env bash
# Real browsers on the camera, through the desktop's camera portal: headless Chromium lists
# "Flowmere AV Camera Source" and receives the test producer's frames with getUserMedia
# (browser-camera.html reads the frame numbers back from the pictures), and headless Firefox gets
# them with a page's default request, getUserMedia({video: true}) (firefox-camera.html). Firefox
# is checked when it is installed.
#
#   browser-test.sh BUILD_DIR
#
# Exits 77 (skipped) when the browser, the portal or the X server is not installed.
set -uo pipefail

build="$(cd "${1:?usage: browser-test.sh BUILD_DIR}" && pwd)"
here="$(cd "$(dirname "$0")" && pwd)"
extension="${build}/tools/flowmere-camera-extension/flowmere-camera-extension"
producer="${build}/tools/flowmere-camera-producer/flowmere-camera-producer"
portal=/usr/libexec/xdg-desktop-portal
portal_gtk=/usr/libexec/xdg-desktop-portal-gtk

for tool in pipewire wireplumber dbus-daemon pw-cli gdbus chromium Xvfb "${portal}" "${portal_gtk}"
do
  if ! command -v "${tool}" >/dev/null; then
    echo "SKIP: ${tool} is not installed"
    exit 77
  fi
done

# shellcheck source=session.sh
source "${here}/session.sh"
# shellcheck source=browser-session.sh
source "${here}/browser-session.sh"
background=()
cleanup() {
  end_processes "${background[@]}"
  session_stop
}
trap cleanup EXIT

session_start || { echo "FAIL: no PipeWire session"; exit 1; }
log="${SESSION_DIR}/browser"
mkdir -p "${log}"

"${extension}" >"${log}/extension.log" 2>&1 &
background+=("$!")
wait_for "pw-cli ls Node | grep -q flowmere-camera-sink" 10 ||
  { echo "FAIL: the extension published no nodes"; cat "${log}/extension.log"; exit 1; }
"${producer}" --size 1280x720 --format bgra --fps 30 --seconds 60 >"${log}/producer.log" 2>&1 &
background+=("$!")
# The browser asks for the camera once the camera offers the producer's format first.
wait_for_offer "${log}/extension.log" "1280x720 BGRA" ||
  { echo "FAIL: the camera never offered the producer's format"; cat "${log}/extension.log"; exit 1; }

# The display, then the camera portal with the camera allowed, as a user who allowed it once.
browser_desktop_start "${log}" || exit 1

chromium --headless=new --no-sandbox --disable-gpu --use-fake-ui-for-media-stream \
  --enable-features=WebRtcPipeWireCamera --enable-logging=stderr --v=0 \
  --user-data-dir="${log}/profile" "file://${here}/browser-camera.html" >"${log}/chromium.log" 2>&1 &
background+=("$!")
wait_for "grep -q 'FLOWMERE result' '${log}/chromium.log'" 60

# The page opens the camera up to three times (see browser-camera.html): the list and the
# result are those of the last attempt, and the attempts before it are shown.
devices="$(grep -o 'FLOWMERE devices [^"]*\[.*\]' "${log}/chromium.log" | tail -1)"
result="$(grep -o 'FLOWMERE result [^"]*' "${log}/chromium.log" | head -1)"
grep -o 'FLOWMERE attempt [^"]*' "${log}/chromium.log" | sed 's/^/  Chromium: /'
echo "  ${devices:-no device list}"
echo "  ${result:-no result}"
failures=0
if [[ "${devices}" == *'Flowmere AV Camera Source'* ]]; then
  echo "PASS: Chromium lists \"Flowmere AV Camera Source\" through the camera portal"
else
  echo "FAIL: Chromium does not list the camera"
  failures=$((failures + 1))
fi
# "result frames N size WxH first A last B": frames arrived, in the producer's format, and the
# numbers read from the pictures are the producer's, in order.
read -r frames size first last < <(echo "${result}" |
  sed -n 's/.*frames \([0-9]*\) size \([0-9x]*\) first \(-\?[0-9]*\) last \(-\?[0-9]*\).*/\1 \2 \3 \4/p')
if [ -n "${frames:-}" ] && [ "${frames}" -gt 0 ] && [ "${size}" = "1280x720" ] &&
  [ "${first}" -ge 0 ] && [ "${last}" -gt "${first}" ]; then
  echo "PASS: getUserMedia received ${frames} frames in 3 s (producer frames ${first}..${last})"
elif [ "${first:-}" = 4294967295 ]; then
  # The camera's idle picture reads as 4294967295; it must not show while a producer runs.
  echo "FAIL: getUserMedia: the first frame is the idle picture although the producer runs:" \
    "${result}"
  grep -E "shows the|flowmere-camera-source (format|paused|streaming)" "${log}/extension.log"
  failures=$((failures + 1))
else
  echo "FAIL: getUserMedia: ${result:-no result}"
  failures=$((failures + 1))
fi
end_processes "${background[-1]}"

# --- Firefox: its own choice among the offered formats, which while the producer runs is the
# producer's.
if command -v firefox-esr >/dev/null; then
  firefox_profile "${log}/firefox-profile"
  firefox-esr --headless --no-remote --profile "${log}/firefox-profile" \
    "file://${here}/firefox-camera.html" >"${log}/firefox.log" 2>&1 &
  background+=("$!")
  wait_for "grep -q 'FLOWMERE result' '${log}/firefox.log'" 60
  label="$(grep -o 'FLOWMERE label .*' "${log}/firefox.log" | head -1)"
  result="$(grep -o 'FLOWMERE result .*' "${log}/firefox.log" | head -1)"
  echo "  ${label:-no label}"
  echo "  ${result:-no result}"
  read -r frames size first last < <(echo "${result}" |
    sed -n 's/.*frames \([0-9]*\) size \([0-9x]*\) first \(-\?[0-9]*\) last \(-\?[0-9]*\).*/\1 \2 \3 \4/p')
  if [[ "${label}" == *'Flowmere AV Camera Source'* ]] && [ -n "${frames:-}" ] &&
    [ "${frames}" -ge 30 ] && [ "${size}" = "1280x720" ] && [ "${first}" -ge 0 ] &&
    [ "${last}" -gt "${first}" ]; then
    echo "PASS: Firefox's getUserMedia({video: true}) plays ${frames} producer frames in 3 s"
  else
    echo "FAIL: Firefox: ${label:-no track} ${result:-no result}"
    grep -iE "error|FLOWMERE" "${log}/firefox.log" | tail -10
    failures=$((failures + 1))
  fi
  end_processes "${background[-1]}"
else
  echo "SKIP: firefox-esr is not installed"
fi

if [ "${failures}" -gt 0 ]; then
  # Chromium's complaints about the missing system bus say nothing about the camera.
  echo "--- chromium (errors)"
  grep -E "ERROR|FATAL|FLOWMERE" "${log}/chromium.log" | grep -vE "dbus/(bus|object_proxy)\.cc" |
    tail -20
  echo "--- extension"; tail -20 "${log}/extension.log"
  # The session's directory goes with the session: keep the logs of a failure for a look later.
  kept="$(mktemp -d "${TMPDIR:-/tmp}/flowmere-browser-test.XXXXXX")"
  cp -r "${log}/." "${kept}/" && echo "--- every log of this run is kept in ${kept}"
  exit 1
fi
echo "all browser checks passed"
