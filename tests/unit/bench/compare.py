#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Tests bench/compare with results of its own.

usage: compare.py SOURCE-DIRECTORY
"""
import json
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

SOURCE = Path(sys.argv.pop(1))
sys.path.insert(0, str(SOURCE / "bench" / "harness"))
from results import Figure, Measurement, Results  # noqa: E402

MACHINE = {"Processor": "A", "Cores": "2"}


def figure(what, *values, topic="sums", unit="", note=""):
    return Figure(topic, what, what, None, list(values), unit, note)


class Compare(unittest.TestCase):
    def setUp(self):
        self.directory = Path(self.enterContext(tempfile.TemporaryDirectory()))

    def write(self, name, *items, machine=None, failures=None):
        results = Results(machine or MACHINE, 3, failures=failures or {})
        results.add(items)
        path = self.directory / name
        path.mkdir()
        (path / "results.json").write_text(json.dumps(results.as_json()), encoding="utf-8")
        return path

    def compare(self, *arguments):
        done = subprocess.run([SOURCE / "bench" / "compare", *arguments], capture_output=True, text=True, check=False)
        return done.returncode, done.stdout.splitlines(), done.stderr

    def compare_items(self, before, after, *arguments, **of_after):
        return self.compare(self.write("before", *before), self.write("after", *after, **of_after), *arguments)

    def test_puts_both_medians_and_the_change_in_a_line(self):
        code, lines, _ = self.compare_items([figure("one : other", 1.0, 1.0, 3.0)], [figure("one : other", 1.1, 1.1, 9)])

        self.assertEqual((0, ["before  after  change  what", "  1.00   1.10    1.10  one : other", "",
                              "1 figures compared, 0 worse by more than 15 %"]), (code, lines))

    def test_names_what_got_worse_by_more_than_15_percent(self):
        before = [figure("steady", 1.0), figure("worse", 1.0, 1.0, 1.2), figure("better", 1.0)]
        after = [figure("steady", 1.15), figure("worse", 1.01, 1.16, 1.3), figure("better", 0.5)]

        code, lines, _ = self.compare_items(before, after)

        self.assertEqual(1, code)
        self.assertEqual(["worse: worse", "3 figures compared, 1 worse by more than 15 %"], lines[-2:])

    def test_does_not_count_what_a_slow_moment_may_have_made(self):
        code, lines, _ = self.compare_items([figure("one", 1.0)], [figure("one", 1.0, 2.0, 3.0)])

        self.assertEqual(0, code)
        self.assertEqual(["perhaps worse: one", "1 figures compared, 0 worse by more than 15 %"], lines[-2:])

    def test_counts_a_figure_that_is_gone_from_its_topic(self):
        before = [figure("one", 1.0), figure("two", 1.0), figure("apart", 1.0, topic="left out")]

        code, lines, _ = self.compare_items(before, [figure("one", 1.0)])

        self.assertEqual(1, code)
        self.assertIn("gone: two", lines)
        self.assertNotIn("apart", "\n".join(lines))

    def test_counts_a_topic_that_failed(self):
        code, lines, _ = self.compare_items([figure("one", 1.0), figure("two", 1.0, topic="trace")],
                                            [figure("one", 1.0)], failures={"trace": "it broke"})

        self.assertEqual(1, code)
        self.assertIn("gone: two", lines)

    def test_leaves_out_what_was_not_measured(self):
        before = [figure("one", 1.0), figure("peer", 1.0)]

        code, lines, _ = self.compare_items(before, [figure("one", 1.0), figure("peer", note="not installed"),
                                                     figure("new", 3.0, unit="MiB")])

        self.assertEqual(0, code)
        self.assertIn("  1.00         -       -  peer", lines)
        self.assertIn("     -  3.00 MiB       -  new", lines)
        self.assertEqual("1 figures compared, 0 worse by more than 15 %", lines[-1])

    def test_shows_single_times_without_judging_them(self):
        code, lines, _ = self.compare_items([figure("one", 1.0), Measurement("sums", "time", [0.001])],
                                            [figure("one", 1.0), Measurement("sums", "time", [2.0])], "--all")

        self.assertEqual(0, code)
        self.assertIn("  1 ms    2 s  sums: time", lines)

    def test_says_when_the_machine_is_another_one(self):
        _, lines, _ = self.compare_items([figure("one", 1.0)], [figure("one", 1.0)],
                                         machine={**MACHINE, "Cores": "4"})

        self.assertEqual("another machine: Cores was 2, is 4", lines[0])

    def test_refuses_what_has_nothing_to_compare(self):
        self.assertEqual(2, self.compare_items([figure("one", 1.0)], [figure("other", 1.0, topic="trace")])[0])

    def test_refuses_what_is_no_result(self):
        broken = self.directory / "broken.json"
        for content in ("", "[]", "{}", '{"machine": {}, "repetitions": 1, "figures": [1], "measurements": [], '
                                        '"failures": {}}'):
            with self.subTest(content):
                broken.write_text(content, encoding="utf-8")
                code, _, said = self.compare(broken, broken)
                self.assertEqual((2, f"bench/compare: {broken}: no results of bench/run\n"), (code, said))
        code, _, said = self.compare(self.directory / "none", broken)
        self.assertEqual((2, f"bench/compare: {self.directory / 'none'}: No such file or directory\n"), (code, said))

    def test_reads_the_recorded_results(self):
        recorded = SOURCE / "docs" / "benchmarks"

        code, lines, _ = self.compare(recorded, recorded)

        self.assertEqual(0, code)
        self.assertRegex(lines[-1], r"^[1-9]\d* figures compared, 0 worse")


if __name__ == "__main__":
    unittest.main()
