#!/usr/bin/env bash
# The service's two ways of ending, under valgrind's memcheck, while 1280x720 frames flow at
# 30 fps to a client: SIGTERM (exit status 0), and the PipeWire daemon killed with SIGKILL (exit
# status 69). Each must end with no memcheck error and nothing definitely lost.
#
#   valgrind-exit.sh BUILD_DIR [SECONDS]    SECONDS of relaying before the end (default 4)
#
# Not part of the test suite (valgrind makes the service about 30 times slower and is not among
# the test dependencies); docs/RELIABILITY.md gives its figures. Exits 77 when valgrind or the
# PipeWire session tools are missing.
set -uo pipefail

build="$(cd "${1:?usage: valgrind-exit.sh BUILD_DIR [SECONDS]}" && pwd)"
seconds="${2:-4}"
here="$(cd "$(dirname "$0")" && pwd)"
extension="${build}/tools/flowmere-camera-extension/flowmere-camera-extension"
producer="${build}/tools/flowmere-camera-producer/flowmere-camera-producer"


# shellcheck source=session.sh
source "${here}/session.sh"
require_tools valgrind pipewire wireplumber dbus-daemon pw-cli
test_begin flowmere-valgrind-exit

# One run: the service under memcheck, a producer and a client, then the end named by $1.
valgrind_run() {
  local end="$1" expected="$2" status vglog="${work}/valgrind-$1.log" log="${work}/extension-$1.log"
  session_start || { fail "${end}: no PipeWire session"; return; }
  valgrind --error-exitcode=99 --leak-check=full --errors-for-leak-kinds=definite \
    --log-file="${vglog}" "${extension}" >"${log}" 2>&1 &
  local service=$!
  background+=("${service}")
  wait_for "grep -q 'flowmere-camera-sink connecting -> paused' '${log}'" 60 ||
    fail "${end}: the service did not publish its nodes"
  "${producer}" --size 1280x720 --fps 30 >/dev/null 2>&1 &
  background+=("$!")
  wait_for_offer "${log}" "1280x720 BGRA"
  "${producer}" receive >"${work}/receive-${end}.out" 2>&1 &
  background+=("$!")
  wait_for "grep -q 'source startStream started=true' '${log}'" 30
  sleep "${seconds}"
  if [ "${end}" = sigterm ]; then
    kill -TERM "${service}"
  else
    kill -KILL "${SESSION_PIDS[1]}"
  fi
  wait "${service}"
  status=$?
  local errors lost
  errors="$(sed -n 's/.*ERROR SUMMARY: \([0-9]*\) errors.*/\1/p' "${vglog}")"
  lost="$(sed -n 's/.*definitely lost: \([0-9,]*\) bytes.*/\1/p' "${vglog}")"
  local relayed
  relayed="$(grep -c 'source send frame=' "${log}")"
  if [ "${status}" = "${expected}" ] && [ "${errors}" = 0 ] && [ "${lost:-0}" = 0 ]; then
    pass "${end}: exit status ${status}, ${errors} memcheck errors, ${lost:-0} bytes definitely lost"
  else
    fail "${end}: exit status ${status} (expected ${expected}), ${errors:-?} memcheck errors," \
      "${lost:-?} bytes definitely lost"
    grep -E '^==[0-9]+== (Invalid|Conditional|Use of|   at|   by)' "${vglog}" | head -30
  fi
  echo "  (relay log lines while it ran: ${relayed} sends, one every 300th frame)"
  end_processes "${background[@]}"
  background=()
  session_stop
  SESSION_PIDS=()
}

valgrind_run sigterm 0
valgrind_run pipewire-killed 69

if [ "${failures}" -eq 0 ]; then
  echo "both ends clean under valgrind"
  exit 0
fi
exit 1
