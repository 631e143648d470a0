# SPDX-License-Identifier: Apache-2.0
"""The page of the history says what the history is: its commands, what they show, the members of
the JSON documents, the settings and the metrics.

usage: history.py TOOLS PAGE JSON-PAGE

Updates are made on a device of its own: one succeeds, and one of a USB package fails in the
middle, as the page has it.
"""
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

TOOLS, PAGE, JSON_PAGE = sys.argv[1:4]
KEY = "/usr/share/fw-update/package.key"
METRICS = "/var/lib/fw-update/fw_update.prom"
ALWAYS_THERE = {"number", "began", "ended", "run"}


def read(path):
    with open(path, encoding="utf-8") as file:
        return file.read()


def section(title):
    """Of the page, up to the next one."""
    return re.search(rf"^## {title}$(.*?)(?=^## |\Z)", read(PAGE), re.MULTILINE | re.DOTALL)[1]


def cells(text):
    """The rows of its tables, each a list of its cells."""
    rows = [[cell.strip() for cell in line.strip("|").split("|")] for line in text.split("\n") if line.startswith("|")]
    return [row for row in rows if not set(row[0]) <= set("- ")]


def names_in(text):
    return re.findall(r"`([^`]+)`", text)


def facts(shown):
    """Its lines, with what goes on below a line behind it; numbers and how long it took may differ."""
    shown = re.sub(r"after [\d.]+ (ms|s|min)\b", "after 1 s", shown)
    lines = re.sub(r"\n +", " ", shown).strip().split("\n")
    pairs = [re.split(r" {2,}", line, maxsplit=1) for line in lines]
    return [[re.sub(r"\b[0-9a-f]{16}\b|\d+([.:-]\d+)*", "N", part) for part in pair] for pair in pairs]


class Device:
    def __init__(self):
        self.directory = tempfile.mkdtemp(prefix="history-")
        self.device = os.path.join(self.directory, "device")
        self.run_tool("fw-device", "init", self.device)

    def remove(self):
        shutil.rmtree(self.directory, ignore_errors=True)

    @staticmethod
    def run_tool(program, *words):
        return subprocess.run([os.path.join(TOOLS, program), *words], stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                              stdin=subprocess.DEVNULL, text=True, check=True).stdout

    def run(self, *words):
        """What the command prints, however it ends."""
        return subprocess.run([os.path.join(TOOLS, "fw-device"), "run", self.device, "--", *words],
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, stdin=subprocess.DEVNULL, text=True,
                              check=False)

    def write(self, path, text):
        os.makedirs(os.path.dirname(self.device + path), exist_ok=True)
        with open(self.device + path, "w", encoding="utf-8") as file:
            file.write(text)

    def put_package_on_a_drive(self, firmware, version):
        image = os.path.join(self.directory, "image")
        with open(image, "wb") as file:
            file.write(os.urandom(100000))
        os.makedirs(self.device + "/opt/media/USBDriveA", exist_ok=True)
        self.run_tool("fw-pack", "usb", image, "--version", version, "--key-file", self.device + KEY, "--signing-key",
                      self.device + "/maker/signing.key", "--output", f"{self.device}/opt/media/USBDriveA/{firmware}.bin")


class History(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.device = Device()
        cls.addClassCleanup(cls.device.remove)
        cls.device.write("/etc/fw-update/history.conf", f"metrics = {METRICS}\n")
        cls.device.write("/var/lib/fw-components/panelfw.component", "fail_at_percent = 60\n")
        cls.device.put_package_on_a_drive("panelfw", "9.0.0")
        cls.device.run("fw-update", "update", "libtuner", "--caller", "epsolution")
        cls.device.run("fw-update", "usb", "apply", "--key-file", KEY)
        cls.entries = json.loads(cls.device.run("fw-update", "history", "--json").stdout)["entries"]
        cls.failed = next(entry for entry in cls.entries if entry.get("module") == "libpanel")

    def test_its_commands_can_be_typed(self):
        rows = [row for row in cells(read(PAGE)) if row[0].startswith("`fw-update history")]
        self.assertGreaterEqual(len(rows), 5)
        for row in rows:
            command = names_in(row[0])[0].replace("NAME", "libtuner").replace("NUMBER", "1")
            ended = self.device.run(*command.split())
            self.assertEqual((ended.returncode, ended.stderr), (0, ""), command)
            self.assertNotEqual(ended.stdout, "", command)

    def test_its_columns_are_those_of_the_list(self):
        shown = re.search(r"^\$ fw-update history --failed\n(.*)$", read(PAGE), re.MULTILINE)[1]

        printed = self.device.run("fw-update", "history", "--failed").stdout.split("\n")[0]

        self.assertEqual(shown.split(), printed.split())

    def test_what_it_shows_of_one_entry_is_shown(self):
        shown = re.search(r"^\$ fw-update history show \d+\n(.*?)^```", read(PAGE), re.MULTILINE | re.DOTALL)[1]

        printed = self.device.run("fw-update", "history", "show", str(self.failed["number"])).stdout

        self.assertEqual(facts(shown), facts(printed))

    def test_its_ways_and_outcomes_are_those_of_entries(self):
        ways = {names_in(row[0])[0] for row in cells(section("What is in it")) if row[0].startswith("`")}

        self.assertEqual({entry["way"] for entry in self.entries} - ways, set())
        self.assertEqual({"direct", "usb"} - {entry["way"] for entry in self.entries}, set())

    def test_the_members_of_the_documents_are_the_named_ones(self):
        row = next(row for row in cells(read(JSON_PAGE)) if row[0] == "`history`")
        named = set(names_in(row[1])) - {"entries", "damaged"}

        members = set().union(*self.entries)

        self.assertEqual(members, named)
        self.assertLessEqual(ALWAYS_THERE, members)
        one = json.loads(self.device.run("fw-update", "history", "show", "1", "--json").stdout)["entry"]
        self.assertEqual(one, self.entries[0])

    def test_its_settings_are_known(self):
        settings = {names_in(row[0])[0]: row for row in cells(section("Settings"))[1:]}
        values = {name: re.search(r"(\d+) to (\d+)", row[1]) for name, row in settings.items()}
        good = [f"{name} = {found[bound]}" for name, found in values.items() if found for bound in (1, 2)]
        bad = [f"{name} = {int(found[2]) + 1}" for name, found in values.items() if found]
        self.assertEqual(set(settings), {"max_entries", "max_size_kib", "metrics"})

        for line, is_good in [(line, True) for line in good] + [(line, False) for line in bad]:
            self.device.write("/etc/fw-update/history.conf", line + "\n")
            warned = self.device.run("fw-update", "update", "libtuner").stderr
            self.assertEqual("history.conf" in warned, not is_good, line + ": " + warned)

    def test_its_metrics_are_those_of_the_file(self):
        text = read(self.device.device + METRICS)
        written = {}
        for name, labels in re.findall(r"^(\w+)(?:\{(.*)\})? ", re.sub("^#.*\n", "", text, flags=re.MULTILINE), re.MULTILINE):
            written[name] = set(re.findall(r'(\w+)="', labels))
        named = {names_in(row[0])[0]: set(names_in(row[1])) for row in cells(section("Metrics"))[1:]}

        self.assertEqual(written, named)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
