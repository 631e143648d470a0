#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""usage: service_on_device.py REPETITIONS IDLE-SECONDS UPDATES-ALONE

On a device: what the update service costs, as one JSON object of lists. "direct" and "job" are seconds
of the tuner's update, by fw-update itself and by a job until it is said to be done. UPDATES-ALONE: 1
leaves start, memory and idling out.
"""
import atexit
import json
import os
import pathlib
import signal
import subprocess
import sys
import time

import dbus
import dbus.bus
import dbus.mainloop.glib
from gi.repository import GLib

NAME, PATH = "org.fwupdate.Update1", "/org/fwupdate/Update1"
ADDRESS = "unix:path=/run/bench-bus"
COMPONENTS = pathlib.Path("/var/lib/fw-components")
COMMAND = ["fw-update", "update", "libtuner", "--isolated", "--progress", "ndjson"]


class Bus:
    def __init__(self):
        daemon = subprocess.Popen(["dbus-daemon", "--session", "--nofork", "--nosyslog", "--print-address=1",
                                   "--address=" + ADDRESS], stdout=subprocess.PIPE)
        daemon.stdout.readline()  # it can be reached
        atexit.register(daemon.terminate)
        dbus.mainloop.glib.DBusGMainLoop(set_as_default=True)
        self.connection = dbus.bus.BusConnection(ADDRESS)
        self.loop = GLib.MainLoop()
        self.wanted = None
        self.connection.add_signal_receiver(self.take_owner, "NameOwnerChanged", arg0=NAME)
        self.connection.add_signal_receiver(self.take_change, "PropertiesChanged", dbus.PROPERTIES_IFACE)

    def take_owner(self, _name, _before, owner):
        if self.wanted == "owner" and owner:
            self.loop.quit()

    def take_change(self, _interface, changed, _invalid):
        if self.wanted == "done" and changed.get("State") == "done":
            self.loop.quit()

    def wait_for(self, wanted):
        self.wanted = wanted
        self.loop.run()


def started(bus):
    """The service, and how long it took until it had its name."""
    begin = time.monotonic()
    process = subprocess.Popen(["fw-updated", "--bus", ADDRESS], stderr=subprocess.DEVNULL)
    bus.wait_for("owner")
    return process, time.monotonic() - begin


def end(process):
    process.send_signal(signal.SIGTERM)
    process.wait()


def private_mebibytes(process):
    rollup = pathlib.Path(f"/proc/{process.pid}/smaps_rollup").read_text(encoding="ascii")
    return sum(int(line.split()[1]) for line in rollup.splitlines() if line.startswith("Private_")) / 1024


def wake_ups(process):
    return sum(int(line.split()[1]) for status in pathlib.Path(f"/proc/{process.pid}/task").glob("*/status")
               for line in status.read_text(encoding="ascii").splitlines() if "ctxt_switches" in line)


def woken(process, seconds):
    before = wake_ups(process)
    time.sleep(seconds)
    return wake_ups(process) - before


def timed(work):
    (COMPONENTS / "tunerfw.flash").unlink(missing_ok=True)  # so that an update is needed
    os.sync()
    begin = time.monotonic()
    work()
    spent = time.monotonic() - begin
    if not (COMPONENTS / "tunerfw.flash").exists():
        sys.exit("the tuner was not updated")
    return spent


def main():
    repetitions, idle_seconds, updates_alone = int(sys.argv[1]), int(sys.argv[2]), sys.argv[3] == "1"
    pathlib.Path("/etc/fw-update").mkdir(exist_ok=True)
    pathlib.Path("/etc/fw-update/fw-updated.conf").write_text("at-start = no\n", encoding="ascii")
    (COMPONENTS / "tunerfw.component").unlink(missing_ok=True)  # as quick as it can be
    bus = Bus()
    found = {"start": [], "private": [], "woken": [], "direct": [], "job": []}
    for _ in range(0 if updates_alone else repetitions):
        process, seconds = started(bus)
        found["start"].append(seconds)
        end(process)
    process, _ = started(bus)
    manager = dbus.Interface(bus.connection.get_object(NAME, PATH, introspect=False), NAME)

    def job():
        manager.Update("libtuner", "", "", signature="sss")
        bus.wait_for("done")

    for _ in range(repetitions):
        found["direct"].append(timed(lambda: subprocess.run(COMMAND, stdout=subprocess.DEVNULL, check=True)))
        found["job"].append(timed(job))
    if not updates_alone:
        time.sleep(1)  # the end of the last job
        found["private"].append(private_mebibytes(process))
        found["woken"].append(woken(process, idle_seconds))
    end(process)
    print(json.dumps(found))


if __name__ == "__main__":
    main()
