#!/usr/bin/env python3
"""The camera on a real PipeWire for a long while, under producer restarts and camera clients.

    soak_pipewire.py BUILD_DIR [--seconds S] [--seed N] [--rss-every S] [--rss-out FILE.csv]
                     [--progress S] [--slope-bound MIB_PER_MIN] [--coverage-bound FRACTION]
                     [--max-clients N] [--keep DIR]

Runs inside a PipeWire session that is already up (soak-pipewire.sh starts a private one). It
starts flowmere-camera-extension and, for S seconds:

- runs flowmere-camera-producer again and again, each for 3-8 s, with 0-3 s between runs, at a
  format drawn from the catalogue (720p, 1080p, portrait 720x1280 and, now and then, 4K BGRA;
  1080p P010 with PQ or HLG, and now and then 4K P010);
- starts camera clients at random moments (one every 1.5 s on average, sometimes two or three at
  once, at most --max-clients together): `flowmere-camera-producer receive` for 1-10 s (one in
  ten for 20-40 s), which follows every producer's format; while a producer runs with at least
  3 s to go, one client in four is GStreamer's `pipewiresrc ! video/x-raw ! fakesink` instead,
  for 1-4 s and ended a second before its producer (pipewiresrc cannot follow a format change);
- samples the extension's memory (/proc/PID/status) every --rss-every seconds.

The schedule comes from --seed (a random seed when none is given; printed either way). Exit
status 0 when every check held, 1 when one failed. The checks are listed in docs/RELIABILITY.md,
section "Soak on PipeWire".
"""

import argparse
import os
import random
import shutil
import signal
import subprocess
import sys
import tempfile
import time
from dataclasses import dataclass
from pathlib import Path

import soak_report
from soak_analysis import NS, label

# (size, pixel format, transfer, weight): catalogue formats only. 1280x720 exists in BGRA only.
FORMATS = [
    ("1280x720", "bgra", None, 25),
    ("1920x1080", "bgra", None, 25),
    ("1920x1080", "p010", "pq", 14),
    ("1920x1080", "p010", "hlg", 10),
    ("720x1280", "bgra", None, 10),
    ("3840x2160", "bgra", None, 10),
    ("3840x2160", "p010", "pq", 6),
]
FPS = 30
STOP_SECONDS = 5.0  # a program has this long to end after its signal


@dataclass
class Run:
    """One program the soak started: the extension, a producer or a client."""
    kind: str  # "producer", "receive", "gst"
    index: int
    process: subprocess.Popen
    start_ns: int
    planned_end_ns: int
    files: Path  # prefix of its output files
    fmt: tuple = None  # a producer's format
    producer: "Run" = None  # a GStreamer client's producer
    signalled_ns: int = None
    end_ns: int = None

    @property
    def alive(self):
        return self.end_ns is None


def open_files(pid):
    """What a live process's file descriptors point at, one per line."""
    lines = []
    for name in sorted(os.listdir(f"/proc/{pid}/fd"), key=int):
        try:
            lines.append(f"{name} {os.readlink(f'/proc/{pid}/fd/{name}')}")
        except FileNotFoundError:
            pass  # closed meanwhile
    return "\n".join(lines) + "\n"


def memory_sample(pid):
    """{VmRSS, RssAnon, RssFile, RssShmem, Threads, fds} of a live process; kB for sizes."""
    values = {}
    with open(f"/proc/{pid}/status", encoding="ascii") as status:
        for line in status:
            key, _, rest = line.partition(":")
            if key in ("VmRSS", "RssAnon", "RssFile", "RssShmem", "Threads"):
                values[key] = int(rest.split()[0])
    values["fds"] = len(os.listdir(f"/proc/{pid}/fd"))
    return values


class Soak:
    def __init__(self, args, work):
        self.args = args
        self.work = work
        tools = Path(args.build_dir) / "tools"
        self.extension_program = tools / "flowmere-camera-extension" / "flowmere-camera-extension"
        self.producer_program = tools / "flowmere-camera-producer" / "flowmere-camera-producer"
        # Producers and clients draw from streams of their own, and every client event draws
        # the same values whatever the moment, so that a seed names one schedule (which the
        # programs' own timing then plays out).
        self.producer_random = random.Random(args.seed)
        self.client_random = random.Random(args.seed + 1)
        self.gst = shutil.which("gst-launch-1.0") is not None
        self.failures = []
        self.producers = []
        self.clients = []
        self.samples = []  # (seconds, memory_sample) while the soak runs
        self.idle = None  # (seconds, memory_sample) of the idle extension after the wind-down
        self.extension = None
        self.extension_status = None
        self.t0 = 0

    # --- processes

    def start(self, command, files, merged=False):
        """Starts a program with its stdout in FILES.out and its stderr in FILES.err (in
        FILES.out too when `merged`)."""
        with open(files.with_suffix(".out"), "w") as out:
            if merged:
                return subprocess.Popen([str(part) for part in command], stdin=subprocess.DEVNULL,
                                        stdout=out, stderr=subprocess.STDOUT)
            with open(files.with_suffix(".err"), "w") as err:
                return subprocess.Popen([str(part) for part in command], stdin=subprocess.DEVNULL,
                                        stdout=out, stderr=err)

    def fail(self, text):
        self.failures.append(text)
        print(f"  FAIL at {self.seconds():.1f} s: {text}", flush=True)

    def seconds(self, at=None):
        return ((time.monotonic_ns() if at is None else at) - self.t0) / NS

    def reap(self, run, now):
        if run.alive and run.process.poll() is not None:
            run.end_ns = now
        if run.alive and run.signalled_ns and now - run.signalled_ns > STOP_SECONDS * NS:
            self.fail(f"{run.kind} {run.index} did not end within {STOP_SECONDS:g} s of its "
                      f"signal; killed")
            run.process.kill()
            run.process.wait()
            run.end_ns = now

    def stop(self, run, sig=signal.SIGTERM):
        if run.alive and run.signalled_ns is None:
            run.process.send_signal(sig)
            run.signalled_ns = time.monotonic_ns()

    # --- the schedule

    def start_producer(self, now):
        fmt = self.producer_random.choices(FORMATS, weights=[f[3] for f in FORMATS])[0]
        size, pixels, transfer, _ = fmt
        index = len(self.producers)
        files = self.work / f"producer-{index:04d}"
        command = [self.producer_program, "--size", size, "--format", pixels, "--fps", FPS,
                   "--timestamps", files.with_suffix(".push")]
        if transfer:
            command += ["--transfer", transfer]
        seconds = self.producer_random.uniform(3.0, 8.0)
        self.producers.append(Run("producer", index, self.start(command, files), now,
                                  now + int(seconds * NS), files, fmt=fmt))

    def producer_gap(self):
        """Seconds between one producer's end and the next one's start."""
        choice = self.producer_random.random()
        short = self.producer_random.uniform(0.2, 1.0)
        long = self.producer_random.uniform(1.5, 3.0)
        return 0.0 if choice < 0.4 else short if choice < 0.8 else long

    def start_clients(self, now, producer):
        draw = self.client_random
        count = draw.choices([1, 2, 3], weights=[60, 25, 15])[0]
        # Per client: GStreamer or not, long or not, a long and a short life, a GStreamer life.
        plans = [(draw.random(), draw.random(), draw.uniform(20.0, 40.0), draw.uniform(1.0, 10.0),
                  draw.random()) for _ in range(count)]
        room = self.args.max_clients - sum(1 for client in self.clients if client.alive)
        for gst_roll, long_roll, long_seconds, seconds, gst_share in plans[:max(room, 0)]:
            index = len(self.clients)
            files = self.work / f"client-{index:04d}"
            # A GStreamer client only inside one producer's run, ended a second before it.
            left = (producer.planned_end_ns - now) / NS if producer and producer.alive else 0
            if (self.gst and left >= 3.0 and now - producer.start_ns >= NS // 2 and
                    gst_roll < 0.25):
                seconds = 1.0 + gst_share * (min(4.0, left - 1.0) - 1.0)
                command = ["gst-launch-1.0", "-e", "--no-fault", "pipewiresrc",
                           "target-object=flowmere-camera-source", "!", "video/x-raw", "!",
                           "fakesink", "silent=false", "-v"]
                self.clients.append(Run("gst", index, self.start(command, files), now,
                                        now + int(seconds * NS), files, producer=producer))
                continue
            seconds = long_seconds if long_roll < 0.1 else seconds
            command = [self.producer_program, "receive", "--seconds", f"{seconds:.2f}",
                       "--timestamps", files.with_suffix(".receive")]
            self.clients.append(Run("receive", index, self.start(command, files), now,
                                    now + int(seconds * NS), files))

    def progress(self, now):
        producer = self.producers[-1] if self.producers and self.producers[-1].alive else None
        running = (f"producer {producer.index} {label(producer.fmt)} for "
                   f"{(now - producer.start_ns) / NS:.1f} s" if producer else "no producer")
        alive = sum(1 for client in self.clients if client.alive)
        memory = self.samples[-1][1] if self.samples else None
        rss = (f"RSS {memory['VmRSS'] / 1024:.1f} MiB (private "
               f"{(memory['VmRSS'] - memory['RssShmem']) / 1024:.1f})" if memory else "")
        print(f"{self.seconds(now):6.0f} s: {running}; clients: {alive} now, {len(self.clients)} "
              f"started; producers started: {len(self.producers)}; {rss}; failures: "
              f"{len(self.failures)}", flush=True)

    def run(self):
        args = self.args
        log = self.work / "extension"
        self.extension = self.start([self.extension_program], log, merged=True)
        self.t0 = time.monotonic_ns()
        deadline = time.monotonic() + 10
        published = "flowmere-camera-sink connecting -> paused"
        while published not in log.with_suffix(".out").read_text():
            if time.monotonic() > deadline or self.extension.poll() is not None:
                self.fail("the extension published no nodes")
                return
            time.sleep(0.05)
        self.samples.append((self.seconds(), memory_sample(self.extension.pid)))
        (self.work / "extension-fds-start.txt").write_text(open_files(self.extension.pid))
        end = self.t0 + int(args.seconds * NS)
        next_producer = time.monotonic_ns()  # None: to be drawn when the running one has ended
        next_client = next_producer + int(self.client_random.expovariate(1 / 1.5) * NS)
        next_sample = self.t0 + int(args.rss_every * NS)
        next_progress = self.t0 + int(args.progress * NS)
        while True:
            now = time.monotonic_ns()
            if self.extension.poll() is not None:
                self.extension_status = self.extension.returncode
                self.fail(f"the extension ended with status {self.extension.returncode}")
                break
            for run in self.producers[-1:] + self.clients:
                self.reap(run, now)
            producer = self.producers[-1] if self.producers else None
            if now >= end:
                break
            if producer is None or not producer.alive:
                if next_producer is None:
                    next_producer = producer.end_ns + int(self.producer_gap() * NS)
                if now >= next_producer:
                    self.start_producer(now)
                    next_producer = None
            elif now >= producer.planned_end_ns and not any(
                    client.alive for client in self.clients if client.producer is producer):
                self.stop(producer)
            for client in self.clients:
                if client.alive and client.kind == "gst" and now >= client.planned_end_ns:
                    self.stop(client, signal.SIGINT)  # -e: end of stream, then a clean exit
                elif (client.alive and client.signalled_ns is None and
                      now >= client.planned_end_ns + STOP_SECONDS * NS):
                    self.fail(f"receive client {client.index} is still running "
                              f"{STOP_SECONDS:g} s after its --seconds")
                    self.stop(client)
            if now >= next_client:
                self.start_clients(now, producer)
                next_client = now + int(self.client_random.expovariate(1 / 1.5) * NS)
            if now >= next_sample:
                self.samples.append((self.seconds(now), memory_sample(self.extension.pid)))
                next_sample += int(args.rss_every * NS)
            if now >= next_progress:
                self.progress(now)
                next_progress += int(args.progress * NS)
            time.sleep(0.02)
        self.wind_down()

    def wind_down(self):
        """Ends every client and the producer, samples the idle extension, then ends it."""
        for client in self.clients:
            self.stop(client, signal.SIGINT if client.kind == "gst" else signal.SIGTERM)
        for run in self.producers[-1:]:
            self.stop(run)
        while any(run.alive for run in self.producers[-1:] + self.clients):
            now = time.monotonic_ns()
            for run in self.producers[-1:] + self.clients:
                self.reap(run, now)
            time.sleep(0.02)
        if self.extension.poll() is not None:
            return
        # The links' buffers stay mapped until WirePlumber suspends the idle nodes (after 5 s):
        # the idle sample, compared with the first, is the first one without them, or the one
        # taken after 10 s.
        first = self.samples[0][1]
        deadline = time.monotonic() + 10
        while True:
            idle = memory_sample(self.extension.pid)
            if idle["RssShmem"] <= first["RssShmem"] + 1024 or time.monotonic() > deadline:
                break
            time.sleep(0.2)
        self.idle = (self.seconds(), idle)
        (self.work / "extension-fds-end.txt").write_text(open_files(self.extension.pid))
        self.extension.send_signal(signal.SIGTERM)
        try:
            self.extension_status = self.extension.wait(timeout=10)
        except subprocess.TimeoutExpired:
            self.fail("the extension did not end within 10 s of SIGTERM")
            self.extension.kill()
            self.extension.wait()


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("build_dir")
    parser.add_argument("--seconds", type=float, default=600.0)
    parser.add_argument("--seed", type=int, default=None)
    parser.add_argument("--rss-every", type=float, default=5.0)
    parser.add_argument("--rss-out", default=None, help="the memory samples as CSV")
    parser.add_argument("--progress", type=float, default=10.0)
    parser.add_argument("--slope-bound", type=float, default=1.0,
                        help="largest private-memory slope over the second half, MiB/min")
    parser.add_argument("--coverage-bound", type=float, default=0.9,
                        help="smallest share of a window's pushed frames a client must get")
    parser.add_argument("--max-clients", type=int, default=4)
    parser.add_argument("--keep", default=None, help="keep every program's output in DIR")
    args = parser.parse_args()
    if args.seed is None:
        args.seed = random.SystemRandom().randrange(1, 1 << 31)
    work = Path(args.keep or tempfile.mkdtemp(prefix="flowmere-soak-pipewire."))
    work.mkdir(parents=True, exist_ok=True)
    soak = Soak(args, work)
    print(f"soak_pipewire: {args.seconds:g} s, seed {args.seed}, memory every "
          f"{args.rss_every:g} s, GStreamer clients {'on' if soak.gst else 'off (not installed)'}"
          f"; output in {work}", flush=True)
    try:
        soak.run()
    finally:
        for run in [soak.extension] + [r.process for r in soak.producers + soak.clients]:
            if run is not None and run.poll() is None:
                run.kill()
                run.wait()
    passed = soak_report.report(soak, args)
    if passed and not args.keep:
        shutil.rmtree(work)
    return 0 if passed else 1


if __name__ == "__main__":
    sys.exit(main())
