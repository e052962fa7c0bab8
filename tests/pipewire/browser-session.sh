#!/usr/bin/env bash
# What the browser tests add to a private PipeWire session (session.sh): a virtual display, the
# camera portal with its GTK backend and the camera permission granted, and a Firefox profile
# that may use PipeWire cameras. Source it after session.sh.

# Starts Xvfb, grants the camera in the portal's permission store and starts the portal and its
# backend, each logged in directory $1 and its pid appended to the caller's `background`. Returns
# 1 with a line on stdout when one of them does not come up.
browser_desktop_start() {
  local log="$1"
  # The portal's GTK backend needs a display; a virtual one on the first free number.
  Xvfb -displayfd 3 -screen 0 640x480x24 3>"${log}/display" >"${log}/xvfb.log" 2>&1 &
  background+=("$!")
  wait_for "[ -s '${log}/display' ]" 10 || { echo "FAIL: Xvfb did not start"; return 1; }
  export DISPLAY=":$(head -1 "${log}/display")" XDG_CURRENT_DESKTOP=GNOME

  # The camera portal grants access from its permission store; grant it before asking, as a user
  # who allowed the camera once would have. The portal's backend starts first so that the portal
  # finds it.
  gdbus call --session --dest org.freedesktop.impl.portal.PermissionStore \
    --object-path /org/freedesktop/impl/portal/PermissionStore \
    --method org.freedesktop.impl.portal.PermissionStore.SetPermission \
    devices true camera "" "['yes']" >/dev/null ||
    { echo "FAIL: could not grant the camera permission"; return 1; }
  /usr/libexec/xdg-desktop-portal-gtk >"${log}/portal-gtk.log" 2>&1 &
  background+=("$!")
  wait_for "gdbus introspect --session --dest org.freedesktop.impl.portal.desktop.gtk \
    --object-path /org/freedesktop/portal/desktop" 10
  /usr/libexec/xdg-desktop-portal >"${log}/portal.log" 2>&1 &
  background+=("$!")
  wait_for "gdbus introspect --session --dest org.freedesktop.portal.Desktop \
    --object-path /org/freedesktop/portal/desktop | grep -q portal.Camera" 10 ||
    { echo "FAIL: the camera portal did not come up"; cat "${log}/portal.log"; return 1; }
}

# Writes a Firefox profile into directory $1 that captures PipeWire cameras without asking and
# prints the pages' console on stdout.
firefox_profile() {
  mkdir -p "$1"
  cat >"$1/user.js" <<'PREFS'
user_pref("media.webrtc.camera.allow-pipewire", true);
user_pref("media.navigator.permission.disabled", true);
user_pref("media.navigator.streams.fake", false);
user_pref("devtools.console.stdout.content", true);
user_pref("browser.shell.checkDefaultBrowser", false);
user_pref("datareporting.policy.dataSubmissionEnabled", false);
PREFS
}
