# SPDX-License-Identifier: Apache-2.0
"""A machine of the virtual set: QEMU, what it is asked for, and its end.

A machine writes to an overlay of its own, which goes with it; the set it was made from
stays as it is. Every wait has a limit, and QEMU ends with the program that started it.
"""
import contextlib
import json
import os
import pathlib
import shlex
import shutil
import socket
import subprocess
import tempfile
import time

RUN_LIMIT = 1800
BOOT_LIMIT = 900
COMMAND_LIMIT = 300
OUT_OF_TIME = 124  # as timeout(1) ends
KERNEL_WORDS = ("root=LABEL=root rw console=ttyS0 quiet panic=-1 systemd.show_status=0 mitigations=off "
                "cryptomgr.notests tsc=reliable no_timer_check")
# A kept state is only for a machine of the same devices, at the same addresses.
DEVICES = ["-nodefaults", "-no-user-config", "-machine", "pc,accel=tcg,usb=off", "-cpu", "qemu32",
           "-display", "none", "-object", "rng-random,filename=/dev/urandom,id=rng",
           "-device", "virtio-rng-pci,rng=rng,addr=5", "-device", "qemu-xhci,id=usb,addr=6"]
MEMORY = 384


def what_it_is():
    """A text that is another one when a kept state is not for this machine."""
    version = subprocess.run(["qemu-system-i386", "--version"], check=True, capture_output=True, text=True).stdout
    return f"{version}{DEVICES}{MEMORY}{KERNEL_WORDS}"


class MachineError(Exception):
    """The machine did not do what it was asked for."""


def wait_until(condition, seconds, what, machine=None):
    """The condition's first true value; MachineError when it has none in time."""
    deadline = time.monotonic() + seconds
    while True:
        value = condition()
        if value:
            return value
        if machine is not None and not machine.runs():
            raise MachineError(f"the machine ended while it was waited for {what}{machine.last_words()}")
        if time.monotonic() > deadline:
            words = machine.last_words() if machine is not None else ""
            raise MachineError(f"no {what} within {seconds} s{words}")
        time.sleep(0.02)


def overlay(path, below, form):
    subprocess.run(["qemu-img", "create", "-q", "-f", "qcow2", "-F", form, "-b", below, path], check=True)


class Monitor:
    """QEMU's control socket: one command, one answer."""

    def __init__(self, path):
        self._socket = socket.socket(socket.AF_UNIX)
        self._socket.settimeout(COMMAND_LIMIT)
        self._socket.connect(path)
        self._stream = self._socket.makefile("rw")
        self._stream.readline()
        self.do("qmp_capabilities")

    def do(self, command, **arguments):
        self._stream.write(json.dumps({"execute": command, "arguments": arguments}) + "\n")
        self._stream.flush()
        while True:
            line = self._stream.readline()
            if not line:
                raise MachineError(f"QEMU ended at {command}")
            answer = json.loads(line)
            if "error" in answer:
                raise MachineError(f"{command}: {answer['error']['desc']}")
            if "return" in answer:
                return answer["return"]

    def close(self):
        self._stream.close()
        self._socket.close()


class Job:
    """A script that runs, or has run, in the set."""

    def __init__(self, machine, number):
        self._machine, self._number = machine, number

    def _file(self, what):
        return self._machine.host / f"{self._number}.{what}"

    def output(self):
        return self._file("output").read_text(errors="replace") if self._file("output").exists() else ""

    def begun(self):
        return self._file("started").exists()

    def code(self):
        """Its exit code, None while it runs."""
        return int(self._file("code").read_text()) if self._file("code").exists() else None

    def wait_for(self, text, seconds=COMMAND_LIMIT):
        """Waits until it has printed this."""
        def printed():
            return text in self.output() or (self.code() is not None and "ended")
        if wait_until(printed, seconds, f'"{text}"', self._machine) == "ended" and text not in self.output():
            raise MachineError(f'the job ended without "{text}":\n{self.output()}')

    def wait(self, seconds=RUN_LIMIT):
        wait_until(lambda: self.code() is not None, seconds, "end of the job", self._machine)
        return self.code()


class Machine:
    """with Machine(...) as machine: it runs until the end of the block.

    below, form   the disk that it goes on from, unless disk is given: a file to write to
    state         the kept state to go on from; else kernel and initrd are started
    share         a directory that the set sees as /share, and may write to
    """

    def __init__(self, kernel, initrd, below, form, state=None, disk=None, share=None, memory=MEMORY,
                 limit=RUN_LIMIT):
        place = "/dev/shm" if os.access("/dev/shm", os.W_OK) else None
        self._work = pathlib.Path(tempfile.mkdtemp(prefix="virtual-set-", dir=os.environ.get("TMPDIR", place)))
        self.host = self._work / "host"
        self.host.mkdir()
        self.share = pathlib.Path(share).resolve() if share else self._work / "share"
        if not share:
            self.share.mkdir()
        self._console = self._work / "console.log"
        self._disk = disk or self._work / "root.qcow2"
        self._below, self._form, self._limit = below, form, limit
        self._start = ["-kernel", kernel, "-initrd", initrd, "-append", KERNEL_WORDS, "-m", str(memory)]
        self._state = state
        self._process, self._monitor, self._line = None, None, None
        # Greater than any number that the kept state has seen.
        self._first = self._jobs = int(time.time())

    def __enter__(self):
        try:
            self._begin()
        except BaseException:
            self.end()
            raise
        return self

    def __exit__(self, *_):
        self.end()

    def _begin(self):
        overlay(self._disk, self._below, self._form)
        self._process = subprocess.Popen(self._command(), stdin=subprocess.DEVNULL)
        wait_until((self._work / "qmp").exists, COMMAND_LIMIT, "control socket", self)
        self._monitor = wait_until(self._connected, COMMAND_LIMIT, "answer of QEMU", self)
        self._line = socket.socket(socket.AF_UNIX)
        self._line.connect(str(self._work / "line"))
        if self._state:
            wait_until(lambda: self.do("query-status")["status"] == "running", COMMAND_LIMIT, "kept state", self)
        else:
            self.wait_until_ready()

    def _connected(self):
        with contextlib.suppress(ConnectionRefusedError):
            return Monitor(str(self._work / "qmp"))

    def _command(self):
        work = str(self._work)
        return ["setpriv", "--pdeathsig", "TERM", "timeout", "--kill-after=5", str(self._limit),
                "qemu-system-i386", *DEVICES, *map(str, self._start),
                "-drive", f"file={self._disk},format=qcow2,if=none,id=root,cache=unsafe",
                "-device", "virtio-blk-pci,drive=root,addr=8",
                "-virtfs", f"local,path={self.host},mount_tag=host,security_model=none,id=host",
                "-virtfs", f"local,path={self.share},mount_tag=share,security_model=none,id=share",
                "-serial", f"file:{self._console}",
                "-chardev", f"socket,id=line,path={work}/line,server=on,wait=off", "-serial", "chardev:line",
                "-qmp", f"unix:{work}/qmp,server=on,wait=off",
                *(["-incoming", f"exec:cat {shlex.quote(str(self._state))}"] if self._state else [])]

    def runs(self):
        return self._process is not None and self._process.poll() is None

    def ran_out_of_time(self):
        """Whether its limit was why it ended, or ends."""
        with contextlib.suppress(subprocess.TimeoutExpired):
            return self._process is not None and self._process.wait(10) == OUT_OF_TIME
        return False

    def last_words(self):
        if not self.runs() and self.ran_out_of_time():
            return f": it had run for its limit of {self._limit} s"
        return f"; its console's last lines:\n{self.console()[-1500:]}" if self.console() else ""

    def console(self):
        return self._console.read_text(errors="replace") if self._console.exists() else ""

    def wait_until_ready(self, times=1, seconds=BOOT_LIMIT):
        """Waits until the system has started, so many times in all."""
        wait_until(lambda: self.console().count("set-job: ready") >= times, seconds, "start of the system", self)

    def do(self, command, **arguments):
        """A command of QEMU's monitor."""
        return self._monitor.do(command, **arguments)

    # Jobs ----------------------------------------------------------------------------

    def start(self, script, terminal=False):
        """Starts a shell script as root, with /share, in the directory /root."""
        number = self._jobs
        self._jobs += 1
        (self.host / f"{number}.job").write_text(script)
        if terminal:
            (self.host / f"{number}.terminal").touch()
        job = Job(self, number)
        # A kept state has the time that it was kept at.
        now = int(time.time()) if self._state and number == self._first else 0

        def begun():
            self._line.sendall(f"go {number} {now}\n".encode())
            time.sleep(0.05)
            return job.begun()
        wait_until(begun, COMMAND_LIMIT, "start of the job", self)
        if terminal:
            self._line.sendall(b"begin\n")
        return job

    def run(self, script, seconds=RUN_LIMIT):
        """Runs a shell script to its end: its exit code and what it printed."""
        job = self.start(script)
        return job.wait(seconds), job.output()

    @property
    def line(self):
        """The socket that is the terminal of a job that has one."""
        return self._line

    # Drives ----------------------------------------------------------------------------

    def plug(self, image, record=None):
        """Plugs a USB drive in: a file with its bytes.

        record: a file for all that the set writes to it, in the format of dm-log-writes.
        """
        self._add_drive("drive", image, record)
        self.do("device_add", driver="usb-storage", id="drive", drive="drive", bus="usb.0")

    def unplug(self):
        """Pulls it out, in use or not."""
        self._remove_drive("drive")

    def attach(self, image, record=None):
        """Adds a disk, /dev/disk/by-id/virtio-attached; unlike that of a drive, its cache is flushed."""
        self._add_drive("disk", image, record)
        # A modern one would be put behind 4 GiB, where a processor of 32 bits does not find it.
        self.do("device_add", driver="virtio-blk-pci", id="disk", drive="disk", serial="attached",
                **{"disable-modern": True, "disable-legacy": "off"})

    def detach(self):
        """Takes it away."""
        self._remove_drive("disk")

    def _add_drive(self, name, image, record):
        node = {"driver": "raw", "file": {"driver": "file", "filename": str(image)}}
        if record:
            pathlib.Path(record).touch()
            node = {"driver": "blklogwrites", "file": node, "log": {"driver": "file", "filename": str(record)},
                    "log-super-update-interval": 1}
        self.do("blockdev-add", **{**node, "node-name": name})

    def _remove_drive(self, name):
        self.do("device_del", id=name)

        def gone():
            with contextlib.suppress(MachineError):
                self.do("blockdev-del", **{"node-name": name})
                return True
        wait_until(gone, COMMAND_LIMIT, "end of the drive", self)

    # Network ---------------------------------------------------------------------------

    def connect(self):
        """Gives it a network card; where the set has the address 10.0.2.15, 10.0.2.2 is 127.0.0.1 of this computer."""
        self.do("netdev_add", type="user", id="network", ipv6=False)
        # As for disks, a modern one is not found.
        self.do("device_add", driver="virtio-net-pci", id="card", netdev="network", romfile="",
                **{"disable-modern": True, "disable-legacy": "off"})

    def reset(self):
        """Cuts the power and gives it back: what was in memory is lost."""
        starts = self.console().count("set-job: ready")
        self.do("system_reset")
        self.wait_until_ready(starts + 1)

    # States and ends -----------------------------------------------------------------

    def save(self, path):
        """Keeps the machine's state, to go on from there later."""
        self._line.sendall(b"rest\n")
        wait_until(lambda: "set-job: rests" in self.console(), COMMAND_LIMIT, "rest", self)
        self.do("migrate", uri=f"exec:cat >{shlex.quote(str(path))}")

        def ended():
            status = self.do("query-migrate").get("status")
            if status == "failed":
                raise MachineError("the machine's state could not be saved")
            return status == "completed"
        wait_until(ended, COMMAND_LIMIT, "saved state", self)

    def end(self):
        """Switches it off, as when the power goes, and removes what it wrote."""
        with contextlib.suppress(MachineError, OSError, ValueError):
            if self._monitor is not None and self.runs():
                self.do("quit")
                self._process.wait(10)
        if self.runs():
            self._process.terminate()
            with contextlib.suppress(subprocess.TimeoutExpired):
                self._process.wait(10)
        if self.runs():
            self._process.kill()
        for handle in (self._monitor, self._line):
            if handle is not None:
                with contextlib.suppress(OSError):  # what was to be said is not heard any more
                    handle.close()
        shutil.rmtree(self._work, ignore_errors=True)
