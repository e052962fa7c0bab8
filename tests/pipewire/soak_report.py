"""The PipeWire soak's checks after the run and its summary: reads what every program wrote,
counts each failed check into the soak's failures and prints the figures."""

import csv
import re
import statistics
from collections import Counter
from pathlib import Path

import soak_analysis as analysis
from soak_analysis import NS, label


SHOWN_FAILURES = 25  # in the summary; all of them go to failures.txt when there are more

# Open files the extension adds with its first producer and keeps: a PipeWire memfd and two
# timers. A descriptor left behind per producer or client run would be a hundred in 10 minutes.
FDS_CREATED_ONCE = 3


def median(values):
    return statistics.median(values) if values else float("nan")


def check_producers(soak):
    """Exit statuses and pushes; returns the analysis' view of every producer's run."""
    pushes = []
    for run in soak.producers:
        pushed = analysis.read_times(run.files.with_suffix(".push"))
        pushes.append(analysis.Pushes.of(run.index, pushed))
        if run.process.returncode != 0:
            soak.failures.append(f"producer {run.index} ({label(run.fmt)}) ended with status "
                                 f"{run.process.returncode}: {tail(run.files.with_suffix('.err'))}")
        elif not pushed and run.end_ns - run.start_ns > 2 * NS:
            soak.failures.append(f"producer {run.index} ({label(run.fmt)}) pushed no frame in "
                                 f"{(run.end_ns - run.start_ns) / NS:.1f} s: "
                                 f"{tail(run.files.with_suffix('.err'))}")
    return pushes


def tail(path, lines=1):
    try:
        return " / ".join(Path(path).read_text(errors="replace").strip().splitlines()[-lines:])
    except FileNotFoundError:
        return "(no output)"


def check_receivers(soak, pushes):
    """Every receive client: its own summary, then its frames against the producers. Returns
    each one's ClientFrames and how many clients failed each kind of check."""
    results = []
    faults = Counter()
    for run in (client for client in soak.clients if client.kind == "receive"):
        name = (f"receive client {run.index} ({soak.seconds(run.start_ns):.1f}-"
                f"{soak.seconds(run.end_ns):.1f} s)")
        summary = analysis.parse_summary(run.files.with_suffix(".out").read_text())
        if run.process.returncode != 0 or summary is None:
            faults["ended badly"] += 1
            soak.failures.append(f"{name} ended with status {run.process.returncode}, summary "
                                 f"{summary}: {tail(run.files.with_suffix('.err'))}")
            continue
        received = analysis.read_times(run.files.with_suffix(".receive"))
        frames = analysis.check_client(received, pushes, run.start_ns, run.end_ns,
                                       analysis.SETTLE_NS, analysis.TAIL_NS, analysis.SHORTEST_NS)
        results.append(frames)
        problems = []
        if summary[0] != frames.frames:
            problems.append(f"summary says {summary[0]} frames, time stamps {frames.frames}")
        for count, what in ((summary[1], "unreadable"), (frames.out_of_order, "out of order"),
                            (frames.repeated, "repeated"),
                            (frames.unmatched, "not pushed by any producer")):
            if count:
                faults[what] += 1
                problems.append(f"{count} {what}")
        late = [latency for latency in frames.latencies if latency > analysis.MAX_LATENCY_NS]
        if late:
            faults["late"] += 1
            problems.append(f"{len(late)} frames later than "
                            f"{analysis.MAX_LATENCY_NS / NS:g} s (latest {max(late) / NS:.2f} s)")
        short = [w for w in frames.windows if w.coverage < soak.args.coverage_bound]
        faults["short of frames"] += 1 if short else 0
        for window in short:
            producer = soak.producers[window.producer]
            problems.append(
                f"got {window.got} of {window.expected} frames ({window.rate:.1f} fps) in "
                f"{window.seconds:.1f} s of producer {producer.index} ({label(producer.fmt)})")
        frames.passed = not problems
        if problems:
            faults["any"] += 1
            formats = [line.split(": ", 1)[1] for line in
                       run.files.with_suffix(".err").read_text(errors="replace").splitlines()
                       if re.match(r"receiver: (\d+x\d+ |format cleared)", line)]
            soak.failures.append(f"{name}: " + "; ".join(problems) +
                                 f" (its formats: {', '.join(formats)})")
    return results, faults


def check_gst(soak):
    """GStreamer clients: a clean exit, and frames when they ran long enough inside their
    producer's run. Returns each one's (frames, seconds)."""
    results = []
    for run in (client for client in soak.clients if client.kind == "gst"):
        text = run.files.with_suffix(".out").read_text(errors="replace")
        frames = sum(1 for line in text.splitlines() if "last-message = chain" in line)
        seconds = (run.end_ns - run.start_ns) / NS
        results.append((frames, seconds))
        if run.process.returncode != 0:
            soak.failures.append(f"GStreamer client {run.index} ended with status "
                                 f"{run.process.returncode}: {tail(run.files.with_suffix('.err'))}")
        elif frames == 0 and seconds >= 2.0 and run.producer.files.with_suffix(".push").exists():
            soak.failures.append(f"GStreamer client {run.index} got no frame in {seconds:.1f} s")
    return results


def check_extension(soak):
    lines = (soak.work / "extension.out").read_text(errors="replace").splitlines()
    unexpected = analysis.unexpected_lines(lines)
    for line in unexpected[:20]:
        soak.failures.append(f"extension log: {line}")
    if len(unexpected) > 20:
        soak.failures.append(f"extension log: {len(unexpected) - 20} more unexpected lines")
    if soak.extension_status != 0:
        soak.failures.append(f"the extension ended with status {soak.extension_status}")
    return len(lines), len(unexpected)


def check_memory(soak):
    """The private memory's slope over the second half, and the idle extension at the end
    against the one at the start. Returns the figures."""
    samples = soak.samples
    if len(samples) < 3 or soak.idle is None:
        soak.failures.append(f"only {len(samples)} memory samples"
                             f"{'' if soak.idle else ', none of the idle extension'}")
        return None
    half = soak.args.seconds / 2
    second = [(t, m) for t, m in samples if t >= half]
    private = [(t, (m["VmRSS"] - m["RssShmem"]) / 1024) for t, m in second]
    resident = [(t, m["VmRSS"] / 1024) for t, m in second]
    figures = {
        "private_slope": analysis.slope_per_minute(private),
        "resident_slope": analysis.slope_per_minute(resident),
        "first": samples[0][1], "idle": soak.idle[1],
        "max_resident": max(m["VmRSS"] for _, m in samples) / 1024,
        "private_half": private[0][1] if private else float("nan"),
        "private_end": private[-1][1] if private else float("nan"),
        "fit_samples": len(private),
    }
    if figures["private_slope"] > soak.args.slope_bound:
        soak.failures.append(f"private memory grows {figures['private_slope']:.3f} MiB/min over "
                             f"the second half (bound {soak.args.slope_bound:g})")
    first, idle = figures["first"], figures["idle"]
    if idle["RssShmem"] - first["RssShmem"] > 1024:
        soak.failures.append(f"shared memory mapped while idle: {idle['RssShmem']} kB at the end, "
                             f"{first['RssShmem']} kB at the start")
    if idle["fds"] > first["fds"] + FDS_CREATED_ONCE or idle["Threads"] > first["Threads"]:
        soak.failures.append(f"idle at the end: {idle['fds']} open files and {idle['Threads']} "
                             f"threads, at the start {first['fds']} and {first['Threads']}")
    return figures


def write_csv(soak, path):
    with open(path, "w", newline="", encoding="ascii") as handle:
        out = csv.writer(handle)
        out.writerow(["seconds", "rss_kib", "anon_kib", "file_kib", "shmem_kib", "fds", "threads",
                      "idle"])
        rows = [(sample, 0) for sample in soak.samples] + ([(soak.idle, 1)] if soak.idle else [])
        for (seconds, m), idle in rows:
            out.writerow([f"{seconds:.1f}", m["VmRSS"], m["RssAnon"], m["RssFile"], m["RssShmem"],
                          m["fds"], m["Threads"], idle])


def report(soak, args):
    """Runs the checks, prints the summary; True when every check held."""
    pushes = check_producers(soak)
    receivers, faults = check_receivers(soak, pushes)
    gst = check_gst(soak)
    log_lines, unexpected = check_extension(soak) if soak.extension else (0, 0)
    memory = check_memory(soak)
    if args.rss_out:
        write_csv(soak, args.rss_out)

    changes = sum(1 for before, after in zip(soak.producers, soak.producers[1:])
                  if before.fmt != after.fmt)
    formats = Counter(label(run.fmt) for run in soak.producers)
    pushed = sum(len(p.times) for p in pushes)
    delivered = sum(r.frames for r in receivers)
    relayed = len(set().union(*(r.received for r in receivers)))
    windows = [w for r in receivers for w in r.windows]
    rates = [w.rate for w in windows]
    coverages = [w.coverage for w in windows]
    latencies = sorted(latency for r in receivers for latency in r.latencies)
    steady_missed = sum(w.expected - w.got for w in windows)
    clean = [w for r in receivers if r.passed for w in r.windows]
    overlap = max(sum(1 for c in soak.clients if c.start_ns <= at < (c.end_ns or at + 1))
                  for at in [c.start_ns for c in soak.clients] or [0])

    print(f"\nSummary ({args.seconds:g} s, seed {args.seed})")
    print(f"  producers run          {len(soak.producers)} ({changes} format changes); "
          + ", ".join(f"{name} {count}" for name, count in formats.most_common()))
    print(f"  frames pushed          {pushed}")
    print(f"  clients run            {sum(1 for c in soak.clients if c.kind == 'receive')} "
          f"receive, {len(gst)} GStreamer; at most {overlap} at once")
    print(f"  frames relayed         {relayed} pushed frames reached a receive client; "
          f"{delivered} deliveries to receive clients, {sum(f for f, _ in gst)} to GStreamer "
          f"clients")
    print(f"  steady windows         {len(windows)}: client rate min {min(rates, default=0):.1f}, "
          f"median {median(rates):.1f} fps; frames got min "
          f"{100 * min(coverages, default=1):.1f} %, median {100 * median(coverages):.1f} % "
          f"(bound {100 * args.coverage_bound:g} %); {steady_missed} missed")
    if clean:
        print(f"  of clean clients       {len(clean)} windows: rate min "
              f"{min(w.rate for w in clean):.1f}, median {median([w.rate for w in clean]):.1f} "
              f"fps; frames got min {100 * min(w.coverage for w in clean):.1f} %")
    if latencies:
        print(f"  latency                median {latencies[len(latencies) // 2] / 1e6:.2f} ms, "
              f"max {latencies[-1] / 1e6:.1f} ms")
    print(f"  extension              exit status {soak.extension_status}; {log_lines} log lines, "
          f"{unexpected} unexpected")
    if memory:
        first, idle = memory["first"], memory["idle"]
        print(f"  resident memory        start {first['VmRSS'] / 1024:.1f} MiB, max "
              f"{memory['max_resident']:.1f} MiB, idle at the end {idle['VmRSS'] / 1024:.1f} MiB")
        print(f"  private (VmRSS-shared) start {(first['VmRSS'] - first['RssShmem']) / 1024:.2f}, "
              f"half-time {memory['private_half']:.2f}, end {memory['private_end']:.2f} MiB; "
              f"slope over the second half {memory['private_slope']:+.3f} MiB/min "
              f"({memory['fit_samples']} samples; bound {args.slope_bound:g}); VmRSS slope "
              f"{memory['resident_slope']:+.1f} MiB/min")
        print(f"  idle, start -> end     shared {first['RssShmem']} -> {idle['RssShmem']} kB, "
              f"open files {first['fds']} -> {idle['fds']}, threads {first['Threads']} -> "
              f"{idle['Threads']}")
    print(f"  receive clients failed {faults['any']} of {len(receivers)}"
          + "".join(f"; {count} {what}" for what, count in sorted(faults.items())
                    if what != "any" and count))
    print(f"  check failures         {len(soak.failures)}")
    for failure in soak.failures[:SHOWN_FAILURES]:
        print(f"    - {failure}")
    if len(soak.failures) > SHOWN_FAILURES:
        listing = soak.work / "failures.txt"
        listing.write_text("".join(f"{failure}\n" for failure in soak.failures))
        print(f"    ... {len(soak.failures) - SHOWN_FAILURES} more, all in {listing}")
    print(f"Result: {'PASS' if not soak.failures else 'FAIL'}")
    return not soak.failures
