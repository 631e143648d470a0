#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Tests what bench/run does with the numbers that it gets.

usage: report.py DIRECTORY-OF-THE-SCRIPT
"""
import sys
import tempfile
import unittest
import xml.etree.ElementTree as ElementTree
from pathlib import Path

sys.path.insert(0, sys.argv.pop(1))
import chart
import programs
import report
import steps
from results import Figure, Measurement, Results, ratios


def repetition(number, name, time, unit="ns", **more):
    return {"run_type": "iteration", "run_name": name, "repetition_index": number, "real_time": time,
            "time_unit": unit, **more}


def example():
    results = Results({"Processor": "A & B"}, 3, failures={"trace": "it broke"})
    results.add([
        Figure("sums", "one : other", "one : other", 1.25, [1.6, 1.1, 1.2]),
        Figure("sums", "slow : fast", "slow", 0.35, [0.5]),
        Figure("sums", "ours : theirs", "theirs", 0.45, note="theirs is not installed"),
        Figure("sums", "more : less", "more", None, [3.5, 3.7], "MiB"),
        Measurement("sums", "one", [1.2, 0.0011, 1.3]),
    ])
    return results


class Values(unittest.TestCase):
    def test_are_seconds_in_the_order_of_their_repetitions(self):
        document = {"benchmarks": [
            repetition(1, "Read/100/iterations:3/manual_time", 20, "us"),
            repetition(0, "Read/100/iterations:3/manual_time", 10, "us"),
            repetition(0, "Write/real_time/threads:1", 3, "ms"),
            repetition(0, "Write/real_time/threads:2", 4, "ms"),
            {"run_type": "aggregate", "run_name": "Write/real_time/threads:1", "real_time": 5, "time_unit": "ms"},
        ]}

        found = programs.values_by_name(document)

        self.assertEqual(list(found), ["Read/100", "Write", "Write/threads:2"])
        for got, wanted in zip(found.values(), ([10e-6, 20e-6], [3e-3], [4e-3])):
            self.assertEqual([round(value, 9) for value in got], [round(value, 9) for value in wanted])

    def test_of_a_benchmark_that_failed_are_none(self):
        document = {"benchmarks": [repetition(0, "Read", 0, error_occurred=True, error_message="no file")]}

        with self.assertRaisesRegex(programs.Failed, "Read: no file"):
            programs.values_by_name(document)

    def test_are_compared_with_those_of_the_same_repetition(self):
        self.assertEqual(ratios([2.0, 9.0], [1.0, 3.0]), [2.0, 3.0])
        with self.assertRaises(ValueError):
            ratios([1.0], [1.0, 2.0])


class Program(unittest.TestCase):
    def test_on_a_device_prints_what_it_found(self):
        work = Path(self.enterContext(tempfile.TemporaryDirectory()))
        program = work / "bench-sums"
        program.write_text("#!/bin/sh\n"
                           "case \"$*\" in *benchmark_out=*) echo 'invalid file name' >&2; exit 1 ;; esac\n"
                           "echo 'a message' >&2\n"
                           "echo '{\"benchmarks\": [], \"way\": \"'$FW_BENCH_DIRECTORY'\"}'\n", encoding="utf-8")
        program.chmod(0o755)

        found = programs.google_benchmark(programs.Environment(work, work, work, 3, False), "sums")

        self.assertEqual({"benchmarks": [], "way": str(work)}, found)
        self.assertEqual("a message\n", (work / "sums.log").read_text(encoding="utf-8"))


class Report(unittest.TestCase):
    maxDiff = None

    def test_is_the_expected_table(self):
        expected = (Path(__file__).parent / "expected.md").read_text(encoding="utf-8")

        self.assertEqual(report.markdown(example()), expected)

    def test_gives_times_a_unit_that_fits(self):
        self.assertEqual([report.seconds(value) for value in (2.0, 0.0125, 38e-6, 1.5e-9)],
                         ["2 s", "12.5 ms", "38 µs", "1.5 ns"])

    def test_as_json_has_every_value_and_what_follows_from_them(self):
        document = example().as_json()

        self.assertEqual(document["figures"][0]["values"], [1.6, 1.1, 1.2])
        self.assertEqual([figure["median"] for figure in document["figures"]], [1.2, 0.5, None, 3.6])
        self.assertEqual([figure["met"] for figure in document["figures"]], [True, False, None, None])


class Chart(unittest.TestCase):
    def setUp(self):
        root = ElementTree.fromstring(chart.svg(example()))
        self.bars = [bar for bar in root.iter("{http://www.w3.org/2000/svg}rect") if "x" in bar.keys()]
        self.texts = [text.text for text in root.iter("{http://www.w3.org/2000/svg}text")]

    def test_has_a_bar_for_each_figure_that_was_measured_and_has_a_goal(self):
        self.assertEqual([bar.get("fill") for bar in self.bars], [chart.COLOURS[True], chart.COLOURS[False]])
        self.assertIn("one : other", self.texts)
        self.assertIn("0.50 (goal 0.35)", self.texts)
        self.assertIn("1.20 (goal 1.25; unsteady)", self.texts)

    def test_draws_each_as_a_share_of_its_goal(self):
        self.assertEqual([int(bar.get("width")) for bar in self.bars],
                         [round(chart.GOAL * 1.2 / 1.25), round(chart.GOAL * 0.5 / 0.35)])

    def test_has_room_for_every_text_of_the_longest_bar(self):
        figure = Figure("sums", "slow : fast", "slow", 0.35, [10.0, 20.0])
        x = float(ElementTree.fromstring(chart.row(figure, 0)[-1]).get("x"))

        self.assertGreater(chart.WIDTH - x, 8 * len("15.00 (goal 0.35; unsteady)"))


def call(seconds, text):
    return f"41 {seconds} {text}\n"


class Steps(unittest.TestCase):
    TRACE = [
        call(1.0, 'openat(AT_FDCWD</>, "/lib/libc.so.6", O_RDONLY) = 3'),
        call(2.0, 'openat(AT_FDCWD</>, "/prd/usr/fwupdate/controls/", O_RDONLY) = 3'),
        call(2.5, 'openat(AT_FDCWD</>, "/lib/firmware/ext/tunerfw/tunerfw.bin", O_RDONLY) = 3'),
        call(4.0, 'openat(AT_FDCWD</>, "/dev/shm/sem", O_RDWR) = 3'),
        call(4.5, 'openat(AT_FDCWD</>, "/lib/firmware/ext/tunerfw/tunerfw.bin", O_RDONLY) = 3'),
        call(7.0, 'openat(AT_FDCWD</>, "/lib/firmware/ext/tunerfw/info.json", O_RDONLY) = 3'),
        call(8.0, 'openat(AT_FDCWD</>, "/var/lib/fw-components/tunerfw.flash.new", O_RDWR) = 7'),
        call(12.0, "fsync(7</var/lib/fw-components/tunerfw.flash.new>) = 0"),
        call(17.0, "fadvise64(7</var/lib/fw-components/tunerfw.flash.new>, 0, 0, POSIX_FADV_DONTNEED) = 0"),
        call(23.0, 'rename("/var/lib/fw-components/tunerfw.flash.new", "tunerfw.flash") = 0'),
        call(30.0, "exit_group(0) = ?"),
    ]

    def test_last_from_their_first_call_to_the_next_one(self):
        self.assertEqual([0.5, 1.5, 0.5, 2.5, 1.0, 4.0, 5.0, 6.0, 7.0], steps.durations(self.TRACE))

    def test_of_an_update_that_did_not_write_are_none(self):
        with self.assertRaisesRegex(programs.Failed, "reading, checking and writing"):
            steps.durations(self.TRACE[:7])

    def test_are_drawn_behind_each_other_and_fill_the_width(self):
        results = Results({}, 1)
        results.add(steps.measurements([steps.durations(self.TRACE)]))
        root = ElementTree.fromstring(steps.svg(results))
        bars = [bar for bar in root.iter("{http://www.w3.org/2000/svg}rect") if "x" in bar.keys()]
        edges = [(float(bar.get("x")), float(bar.get("x")) + float(bar.get("width"))) for bar in bars]

        self.assertEqual(len(steps.STEPS), len(edges))
        self.assertEqual((steps.LABELS, steps.LABELS + steps.BARS), (edges[0][0], round(edges[-1][1])))
        for (_, end), (begin, _) in zip(edges, edges[1:]):
            self.assertAlmostEqual(end, begin, delta=0.2)

    def test_are_not_drawn_when_they_were_not_measured(self):
        self.assertEqual("", steps.svg(example()))


if __name__ == "__main__":
    unittest.main()
