"""The PipeWire soak's frame and memory checks on made-up records: each case is a fault the soak
must report (or a normal run it must not), so that a soak that passes means what it says.

    python3 -m unittest tests/pipewire/soak_analysis_test.py
"""

import os
import sys
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

import soak_analysis as analysis  # noqa: E402
from soak_analysis import NS  # noqa: E402

MS = NS // 1000
PERIOD = NS // 30


def producer(index, start, frames):
    """A producer that pushes `frames` frames from `start` ns, 30 a second, numbered from 0."""
    return analysis.Pushes.of(index, [(n, start + n * PERIOD) for n in range(frames)])


def deliver(run, numbers, latency=5 * MS):
    """What a client receives: the given frames of `run`, each `latency` after its push."""
    return [(n, run.times[n] + latency) for n in numbers]


class CheckClientTest(unittest.TestCase):
    def setUp(self):
        # Two producers 5 s each, 0.5 s apart: 150 frames each, both numbered 0..149.
        self.first = producer(0, 10 * NS, 150)
        self.second = producer(1, 15 * NS + NS // 2, 150)
        self.producers = [self.first, self.second]
        self.start, self.end = 9 * NS, 21 * NS

    def check(self, received):
        return analysis.check_client(received, self.producers, self.start, self.end)

    def test_a_client_across_a_restart_that_lost_only_the_switch_is_clean(self):
        received = (deliver(self.first, range(0, 140)) +  # its last 10 frames lost at the stop
                    deliver(self.second, range(12, 150)))  # the first 0.4 s lost at the start
        result = self.check(received)
        self.assertEqual((result.frames, result.out_of_order, result.repeated, result.unmatched),
                         (278, 0, 0, 0))
        self.assertEqual(result.per_producer, {0: 140, 1: 138})
        self.assertEqual(len(result.windows), 2)
        for window in result.windows:
            self.assertEqual(window.got, window.expected)
            self.assertAlmostEqual(window.rate, 30.0, delta=1.0)

    def test_numbers_restarting_at_a_new_producer_are_not_out_of_order(self):
        # The second producer's 0 comes after the first one's 149: a new run, not a step back.
        result = self.check(deliver(self.first, range(150)) + deliver(self.second, range(150)))
        self.assertEqual(result.out_of_order, 0)

    def test_an_old_producers_frame_after_the_new_ones_is_out_of_order(self):
        # A stale frame of the first producer, re-sent 2 s after the second one started.
        stale = [(140, self.second.times[60] + MS)]
        received = (deliver(self.first, range(140)) + deliver(self.second, range(60)) + stale +
                    deliver(self.second, range(61, 150)))
        result = self.check(received)
        self.assertEqual(result.out_of_order, 1)
        self.assertGreater(max(result.latencies), 2 * NS)

    def test_a_lower_number_of_the_same_producer_is_out_of_order_and_a_second_copy_repeated(self):
        received = deliver(self.first, [0, 1, 2, 5, 4, 6, 6, 7])
        result = self.check(received)
        self.assertEqual((result.out_of_order, result.repeated), (1, 1))

    def test_the_same_old_frames_over_and_over_are_repeated_and_late(self):
        # A client left on buffers that nobody writes any more: frames 142..149 of the first
        # producer, round and round at 30 fps while the second producer runs.
        loop = [(142 + k % 8, self.second.first + k * PERIOD) for k in range(90)]
        result = self.check(deliver(self.first, range(150)) + loop)
        self.assertEqual(result.repeated, 90)
        window = next(w for w in result.windows if w.producer == 1)
        self.assertEqual(window.got, 0)
        self.assertGreater(window.expected, 90)

    def test_a_client_that_stops_getting_frames_has_a_window_it_fails(self):
        result = self.check(deliver(self.first, range(150)) + deliver(self.second, range(60)))
        window = next(w for w in result.windows if w.producer == 1)
        self.assertLess(window.coverage, 0.6)

    def test_a_frame_no_producer_pushed_is_unmatched(self):
        result = self.check([(7, self.first.first - NS)] + deliver(self.first, range(10)))
        self.assertEqual(result.unmatched, 1)

    def test_windows_leave_out_the_edges_and_short_overlaps(self):
        # The client joins 4.5 s into the first producer: 0.5 s of overlap, too short to rate.
        self.start = self.first.first + 4 * NS + NS // 2
        result = self.check(deliver(self.first, range(136, 150)) +
                            deliver(self.second, range(150)))
        self.assertEqual([w.producer for w in result.windows], [1])
        window = result.windows[0]
        # 5 s of pushes less the first second and the last 0.3 s.
        self.assertAlmostEqual(window.seconds, 3.7, delta=0.05)
        self.assertEqual(window.expected, window.got)


class SlopeTest(unittest.TestCase):
    def test_growth_per_minute(self):
        growing = [(t, 10 + t / 30) for t in range(0, 300, 5)]  # 2 MiB a minute
        self.assertAlmostEqual(analysis.slope_per_minute(growing), 2.0)

    def test_flat_noise_and_degenerate_inputs(self):
        noise = [(t, 9.0 + (0.05 if t % 10 else -0.05)) for t in range(0, 300, 5)]
        self.assertLess(abs(analysis.slope_per_minute(noise)), 0.01)
        self.assertEqual(analysis.slope_per_minute([(5, 1.0)]), 0.0)
        self.assertEqual(analysis.slope_per_minute([(5, 1.0), (5, 2.0)]), 0.0)


class LogAndSummaryTest(unittest.TestCase):
    def test_fault_lines_are_found_and_the_expected_ones_let_through(self):
        lines = [
            "[pipewire] flowmere-camera-source paused -> streaming",
            "[VANE-EXT] sink consumeSampleBuffer result=error error=Optional(x)",
            "[pipewire] flowmere-camera-sink start not authorised",
            "[pipewire] PipeWire went away: stopping",
            "[E][12:00:00.000] pw.stream | some failure",
            "[pipewire] flowmere-camera-source format index 0 refused: Stop capture before "
            "changing camera orientation.",
        ]
        self.assertEqual(analysis.unexpected_lines(lines), lines[1:5])

    def test_a_receiver_summary_is_read(self):
        text = ("received 120 frames in 3.97 s (30.00 fps): numbers 0..119, 0 missing, 0 repeated, "
                "1 out of order, 3 unreadable\n")
        self.assertEqual(analysis.parse_summary(text), (120, 3))
        self.assertIsNone(analysis.parse_summary("receiver: error\n"))


if __name__ == "__main__":
    unittest.main()
