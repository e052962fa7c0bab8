#!/usr/bin/env bash
# flowmere-camera-status doctor on a private desktop session (session bus, PipeWire, WirePlumber,
# the camera portal with its GTK backend on a virtual display, the permission store), each check
# both ways: the camera fine (every check ok, exit 0); Chromium and Firefox profiles with the
# PipeWire camera off and files that do not parse (warn, with the fix or the path); the camera
# denied in the permission store (fail, with the reset command); the camera service stopped; the
# portal absent (a bus without it); no PipeWire at all; a bad command line (exit 2). The browser
# profiles are the fixture homes in tests/tools/doctor-fixtures, handed over as HOME and
# XDG_CONFIG_HOME.
#
#   doctor-test.sh BUILD_DIR
#
# Exits 77 (skipped) when the session tools, the portal, Xvfb, gdbus or jq are not installed.
set -uo pipefail

build="$(cd "${1:?usage: doctor-test.sh BUILD_DIR}" && pwd)"
here="$(cd "$(dirname "$0")" && pwd)"
fixtures="$(cd "${here}/../tools/doctor-fixtures" && pwd)"
extension="${build}/tools/flowmere-camera-extension/flowmere-camera-extension"
producer="${build}/tools/flowmere-camera-producer/flowmere-camera-producer"
status_tool="${build}/tools/flowmere-camera-status/flowmere-camera-status"
portal=/usr/libexec/xdg-desktop-portal
portal_gtk=/usr/libexec/xdg-desktop-portal-gtk

# shellcheck source=session.sh
source "${here}/session.sh"
require_tools pipewire wireplumber dbus-daemon pw-cli gdbus jq Xvfb "${portal}" "${portal_gtk}"
test_begin flowmere-doctor-test

# doctor NAME FIXTURE [ENV=VALUE...]: runs the doctor (text and --json) with the fixture home
# FIXTURE (enabled, disabled, broken, or none) and the given environment; the JSON lands in
# ${work}/NAME.json, the text in ${work}/NAME.txt, the exit statuses in ${doctor_exit} (text) and
# ${doctor_json_exit}.
doctor() {
  local name="$1" fixture="$2"
  shift 2
  local home="${fixtures}/${fixture}/home"
  env HOME="${home}" XDG_CONFIG_HOME="${home}/.config" "$@" "${status_tool}" doctor \
    >"${work}/${name}.txt" 2>"${work}/${name}.err"
  doctor_exit=$?
  env HOME="${home}" XDG_CONFIG_HOME="${home}/.config" "$@" "${status_tool}" doctor --json \
    >"${work}/${name}.json" 2>>"${work}/${name}.err"
  doctor_json_exit=$?
}

# expect NAME LABEL EXIT JQ_FILTER: both runs of `doctor NAME` exited EXIT, the JSON has exactly
# the nine ids in order, and JQ_FILTER holds on it.
expect() {
  local name="$1" label="$2" expected="$3" filter="$4"
  local ids='["service","pipewire","wireplumber","portal","portal-permission","chromium","firefox","v4l2","producer"]'
  if [ "${doctor_exit}" -ne "${expected}" ] || [ "${doctor_json_exit}" -ne "${expected}" ]; then
    fail "${label}: exit ${doctor_exit} (--json ${doctor_json_exit}), expected ${expected}"
    cat "${work}/${name}.txt" "${work}/${name}.err"
  elif ! jq -e "[.checks[].id] == ${ids} and
                all(.checks[]; (.result | IN(\"ok\", \"warn\", \"fail\")) and
                               (.found | type == \"string\" and length > 0) and
                               (.result == \"ok\" or .fix != null))" \
      "${work}/${name}.json" >/dev/null 2>&1; then
    fail "${label}: the JSON does not list the nine checks, each with a finding and a fix"
    cat "${work}/${name}.json"
  elif ! jq -e "${filter}" "${work}/${name}.json" >/dev/null 2>"${work}/jq.err"; then
    fail "${label}: '${filter}' does not hold: $(cat "${work}/jq.err")"
    cat "${work}/${name}.txt"
  elif [ "$(grep -cE '^(ok|warn|fail) ' "${work}/${name}.txt")" -ne 9 ]; then
    fail "${label}: the text does not have one line per check"
    cat "${work}/${name}.txt"
  else
    pass "${label}: exit ${doctor_exit}; $(jq -r '[.checks[] | "\(.id) \(.result)"] | join(", ")' \
      "${work}/${name}.json")"
  fi
}

# The JSON of check ID: `check("portal")`.
check_of='def check($id): .checks[] | select(.id == $id);'

# A kernel loopback device on this machine makes the v4l2 check warn, rightly.
v4l2_expected=ok
for name in /sys/class/video4linux/video*/name; do
  [ -r "${name}" ] && grep -qiE 'loopback|dummy video device' "${name}" && v4l2_expected=warn
done
command -v pw-v4l2 >/dev/null || v4l2_expected=warn

# --- A bad command line, before anything runs.
"${status_tool}" doctor --watch >"${work}/usage.out" 2>"${work}/usage.err"
usage_exit=$?
if [ "${usage_exit}" -eq 2 ] && [ ! -s "${work}/usage.out" ] &&
  grep -q "^flowmere-camera-status: doctor: unknown option '--watch'" "${work}/usage.err"; then
  pass "doctor --watch: exit 2 with one line on stderr"
else
  fail "doctor --watch: exit ${usage_exit}: $(cat "${work}/usage.err")"
fi

# --- No PipeWire and no session bus at all.
mkdir -m 0700 -p "${work}/no-runtime"
doctor no-session none XDG_RUNTIME_DIR="${work}/no-runtime" \
  DBUS_SESSION_BUS_ADDRESS="unix:path=${work}/no-runtime/bus"
expect no-session "no PipeWire, no session bus" 1 "${check_of}
  (check(\"pipewire\") | .result == \"fail\" and (.found | test(\"not running\"))) and
  (check(\"wireplumber\").result == \"fail\") and (check(\"service\").result == \"fail\") and
  (check(\"portal\") | .result == \"fail\" and (.fix | test(\"desktop session\"))) and
  check(\"chromium\").result == \"ok\" and check(\"firefox\").result == \"ok\""

session_start || { echo "FAIL: no PipeWire session"; exit 1; }

# The portal's GTK backend needs a display.
Xvfb -displayfd 3 -screen 0 640x480x24 3>"${work}/display" >"${work}/xvfb.log" 2>&1 &
background+=("$!")
wait_for "[ -s '${work}/display' ]" 10 || { echo "FAIL: Xvfb did not start"; exit 1; }
export DISPLAY=":$(head -1 "${work}/display")" XDG_CURRENT_DESKTOP=GNOME

store=(--dest org.freedesktop.impl.portal.PermissionStore
  --object-path /org/freedesktop/impl/portal/PermissionStore)
# set_camera_permission APP yes|no: what the portal writes when the user answers its dialog.
set_camera_permission() {
  gdbus call --session "${store[@]}" \
    --method org.freedesktop.impl.portal.PermissionStore.SetPermission \
    devices true camera "$1" "['$2']" >/dev/null
}
# The camera denied, as the portal writes a "Deny": to programs outside a sandbox and to one app.
set_camera_permission "" no || { fail "could not write the permission store"; exit 1; }
set_camera_permission "com.example.Meeting" no
# start_portal_gtk: starts the portal's GTK backend as ${portal_gtk_pid}.
start_portal_gtk() {
  "${portal_gtk}" >>"${work}/portal-gtk.log" 2>&1 &
  portal_gtk_pid=$!
  background+=("${portal_gtk_pid}")
  wait_for "gdbus introspect --session --dest org.freedesktop.impl.portal.desktop.gtk \
    --object-path /org/freedesktop/portal/desktop" 10
}
start_portal_gtk
# start_portal: starts xdg-desktop-portal as ${portal_pid} and waits for its Camera interface.
start_portal() {
  "${portal}" >>"${work}/portal.log" 2>&1 &
  portal_pid=$!
  background+=("${portal_pid}")
  wait_for "gdbus introspect --session --dest org.freedesktop.portal.Desktop \
    --object-path /org/freedesktop/portal/desktop | grep -q portal.Camera" 10 ||
    { fail "the camera portal did not come up"; cat "${work}/portal.log"; exit 1; }
}
start_portal

# --- 1. Nothing set: the camera service not running (so the portal sees no camera), the camera
# denied, every browser profile without the PipeWire camera.
doctor nothing-set disabled
expect nothing-set "nothing set, the service not running" 1 "${check_of}
  (check(\"service\") | .result == \"fail\" and (.found | test(\"not running\")) and
     (.fix | test(\"systemctl --user enable --now flowmere-camera-extension\"))) and
  check(\"pipewire\").result == \"ok\" and check(\"wireplumber\").result == \"ok\" and
  (check(\"portal\") | .result == \"fail\" and (.found | test(\"IsCameraPresent is false\"))) and
  (check(\"portal-permission\") | .result == \"fail\" and
     (.found | test(\"DENIED for programs outside a sandbox .*com.example.Meeting\")) and
     (.fix | test(\"DeletePermission devices camera ''\")) and
     (.fix | test(\"DeletePermission devices camera 'com.example.Meeting'\"))) and
  check(\"chromium\").result == \"warn\" and check(\"firefox\").result == \"warn\" and
  check(\"producer\").result == \"warn\""
echo "--- the doctor on the session where nothing is set"
cat "${work}/nothing-set.txt"

# The reset the doctor prints works: after it, the camera is no longer denied to host programs.
eval "$(jq -r '.checks[] | select(.id == "portal-permission") | .fix' "${work}/nothing-set.json" |
  grep -o "gdbus call [^;]*DeletePermission devices camera ''")"
doctor after-reset enabled
expect after-reset "after the printed reset" 1 "${check_of}
  check(\"portal-permission\") | .result == \"warn\" and
    (.found | test(\"DENIED for com.example.Meeting\")) and (.found | test(\"sandbox\") | not)"
set_camera_permission "" yes

# --- 2. Everything set: the camera runs with a producer, the portal sees it, the camera is
# allowed, every browser profile has the PipeWire camera on.
# xdg-desktop-portal 1.16 does not follow camera nodes that come or go after it started (its
# IsCameraPresent keeps its first answer), and one started again in the same session kept the old
# answer here too: a new session (bus, PipeWire, WirePlumber, portal), the camera first.
end_processes "${portal_pid}" "${portal_gtk_pid}"
session_stop
session_start || { echo "FAIL: no second PipeWire session"; exit 1; }
set_camera_permission "" yes || { fail "could not write the permission store"; exit 1; }
start_portal_gtk
"${extension}" >"${work}/extension.log" 2>&1 &
extension_pid=$!
background+=("${extension_pid}")
wait_for "pw-cli ls Node | grep -q flowmere-camera-sink" 10 ||
  { fail "the extension published no nodes"; cat "${work}/extension.log"; exit 1; }
start_portal
"${producer}" --size 1280x720 --fps 30 >"${work}/producer.out" 2>"${work}/producer.err" &
producer_pid=$!
background+=("${producer_pid}")
wait_for "'${status_tool}' doctor --json | jq -e '[.checks[] | select(.id == \"portal\" or
  .id == \"producer\") | .result == \"ok\"] | all'" 10 ||
  echo "  (the portal or the producer did not show up within 10 s)"

doctor fine enabled
expect fine "the camera fine" 0 "${check_of}
  all(.checks[] | select(.id != \"v4l2\"); .result == \"ok\" and .fix == null) and
  check(\"v4l2\").result == \"${v4l2_expected}\" and
  (check(\"service\").found | test(\"Video/Source, role Camera\")) and
  (check(\"portal\").found | test(\"IsCameraPresent is true$\")) and
  (check(\"portal\").found | test(\"gtk.portal\")) and
  (check(\"portal-permission\").found | test(\"allowed for programs outside a sandbox\")) and
  (check(\"chromium\").found | test(\"Chromium: PipeWire camera on\")) and
  (check(\"chromium\").found | test(\"Google Chrome: PipeWire camera on\")) and
  (check(\"firefox\").found | test(\"default-esr: media.webrtc.camera.allow-pipewire is true\")) and
  (check(\"firefox\").found | test(\"Firefox \\\\(Flatpak\\\\) profile default-release\")) and
  (check(\"v4l2\").found | test(\"PIPEWIRE_V4L2_TARGET=[0-9]+ pw-v4l2 ffmpeg\")) and
  (check(\"producer\").found | test(\"flowmere-camera-producer.* linked at 1280x720 BGRA\"))"
echo "--- the doctor on the session where everything is set"
cat "${work}/fine.txt"

# --- 3. Browser profiles with the PipeWire camera off: warnings with the fix, exit still 0.
doctor browsers-off disabled
expect browsers-off "browser profiles without the PipeWire camera" 0 "${check_of}
  (check(\"chromium\") | .result == \"warn\" and
     (.found | test(\"Chromium: PipeWire camera off\")) and
     (.found | test(\"Brave \\\\(Flatpak\\\\): PipeWire camera disabled\")) and
     (.fix | test(\"chrome://flags/#enable-webrtc-pipewire-camera\")) and
     (.fix | test(\"--enable-features=WebRtcPipeWireCamera\"))) and
  (check(\"firefox\") | .result == \"warn\" and
     (.found | test(\"allow-pipewire is false\")) and
     (.found | test(\"Firefox \\\\(Snap\\\\) profile default: .*is not set\")) and
     (.fix | test(\"about:config\")))"

# --- 4. Profile files that do not parse: warnings that name them, never a crash.
doctor broken-files broken
expect broken-files "profile files that do not parse" 0 "${check_of}
  (check(\"chromium\") | .result == \"warn\" and (.found | test(\"cannot parse .*/chromium/Local State\"))) and
  (check(\"firefox\") | .result == \"warn\" and
     (.found | test(\"cannot parse .*/k3x9.default-esr/prefs.js\")) and
     (.found | test(\"cannot parse .*/snap/firefox/common/.mozilla/firefox/profiles.ini\")))"

# --- 5. The camera denied again while everything else is fine: the one failing check.
set_camera_permission "" no
doctor denied enabled
expect denied "the camera denied" 1 "${check_of}
  (check(\"portal-permission\") | .result == \"fail\" and
     (.fix | test(\"DeletePermission devices camera ''\"))) and
  ([.checks[] | select(.result == \"fail\") | .id] == [\"portal-permission\"])"
set_camera_permission "" yes

# --- 6. The service stops under a running portal.
end_processes "${producer_pid}" "${extension_pid}"
doctor stopped enabled
expect stopped "after the service stopped" 1 "${check_of}
  check(\"service\").result == \"fail\" and check(\"producer\").result == \"warn\" and
  (check(\"v4l2\").found | test(\"PIPEWIRE_V4L2_TARGET\") | not)"

# --- 7. The portal absent: a session bus that has neither the portal nor the permission store.
cat >"${work}/bare-bus.conf" <<'CONF'
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>unix:tmpdir=/tmp</listen>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
</busconfig>
CONF
exec 5>"${work}/bare-bus.address" 6>"${work}/bare-bus.pid"
dbus-daemon --config-file="${work}/bare-bus.conf" --fork --print-address=5 --print-pid=6
exec 5>&- 6>&-
background+=("$(head -1 "${work}/bare-bus.pid")")
doctor no-portal enabled DBUS_SESSION_BUS_ADDRESS="$(head -1 "${work}/bare-bus.address")"
expect no-portal "the portal absent" 1 "${check_of}
  (check(\"portal\") | .result == \"fail\" and
     (.found | test(\"xdg-desktop-portal is not on the session bus\")) and
     (.fix | test(\"apt install xdg-desktop-portal\"))) and
  (check(\"portal-permission\") | .result == \"warn\" and (.found | test(\"permission store\")))"

if [ "${failures}" -gt 0 ]; then
  echo "--- extension log (last 20 lines)"
  tail -20 "${work}/extension.log"
  echo "--- portal log (last 20 lines)"
  tail -20 "${work}/portal.log"
  exit 1
fi
echo "all doctor checks passed"
