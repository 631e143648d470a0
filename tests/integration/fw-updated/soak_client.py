# SPDX-License-Identifier: Apache-2.0
"""usage: soak_client.py SEED: asks for jobs until it is killed, one after the other, and cancels some.

Goes on with the next service when the one that it asked is gone.
"""
import random
import sys
import time

import dbus
import dbus.bus

from service_client import ADDRESS, JOB, NAME, PATH

WISHES = [("libtuner", ""), ("libpanel", "lsm"), ("libpanel", ""), ("libwifi", ""), ("libnothing", "")]
GONE = ("NoReply", "Disconnected", "ServiceUnknown", "NameHasNoOwner", "UnknownObject", "UnknownMethod")


def asked(bus, chance):
    """A job's path, or None when there was nobody to ask."""
    module, caller = chance.choice(WISHES)
    try:
        path = bus.call_blocking(NAME, PATH, NAME, "Update", "sss", (module, caller, ""))
        if chance.random() < 0.1:
            bus.call_blocking(NAME, path, JOB, "Cancel", "", ())
        return path
    except dbus.DBusException as error:
        name = error.get_dbus_name()
        if name.endswith((".TooLate", ".TooMany")) or name.endswith(GONE):
            return None
        raise


def is_done(bus, path):
    try:
        return bus.call_blocking(NAME, path, dbus.PROPERTIES_IFACE, "Get", "ss", (JOB, "State")) == "done"
    except dbus.DBusException as error:
        if error.get_dbus_name().endswith(GONE):
            return False
        raise


def main():
    chance = random.Random(int(sys.argv[1]))
    bus = dbus.bus.BusConnection(ADDRESS)
    while True:
        path = asked(bus, chance)
        end = time.monotonic() + 60
        while path and not is_done(bus, path):
            if time.monotonic() > end:
                sys.exit(f"{path} has no end")
            time.sleep(0.01)
        if path is None:
            time.sleep(0.01)


if __name__ == "__main__":
    main()
