#!/usr/bin/env bash
# A private desktop session for the PipeWire tests: a fresh runtime directory, a session bus,
# PipeWire and WirePlumber. Source it, call `session_start`, and `session_stop` when done (the
# tests install it as an EXIT trap). Also the small helpers the session's tests share.

# Waits up to $2 seconds (default 5) for `$1` (a command) to succeed.
wait_for() {
  local deadline=$((SECONDS + ${2:-5}))
  until eval "$1" >/dev/null 2>&1; do
    [ "${SECONDS}" -ge "${deadline}" ] && return 1
    sleep 0.1
  done
}

# Waits up to 10 s until the latest offer the camera logged in file $1 puts format $2 ("1280x720
# BGRA") first. Clients that link before that may take the previous format.
wait_for_offer() {
  wait_for "grep 'flowmere-camera-source offers' '$1' | tail -1 | grep -Eq 'offers $2 (first|only)'" 10
}

# Ends the given processes: SIGTERM, then SIGKILL for any still there after 5 s.
end_processes() {
  local pid
  kill "$@" 2>/dev/null || true
  for _ in $(seq 50); do
    for pid in "$@"; do
      if kill -0 "${pid}" 2>/dev/null; then
        sleep 0.1
        continue 2
      fi
    done
    return 0
  done
  kill -KILL "$@" 2>/dev/null || true
}

# Sets up a test script: a work directory in $work (named after $1; kept with
# FLOWMERE_TEST_KEEP=1 for a look after a failure), the processes in $background that are ended
# at exit, the failure count in $failures with pass/fail to report, and an EXIT trap that ends
# the processes and stops the session if one was started.
test_begin() {
  failures=0
  work="$(mktemp -d "/tmp/$1.XXXXXX")"
  background=()
  SESSION_PIDS=()
  trap test_end EXIT
}
test_end() {
  end_processes "${background[@]}"
  [ "${#SESSION_PIDS[@]}" -gt 0 ] && session_stop
  if [ "${FLOWMERE_TEST_KEEP:-0}" = 1 ]; then
    echo "kept ${work}"
  else
    rm -rf "${work}"
  fi
}
# Prints what AddressSanitizer, LeakSanitizer or UndefinedBehaviorSanitizer reported in log $1
# (a program's standard error), if anything; returns 1 when there was nothing.
print_sanitizer_reports() {
  grep -qE 'ERROR: (Address|Leak)Sanitizer|runtime error:' "$1" || return 1
  echo "--- sanitizer reports in $(basename "$1")"
  sed -n '/ERROR: \(Address\|Leak\)Sanitizer\|runtime error:/,/^SUMMARY:/p' "$1"
}
# Exits 77 (skipped) when one of the given programs is not installed.
require_tools() {
  local tool
  for tool in "$@"; do
    if ! command -v "${tool}" >/dev/null; then
      echo "SKIP: ${tool} is not installed"
      exit 77
    fi
  done
}

# Starts the service ($extension) in the background, its output in ${work}/extension.log, and
# waits up to 10 s until it has published its sink node; fails the test otherwise.
start_extension() {
  "${extension}" >"${work}/extension.log" 2>&1 &
  background+=("$!")
  if ! wait_for "grep -q 'flowmere-camera-sink connecting -> paused' '${work}/extension.log'" 10; then
    fail "the extension published no sink node"
    cat "${work}/extension.log"
    exit 1
  fi
}

pass() { echo "PASS: $*"; }
fail() {
  echo "FAIL: $*"
  failures=$((failures + 1))
}

session_start() {
  SESSION_DIR="$(mktemp -d /tmp/flowmere-pw.XXXXXX)"
  chmod 0700 "${SESSION_DIR}"
  export XDG_RUNTIME_DIR="${SESSION_DIR}"
  export XDG_CONFIG_HOME="${SESSION_DIR}/config" XDG_STATE_HOME="${SESSION_DIR}/state"
  export XDG_DATA_HOME="${SESSION_DIR}/data"
  mkdir -p "${XDG_CONFIG_HOME}" "${XDG_STATE_HOME}" "${XDG_DATA_HOME}"
  exec 7>"${SESSION_DIR}/dbus.address" 8>"${SESSION_DIR}/dbus.pid"
  dbus-daemon --session --fork --print-address=7 --print-pid=8
  exec 7>&- 8>&-
  DBUS_SESSION_BUS_ADDRESS="$(head -1 "${SESSION_DIR}/dbus.address")"
  export DBUS_SESSION_BUS_ADDRESS
  SESSION_PIDS=("$(head -1 "${SESSION_DIR}/dbus.pid")")
  session_start_pipewire && session_start_wireplumber
}

# Starts PipeWire in the session as SESSION_PIDS[1] (its log appended to pipewire.log) and waits
# up to 5 s until its socket accepts connections. A PipeWire killed before leaves its socket
# file behind, so the wait asks the daemon itself. SESSION_PIPEWIRE_BACK is the time
# ($EPOCHREALTIME) at which the first probe that reached it began.
session_start_pipewire() {
  local probe
  pipewire >>"${SESSION_DIR}/pipewire.log" 2>&1 &
  SESSION_PIDS[1]=$!
  for _ in $(seq 250); do
    probe="${EPOCHREALTIME}"
    if pw-cli info 0 >/dev/null 2>&1; then
      SESSION_PIPEWIRE_BACK="${probe}"
      return 0
    fi
    sleep 0.02
  done
  echo "PipeWire did not come up" >&2
  return 1
}

# Starts WirePlumber in the session as SESSION_PIDS[2] (its log appended to wireplumber.log) and
# waits up to 5 s until it is a client of PipeWire.
session_start_wireplumber() {
  wireplumber >>"${SESSION_DIR}/wireplumber.log" 2>&1 &
  SESSION_PIDS[2]=$!
  for _ in $(seq 100); do
    pw-cli ls Client 2>/dev/null | grep -q WirePlumber && return 0
    sleep 0.05
  done
  echo "WirePlumber did not come up" >&2
  return 1
}

# Starts PipeWire and WirePlumber again in the same session (runtime directory, bus, data
# directory) after a test killed them: the ones still running are ended first.
session_restart_pipewire() {
  end_processes "${SESSION_PIDS[2]}" "${SESSION_PIDS[1]}"
  wait "${SESSION_PIDS[2]}" "${SESSION_PIDS[1]}" 2>/dev/null
  session_start_pipewire && session_start_wireplumber
}
session_restart_wireplumber() {
  end_processes "${SESSION_PIDS[2]}"
  wait "${SESSION_PIDS[2]}" 2>/dev/null
  # PipeWire drops the old client when it sees the connection close; the wait below must not
  # find that one.
  wait_for "! pw-cli ls Client | grep -q WirePlumber" 5
  session_start_wireplumber
}

session_stop() {
  local index reversed=()
  for ((index = ${#SESSION_PIDS[@]} - 1; index >= 0; index--)); do
    reversed+=("${SESSION_PIDS[index]}")
  done
  # Services the bus started on its own (portals and the like) share the runtime directory.
  pkill -f "${SESSION_DIR}" 2>/dev/null || true
  end_processes "${reversed[@]}"
  wait "${SESSION_PIDS[@]:1}" 2>/dev/null || true
  rm -rf "${SESSION_DIR}"
}
