# SPDX-License-Identifier: Apache-2.0
"""A disk whose writes are recorded while commands run: an image in memory, the recorder
under a loop device, and a file system that the kernel mounts. To be used by root, in a
mount namespace of its own (tests/power-cut/run enters one).
"""

import ctypes
import fcntl
import os
import struct
import subprocess
import time

SIZE = 32 * 1024 * 1024
PATIENCE = 20  # seconds

LOOP_CTL_GET_FREE, LOOP_CONFIGURE = 0x4C82, 0x4C0A
LO_FLAGS_AUTOCLEAR = 4
MS_NOATIME, MS_BIND, MNT_DETACH = 1024, 4096, 2

LIBC = ctypes.CDLL(None, use_errno=True)


def mount(source, target, kind="none", flags=0, options=""):
    if LIBC.mount(source.encode(), target.encode(), kind.encode(), flags, options.encode()) != 0:
        raise OSError(ctypes.get_errno(), os.strerror(ctypes.get_errno()), target)


def unmount(target):
    if LIBC.umount2(target.encode(), 0) != 0:
        raise OSError(ctypes.get_errno(), os.strerror(ctypes.get_errno()), target)


def unmount_soon(target):
    """The kernel lets go of a loop device a moment after its last user has gone."""
    end = time.monotonic() + PATIENCE
    while True:
        try:
            return unmount(target)
        except OSError:
            if time.monotonic() > end:
                raise
            time.sleep(0.01)


class LoopDevice:
    """Detached with close, once nothing is mounted from it."""

    def __init__(self, path):
        with open("/dev/loop-control", "rb") as control, open(path, "r+b", buffering=0) as backing:
            while True:
                number = fcntl.ioctl(control, LOOP_CTL_GET_FREE)
                self.path = f"/dev/loop{number}"
                self.device = os.open(self.path, os.O_RDWR)
                config = bytearray(struct.pack("<II", backing.fileno(), 512) + bytes(296))
                struct.pack_into("<I", config, 8 + 52, LO_FLAGS_AUTOCLEAR)
                try:
                    fcntl.ioctl(self.device, LOOP_CONFIGURE, config)
                    return
                except OSError:  # somebody else took it
                    os.close(self.device)

    def close(self):
        os.close(self.device)


class FileSystem:
    """How a disk is made and mounted."""

    def __init__(self, name, kind, options, make, reuses_blocks=False):
        self.name, self.kind, self.options, self.make = name, kind, options, make
        self.reuses_blocks = reuses_blocks  # of removed files, before the removal is on the disk

    def format(self, image):
        with open(image, "wb") as file:
            file.truncate(SIZE)
        subprocess.run([*self.make, image], check=True, stdout=subprocess.DEVNULL)


EXT4 = ["mkfs.ext4", "-q", "-F", "-E", "lazy_itable_init=0,lazy_journal_init=0,nodiscard"]
FILE_SYSTEMS = (
    FileSystem("ext4", "ext4", "", EXT4),
    FileSystem("ext4-noauto", "ext4", "noauto_da_alloc", EXT4),
    FileSystem("ext4-writeback", "ext4", "data=writeback,noauto_da_alloc", EXT4, reuses_blocks=True),
)


class Recording:
    """From begin() to end() everything that is written below directory is recorded."""

    def __init__(self, recorder, work, file_system):
        self.recorder, self.work, self.file_system = recorder, work, file_system
        self.base, self.disk, self.log = (os.path.join(work, name) for name in ("base", "disk", "log"))
        self.fuse, self.directory = os.path.join(work, "fuse"), os.path.join(work, "recorded")
        os.makedirs(self.fuse)
        os.makedirs(self.directory)

    def prepare(self, fill):
        """Makes the disk; fill(directory) puts on it what is there before."""
        self.file_system.format(self.base)
        loop = LoopDevice(self.base)
        mount(loop.path, self.directory, self.file_system.kind, MS_NOATIME)
        fill(self.directory)
        unmount(self.directory)
        loop.close()
        subprocess.run(["cp", "--sparse=always", self.base, self.disk], check=True)

    def begin(self):
        self.process = subprocess.Popen([self.recorder, self.disk, self.log, self.fuse],
                                        stdin=subprocess.DEVNULL, stdout=subprocess.PIPE)
        if self.process.stdout.readline() != b"ready\n":
            raise RuntimeError("the recorder does not start")
        self.loop = LoopDevice(os.path.join(self.fuse, "disk"))
        mount(self.loop.path, self.directory, self.file_system.kind, MS_NOATIME, self.file_system.options)

    def mark(self, text):
        with open(os.path.join(self.fuse, "mark"), "wb", buffering=0) as file:
            file.write(text.encode())

    def end(self):
        unmount_soon(self.directory)
        self.loop.close()
        unmount_soon(self.fuse)
        self.process.wait(PATIENCE)
        self.process.stdout.close()
