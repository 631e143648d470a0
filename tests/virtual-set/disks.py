# SPDX-License-Identifier: Apache-2.0
"""What is written to disks and drives of the set, and what a power cut leaves of it."""
import json
import pathlib
import shutil
import sys

import disk_record
import programs
from flows import FLASH, make_drive, patient_set, plug, versions
from support import expect, succeed

sys.path.append(str(pathlib.Path(__file__).resolve().parent.parent / "power-cut"))

import judging  # noqa: E402

STATES = 120
BEGIN, UPDATED = "begin", "updated"
KIBIBYTES = 16384
FILE_SYSTEM = KIBIBYTES - 4  # the last sectors of the disk are for marks
MARK_SECTOR = KIBIBYTES * 2 - 1
FIRMWARE = "tunerfw.flash"
KEY = "--key-file /usr/share/fw-update/package.key"


def record_update(machine, make, mount_options, careless=""):
    """Records an update whose firmware is written to a disk of its own: what the firmware was
    before and is then. careless: the care that is taken away from it."""
    succeed(machine, f"""
      fw-update update libtuner
      head -c 200000 /dev/urandom >/root/new.bin
      fw-pack image /root/new.bin --version 3.0.0 --expected-time 300 --type builtin --name tunerfw --into /lib/firmware/ext
      truncate --size {KIBIBYTES}K /tmp/base
      {make} /tmp/base {FILE_SYSTEM}
      mount -o loop /tmp/base /mnt
      cp -r {FLASH}. /mnt/
      umount /mnt
      mv /tmp/base /share/base""")
    share = machine.share
    shutil.copy(share / "base", share / "disk")
    machine.attach(share / "disk", share / "record")
    update = "fw-update update libtuner"
    if careless:
        programs.put(machine, programs.CARELESS)
        update = f"LD_PRELOAD={programs.BUILD}/{programs.CARELESS} CARELESS={careless} {update}"
    succeed(machine, f"""
      disk=/dev/disk/by-id/virtio-attached
      for try in $(seq 300); do [ -e $disk ] && break; sleep 0.1; done
      mark() {{ printf '%-512s' "$1" | dd of=$disk oflag=direct seek={MARK_SECTOR} count=1 iflag=fullblock status=none; }}
      mount {mount_options} $disk {FLASH}
      sha256sum <{FLASH}{FIRMWARE} | cut -d' ' -f1 >/share/old
      sync
      mark {BEGIN}
      {update}
      mark {UPDATED}
      sha256sum <{FLASH}{FIRMWARE} | cut -d' ' -f1 >/share/new
      umount {FLASH}""")
    machine.detach()
    disk_record.put_marks(share / "record", share / "marked", MARK_SECTOR)
    return [(share / name).read_text().strip() for name in ("old", "new")]


def play(machine, kind, options):
    """Cuts the power, and has the set's kernel mount what is left: its contents."""
    programs.put(machine, programs.PLAYER)
    succeed(machine, f"""
      mkdir /dev/shm/cut
      cp /share/base /share/marked /dev/shm/cut
      {programs.BUILD}/{programs.PLAYER} --base /dev/shm/cut/base --log /dev/shm/cut/marked --work /dev/shm/cut \\
        --from {BEGIN} --file-system {kind} --mount-options "{options}" --states {STATES} >/share/contents
      cp -r /dev/shm/cut/trees /share/trees""", programs.LIMIT)
    return [json.loads(line) for line in (machine.share / "contents").read_text().splitlines()]


def judge(contents, trees, old, new):
    """How many states are broken, how many are old after success, how many come after it, and all."""
    rule = judging.Kept(FIRMWARE, {old, new}, UPDATED, {new})
    seen = {"states": 0, "after": 0, "broken": 0, "old": 0}
    for content in contents:
        for marks, states in content["after"].items():
            reported = [UPDATED][:int(marks) - 1]
            broken = content["unreadable"] or judging.judge_files([rule], trees / content["tree"], reported)
            seen["states"] += states
            seen["after"] += states if reported else 0
            seen["broken"] += states if broken else 0
            seen["old"] += states if "is old although" in " ".join(broken) else 0
    return seen


def cut(make, kind, mount_options, options="", careless=""):
    programs.build(*(pathlib.Path(program).stem for program in (programs.PLAYER, programs.CARELESS)))
    with patient_set() as machine:
        old, new = record_update(machine, make, mount_options, careless)
        expect(old != new, "the record is of another firmware")
        contents = play(machine, kind, options)
        seen = judge(contents, machine.share / "trees", old, new)
        print(f"{kind}: {seen['states']} states, {seen['after']} of them after success, {len(contents)} different "
              f"contents: {seen['broken']} broken, {seen['old']} old after success", flush=True)
        expect(seen["after"] > 0 and len(contents) > 1, "the cut comes before and after the success", seen)
        return seen


def cut_on_ext4(careless=""):
    # Without what this file system does by itself for careless programs.
    return cut("mkfs.ext4 -q -F -E lazy_itable_init=0,lazy_journal_init=0,nodiscard", "ext4",
               "-o noatime,noauto_da_alloc", "noauto_da_alloc", careless)


def a_power_cut_at_every_write_leaves_the_old_or_the_new_firmware():
    seen = cut_on_ext4()
    expect(seen["broken"] == 0, "the firmware is the old or the new one, and the new one after success", seen)


def a_power_cut_breaks_an_update_that_puts_no_file_on_the_disk():
    seen = cut_on_ext4("file")
    expect(seen["broken"] > 0, "firmware is torn", seen)


def a_power_cut_breaks_firmware_that_lies_on_vfat():
    # So docs/interruption.md warns of it; when it is true no longer the warning can go.
    seen = cut("mkfs.vfat", "vfat", "-o noatime")
    expect(seen["broken"] > 0, "vfat does not keep what was put on the disk", seen)


def a_usb_drive_is_read_and_not_written():
    with patient_set() as machine:
        succeed(machine, f"""fw-pack usb /lib/firmware/ext/tunerfw/tunerfw.bin --version 3.0.0 {KEY} \\
                  --signing-key /root/maker/signing.key --output /root/drive/tunerfw.bin""")
        drive = make_drive(machine)
        before = drive.read_bytes()
        plug(machine, drive, machine.share / "record")
        # Otherwise the kernel notes on the drive when a file was read.
        succeed(machine, "mount -o remount,noatime /opt/media/USBDriveA")
        succeed(machine, f"fw-update update libwifi --caller factory\nfw-update usb estimate {KEY}\nfw-update usb apply {KEY}\n"
                         "umount /opt/media/USBDriveA")
        machine.unplug()
        seen = versions(machine)
        expect((seen["libwifi"], seen["libtuner"]) == ("1.4.2", "3.0.0"), "both were updated from the drive", seen)
        # There the kernel notes with each mount that it is mounted.
        written = disk_record.written_sectors(machine.share / "record") - {0}
        expect(not written, "nothing was written to the drive", sorted(written))
        expect(drive.read_bytes()[512:] == before[512:], "it holds what it held")


TESTS = (a_power_cut_at_every_write_leaves_the_old_or_the_new_firmware,
         a_power_cut_breaks_an_update_that_puts_no_file_on_the_disk,
         a_power_cut_breaks_firmware_that_lies_on_vfat,
         a_usb_drive_is_read_and_not_written)
