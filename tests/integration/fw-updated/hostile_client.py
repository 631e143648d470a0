# SPDX-License-Identifier: Apache-2.0
"""usage: hostile_client.py COUNT STRANGER: sends messages that no client that means well sends.

Prints how many were refused and each one that was accepted. STRANGER: 1 when this user may not even
ask for a job in the right way; such messages are among them then.
"""
import random
import sys

import dbus
import dbus.bus
import dbus.lowlevel
import dbus.types

from service_client import ADDRESS, JOB, NAME, PATH

METHODS = {"Update": "sss", "UpdateAll": "", "ApplyUsb": "s", "EstimateUsb": "s", "Download": "s", "UpdateFrom": "ssa{sh}",
           "ListModules": "", "Pending": "s", "LockStatus": "", "History": "sbu", "Query": "sas"}
JOB_METHODS = {"Cancel": "", "Consent": "s"}
VALUES = {"s": lambda chance: text(chance), "u": lambda chance: dbus.UInt32(chance.getrandbits(32)),
          "b": lambda chance: dbus.Boolean(chance.random() < 0.5), "i": lambda chance: dbus.Int32(-chance.getrandbits(31)),
          "d": lambda chance: dbus.Double(float("nan")), "as": lambda chance: dbus.Array([text(chance)] * 9, "s"),
          "ay": lambda chance: dbus.ByteArray(bytes(chance.getrandbits(8) for _ in range(64))),
          "o": lambda chance: dbus.ObjectPath("/a"), "a{sv}": lambda chance: dbus.Dictionary({"a": dbus.Int32(1)}, "sv"),
          "v": lambda chance: nested(20)}
# No module is called so, no folder, and no caller.
TEXTS = ["", "/", "..", "../../etc/passwd", "-", "--help", "--json", "\x01", "a\nb", "\x7f/\u202e", "%n/%s%00", "x" * 128,
         "/" + "x" * 4096, "x/" * 100000, "$(reboot)/", "-rf /", "\\x00/", "file:///a b", "."]
OBJECTS = [PATH + "/job/0", PATH + "/job/99999999999999999999", PATH + "/job/1/1", PATH + "/job", "/", PATH + "/x"]


def text(chance):
    return chance.choice(TEXTS)


def nested(depth):
    value = dbus.Int32(1)
    for _ in range(depth):
        value = dbus.Array([value], "v", variant_level=1)
    return value


def call(path, interface, member, signature, values):
    message = dbus.lowlevel.MethodCallMessage(NAME, path, interface, member)
    if values:
        message.append(*values, signature=signature)
    return message


def wrong_types(chance):
    """Another signature than the method has."""
    interface, methods, path = chance.choice([(NAME, METHODS, PATH), (JOB, JOB_METHODS, PATH + "/job/1")])
    member = chance.choice(sorted(methods))
    while True:
        kinds = [chance.choice(sorted(VALUES)) for _ in range(chance.randrange(5))]
        if "".join(kinds) != methods[member]:
            return call(path, interface, member, "".join(kinds), [VALUES[kind](chance) for kind in kinds])


def wrong_values(chance):
    """Each argument as it should be by its type alone."""
    member, values = chance.choice([
        ("Update", (text(chance), text(chance), text(chance))), ("Download", (text(chance),)),
        ("ApplyUsb", (chance.choice(TEXTS[2:6]),)), ("EstimateUsb", (chance.choice(TEXTS[2:6]),)),
        ("Pending", (chance.choice(TEXTS[1:]),)), ("History", (chance.choice(TEXTS[1:]), True, dbus.UInt32(2**32 - 1))),
        ("UpdateFrom", (text(chance), text(chance), dbus.Dictionary({text(chance): dbus.types.UnixFd(0)}, "sh"))),
        ("Query", (text(chance), dbus.Array([text(chance)], "s"))),
        ("Query", ("list", dbus.Array(["x"] * 1000, "s")))])
    return call(PATH, NAME, member, METHODS[member], values)


def unknown_places(chance):
    if chance.random() < 0.5:
        return call(chance.choice(OBJECTS), JOB, chance.choice(sorted(JOB_METHODS)), "", ())
    return call(PATH, chance.choice([NAME, JOB, NAME + ".X", "a.b"]), "Nothing" + str(chance.getrandbits(8)), "", ())


def properties(chance):
    member, signature, values = chance.choice([
        ("Set", "ssv", (JOB, "State", dbus.String("done", variant_level=1))),
        ("Set", "ssv", (NAME, "Jobs", dbus.Array([], "o", variant_level=1))),
        ("Get", "ss", (JOB, text(chance) or "x")), ("Get", "ss", (NAME, "State")), ("GetAll", "s", (1,))])
    values = tuple(dbus.String(value) if value == 1 else value for value in values)
    if member == "GetAll":
        return call(PATH + "/job/1", "org.freedesktop.DBus.Properties", "GetAll", "u", (dbus.UInt32(1),))
    return call(PATH + "/job/1", "org.freedesktop.DBus.Properties", member, signature, values)


def replays(chance):
    """The job is over for long, and it never asked."""
    if chance.random() < 0.5:
        return call(PATH + "/job/1", JOB, "Cancel", "", ())
    return call(PATH + "/job/1", JOB, "Consent", "s", (chance.choice(["yes", "no", "later", "", "YES"]),))


def not_allowed(chance):
    """As a client that may would ask."""
    member, values = chance.choice([("Update", ("libtuner", "", "")), ("UpdateAll", ()), ("Download", ("libwifi",)),
                                    ("ApplyUsb", ("",)), ("EstimateUsb", ("/opt/media/USBDriveA",)),
                                    ("UpdateFrom", ("libtuner", "package",
                                                    dbus.Dictionary({"package": dbus.types.UnixFd(0)}, "sh")))])
    return call(PATH, NAME, member, METHODS[member], values)


def main():
    count, is_stranger = int(sys.argv[1]), sys.argv[2] == "1"
    chance = random.Random(7)
    kinds = [wrong_types, wrong_values, unknown_places, properties, replays] + [not_allowed] * is_stranger
    bus = dbus.bus.BusConnection(ADDRESS)
    refused = 0
    for _ in range(count):
        kind = chance.choice(kinds)
        message = kind(chance)
        try:
            bus.send_message_with_reply_and_block(message, 60)
            print(f"accepted: {kind.__name__} {message.get_path()} {message.get_member()} {message.get_args_list()!r}"[:300])
        except dbus.DBusException as error:
            if error.get_dbus_name().endswith(("NoReply", "Disconnected", "ServiceUnknown", "NameHasNoOwner")):
                sys.exit(f"{kind.__name__}: {error}")
            refused += 1
    print(f"{refused} refused")


if __name__ == "__main__":
    main()
