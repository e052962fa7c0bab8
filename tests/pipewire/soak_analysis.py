"""The PipeWire soak's checks on what the programs recorded: pure functions, no process or clock.

Time stamps are CLOCK_MONOTONIC nanoseconds, as the producer and the receiver write them ("frame
time_ns" per line) and as the soak reads its own clock (time.monotonic_ns). Python standard
library only; soak_analysis_test.py tests these functions.
"""

import re
import statistics
from dataclasses import dataclass, field

NS = 1_000_000_000
SETTLE_NS = NS  # a client's first second after it joins or its producer starts is not rated
TAIL_NS = NS * 3 // 10  # nor the last 0.3 s before it or its producer ends
SHORTEST_NS = NS  # windows shorter than this after those edges are not rated
MAX_LATENCY_NS = NS  # no frame may reach a client later than this after its push

# A receiver's summary line; the fields after the time span and the rate.
SUMMARY = re.compile(
    r"^received (\d+) frames in [0-9.]+ s \(([0-9.]+) fps\): numbers \d+\.\.\d+, (\d+) missing, "
    r"(\d+) repeated, (\d+) out of order, (\d+) unreadable$", re.MULTILINE)


def label(fmt):
    """A producer format (size, pixel format, transfer, ...) as the summary names it."""
    size, pixels, transfer = fmt[:3]
    return f"{size} {pixels.upper()}" + (f" {transfer.upper()}" if transfer else "")


def read_times(path):
    """[(frame_number, time_ns)] in file order; an absent file is no frames."""
    try:
        with open(path, encoding="ascii") as lines:
            return [tuple(int(value) for value in line.split()) for line in lines if line.strip()]
    except FileNotFoundError:
        return []


def parse_summary(text):
    """(frames, unreadable) from a receiver's stdout, or None when it printed no summary."""
    match = SUMMARY.search(text)
    if not match:
        return None
    return int(match.group(1)), int(match.group(6))


@dataclass
class Pushes:
    """One producer's run: what it pushed, and when."""
    index: int
    times: dict  # frame number -> push time (ns)
    first: int = 0
    last: int = 0

    @classmethod
    def of(cls, index, pushed):
        times = {}
        for number, at in pushed:
            times.setdefault(number, at)
        return cls(index, times, min(times.values(), default=0), max(times.values(), default=0))

    def between(self, start, end):
        """The frame numbers pushed in [start, end]."""
        return {number for number, at in self.times.items() if start <= at <= end}


def assign(received, producers):
    """Names the producer of every received frame: the producer with that frame number whose
    push of it came last before the receipt (producers restart their numbers at 0). Returns
    [(producer index or None, frame number, latency ns or None)] in receipt order."""
    ordered = sorted((p for p in producers if p.times), key=lambda p: p.first)
    result = []
    for number, at in received:
        best = None
        for producer in ordered:
            if producer.first > at:
                break
            pushed = producer.times.get(number)
            if pushed is not None and pushed <= at and (best is None or pushed > best[1]):
                best = (producer.index, pushed)
        result.append((best[0], number, at - best[1]) if best else (None, number, None))
    return result


@dataclass
class Window:
    """A stretch in which a client and one producer both ran, without its edges."""
    producer: int
    seconds: float
    expected: int  # frames the producer pushed in the stretch
    got: int  # of those, the ones the client received

    @property
    def coverage(self):
        return self.got / self.expected if self.expected else 1.0

    @property
    def rate(self):
        return self.got / self.seconds


@dataclass
class ClientFrames:
    """What one receiving client got, checked against the producers."""
    frames: int = 0
    out_of_order: int = 0  # a frame of an earlier producer, or a lower number of the same one
    repeated: int = 0  # a frame of the same producer received twice
    unmatched: int = 0  # a frame number that no producer had pushed before it arrived
    latencies: list = field(default_factory=list)  # ns, per assigned frame
    windows: list = field(default_factory=list)
    per_producer: dict = field(default_factory=dict)  # producer index -> frames received
    received: set = field(default_factory=set)  # (producer index, frame number)
    passed: bool = True  # no check on this client failed (set by the report)


def check_client(received, producers, start, end, settle=SETTLE_NS, tail=TAIL_NS,
                 shortest=SHORTEST_NS):
    """Checks the frames one client received over its life [start, end] (ns).

    The order: frames must come producer after producer, and within one producer's run with
    increasing numbers, each once. The rate: for every producer whose pushes overlap the client's
    life, the overlap less `settle` ns at its start (a client linking, or a linked client moving
    to a new producer's format) and `tail` ns at its end (frames in flight when either stops) is
    a window; windows of at least `shortest` ns are compared with the frames pushed in them."""
    result = ClientFrames()
    assigned = assign(received, producers)
    seen = result.received
    last = None  # (producer index, number) of the previous assigned frame
    for producer, number, latency in assigned:
        result.frames += 1
        if producer is None:
            result.unmatched += 1
            continue
        result.latencies.append(latency)
        result.per_producer[producer] = result.per_producer.get(producer, 0) + 1
        key = (producer, number)
        if key in seen:
            result.repeated += 1
        elif last is not None and key < last:
            result.out_of_order += 1
        seen.add(key)
        last = max(last, key) if last is not None else key
    for producer in producers:
        if not producer.times:
            continue
        begin = max(start, producer.first) + settle
        finish = min(end, producer.last) - tail
        if finish - begin < shortest:
            continue
        expected = producer.between(begin, finish)
        got = {number for index, number in seen if index == producer.index} & expected
        result.windows.append(Window(producer.index, (finish - begin) / NS, len(expected),
                                     len(got)))
    return result


def slope_per_minute(points):
    """The least-squares slope of [(seconds, value)], in value per minute; 0 for fewer than two
    distinct times."""
    if len(points) < 2:
        return 0.0
    mean_t = statistics.fmean(t for t, _ in points)
    mean_v = statistics.fmean(v for _, v in points)
    spread = sum((t - mean_t) ** 2 for t, _ in points)
    if spread == 0:
        return 0.0
    return 60.0 * sum((t - mean_t) * (v - mean_v) for t, v in points) / spread


# Extension log lines that report a fault. Matched case-insensitively anywhere in the line.
FAULT = re.compile(r"error|fail|refused|could not|cannot|not authorised|went away|abort|assert|"
                   r"terminate|sanitizer|segmentation|exception|^\[[EW]\]\[", re.IGNORECASE)
# Fault-looking lines that the soak's own actions cause and that the camera handles, each with
# why it is expected.
EXPECTED_FAULTS = [
    # A client that links while the previous producer's format is still offered asks for that
    # format; the extension refuses it ("Stop capture ...") and moves the link to the running
    # producer's format.
    re.compile(r"^\[pipewire\] flowmere-camera-source format index \d+ refused: "),
]


def unexpected_lines(lines):
    """The log lines that report a fault the soak does not expect."""
    return [line for line in lines
            if FAULT.search(line) and not any(pattern.search(line) for pattern in EXPECTED_FAULTS)]
