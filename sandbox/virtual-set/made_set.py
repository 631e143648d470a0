# SPDX-License-Identifier: Apache-2.0
"""The virtual set on the disk: made once, kept in ~/.cache/fw-update.

  set-KEY/                    Debian without the project's packages; KEY is made from its
                              recipe: root.ext4, vmlinuz, initrd.img
  set-KEY/MACHINE.qcow2       what was written while it started, and the state it was in
  set-KEY/MACHINE.state       then; MACHINE is made from QEMU and the machine's devices
  set-KEY/PACKAGES.qcow2      the same with the project's packages and a device's files;
  set-KEY/PACKAGES.state      PACKAGES is made from all that as well

What is kept appears whole or not at all. What nobody used for a day goes when another one
is made; a file's lock tells that it is used now.
"""
import contextlib
import fcntl
import hashlib
import os
import pathlib
import shutil
import subprocess
import tempfile
import time

from machine import Machine, MachineError, what_it_is

HERE = pathlib.Path(__file__).resolve().parent
TREE = HERE.parent.parent
CACHE = pathlib.Path(os.environ.get("XDG_CACHE_HOME") or pathlib.Path.home() / ".cache") / "fw-update"
DAY = 24 * 3600
# With the packages: what is done with them, and what mounts USB drives.
PREPARED = [HERE / name for name in ("prepare", "usb-drive.rules", "usb-drive@.service")]
# The set that was made last for this tree: its directory, its name, its packages' directory.
CURRENT = TREE / "build" / "virtual-set"
# Where mkfs.ext4 is; the path of an ordinary user lacks it.
os.environ["PATH"] = os.environ.get("PATH", os.defpath) + ":/usr/sbin:/sbin"
PROGRAMS = ("qemu-system-i386", "qemu-img", "mmdebstrap", "mkfs.ext4")


class CannotMake(Exception):
    """The set cannot be made on this machine."""


def key_of(files, text=""):
    """A name that is another one when the text, or a file's name, mode or content is."""
    digest = hashlib.sha256(text.encode())
    for path in sorted(files):
        digest.update(f"{path.name}\0{path.stat().st_mode}\0{path.stat().st_size}\0".encode())
        digest.update(path.read_bytes())
    return digest.hexdigest()[:16]


def recipe():
    names = ("make-root", "packages.txt", "initramfs.conf")
    return [HERE / name for name in names] + [path for path in (HERE / "guest").rglob("*") if path.is_file()]


def require_programs():
    for program in PROGRAMS:
        if shutil.which(program) is None:
            raise CannotMake(f"{program} is missing; ./setup --virtual-set installs it")


@contextlib.contextmanager
def locked(path):
    """One process at a time; the file stays."""
    with open(path, "w", encoding="ascii") as file:
        fcntl.flock(file, fcntl.LOCK_EX)
        yield


def packages_in(directory):
    found = sorted(pathlib.Path(directory).glob("*.deb"))
    if not found:
        raise CannotMake(f"{directory} holds no packages (*.deb)")
    return found


class MadeSet:
    """A set that lies in the cache; machines of it may be started."""

    def __init__(self, directory, name, packages=None):
        self.directory, self.name, self.packages = pathlib.Path(directory), name, packages
        self.disk = self.directory / f"{name}.qcow2"
        self.state = self.directory / f"{name}.state"

    def is_there(self):
        return self.state.exists()

    @contextlib.contextmanager
    def machine(self, boot=False, **options):
        """A machine that goes on from the kept state, or starts anew."""
        with open(self.directory / "in-use", "w", encoding="ascii") as used:
            fcntl.flock(used, fcntl.LOCK_SH)
            os.utime(self.disk)
            os.utime(self.directory)
            with Machine(self.directory / "vmlinuz", self.directory / "initrd.img", self.disk, "qcow2",
                         None if boot else self.state, **options) as machine:
                yield machine


def make_debian(say):
    """The set without the project's packages."""
    require_programs()
    made = MadeSet(CACHE / f"set-{key_of(recipe())}", key_of([], what_it_is()))
    if made.is_there():
        return made
    CACHE.mkdir(parents=True, exist_ok=True)
    with locked(CACHE / ".making-set"):
        if not (made.directory / "root.ext4").exists():
            say("making Debian for 32 bits, with a kernel of its own (a few minutes)")
            make_root(made.directory)
        if not made.is_there():
            say("starting it, and keeping its state")
            keep_state(made, made.directory / "root.ext4", "raw", None, lambda machine: None)
        remove_others(made.directory)
    return made


def make_root(directory):
    new = pathlib.Path(tempfile.mkdtemp(prefix=".new-set-", dir=CACHE))
    try:
        done = subprocess.run([HERE / "make-root", new], check=False)
        if done.returncode:
            raise CannotMake("Debian's root file system could not be made")
        new.chmod(0o755)
        new.rename(directory)
    finally:
        shutil.rmtree(new, ignore_errors=True)


def keep_state(made, below, form, state, prepare):
    """Starts a machine, or goes on with one, prepares it, and keeps its disk and state."""
    directory = made.directory
    disk, new_state = directory / f".new-{made.name}.qcow2", directory / f".new-{made.name}.state"
    for path in (disk, new_state):
        path.unlink(missing_ok=True)
    with Machine(directory / "vmlinuz", directory / "initrd.img", below, form, state, disk=disk) as machine:
        prepare(machine)
        # Little memory in use is little to save, and to read again with each start.
        code, output = machine.run("sync; echo 3 >/proc/sys/vm/drop_caches")
        if code:
            raise MachineError(output)
        machine.save(new_state)
    disk.rename(made.disk)
    new_state.rename(made.state)


def make_with_packages(directory, say):
    """The set with the packages that lie in a directory."""
    debian = make_debian(say)
    packages = packages_in(directory)
    made = MadeSet(debian.directory, key_of(packages + PREPARED, debian.name), directory)
    with locked(CACHE / ".making-set"):
        if not made.is_there():
            say("installing the packages in it, and keeping its state")
            keep_state(made, debian.disk, "qcow2", debian.state, lambda machine: install(machine, packages))
        remove_unused_states(debian.directory, (debian.name, made.name))
    CURRENT.parent.mkdir(exist_ok=True)
    CURRENT.write_text(f"{made.directory}\n{made.name}\n{pathlib.Path(directory).resolve()}\n")
    return made


def current():
    """The set that was made last for this tree."""
    made = MadeSet(*CURRENT.read_text().splitlines()) if CURRENT.exists() else None
    if made is None or not made.is_there():
        raise MachineError("there is no set yet; make it with: ./virtual-set make")
    return made


def install(machine, packages):
    for file in packages + PREPARED:
        shutil.copy(file, machine.share)
    code, output = machine.run((HERE / "prepare").read_text())
    if code:
        raise MachineError(f"the packages could not be installed:\n{output}")


def unused(path):
    return time.time() - path.stat().st_mtime > DAY


def remove_others(kept):
    """Sets of other recipes that nobody used for a day; another tree may have another recipe."""
    for other in CACHE.glob("set-*"):
        if other != kept and unused(other):
            with contextlib.suppress(OSError), open(other / "in-use", "w", encoding="ascii") as used:
                fcntl.flock(used, fcntl.LOCK_EX | fcntl.LOCK_NB)
                shutil.rmtree(other)


def remove_unused_states(directory, kept):
    with contextlib.suppress(OSError), open(directory / "in-use", "w", encoding="ascii") as used:
        fcntl.flock(used, fcntl.LOCK_EX | fcntl.LOCK_NB)
        for disk in directory.glob("*.qcow2"):
            if disk.stem not in kept and unused(disk):
                disk.with_suffix(".state").unlink(missing_ok=True)
                disk.unlink()
