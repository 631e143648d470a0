# SPDX-License-Identifier: Apache-2.0
"""usage: fleet_installer_tests.py TEST: one test of the fleet's way to the update service.

Each function whose name begins with a capital is a test.
"""
import os
import pathlib
import signal
import subprocess

from hand_over_tests import STRANGER, hand_over, hold_what_is_taken, image, package, start, usb
from service_client import (Bus, Client, Service, TakenLock, add_group, children_of, equal, need_other_users,
                            run_named_test, slow, stall, tool, wait_for)

PROGRAM = str(pathlib.Path(os.environ["LIBRARY_CLIENT"]).with_name("fleet-installer"))


def installer(*words, **options):
    done = subprocess.run([PROGRAM, *map(str, words)], stdout=subprocess.PIPE, text=True, check=False, **options)
    return done.stdout.strip()


def named(files, firmware="tunerfw"):
    """As a server calls the artifacts."""
    names = {"package": "some-package.x", "image": f"{firmware}.bin", "info.json": "info.json",
             "signature": f"{firmware}.bin.sig"}
    return [f"{names[part]}={path}" for part, path in files.items()]


def KnowsTheVersionsOfComponents():
    start()

    versions = dict(line.split(maxsplit=1) for line in installer("versions").splitlines() if " " in line)

    expected = {one["firmware"]: one["version"] for one in tool("list")["modules"] if one["firmware"]}
    equal(versions, {name: version for name, version in expected.items() if version})
    equal(installer("version", "tunerfw"), "0.0.0")
    equal(installer("version", "otherfw"), "none")


def HandsOverAndFollowsEachKind():
    start()
    for version, (kind, files) in {"3.0.0": ("package", package("3.0.0")), "3.1.0": ("usb", usb("3.1.0")),
                                   "3.2.0": ("image", image("3.2.0"))}.items():
        equal((kind, installer("ask", "tunerfw", kind, *named(files))), (kind, "taken"))
        equal((kind, installer("follow", "tunerfw", 60000).splitlines()[0]), (kind, "updated"))
        equal(installer("version", "tunerfw"), version)


def TellsWhyFilesAreRefused():
    _, client = start()

    equal(installer("ask", "tunerfw", "package", *named(package(identifier="wifiempfw"))),
          "It is refused: the package is for another component.\nGet the one for this component.")
    equal(installer("ask", "otherfw", "package", *named(package())),
          "This set has no component otherfw.\nSee what it has: fw-update list.")
    files = named(image())
    equal(installer("ask", "tunerfw", "image", *files[:2]),
          "The files of the kind image are image, info.json, signature, each once and no others.")
    equal(installer("ask", "tunerfw", "image", *files, f"another={image()['image']}").splitlines()[0],
          "Of the files for tunerfw two are the same part of it.")
    equal(list(client.properties("/org/fwupdate/Update1", "org.fwupdate.Update1")["Jobs"]), [])


def TellsHowAJobFailed():
    """In the words of the job itself, whatever they are."""
    _, client = start()
    pathlib.Path("/var/lib/fw-components/tunerfw.component").write_text("fail_at_percent = 40\n", encoding="ascii")
    equal(installer("ask", "tunerfw", "package", *named(package("3.0.0"))), "taken")

    followed = installer("follow", "tunerfw", 60000)

    job = client.properties("/org/fwupdate/Update1/job/1")
    assert job["Outcome"] != "updated" and job["Sentence"] and job["Remedy"], dict(job)
    equal(followed.splitlines(), ["failed", str(job["Sentence"]), str(job["Remedy"])])
    equal(installer("version", "tunerfw"), "0.0.0")


def TellsThatAJobWasNotNeeded():
    _, client = start()
    installer("ask", "tunerfw", "package", *named(package("3.0.0")))
    installer("follow", "tunerfw", 60000)

    installer("ask", "tunerfw", "package", *named(package("3.0.0")))
    followed = installer("follow", "tunerfw", 60000)

    job = client.properties("/org/fwupdate/Update1/job/2")
    equal(job["Outcome"], "nothing-to-do")
    equal(followed.splitlines(), [line for line in ("not needed", str(job["Sentence"]), str(job["Remedy"])) if line])


def FollowsNoJobThatCameBefore():
    _, client = start()
    client.result(hand_over(client, "image", image("2.9.0")))
    equal((installer("ended", "tunerfw"), installer("ended", "panelfw"), installer("ended", "otherfw")), ("1", "0", "0"))

    equal(installer("follow", "tunerfw", 5000, 1), "unknown")

    lock = TakenLock()
    path = hand_over(client, "image", image("3.0.0"))
    equal(installer("ended", "tunerfw"), "1")
    lock.give_back()
    equal(installer("follow", "tunerfw", 60000, 1).splitlines()[0], "updated")
    client.wait_for_state(path, "done")
    equal(installer("ended", "tunerfw"), "2")


def SaysThatAJobIsStillAtWork():
    start()
    lock = TakenLock()
    equal(installer("ask", "tunerfw", "package", *named(package())), "taken")

    equal(installer("follow", "tunerfw", 100), "at work")

    lock.give_back()
    equal(installer("follow", "tunerfw", 60000).splitlines()[0], "updated")


def FollowsAJobOverARestartOfTheService():
    slow("tunerfw", 100)
    service, client = start()
    equal(installer("ask", "tunerfw", "package", *named(package())), "taken")
    client.wait_for_state("/org/fwupdate/Update1/job/1", "updating")

    service.kill(signal.SIGKILL)

    assert installer("follow", "tunerfw", 5000).startswith("away: "), "nobody is there"
    Service(client.connection)
    equal(installer("follow", "tunerfw", 60000).splitlines()[0], "updated")


def DoesNotKnowHowAJobEndedThatWasInterruptedOrIsNotThere():
    stall("tunerfw")
    service, client = start()
    equal(installer("follow", "tunerfw", 5000), "unknown")
    equal(installer("follow", "otherfw", 5000), "unknown")
    installer("ask", "tunerfw", "package", *named(package()))
    client.wait_for_state("/org/fwupdate/Update1/job/1", "updating")

    service.kill(signal.SIGKILL)
    for child in children_of(service.process.pid):
        os.kill(child, signal.SIGKILL)
    Service(client.connection)

    equal(installer("follow", "tunerfw", 60000).splitlines()[0], "unknown")
    equal(client.properties("/org/fwupdate/Update1/job/1")["Outcome"], "interrupted")


def FollowsTheNewestJobOfItsUserAlone():
    need_other_users()
    add_group("fwupdate-fleet", 7002)
    add_group("fwupdate", 7000)
    _, client = start()
    client.result(hand_over(client, "image", image("2.9.0")))

    mine = installer("follow", "tunerfw", 5000)
    other = installer("follow", "tunerfw", 5000, user=STRANGER, group=STRANGER, extra_groups=[7002])

    equal((mine.splitlines()[0], other), ("updated", "unknown"))


def IsToAskAgainLaterWhereNobodyAnswersOrEverythingIsTaken():
    assert installer("versions").startswith("away: The update service cannot be asked: "), "no bus"
    connection = Bus().connect()
    equal(installer("ask", "tunerfw", "package", *named(package())),
          "away: No update service is on the bus: fw-updated is not installed, or does not run. "
          "Start it: systemctl start fw-updated.")
    Service(connection)
    lock = TakenLock()
    equal(installer("ask", "tunerfw", "package", *named(package())), "taken")

    equal(installer("ask", "tunerfw", "image", *named(image())),
          "away: The update service cannot be asked: libtuner is being updated from something that was handed over before. "
          "Hand it over again when that job is done.")

    lock.give_back()
    equal(Client(connection).result("/org/fwupdate/Update1/job/1")["Outcome"], "updated")


def IsToAskAgainLaterWhenTheServiceEndsMeanwhile():
    service, client = start()
    path = package(size=30_000_000, minimum="2.5.0")
    words = [PROGRAM, "ask", "tunerfw", "package", *named(path)]
    with hold_what_is_taken(), subprocess.Popen(words, stdout=subprocess.PIPE, text=True) as asks:
        wait_for(pathlib.Path("/opt/usr/apps/appbinarymanager/.incoming/tunerempfw.img").exists, "it is being copied")
        service.kill(signal.SIGKILL)
        assert asks.stdout.read().startswith("away: "), "nobody answered"
    Service(client.connection)

    equal(installer("ask", "tunerfw", "package", *named(path)), "taken")
    equal(installer("follow", "tunerfw", 60000).splitlines()[0], "updated")


if __name__ == "__main__":
    run_named_test(globals())
