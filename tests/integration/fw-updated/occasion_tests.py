# SPDX-License-Identifier: Apache-2.0
"""usage: occasion_tests.py TEST: one test of what the update service does by itself, on a device.

Each function whose name begins with a capital is a test.
"""
import json
import os
import pathlib
import subprocess
import time

import dbus

from service_client import NAME, PATH, Bus, Client, Service, children_of, package, program, run_named_test, tool, wait_for

ERROR = NAME + ".Error."
CONFIGURATION = "/etc/fw-update/fw-updated.conf"
LOGIND = "org.freedesktop.login1"


def configure(text):
    pathlib.Path(CONFIGURATION).parent.mkdir(parents=True, exist_ok=True)
    pathlib.Path(CONFIGURATION).write_text(text, encoding="ascii")


def classify(firmware, update_class):
    path = pathlib.Path(f"/lib/firmware/ext/{firmware}/info.json")
    path.write_text(json.dumps({**json.loads(path.read_text(encoding="ascii")), "class": update_class}),
                    encoding="ascii")


def pending():
    return {module["library"]: module for module in tool("pending")["modules"] if module["pending"]}


def equal(seen, expected):
    assert seen == expected, f"{seen!r} instead of {expected!r}"


def window_around_now():
    now = time.time()
    return "-".join(time.strftime("%H:%M", time.localtime(now + minutes * 60)) for minutes in (-60, 60))


class Announcements:
    def __init__(self, connection):
        self.seen = []
        from gi.repository import GLib
        self.loop = GLib.MainContext.default()
        connection.add_signal_receiver(lambda modules: self.seen.append([str(module) for module in modules]),
                                       "Announced", NAME)

    def wait(self):
        def look():
            while self.loop.iteration(False):
                pass
            return self.seen
        return wait_for(look, "an announcement")


def jobs(client):
    return [client.properties(path) for path in client.properties(PATH, NAME)["Jobs"]]


def paths(client):
    return list(client.properties(PATH, NAME)["Jobs"])


def job_of(client, module):
    return wait_for(lambda: next((path for path in paths(client)
                                  if client.properties(path)["Module"] == module
                                  and client.properties(path)["Outcome"] == ""
                                  or client.properties(path)["Module"] == module), None), "a job of " + module)


def start(text=None, *options):
    if text is not None:
        configure(text)
    connection = Bus().connect()
    return Service(connection, *options), Client(connection)


def AnnouncesAndDoesNothingUnasked():
    connection = Bus().connect()
    announcements = Announcements(connection)
    due = sorted(pending())
    assert due, "no module needs an update"

    Service(connection)

    equal(sorted(announcements.wait()[0]), due)
    equal(paths(Client(connection)), [])
    equal(sorted(pending()), due)


def SaysOfWhichClassAnUpdateIs():
    classify("tunerfw", "security")

    found = pending()["libtuner"]

    equal((found["class"], found["offeredVersion"]), ("security", "2.0.0"))
    classify("tunerfw", "urgent")
    equal(pending()["libtuner"]["class"], "feature")


def SaysOfWhichClassTheUpdateInAPackageIs():
    package("tunerfw", "tunerempfw", "4.0.0", options=["--class", "security"])

    found = {module["library"]: module for module in tool("pending", "--caller", "debug")["modules"]}["libtuner"]

    equal((found["outcome"], found["class"], found["offeredVersion"]), ("pending", "security", "4.0.0"))


def DoesWhatTheConfigurationSaysOfEachClass():
    classify("tunerfw", "security")
    _, client = start("security = do\nfeature = leave\n")

    job = client.result(job_of(client, "libtuner"))

    equal((job["Outcome"], job["VersionAfter"], tuple(job["AskedBy"])), ("updated", "2.0.0", (os.getuid(), "")))
    equal([str(one["Module"]) for one in jobs(client)], ["libtuner"])


def DoesNothingAtTheStartWhenItIsNotToldTo():
    service, client = start("at-start = no\nsecurity = do\nfeature = do\n")

    client.manager().ListModules()
    service.kill(15)
    service = Service(client.connection)

    client.manager().ListModules()
    equal(paths(client), [])


def AsksAndUpdatesAfterAYes():
    _, client = start("feature = ask\n")
    path = job_of(client, "libtuner")
    equal((client.state(path), client.properties(path)["Sentence"]), ("asking", "It waits for consent."))
    equal(tool("list")["modules"] and client.state(path), "asking")

    client.job(path).Consent("yes")

    equal(client.result(path)["Outcome"], "updated")
    equal(client.error(client.job(path).Consent, "yes")[0], ERROR + "NotAsked")


def LeavesWhatIsDeclined():
    service, client = start("feature = ask\n")
    path = job_of(client, "libtuner")

    client.job(path).Consent("no")

    job = client.result(path)
    equal((job["Outcome"], job["Sentence"]), ("stopped", "It was declined."))
    assert "libtuner" in pending()


LOOKS_AGAIN_LATER = """#!/bin/sh
[ $1 != pending ] || mkdir /tmp/looked 2>/dev/null || read _ </tmp/next-occasion
exec fw-update "$@"
"""


def AsksOnlyOnceAboutAVersionThatIsDeclined():
    os.mkfifo("/tmp/next-occasion")
    # Two occasions: the start, and the window.
    _, client = start(f"window = {window_around_now()}\nfeature = ask\n",
                      "--fw-update", program("looks-again-later", LOOKS_AGAIN_LATER))
    announcements = Announcements(client.connection)
    path = job_of(client, "libtuner")
    client.job(path).Consent("no")
    others = [one for one in paths(client) if client.state(one) == "asking"]

    pathlib.Path("/tmp/next-occasion").write_text("\n", encoding="ascii")

    equal(announcements.wait()[0], ["libtuner"])
    equal([one for one in paths(client) if client.state(one) == "asking"], others)


def PutsOffUntilTheNextOccasion():
    service, client = start("feature = ask\n")
    path = job_of(client, "libtuner")

    client.job(path).Consent("later")

    job = client.result(path)
    equal((job["Outcome"], job["Sentence"]), ("stopped", "It was put off: the next occasion asks again."))
    service.kill(15)
    Service(client.connection)
    wait_for(lambda: any(one["State"] == "asking" and one["Module"] == "libtuner" for one in jobs(client)),
             "it asks again")


def GoesOnAskingAfterARestart():
    service, client = start("feature = ask\n")
    path = job_of(client, "libtuner")
    service.kill()

    Service(client.connection)

    equal(client.state(path), "asking")
    client.manager().ListModules()  # behind the question of the start
    equal([str(one["Module"]) for one in jobs(client)].count("libtuner"), 1)
    client.job(path).Consent("yes")
    equal(client.result(path)["Outcome"], "updated")


def RefusesAnAnswerThatIsNone():
    _, client = start("feature = ask\n")
    path = job_of(client, "libtuner")

    equal(client.error(client.job(path).Consent, "perhaps")[0], ERROR + "InvalidArgument")
    equal(client.state(path), "asking")


def CancelsWhatAsks():
    _, client = start("feature = ask\n")
    path = job_of(client, "libtuner")

    client.job(path).Cancel()

    equal(client.result(path)["Outcome"], "stopped")


def UpdatesInTheWindow():
    _, client = start(f"at-start = no\nwindow = {window_around_now()}\nfeature = do\n")

    equal(client.result(job_of(client, "libtuner"))["Outcome"], "updated")


def WaitsForTheWindow():
    now = time.time()
    window = "-".join(time.strftime("%H:%M", time.localtime(now + minutes * 60)) for minutes in (60, 120))
    _, client = start(f"at-start = no\nwindow = {window}\nfeature = do\n")

    client.manager().ListModules()

    equal(paths(client), [])


def FindsADriveThatAppears():
    _, client = start("at-start = no\nusb-drive = yes\nfeature = do\n")
    equal(paths(client), [])  # it watches before it answers
    drive = pathlib.Path("/opt/media/USBDriveA")
    drive.mkdir(parents=True, exist_ok=True)
    packages = pathlib.Path("/tmp/packages")
    packages.mkdir()
    make_package(packages)

    subprocess.run(["mount", "--bind", str(packages), str(drive)], check=True)

    path = wait_for(lambda: next(iter(paths(client)), None), "a job")
    job = client.result(path)
    equal((job["Kind"], tuple(job["AskedBy"])), ("usb-apply", (os.getuid(), "")))


def LeavesADriveThatWasThere():
    drives = [pathlib.Path("/opt/media/USBDriveA"), pathlib.Path("/opt/media/USBDriveA1")]
    packages = pathlib.Path("/tmp/packages")
    for folder in (*drives, packages):
        folder.mkdir(parents=True, exist_ok=True)
    make_package(packages)
    subprocess.run(["mount", "--bind", str(packages), str(drives[0])], check=True)
    service, client = start("at-start = no\nusb-drive = yes\nfeature = ask\n")
    equal(paths(client), [])  # it watches before it answers

    subprocess.run(["mount", "--bind", str(packages), str(drives[1])], check=True)

    wait_for(lambda: paths(client), "a job")
    wait_for(lambda: not children_of(service.process.pid), "no drive is being looked at")
    equal([str(one["State"]) for one in jobs(client)], ["asking"])
    client.job(paths(client)[0]).Consent("yes")
    folder = json.loads(client.result(paths(client)[0])["Document"])["directory"]
    equal(folder, str(drives[1]) + "/")


def make_package(folder):
    """One for a component that has a newer version of it then."""
    image = pathlib.Path("/tmp/image")
    image.write_bytes(os.urandom(10000))
    subprocess.run(["fw-pack", "usb", str(image), "--version", "9.0.0", "--key-file", "/usr/share/fw-update/package.key",
                    "--output", str(folder / "tunerfw.bin"), "--signing-key", "/prd/signing.key"], check=True)


class Logind:
    """A stand-in on the same bus."""

    def __init__(self, connection):
        self.connection = connection
        self.process = subprocess.Popen(["/usr/bin/python3", "-m", "dbusmock", "--system", "--template", "logind"],
                                        stdout=subprocess.DEVNULL)
        wait_for(lambda: connection.name_has_owner(LOGIND), "logind's stand-in")
        self.object = connection.get_object(LOGIND, "/org/freedesktop/login1")

    def inhibitors(self):
        listed = dbus.Interface(self.object, LOGIND + ".Manager").ListInhibitors()
        return [(str(one[0]), str(one[1]), str(one[3])) for one in listed]

    def prepare(self, signal, begins):
        dbus.Interface(self.object, "org.freedesktop.DBus.Mock").EmitSignal(
            LOGIND + ".Manager", signal, "b", dbus.Array([dbus.Boolean(begins)], signature="v"))


def UpdatesBeforeAShutdownAndThenLetsItGoOn():
    connection = Bus().connect()
    logind = Logind(connection)
    configure("at-start = no\nbefore-shutdown = yes\nfeature = do\n")
    Service(connection)
    client = Client(connection)
    wait_for(lambda: logind.inhibitors() == [("shutdown", "fw-updated", "delay")], "the inhibitor")

    logind.prepare("PrepareForShutdown", True)

    equal(client.result(job_of(client, "libtuner"))["Outcome"], "updated")
    wait_for(lambda: logind.inhibitors() == [], "the shutdown may go on")
    equal([str(one["State"]) for one in jobs(client)], ["done"] * len(jobs(client)))


def LetsAStandbyGoOnWhenThereIsNothingToDo():
    connection = Bus().connect()
    logind = Logind(connection)
    configure("at-start = no\nbefore-standby = yes\nfeature = ask\n")
    Service(connection)
    wait_for(lambda: logind.inhibitors() == [("sleep", "fw-updated", "delay")], "the inhibitor")

    logind.prepare("PrepareForSleep", True)

    wait_for(lambda: logind.inhibitors() == [], "the standby may go on")
    equal(paths(Client(connection)), [])
    logind.prepare("PrepareForSleep", False)
    wait_for(lambda: logind.inhibitors() == [("sleep", "fw-updated", "delay")], "the next standby waits as well")


def HasAShutdownWaitAlsoAfterItWasAskedForUpdates():
    connection = Bus().connect()
    logind = Logind(connection)
    configure("before-shutdown = yes\n")
    Service(connection)
    client = Client(connection)
    wait_for(lambda: logind.inhibitors() == [("shutdown", "fw-updated", "delay")], "the inhibitor")

    # When the second is done the service has had nothing to do, once at least.
    for outcome in ("updated", "nothing-to-do"):
        equal(client.result(client.manager().Update("libtuner", "", ""))["Outcome"], outcome)

    equal(logind.inhibitors(), [("shutdown", "fw-updated", "delay")])


def ServesOnWithoutLogind():
    _, client = start("before-shutdown = yes\n")

    assert client.manager().ListModules()


def check(*words):
    done = subprocess.run(["fw-updated", "--check-config", *words], stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                          text=True, check=False)
    return done.returncode, done.stdout + done.stderr


def NamesWrongEntriesByTheirLines():
    equal(check()[0], 0)
    configure("security = do\nwindow = 5\n\nfeature = maybe\n")

    code, text = check()

    equal(code, 3)
    for part in (CONFIGURATION + ", line 2: window must be two times", "line 4: feature must be do, ask or leave",
                 "2 entries are wrong"):
        assert part in text, text
    code, text = check("--json")
    equal([problem["line"] for problem in json.loads(text)["problems"]], [2, 4])
    pathlib.Path("/tmp/good").write_text("security = do\n", encoding="ascii")
    equal(check("/tmp/good")[0], 0)


if __name__ == "__main__":
    run_named_test(globals())
