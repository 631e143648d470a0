# SPDX-License-Identifier: Apache-2.0
"""Updates as on a set: with its service manager, its logins, its drives and its kernel."""
import contextlib
import json

from machine import wait_until
from support import expect, succeed, the_set

FLASH = "/var/lib/fw-components/"
EMPS = "/opt/usr/apps/appbinarymanager/emps"
LIMIT = 300
SEEN = "--seen--"
# So much time for each module that none is given up on a busy host.
PATIENT = f"""
for info in /lib/firmware/ext/*/info.json /root/drive/*/info.json; do
  sed -i 's/"expected_time" : [0-9]*/"expected_time" : {LIMIT}/' $info
done
fw-pack emp /root/drive/wififw/wififw.bin --id wifiempfw --version 1.5.0 --expected-time {LIMIT} \\
  --signing-key /root/maker/signing.key --output /opt/usr/apps/appbinarymanager/wifiempfw.img >/dev/null
fw-pack emp /lib/firmware/ext/tunerfw/tunerfw.bin --id tunerempfw --version 2.5.0 --expected-time {LIMIT} \\
  --signing-key /root/maker/signing.key --output /opt/media/packages/tunerempfw.img >/dev/null
"""
SLOW_WIFI = f'echo "write_kib_per_second = 150" >{FLASH}wififw.component\n'
QUICK_WIFI = f"rm {FLASH}wififw.component\n"


@contextlib.contextmanager
def patient_set():
    with the_set().machine() as machine:
        succeed(machine, PATIENT)
        yield machine


def versions(machine):
    """The active version of each module's firmware."""
    listed = json.loads(succeed(machine, "fw-update list --json"))
    return {module["library"]: module["version"] for module in listed["modules"]}


def has_begun(job):
    """Waits until the module writes its firmware."""
    job.wait_for('"percent":1', LIMIT)


def during(machine, update, script):
    """Runs a script when a slow update of the Wi-Fi module has begun: what the script printed,
    its exit code, and the update's result."""
    machine.run(SLOW_WIFI)
    seen = succeed(machine, f"""
        {update} --progress ndjson --json >/tmp/update 2>&1 &
        until grep -qs '^ *[1-9][0-9]' {FLASH}wififw.progress; do
          sleep 0.05
          kill -0 $! || {{ cat /tmp/update; exit 1; }}
        done
        code=0
        ( {script} ) >/tmp/script 2>&1 || code=$?
        wait $! || true
        echo {SEEN}; echo $code; tail -n 1 /tmp/update; cat /tmp/script""")
    code, ended, *printed = seen.split(f"{SEEN}\n", 1)[1].split("\n")
    return int(code), "\n".join(printed), json.loads(ended)


def nothing_is_left(machine):
    # udev looks into a loop device for a moment when its mount is gone.
    left = succeed(machine, f"udevadm settle\nfindmnt --noheadings --raw | grep {EMPS} || true\nlosetup --list --noheadings\n"
                            f"ls {FLASH}*.new 2>/dev/null || true\nsystemctl --failed --plain --no-legend")
    expect(left == "", "no mount, loop device, unfinished file or failed unit is left", left)
    free = json.loads(succeed(machine, "fw-update lock status --json || true"))
    expect(free["state"] in ("free", "absent"), "the update lock is free", free)


def the_service_starts_with_a_request_and_keeps_to_its_unit():
    with patient_set() as machine:
        expect(succeed(machine, "systemctl is-active fw-privileged.service || true") == "inactive",
               "the service waits for a request")
        succeed(machine, "fw-update update libwifi --caller debug")
        status = dict(line.split(":\t", 1) for line in succeed(
            machine, "cat /proc/$(systemctl show --value --property MainPID fw-privileged)/status").splitlines())
        # CAP_DAC_READ_SEARCH, CAP_SYS_ADMIN and CAP_MKNOD.
        expect((status["Seccomp"], status["NoNewPrivs"], status["CapBnd"]) == ("2", "1", "0000000008200004"),
               "it has its filter of system calls, and no right but its own", status)
        group = succeed(machine, "cat /proc/$(systemctl show --value --property MainPID fw-privileged)/cgroup")
        expect(group == "0::/system.slice/fw-privileged.service", "it is in its control group", group)
        log = succeed(machine, "journalctl --unit fw-privileged --output cat --no-pager")
        expect("wifiempfw" in log and "not permitted" not in log, "it mounted the package, and was refused nothing", log)
        expect(versions(machine)["libwifi"] == "1.5.0", "the module was updated", log)
        nothing_is_left(machine)


def a_package_is_downloaded_and_mounted_through_a_loop_device():
    with patient_set() as machine:
        succeed(machine, "fw-update download libtuner --wait")
        succeed(machine, "fw-update pending --caller debug")
        mounted = succeed(machine, f"findmnt --noheadings --raw --output SOURCE,FSTYPE,OPTIONS {EMPS}/tunerempfw")
        source, kind, options = mounted.split(" ")
        expect(source.startswith("/dev/loop") and kind == "squashfs" and {"ro", "nosuid", "nodev"} <= set(options.split(",")),
               "the package is mounted, and cannot be written", mounted)
        backing = succeed(machine, f"losetup --noheadings --output BACK-FILE {source}")
        expect(backing == "/opt/usr/apps/appbinarymanager/tunerempfw.img", "from the image itself", backing)
        succeed(machine, "fw-update update libtuner --caller debug; fw-update update libwifi --caller debug")
        expect(versions(machine)["libtuner"] == "2.5.0", "the module was updated", versions(machine))
        nothing_is_left(machine)


def members_of_the_group_may_ask_and_others_not():
    with patient_set() as machine:
        # Everybody may make packages here, so that it is the service alone that refuses.
        succeed(machine, "getent group fwupdate || groupadd --system fwupdate; useradd --groups fwupdate member; useradd stranger\n"
                         f"chmod 1777 {EMPS} {EMPS}/..; systemctl stop fw-privileged.service")
        ask = "setpriv --reuid {0} --regid {0} --init-groups fw-platform-check --only mount"
        code, output = machine.run(ask.format("member"))
        expect(code == 0 and " 0 not checked" in output, "a member mounts a package", output)
        code, output = machine.run(ask.format("stranger"))
        expect(code == 1 and "PS_Mount returned" in output, "a stranger does not", output)


def a_run_over_all_modules_holds_a_shutdown_up():
    with patient_set() as machine:
        code, seen, ended = during(machine, "fw-update update-all",
                                   "systemd-inhibit --list --no-legend --no-pager\n"
                                   "systemctl poweroff --check-inhibitors=yes && exit 3 || true")
        expect("fw-update-control" in seen.splitlines()[0] and "block" in seen.splitlines()[0],
               "logind holds the power for it", seen)
        expect(code == 0 and "Operation inhibited by" in seen, "a shutdown is refused, with the reason", seen)
        expect(ended["exitCode"] == 0, "the run ends as if nothing had been asked for", ended)
        held = succeed(machine, "systemd-inhibit --list --no-legend --no-pager")
        expect("fw-update-control" not in held, "the power is given back", held)
        expect(versions(machine)["libwifi"] == "1.5.0", "the module was updated", versions(machine))
        machine.start("systemctl poweroff --check-inhibitors=yes")
        wait_until(lambda: not machine.runs(), LIMIT, "shutdown")


def a_power_cut_in_mid_update_leaves_the_old_firmware():
    with patient_set() as machine:
        succeed(machine, f"fw-update update libtuner\n{SLOW_WIFI}sync")
        job = machine.start("fw-update update libwifi --caller debug --progress ndjson")
        has_begun(job)
        machine.reset()
        seen = versions(machine)
        expect((seen["libtuner"], seen["libwifi"]) == ("2.0.0", "0.0.0"), "what was there before is there", seen)
        succeed(machine, QUICK_WIFI + "fw-update update libwifi --caller debug")
        expect(versions(machine)["libwifi"] == "1.5.0", "the next update works", versions(machine))
        nothing_is_left(machine)


def a_restart_in_mid_update_leaves_the_old_firmware():
    with patient_set() as machine:
        succeed(machine, SLOW_WIFI)
        starts = machine.console().count("set-job: ready")
        machine.start("systemd-run --quiet --unit update fw-update update libwifi --caller debug --progress ndjson\n"
                      f"until grep -qs '^ *[1-9][0-9]' {FLASH}wififw.progress; do sleep 0.1; done\n"
                      "systemctl reboot")
        machine.wait_until_ready(starts + 1)
        seen = versions(machine)
        expect(seen["libwifi"] == "0.0.0", "what was there before is there", seen)
        succeed(machine, QUICK_WIFI + "fw-update update libwifi --caller debug")
        expect(versions(machine)["libwifi"] == "1.5.0", "the next update works", versions(machine))
        nothing_is_left(machine)


def make_drive(machine):
    """The bytes of a drive with a firmware image, made in the set."""
    succeed(machine, """
      truncate --size 16M /tmp/drive; mkfs.vfat /tmp/drive >/dev/null
      mount -o loop /tmp/drive /mnt; cp -r /root/drive/. /mnt/; umount /mnt; mv /tmp/drive /share/drive.img""")
    return machine.share / "drive.img"


def plug(machine, drive, record=None):
    machine.plug(drive, record)
    succeed(machine, "for try in $(seq 300); do mountpoint --quiet /opt/media/USBDriveA && exit; sleep 0.1; done; "
                     "journalctl --no-pager -n 20; false")


def a_usb_drive_pulled_out_in_mid_update_harms_nothing():
    with patient_set() as machine:
        drive = make_drive(machine)
        plug(machine, drive)
        succeed(machine, SLOW_WIFI)
        # What was read before is not to be had from memory.
        machine.start("while sleep 0.1; do echo 1 >/proc/sys/vm/drop_caches; done")
        job = machine.start("fw-update update libwifi --caller factory --progress ndjson --json")
        has_begun(job)
        machine.unplug()
        job.wait(LIMIT)
        ended = json.loads(job.output().strip().splitlines()[-1])
        expect(ended["exitCode"] == 6, "the module fails, as its image is gone", ended)
        expect(versions(machine)["libwifi"] == "0.0.0", "the old firmware stays", versions(machine))
        plug(machine, drive)
        succeed(machine, QUICK_WIFI + "fw-update update libwifi --caller factory")
        expect(versions(machine)["libwifi"] == "1.4.2", "plugged in again, it is updated from", versions(machine))
        nothing_is_left(machine)


def a_clock_that_is_put_back_does_not_disturb_an_update():
    with patient_set() as machine:
        code, seen, ended = during(machine, "fw-update update libwifi --caller debug", 'date --set "-2 days"')
        expect(code == 0, "the clock is put back", seen)
        expect(ended["outcome"] == "updated" and 0 < ended["elapsedSeconds"] < LIMIT, "it is updated", ended)
        nothing_is_left(machine)


def a_clock_that_is_put_forward_ends_the_wait_and_nothing_else():
    # The library waits by the system's clock, on purpose; what it does then must be told.
    with patient_set() as machine:
        code, seen, ended = during(machine, "fw-update update libwifi --caller debug", 'date --set "+1 year"')
        expect(code == 0, "the clock is put forward", seen)
        expect(ended["outcome"] == "unexpected-error" and "clock" in ended["message"], "it says why it ended", ended)
        expect(versions(machine)["libwifi"] == "0.0.0", "the old firmware stays", versions(machine))
        succeed(machine, QUICK_WIFI + "fw-update update libwifi --caller debug")
        expect(versions(machine)["libwifi"] == "1.5.0", "the next update works", versions(machine))
        nothing_is_left(machine)


def a_full_disk_is_named_and_harms_nothing():
    with patient_set() as machine:
        succeed(machine, "fallocate --length $(df --output=avail --block-size=1 / | tail -n 1) /filler || true\n"
                         "dd if=/dev/zero of=/filler2 bs=4096 status=none 2>/dev/null || true")
        code, output = machine.run("fw-update update libtuner 2>&1")
        expect(code == 6 and "No space left" in output, "the update says that the disk is full", output)
        expect(versions(machine)["libtuner"] == "0.0.0", "the old firmware stays", versions(machine))
        succeed(machine, "rm /filler /filler2; fw-update update libtuner")
        expect(versions(machine)["libtuner"] == "2.0.0", "with room, it is updated", versions(machine))
        nothing_is_left(machine)


def a_read_only_root_is_named_and_harms_nothing():
    with patient_set() as machine:
        # Of the service manager's files some are always open; so it is for the update alone.
        code, output = machine.run("unshare --mount sh -c 'mount -o remount,bind,ro / && exec fw-update update libtuner 2>&1'")
        expect(code != 0 and "Read-only file system" in output, "the update says why it cannot be", output)
        expect(versions(machine)["libtuner"] == "0.0.0", "the old firmware stays", versions(machine))
        succeed(machine, "fw-update update libtuner")
        nothing_is_left(machine)


def the_platform_keeps_what_the_library_relies_on():
    with patient_set() as machine:
        code, output = machine.run("fw-platform-check", LIMIT)
        expect(code == 0 and " 0 broken, 1 not checked" in output, "all but one is checked, and nothing is broken", output)
        expect("--unsigned-package" in output, "an unsigned package has to be named", output)


def a_module_that_is_too_slow_is_given_up_in_time():
    with patient_set() as machine:
        succeed(machine, f"echo 'stall_at_percent = 40' >{FLASH}tunerfw.component\n"
                         f"sed -i 's/: {LIMIT}/: 1/' /lib/firmware/ext/tunerfw/info.json")
        code, output = machine.run("fw-update update libtuner --json", LIMIT)
        expect(code == 7 and json.loads(output)["elapsedSeconds"] >= 3, "it is given up after its time and two seconds", output)
        succeed(machine, f"rm {FLASH}tunerfw.component\n{PATIENT}fw-update update libtuner")
        expect(versions(machine)["libtuner"] == "2.0.0", "the next update works", versions(machine))
        nothing_is_left(machine)


def a_lock_whose_holder_was_killed_is_given_back():
    with patient_set() as machine:
        code, seen, _ = during(machine, "fw-update update libwifi --caller debug",
                               "fw-update lock status; kill -KILL $!\n"
                               "while kill -0 $! && ! grep -qs '^State:.*Z' /proc/$!/status; do sleep 0.05; done\n"
                               "fw-update lock status")
        expect(code == 0 and "1 process may hold it" in seen, "the update holds the lock", seen)
        expect("The update lock is stuck" in seen, "killed, it leaves it taken", seen)
        succeed(machine, "fw-update lock recover\n" + QUICK_WIFI + "fw-update update libwifi --caller debug")
        expect(versions(machine)["libwifi"] == "1.5.0", "the next update works", versions(machine))
        nothing_is_left(machine)


def updates_of_two_processes_take_turns():
    with patient_set() as machine:
        code, seen, ended = during(machine, "fw-update update libwifi --caller debug",
                                   "fw-update update libtuner --progress ndjson")
        expect(code == 0 and '"event":"waiting"' in seen, "the second waits for the first, and works then", seen)
        expect(ended["outcome"] == "updated", "the first was not disturbed", ended)
        nothing_is_left(machine)


def little_memory_harms_nothing():
    with patient_set() as machine:
        code, output = machine.run("systemd-run --quiet --wait --pipe --property MemoryMax=8M --property MemorySwapMax=0 "
                                   "fw-update update libtuner 2>&1")
        expect(code == 0, "an update needs little memory", output)
        expect(versions(machine)["libtuner"] == "2.0.0", "and does its work", versions(machine))
        nothing_is_left(machine)


TESTS = (the_service_starts_with_a_request_and_keeps_to_its_unit,
         a_package_is_downloaded_and_mounted_through_a_loop_device,
         members_of_the_group_may_ask_and_others_not,
         a_run_over_all_modules_holds_a_shutdown_up,
         a_power_cut_in_mid_update_leaves_the_old_firmware,
         a_restart_in_mid_update_leaves_the_old_firmware,
         a_usb_drive_pulled_out_in_mid_update_harms_nothing,
         a_clock_that_is_put_back_does_not_disturb_an_update,
         a_clock_that_is_put_forward_ends_the_wait_and_nothing_else,
         a_full_disk_is_named_and_harms_nothing,
         a_read_only_root_is_named_and_harms_nothing,
         the_platform_keeps_what_the_library_relies_on,
         a_module_that_is_too_slow_is_given_up_in_time,
         a_lock_whose_holder_was_killed_is_given_back,
         updates_of_two_processes_take_turns,
         little_memory_harms_nothing)
