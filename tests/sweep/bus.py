# SPDX-License-Identifier: Apache-2.0
"""A system bus with a stand-in for systemd-logind on it, so that a power lock is a real
one: a descriptor that logind sees closed when its holder lets go or dies.
"""

import os
import signal
import socket
import subprocess
import time

import dbus

CONFIGURATION = """<busconfig>
  <listen>unix:path={socket}</listen>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
</busconfig>
"""
LOGIND = "org.freedesktop.login1"
PATIENCE = 20  # seconds


def wait_until(condition, what):
    end = time.monotonic() + PATIENCE
    while not condition():
        if time.monotonic() > end:
            raise RuntimeError(what)
        time.sleep(0.01)


def listens(path):
    with socket.socket(socket.AF_UNIX) as client:
        return client.connect_ex(path) == 0


class Bus:
    """Lives in a directory of its own; close ends its two programs."""

    def __init__(self, directory):
        os.makedirs(directory)
        self.directory = directory
        self.address = f"unix:path={directory}/socket"
        self.calls = os.path.join(directory, "calls")
        configuration = os.path.join(directory, "bus.conf")
        with open(configuration, "w", encoding="utf-8") as file:
            file.write(CONFIGURATION.format(socket=f"{directory}/socket"))
        self.programs = [subprocess.Popen(["dbus-daemon", "--nofork", "--nopidfile",
                                           f"--config-file={configuration}"],
                                          stderr=subprocess.DEVNULL)]
        try:
            self._begin()
        except Exception:
            self._end_programs()  # who waits for their output would wait for ever
            raise

    def _begin(self):
        wait_until(lambda: listens(f"{self.directory}/socket"), "the bus does not start")
        with open(self.calls, "wb") as file:
            self.programs.append(subprocess.Popen(
                ["/usr/bin/python3", "-m", "dbusmock", "--system", "--template", "logind"],
                stdout=file, env={**os.environ, "DBUS_SYSTEM_BUS_ADDRESS": self.address}))
        self.connection = dbus.bus.BusConnection(self.address)
        wait_until(lambda: self.connection.name_has_owner(LOGIND), "logind does not start")
        self.manager = dbus.Interface(self.connection.get_object(LOGIND, "/org/freedesktop/login1"),
                                      f"{LOGIND}.Manager")

    def locks_given(self):
        with open(self.calls, encoding="utf-8", errors="replace") as file:
            return file.read().count(" Inhibit ")

    def locks_left(self):
        """How many are held, when those of processes that have ended had time to go."""
        end = time.monotonic() + PATIENCE
        while (count := len(self.manager.ListInhibitors())) and time.monotonic() < end:
            time.sleep(0.01)
        return count

    def close(self):
        self.connection.close()
        self._end_programs()

    def _end_programs(self):
        for program in reversed(self.programs):
            program.send_signal(signal.SIGTERM)
            program.wait()
