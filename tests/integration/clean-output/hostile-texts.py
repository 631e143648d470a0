# SPDX-License-Identifier: Apache-2.0
"""Runs every command with names, versions and answers that would steer a terminal, through
pipes and on a terminal, and looks at every byte that comes out.

usage: hostile-texts.py FW-DEVICE FW-DOWNLOAD HOSTILE-MODULE WORK-DIRECTORY
"""

import fcntl
import http.server
import json
import os
import pty
import re
import shutil
import signal
import struct
import subprocess
import sys
import termios
import threading
import unittest

FW_DEVICE, FW_DOWNLOAD, MODULE, WORK = sys.argv[1:5]
TREE = os.path.realpath(os.path.join(os.path.dirname(__file__), "../../.."))
BIN = os.path.dirname(FW_DEVICE)
DEVICE = os.path.join(WORK, "device")

# Each of them does something to some terminal, or turns or breaks what is read.
EVIL = (b"V\x1b]0;T\x07\x1b[2J\x08\x7f\x0b\x0c\x0e\r\x9b7m\x84\xc2\x9b2J\xc2\x85\xe2\x80\xae\xe2\x81\xa6"
        b"\xe2\x80\x8e\xe2\x80\x8f\xd8\x9c\xe2\x80\xa8\xe2\x80\xa9\xff\xc0\x9b\xed\xa0\x80\xf5")
# A line of its own, as if a command had said it.
NAME = b"lib" + EVIL + b"\nFORGED"
# In JSON control characters below U+0020 are escaped.
IN_JSON = b"V\\u001b]0;T\\u0007\\u001b[2J\xc2\x9b2J\xe2\x80\xae\x9b7m\\u202e\\u2066\\nFORGED"

UNSAFE = [range(0x00, 0x09), range(0x0B, 0x20), range(0x7F, 0xA0), range(0x61C, 0x61D), range(0x200E, 0x2010),
          range(0x2028, 0x202F), range(0x2066, 0x206A)]
# What commands tell a terminal on their own account.
OWN_ORDERS = re.compile(rb"\x1b\[(?:31|32|33|1|0)m|\r\x1b\[K|\x1b\[K|\r(?!\n)")


def unsafe_in(output):
    """The places that no terminal is to see."""
    found = []
    at = 0
    for character in output.decode("utf-8", "surrogateescape"):
        number = ord(character)
        if 0xDC80 <= number <= 0xDCFF or any(number in characters for characters in UNSAFE):
            found.append("U+%04X after %r" % (number, output.decode("utf-8", "surrogateescape")[max(0, at - 20):at]))
        at += 1
    return found


class Server(http.server.BaseHTTPRequestHandler):
    def do_GET(self):
        self.wfile.write(b"HTTP/1.1 302 " + EVIL.replace(b"\r", b"") + b"\r\nLocation: http://" +
                         EVIL.replace(b"\r", b"") + b"/\r\nContent-Length: 0\r\n\r\n")
        self.close_connection = True

    def log_message(self, *_):
        pass


def write(path, content):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "wb") as file:
        file.write(content)


def environment(**more):
    return dict(os.environ, TERM="xterm", FW_UPDATE_LOG="stderr", HOSTILE_TEXT=os.fsdecode(EVIL), **more)


def on_device(*command):
    return [FW_DEVICE, "run", DEVICE, "--", *command]


def piped(command, lines=None, **more):
    """Standard output and standard error; lines: after so many of them the command is to end, as with Ctrl-C."""
    output = b""
    with subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                          env=environment(**more)) as process:
        if lines is not None:
            block = b"."
            while block and output.count(b"\n") < lines:
                block = os.read(process.stdout.fileno(), 65536)
                output += block
            process.send_signal(signal.SIGINT)
        rest, errors = process.communicate(timeout=100)
    return output + rest, errors


def on_terminal(command, lines=None, **more):
    """Everything that the command writes on a terminal of 80 columns; lines: as for piped."""
    end, other = pty.openpty()
    fcntl.ioctl(other, termios.TIOCSWINSZ, struct.pack("HHHH", 24, 80, 0, 0))
    process = subprocess.Popen(command, stdin=other, stdout=other, stderr=other, env=environment(**more))
    os.close(other)
    output = b""
    while True:
        try:
            block = os.read(end, 65536)
        except OSError:  # nobody has the terminal any more
            break
        if not block:
            break
        output += block
        if lines is not None and output.count(b"\n") >= lines:
            process.send_signal(signal.SIGINT)
            lines = None
    process.wait()
    os.close(end)
    return OWN_ORDERS.sub(b"", output.replace(b"\r\n", b"\n"))


# A command with the update service, which has made a job for the module of the first argument.
SERVICE = """
address=unix:path=/run/hostile-bus
rm -f /run/hostile-bus
echo '<busconfig><listen>unix:path=/run/hostile-bus</listen><policy context="default"><allow user="*"/>
  <allow send_destination="*" eavesdrop="true"/><allow eavesdrop="true"/><allow own="*"/></policy></busconfig>' >/run/hostile-bus.conf
dbus-daemon --config-file=/run/hostile-bus.conf --nofork --nosyslog >/dev/null 2>&1 & bus=$!
until busctl --address=$address list >/dev/null 2>&1; do sleep 0.05; done
FW_UPDATE_LOG=none fw-updated --bus $address & service=$!
until fw-update jobs --bus $address >/dev/null 2>&1; do sleep 0.05; done
fw-update update "$1" --service --bus $address >/dev/null 2>&1
shift
fw-update "$@" --bus $address
kill $service $bus
wait
"""


class HostileTexts(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        shutil.rmtree(WORK, ignore_errors=True)
        os.makedirs(WORK)
        subprocess.run([FW_DEVICE, "init", DEVICE], check=True, capture_output=True)
        cls.name = NAME
        image = b"image"
        firmware = os.path.join(DEVICE, "lib/firmware/ext/hostilefw")
        write(os.path.join(firmware, "hostilefw.bin"), image)
        write(os.path.join(firmware, "info.json"),
              b'{"version": "%s", "crc": 1, "expected_time": 5}' % IN_JSON)
        cls.controls = os.path.join(DEVICE, "prd/usr/fwupdate/controls").encode()
        for module in os.listdir(cls.controls):
            os.unlink(os.path.join(cls.controls, module))
        shutil.copy(MODULE, os.path.join(cls.controls, cls.name + b".so"))
        cls.server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Server)
        threading.Thread(target=cls.server.serve_forever, daemon=True).start()
        write(os.path.join(DEVICE, "etc/fw-update/download.conf"),
              b"url = http://127.0.0.1:%d/%s\n" % (cls.server.server_port, b"packages"))
        write(os.path.join(DEVICE, "tmp/key"), b"k" * 32)
        os.chmod(os.path.join(DEVICE, "tmp/key"), 0o600)

    @classmethod
    def tearDownClass(cls):
        cls.server.shutdown()
        shutil.rmtree(WORK, ignore_errors=True)

    def setUp(self):
        for left in ("dev/shm", "run/fw-trace"):
            for name in os.listdir(os.path.join(DEVICE, left)) if os.path.isdir(os.path.join(DEVICE, left)) else []:
                os.unlink(os.path.join(DEVICE, left, name))

    def look(self, command, shows, **more):
        """Both ways; shows: what proves that the hostile text was there to be shown."""
        for how, outputs in (("through pipes", piped(command, **more)),
                             ("on a terminal", (on_terminal(command, **more),))):
            with self.subTest(command=command, how=how):
                whole = b"".join(outputs)
                self.assertIn(shows, whole)
                for output in outputs:
                    self.assertEqual(unsafe_in(output), [], output)
                    self.assertNotRegex(output, rb"(?m)^FORGED")

    def look_at_json(self, command, member_texts, **more):
        """The document holds the texts as they are; bytes that are no UTF-8 as \\xNN."""
        for output in (piped(command, **more)[0], on_terminal(command, **more)):
            with self.subTest(command=command):
                self.assertEqual(unsafe_in(output), [])
                start = output.find(b"{")
                documents = output[start:].decode()
                decoder = json.JSONDecoder()
                document, _ = decoder.raw_decode(documents)
                for text in member_texts:
                    self.assertIn(text, repr_texts(document))

    def update(self, *arguments, shows=b"\\x1B]0;T", **more):
        self.look(on_device("fw-update", *arguments), shows, **more)

    def test_fw_update_shows_modules(self):
        self.update("list")
        self.update("list", "--log")
        self.update("info", self.name)
        self.update("pending")
        self.update("pending", "--log")
        self.update("pending-list")
        self.update("progress", self.name)

    def test_fw_update_updates(self):
        self.fit(True)
        self.update("update", self.name)
        self.update("update", self.name, "--log")
        self.update("update", self.name, "--isolated")
        self.update("update-all")
        self.update("update-all", "--dry-run")
        self.update("update-all", "--isolated")
        self.fit(False)
        self.update("update", self.name)

    def fit(self, fits):
        """Whether the image's checksum is the one of its description."""
        path = os.path.join(DEVICE, "lib/firmware/ext/hostilefw/info.json")
        crc = 1
        if fits:
            described = subprocess.run(
                [os.path.join(BIN, "fw-pack"), "info", os.path.join(DEVICE, "lib/firmware/ext/hostilefw/hostilefw.bin"),
                 "--version", "2", "--expected-time", "5", "-o", os.path.join(WORK, "description")],
                capture_output=True)
            self.assertEqual(described.returncode, 0, described.stderr)
            with open(os.path.join(WORK, "description")) as file:
                crc = json.load(file)["crc"]
            os.unlink(os.path.join(WORK, "description"))
        write(path, b'{"version": "%s", "crc": %d, "expected_time": 5}' % (IN_JSON, crc))

    def test_fw_update_names_what_it_does_not_know(self):
        self.update("info", EVIL)
        self.update("update", EVIL)
        self.update("progress", EVIL)
        self.update("download", EVIL)
        self.update(EVIL)
        self.update("list", b"--" + EVIL)
        self.update("update", self.name, "--caller", EVIL)

    def test_fw_update_shows_an_identifier(self):
        self.update("list", "--log", HOSTILE_IDENTIFIER="1")
        self.update("list", HOSTILE_IDENTIFIER="1")
        self.update("update", self.name, HOSTILE_IDENTIFIER="1")

    def test_fw_update_shows_what_a_server_says(self):
        self.update("download", self.name, "--wait", shows=b"hostileempfw")
        self.update("download", "--all", "--wait", "--log", shows=b"hostileempfw")

    def test_fw_update_shows_who_uses_the_lock(self):
        holder = (b"import ctypes, sys; c = ctypes.CDLL(None); c.sem_open.restype = ctypes.c_void_p;"
                  b"c.sem_open.argtypes = [ctypes.c_char_p, ctypes.c_int, ctypes.c_int, ctypes.c_uint];"
                  b"c.sem_unlink(b'/SEM_UPDATE_CONTROL'); s = c.sem_open(b'/SEM_UPDATE_CONTROL', 64, 0o600, 1); c.prctl(15, sys.argv[1].encode('utf-8', 'surrogateescape'));"
                  b"c.sem_wait(ctypes.c_void_p(s)); import subprocess; sys.exit(subprocess.run(sys.argv[2:]).returncode)")
        for arguments in (("status",), ("recover",)):
            self.look(on_device("python3", "-c", holder, EVIL, "fw-update", "lock", *arguments), b"\\x1B]0;T")

    def test_fw_update_shows_usb_packages(self):
        drive = os.path.join(os.fsencode(DEVICE), b"opt/media/USBDriveA", b"d" + EVIL.replace(b"/", b""))
        write(os.path.join(drive, b"hostilefw.bin"), b"p" * 2000)
        inside = b"/opt/media/USBDriveA/" + os.path.basename(drive) + b"/"
        self.update("usb", "estimate", inside, "--key-file", "/tmp/key")
        self.update("usb", "apply", inside, "--key-file", "/tmp/key")
        self.update("usb", "estimate", inside, "--key-file", b"/tmp/" + EVIL)

    def test_fw_update_shows_the_history(self):
        self.fit(True)
        piped(on_device("fw-update", "update", self.name))
        self.update("history")
        self.update("history", "show", "1")
        self.update("history", "--module", EVIL, shows=b"")
        self.update("history", "--since", EVIL, shows=b"no time such as")

    def test_fw_update_explains_and_verifies(self):
        self.update("explain", EVIL, shows=b"No table has this line")
        self.update("explain", b"lib" + EVIL + b" was updated. Version " + EVIL + b" -> 2 in 1.0 s.", shows=b"")
        self.update("verify", self.name, "--version", EVIL)
        self.update("verify", EVIL, "--version", "1")

    def test_the_update_service(self):
        self.fit(True)
        # What the service takes: no control characters of 7 bits, and UTF-8 alone.
        name = "lib\u009b2J\u202e\u2066X".encode()
        module = os.path.join(self.controls, name + b".so")
        shutil.copy(MODULE, module)
        shown = b"\\xC2\\x9B"
        for arguments in (("list", "--service"), ("info", name, "--service"), ("pending", "--service"),
                          ("update", name, "--service"), ("update-all", "--service"), ("jobs",), ("watch", "1"),
                          ("history", "--service"), ("history", "show", "1", "--service"),
                          ("update", b"lib\xc2\x9b", "--service")):
            self.look(on_device("sh", "-c", SERVICE, "sh", name, *arguments), shown)
        # sdbus-c++ 1.2 does not free a bus that could not be opened.
        leaky = {"ASAN_OPTIONS": os.environ.get("ASAN_OPTIONS", "") + ":detect_leaks=0"}
        self.look(on_device("fw-updated", "--bus", EVIL), b"bus cannot be", **leaky)
        self.look(on_device("fw-updated", "--check-config", EVIL), b"\\x1B]0;T")
        self.look(on_device("fw-update", "jobs", "--bus", EVIL), b"bus cannot be", **leaky)
        os.unlink(module)

    def test_json_holds_the_texts_themselves(self):
        valid = EVIL.decode("utf-8", "backslashreplace")
        wanted = re.sub(r"\\x([0-9a-f]{2})", lambda byte: "\\x" + byte.group(1).upper(), valid)
        self.look_at_json(on_device("fw-update", "list", "--json"), ["lib" + wanted + "\nFORGED"])
        self.look_at_json(on_device("fw-update", "info", self.name, "--json"), ["lib" + wanted + "\nFORGED"])

    def test_fw_trace(self):
        self.fit(True)
        piped(on_device("fw-update", "update", self.name))
        directory = os.path.join(DEVICE, "run/fw-trace")
        tool = os.path.join(BIN, "fw-trace")
        for command in ("list", "show", "summary"):
            self.look([tool, command, "--directory", directory], b"\\x1B]0;T")
        shown = piped([tool, "show", "--directory", directory])[0].count(b"\n")
        self.look(["timeout", "50", tool, "follow", "--directory", directory], b"\\x1B]0;T", lines=shown)
        for form in ("json", "perfetto", "html"):
            self.look([tool, "export", "--format", form, "--directory", directory], b"]0;T")
        # Standard output is the file, to the byte; each page has a number of its own.
        for form in ("json", "perfetto"):
            file = os.path.join(WORK, "export")
            subprocess.run([tool, "export", "--format", form, "--directory", directory, "-o", file], check=True,
                           capture_output=True)
            with open(file, "rb") as written:
                self.assertEqual(piped([tool, "export", "--format", form, "--directory", directory])[0], written.read())
        shutil.copy(MODULE, os.path.join(os.fsencode(WORK), EVIL))
        self.look([tool, "show", os.path.join(os.fsencode(WORK), EVIL)], b"\\x1B]0;T")
        self.look([tool, "list", "--directory", os.path.join(os.fsencode(WORK), b"gone" + EVIL)], b"\\x1B]0;T")
        self.look([tool, EVIL], b"fw-trace")

    def test_fw_module(self):
        tool = os.path.join(BIN, "fw-module")
        module = os.path.join(os.fsencode(WORK), self.name + b".so")
        shutil.copy(MODULE, module)
        self.look([tool, "check", module], b"\\x1B]0;T")
        write(module, b"no library")
        self.look([tool, "check", module], b"\\x1B]0;T")
        self.look([tool, "check", module + b"gone"], b"\\x1B]0;T")
        self.look([tool, "new", EVIL], b"has only letters")

    def test_fw_pack(self):
        tool = os.path.join(BIN, "fw-pack")
        file = os.path.join(os.fsencode(WORK), EVIL)
        write(file, b"p" * 2000)
        self.look([tool, "verify", file], b"\\x1B]0;T")
        self.look([tool, "inspect", file], b"\\x1B]0;T")
        self.look([tool, "inspect", file + b"gone"], b"\\x1B]0;T")
        write(file, b'{"version": "%s", "crc": 1, "expected_time": 5}' % IN_JSON)
        self.look([tool, "inspect", file], b"\\x1B]0;T")
        self.look_at_json([tool, "inspect", file, "--json"], ["info.json"])
        self.look([tool, "info", file + b"gone", "--version", "1", "--expected-time", "5", "-o", EVIL], b"\\x1B]0;T")
        self.look([tool, "release", os.path.dirname(file), "--number", "1", "--expires", "2037-01-31T00:00:00Z",
                   "--signing-key", file, "--into", file], b"\\x1B]0;T")
        self.look([tool, EVIL], b"\\x1B]0;T")

    def test_fw_fleet(self):
        tool = os.path.join(BIN, "fw-fleet")
        file = os.path.join(os.fsencode(WORK), b"c" + EVIL)
        write(file, EVIL + b" = x\nserver = " + EVIL + b"\ntoken-file = " + EVIL + b"\n")
        self.look([tool, "--check-config", file], b"\\x1B]0;T")
        self.look([tool, "--check-config", file + b"gone"], b"\\x1B]0;T")
        self.look([tool, EVIL], b"\\x1B]0;T")
        leaky = {"ASAN_OPTIONS": os.environ.get("ASAN_OPTIONS", "") + ":detect_leaks=0"}
        self.look([tool, "status", "--bus", EVIL], b"cannot be asked", **leaky)

    def test_what_runs_from_the_tree(self):
        self.look([os.path.join(TREE, "virtual-set"), EVIL], b"\\x1b]0;T")
        self.look([os.path.join(TREE, "virtual-set"), "run", b"--" + EVIL], b"\\x1b]0;T")
        self.look(["python3", "-B", os.path.join(TREE, "tests", "check-steps.py"), "quick", "--step", EVIL], b"\\x1b]0;T")

    def test_fw_device(self):
        device = os.path.join(os.fsencode(WORK), b"d" + EVIL)
        self.look([FW_DEVICE, "run", device, "--", "true"], b"\\x1B]0;T")
        self.look([FW_DEVICE, "init", device], b"\\x1B]0;T")
        self.look(on_device(EVIL), b"\\x1B]0;T")
        self.look([FW_DEVICE, EVIL], b"\\x1B]0;T")

    def test_programs_beside_the_library(self):
        self.look([FW_DOWNLOAD, EVIL], b"\\x1B]0;T")
        self.look(on_device(FW_DOWNLOAD, "hostileempfw"), b"hostileempfw")
        self.look([FW_DOWNLOAD, b"--" + EVIL], b"Try: fw-download --help")
        privileged = os.path.join(BIN, "fw-privileged")
        self.look([privileged, EVIL], b"\\x1B]0;T")
        self.look([privileged, b"--" + EVIL], b"\\x1B]0;T")
        self.look([privileged, "--group", EVIL], b"\\x1B]0;T")
        check = os.path.join(BIN, "fw-platform-check")
        self.look([check, "--library", EVIL], b"\\x1B]0;T")
        self.look([check, "--only", EVIL], b"\\x1B]0;T")
        self.look([check, "--unsigned-package", EVIL], b"letters and digits")
        self.look([check, b"--" + EVIL], b"\\x1B]0;T")


def repr_texts(document):
    if isinstance(document, str):
        return [document]
    values = document.values() if isinstance(document, dict) else document if isinstance(document, list) else []
    return [text for value in values for text in repr_texts(value)]


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0], *sys.argv[5:]])
