# SPDX-License-Identifier: Apache-2.0
"""The virtual set: a whole 32-bit system in a machine of its own.

usage: ./virtual-set make [--packages DIR]
       ./virtual-set run [OPTION...] COMMAND...    runs a command in it, as root
       ./virtual-set shell [OPTION...]             opens a shell in it, as root
       ./virtual-set path                          prints where it is kept
  make builds the Debian packages of this tree for 32 bits, unless DIR holds them, and
  makes a Debian with a kernel, systemd, D-Bus, logind and polkit of its own, with these
  packages and a device's modules, images and keys in it. run and shell take the set that
  was made last, and go on from its kept state within two seconds. Nothing that is
  written to the set stays, and it has no network.
  --share DIR    the set sees DIR as /share, and may write to it
  --drive FILE   FILE is plugged in as a USB drive
  --boot         starts the system instead of going on from the kept state
  --debian       the set without this project's packages
  --limit N      ends the machine after N seconds; 1800 when absent, for shell 86400
  run ends with the exit code of COMMAND. Exit code 77 of make: the set cannot be made
  here; 125: the machine failed; the last line says why.
  ./virtual-set run fw-update update-all
"""
import argparse
import contextlib
import os
import pathlib
import select
import shlex
import signal
import subprocess
import sys
import termios
import time
import tty

import made_set
from machine import MachineError, RUN_LIMIT

SHELL_LIMIT = 86400
# A drive without a file system is not mounted.
DRIVE_IS_THERE = "for try in $(seq 50); do mountpoint --quiet /opt/media/USBDriveA && exit; sleep 0.1; done"


def harmless(text, kept=""):
    """Without what would steer a terminal."""
    return "".join(one if one.isprintable() or one in kept else ascii(one)[1:-1] for one in str(text))


def say(text):
    print(f"virtual-set: {harmless(text, kept=chr(10))}", file=sys.stderr, flush=True)


def build_packages():
    say("building the packages for 32 bits (the log is in build/package-i386.log)")
    build = "build/package-i386"
    steps = [["tests/device-root", "make"], ["tests/device-root", "run", "tests/packages/build", build]]
    for step in steps:
        code = subprocess.run(step, cwd=made_set.TREE, check=False).returncode
        if code == 77:
            raise made_set.CannotMake("the packages cannot be built here")
        if code:
            raise MachineError("the packages were not built")
    return made_set.TREE / build


def make(options):
    made_set.require_programs()
    if options.debian:
        made_set.make_debian(say)
    else:
        made_set.make_with_packages(options.packages or build_packages(), say)
    return 0


def chosen(options):
    return made_set.make_debian(say) if options.debian else made_set.current()


@contextlib.contextmanager
def started(options, limit):
    """The machine that the options ask for."""
    if options.share and not options.share.is_dir():
        raise MachineError(f"{options.share} is no directory")
    settings = {"boot": options.boot, "share": options.share, "limit": options.limit or limit}
    with chosen(options).machine(**settings) as machine:
        if options.drive:
            machine.plug(options.drive.resolve(strict=True))
            machine.run(DRIVE_IS_THERE)
        yield machine


def run(options):
    with started(options, RUN_LIMIT) as machine:
        job = machine.start(shlex.join(options.command))
        printed = 0
        while True:
            code = job.code()
            output = job.output()
            sys.stdout.write(output[printed:])
            sys.stdout.flush()
            printed = len(output)
            if code is not None:
                return code
            if not machine.runs():
                raise MachineError(f"the machine ended{machine.last_words()}")
            time.sleep(0.02)


def shell(options):
    with started(options, SHELL_LIMIT) as machine:
        say("the set is up; leave it with exit")
        size = os.get_terminal_size() if sys.stdin.isatty() else os.terminal_size((80, 24))
        job = machine.start(f"stty rows {size.lines} cols {size.columns}\n"
                            f"export TERM={shlex.quote(os.environ.get('TERM', 'vt100'))}\nexec bash -i\n", terminal=True)
        before = termios.tcgetattr(0) if sys.stdin.isatty() else None
        try:
            if before is not None:
                tty.setraw(0)
            with contextlib.suppress(ConnectionError):  # the machine's end
                talk(machine, job)
        finally:
            if before is not None:
                termios.tcsetattr(0, termios.TCSADRAIN, before)
        if job.code() is None and machine.ran_out_of_time():
            raise MachineError(f"the machine ended{machine.last_words()}")
        return job.code() or 0


def talk(machine, job):
    """Carries what is typed and what is answered, until the shell ends."""
    inputs, ended = [machine.line], False
    while job.code() is None and machine.runs():
        ready, _, _ = select.select(inputs, [], [], 0.1)
        if machine.line in ready:
            data = machine.line.recv(65536)
            if not data:
                return
            os.write(1, data)
            if inputs == [machine.line] and not ended:
                inputs.append(0)  # what comes before the shell asks for it would be lost
        if 0 in ready:
            data = os.read(0, 4096)
            if not data:
                inputs.remove(0)  # the end of what a script had to say
                ended = True
            machine.line.sendall(data)


def path(options):
    print(chosen(options).directory)
    return 0


COMMANDS = {"make": make, "run": run, "shell": shell, "path": path}


class Parser(argparse.ArgumentParser):
    def error(self, message):
        super().error(harmless(message))


def parse(words):
    if not words or words[0] in ("-h", "--help"):
        print(__doc__.strip())
        sys.exit(0 if words else 2)
    parser = Parser("virtual-set", usage="./virtual-set --help says how", add_help=False)
    parser.add_argument("--packages", type=pathlib.Path)
    parser.add_argument("--share", type=pathlib.Path)
    parser.add_argument("--drive", type=pathlib.Path)
    parser.add_argument("--boot", action="store_true")
    parser.add_argument("--debian", action="store_true")
    parser.add_argument("--limit", type=int)
    parser.add_argument("command", nargs=argparse.REMAINDER)
    options = parser.parse_args(words[1:])
    options.name = words[0]
    if options.command[:1] == ["--"]:
        del options.command[0]
    if options.name not in COMMANDS:
        parser.error(f"{options.name} is no command")
    if (options.name == "run") != bool(options.command):
        parser.error("run takes a command, the others none")
    return options


def main():
    options = parse(sys.argv[1:])
    try:
        return COMMANDS[options.name](options)
    except made_set.CannotMake as problem:
        say(problem)
        return 77
    except (MachineError, OSError, subprocess.CalledProcessError) as problem:
        say(problem)
        return 125


if __name__ == "__main__":
    # The machine ends with this program, whatever ends it.
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    signal.signal(signal.SIGHUP, lambda *_: sys.exit(129))
    try:
        sys.exit(main())
    except KeyboardInterrupt:
        sys.exit(130)
