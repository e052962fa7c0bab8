#!/usr/bin/env bash
# Installs the Debian 12 packages the build, the tests and the tools need (as root, or through
# sudo). Skips apt entirely when everything is already there.
set -euo pipefail

packages=(
  build-essential cmake ninja-build clang clang-format clang-tidy libclang-rt-14-dev
  googletest libgtest-dev libgmock-dev libbenchmark-dev
  nlohmann-json3-dev libsqlite3-dev sqlite3 locales zlib1g-dev pkg-config
  # The idle picture: Cairo draws its text and scales a PNG of the user's; DejaVu is its font.
  libcairo2-dev fonts-dejavu-core
  # The PipeWire backend, its programs, and the private session its tests start.
  libpipewire-0.3-dev libspa-0.2-dev pipewire pipewire-bin wireplumber dbus
  # flowmere-camera-status doctor asks the camera portal over the session bus (sd-bus).
  libsystemd-dev
  gstreamer1.0-pipewire gstreamer1.0-tools gstreamer1.0-plugins-base
  gstreamer1.0-plugins-base-apps gstreamer1.0-plugins-good
  # A real browser on the camera, through the desktop's camera portal on a virtual display.
  chromium firefox-esr xdg-desktop-portal xdg-desktop-portal-gtk xvfb
  # V4L2 programs on the camera through PipeWire's V4L2 layer.
  pipewire-v4l2 ffmpeg v4l-utils
  # The Debian package (cpack -G DEB with dpkg-shlibdeps) and its test; JSON checks in tests.
  dpkg-dev file jq
)

missing=()
for package in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$package")
  fi
done

run_as_root() {
  if [ "$(id -u)" -eq 0 ]; then "$@"; else sudo "$@"; fi
}

if [ "${#missing[@]}" -gt 0 ]; then
  echo "Installing: ${missing[*]}"
  run_as_root apt-get update -qq
  DEBIAN_FRONTEND=noninteractive run_as_root apt-get install -y -qq "${missing[@]}"
fi

# A locale whose decimal separator is a comma, so the tests can show that the published numbers
# do not depend on the process locale.
if ! locale -a 2>/dev/null | grep -qi '^de_DE\.utf-\?8$'; then
  run_as_root sed -i 's/^# *de_DE.UTF-8 UTF-8/de_DE.UTF-8 UTF-8/' /etc/locale.gen
  run_as_root locale-gen >/dev/null
fi
