#!/usr/bin/env python3
"""Producer-to-consumer latency and CPU per frame: the camera service against a GStreamer relay.

    relay_latency.py BUILD_DIR --pipewire-pid PID [--repeats N] [--seconds S] [--warmup S]
                     [--sizes WxH,...] [--fps N] [--cases ours,gst,gst-2ms,ours-cold] [--out DIR]

Runs inside a PipeWire session that is already up (relay_latency.sh starts a private one). Each
run starts one relay fresh, a producer pushing the BGRA test pattern into the relay's input node
and a receiver capturing the relay's output node; both tools write one "frame_number time_ns"
line per frame (CLOCK_MONOTONIC: push just before the buffer is queued, receipt just after it
is dequeued). After a warm-up, a window of S seconds is measured: latency = receipt - push for
every frame received in the window, frames lost = numbers between the window's first and last
received frame that never arrived, and CPU per frame = the relay process's utime + stime over
the window (from /proc/PID/stat) divided by the frames received in it; likewise the PipeWire
daemon's. The cases run alternately, size after size, repeat after repeat, so they share the
machine's state. Python standard library only.

Cases:
  ours       producer -> flowmere-camera-sink | flowmere-camera-extension |
             flowmere-camera-source -> receiver; the receiver joins a running producer.
  ours-cold  the same, but the receiver is linked before the producer starts.
  gst        producer -> pipewiresrc (an input node, Video/Sink) ! pipewiresink mode=provide
             sync=false (an output node, Video/Source) -> receiver, in one gst-launch-1.0
             process; the receiver joins a running producer. pipewiresrc is no driver, so its
             node joins the dummy driver's group (node.group=pipewire.dummy): without a driver
             of its own the graph would hang it under pipewiresink's, which runs only when a
             frame has come through, and nothing would ever flow. The producer-to-relay hop then
             runs at the dummy driver's default quantum (1024/48000 s, 21.3 ms).
  gst-2ms    the same with node.latency=96/48000 on the relay's input node: the hop runs every
             2 ms, as often as the camera service's sink polls for a frame when it has none.

Debian's pipewiresink crashes in some sessions: a run whose relay dies is reported and tried
again, up to three times.
"""

import argparse
import os
import signal
import statistics
import subprocess
import sys
import tempfile
import time
from pathlib import Path

CLOCK_TICKS = os.sysconf("SC_CLK_TCK")
ATTEMPTS = 3

GST_SINK_NODE = "flowmere-bench-gst-sink"
GST_SOURCE_NODE = "flowmere-bench-gst-source"
GST_INPUT_PROPS = {"gst": "", "gst-2ms": ",node.latency=96/48000"}


class RunFailed(Exception):
    """A run that did not produce a measurement (a relay that died, a node that never came)."""


def cpu_seconds(pid):
    """utime + stime of the whole process (all its threads), in seconds."""
    with open(f"/proc/{pid}/stat", encoding="ascii") as stat:
        fields = stat.read().rsplit(")", 1)[1].split()
    # After the command name: state is field 3, utime 14 and stime 15 (1-based, man proc).
    return (int(fields[11]) + int(fields[12])) / CLOCK_TICKS


def wait_for(predicate, seconds, what):
    deadline = time.monotonic() + seconds
    while not predicate():
        if time.monotonic() > deadline:
            raise RunFailed(f"timed out waiting for {what}")
        time.sleep(0.05)


def file_has(path, text):
    try:
        return text in Path(path).read_text(errors="replace")
    except FileNotFoundError:
        return False


def node_exists(name):
    listing = subprocess.run(["pw-cli", "ls", "Node"], capture_output=True, text=True).stdout
    return f'node.name = "{name}"' in listing


def end(process, sig=signal.SIGTERM):
    """Ends one process that this script started: the signal, then SIGKILL after 5 s."""
    if process is None or process.poll() is not None:
        return
    process.send_signal(sig)
    try:
        process.wait(timeout=5)
    except subprocess.TimeoutExpired:
        process.kill()
        process.wait()


def read_times(path):
    """frame number -> first time seen (ns)."""
    times = {}
    try:
        with open(path, encoding="ascii") as lines:
            for line in lines:
                number, nanoseconds = line.split()
                times.setdefault(int(number), int(nanoseconds))
    except FileNotFoundError:
        pass
    return times


def percentile(sorted_values, fraction):
    if not sorted_values:
        return float("nan")
    index = min(len(sorted_values) - 1, max(0, round(fraction * (len(sorted_values) - 1))))
    return sorted_values[index]


class Bench:
    def __init__(self, args):
        self.args = args
        tools = Path(args.build_dir) / "tools"
        self.extension = tools / "flowmere-camera-extension" / "flowmere-camera-extension"
        self.producer = tools / "flowmere-camera-producer" / "flowmere-camera-producer"
        for program in (self.extension, self.producer):
            if not os.access(program, os.X_OK):
                sys.exit(f"relay_latency: {program} is not built")

    def start(self, command, log):
        """Starts a program with its stderr in `log` and its stdout next to it."""
        with open(log.with_suffix(".out"), "w") as out, open(log, "w") as err:
            return subprocess.Popen([str(part) for part in command], stdout=out, stderr=err,
                                    stdin=subprocess.DEVNULL)

    def start_relay(self, case, work):
        """Starts the relay; returns (process, input node, output node)."""
        if case in ("ours", "ours-cold"):
            log = work / "extension.log"
            relay = self.start([self.extension], log)
            wait_for(lambda: file_has(log, "flowmere-camera-sink connecting -> paused") and
                     file_has(log, "flowmere-camera-source connecting -> paused"), 10,
                     "the extension's nodes")
            return relay, "flowmere-camera-sink", "flowmere-camera-source"
        log = work / "gst.log"
        # --no-fault: a crash ends the process instead of leaving it spinning in GStreamer's
        # fault handler, so that it shows as a dead relay.
        relay = self.start([
            "gst-launch-1.0", "--no-fault", "pipewiresrc", "client-name=flowmere-bench-gst",
            f"stream-properties=props,media.class=Video/Sink,node.name={GST_SINK_NODE},"
            f"node.group=pipewire.dummy{GST_INPUT_PROPS[case]}",
            "!", "pipewiresink", "client-name=flowmere-bench-gst", "mode=provide",
            "sync=false",
            f"stream-properties=props,media.class=Video/Source,node.name={GST_SOURCE_NODE}",
        ], log)
        wait_for(lambda: relay.poll() is not None or node_exists(GST_SINK_NODE), 10,
                 "the GStreamer relay's input node")
        if relay.poll() is not None:
            raise RunFailed(f"gst-launch-1.0 ended at start: {log.read_text()[-300:]}")
        return relay, GST_SINK_NODE, GST_SOURCE_NODE

    def run_once(self, case, size, work):
        args = self.args
        processes = {}
        try:
            relay, input_node, output_node = self.start_relay(case, work)
            processes["relay"] = relay
            receiver_command = [self.producer, "receive", "--target", output_node,
                                "--timestamps", work / "receive.txt"]
            producer_command = [self.producer, "--target", input_node, "--format", "bgra",
                                "--size", size, "--fps", args.fps,
                                "--timestamps", work / "push.txt"]
            if case == "ours-cold":
                processes["receiver"] = self.start(receiver_command, work / "receiver.log")
                wait_for(lambda: file_has(work / "receiver.log", "receiver: paused"), 10,
                         "the receiver's link")
            processes["producer"] = self.start(producer_command, work / "producer.log")
            wait_for(lambda: relay.poll() is not None or
                     file_has(work / "producer.log", "producer: streaming"), 10,
                     "the producer's link")
            if case.startswith("gst"):
                wait_for(lambda: relay.poll() is not None or node_exists(output_node), 10,
                         "the GStreamer relay's output node")
            if case != "ours-cold":
                processes["receiver"] = self.start(receiver_command, work / "receiver.log")
            wait_for(lambda: relay.poll() is not None or
                     file_has(work / "receiver.log", "receiver: streaming"), 10,
                     "the receiver's stream")
            time.sleep(args.warmup)
            if relay.poll() is not None:
                raise RunFailed(f"the relay ended during the warm-up (status {relay.returncode})")
            watched = {"relay": relay.pid, "pipewire": args.pipewire_pid}
            before = {name: cpu_seconds(pid) for name, pid in watched.items()}
            window_start = time.monotonic_ns()
            time.sleep(args.seconds)
            window_end = time.monotonic_ns()
            load = Path("/proc/loadavg").read_text().split()[0]
            after = {name: cpu_seconds(pid) for name, pid in watched.items()}
            if relay.poll() is not None:
                raise RunFailed(f"the relay ended during the run (status {relay.returncode})")
        finally:
            for name in ("receiver", "producer", "relay"):
                end(processes.get(name))
        if case.startswith("gst") and processes["relay"].returncode not in (0, -signal.SIGTERM):
            raise RunFailed(f"gst-launch-1.0 ended with status {processes['relay'].returncode}")
        result = self.summarise(work, window_start, window_end,
                                {name: after[name] - before[name] for name in watched})
        result["load"] = float(load)
        return result

    def summarise(self, work, window_start, window_end, cpu):
        pushed = read_times(work / "push.txt")
        received = read_times(work / "receive.txt")
        in_window = {number: at for number, at in received.items()
                     if window_start <= at <= window_end}
        if not in_window:
            raise RunFailed("no frame received in the measured window")
        latencies = sorted((at - pushed[number]) / 1e6 for number, at in in_window.items()
                           if number in pushed)
        first, last = min(in_window), max(in_window)
        lost = sum(1 for number in range(first, last + 1)
                   if number in pushed and number not in received)
        frames = len(in_window)
        return {
            "frames": frames,
            "fps": frames / ((window_end - window_start) / 1e9),
            "lost": lost,
            "unmatched": frames - len(latencies),
            "p50": percentile(latencies, 0.50),
            "p99": percentile(latencies, 0.99),
            "max": latencies[-1] if latencies else float("nan"),
            "relay_ms": cpu["relay"] * 1e3 / frames,
            "pipewire_ms": cpu["pipewire"] * 1e3 / frames,
        }

    def run(self, case, size, repeat):
        failures = []
        for attempt in range(1, ATTEMPTS + 1):
            work = Path(tempfile.mkdtemp(prefix=f"{case}-{size}-{repeat}-{attempt}-",
                                         dir=self.args.out))
            try:
                result = self.run_once(case, size, work)
            except RunFailed as failure:
                failures.append(str(failure))
                print(f"  {case} {size} repeat {repeat} attempt {attempt} failed: {failure}"
                      f" (logs in {work})", file=sys.stderr, flush=True)
                continue
            result["failed_attempts"] = len(failures)
            print(f"  {case:9} {size:9} repeat {repeat}: {result['frames']} frames "
                  f"({result['fps']:.2f} fps), lost {result['lost']}, latency p50 "
                  f"{result['p50']:.2f} p99 {result['p99']:.2f} max {result['max']:.2f} ms, "
                  f"relay {result['relay_ms']:.3f} ms/frame, PipeWire "
                  f"{result['pipewire_ms']:.3f} ms/frame, load average {result['load']:.2f}",
                  file=sys.stderr, flush=True)
            return result
        return {"failed_attempts": len(failures), "error": failures[-1]}


def spread(values, digits):
    values = sorted(values)
    if not values:
        return "–"
    median = statistics.median(values)
    if values[0] == values[-1] or len(values) == 1:
        return f"{median:.{digits}f}"
    return f"{median:.{digits}f} ({values[0]:.{digits}f}–{values[-1]:.{digits}f})"


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("build_dir")
    parser.add_argument("--pipewire-pid", type=int, required=True)
    parser.add_argument("--repeats", type=int, default=3)
    parser.add_argument("--seconds", type=float, default=10.0)
    parser.add_argument("--warmup", type=float, default=2.0)
    parser.add_argument("--sizes", default="1920x1080,3840x2160")
    parser.add_argument("--fps", default="30")
    parser.add_argument("--cases", default="ours,gst,gst-2ms,ours-cold")
    parser.add_argument("--out", default=None, help="keep each run's logs and time stamps here")
    args = parser.parse_args()
    if args.out is None:
        args.out = tempfile.mkdtemp(prefix="relay-latency-")
    Path(args.out).mkdir(parents=True, exist_ok=True)

    bench = Bench(args)
    cases = args.cases.split(",")
    sizes = args.sizes.split(",")
    results = {(case, size): [] for case in cases for size in sizes}
    for repeat in range(1, args.repeats + 1):
        for size in sizes:
            for case in cases:
                results[(case, size)].append(bench.run(case, size, repeat))

    with open(Path(args.out) / "runs.csv", "w", encoding="ascii") as table:
        fields = ["case", "size", "repeat", "frames", "fps", "lost", "unmatched", "p50", "p99",
                  "max", "relay_ms", "pipewire_ms", "load", "failed_attempts", "error"]
        table.write(",".join(fields) + "\n")
        for (case, size), runs in results.items():
            for repeat, run in enumerate(runs, 1):
                row = {"case": case, "size": size, "repeat": repeat, **run}
                table.write(",".join(str(row.get(field, "")).replace(",", ";")
                                     for field in fields) + "\n")

    print(f"{args.repeats} repeats of {args.seconds:g} s at {args.fps} fps BGRA after "
          f"{args.warmup:g} s of warm-up; median of the repeats (range). Logs: {args.out}")
    print()
    print("| Frame | Relay | Frames | Lost | Latency p50 (ms) | p99 (ms) | max (ms) "
          "| Relay CPU per frame (ms) | PipeWire daemon CPU per frame (ms) | Failed attempts |")
    print("|---|---|---|---|---|---|---|---|---|---|")
    names = {"ours": "ours", "ours-cold": "ours, client linked first", "gst": "GStreamer",
             "gst-2ms": "GStreamer, 2 ms quantum"}
    for size in sizes:
        for case in cases:
            runs = [run for run in results[(case, size)] if "error" not in run]
            failed = sum(run["failed_attempts"] for run in results[(case, size)])
            errors = len(results[(case, size)]) - len(runs)
            frames = "/".join(str(run["frames"]) for run in runs)
            lost = "/".join(str(run["lost"]) for run in runs)
            print(f"| {size} | {names.get(case, case)} | {frames or '–'} | {lost or '–'} "
                  f"| {spread([run['p50'] for run in runs], 2)} "
                  f"| {spread([run['p99'] for run in runs], 2)} "
                  f"| {spread([run['max'] for run in runs], 2)} "
                  f"| {spread([run['relay_ms'] for run in runs], 3)} "
                  f"| {spread([run['pipewire_ms'] for run in runs], 3)} "
                  f"| {failed}{f' ({errors} runs gave up)' if errors else ''} |")
    return 0


if __name__ == "__main__":
    sys.exit(main())
