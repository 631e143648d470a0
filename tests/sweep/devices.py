# SPDX-License-Identifier: Apache-2.0
"""The devices of a sweep: a template for each scenario, with components that have an old
firmware and a new one waiting, and quick copies of it, one for each point.
"""

import hashlib
import os
import shutil
import struct
import subprocess

COMPONENTS = "var/lib/fw-components"
PACKAGES = "opt/usr/apps/appbinarymanager"
DRIVE = "opt/media/USBDriveA"
FIRMWARE = "lib/firmware/ext"
OFFERED = "prd/offered"  # what a fleet's server has

OLD_VERSION, NEW_VERSION = "1.0.0", "2.0.0"
OLD_SIZE, NEW_SIZE = 70_000, 150_000  # two and three blocks of the modules
EXPECTED_SECONDS = 2  # the limit of an update is two seconds more

MODULES = {"libtuner": "tunerfw", "libwifi": "wififw"}

# What no update changes in place is shared between the copies.
SHARED = ("prd", "usr", "lib")


class Scenario:
    """One way to update: what lies where, the command, and what it is to achieve."""

    def __init__(self, name, summary, command, firmware, place, bus=False, service=False, job=False, traced="update",
                 kinds=("kills", "errors"), offered=None):
        self.name = name
        self.summary = summary
        self.command = command
        self.firmware = firmware  # the components that get the new one
        self.place = place
        self.bus = bus  # for the power lock
        self.service = service  # the privileged service runs
        self.job = job  # it is a job of the update service, which is on the bus
        self.traced = traced  # which process is interrupted
        self.kinds = kinds  # how it is
        self.offered = offered or {}  # by a fleet's server: the kind of each component's artifacts
        self.power_locks = 1 if bus and not job and not offered else 0

    @property
    def packages(self):
        return [package_of(name) for name in self.firmware] if self.place == "package" else []

    @property
    def chunks(self):
        """Of the action, as the server for tests takes them."""
        return [{"name": name, "version": NEW_VERSION, "files": {},
                 "paths": {file: f"/{OFFERED}/{name}/{file}" for file in artifacts_of(name, kind)}}
                for name, kind in self.offered.items()]


FROM_DIRECTORY = ["fw-update", "update", "libtuner", "--caller", "upgrade-app", "--json"]
FROM_PACKAGE = ["fw-update", "update", "libwifi", "--caller", "debug", "--json"]
AS_A_JOB = [*FROM_DIRECTORY, "--service"]
KEY_FILE = "/usr/share/fw-update/package.key"
SCENARIOS = (
    Scenario("firmware", "from the firmware directory", FROM_DIRECTORY, ["tunerfw"], "builtin"),
    Scenario("package", "from an extension package, which the process mounts itself", FROM_PACKAGE,
             ["wififw"], "package"),
    Scenario("package-client", "from an extension package, which the privileged service mounts",
             FROM_PACKAGE, ["wififw"], "package", service=True),
    Scenario("package-service", "the same, with the privileged service interrupted", FROM_PACKAGE,
             ["wififw"], "package", service=True, traced="service"),
    Scenario("usb", "from an encrypted, signed package on a USB drive",
             ["fw-update", "usb", "apply", "--key-file", KEY_FILE, "--json"], ["tunerfw"], "usb"),
    Scenario("update-all", "update-all over two modules, both from extension packages",
             ["fw-update", "update-all", "--json"], ["tunerfw", "wififw"], "package", bus=True),
    Scenario("job-service", "a job of the update service, which is interrupted", AS_A_JOB, ["tunerfw"], "builtin",
             bus=True, job=True, traced="update-service", kinds=("kills",)),
    Scenario("job-command", "the same, with the command interrupted that works on it", AS_A_JOB, ["tunerfw"], "builtin",
             bus=True, job=True, traced="job", kinds=("kills",)),
) + tuple(
    Scenario(name, summary, [], list(offered), "offered", bus=True, traced=traced, offered=offered)
    for name, summary, traced, offered in (
        ("fleet", "an action of a fleet's server, with its client interrupted", "fleet", {"tunerfw": "image"}),
        ("hand-over", "the same, with the update service interrupted that its client hands the files over to",
         "update-service", {"tunerfw": "usb", "wififw": "image"}),
    )
)


def artifacts_of(firmware, kind):
    return [f"{firmware}.bin", "info.json", f"{firmware}.bin.sig"] if kind == "image" else [f"{firmware}.bin"]


def package_of(firmware):
    return firmware.replace("fw", "empfw")


def content(firmware, version, size):
    """The same bytes for the same name and version, and others for another."""
    blocks, seed = [], f"{firmware} {version}".encode()
    while len(blocks) * 64 < size:
        seed = hashlib.sha512(seed).digest()
        blocks.append(seed)
    return b"".join(blocks)[:size]


def flash_file(firmware, version, image, crc):
    """The whole flash of a component with this firmware (docs/formats/component-flash.md)."""
    header = struct.pack("<8sIIQ128s100x", b"FWFLASH\0", 1, crc(image), len(image), version.encode())
    return header + struct.pack("<I", crc(header)) + image


def make_crc():
    table = []
    for index in range(256):
        value = index << 24
        for _ in range(8):
            value = (value << 1) ^ (0x01B23CA3 if value & 0x80000000 else 0)
        table.append(value & 0xFFFFFFFF)

    def crc(data):
        value = 0
        for byte in data:
            value = ((value << 8) & 0xFFFFFFFF) ^ table[(value >> 24) ^ byte]
        return value

    return crc


class Template:
    """The device of a scenario, in a directory below work."""

    def __init__(self, scenario, tools, work, probe):
        """probe: called with the device's directory before anything runs on it."""
        self.scenario, self.tools, self.probe = scenario, tools, probe
        self.directory = os.path.join(work, scenario.name)
        self.image = os.path.join(work, f"{scenario.name}.image")
        self.flash = {}
        self._make()

    def copy(self, target):
        for directory, names, files in os.walk(self.directory):
            relative = os.path.relpath(directory, self.directory)
            os.makedirs(os.path.join(target, relative), exist_ok=True)
            shutil.copymode(directory, os.path.join(target, relative))
            share = relative.split(os.sep)[0] in SHARED
            for name in files:
                source, copy = os.path.join(directory, name), os.path.join(target, relative, name)
                os.link(source, copy) if share else shutil.copy2(source, copy)

    def run(self, *command):
        subprocess.run([f"{self.tools}/fw-device", "run", self.directory, "--", *command], check=True,
                       stdout=subprocess.DEVNULL, env={**os.environ, "FW_UPDATE_LOG": "none"})

    def _make(self):
        subprocess.run([f"{self.tools}/fw-device", "init", "--fresh", self.directory], check=True,
                       stdout=subprocess.DEVNULL)
        self.probe(self.directory)
        self._keep_modules()
        for library, firmware in MODULES.items():
            self._lay_out(firmware, OLD_VERSION, OLD_SIZE, "builtin")
            self.run("fw-update", "update", library, "--caller", "upgrade-app")
        self._empty(FIRMWARE)
        for firmware in self.scenario.firmware:
            self._lay_out(firmware, NEW_VERSION, NEW_SIZE, self.scenario.place)
        # As after a start of the device.
        for directory in ("tmp", "dev/shm", "run"):
            self._empty(directory)
        os.remove(self._path(COMPONENTS, "journal.log"))
        self._compute_flashes()

    def _path(self, *parts):
        return os.path.join(self.directory, *parts)

    def _empty(self, directory):
        for entry in os.scandir(self._path(directory)):
            shutil.rmtree(entry.path) if entry.is_dir(follow_symlinks=False) else os.remove(entry.path)

    def _keep_modules(self):
        controls = self._path("prd/usr/fwupdate/controls")
        for entry in os.scandir(controls):
            if entry.name.removesuffix(".so") not in MODULES:
                os.remove(entry.path)
        for directory in (FIRMWARE, "opt/usr/share/sbox", "opt/media"):
            self._empty(directory)
        for entry in os.scandir(self._path(PACKAGES)):
            if entry.is_file():
                os.remove(entry.path)

    def _lay_out(self, firmware, version, size, place):
        with open(self.image, "wb") as file:
            file.write(content(firmware, version, size))
        common = [self.image, "--version", version]
        seconds = ["--expected-time", str(EXPECTED_SECONDS)]
        key = ["--signing-key", self._path("maker/signing.key")]
        if place == "offered":
            place = f"offered {self.scenario.offered[firmware]}"
            os.makedirs(self._path(OFFERED, firmware))
        if place == "builtin":
            self._pack("image", *common, *seconds, "--type", "builtin", "--name", firmware, "--into",
                       self._path(FIRMWARE))
        elif place == "package":
            package = package_of(firmware)
            self._pack("emp", *common, *seconds, "--id", package, *key, "--output", self._path(PACKAGES, f"{package}.img"))
        elif place == "offered image":
            self._pack("image", *common, *seconds, "--type", "sbox", "--name", firmware, *key, "--into",
                       self._path(OFFERED))
        else:
            folder = self._path(OFFERED, firmware) if place == "offered usb" else self._path(DRIVE)
            os.makedirs(folder, exist_ok=True)
            self._pack("usb", *common, "--key-file", self.directory + KEY_FILE, *key, "--output",
                       os.path.join(folder, f"{firmware}.bin"), *(["--name", firmware] if place == "offered usb" else []))

    def _pack(self, *words):
        subprocess.run([f"{self.tools}/fw-pack", *words], check=True, stdout=subprocess.DEVNULL)

    def _compute_flashes(self):
        crc = make_crc()
        for firmware in MODULES.values():
            self.flash[firmware] = {}
            for age, version, size in (("old", OLD_VERSION, OLD_SIZE), ("new", NEW_VERSION, NEW_SIZE)):
                if age == "new" and firmware not in self.scenario.firmware:
                    continue
                whole = flash_file(firmware, version, content(firmware, version, size), crc)
                self.flash[firmware][age] = hashlib.sha256(whole).hexdigest()
