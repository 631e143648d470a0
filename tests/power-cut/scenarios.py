# SPDX-License-Identifier: Apache-2.0
"""What is being done when the power is cut: devices with an old state, the commands, and
the table of what each file may be afterwards.
"""

import os
import shutil
import subprocess
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "../sweep"))

import devices  # noqa: E402
from judging import Kept, digest, digest_of_file  # noqa: E402

# What a set has on a disk, and what is on one only here: nothing after a cut may depend
# on /tmp and /run being empty.
RECORDED = (devices.FIRMWARE, "opt/usr/share/sbox", "opt/media", devices.PACKAGES, devices.COMPONENTS,
            "var/lib/fw-update", "tmp", "run")
SBOX = "opt/usr/share/sbox"
MINIMUM = "var/lib/fw-update/minimum-versions"
UPDATED, DOWNLOADED, RECOVERED = "updated", "downloaded", "recovered"
RENEWED, INSTALLED, PACKED = "renewed", "installed", "packed"
KEY_FILE = devices.KEY_FILE
IMAGES = "/prd/images"  # where the maker's files lie: not on the recorded disk
MAKERS_IMAGE = [f"{IMAGES}/tunerfw", "--version", devices.NEW_VERSION, "--expected-time",
                str(devices.EXPECTED_SECONDS)]
LARGE = 5_000_000  # more than a download keeps from the disk


class Step:
    """A command of the scenario. When it ends well that is a success with this name."""

    def __init__(self, success, *command):
        self.success, self.command = success, list(command)


class Killed(Step):
    """A command that is killed when a component has come to half of its update."""

    def __init__(self, firmware, *command):
        super().__init__(None, *command)
        self.firmware = firmware

    def is_time(self, device):
        try:
            with open(device.path(devices.COMPONENTS, f"{self.firmware}.progress"), encoding="ascii") as file:
                return int(file.read() or "0") >= 50
        except FileNotFoundError:
            return False


class Scenario:
    def __init__(self, name, summary, modules, places, steps, **further):
        self.name, self.summary = name, summary
        self.modules = modules    # library -> firmware
        self.places = places      # firmware -> where the new image waits
        self.steps = steps
        self.next = further.get("next", [step.command for step in steps])  # after the cut
        self.refusals = further.get("refusals", ())
        self.kept = further.get("kept", lambda device: [])
        self.size = further.get("size", devices.NEW_SIZE)
        self.minimum = further.get("minimum", False)
        self.bus = further.get("bus", False)
        self.stalls = further.get("stalls", ())  # components that stop at half of an update

    @property
    def successes(self):
        return [step.success for step in self.steps if step.success]


def update(library, caller):
    return ["fw-update", "update", library, "--caller", caller, "--json"]


UNSTALL = ["rm", "-f", f"/{devices.COMPONENTS}/tunerfw.component"]
LIST = ["fw-update", "list", "--json"]


def package(firmware):
    return f"{devices.PACKAGES}/{devices.package_of(firmware)}.img"


def package_kept(*firmware):
    """The package goes when it has been applied, and not before."""
    return lambda device: [Kept(package(name), {device.packages[name], None}, removed_with=device.updated(name))
                           for name in firmware]


def download_kept(device):
    return [Kept(package("tunerfw"), {None, device.packages["tunerfw"]}, removed_with=device.updated("tunerfw")),
            Kept(f"{MINIMUM}/tunerempfw", {None, digest(b"2.0.0\n")}, DOWNLOADED, {digest(b"2.0.0\n")})]


def usb_kept(device):
    # An update that is cut off before the minimum is noted is not done again.
    return [Kept(f"{MINIMUM}/tunerfw", {None, digest(b"2.0.0\n")}, UPDATED, {digest(b"2.0.0\n")}, made_good=False)]


def install_kept(device):
    """The image and its description are two files: they may not fit, and are refused then."""
    made, old = device.made, device.old_information
    new_image = digest(devices.content("tunerfw", devices.NEW_VERSION, devices.NEW_SIZE))
    old_image = digest(devices.content("tunerfw", devices.OLD_VERSION, devices.OLD_SIZE))
    builtin, sbox = f"{devices.FIRMWARE}/tunerfw", f"{SBOX}/tunerfw"
    return [Kept(f"{builtin}/tunerfw.bin", {old_image, new_image}, RENEWED, {new_image}),
            Kept(f"{builtin}/info.json", {old, made["info.json"]}, RENEWED, {made["info.json"]}),
            Kept(f"{sbox}/tunerfw.bin", {None, new_image}, INSTALLED, {new_image}),
            Kept(f"{sbox}/info.json", {None, made["info.json"]}, INSTALLED, {made["info.json"]}),
            Kept(package("tunerfw"), {None, made["package"]}, PACKED, {made["package"]})]


def pack_image(kind, place):
    return ["fw-pack", "image", *MAKERS_IMAGE, "--type", kind, "--name", "tunerfw", "--into", f"/{place}"]


INSTALLATION = [
    Step(RENEWED, *pack_image("builtin", devices.FIRMWARE)),
    Step(INSTALLED, *pack_image("sbox", SBOX)),
    Step(PACKED, "fw-pack", "emp", *MAKERS_IMAGE, "--id", "tunerempfw", "--unsigned", "--output",
         f"/{package('tunerfw')}"),
]
SCENARIOS = (
    Scenario("tuner", "from the firmware directory", {"libtuner": "tunerfw"}, {"tunerfw": "builtin"},
             [Step(UPDATED, *update("libtuner", "upgrade-app"))]),
    Scenario("panel", "from the sbox", {"libpanel": "panelfw"}, {"panelfw": "sbox"},
             [Step(UPDATED, *update("libpanel", "lsm"))]),
    Scenario("wifi", "from an extension package that is mounted", {"libwifi": "wififw"}, {"wififw": "package"},
             [Step(UPDATED, *update("libwifi", "debug"))], kept=package_kept("wififw"),
             refusals=("refused-image",)),
    Scenario("remote", "by a module's own procedure", {"libEXT-remote": "remotefw"}, {"remotefw": "builtin"},
             [Step(UPDATED, *update("libEXT-remote", "upgrade-app"))]),
    Scenario("download", "a package downloaded, mounted, applied and removed", {"libtuner": "tunerfw"},
             {"tunerfw": "server"},
             [Step(DOWNLOADED, "fw-update", "download", "libtuner", "--wait", "--json"),
              Step(UPDATED, *update("libtuner", "debug"))],
             kept=download_kept, size=LARGE, minimum=True),
    Scenario("usb", "from an encrypted, signed package on a USB drive", {"libtuner": "tunerfw"},
             {"tunerfw": "usb"}, [Step(UPDATED, "fw-update", "usb", "apply", "--key-file", KEY_FILE, "--json")],
             kept=usb_kept, minimum=True),
    Scenario("update-all", "a run over all modules", {"libtuner": "tunerfw", "libwifi": "wififw"},
             {"tunerfw": "package", "wififw": "package"}, [Step(UPDATED, "fw-update", "update-all", "--json")],
             kept=package_kept("tunerfw", "wififw"), bus=True,
             next=[["fw-update", "pending-list", "--json"], ["fw-update", "update-all", "--json"]]),
    Scenario("recovery", "a killed update, the lock given back, the update again", {"libtuner": "tunerfw"},
             {"tunerfw": "builtin"},
             [Killed("tunerfw", *update("libtuner", "upgrade-app")), Step(None, *UNSTALL),
              Step(RECOVERED, "fw-update", "lock", "recover", "--json"),
              Step(UPDATED, *update("libtuner", "upgrade-app"))],
             next=[UNSTALL, update("libtuner", "upgrade-app")], stalls=("tunerfw",)),
    Scenario("install", "images and a package put into their places by fw-pack", {"libtuner": "tunerfw"},
             {"tunerfw": "maker"}, INSTALLATION, kept=install_kept, refusals=("refused-image",),
             next=[update("libtuner", "upgrade-app"), update("libtuner", "lsm"),
                   *(step.command for step in INSTALLATION), update("libtuner", "upgrade-app")]),
)


class Device:
    """A device of a scenario, with the old firmware in its components."""

    def __init__(self, scenario, tools, work):
        self.scenario, self.tools = scenario, tools
        self.directory = os.path.join(work, "device")
        self.served = os.path.join(work, "served")
        os.makedirs(self.served)
        self.flash, self.packages = {}, {}
        self._make()

    def path(self, *parts):
        return os.path.join(self.directory, *parts)

    def run(self, *command, options=()):
        return [f"{self.tools}/fw-device", "run", *options, self.directory, "--", *command]

    def updated(self, firmware):
        """Where the new firmware is, and what it is."""
        return f"{devices.COMPONENTS}/{firmware}.flash", self.flash[firmware]["new"]

    def kept(self):
        """The table of the scenario's files."""
        rules = [Kept(f"{devices.COMPONENTS}/{name}.flash", ages.values(), UPDATED, {ages["new"]})
                 for name, ages in self.flash.items()]
        return rules + self.scenario.kept(self)

    def copy(self, target, tree):
        """Another device with this one's programs, and with the files of a tree."""
        for name in os.listdir(self.directory):
            if name not in ("lib", "opt", "var", "tmp", "run", "dev"):
                source = self.path(name)
                copy = shutil.copy2 if os.path.isfile(source) else shutil.copytree
                copy(source, os.path.join(target, name), **({} if os.path.isfile(source) else
                                                            {"copy_function": os.link, "symlinks": True}))
        shutil.copytree(tree, target, symlinks=True, dirs_exist_ok=True)

    def _make(self):
        subprocess.run([f"{self.tools}/fw-device", "init", "--fresh", self.directory], check=True,
                       stdout=subprocess.DEVNULL)
        self._keep_modules()
        crc = devices.make_crc()
        for library, firmware in self.scenario.modules.items():
            self._lay_out(firmware, devices.OLD_VERSION, devices.OLD_SIZE, "builtin")
            subprocess.run(self.run("fw-update", "update", library, "--caller", "upgrade-app"), check=True,
                           stdout=subprocess.DEVNULL, env={**os.environ, "FW_UPDATE_LOG": "none"})
            self.old_information = digest_of_file(self.path(devices.FIRMWARE, firmware, "info.json"))
            self.flash[firmware] = {age: digest(devices.flash_file(
                firmware, version, devices.content(firmware, version, size), crc))
                for age, version, size in (("old", devices.OLD_VERSION, devices.OLD_SIZE),
                                           ("new", devices.NEW_VERSION, self.scenario.size))}
        if "maker" not in self.scenario.places.values():
            self._empty(devices.FIRMWARE)
        for firmware, place in self.scenario.places.items():
            self._lay_out(firmware, devices.NEW_VERSION, self.scenario.size, place)
        for firmware in self.scenario.stalls:
            os.remove(self.path(devices.COMPONENTS, f"{firmware}.progress"))  # of the update before
            with open(self.path(devices.COMPONENTS, f"{firmware}.component"), "w", encoding="ascii") as file:
                file.write("stall_at_percent = 50\n")
        for directory in ("tmp", "dev/shm", "run"):
            self._empty(directory)

    def _empty(self, directory):
        for entry in os.scandir(self.path(directory)):
            shutil.rmtree(entry.path) if entry.is_dir(follow_symlinks=False) else os.remove(entry.path)

    def _keep_modules(self):
        for entry in os.scandir(self.path("prd/usr/fwupdate/controls")):
            if entry.name.removesuffix(".so") not in self.scenario.modules:
                os.remove(entry.path)
        for directory in (devices.FIRMWARE, SBOX, "opt/media"):
            self._empty(directory)
        for entry in os.scandir(self.path(devices.PACKAGES)):
            if entry.is_file():
                os.remove(entry.path)

    def _pack(self, *words):
        subprocess.run([f"{self.tools}/fw-pack", *words], check=True, stdout=subprocess.DEVNULL)

    def _lay_out(self, firmware, version, size, place):
        image = self.path("prd/images", firmware)
        os.makedirs(os.path.dirname(image), exist_ok=True)
        with open(image, "wb") as file:
            file.write(devices.content(firmware, version, size))
        common = [image, "--version", version]
        seconds = ["--expected-time", str(devices.EXPECTED_SECONDS)]
        signing = ["--signing-key", self.path("maker/signing.key")]
        minimum = ["--minimum-version", version] if self.scenario.minimum and place != "builtin" else []
        if place in ("builtin", "sbox"):
            self._pack("image", *common, *seconds, "--type", place, "--name", firmware, "--into",
                       self.path(devices.FIRMWARE if place == "builtin" else SBOX))
        elif place in ("package", "server"):
            name = devices.package_of(firmware)
            output = os.path.join(self.served if place == "server" else self.path(devices.PACKAGES),
                                  f"{name}.img")
            self._pack("emp", *common, *seconds, *minimum, "--id", name, *signing, "--output", output)
            self.packages[firmware] = digest_of_file(output)
        elif place == "usb":
            drive = self.path(devices.DRIVE)
            os.makedirs(drive, exist_ok=True)
            self._pack("usb", *common, *minimum, "--key-file", self.directory + KEY_FILE, *signing, "--output",
                       os.path.join(drive, f"{firmware}.bin"))
        else:  # with the maker; what fw-pack will make of it is known
            elsewhere = os.path.join(os.path.dirname(self.directory), "elsewhere")
            self._pack("image", *common, *seconds, "--type", "builtin", "--name", firmware, "--into", elsewhere)
            made = os.path.join(elsewhere, "package")
            self._pack("emp", *common, *seconds, "--id", devices.package_of(firmware), "--unsigned", "--output", made)
            self.made = {"info.json": digest_of_file(os.path.join(elsewhere, firmware, "info.json")),
                         "package": digest_of_file(made)}
