#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Every benchmark and counter that a topic of bench/run asks for is one that its program has.

usage: topics.py SOURCES
"""
import re
import sys
import unittest
from pathlib import Path
from types import SimpleNamespace

SOURCES = Path(sys.argv.pop(1))
sys.path.insert(0, str(SOURCES / "bench" / "harness"))
import topics

REGISTERED = re.compile(r'BENCHMARK\((\w+)\)|BENCHMARK_CAPTURE\((\w+, \w+)|"([A-Z]\w+/[\w/-]*)"')


class Asked(dict):
    """What a topic asks of a program's values: each name has some."""

    def __contains__(self, name):
        self.setdefault(name, [1.0])
        return True

    def __getitem__(self, name):
        return self.setdefault(name, [1.0])

    def items(self):
        return []


def asked_by(topic):
    """The benchmarks and counters that it asks for, by program."""
    benchmarks, counters = {}, {}

    def google_benchmark(_environment, program, *_options, **_more):
        return {"program": program, "benchmarks": [{"memory_mib": 1}]}

    def values_by_name(document):
        return benchmarks.setdefault(document["program"], Asked())

    def counter_values(document, counter, _scale):
        counters.setdefault(document["program"], set()).add(counter)
        return [1.0]

    for stand_in in (google_benchmark, values_by_name, counter_values):
        setattr(topics, stand_in.__name__, stand_in)
    topic(SimpleNamespace(repetitions=1))
    return benchmarks, counters


def sources_of(program):
    names = [f"bench/{program}.cpp", "bench/watched-request.cpp", "src/src/image-crc/ways.h"]
    return "\n".join((SOURCES / name).read_text(encoding="utf-8") for name in names)


def has(program, benchmark):
    """Whether it registers one of this name; what it adds at run time is a word of its sources."""
    sources = sources_of(program)
    for plain, captured, written in REGISTERED.findall(sources):
        registered = (plain or captured.replace(", ", "/") or written).rstrip("/")
        rest = benchmark.removeprefix(registered)
        if rest != benchmark and (not rest or rest[0] == "/"):
            if all(re.search(rf"(?<![\w-]){re.escape(word)}(?![\w-])", sources) for word in rest.split("/")[1:]):
                return True
    return False


class Topics(unittest.TestCase):
    def test_ask_for_benchmarks_that_are_there(self):
        of_programs = [name for name, topic in topics.TOPICS.items() if "google_benchmark" in topic.__code__.co_names]
        self.assertEqual(of_programs, ["checksum", "decryption", "start-up", "request", "trace", "traces"])

        for name in of_programs:
            benchmarks, counters = asked_by(topics.TOPICS[name])
            self.assertTrue(any(benchmarks.values()), name)
            for program, asked in benchmarks.items():
                self.assertEqual([one for one in dict.keys(asked) if not has(program, one)], [], program)
            for program, asked in counters.items():
                self.assertEqual([one for one in asked if f'"{one}"' not in sources_of(program)], [], program)


if __name__ == "__main__":
    unittest.main()
