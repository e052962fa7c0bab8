#!/usr/bin/env bash
# The Debian package: builds it with CPack from the build directory, checks its name, control
# fields and contents, unpacks it into a throw-away root and runs the camera service from there on
# a private PipeWire session until its nodes appear.
#
#   package-test.sh BUILD_DIR VERSION CPACK
#
# Exits 77 (skipped) when dpkg-deb, dpkg-shlibdeps or the PipeWire session tools are missing.
set -uo pipefail

build="$(cd "${1:?usage: package-test.sh BUILD_DIR VERSION CPACK}" && pwd)"
version="${2:?usage: package-test.sh BUILD_DIR VERSION CPACK}"
cpack="${3:?usage: package-test.sh BUILD_DIR VERSION CPACK}"
here="$(cd "$(dirname "$0")" && pwd)"

for tool in dpkg-deb dpkg-shlibdeps dpkg file pipewire wireplumber dbus-daemon pw-cli; do
  if ! command -v "${tool}" >/dev/null; then
    echo "SKIP: ${tool} is not installed"
    exit 77
  fi
done

# shellcheck source=../pipewire/session.sh
source "${here}/../pipewire/session.sh"
test_begin flowmere-package-test

# --- 1. CPack builds the package under its Debian name.
arch="$(dpkg --print-architecture)"
deb="${work}/flowmere-camera_${version}_${arch}.deb"
if ! "${cpack}" -G DEB --config "${build}/CPackConfig.cmake" -B "${work}" >"${work}/cpack.log" 2>&1
then
  fail "cpack failed"
  tail -20 "${work}/cpack.log"
  exit 1
fi
if [ -f "${deb}" ]; then
  pass "cpack wrote $(basename "${deb}") ($(du -k "${deb}" | cut -f1) KiB)"
else
  fail "no ${deb}: $(ls "${work}")"
  exit 1
fi

# --- 2. Control fields: name, version, architecture and the packages it needs.
field() { dpkg-deb -f "${deb}" "$1"; }
[ "$(field Package)" = flowmere-camera ] && [ "$(field Version)" = "${version}" ] &&
  [ "$(field Architecture)" = "${arch}" ] &&
  pass "Package flowmere-camera, Version ${version}, Architecture ${arch}" ||
  fail "control fields: $(dpkg-deb -f "${deb}" Package Version Architecture | tr '\n' ' ')"
depends="$(field Depends)"
for needed in "pipewire (>= 0.3.65)" libpipewire-0.3-0 libsqlite3-0 libstdc++6 libc6 zlib1g; do
  if [[ ", ${depends}," == *", ${needed}"[\ ,]* ]]; then
    pass "Depends names ${needed}"
  else
    fail "Depends lacks ${needed}: ${depends}"
  fi
done
[ "$(field Recommends)" = wireplumber ] && pass "Recommends wireplumber" ||
  fail "Recommends: $(field Recommends)"

# --- 3. Contents: the programs, the user unit and the documents, all under /usr.
dpkg-deb -c "${deb}" | awk '{ print $NF }' >"${work}/contents.txt"
for path in bin/flowmere-camera-extension bin/flowmere-camera-status bin/flowmere-camera-producer \
  bin/flowmere-camera-sim bin/flowmere-soak share/systemd/user/flowmere-camera-extension.service \
  share/doc/flowmere-camera/README.md share/doc/flowmere-camera/threading.md; do
  grep -qx "./usr/${path}" "${work}/contents.txt" && pass "contains /usr/${path}" ||
    fail "no /usr/${path} in the package"
done
outside="$(grep -v '^\./usr/' "${work}/contents.txt" | grep -vx '\./')"
[ -z "${outside}" ] && pass "nothing outside /usr" || fail "outside /usr: ${outside}"
# Test programs and libraries stay out of it.
unexpected="$(grep -E 'test|bench|\.a$|\.h$|include/' "${work}/contents.txt")"
[ -z "${unexpected}" ] && pass "no tests, benchmarks or development files" ||
  fail "unexpected files: ${unexpected}"

# --- 4. Unpacked into a throw-away root: stripped programs whose libraries all resolve, and a
# unit that starts the installed program (not the path CPack staged it under).
root="${work}/root"
dpkg -x "${deb}" "${root}"
before="${failures}"
for program in "${root}"/usr/bin/*; do
  if ! file "${program}" | grep -q ', stripped'; then
    fail "$(basename "${program}") is not stripped"
  elif ldd "${program}" | grep -q 'not found'; then
    fail "$(basename "${program}"): $(ldd "${program}" | grep 'not found')"
  fi
done
[ "${failures}" -eq "${before}" ] && pass "the programs are stripped and their libraries resolve"
exec_start="$(grep '^ExecStart=' "${root}/usr/share/systemd/user/flowmere-camera-extension.service")"
[ "${exec_start}" = "ExecStart=/usr/bin/flowmere-camera-extension" ] && pass "unit: ${exec_start}" ||
  fail "unit: ${exec_start}"
"${root}/usr/bin/flowmere-camera-status" --version >"${work}/version.txt" 2>&1
[ "$(cat "${work}/version.txt")" = "flowmere-camera-status ${version}" ] &&
  pass "installed flowmere-camera-status --version: $(cat "${work}/version.txt")" ||
  fail "installed flowmere-camera-status --version: $(cat "${work}/version.txt")"

# --- 5. The unpacked service publishes its nodes on a private session, and the unpacked status
# tool finds them.
session_start || { echo "FAIL: no PipeWire session"; exit 1; }
"${root}/usr/bin/flowmere-camera-extension" >"${work}/extension.log" 2>&1 &
extension_pid=$!
background+=("${extension_pid}")
if wait_for "pw-cli ls Node | grep -q flowmere-camera-source && pw-cli ls Node | grep -q flowmere-camera-sink" 10
then
  pass "the unpacked flowmere-camera-extension published flowmere-camera-source and -sink"
else
  fail "the unpacked service published no nodes"
  tail -20 "${work}/extension.log"
fi
"${root}/usr/bin/flowmere-camera-status" >"${work}/status.txt" 2>&1
status_exit=$?
if [ "${status_exit}" -eq 1 ] && head -1 "${work}/status.txt" | grep -q "waiting for a producer"; then
  pass "the unpacked flowmere-camera-status: $(head -1 "${work}/status.txt")"
else
  fail "the unpacked flowmere-camera-status (exit ${status_exit}): $(head -3 "${work}/status.txt")"
fi
kill -TERM "${extension_pid}"
if wait_for "! kill -0 ${extension_pid}" 10 && wait "${extension_pid}"; then
  pass "SIGTERM ends the unpacked service with status 0"
else
  fail "the unpacked service did not end cleanly"
fi

[ "${failures}" -eq 0 ] && echo "all package checks passed"
exit $((failures > 0))
