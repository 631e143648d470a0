# SPDX-License-Identifier: Apache-2.0
"""usage: fleet_program_tests.py TEST: one test of fw-fleet, between a fleet's server and the update service.

Each function whose name begins with a capital is a test.
"""
import json
import os
import pathlib
import shutil
import signal
import subprocess
import tempfile
import time
import urllib.request

import dbus

from hand_over_tests import MAKER, STRANGER, image, pack, package, start, usb
from service_client import (ADDRESS, Polkit, Signals, add_group, as_user, equal, need_other_users, run_named_test, slow, tool,
                            wait_for)

LAB = pathlib.Path(__file__).resolve().parents[2] / "support" / "lab-server"
CONFIGURATION = pathlib.Path("/etc/fw-update/fw-fleet.conf")
FLEET = "org.fwupdate.Fleet1"
UPDATED = ["download none", "downloaded none", "proceeding none", "closed success"]


def fleet(*words):
    return subprocess.run(["fw-fleet", *words], stdout=subprocess.PIPE, text=True, check=False)


class Lab:
    def __init__(self):
        self.process = subprocess.Popen([str(LAB)], stdout=subprocess.PIPE, text=True)
        self.address = self.process.stdout.readline().strip()
        self.order("switch", sleep="00:00:30")

    def order(self, what, **order):
        with urllib.request.urlopen(f"{self.address}/lab/{what}", json.dumps(order).encode()):
            pass

    def state(self):
        with urllib.request.urlopen(f"{self.address}/lab/state") as answer:
            return json.load(answer)

    def attributes(self):
        return self.state()["sets"]["tv1"]["attributes"]

    def assign(self, *chunks):
        self.order("assign", set="tv1", chunks=[
            {"name": name, "version": version, "files": {}, "paths": paths} for name, version, paths in chunks])

    def action(self):
        return self.state()["actions"]["1"]

    def history(self):
        return [f"{one['execution']} {one['finished']}" for one in self.action()["history"]]

    def wait(self, state):
        """A client asks for the first time within its interval of half a minute."""
        end = time.monotonic() + 100
        while self.action()["state"] != state:
            assert time.monotonic() < end, self.action()
            time.sleep(0.05)


def named(files, firmware="tunerfw"):
    """As artifacts are called."""
    names = {"package": "some-package.x", "image": f"{firmware}.bin", "info.json": "info.json",
             "signature": f"{firmware}.bin.sig"}
    return {names[part]: str(path) for part, path in files.items()}


def run_client():
    for folder in ("/etc/fw-update", "/var/lib/fw-fleet", "/run/fw-fleet"):
        os.makedirs(folder, exist_ok=True)
    return subprocess.Popen(["fw-fleet", "--bus", ADDRESS])


def configure(lab, **settings):
    CONFIGURATION.parent.mkdir(parents=True, exist_ok=True)
    lines = {"server": lab.address, "controller": "tv1", "allow-insecure": "yes", "poll": 30, **settings}
    CONFIGURATION.write_text("".join(f"{name} = {value}\n" for name, value in lines.items()), encoding="ascii")


def version(firmware):
    return {one["firmware"]: one["version"] for one in tool("list")["modules"]}[firmware]


def BringsAllKindsIntoTheirComponentsAndSaysSoOnce():
    start()
    lab = Lab()
    configure(lab, serial="SN 0815/4")
    lab.assign(("tunerfw", "3.0.0", named(package())),
               ("wififw", "3.1.0", named(usb("3.1.0", firmware="wififw"))),
               ("panelfw", "3.2.0", named(image("3.2.0", firmware="panelfw"), "panelfw")))

    run_client()
    lab.wait("finished")

    equal([version(one) for one in ("tunerfw", "wififw", "panelfw")], ["3.0.0", "3.1.0", "3.2.0"])
    equal(lab.history(), UPDATED)
    equal([lab.attributes()[name] for name in ("controller", "serial")], ["tv1", "SN 0815/4"])


def TellsWhyAPackageIsRefusedBeforeAnyComponentIsTouched():
    start()
    lab = Lab()
    configure(lab)
    lab.assign(("tunerfw", "3.0.0", named(package())), ("wififw", "3.1.0", named(usb("3.1.0", firmware="panelfw"))))

    run_client()
    lab.wait("error")

    equal([version(one) for one in ("tunerfw", "wififw")], ["0.0.0", "0.0.0"])
    assert "refused" in lab.action()["history"][-1]["details"][0], lab.action()


def TellsThatAnImageHasNoSignature():
    start()
    lab = Lab()
    configure(lab)
    files = named(image())
    del files["tunerfw.bin.sig"]
    lab.assign(("tunerfw", "3.0.0", files))

    run_client()
    lab.wait("error")

    equal(version("tunerfw"), "0.0.0")
    equal(lab.action()["history"][-1]["details"][0],
          "tunerfw: it is refused: the file does not end with a signature trailer.")


def GoesOnAfterItWasKilledDuringAnUpdate():
    slow("tunerfw", 100)
    _, client = start()
    lab = Lab()
    configure(lab)
    lab.assign(("tunerfw", "3.0.0", named(package())))
    first = run_client()
    end = time.monotonic() + 60
    while not list(client.properties("/org/fwupdate/Update1", "org.fwupdate.Update1")["Jobs"]):
        assert time.monotonic() < end, "no job"
        time.sleep(0.05)

    first.send_signal(signal.SIGKILL)
    first.wait()
    run_client()
    lab.wait("finished")

    equal(version("tunerfw"), "3.0.0")
    equal(lab.history(), UPDATED)
    equal(len(client.properties("/org/fwupdate/Update1", "org.fwupdate.Update1")["Jobs"]), 1)


def release(lab, number, **files):
    """A release of packages and images, by their names in its directory, for sets that look at the lab server."""
    root = pathlib.Path(tempfile.mkdtemp())
    (root / "in").mkdir()
    for name, path in files.items():
        if path.is_dir():
            shutil.copytree(path, root / "in" / name)
        else:
            shutil.copy(path, root / "in" / f"{name}.img")
    pack("release", root / "in", "--number", number, "--expires", "2037-01-31T00:00:00Z", "--signing-key", MAKER,
         "--into", root / "upload")
    lab.order("publish", **{f"tv/{path.relative_to(root / 'upload')}": str(path)
                            for path in (root / "upload").rglob("*") if path.is_file()})
    return root / "upload"


def TakesUpdatesFromASignedListInADirectory():
    _, client = start()
    lab = Lab()
    CONFIGURATION.parent.mkdir(parents=True, exist_ok=True)
    CONFIGURATION.write_text(f"source = list\nlist = {lab.address}/plain/tv/releases.json\nallow-insecure = yes\n",
                             encoding="ascii")
    release(lab, 7, tunerempfw=package("3.0.0")["package"], panelfw=image("3.2.0", firmware="panelfw")["image"].parent)
    run_client_on_the_bus(client)

    fleet("poll", "--bus", ADDRESS)

    wait_for(lambda: "Action list-7: success" in fleet("status", "--bus", ADDRESS).stdout, "the list is done")
    equal([version(one) for one in ("tunerfw", "panelfw", "wififw")], ["3.0.0", "3.2.0", "0.0.0"])
    upload = release(lab, 8, tunerempfw=package("3.1.0")["package"])
    changed = upload / "releases.json"
    changed.write_text(changed.read_text(encoding="utf-8").replace("3.1.0", "3.1.1"), encoding="utf-8")
    lab.order("publish", **{f"tv/{path.name}": str(path) for path in (changed, upload / "releases.json.sig")})
    fleet("poll", "--bus", ADDRESS)
    wait_for(lambda: "Trouble: The release list is refused: " in fleet("status", "--bus", ADDRESS).stdout, "it is refused")
    equal(version("tunerfw"), "3.0.0")


def SaysThatOthersMayUseItsKey():
    key = pathlib.Path("/tmp/tv1.key")
    key.write_text("a key\n", encoding="ascii")
    key.chmod(0o640)
    pathlib.Path("/tmp/tv1.pem").write_text("a certificate\n", encoding="ascii")
    CONFIGURATION.parent.mkdir(parents=True, exist_ok=True)
    CONFIGURATION.write_text(f"server = https://u.example.org\ncontroller = tv1\nclient-certificate = /tmp/tv1.pem\n"
                             f"client-key = {key}\n", encoding="ascii")

    wrong = fleet("--check-config", "--json")
    key.chmod(0o400)
    right = fleet("--check-config")

    equal((wrong.returncode, json.loads(wrong.stdout)["message"]),
          (3, "The key file /tmp/tv1.key may be used by others: give it the mode 0400."))
    equal((right.returncode, right.stdout), (0, f"{CONFIGURATION} has no wrong entries.\n"))


def SaysThatACertificateIsNotThere():
    CONFIGURATION.parent.mkdir(parents=True, exist_ok=True)
    CONFIGURATION.write_text("server = https://u.example.org\ncontroller = tv1\nca-file = /tmp/none.pem\n",
                             encoding="ascii")

    wrong = fleet("--check-config")

    equal(wrong.returncode, 3)
    assert f"{CONFIGURATION}, line 3: ca-file: /tmp/none.pem cannot be read: No such file or directory." in wrong.stdout, wrong


def SaysWhatIsWrongInItsConfiguration():
    CONFIGURATION.parent.mkdir(parents=True, exist_ok=True)
    equal(fleet("--check-config").returncode, 0)
    CONFIGURATION.write_text("server = https://u.example.org\ncontroler = tv1\n", encoding="ascii")

    wrong = fleet("--check-config")
    other = fleet("--check-config", "/etc/fw-update/none.conf")

    equal(other.stdout, "There is no /etc/fw-update/none.conf: no server is asked.\n")
    equal([fleet(*words).returncode for words in (["check-config"], ["--check-config", "--", "status", "x"])], [2, 2])
    equal(wrong.returncode, 3)
    assert f"{CONFIGURATION}, line 2: there is no setting controler." in wrong.stdout, wrong.stdout


def FindsWhatItsOwnUserMayNotReadAlsoForRoot():
    need_other_users()
    with open("/etc/passwd", "a", encoding="ascii") as users:
        users.write(f"fw-fleet:x:{STRANGER - 1}:{STRANGER - 1}::/:/bin/false\n")
    CONFIGURATION.parent.mkdir(parents=True, exist_ok=True)
    token = CONFIGURATION.parent / "fw-fleet.token"
    token.write_text("secret\n", encoding="ascii")
    token.chmod(0o400)
    CONFIGURATION.write_text("server = https://u.example.org\ncontroller = tv1\ntoken-type = target\n"
                             f"token-file = {token}\n", encoding="ascii")

    # A process that changed its user cannot be searched for leaks.
    options = {"capture_output": True, "text": True, "check": False,
               "env": dict(os.environ, ASAN_OPTIONS=os.environ.get("ASAN_OPTIONS", "") + ":detect_leaks=0")}
    wrong = subprocess.run(["fw-fleet", "--check-config"], **options)
    os.chown(token, STRANGER - 1, STRANGER - 1)
    right = subprocess.run(["fw-fleet", "--check-config"], **options)

    equal(wrong.stderr, f"fw-fleet: The token file {token} cannot be read: Permission denied.\nCorrect the token file.\n")
    equal([wrong.returncode, right.returncode], [3, 0])


def SaysWhatItIsAt():
    start()
    without = subprocess.run(["fw-fleet", "status", "--bus", ADDRESS], capture_output=True, text=True, check=False)
    equal([without.returncode, without.stderr],
          [4, "fw-fleet: fw-fleet does not run.\nWrite /etc/fw-update/fw-fleet.conf, which names the server, and start it: "
              "systemctl start fw-fleet.\n"])
    equal(fleet("consent", "1", "perhaps", "--bus", ADDRESS).returncode, 2)
    lab = Lab()
    configure(lab)
    lab.assign(("tunerfw", "3.0.0", named(package())))
    run_client()
    lab.wait("finished")

    wait_for(lambda: "Action 1: success" in fleet("status", "--bus", ADDRESS).stdout, "it knows of its success")
    assert "  tunerfw 3.0.0: updated\n" in fleet("status", "--bus", ADDRESS).stdout
    equal(json.loads(fleet("status", "--json", "--bus", ADDRESS).stdout)["actions"][0]["id"], "1")
    assert "serial" not in lab.attributes(), "it has none"


def run_client_on_the_bus(client):
    process = run_client()
    wait_for(lambda: client.connection.name_has_owner(FLEET), "it is on the bus")
    return process


def LogsASentenceAsOneLineWhateverIsInIt():
    start()
    configure(Lab())
    actions = pathlib.Path("/var/lib/fw-fleet/actions")
    actions.mkdir(parents=True)
    (actions / "\n<0>x.action").write_text('{"format": 2}', encoding="ascii")

    with subprocess.Popen(["fw-fleet", "--bus", ADDRESS], stderr=subprocess.PIPE, text=True) as process:
        line = process.stderr.readline()
        process.terminate()

    equal(line, f"{actions}/\\x0A<0>x.action was made by a newer fw-fleet, and is left as it is.\n")


def AsksTheServerWhenSomebodyWantsItTo():
    _, client = start()
    lab = Lab()
    lab.order("switch", sleep="23:00:00")
    configure(lab, poll=86400)
    run_client_on_the_bus(client)
    lab.assign(("tunerfw", "3.0.0", named(package())))

    equal(fleet("poll", "--bus", ADDRESS).stdout, "The server is asked now.\n")

    lab.wait("finished")
    equal(version("tunerfw"), "3.0.0")


def UpdatesOnceItsOwnerConsents():
    _, client = start()
    lab = Lab()
    configure(lab, consent="update")
    lab.order("assign", set="tv1", download="attempt", update="attempt", chunks=[
        {"name": "tunerfw", "version": "3.0.0", "files": {}, "paths": named(package())}])
    run_client_on_the_bus(client)
    fleet("poll", "--bus", ADDRESS)
    wait_for(lambda: "asks whether to update" in fleet("status", "--bus", ADDRESS).stdout, "it asks")

    equal([fleet("consent", "2", "yes", "--bus", ADDRESS).returncode, fleet("consent", "1", "later", "--bus", ADDRESS).returncode],
          [1, 0])
    equal(version("tunerfw"), "0.0.0")
    equal(fleet("consent", "1", "yes", "--bus", ADDRESS).returncode, 0)

    lab.wait("finished")
    equal(fleet("consent", "1", "no", "--bus", ADDRESS).returncode, 1)
    equal(version("tunerfw"), "3.0.0")


def SignalsEachQuestionOnce():
    _, client = start()
    lab = Lab()
    configure(lab, confirm="ask", consent="update")
    lab.order("assign", set="tv1", confirm=True, download="attempt", update="attempt", chunks=[
        {"name": "tunerfw", "version": "3.0.0", "files": {}, "paths": named(package())}])
    run_client_on_the_bus(client)
    signals, asked = Signals(client.connection), []
    client.connection.add_signal_receiver(lambda action, what: asked.append((str(action), str(what))), "Asked", FLEET)
    fleet("poll", "--bus", ADDRESS)
    signals.wait_for(lambda: asked, "it asks")
    equal(fleet("consent", "1", "yes", "--bus", ADDRESS).returncode, 0)
    signals.wait_for(lambda: len(asked) > 1, "it asks again")

    equal(fleet("consent", "1", "yes", "--bus", ADDRESS).returncode, 0)

    lab.wait("finished")
    signals.wait_for(lambda: "Action 1: success" in fleet("status", "--bus", ADDRESS).stdout, "it knows of its success")
    equal(asked, [("1", "confirm"), ("1", "update")])


def ConfirmsWhenItsOwnerDoes():
    _, client = start()
    lab = Lab()
    configure(lab, confirm="ask")
    lab.order("assign", set="tv1", confirm=True, chunks=[
        {"name": "tunerfw", "version": "3.0.0", "files": {}, "paths": named(package())}])
    run_client_on_the_bus(client)
    fleet("poll", "--bus", ADDRESS)
    wait_for(lambda: "asks whether to confirm" in fleet("status", "--bus", ADDRESS).stdout, "it asks")

    equal(fleet("consent", "1", "yes", "--bus", ADDRESS).returncode, 0)

    lab.wait("finished")
    equal(lab.history(), ["confirmed none", *UPDATED])


def ask_as(user, groups, method, *arguments):
    return as_user(user, groups, "busctl", "--address=" + ADDRESS, "call", FLEET, "/org/fwupdate/Fleet1", FLEET, method,
                   *arguments)


def LetsMembersOfTheGroupOrderAndEverybodyAsk():
    need_other_users()
    add_group("fwupdate", 7000)
    _, client = start()
    lab = Lab()
    configure(lab)
    run_client_on_the_bus(client)
    refused = "Call failed: This user may not {}. Root may, and the members of the group fwupdate."

    equal(ask_as(STRANGER, [], "Status")[0], 0)
    equal(ask_as(STRANGER, [], "Poll"), (1, refused.format("have the fleet's server asked")))
    equal(ask_as(STRANGER, [], "Consent", "ss", "1", "yes"), (1, refused.format("consent to the fleet's updates")))
    equal(as_user(STRANGER, [], "fw-fleet", "poll", "--bus", ADDRESS),
          (1, "fw-fleet: This user may not have the fleet's server asked. Root may, and the members of the group fwupdate."))
    equal(ask_as(STRANGER, [7000], "Poll")[0], 0)
    equal(ask_as(STRANGER, [7000], "Consent", "ss", "1", "perhaps"), (1, "Call failed: The answer is yes, no or later."))
    equal(ask_as(STRANGER, [7000], "Consent", "ss", "1", "yes"), (1, "Call failed: The action 1 does not ask for consent."))


def AsksPolkitWhereItRuns():
    need_other_users()
    add_group("fwupdate", 7000)
    _, client = start()
    lab = Lab()
    configure(lab)
    run_client_on_the_bus(client)
    polkit = Polkit(client.connection, ["org.fwupdate.fleet1.query"])

    equal([ask_as(STRANGER, [7000], "Poll")[0], ask_as(STRANGER, [], "Status")[0]], [1, 0])
    polkit.object.SetAllowed(dbus.Array(["org.fwupdate.fleet1.poll"], "s"), dbus_interface="org.freedesktop.DBus.Mock")
    equal([ask_as(STRANGER, [], "Poll")[0], ask_as(STRANGER, [], "Status")[0]], [0, 1])


if __name__ == "__main__":
    run_named_test(globals())
