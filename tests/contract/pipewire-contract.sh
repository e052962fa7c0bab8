#!/usr/bin/env bash
# Runs the platform contract's PipeWire cases on a private PipeWire session (fresh
# XDG_RUNTIME_DIR, D-Bus, PipeWire, WirePlumber), which it tears down afterwards.
#
#   pipewire-contract.sh CONTRACT_TEST_BINARY [GTEST_ARGS...]
#
# Exits 77 (skipped) when the PipeWire session tools are not installed.
set -uo pipefail

binary="${1:?usage: pipewire-contract.sh CONTRACT_TEST_BINARY [GTEST_ARGS...]}"
shift
here="$(cd "$(dirname "$0")" && pwd)"

# shellcheck source=../pipewire/session.sh
source "${here}/../pipewire/session.sh"
require_tools pipewire wireplumber dbus-daemon pw-cli pw-dump
test_begin flowmere-contract

if ! session_start; then
  echo "FAIL: the private PipeWire session did not start"
  cat "${SESSION_DIR}/pipewire.log" "${SESSION_DIR}/wireplumber.log" 2>/dev/null
  exit 1
fi

FLOWMERE_CONTRACT_PIPEWIRE=1 "${binary}" --gtest_filter='*/PipeWire.*' "$@"
status=$?
if [ "${status}" -ne 0 ]; then
  echo "--- pipewire.log"
  tail -n 50 "${SESSION_DIR}/pipewire.log"
  echo "--- wireplumber.log"
  tail -n 50 "${SESSION_DIR}/wireplumber.log"
fi
exit "${status}"
