#!/usr/bin/env bash
# A private desktop session for the PipeWire tests: a fresh runtime directory, a session bus,
# PipeWire and WirePlumber. Source it, call `session_start`, and `session_stop` when done (the
# tests install it as an EXIT trap).

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
  pipewire >"${SESSION_DIR}/pipewire.log" 2>&1 &
  SESSION_PIDS+=("$!")
  for _ in $(seq 100); do [ -S "${XDG_RUNTIME_DIR}/pipewire-0" ] && break; sleep 0.05; done
  wireplumber >"${SESSION_DIR}/wireplumber.log" 2>&1 &
  SESSION_PIDS+=("$!")
  for _ in $(seq 100); do
    pw-cli ls Client 2>/dev/null | grep -q WirePlumber && return 0
    sleep 0.05
  done
  echo "WirePlumber did not come up" >&2
  return 1
}

session_stop() {
  local index
  for ((index = ${#SESSION_PIDS[@]} - 1; index >= 0; index--)); do
    kill "${SESSION_PIDS[index]}" 2>/dev/null || true
  done
  # Services the bus started on its own (portals and the like) share the runtime directory.
  pkill -f "${SESSION_DIR}" 2>/dev/null || true
  for _ in $(seq 50); do
    kill -0 "${SESSION_PIDS[@]}" 2>/dev/null || break
    sleep 0.1
  done
  kill -KILL "${SESSION_PIDS[@]}" 2>/dev/null || true
  wait "${SESSION_PIDS[@]:1}" 2>/dev/null || true
  rm -rf "${SESSION_DIR}"
}
