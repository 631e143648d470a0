# SPDX-License-Identifier: Apache-2.0
"""Other updaters from Debian, set up to write the same image to a file on the same
disk. Both check a signature and hash the image with SHA-256; the library's images
carry a CRC alone. After each installation the file is synchronised, which costs
nothing where the updater did it."""
import hashlib
import os
import shutil
import subprocess
import time
from contextlib import ExitStack

from programs import Failed, run


def synchronise(path):
    descriptor = os.open(path, os.O_WRONLY)
    try:
        os.fsync(descriptor)
    finally:
        os.close(descriptor)


def make_key(directory, log):
    run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "30", "-subj", "/CN=bench",
         "-addext", "keyUsage=digitalSignature", "-addext", "extendedKeyUsage=emailProtection",
         "-keyout", str(directory / "key.pem"), "-out", str(directory / "cert.pem")], log)


class Peer:
    """One updater. As a context it is ready; target is the file that it writes to."""

    name = ""
    description = ""
    goal = None
    programs = ()

    @classmethod
    def unusable(cls):
        """Why it cannot be compared with here; empty when it can."""
        missing = [program for program in cls.programs if shutil.which(program) is None]
        return f"{missing[0]} is not installed" if missing else ""

    def __init__(self, environment, image):
        self.image = image
        self.directory = environment.work / type(self).__name__
        self.log = environment.work / f"{type(self).__name__}.log"
        self.target = self.directory / "target.img"
        self.stack = ExitStack()

    def __enter__(self):
        shutil.rmtree(self.directory, ignore_errors=True)
        self.directory.mkdir()
        make_key(self.directory, self.log)
        with open(self.target, "wb") as target:
            os.posix_fallocate(target.fileno(), 0, self.image.stat().st_size)
        try:
            self.prepare()
        except BaseException:
            self.stack.close()
            raise
        return self

    def __exit__(self, *_):
        self.stack.close()
        shutil.rmtree(self.directory, ignore_errors=True)

    def seconds(self):
        start = time.monotonic()
        run(self.command, self.log, self.variables)
        synchronise(self.target)
        return time.monotonic() - start


BUS = """<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
  "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>unix:path={directory}/bus</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow own="*"/>
    <allow send_destination="*"/>
    <allow receive_sender="*"/>
  </policy>
</busconfig>
"""

RAUC_SYSTEM = """[system]
compatible=bench
bootloader=noop
statusfile={directory}/status
mountprefix={directory}/mount

[keyring]
path={directory}/cert.pem

[slot.firmware.0]
device={directory}/target.img
type=raw

[slot.rootfs.0]
device={directory}/booted
type=raw
bootname=A
"""

RAUC_MANIFEST = """[update]
compatible=bench
version=2.0.0

[bundle]
format=plain

[image.firmware]
filename=firmware.img
"""


class Rauc(Peer):
    """Its service on a bus of its own, and its client. Plain bundles, because the
    other format needs a device mapper; a bundle is mounted, which needs root."""

    name = "RAUC"
    description = "RAUC (signature and SHA-256)"
    goal = 0.45
    programs = ("rauc", "dbus-daemon", "mksquashfs")

    @classmethod
    def unusable(cls):
        return super().unusable() or ("" if os.geteuid() == 0 else "it needs root")

    def prepare(self):
        content = self.directory / "content"
        content.mkdir()
        (self.directory / "mount").mkdir()
        os.link(self.image, content / "firmware.img")
        (content / "manifest.raucm").write_text(RAUC_MANIFEST)
        for name, text in (("bus.conf", BUS), ("system.conf", RAUC_SYSTEM)):
            (self.directory / name).write_text(text.format(directory=self.directory))
        self.package = self.directory / "update.raucb"
        run(["rauc", f"--cert={self.directory}/cert.pem", f"--key={self.directory}/key.pem", "bundle",
             str(content), str(self.package)], self.log)
        self.variables = {"DBUS_SYSTEM_BUS_ADDRESS": f"unix:path={self.directory}/bus"}
        self.command = ["rauc", "install", str(self.package)]
        self.start(["dbus-daemon", f"--config-file={self.directory}/bus.conf", "--nofork", "--nopidfile"])
        self.start(["rauc", f"--conf={self.directory}/system.conf", "--override-boot-slot=A", "service"])
        self.await_service()

    def start(self, command):
        with open(self.log, "ab") as log:
            process = subprocess.Popen(command, stdout=log, stderr=log, env={**os.environ, **self.variables})
        self.stack.callback(process.wait)
        self.stack.callback(process.terminate)

    def await_service(self):
        for _ in range(100):
            status = subprocess.run(["rauc", "status"], capture_output=True, check=False,
                                    env={**os.environ, **self.variables})
            if status.returncode == 0:
                return
            time.sleep(0.1)
        raise Failed(f"RAUC's service does not answer; its messages are in {self.log}")


SWUPDATE_DESCRIPTION = """software =
{{
  version = "2.0.0";
  hardware-compatibility: [ "1.0" ];
  images: (
    {{
      filename = "firmware.img";
      device = "{target}";
      type = "raw";
      sha256 = "{sha256}";
      installed-directly = {directly};
    }}
  );
}}
"""


class SwUpdate(Peer):
    """As it comes: it first copies the image aside and checks it, here in memory."""

    name = "SWUpdate"
    description = "SWUpdate (signature and SHA-256; copies the image aside in memory first)"
    goal = 0.35
    programs = ("swupdate", "cpio", "openssl")
    directly = "false"

    def prepare(self):
        with open(self.image, "rb") as image:
            sha256 = hashlib.file_digest(image, "sha256").hexdigest()
        os.link(self.image, self.directory / "firmware.img")
        (self.directory / "sw-description").write_text(
            SWUPDATE_DESCRIPTION.format(target=self.target, sha256=sha256, directly=self.directly))
        run(["openssl", "cms", "-sign", "-in", "sw-description", "-out", "sw-description.sig", "-signer",
             "cert.pem", "-inkey", "key.pem", "-outform", "DER", "-nosmimecap", "-binary"],
            self.log, cwd=self.directory)
        self.package = self.directory / "update.swu"
        run(["cpio", "--create", "--format=crc", f"--file={self.package}"], self.log, cwd=self.directory,
            input="sw-description\nsw-description.sig\nfirmware.img\n")
        self.command = ["swupdate", "-k", str(self.directory / "cert.pem"), "-H", "bench:1.0", "-i",
                        str(self.package)]
        self.variables = {"TMPDIR": "/dev/shm"}


class SwUpdateStreaming(SwUpdate):
    name = "SWUpdate, streaming"
    description = "SWUpdate that writes while it checks (`installed-directly`)"
    goal = None
    directly = "true"


PEERS = (Rauc, SwUpdate, SwUpdateStreaming)
