#!/usr/bin/env bash
# Faults injected on the real service while 1280x720 frames flow at 30 fps: the producer killed,
# a client killed, the state directory made unusable, WirePlumber killed and restarted, PipeWire
# killed and restarted. Nothing crashes, the relay comes back, the status and the settings store
# say what happened, and the service ends with status 0 on SIGTERM (69 where PipeWire went away).
#
#   faults-test.sh BUILD_DIR
#
# The service runs under a small supervisor that does what its systemd unit asks of systemd
# (Restart=on-failure, RestartSec=2): it starts the service again 2 s after it ended with a
# non-zero status.
#
# Exits 77 (skipped) when the PipeWire session tools are not installed, or when no mount namespace
# can be made (it takes root).
set -uo pipefail

build="$(cd "${1:?usage: faults-test.sh BUILD_DIR}" && pwd)"
here="$(cd "$(dirname "$0")" && pwd)"
extension="${build}/tools/flowmere-camera-extension/flowmere-camera-extension"
producer="${build}/tools/flowmere-camera-producer/flowmere-camera-producer"
restart_delay=2

if ! unshare --mount --propagation private true 2>/dev/null; then
  echo "SKIP: no mount namespace can be made here (it takes root)"
  exit 77
fi

# shellcheck source=session.sh
source "${here}/session.sh"
require_tools pipewire wireplumber dbus-daemon pw-cli sqlite3 unshare
test_begin flowmere-faults-test
trap faults_end EXIT

# --- The service under its supervisor.
#
# The service runs in a mount namespace of its own whose /tmp is ${work}/tmp, so that the fixed
# fallback state directory it writes to when the container's cannot be used
# (/tmp/com.flowmere.av.state) is this test's, and the machine's is never touched. What it needs
# from the real /tmp (the session directory; the build directory, when it is there) is bound
# into the new one at the same paths. unshare and sh exec into the service, so the pid stays its
# own, and so does the exit status.
mkdir -p "${work}/tmp"
contain='root="$1"; shift
while [ "$1" != -- ]; do
  mkdir -p "${root}${1#/tmp}" && mount --bind "$1" "${root}${1#/tmp}" || exit 1
  shift
done
shift
mount --rbind "${root}" /tmp && exec "$@"'
supervise() {
  local pid status directory kept=()
  for directory in "${SESSION_DIR}" "${build}"; do
    [[ "${directory}" == /tmp/* ]] && kept+=("${directory}")
  done
  while :; do
    unshare --mount --propagation private sh -c "${contain}" sh "${work}/tmp" "${kept[@]}" -- \
      "${extension}" >>"${work}/extension.log" 2>&1 &
    pid=$!
    echo "started ${pid}" >>"${work}/supervisor.txt"
    wait "${pid}"
    status=$?
    echo "exited ${pid} ${status}" >>"${work}/supervisor.txt"
    if [ "${status}" -eq 0 ] || [ -e "${work}/supervisor.stop" ]; then
      return
    fi
    sleep "${restart_delay}"
  done
}
extension_pid() { sed -n 's/^started //p' "${work}/supervisor.txt" | tail -1; }
# The exit status of service process $1, empty while it runs.
exit_status_of() { sed -n "s/^exited $1 //p" "${work}/supervisor.txt"; }
# The lines the service logged after the first $1 (a count from log_lines).
log_from() { tail -n +"$(($1 + 1))" "${work}/extension.log"; }
log_lines() { wc -l <"${work}/extension.log"; }
# The last status text the service logged after the first $1 lines: the lines without a tag.
last_status() { log_from "$1" | grep -v '^\[' | tail -1; }

faults_end() {
  touch "${work}/supervisor.stop"
  [ -s "${work}/supervisor.txt" ] && end_processes "$(extension_pid)"
  test_end
}

# --- Values the service publishes (${state}, ${database}: set once the session runs), and the
# producers and clients, each named, with its output in ${work}/NAME.out and NAME.err and the
# numbers and times of the frames it sent or received in NAME.times.
file_value() { cat "${state}/bridge_$1" 2>/dev/null; }
store_value() {
  sqlite3 -readonly "${database}" "SELECT value FROM settings WHERE key = 'bridge_$1'" 2>/dev/null
}

# Starts producer $1 at 1280x720 BGRA, 30 fps, as ${producer_pid}, and waits until it streams.
start_producer() {
  "${producer}" --size 1280x720 --format bgra --fps 30 --timestamps "${work}/$1.times" \
    >"${work}/$1.out" 2>"${work}/$1.err" &
  producer_pid=$!
  background+=("${producer_pid}")
  wait_for "grep -q 'producer: streaming' '${work}/$1.err'" 10
}
# Ends the producer ${producer_pid}; its frame numbers are then in its times file.
end_producer() {
  kill -TERM "${producer_pid}" 2>/dev/null
  wait "${producer_pid}" 2>/dev/null
}
# Starts client $1 for $2 seconds (0: until ended) in the background as ${client_pid}, and waits
# until it has its first frame.
start_client() {
  "${producer}" receive --seconds "$2" --timestamps "${work}/$1.times" >"${work}/$1.out" \
    2>"${work}/$1.err" &
  client_pid=$!
  background+=("${client_pid}")
  wait_for "grep -q 'receiver: first frame' '${work}/$1.err'" 10
}
# Runs client $1 for $2 seconds in the foreground.
run_client() {
  "${producer}" receive --seconds "$2" --timestamps "${work}/$1.times" >"${work}/$1.out" \
    2>"${work}/$1.err"
}

# Fields of client $1's summary ("received N frames in S s (F fps): numbers A..B, M missing,
# R repeated, O out of order, U unreadable"): prints "N F M R O U".
summary_fields() {
  sed -n 's/^received \([0-9]*\) frames in [0-9.]* s (\([0-9.]*\) fps): numbers [0-9]*\.\.[0-9]*, \([0-9]*\) missing, \([0-9]*\) repeated, \([0-9]*\) out of order, \([0-9]*\) unreadable$/\1 \2 \3 \4 \5 \6/p' "${work}/$1.out"
}
# The frames the relay lost on the way to client $1: those producer $2 sent between the first
# and the last frame the client received that the client did not get. Frames the producer skipped
# itself (it never sends a frame late, and a busy machine makes it miss some) do not count.
relay_lost() {
  awk 'FNR == NR { got[$1] = 1; if (first == "" || $1 < first) first = $1; if ($1 > last) last = $1; next }
       first != "" && $1 >= first && $1 <= last && !($1 in got) { lost++ }
       END { print lost + 0 }' "${work}/$1.times" "${work}/$2.times"
}
# Whether client $1 got at least $3 frames of producer $2 (which has ended) at 28 fps or more,
# none lost by the relay, repeated, out of order or unreadable.
clean_relay() {
  local frames rate missing repeated backwards unreadable
  read -r frames rate missing repeated backwards unreadable < <(summary_fields "$1")
  [ -n "${frames:-}" ] && [ "${frames}" -ge "$3" ] && [ "${repeated}" -eq 0 ] &&
    [ "${backwards}" -eq 0 ] && [ "${unreadable}" -eq 0 ] && [ "$(relay_lost "$1" "$2")" -eq 0 ] &&
    awk -v r="${rate}" 'BEGIN { exit !(r >= 28) }'
}
# Client $1's summary, and what the relay lost of producer $2's frames.
relay_report() {
  echo "$(cat "${work}/$1.out") [relay lost $(relay_lost "$1" "$2"); producer: $(cat "${work}/$2.out")]"
}

# Waits up to $2 seconds until the service has counted $1 more frames than now. Reads the store,
# which the state directory's faults leave alone.
wait_frames() {
  local from
  from="$(store_value frames_received)"
  wait_for "[ \"\$(store_value frames_received)\" -ge $((${from:-0} + $1)) ]" "$2"
}
# Polls `$1` (a command) every 20 ms for up to $2 seconds: for the waits that are timed.
wait_closely() {
  local deadline=$((SECONDS + $2))
  until eval "$1" >/dev/null 2>&1; do
    [ "${SECONDS}" -ge "${deadline}" ] && return 1
    sleep 0.02
  done
}
seconds_since() { awk -v a="$1" -v b="${EPOCHREALTIME}" 'BEGIN { printf "%.2f", b - a }'; }

session_start || { echo "FAIL: no PipeWire session"; exit 1; }
state="${XDG_DATA_HOME}/group.com.flowmere.av.shared/com.flowmere.av.state"
fallback_state="${work}/tmp/com.flowmere.av.state"
database="${XDG_DATA_HOME}/group.com.flowmere.av.shared/settings.sqlite3"

supervise &
background+=("$!")
if ! wait_for "grep -q 'flowmere-camera-sink connecting -> paused' '${work}/extension.log'" 10; then
  fail "the service published no sink node"
  cat "${work}/extension.log"
  exit 1
fi
first_pid="$(extension_pid)"

# --- 1. The producer killed with SIGKILL while a client captures: the status says the sink
# stopped, and a new producer relays to a client at the producer's rate.
start_producer killed-producer
start_client across-producers 5
across_pid="${client_pid}"
wait_frames 30 5
lines="$(log_lines)"
killed="${EPOCHREALTIME}"
kill -KILL "${producer_pid}"
wait "${producer_pid}" 2>/dev/null
# "sink stopped" is written when the sink stops; a consume request waiting at the stop is answered
# before it, so its waiting status comes first (a request the relay sends just as the stop comes
# may still be answered after it, and writes the waiting status at the cadence). A client that
# leaves (its link is negotiated again for the camera's new offer) writes "source stopped"; so the
# file and the store must end up holding the last status the service logged.
if wait_closely "log_from ${lines} | grep -qx 'sink stopped'" 5; then
  logged_after="$(seconds_since "${killed}")"
  if wait_closely "[ \"\$(file_value extension_status)\" = \"\$(last_status ${lines})\" ] &&
    [ \"\$(store_value extension_status)\" = \"\$(last_status ${lines})\" ]" 5; then
    pass "producer killed: \"sink stopped\" after ${logged_after} s; the state file and the store hold the last status, \"$(store_value extension_status)\", after $(seconds_since "${killed}") s"
  else
    fail "producer killed: the last status \"$(last_status "${lines}")\", the state file \"$(file_value extension_status)\", the store \"$(store_value extension_status)\""
  fi
else
  fail "producer killed: no \"sink stopped\"; log: $(log_from "${lines}" | tr '\n' '|')"
fi
start_producer new-producer
run_client after-producer 3
end_producer
if clean_relay after-producer new-producer 80; then
  pass "a new producer relays: $(relay_report after-producer new-producer)"
else
  fail "after the producer was killed: $(relay_report after-producer new-producer) ($(tail -1 "${work}/after-producer.err"))"
fi
wait "${across_pid}"
# The client that captured across the change follows the new producer (its numbers start again).
echo "  the client across the change: $(cat "${work}/across-producers.out")"

# --- 2. A client killed with SIGKILL while another captures: the other client and the producer
# carry on at the producer's rate, the sink does not stop, and a new client is served.
start_producer client-kill-producer
start_client victim 0
victim_pid="${client_pid}"
start_client bystander 6
bystander_pid="${client_pid}"
wait_frames 30 5
lines="$(log_lines)"
kill -KILL "${victim_pid}"
wait "${victim_pid}" 2>/dev/null
wait "${bystander_pid}"
run_client after-victim 3
producer_alive="$(kill -0 "${producer_pid}" 2>/dev/null && echo yes)"
sink_stops="$(log_from "${lines}" | grep 'sink stop')"
end_producer
if clean_relay bystander client-kill-producer 150 && [ "${producer_alive}" = yes ] &&
  [ -z "${sink_stops}" ]; then
  pass "a client killed: the other client carries on: $(relay_report bystander client-kill-producer)"
else
  fail "a client killed: the other client: $(relay_report bystander client-kill-producer); producer alive: ${producer_alive:-no}; sink lines: ${sink_stops//$'\n'/|}"
fi
if clean_relay after-victim client-kill-producer 80; then
  pass "a new client after the kill: $(cat "${work}/after-victim.out")"
else
  fail "a new client after the kill: $(relay_report after-victim client-kill-producer) ($(tail -1 "${work}/after-victim.err"))"
fi

# --- 3. The state directory made unusable while frames flow: first replaced by a regular file
# (as root, permissions would not stop the service), so the values go to the fallback directory;
# then the fallback too, so no file can be written; then the file replaced by a dangling symbolic
# link. The relay goes on, nothing is logged beyond the per-frame cadence, the store keeps
# counting, and once the entries in the way are gone the service makes the directory again and
# writes its files there.
#
# Puts a regular file reading "in the way" in the place of directory $1, the directory going to
# $2. The service makes a missing state directory again at its next value, so the place may be
# taken between the two renames; a directory made there meanwhile is moved aside as well.
block_directory() {
  local attempt
  printf 'in the way' >"${work}/in-the-way"
  mv -T "$1" "$2"
  for attempt in $(seq 20); do
    mv -T "${work}/in-the-way" "$1" 2>/dev/null && return 0
    mv -T "$1" "$2.${attempt}" 2>/dev/null
  done
  return 1
}
start_producer state-producer
start_client state-client 9
state_client_pid="${client_pid}"
wait_frames 30 5
lines="$(log_lines)"
frames_before="$(store_value frames_received)"
block_directory "${state}" "${work}/state-saved" || fail "the state directory kept coming back"
if wait_closely "[ \"\$(cat '${fallback_state}/bridge_frames_received')\" -gt ${frames_before} ]" 5
then
  pass "state directory replaced by a file: the values go to the fallback directory ($(cat "${fallback_state}/bridge_frames_received") frames)"
else
  fail "state directory replaced by a file: the fallback holds \"$(cat "${fallback_state}/bridge_frames_received" 2>&1)\""
fi
block_directory "${fallback_state}" "${work}/fallback-saved" ||
  fail "the fallback directory kept coming back"
wait_frames 60 5
if [ "$(cat "${state}")" = 'in the way' ] && [ "$(cat "${fallback_state}")" = 'in the way' ]; then
  pass "no directory usable: the entries in the way are untouched, the store counts on ($(store_value frames_received) frames)"
else
  fail "no directory usable: $(ls -la "${state}" "${fallback_state}" 2>&1 | tr '\n' '|')"
fi
ln -s "${work}/no-such-directory" "${work}/dangling"
mv -T "${work}/dangling" "${state}"
wait_frames 30 5
frames_unusable="$(store_value frames_received)"
if [ -L "${state}" ] && [ ! -e "${work}/no-such-directory" ]; then
  pass "state directory a dangling link: left as it is, the store at ${frames_unusable} frames"
else
  fail "state directory a dangling link: $(ls -la "${state}" "${work}/no-such-directory" 2>&1 | tr '\n' '|')"
fi
rm "${state}" "${fallback_state}"
if wait_closely "[ \"\$(file_value frames_received)\" -gt ${frames_unusable} ]" 5; then
  pass "state directory free again: the files count again ($(file_value frames_received) frames, store $(store_value frames_received))"
else
  fail "state directory free again: the file holds $(file_value frames_received), the store $(store_value frames_received)"
fi
frames_during=$(($(store_value frames_received) - frames_before))
log_from "${lines}" >"${work}/state-fault.log"
wait "${state_client_pid}"
end_producer
if clean_relay state-client state-producer 200; then
  pass "the relay went on: $(relay_report state-client state-producer)"
else
  fail "the relay during the state directory faults: $(relay_report state-client state-producer)"
fi
if ! grep -qvE '^\[VANE-EXT\] (sink received|source send) frame=' "${work}/state-fault.log" &&
  [ "$(wc -l <"${work}/state-fault.log")" -le $((2 * (frames_during / 300 + 1))) ]; then
  pass "$(wc -l <"${work}/state-fault.log") log lines over ${frames_during} frames, all of the per-frame cadence"
else
  fail "log lines during the state directory faults: $(grep -vcE '^\[VANE-EXT\] (sink received|source send) frame=' "${work}/state-fault.log") beyond the cadence; $(head -5 "${work}/state-fault.log" | tr '\n' '|')"
fi

# --- 4. WirePlumber killed with SIGKILL and started again at once (as its unit's
# Restart=on-failure does) while frames flow. Its links go with it (the sink and the source
# stop); the service keeps running, and the WirePlumber that comes back links the same producer
# and client again. The client's frame times show the gap; the time from the restart to the
# first frame after it is that gap less the time WirePlumber was away.
start_producer wp-producer
start_client wp-client 0
wp_client_pid="${client_pid}"
wait_frames 30 5
lines="$(log_lines)"
# The client's time stamps are CLOCK_MONOTONIC: the kill's instant on that clock tells its frames
# from before and after.
killed_monotonic="$(python3 -c 'import time; print(time.monotonic_ns())')"
killed="${EPOCHREALTIME}"
kill -KILL "${SESSION_PIDS[2]}"
restarted="${EPOCHREALTIME}"
session_restart_wireplumber || fail "WirePlumber did not come back"
registered="$(seconds_since "${restarted}")"
wait_for "log_from ${lines} | grep -q 'source startStream started=true'" 10
wait_frames 60 5
if wait_for "[[ \"\$(file_value extension_status)\" == received\\ * ]]" 3 &&
  wait_for "[[ \"\$(store_value extension_status)\" == received\\ * ]]" 3; then
  pass "after WirePlumber's restart the status reads \"$(file_value extension_status)\""
else
  fail "after WirePlumber's restart: file \"$(file_value extension_status)\", store \"$(store_value extension_status)\""
fi
kill -TERM "${wp_client_pid}"
wait "${wp_client_pid}"
producer_alive="$(kill -0 "${producer_pid}" 2>/dev/null && echo yes)"
end_producer
# The longest pause between two frames that ends after the kill, and the frames after the kill:
# "seconds frames". WirePlumber may come back and link again within a frame interval; then the
# pause is an ordinary one and the restart cost nothing.
read -r gap frames_after < <(awk -v killed="${killed_monotonic}" '
  $2 > killed { after++; if (NR > 1 && $2 - last > gap) gap = $2 - last }
  { last = $2 } END { printf "%.3f %d\n", gap / 1e9, after }' "${work}/wp-client.times")
back_after="$(awk -v gap="${gap:-0}" -v away="${restarted}" -v killed="${killed}" \
  'BEGIN { back = gap - (away - killed); printf "%.2f", (back > 0 ? back : 0) }')"
if [ "$(extension_pid)" = "${first_pid}" ] && kill -0 "${first_pid}" 2>/dev/null &&
  [ "${producer_alive}" = yes ] && [ "${frames_after:-0}" -ge 60 ] &&
  log_from "${lines}" | grep -qx 'sink stopped' &&
  log_from "${lines}" | grep -q '^sink started clients=1 hasClient=true$' &&
  awk -v s="${back_after}" 'BEGIN { exit !(s <= 3) }'; then
  pass "WirePlumber restarted: its links went (the sink stopped and started again); the same producer and client relay again ${back_after} s after its start (it registered after ${registered} s; gap ${gap} s); the service kept running"
else
  fail "WirePlumber restarted: service ${first_pid} -> $(extension_pid), producer alive: ${producer_alive:-no}, ${frames_after:-0} frames after the kill, the longest pause ${gap:-?} s (${back_after} s after the restart); log: $(log_from "${lines}" | grep -v 'frame=' | tr '\n' '|')"
fi
echo "  the client across the restart: $(relay_report wp-client wp-producer)"

# --- 5. PipeWire killed with SIGKILL while frames flow, then started again at once (as its unit's
# Restart=on-failure does). The service logs that PipeWire went away and ends with status 69,
# having stopped its streams and stored its last values; the supervisor starts it again after
# ${restart_delay} s. The figure: from PipeWire accepting connections again until a client,
# started with a new producer as soon as the camera is there, gets its first frame.
start_producer lost-producer
start_client pw-client 0
pw_client_pid="${client_pid}"
wait_frames 30 5
lines="$(log_lines)"
lost_pid="$(extension_pid)"
kill -KILL "${SESSION_PIDS[1]}"
wait "${SESSION_PIDS[1]}" 2>/dev/null
session_restart_pipewire || { fail "PipeWire did not come back"; exit 1; }
back="${SESSION_PIPEWIRE_BACK}"
if wait_for "[ -n \"\$(exit_status_of ${lost_pid})\" ]" 10 &&
  [ "$(exit_status_of "${lost_pid}")" = 69 ] &&
  log_from "${lines}" | grep -q '^\[pipewire\] PipeWire went away: stopping$'; then
  pass "PipeWire killed: the service logged \"PipeWire went away: stopping\" and ended with status 69"
else
  fail "PipeWire killed: the service's status \"$(exit_status_of "${lost_pid}")\"; log: $(log_from "${lines}" | grep -v 'frame=' | tr '\n' '|')"
fi
# Both streams were stopped on the way out, in either order, and the store holds what the files
# hold: the last status the service logged and the count. (The service started again writes
# nothing before a peer links.)
if log_from "${lines}" | grep -qx 'sink stopped' && log_from "${lines}" | grep -qx 'source stopped' &&
  [ "$(store_value extension_status)" = "$(last_status "${lines}")" ] &&
  [ "$(store_value extension_status)" = "$(file_value extension_status)" ] &&
  [ "$(store_value frames_received)" = "$(file_value frames_received)" ]; then
  pass "the streams stopped on the way out; the store keeps the last values: \"$(store_value extension_status)\" after $(store_value frames_received) frames"
else
  fail "after PipeWire went: store \"$(store_value extension_status)\" $(store_value frames_received), files \"$(file_value extension_status)\" $(file_value frames_received)"
fi
if wait_for "! kill -0 ${producer_pid} && ! kill -0 ${pw_client_pid}" 5; then
  pass "the producer and the client ended with PipeWire"
else
  fail "the producer or the client outlived PipeWire"
fi
wait "${producer_pid}" "${pw_client_pid}" 2>/dev/null
wait_closely "[ \"\$(extension_pid)\" != ${lost_pid} ] && log_from ${lines} | grep -q 'flowmere-camera-sink connecting -> paused'" 10
"${producer}" --size 1280x720 --format bgra --fps 30 --timestamps "${work}/back-producer.times" \
  >"${work}/back-producer.out" 2>"${work}/back-producer.err" &
producer_pid=$!
background+=("${producer_pid}")
"${producer}" receive --seconds 0 >"${work}/back.out" 2>"${work}/back.err" &
client_pid=$!
background+=("${client_pid}")
if wait_closely "grep -q 'receiver: first frame' '${work}/back.err'" 10; then
  capturable="$(seconds_since "${back}")"
  if awk -v s="${capturable}" 'BEGIN { exit !(s <= 3) }'; then
    pass "PipeWire back: a client gets a new producer's frames ${capturable} s after PipeWire accepts connections again"
  else
    fail "PipeWire back: the first frame came ${capturable} s after PipeWire accepted connections"
  fi
else
  fail "PipeWire back: no frame in 10 s ($(tail -1 "${work}/back.err"); $(tail -1 "${work}/back-producer.err"))"
fi
kill -TERM "${client_pid}"
wait "${client_pid}"
run_client after-restart 3
end_producer
if clean_relay after-restart back-producer 80; then
  pass "the service started again relays: $(relay_report after-restart back-producer)"
else
  fail "the service started again: $(relay_report after-restart back-producer) ($(tail -1 "${work}/after-restart.err"))"
fi

# --- 6. SIGTERM ends the service with status 0, the store written out; over the whole run it
# ended only there and where PipeWire went away, and no sanitizer reported anything.
touch "${work}/supervisor.stop"
last_pid="$(extension_pid)"
kill -TERM "${last_pid}"
if wait_for "[ -n \"\$(exit_status_of ${last_pid})\" ]" 20 &&
  [ "$(exit_status_of "${last_pid}")" = 0 ]; then
  pass "SIGTERM ends the service with status 0"
else
  fail "the service's status on SIGTERM: \"$(exit_status_of "${last_pid}")\""
fi
exits="$(sed -n 's/^exited [0-9]* //p' "${work}/supervisor.txt" | tr '\n' ' ')"
if [ "${exits}" = "69 0 " ]; then
  pass "the service ended twice: with 69 when PipeWire went, with 0 on SIGTERM"
else
  fail "the service's exit statuses over the run: ${exits}"
fi
if [ "$(store_value extension_status)" = "$(file_value extension_status)" ] &&
  [ "$(store_value frames_received)" = "$(file_value frames_received)" ]; then
  pass "after SIGTERM the store holds the files' values: \"$(store_value extension_status)\" after $(store_value frames_received) frames"
else
  fail "after SIGTERM: store \"$(store_value extension_status)\" $(store_value frames_received), files \"$(file_value extension_status)\" $(file_value frames_received)"
fi
# In the AddressSanitizer build a report or a leak (LeakSanitizer runs at exit) also makes the
# exit status non-zero; this catches one in a process that still ended as expected.
if print_sanitizer_reports "${work}/extension.log"; then
  fail "a sanitizer reported in the service's log"
fi

if [ "${failures}" -gt 0 ]; then
  echo "--- service log (last 40 lines, without the per-frame lines)"
  grep -vE '^\[VANE-EXT\] (sink received|source send) frame=' "${work}/extension.log" | tail -40
  echo "--- supervisor"
  cat "${work}/supervisor.txt"
  exit 1
fi
echo "all fault checks passed"
