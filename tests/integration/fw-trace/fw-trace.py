# SPDX-License-Identifier: Apache-2.0
"""Runs updates on a device and looks at their traces with fw-trace: the lists, the
summary, the exports, and the page in a headless browser without a network.

usage: fw-trace.py FW-DEVICE WORK-DIRECTORY Command|Page [CHROMIUM]

Page is what needs the browser; without one it exits with 77, "skipped".
"""

import fcntl
import html
import json
import os
import pty
import re
import resource
import shutil
import signal
import struct
import subprocess
import sys
import tempfile
import termios
import unittest

FW_DEVICE, WORK = sys.argv[1], sys.argv[2]
CHROMIUM = sys.argv[4] if len(sys.argv) > 4 else ""
FW_TRACE = os.path.join(os.path.dirname(FW_DEVICE), "fw-trace")
DEVICE = os.path.join(WORK, "device")
TRACES = os.path.join(DEVICE, "run/fw-trace")

# Appended to the page: does what people do, and writes down what it sees.
PAGE_TEST = """
<script>document.title = "written by a message";</script>
<img src="data:image/gif;base64,R0lGODlhAQABAAAAACw=" onload="document.title = 'loaded'">
<p id="coloured" style="color: rgb(1, 2, 3)"></p>
<script nonce="@NONCE@">
{
const result = {};
const slices = () => [...document.querySelectorAll("rect.update")];
const widths = () => slices().map(s => s.getBoundingClientRect().width);
const box = slices()[0].getBoundingClientRect();
result.updates = slices().length;
result.stages = document.querySelectorAll("rect.stage").length;
result.messages = document.querySelectorAll("circle.message").length;
result.captions = [...document.querySelectorAll("text.caption")].map(t => t.textContent);
result.before = widths()[0];
const at = {clientX: box.left + 2, clientY: box.top + 2, bubbles: true, cancelable: true, view: window};
document.getElementById("timeline").dispatchEvent(new WheelEvent("wheel", {...at, deltaY: -300}));
result.zoomed = widths()[0];
document.getElementById("timeline").dispatchEvent(new MouseEvent("dblclick", at));
result.back = widths()[0];
const tip = document.getElementById("tip");
result.tipBefore = getComputedStyle(tip).visibility;
slices()[0].dispatchEvent(new MouseEvent("mousemove", at));
result.tip = getComputedStyle(tip).visibility;
result.tipText = tip.textContent;
slices()[0].dispatchEvent(new MouseEvent("mouseout", at));
result.tipAfter = getComputedStyle(tip).visibility;
result.title = document.title;
result.image = document.images[0].naturalWidth;
result.colour = getComputedStyle(document.getElementById("coloured")).color;
result.keys = [...document.querySelectorAll("#key span")].map(s => getComputedStyle(s).backgroundColor);
const pre = document.createElement("pre");
pre.id = "result";
pre.textContent = JSON.stringify(result);
document.body.append(pre);
}
</script>
"""


def on_device(*command):
    return subprocess.run([FW_DEVICE, "run", DEVICE, "--", *command], capture_output=True, text=True)


def fw_trace(*arguments):
    return subprocess.run([FW_TRACE, *arguments, "--directory", TRACES], capture_output=True, text=True)


class Terminal:
    """One run of fw-trace on a terminal of that many columns."""

    def __init__(self, columns, *arguments, **environment):
        self.end, other = pty.openpty()
        fcntl.ioctl(other, termios.TIOCSWINSZ, struct.pack("HHHH", 24, columns, 0, 0))
        self.process = subprocess.Popen(
            [FW_TRACE, *arguments, "--directory", TRACES], stdin=other, stdout=other, stderr=other,
            start_new_session=True, preexec_fn=lambda: fcntl.ioctl(0, termios.TIOCSCTTY, 0),
            env=dict(os.environ, TERM="xterm", **environment))
        os.close(other)
        self.shown = ""

    def read_some(self):
        try:
            block = os.read(self.end, 65536)
        except OSError:  # how a terminal ends
            block = b""
        self.shown += block.decode()
        return bool(block)

    def finish(self):
        while self.read_some():
            pass
        os.close(self.end)
        return self.process.wait()


def is_full(pipe):
    waiting = struct.unpack("i", fcntl.ioctl(pipe, termios.FIONREAD, b"\0" * 4))[0]
    return waiting == fcntl.fcntl(pipe, 1032)  # F_GETPIPE_SZ


def is_writing(process):
    """Whether it waits until its standard output takes more."""
    def told(name):
        with open(f"/proc/{process.pid}/{name}", encoding="ascii") as file:
            return file.read().split()
    return told("stat")[2] == "S" and told("syscall")[1:2] == ["0x1"]


def sparse_trace(name, size, head):
    """A file of that size, of which nearly nothing is on the disk: one list of places that
    fills it, and in it one place with as many arguments as there is room for."""
    path = os.path.join(WORK, name)
    with open(path, "wb") as file:
        file.write(struct.pack("<8sIIIIqqII16s192s", b"FWTRACE\n", 1, 0x01020304, 4096, 77, 10**18, 0, 1, 0,
                               b"sparse", b"sparse --run"))
        file.seek(4096)
        file.write(struct.pack("<IIQQQI28x", 0x4B4E4843, 1, size - 4096, head, 0, 0))
        file.write(struct.pack("<IIiI", head, 1, 42, 0xFFFFFFFF))
        file.truncate(size)
    return path


def chunk(kind, data):
    return struct.pack("<IIQQQI28x", 0x4B4E4843, kind, 64 + len(data), len(data), 0, 0) + data


def wordy_trace(name, length=60000):
    """A small file whose messages take 300 MB, or less: one place with a long text, and 5,000 records of it."""
    path = os.path.join(WORK, name)
    text = b"." * length
    strings = struct.pack("<H", 0) * 2 + struct.pack("<H", len(text)) + text
    strings += b"\0" * (-len(strings) % 8)
    records = b"".join(struct.pack("<IIIIq", 24, (24 * i // 8 & 0xFFFFFF) << 8 | 1, 1, 77, i) for i in range(5000))
    with open(path, "wb") as file:
        file.write(struct.pack("<8sIIIIqqII16s192s", b"FWTRACE\n", 1, 0x01020304, 256, 77, 10**18, 0, 1, 0,
                               b"wordy", b"wordy --run"))
        file.write(chunk(1, struct.pack("<IIiI", 16 + len(strings), 1, 42, 0) + strings) + chunk(2, records))
    return path


# A sanitizer reserves more addresses than any limit leaves.
SANITIZED = bool(os.environ.get("FW_UPDATE_SANITIZERS"))


def with_memory(mebibytes, *arguments):
    """fw-trace with no more memory than that; under a sanitizer with as much as it takes."""
    def limit():
        if not SANITIZED:
            resource.setrlimit(resource.RLIMIT_AS, (mebibytes << 20, mebibytes << 20))
    return subprocess.run([FW_TRACE, *arguments], capture_output=True, text=True, preexec_fn=limit)


def on_terminal(columns, *arguments, **environment):
    terminal = Terminal(columns, *arguments, **environment)
    terminal.finish()
    return terminal.shown


def export(form):
    done = fw_trace("export", "--format", form)
    assert done.returncode == 0, done.stderr
    return done.stdout


def in_browser(path):
    """The page's elements after its scripts ran, in a network namespace of its own."""
    with tempfile.TemporaryDirectory() as profile:
        command = [CHROMIUM, "--headless=new", "--no-sandbox", "--disable-gpu", "--no-first-run",
                   "--disable-dev-shm-usage", "--user-data-dir=" + profile, "--window-size=1400,900",
                   "--dump-dom", "file://" + path]
        done = subprocess.run(["unshare", "-rn", *command], capture_output=True, text=True, timeout=100)
    return done.stdout


class UpdatedDevice(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        shutil.rmtree(WORK, ignore_errors=True)
        os.makedirs(WORK)
        made = subprocess.run([FW_DEVICE, "init", DEVICE], capture_output=True, text=True)
        if made.returncode != 0:
            raise RuntimeError(made.stderr)
        for name in ("tunerfw", "panelfw", "wififw"):
            with open(os.path.join(DEVICE, "var/lib/fw-components", name + ".component"), "w") as file:
                file.write("write_kib_per_second = 8000\n")
        codes = [on_device("fw-update", "update", "libtuner", "--caller", "upgrade-app").returncode,
                 on_device("fw-update", "update", "libpanel", "--caller", "lsm").returncode,
                 # The device's firmware directory holds a corrupt image of this one.
                 on_device("fw-update", "update", "libpanel", "--caller", "upgrade-app").returncode]
        assert codes == [0, 0, 5], codes


class Command(UpdatedDevice):
    def test_lists_the_processes(self):
        listed = json.loads(fw_trace("list", "--json").stdout)
        self.assertEqual([trace["state"] for trace in listed["traces"][:3]], ["dead"] * 3)
        self.assertIn("update libtuner --caller upgrade-app", listed["traces"][0]["commandLine"])

    def test_works_on_the_device_itself(self):
        self.assertIn("libtuner", on_device("fw-trace", "summary").stdout)

    def test_sums_up_each_module(self):
        modules = {m["module"]: m for m in json.loads(fw_trace("summary", "--json").stdout)["modules"]}
        self.assertEqual(modules["libtuner"]["results"], {"updated": 1})
        self.assertEqual(modules["libpanel"]["results"], {"updated": 1, "refused": 1})
        self.assertEqual(modules["libpanel"]["updates"][1]["reason"], "Error: panelfw Firmware CRC32 different")
        for part in ("waitForLockSeconds", "crcSeconds", "inModuleSeconds"):
            self.assertLessEqual(modules["libtuner"][part], modules["libtuner"]["seconds"])
        self.assertGreater(modules["libtuner"]["inModuleSeconds"], 0)

    def test_shows_the_messages_in_time_order(self):
        messages = json.loads(fw_trace("show", "--json").stdout)["messages"]
        times = [m["nanoseconds"] for m in messages]
        self.assertEqual(times, sorted(times))
        self.assertIn("========== [ tunerfw update succeeded ] ==========", [m["text"] for m in messages])

    def test_filters_by_module_and_function(self):
        shown = fw_trace("show", "--module", "libtuner").stdout
        self.assertIn("tunerfw update succeeded", shown)
        self.assertNotIn("panelfw", shown)
        shown = fw_trace("show", "--function", "update_timeout_wrapper", "--json").stdout
        self.assertEqual({m["function"] for m in json.loads(shown)["messages"]}, {"update_timeout_wrapper"})

    def test_filters_by_time(self):
        self.assertEqual(fw_trace("show", "--since", "2099-01-01T00:00").returncode, 3)
        self.assertEqual(fw_trace("show", "--until", "2099-01-01T00:00").returncode, 0)

    def test_says_what_it_cannot_read(self):
        foreign = os.path.join(WORK, "foreign.fwtrace")
        with open(foreign, "w") as file:
            file.write("not a trace" * 100)
        done = fw_trace("show", foreign)
        self.assertEqual(done.returncode, 4)
        self.assertIn("no trace", done.stderr)
        self.assertEqual(fw_trace("show", "999999999").returncode, 3)
        self.assertEqual(fw_trace("show", "--since", "noon").returncode, 2)
        self.assertEqual(fw_trace("export").returncode, 2)
        for arguments in (["--json", "nonsense"], ["show", "--since", "noon", "--json"]):
            done = subprocess.run([FW_TRACE, *arguments], capture_output=True, text=True)
            self.assertEqual((done.returncode, json.loads(done.stdout)["outcome"]), (2, "usage"), done.stdout)
        self.assertEqual(subprocess.run([FW_TRACE, "list", "--directory", WORK + "/none"],
                                        capture_output=True).returncode, 4)

    def test_takes_little_memory_for_a_sparse_file(self):
        path = sparse_trace("sparse.fwtrace", 100 << 20, (100 << 20) - 4096 - 64)
        for arguments in (["show", path], ["summary", path], ["list", path], ["export", "--format", "json", path]):
            done = with_memory(300, *arguments)
            self.assertIn(done.returncode, (0, 3), done.stderr)
            self.assertNotIn("bad_alloc", done.stderr)
        self.assertIn("There are more places than a trace has", with_memory(300, "show", path).stderr)

    def test_leaves_out_a_place_with_too_many_arguments(self):
        path = sparse_trace("arguments.fwtrace", 65536, 65536 - 4096 - 64)
        self.assertIn("A damaged place", fw_trace("show", path).stderr)

    def test_shows_more_messages_than_fit_into_memory(self):
        done = with_memory(100, "show", wordy_trace("wordy.fwtrace"))
        self.assertEqual((done.returncode, done.stderr, done.stdout.count("\n")), (0, "", 5000))

    def test_refuses_a_file_that_is_too_large_for_a_trace(self):
        path = sparse_trace("large.fwtrace", (256 << 20) + 1, 64)
        done = with_memory(300, "show", path)
        self.assertEqual(done.returncode, 4)
        self.assertIn("too large for a trace: more than 256 MiB", done.stderr)

    def test_leaves_out_old_files_of_a_directory_that_is_too_large(self):
        directory = os.path.join(WORK, "many")
        os.makedirs(directory)
        for number in range(4):
            path = sparse_trace(f"many/{number}.fwtrace", 100 << 20, 64)
            os.utime(path, (1000 + number, 1000 + number))
        exported = with_memory(600, "export", "--format", "json", "--directory", directory)
        left_out = [line.split(": ")[1] for line in exported.stderr.splitlines() if "name this one to see it" in line]
        self.assertEqual([os.path.basename(path) for path in left_out], ["0.fwtrace", "1.fwtrace"])
        listed = json.loads(with_memory(300, "list", "--json", "--directory", directory).stdout)
        self.assertEqual([trace["state"] for trace in listed["traces"]], ["dead"] * 4)

    @unittest.skipIf(SANITIZED, "a sanitizer reserves more addresses than any limit leaves")
    def test_says_when_there_is_not_enough_memory(self):
        path = wordy_trace("memory.fwtrace")
        done = with_memory(100, "export", "--format", "json", path)
        self.assertEqual(done.returncode, 1)
        self.assertIn("There is not enough memory for these traces; name fewer of them.", done.stderr)

    def test_follows_processes_that_come_later(self):
        before = {trace["processId"] for trace in json.loads(fw_trace("list", "--json").stdout)["traces"]}
        with subprocess.Popen([FW_TRACE, "follow", "--json", "--directory", TRACES], text=True,
                              stdout=subprocess.PIPE) as follower:
            self.assertIn(json.loads(follower.stdout.readline())["processId"], before)
            on_device("fw-update", "list")
            # Ends with the first message of the new process; without one the test times out.
            while json.loads(follower.stdout.readline())["processId"] in before:
                pass
            follower.terminate()
            follower.stdout.read()
            self.assertEqual(follower.wait(), 0)

    def test_ends_in_order_with_ctrl_c(self):
        terminal = Terminal(80, "follow")
        while "panelfw Firmware CRC32 different" not in terminal.shown:
            self.assertTrue(terminal.read_some())
        os.write(terminal.end, b"\x03")
        self.assertEqual(terminal.finish(), 0)

    def test_ends_in_order_when_it_is_interrupted_while_nobody_takes_its_output(self):
        with subprocess.Popen([FW_TRACE, "follow", wordy_trace("interrupted.fwtrace", 100)],
                              stdout=subprocess.PIPE) as follower:
            while not is_full(follower.stdout) or not is_writing(follower):
                self.assertIsNone(follower.poll())
            follower.send_signal(signal.SIGINT)
            shown = follower.stdout.read()
            self.assertEqual(follower.wait(), 0)
        self.assertLess(shown.count(b"\n"), 5000)

    def test_keeps_its_tables_within_a_narrow_terminal(self):
        for command in ("list", "summary"):
            lines = on_terminal(78, command).replace("\r", "").splitlines()
            self.assertGreater(len(lines), 2)
            self.assertLessEqual(max(map(len, lines)), 78, lines)

    def test_colours_errors_on_a_terminal_alone(self):
        looks = {}  # of each kind of message
        for line in on_terminal(80, "show").replace("\r", "").splitlines():
            look, text = re.search(r"\)  ((?:\x1b\[\d+m)?)(.*)", line).groups()
            looks.setdefault(re.match("Error|=====|", text)[0], set()).add(look)
        self.assertEqual(looks, {"Error": {"\x1b[31m"}, "=====": {"\x1b[1m"}, "": {""}})
        self.assertNotIn("\x1b", on_terminal(80, "show", NO_COLOR="1"))
        self.assertNotIn("\x1b", fw_trace("show").stdout)

    def test_exports_slices_with_the_modules_names(self):
        events = json.loads(export("perfetto"))["traceEvents"]
        names = [e["name"] for e in events if e["ph"] == "X" and e["cat"] == "update"]
        self.assertEqual(sorted(set(names)), ["update libpanel", "update libtuner"])


class Page(UpdatedDevice):
    def test_draws_a_timeline_that_zooms_and_explains(self):
        path = os.path.join(os.path.abspath(WORK), "page.html")
        page = export("html")
        nonce = re.search(r"script-src 'nonce-([0-9a-f]{32})'", page).group(1)
        with open(path, "w") as file:
            file.write(page.replace("</body>", PAGE_TEST.replace("@NONCE@", nonce) + "</body>"))
        dom = in_browser(path)
        found = re.search(r'<pre id="result">(.*?)</pre>', dom, re.S)
        self.assertTrue(found, dom[-2000:])
        result = json.loads(html.unescape(found.group(1)))
        timeline = json.loads(export("json"))
        self.assertEqual(result["updates"], len(timeline["updates"]))
        self.assertEqual(result["stages"], sum(len(u["stages"]) for u in timeline["updates"]))
        self.assertEqual(result["messages"], len(timeline["messages"]))
        self.assertIn("libtuner", result["captions"])
        self.assertGreater(result["zoomed"], 1.2 * result["before"])
        self.assertAlmostEqual(result["back"], result["before"], delta=1)
        self.assertEqual((result["tipBefore"], result["tip"], result["tipAfter"]), ("hidden", "visible", "hidden"))
        self.assertIn("libtuner: updated", result["tipText"])
        self.assertEqual(len(result["keys"]), 11)
        self.assertNotIn("rgba(0, 0, 0, 0)", result["keys"])
        # Nothing that is not the page's own runs, loads or is styled.
        self.assertEqual(result["title"], "Firmware updates")
        self.assertEqual(result["image"], 0)
        self.assertNotEqual(result["colour"], "rgb(1, 2, 3)")

    def test_has_another_key_for_its_scripts_each_time(self):
        keys = {re.search(r"'nonce-([0-9a-f]{32})'", export("html")).group(1) for _ in range(5)}
        self.assertEqual(len(keys), 5)


if __name__ == "__main__":
    if sys.argv[3] == "Page" and not CHROMIUM:
        print("there is no chromium")
        sys.exit(77)
    unittest.main(argv=[sys.argv[0], sys.argv[3]], verbosity=2)
