# SPDX-License-Identifier: Apache-2.0
"""The update service, the bus that it is on, and a client, which knows what the service says of
itself and nothing else."""
import contextlib
import ctypes
import json
import os
import pathlib
import shutil
import signal
import subprocess
import sys
import time

import dbus
import dbus.bus
import dbus.mainloop.glib
from gi.repository import GLib

NAME = "org.fwupdate.Update1"
PATH = "/org/fwupdate/Update1"
JOB = NAME + ".Job"
ADDRESS = "unix:path=/run/service-bus"
KEY = "/usr/share/fw-update/package.key"  # of USB packages
PATIENCE = 60  # seconds for what takes far less

CONFIGURATION = """<busconfig>
  <listen>unix:path=/run/service-bus</listen>
  <limit name="max_incoming_bytes">1000000000</limit>
  <limit name="max_replies_per_connection">50000</limit>
  <limit name="max_message_unix_fds">1000</limit>
  <limit name="max_incoming_unix_fds">4000</limit>
  <limit name="max_outgoing_unix_fds">4000</limit>
  <policy context="default">
    <allow user="*"/>
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
</busconfig>
"""


def wait_for(what, text):
    """What it gives as soon as that is true."""
    end = time.monotonic() + PATIENCE
    while time.monotonic() < end:
        value = what()
        if value:
            return value
        time.sleep(0.01)
    raise AssertionError("it did not happen: " + text)


class Bus:
    """A bus of its own; a program that runs."""

    def __init__(self):
        pathlib.Path("/run/service-bus.conf").write_text(CONFIGURATION, encoding="ascii")
        self.process = subprocess.Popen(["dbus-daemon", "--config-file=/run/service-bus.conf", "--nofork", "--nosyslog"],
                                        stderr=subprocess.DEVNULL)
        os.environ["DBUS_SYSTEM_BUS_ADDRESS"] = ADDRESS

    def connect(self):
        dbus.mainloop.glib.DBusGMainLoop(set_as_default=True)
        return wait_for(self.connection, "the bus listens")

    @staticmethod
    def connection():
        try:
            return dbus.bus.BusConnection(ADDRESS)
        except dbus.DBusException:
            return None


class Service:
    """fw-updated, started and on the bus."""

    def __init__(self, connection, *options, inherited=(), through=(), **environment):
        """through: a command that becomes the one behind it."""
        self.connection = connection
        self.process = subprocess.Popen([*through, "fw-updated", "--bus", ADDRESS, *options],
                                        env={**os.environ, **environment}, pass_fds=inherited)
        wait_for(lambda: connection.name_has_owner(NAME), "the service has its name")

    def kill(self, number=signal.SIGKILL):
        self.process.send_signal(number)
        self.process.wait()
        wait_for(lambda: not self.connection.name_has_owner(NAME), "the name is free again")
        return self.process.returncode


class Polkit:
    """What stands in for polkit on the bus."""

    def __init__(self, connection, allowed):
        self.process = subprocess.Popen(["/usr/bin/python3", "-m", "dbusmock", "--system", "--template", "polkitd"],
                                        stdout=subprocess.DEVNULL)
        wait_for(lambda: connection.name_has_owner("org.freedesktop.PolicyKit1"), "polkit is there")
        self.object = wait_for(lambda: self.find(connection), "polkit answers")
        self.object.SetAllowed(dbus.Array(allowed, "s"), dbus_interface="org.freedesktop.DBus.Mock")

    @staticmethod
    def find(connection):
        try:
            found = connection.get_object("org.freedesktop.PolicyKit1", "/org/freedesktop/PolicyKit1/Authority")
            found.AllowUnknown(False, dbus_interface="org.freedesktop.DBus.Mock")
            return found
        except dbus.DBusException:
            return None


class Client:
    """A client with a connection of its own."""

    def __init__(self, connection):
        self.connection = connection

    def manager(self):
        return dbus.Interface(self.connection.get_object(NAME, PATH, introspect=True), NAME)

    def job(self, path):
        return dbus.Interface(self.connection.get_object(NAME, path), JOB)

    def properties(self, path, interface=JOB):
        return dbus.Interface(self.connection.get_object(NAME, path), dbus.PROPERTIES_IFACE).GetAll(interface)

    def state(self, path):
        return self.properties(path)["State"]

    def wait_for_state(self, path, *states):
        wait_for(lambda: self.state(path) in states, f"{path} is {states}, not {self.state(path)}")

    def result(self, path):
        self.wait_for_state(path, "done")
        return self.properties(path)

    def error(self, call, *arguments):
        """The name and the sentence of the error that the call gets."""
        try:
            answer = call(*arguments)
        except dbus.DBusException as error:
            return error.get_dbus_name(), error.get_dbus_message()
        raise AssertionError(f"there was no error but {answer}")


def children_of(process):
    """All below it, and what has lost its parent since."""
    found = []
    for path in pathlib.Path("/proc").glob("[0-9]*/cmdline"):
        try:
            words = path.read_bytes().split(b"\0")
        except OSError:
            continue
        number = int(path.parent.name)
        if words[0].endswith(b"/fw-update") and number != process:
            found.append(number)
    return found


@contextlib.contextmanager
def held(service):
    """What works for it goes no further meanwhile: its job is where it is, if it has the time for that."""
    working = children_of(service.process.pid)
    for number in working:
        os.kill(number, signal.SIGSTOP)
    try:
        yield
    finally:
        for number in working:
            with contextlib.suppress(ProcessLookupError):
                os.kill(number, signal.SIGCONT)


def tool(*words):
    """What fw-update answers."""
    done = subprocess.run(["fw-update", *words, "--json"], stdout=subprocess.PIPE, check=False)
    return json.loads(done.stdout)


def program(name, text):
    """One that stands before fw-update."""
    path = pathlib.Path("/tmp") / name
    path.write_text(text, encoding="ascii")
    path.chmod(0o755)
    return str(path)


def history():
    return tool("history")["entries"]


def slow(firmware, kib_per_second, expected_time=None):
    pathlib.Path(f"/var/lib/fw-components/{firmware}.component").write_text(
        f"write_kib_per_second = {kib_per_second}\n" + (f"expected_time = {expected_time}\n" if expected_time else ""),
        encoding="ascii")


def stall(firmware):
    """Its update never ends, and has more than the time for that."""
    pathlib.Path(f"/var/lib/fw-components/{firmware}.component").write_text(
        "stall_at_percent = 50\nexpected_time = 600\n", encoding="ascii")


class TakenLock:
    """The update lock, held by this process: until it is given back no update comes to its end."""

    def __init__(self):
        self.library = ctypes.CDLL(None, use_errno=True)
        self.library.sem_open.restype = ctypes.c_void_p
        self.semaphore = ctypes.c_void_p(
            self.library.sem_open(b"/SEM_UPDATE_CONTROL", os.O_CREAT, ctypes.c_uint(0o666), ctypes.c_uint(1)))
        equal(self.library.sem_trywait(self.semaphore), 0)

    def give_back(self):
        equal(self.library.sem_post(self.semaphore), 0)


def install_faulty_module():
    """Its firmware, too: the image of another, with the same checksum."""
    shutil.copy("/prd/libfaulty.so", "/prd/usr/fwupdate/controls/libfaulty.so")
    source, target = pathlib.Path("/lib/firmware/ext/tunerfw"), pathlib.Path("/lib/firmware/ext/faultyfw")
    shutil.copytree(source, target)
    (target / "tunerfw.bin").rename(target / "faultyfw.bin")


def package(firmware, identifier, version, image="/lib/firmware/ext", seconds=10, options=()):
    subprocess.run(["fw-pack", "emp", f"{image}/{firmware}/{firmware}.bin", "--id", identifier, "--version", version,
                    "--expected-time", str(seconds), "--signing-key", "/prd/signing.key",
                    "--output", f"/opt/usr/apps/appbinarymanager/{identifier}.img", *options], stdout=subprocess.DEVNULL, check=True)


def usb_package(firmware="tunerfw", version="3.0.0"):
    image = pathlib.Path("/tmp/image.bin")
    image.write_bytes(os.urandom(1500000))
    subprocess.run(["fw-pack", "usb", str(image), "--version", version, "--key-file", KEY, "--signing-key",
                    "/prd/signing.key", "--output", f"/opt/media/USBDriveA/{firmware}.bin"],
                   stdout=subprocess.DEVNULL, check=True)


def has_no_incoming():
    """Nothing that was handed over lies where it is copied to, or where it is for one job."""
    places = [pathlib.Path(place) / ".incoming" for place in ("/opt/usr/apps/appbinarymanager", "/opt/usr/share/sbox")]
    own = pathlib.Path("/var/lib/fw-updated/incoming")
    return not any(place.exists() for place in places) and not (own.exists() and list(own.iterdir()))


def equal(seen, expected):
    assert seen == expected, f"{seen!r} instead of {expected!r}"


class Signals:
    """The signals of a job that come while something is waited for."""

    def __init__(self, connection):
        self.loop = GLib.MainContext.default()
        self.changes, self.events = [], []
        connection.add_signal_receiver(self.take_change, "PropertiesChanged", dbus.PROPERTIES_IFACE, path_keyword="path")
        connection.add_signal_receiver(self.take_event, "Event", JOB, path_keyword="path")

    def take_change(self, _interface, changed, _invalid, path):
        self.changes.append((str(path), changed))

    def take_event(self, line, path):
        self.events.append((str(path), json.loads(line)))

    def wait_for(self, what, text):
        def look():
            while self.loop.iteration(False):
                pass
            return what()
        return wait_for(look, text)


SKIPPED = 77


def has_other_users():
    """There are none where an ordinary user runs the tests."""
    return int(pathlib.Path("/proc/self/uid_map").read_text(encoding="ascii").split()[2]) >= 65536


def need_other_users():
    if not has_other_users():
        print("skipped: there is one user only")
        sys.exit(SKIPPED)


def as_user(user, groups, *words, **options):
    """What a program of another user writes, and its exit code."""
    done = subprocess.run(words, user=user, group=user, extra_groups=groups, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True, check=False, **options)
    return done.returncode, done.stdout.strip()


def busctl(user, groups, path, interface, method, *arguments):
    return as_user(user, groups, "busctl", "--address=" + ADDRESS, "call", NAME, path, interface, method, *arguments)


def add_group(name, number):
    with open("/etc/group", "a", encoding="ascii") as groups:
        groups.write(f"{name}:x:{number}:\n")


def run_named_test(tests):
    """What each program of tests does: runs the one that its argument names."""
    test = tests[sys.argv[1]]
    test()
    print("passed: " + test.__name__)
