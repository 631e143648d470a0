# SPDX-License-Identifier: Apache-2.0
"""usage: hand_over_tests.py TEST: one test of what clients hand over to the update service.

Each function whose name begins with a capital is a test.
"""
import fcntl
import itertools
import json
import os
import pathlib
import select
import shutil
import signal
import subprocess
import tempfile

import dbus
import dbus.types

from service_client import (KEY, NAME, PATH, PATIENCE, Bus, Client, Polkit, Service, TakenLock, add_group, as_user, equal,
                            has_no_incoming, history, need_other_users, run_named_test, tool, wait_for)

REFUSED = NAME + ".Error.Refused"
INVALID = NAME + ".Error.InvalidArgument"
STRANGER = 65534  # a user
PACKAGE = pathlib.Path("/opt/usr/apps/appbinarymanager/tunerempfw.img")
SBOX = pathlib.Path("/opt/usr/share/sbox/tunerfw")
MAKER = "/prd/signing.key"


def start(*options):
    connection = Bus().connect()
    return Service(connection, *options), Client(connection)


def pack(*words):
    subprocess.run(["fw-pack", *map(str, words)], stdout=subprocess.DEVNULL, check=True)


def new_image(size=300000):
    path = pathlib.Path(tempfile.mkdtemp()) / "image.bin"
    path.write_bytes(os.urandom(size))
    return path


def signing(key, model, minimum):
    words = ["--signing-key", key] if key else []
    return words + (["--model", model] if model else []) + (["--minimum-version", minimum] if minimum else [])


def package(version="3.0.0", key=MAKER, identifier="tunerempfw", model=None, minimum=None, size=300000):
    path = pathlib.Path(tempfile.mkdtemp()) / "package.img"
    pack("emp", new_image(size), "--id", identifier, "--version", version, "--expected-time", 10, "--output", path,
         *(signing(key, model, minimum) or ["--unsigned"]))
    return {"package": path}


def usb(version="3.0.0", key=MAKER, firmware="tunerfw", model=None, minimum=None):
    path = pathlib.Path(tempfile.mkdtemp()) / "package.bin"
    pack("usb", new_image(), "--version", version, "--key-file", KEY, "--name", firmware, "--output", path,
         *signing(key, model, minimum))
    return {"package": path}


def image(version="3.0.0", key=MAKER, firmware="tunerfw", model=None, minimum=None):
    into = tempfile.mkdtemp()
    pack("image", new_image(), "--type", "sbox", "--name", firmware, "--version", version, "--expected-time", 10,
         "--into", into, *signing(key, model, minimum))
    folder = pathlib.Path(into) / firmware
    return {"image": folder / f"{firmware}.bin", "info.json": folder / "info.json",
            "signature": folder / f"{firmware}.bin.sig"}


KINDS = {"package": package, "usb": usb, "image": image}


def hold_what_is_taken():
    """No package that states a minimum version gets its place while the file is open that this returns."""
    folder = pathlib.Path("/var/lib/fw-update/minimum-versions")
    folder.mkdir(parents=True, exist_ok=True)
    file = open(folder / ".lock", "w", encoding="ascii")
    fcntl.flock(file, fcntl.LOCK_EX)
    return file


def hand_over(client, kind, files, module="libtuner", timeout=60, mode=os.O_RDONLY):
    """The path of the job; files: paths, or descriptors."""
    own = {name: os.open(file, mode) if isinstance(file, pathlib.Path) else file for name, file in files.items()}
    try:
        return client.manager().UpdateFrom(
            module, kind, dbus.Dictionary({name: dbus.types.UnixFd(file) for name, file in own.items()}, "sh"),
            timeout=timeout)
    finally:
        for name, file in own.items():
            if file is not files[name]:
                os.close(file)


def refusal(client, kind, files, **options):
    name, text = client.error(lambda: hand_over(client, kind, files, **options))
    nothing_came_of_it(client)
    return name, text


def nothing_came_of_it(client, jobs=0):
    equal(len(client.properties(PATH, NAME)["Jobs"]), jobs)
    equal((PACKAGE.exists(), SBOX.exists()), (False, False))
    assert has_no_incoming()


def updates_from(kind, expected_kind):
    _, client = start()

    job = client.result(hand_over(client, kind, KINDS[kind]()))

    equal((job["Kind"], job["Module"], job["Outcome"], job["ExitCode"]), (expected_kind, "libtuner", "updated", 0))
    equal(tool("info", "libtuner")["version"], "3.0.0")
    assert has_no_incoming()
    return client


def UpdatesFromAnExtensionPackage():
    client = updates_from("package", "update")
    equal([entry["way"] for entry in history()], ["service"])
    equal(client.result(hand_over(client, "package", package("3.1.0")))["VersionAfter"], "3.1.0")


def UpdatesFromAUsbPackage():
    client = updates_from("usb", "usb-apply")
    equal(client.result(hand_over(client, "usb", usb("3.1.0")))["Outcome"], "updated")
    equal(tool("info", "libtuner")["version"], "3.1.0")


def UpdatesFromAnImage():
    client = updates_from("image", "update")
    equal(sorted(path.name for path in SBOX.iterdir()), ["info.json", "tunerfw.bin"])
    equal(client.result(hand_over(client, "image", image("3.1.0")))["VersionAfter"], "3.1.0")
    equal(json.loads((SBOX / "info.json").read_text(encoding="ascii"))["version"], "3.1.0")


def ReadsFilesFromTheirBeginningWhereverTheirDescriptorsStand():
    _, client = start()
    file = os.open(package()["package"], os.O_RDONLY)
    os.lseek(file, 12345, os.SEEK_SET)

    path = hand_over(client, "package", {"package": file})

    equal(os.lseek(file, 0, os.SEEK_CUR), 12345)
    equal(client.result(path)["Outcome"], "updated")


def NeedsNoNameOfTheFiles():
    _, client = start()
    files = package()
    file = os.open(files["package"], os.O_RDONLY)
    files["package"].unlink()

    equal(client.result(hand_over(client, "package", {"package": file}))["Outcome"], "updated")


def each_kind(make, name, sentence, remedy):
    _, client = start()
    for kind, maker in KINDS.items():
        equal(refusal(client, kind, make(maker)), (name, f"It is refused: {sentence}.\n{remedy}"))


def RefusesWhatIsForAnotherComponent():
    _, client = start()
    sentence = "It is refused: the package is for another component.\nGet the one for this component."
    equal(refusal(client, "package", package(identifier="wifiempfw")), (REFUSED, sentence))
    equal(refusal(client, "usb", usb(firmware="wififw")), (REFUSED, sentence))
    equal(refusal(client, "image", image(firmware="wififw")), (REFUSED, sentence))


def RefusesWhatIsForAnotherModel():
    each_kind(lambda make: make(model="other-set"), REFUSED, "the package is for another model",
              "Get the one for this set.")


def RefusesWhatIsOlderThanTheMinimumVersion():
    _, client = start()
    minimums = pathlib.Path("/var/lib/fw-update/minimum-versions")
    minimums.mkdir(parents=True, exist_ok=True)
    for name in ("tunerempfw", "tunerfw"):
        (minimums / name).write_text("3.0.1\n", encoding="ascii")

    for kind, make in KINDS.items():
        equal(refusal(client, kind, make()),
              (REFUSED, "It is refused: the package is older than the set's minimum version.\nGet a newer one."))


def NotesTheMinimumVersionThatIsStated():
    _, client = start()

    equal(client.result(hand_over(client, "package", package("3.0.0", minimum="2.5.0")))["Outcome"], "updated")
    equal(client.result(hand_over(client, "image", image("3.1.0", minimum="2.6.0")))["Outcome"], "updated")

    minimums = pathlib.Path("/var/lib/fw-update/minimum-versions")
    equal((minimums / "tunerempfw").read_text(encoding="ascii"), "2.5.0\n")
    equal((minimums / "tunerfw").read_text(encoding="ascii"), "2.6.0\n")
    error = client.error(lambda: hand_over(client, "image", image("2.5.9")))
    equal(error[0], REFUSED)


def RefusesWhatIsNotSigned():
    _, client = start()
    name, text = refusal(client, "package", package(key=None))
    equal((name, text), (REFUSED, "It is refused: the file does not end with a signature trailer.\n"
                                  "Get one that is signed; fw-pack makes it."))
    whole = usb()["package"]
    os.truncate(whole, whole.stat().st_size - 534)
    equal(refusal(client, "usb", {"package": whole})[0], REFUSED)
    files = image()
    files["signature"].write_bytes(b"x" * 598)
    equal(refusal(client, "image", files), (name, text))
    files["signature"].write_bytes(b"x" * 64)
    equal(refusal(client, "image", files)[0], REFUSED)


def RefusesWhatARevokedKeySigned():
    keys = pathlib.Path("/usr/share/fw-update/keys")
    made = subprocess.run(["fw-pack", "keygen", "ed25519", "/tmp/old.key", "--public", keys / "old.pem", "--json"],
                          stdout=subprocess.PIPE, check=True)
    (keys / "revoked").write_text(json.loads(made.stdout)["keyId"] + "\n", encoding="ascii")
    each_kind(lambda make: make(key="/tmp/old.key"), REFUSED, "the package's key is revoked",
              "Get one that is signed with a newer key.")


def RefusesWhatAnUnknownKeySigned():
    pack("keygen", "ed25519", "/tmp/other.key")
    each_kind(lambda make: make(key="/tmp/other.key"), REFUSED,
              "no public key with the package's key identifier is known",
              "Get one for this set: whose packages it takes was decided when it was made.")


def RefusesWhatWasChangedAfterItWasSigned():
    _, client = start()
    for kind, make in KINDS.items():
        for part in make():
            files = make()
            content = bytearray(files[part].read_bytes())
            content[40] ^= 1
            files[part].write_bytes(content)
            name, text = refusal(client, kind, files)
            equal((kind, part, name), (kind, part, REFUSED))
            assert "the signature does not match the content" in text, (kind, part, text)


def RefusesTheInformationOfAnotherImage():
    _, client = start()
    files = image()
    files["info.json"] = image("9.9.9")["info.json"]

    equal(refusal(client, "image", files)[0], REFUSED)


def RefusesAnotherKindThanWasSigned():
    _, client = start()
    other = (REFUSED, "It is refused: the signature is for another kind of package.\n"
                      "Hand it over as what it was made as.")
    equal(refusal(client, "usb", package()), other)
    equal(refusal(client, "package", usb()), other)
    files = image()
    equal(refusal(client, "package", {"package": files["signature"]}), other)
    small = usb()["package"].read_bytes()[-534:]
    files["signature"].write_bytes(b"x" * 64 + small)
    equal(refusal(client, "image", files)[0], REFUSED)


def RefusesASignatureThatStatesMore():
    """What signs other content than two sums is no image's."""
    _, client = start()
    files = image()
    files["signature"].write_bytes(b"x" + files["signature"].read_bytes())

    name, text = refusal(client, "image", files)

    equal(name, REFUSED)
    assert "too large: it may have 598 bytes" in text, text


GIVE_FILE = "Hand over a descriptor of the file itself that is open for reading."


def RefusesWhatIsNoRegularFile():
    _, client = start()
    os.mkfifo("/tmp/fifo")
    ends = {name: opened for name, opened in (
        ("fifo", os.open("/tmp/fifo", os.O_RDWR)), ("directory", os.open("/tmp", os.O_RDONLY)),
        ("device", os.open("/dev/zero", os.O_RDONLY)), ("pipe", os.pipe()[0]))}
    for name, file in ends.items():
        equal((name, *refusal(client, "package", {"package": file})),
              (name, REFUSED, "What was handed over as package is no regular file.\n" + GIVE_FILE))


def RefusesWhatHasLessThanItsSize():
    _, client = start()
    file = os.open("/sys/class/net/lo/mtu", os.O_RDONLY)  # states a page, and has one line

    equal(refusal(client, "package", {"package": file}),
          (REFUSED, "What was handed over as package became shorter while it was copied.\n"
           "Get the file again, and hand it over when it is whole."))


def RefusesWhatIsNotOpenForReading():
    _, client = start()
    for mode in (os.O_PATH, os.O_WRONLY):
        equal(refusal(client, "package", package(), mode=mode),
              (REFUSED, "What was handed over as package is not open for reading.\n" + GIVE_FILE))


def RefusesEmptyFiles():
    _, client = start()
    files = image()
    for part in files:
        empty = pathlib.Path(tempfile.mkdtemp()) / "empty"
        empty.touch()
        name, text = refusal(client, "image", {**files, part: empty})
        equal((name, text.splitlines()[0]), (REFUSED, f"What was handed over as {part} is empty."))


def RefusesWhatIsTooLarge():
    _, client = start()
    sparse = pathlib.Path(tempfile.mkdtemp()) / "sparse"
    with open(sparse, "wb") as file:
        file.truncate(2**31)
    name, text = refusal(client, "package", {"package": sparse})
    equal((name, text.splitlines()[0]),
          (REFUSED, "What was handed over as package is too large: it may have 2147483647 bytes."))
    files = image()
    files["info.json"].write_bytes(b" " * 65537)
    equal(refusal(client, "image", files)[0], REFUSED)


def RefusesAFileThatGrowsMeanwhile():
    _, client = start()
    path = package(size=30_000_000)["package"]
    before = path.stat().st_size
    grows = subprocess.Popen(["sh", "-c", f"while printf x >>{path}; do :; done"])
    try:
        wait_for(lambda: path.stat().st_size > before, "it grows")
        name, text = refusal(client, "package", {"package": path})
    finally:
        grows.kill()
        grows.wait()
    equal((name, text.splitlines()[0]), (REFUSED, "What was handed over as package became larger while it was copied."))


def RefusesWhatThereIsNoRoomFor():
    for place in ("/opt/usr/apps/appbinarymanager", "/opt/usr/share/sbox"):
        subprocess.run(["mount", "-t", "tmpfs", "-o", "size=1200k", "small", place], check=True)
    _, client = start()
    for kind, place in (("package", "/opt/usr/apps/appbinarymanager/"), ("image", "/opt/usr/share/sbox/")):
        name, text = refusal(client, kind, KINDS[kind]())
        equal(name, NAME + ".Error.Failed")
        equal(text, f"{place} has not the 1 MiB that are needed: No space left on device.\n"
                    "Make room on the set, and hand it over again.")


def RefusesWhatCannotBeCopiedToItsEnd():
    """As when the disk fills meanwhile: the file system promised room for the copy."""
    connection = Bus().connect()
    Service(connection, through=["env", "--ignore-signal=XFSZ", "prlimit", "--fsize=6000000"])
    client = Client(connection)

    name, text = refusal(client, "package", package(size=12_000_000))

    equal((name, text), (NAME + ".Error.Failed", "The copy cannot be written: File too large.\n"
                                                 "See the set's file systems, and hand it over again."))


def RefusesOtherFilesThanTheKindHas():
    _, client = start()
    files = package()
    expected = (INVALID, "The files of the kind package are package, each once and no others.")
    equal(refusal(client, "package", {}), expected)
    equal(refusal(client, "package", {"image": files["package"]}), expected)
    equal(refusal(client, "package", {**files, "../image": files["package"]}), expected)
    equal(refusal(client, "image", files),
          (INVALID, "The files of the kind image are image, info.json, signature, each once and no others."))
    equal(refusal(client, "Package", files), (INVALID, "The kinds are package, usb and image."))


def KeepsNoneOfAHundredDescriptors():
    service, client = start()
    file = os.open(package()["package"], os.O_RDONLY)
    own = f"/proc/{service.process.pid}/fd"
    client.manager().LockStatus()
    before = len(os.listdir(own))

    for _ in range(5):
        equal(refusal(client, "package", {str(number): file for number in range(100)})[0], INVALID)

    wait_for(lambda: len(os.listdir(own)) <= before, "all of them are closed")
    equal(client.result(hand_over(client, "package", {"package": file}))["Outcome"], "updated")
    wait_for(lambda: len(os.listdir(own)) <= before + 1, "these, too")  # what is watched for the job's end


def RefusesModulesThatAreNotThereOrTakeNothing():
    _, client = start()
    direct = tool("info", "libnothing")
    equal(refusal(client, "package", package(), module="libnothing"),
          (INVALID, direct["message"] + "\n" + direct["remedy"]))
    equal(refusal(client, "package", package(), module="libEXT-remote"),
          (INVALID, "libEXT-remote takes no images or packages.\nAsk the maker of the module how it is updated."))
    equal(refusal(client, "package", package(), module="../libtuner"),
          (INVALID, "A module's name is a file's without \".so\", as ListModules gives it."))


def TakesNothingForAModuleUntilItsJobIsDone():
    _, client = start()
    lock = TakenLock()
    first = hand_over(client, "package", package())

    error = client.error(lambda: hand_over(client, "image", image()))

    lock.give_back()
    equal(error, (NAME + ".Error.TooMany", "libtuner is being updated from something that was handed over before.\n"
                                           "Hand it over again when that job is done."))
    equal(client.result(first)["Outcome"], "updated")
    equal(client.result(hand_over(client, "image", image("3.1.0")))["Outcome"], "updated")


def hand_over_program(path):
    program = pathlib.Path("/tmp/hand-over.py")
    program.write_text("""import os, sys, dbus, dbus.bus, dbus.types
bus = dbus.bus.BusConnection(sys.argv[1])
manager = dbus.Interface(bus.get_object("org.fwupdate.Update1", "/org/fwupdate/Update1"), "org.fwupdate.Update1")
try:
    print(manager.UpdateFrom("libtuner", "package", dbus.Dictionary(
        {"package": dbus.types.UnixFd(os.open(sys.argv[2], os.O_RDONLY))}, "sh")))
except dbus.DBusException as error:
    print(error.get_dbus_message())
""", encoding="ascii")
    return ["/usr/bin/python3", str(program), os.environ["DBUS_SYSTEM_BUS_ADDRESS"], str(path)]


def hand_over_as(user, groups, path):
    path.chmod(0o644)
    path.parent.chmod(0o755)
    return as_user(user, groups, *hand_over_program(path))[1]


MAY_NOT = ("This user may not hand over what modules are updated from. "
           "Root may, and the members of the group fwupdate-fleet.")


def LetsMembersOfItsGroupAndAdministratorsHandOver():
    need_other_users()
    for number, group in enumerate(("fwupdate", "fwupdate-admin", "fwupdate-fleet")):
        add_group(group, 7000 + number)
    _, client = start()
    path = package()["package"]

    equal(hand_over_as(STRANGER, [], path), MAY_NOT)
    equal(hand_over_as(STRANGER, [7000], path), MAY_NOT)
    nothing_came_of_it(client)
    for number, group in enumerate((7001, 7002), 1):
        equal(hand_over_as(STRANGER, [group], path), f"{PATH}/job/{number}")
        client.result(f"{PATH}/job/{number}")
    equal(client.error(Client(client.connection).manager().Update, "", "", "")[0], INVALID)
    equal(as_user(STRANGER, [7002], "busctl", "--address=" + os.environ["DBUS_SYSTEM_BUS_ADDRESS"], "call", NAME, PATH,
                  NAME, "UpdateAll")[1],
          "Call failed: This user may not update modules. Root may, and the members of the group fwupdate.")


def AsksPolkitWhereItRuns():
    need_other_users()
    add_group("fwupdate-fleet", 7002)
    _, client = start()
    polkit = Polkit(client.connection, ["org.fwupdate.update1.update"])
    path = package()["package"]

    equal(hand_over_as(STRANGER, [7002], path), MAY_NOT)
    polkit.object.SetAllowed(dbus.Array(["org.fwupdate.update1.update-from"], "s"),
                             dbus_interface="org.freedesktop.DBus.Mock")
    equal(hand_over_as(STRANGER, [], path), f"{PATH}/job/1")
    equal(client.result(PATH + "/job/1")["Outcome"], "updated")


SILENT_POLKIT = """import sys, time, dbus.bus
bus = dbus.bus.BusConnection(sys.argv[1])
bus.request_name("org.freedesktop.PolicyKit1")
time.sleep(1000)
"""

# Says once that what it hands over waits, or what so many others were refused with.
HANDS_OVER = """import os, sys, dbus, dbus.bus, dbus.types, dbus.mainloop.glib
from gi.repository import GLib
address, name, path, file, count, most = sys.argv[1:]
dbus.mainloop.glib.DBusGMainLoop(set_as_default=True)
loop = GLib.MainLoop()
service = dbus.bus.BusConnection(address).get_object(name, path, introspect=False)
package = dbus.types.UnixFd(os.open(file, os.O_RDONLY))
refused = []
def take(error):
    refused.append(error.get_dbus_name())
    if len(refused) == int(most):
        print(sorted(set(refused)), flush=True)
for _ in range(int(count)):
    service.UpdateFrom("libtuner", "package", dbus.Dictionary({"package": package}, "sh"), dbus_interface=name,
                       reply_handler=print, error_handler=take, timeout=60)
service.Ping(dbus_interface="org.freedesktop.DBus.Peer")  # after what was sent before
if not int(most):
    print("they wait", flush=True)
loop.run()
"""


class Waiting:
    """Users whose hand-overs wait, since polkit does not answer."""

    def __init__(self, client):
        self.address = os.environ["DBUS_SYSTEM_BUS_ADDRESS"]
        self.file = package()["package"]
        self.file.chmod(0o644)
        self.file.parent.chmod(0o755)
        self.started = [subprocess.Popen(["/usr/bin/python3", "-c", SILENT_POLKIT, self.address])]
        wait_for(lambda: client.connection.name_has_owner("org.freedesktop.PolicyKit1"), "polkit is there")

    def hand_over(self, user, count, refused=0):
        """What it says, once they wait or so many were refused."""
        process = subprocess.Popen(["/usr/bin/python3", "-c", HANDS_OVER, self.address, NAME, PATH, str(self.file),
                                    str(count), str(refused)], user=user, group=STRANGER, stdout=subprocess.PIPE, text=True)
        self.started.append(process)
        readable, _, _ = select.select([process.stdout], [], [], PATIENCE)
        return process.stdout.readline() if readable else "nothing"

    def end(self):
        for process in self.started:
            process.kill()


def LeavesRoomForOthersThanAUserWhoseHandOversWaitForPolkit():
    need_other_users()
    _, client = start()
    waiting = Waiting(client)
    told = waiting.hand_over(STRANGER, 80, refused=72)
    job = hand_over(client, "package", {"package": waiting.file})
    waiting.end()

    equal(told, f"['{NAME}.Error.TooMany']\n")
    equal(client.result(job)["Outcome"], "updated")


def LetsSixtyFourHandOversOfAllUsersWaitAtOnce():
    need_other_users()
    with open("/etc/passwd", "a", encoding="ascii") as users:
        users.writelines(f"waits{number}:x:{7100 + number}:{STRANGER}::/:/bin/false\n" for number in range(9))
    _, client = start()
    waiting = Waiting(client)
    for number in range(8):
        equal(waiting.hand_over(7100 + number, 8 if number else 7), "they wait\n")
    job = hand_over(client, "package", {"package": waiting.file})
    equal(client.result(job)["Outcome"], "updated")
    equal(waiting.hand_over(7108, 1), "they wait\n")
    error = client.error(lambda: hand_over(client, "package", {"package": waiting.file}))
    waiting.end()

    equal(error, (NAME + ".Error.TooMany", "Too much is being handed over already. Try again."))


def FindsNoHalfFileAfterItWasKilled():
    """At every moment: the service is killed while it copies, checks and puts in place."""
    service, client = start()
    old, new = image("2.9.0"), image("3.0.0")
    client.result(hand_over(client, "image", old))
    names = (("tunerfw.bin", "image"), ("info.json", "info.json"))
    whole = {version: {name: files[part].read_bytes() for name, part in names}
             for version, files in (("old", old), ("new", new))}
    seen = set()
    for step in itertools.count():  # on a busy machine copying takes longer
        if step >= 40 and "new" in seen:
            return
        pause = step * 0.01
        sender = Client(Bus.connection())
        program = subprocess.Popen(["sh", "-c", f"sleep {pause:.3f}; kill -9 {service.process.pid}"])
        try:
            hand_over(sender, "image", new)
        except dbus.DBusException:
            pass
        program.wait()
        service.process.wait()
        wait_for(lambda: not client.connection.name_has_owner(NAME), "the name is free again")
        wait_for(lambda: not processes_of_the_service(), "what copied has ended, too")
        there = {path.name: path.read_bytes() for path in SBOX.iterdir()}
        assert there in whole.values(), (pause, {name: len(content) for name, content in there.items()})
        seen.add("new" if there == whole["new"] else "old")
        service = Service(client.connection)
        wait_for(has_no_incoming, "what was left over is cleaned away")


def CleansUpWhatAnEarlierServiceLeft():
    places = [PACKAGE.parent / ".incoming", SBOX.parent / ".incoming" / "tunerfw"]
    for place in places:
        place.mkdir(parents=True)
        (place / "half").write_bytes(b"x")
    folder = pathlib.Path("/var/lib/fw-updated/incoming/7")
    folder.mkdir(parents=True)
    shutil.copy(usb()["package"], folder / "tunerfw.bin")
    (PACKAGE.parent / "wifiempfw.img").touch()

    start()

    wait_for(has_no_incoming, "it is gone")
    assert (PACKAGE.parent / "wifiempfw.img").exists()


def KeepsWhatAJobNeedsOverARestart():
    lock = TakenLock()
    service, client = start()
    first = client.manager().Update("libpanel", "lsm", "")
    client.wait_for_state(first, "waiting-for-lock")
    path = hand_over(client, "usb", usb())

    service.kill(signal.SIGKILL)
    Service(client.connection)
    lock.give_back()

    equal(client.result(path)["Outcome"], "updated")
    equal(tool("info", "libtuner")["version"], "3.0.0")
    wait_for(has_no_incoming, "the folder is gone")


def RemovesTheFolderOfAJobThatIsCancelled():
    TakenLock()
    _, client = start()
    client.wait_for_state(client.manager().Update("libpanel", "lsm", ""), "waiting-for-lock")
    path = hand_over(client, "usb", usb())

    client.job(path).Cancel()

    equal(client.result(path)["Outcome"], "stopped")
    assert has_no_incoming()


def processes_of_the_service():
    """Without those that have ended and that nobody waits for."""
    found = []
    for path in pathlib.Path("/proc").glob("[0-9]*/cmdline"):
        try:
            found += [path] if path.read_bytes().split(b"\0")[0].endswith(b"fw-updated") else []
        except OSError:
            pass  # it has just ended
    return found


def EndsWhatCopiesWithTheService():
    service, client = start()
    path = package(size=60_000_000, minimum="2.5.0")["package"]
    for number in (signal.SIGTERM, signal.SIGKILL):
        with hold_what_is_taken(), subprocess.Popen(hand_over_program(path), stdout=subprocess.DEVNULL):
            wait_for((PACKAGE.parent / ".incoming/tunerempfw.img").exists, "it is being copied")

            service.kill(number)

            wait_for(lambda: not processes_of_the_service(), "nothing goes on")
        equal((number, PACKAGE.exists()), (number, False))
        service = Service(client.connection)
        wait_for(has_no_incoming, "the copy is gone")


if __name__ == "__main__":
    run_named_test(globals())
