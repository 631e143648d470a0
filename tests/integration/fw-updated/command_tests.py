# SPDX-License-Identifier: Apache-2.0
"""usage: command_tests.py TEST: one test of fw-update's commands through the update service, on a device.

Each function whose name begins with a capital is a test.
"""
import collections
import json
import os
import pathlib
import re
import shutil
import signal
import subprocess
import tempfile

from service_client import (ADDRESS, KEY, NAME, PATH, Bus, Client, Service, TakenLock, add_group, as_user, held,
                            need_other_users, package, run_named_test, slow, usb_package, wait_for)

STRANGER = 65534  # a user
WAITS = re.compile(r': waiting for another update to finish|"event":"waiting"')
# What updates change on a device.
CHANGED = ("/var/lib/fw-components", "/opt/usr/apps/appbinarymanager", "/opt/media/USBDriveA", "/opt/usr/share/sbox")

Ended = collections.namedtuple("Ended", "code output errors")


def start(**environment):
    connection = Bus().connect()
    return Service(connection, **environment), Client(connection)


def equal(seen, expected):
    assert seen == expected, f"\n{seen!r}\ninstead of\n{expected!r}"


def run(*words, **environment):
    done = subprocess.run(["fw-update", *words], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, check=False,
                          env={**os.environ, **environment})
    return Ended(done.returncode, done.stdout, done.stderr)


def without_times(text):
    text = re.sub(r"[0-9.]+ s\b", "T s", text)
    return re.sub(r'("(?:elapsedSeconds|secondsLeft)" ?: ?)[0-9.]+', r"\1T", text)


def is_progress(line):
    return re.search(r'\d %, |: [0-9.T]+ s( of about .*)?$|"event":"(progress|module-start)"|checking the image|\d+ bytes$', line) is not None


def told(ended):
    """What does not depend on how quick the machine is."""
    lines = without_times(ended.output).splitlines()
    return ended.code, [line for line in lines if not (is_progress(line) or WAITS.search(line))], without_times(ended.errors)


def has_progress(ended):
    return any(map(is_progress, ended.output.splitlines()))


class State:
    """Puts the device back as it is now."""

    def __init__(self):
        self.saved = pathlib.Path(tempfile.mkdtemp())
        for path in CHANGED:
            shutil.copytree(path, self.saved / path[1:], symlinks=True)

    def restore(self):
        mounts = [line.split()[1] for line in pathlib.Path("/proc/mounts").read_text(encoding="utf-8").splitlines()]
        for path in CHANGED:
            for place in filter(lambda mount: mount.startswith(path + "/"), mounts):
                subprocess.run(["umount", place], check=True)
            for entry in pathlib.Path(path).iterdir():
                if entry.is_dir():
                    shutil.rmtree(entry)
                else:
                    entry.unlink()
            shutil.copytree(self.saved / path[1:], path, symlinks=True, dirs_exist_ok=True)


def does_the_same(words, code, direct=(), forms=((), ("--json",), ("--progress", "ndjson")), progress=None):
    """The command by itself and through the service, each from the same state of the device."""
    state = State()
    for form in forms:
        alone = run(*words, *direct, *form)
        state.restore()
        served = run(*words, "--service", *form)
        state.restore()
        equal(told(served), told(alone))
        equal(served.code, code)
        if progress is not None and form != ("--json",):
            equal((has_progress(served), has_progress(alone)), (progress, progress))


def asks_the_same(*words, code=0):
    for form in ((), ("--json",)):
        served = run(*words, "--service", *form)
        equal(served, run(*words, *form))
        equal(served.code, code)
        assert served.output or served.errors, words


def AsksTheSame():
    start()
    run("update", "libtuner")
    run("update", "libpanel")
    package("wififw", "wifiempfw", "4.0.0", "/opt/media/USBDriveA")

    asks_the_same("list")
    asks_the_same("pending", "--caller", "lsm")
    asks_the_same("pending", "--caller", "debug", "--data", "USB")
    asks_the_same("lock", "status")
    asks_the_same("history")
    asks_the_same("history", "--failed", "--module", "libpanel")
    asks_the_same("history", "--since", "2037-01-01")
    asks_the_same("history", "show", "2")
    asks_the_same("history", "show", "77", code=1)


def AsksTheSameOfABrokenModule():
    start()
    pathlib.Path("/prd/usr/fwupdate/controls/libbroken.so").write_text("no library", encoding="ascii")

    asks_the_same("list", code=9)
    asks_the_same("pending", code=9)


def told_of_an_interrupted_run(*words):
    """What the command says, when it tells of a run that was cut off; what the service asks by itself may have been first."""
    directory = pathlib.Path("/run/fw-update")
    directory.mkdir(mode=0o755, exist_ok=True)
    (directory / "update-all.lock").touch()
    (directory / "update-all.json").write_text('{"number": 1, "modules": ["libcut-off"]}', encoding="ascii")
    ended = run(*words)
    return ended if "libcut-off" in ended.errors + ended.output else None


def TellsOfAnInterruptedRunTheSame():
    start()
    for form in ((), ("--json",)):
        alone, served = (wait_for(lambda way=way: told_of_an_interrupted_run("list", *way, *form), f"{way} tells of the run")
                         for way in ((), ("--service",)))
        equal(served, alone)
        equal("libcut-off" in served.errors, form == ())


def UpdatesTheSame():
    slow("tunerfw", 2000)
    start()

    does_the_same(("update", "libtuner"), 0, progress=True)
    does_the_same(("update", "libpanel"), 5, progress=False)
    does_the_same(("update", "libEXT-remote"), 0)
    does_the_same(("update", "libnothing"), 4, progress=False)
    run("update", "libtuner")
    does_the_same(("update", "libtuner", "--caller", "factory-automation"), 3)


def UpdatesAllTheSame():
    slow("tunerfw", 2000)
    pathlib.Path("/var/lib/fw-components/panelfw.component").write_text("fail_at_percent = 60\n", encoding="ascii")
    start()
    package("tunerfw", "tunerempfw", "4.0.0")
    package("panelfw", "panelempfw", "4.1.0", "/opt/usr/share/sbox")

    does_the_same(("update-all",), 6, progress=True)
    for image in pathlib.Path("/opt/usr/apps/appbinarymanager").glob("*.img"):
        image.unlink()
    does_the_same(("update-all",), 3, progress=False)


def EstimatesAndAppliesPackagesTheSame():
    slow("tunerfw", 2000)
    start()
    usb_package()

    does_the_same(("usb", "estimate"), 0, direct=("--key-file", KEY), forms=((), ("--json",)))
    does_the_same(("usb", "apply"), 0, direct=("--key-file", KEY), progress=True)
    does_the_same(("usb", "apply", "/tmp"), 3, direct=("--key-file", KEY), progress=False)
    os.chdir("/opt/media")
    equal(json.loads(run("usb", "estimate", "USBDriveA", "--service", "--json").output)["directory"],
          "/opt/media/USBDriveA/")
    does_the_same(("usb", "apply", "/nowhere"), 2, direct=("--key-file", KEY), progress=False)


def DownloadsTheSame():
    start()

    does_the_same(("download", "libtuner", "--wait"), 0)
    does_the_same(("download", "libnothing", "--wait"), 4)


def SaysOfUncheckedSignaturesTheSame():
    slow("tunerfw", 2000)
    start()
    usb_package()
    subprocess.run(["mount", "--bind", "/dev/null", "/usr/lib/libkZAQUser.so"], check=True)

    does_the_same(("usb", "estimate"), 0, direct=("--key-file", KEY), forms=((), ("--json",)))
    does_the_same(("usb", "apply"), 0, direct=("--key-file", KEY), progress=True)


def on_a_terminal(*words):
    done = subprocess.run(["script", "-qec", " ".join(["fw-update", *words]), "/dev/null"], stdout=subprocess.PIPE,
                          stdin=subprocess.DEVNULL, text=True, check=False, env={**os.environ, "TERM": "xterm"})
    return done.returncode, done.stdout


def DrawsTheSameLine():
    slow("tunerfw", 1000)
    start()
    state = State()

    code, alone = on_a_terminal("update", "libtuner")
    state.restore()
    served_code, served = on_a_terminal("update", "libtuner", "--service")

    equal((code, served_code), (0, 0))
    bar = re.compile(r"libtuner  \[#+\.+\]  +\d+ %  \d+ s of about 10 s")
    assert bar.search(alone) and bar.search(served), (alone, served)
    equal(without_times(served.splitlines()[-1].split("libtuner was")[-1]),
          without_times(alone.splitlines()[-1].split("libtuner was")[-1]))


def GoesOnWithAServiceThatStartsAgain():
    slow("panelfw", 500)
    service, client = start()
    with subprocess.Popen(["fw-update", "update", "libpanel", "--caller", "lsm", "--service"], stdout=subprocess.PIPE,
                          text=True) as command:
        wait_for(lambda: client.properties(PATH, NAME)["Jobs"], "there is a job")
        client.wait_for_state(PATH + "/job/1", "updating")
        service.kill(signal.SIGKILL)
        Service(client.connection)

        output = command.communicate()[0]

    equal(command.returncode, 0)
    assert "libpanel was updated. Version 0.0.0 -> 2.1.0 in " in output.splitlines()[-1], output


def SaysThatItWaitsForAnotherJob():
    _, client = start()
    lock = TakenLock()
    first = client.manager().Update("libpanel", "lsm", "")
    client.wait_for_state(first, "waiting-for-lock")

    with subprocess.Popen(["fw-update", "update", "libtuner", "--service"], stdout=subprocess.PIPE, text=True) as waits:
        said = waits.stdout.readline()
        lock.give_back()
        output = waits.communicate()[0]

    equal(waits.returncode, 0)
    equal(without_times(said), "libtuner: waiting for another update to finish, T s\n")
    equal(output.splitlines()[0], "libtuner: update requested by upgrade-app")
    equal(client.state(first), "done")


def SaysThatTheBusHasEnded():
    slow("panelfw", 500)
    bus = Bus()
    client = Client(bus.connect())
    Service(client.connection)
    with subprocess.Popen(["fw-update", "update", "libpanel", "--caller", "lsm", "--service"], stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, text=True) as command:
        wait_for(lambda: client.properties(PATH, NAME)["Jobs"], "there is a job")
        client.connection.set_exit_on_disconnect(False)
        bus.process.kill()

        _, errors = command.communicate()

    equal(command.returncode, 1)
    assert errors.startswith("fw-update: The bus cannot be reached: "), errors


def ListsJobs():
    slow("panelfw", 500, expected_time=600)
    service, client = start()
    equal(run("jobs"), Ended(0, "The update service has no jobs.\n", ""))
    manager = client.manager()
    client.result(manager.Update("libpanel", "", ""))
    second, _ = manager.Update("libpanel", "lsm", ""), manager.UpdateAll()
    client.wait_for_state(second, "updating")

    with held(service):
        jobs = run("jobs")
        document = json.loads(run("jobs", "--json").output)

    lines = [re.sub(r"\d+ %", "P", line).split() for line in jobs.output.splitlines()]
    equal(lines, [["NO", "KIND", "MODULE", "STATE", "PERCENT", "OUTCOME"],
                  ["1", "update", "libpanel", "done", "-", "refused-image"],
                  ["2", "update", "libpanel", "updating", "P", "-"],
                  ["3", "update-all", "-", "queued", "-", "-"]])
    equal([(job["number"], job["state"], job.get("exitCode")) for job in document["jobs"]],
          [(1, "done", 5), (2, "updating", None), (3, "queued", None)])
    equal([type(job.get("percent")) for job in document["jobs"]], [type(None), int, type(None)])


def WatchesAJobUntilItsEnd():
    slow("panelfw", 500)
    _, client = start()
    path = client.manager().Update("libpanel", "lsm", "")
    client.wait_for_state(path, "updating")

    named, unnamed = run("watch", "1"), run("watch", "1", "--json")

    equal(named.code, 0)
    assert re.match(r"libpanel: \d+ %, \d+ s of about 20 s$", named.output.splitlines()[0]), named
    equal(named.output.splitlines()[-1], str(client.properties(path)["Sentence"]))
    equal(json.loads(unnamed.output), json.loads(client.properties(path)["Document"]) | {"command": "watch"})


def WatchesWhatIsAtWorkAndWaitsForTheNextJob():
    _, client = start()
    lock = TakenLock()
    with subprocess.Popen(["fw-update", "watch"], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True) as watch:
        wait_for(lambda: b"fw-update" in pathlib.Path(f"/proc/{watch.pid}/cmdline").read_bytes(), "it runs")
        client.manager().Update("libpanel", "lsm", "")
        watch.stdout.readline()  # it has found the job
        lock.give_back()

        output, _ = watch.communicate()

    equal(watch.returncode, 0)
    assert "libpanel was updated." in output, output


def sleeps_in_a_poll_of_one_second(process):
    """The second and third argument of the system call that it waits in: how many descriptors, and for how long."""
    return pathlib.Path(f"/proc/{process.pid}/syscall").read_text(encoding="ascii").split()[2:4] == ["0x1", "0x3e8"]


def RestsWhileThereIsNoJob():
    start()
    with subprocess.Popen(["fw-update", "watch"]) as watch:
        try:
            wait_for(lambda: sleeps_in_a_poll_of_one_second(watch), "it waits for a job and takes no time of the processor")
        finally:
            watch.kill()


def EndsAsTheWatchedJob():
    _, client = start()
    client.result(client.manager().Update("libpanel", "", ""))

    watched = run("watch", "1")

    alone = run("update", "libpanel")
    equal((watched.code, watched.output, watched.errors), (5, "", alone.errors))
    equal(run("watch", "9"), Ended(1, "", "fw-update: There is no job 9.\nSee which there are: fw-update jobs\n"))


def CancelsAJob():
    slow("panelfw", 500, expected_time=600)
    service, client = start()
    manager = client.manager()
    first, second = manager.Update("libpanel", "lsm", ""), manager.Update("libtuner", "", "")
    client.wait_for_state(first, "updating")

    with held(service):
        equal(run("cancel", "2"), Ended(0, "Job 2 is cancelled.\n", ""))

        equal(client.result(second)["Outcome"], "stopped")
        equal(run("watch", "2"), Ended(1, "", "fw-update: It was cancelled before it began.\n"))
        equal(run("cancel", "1"),
              Ended(1, "", "fw-update: The job has reached a module and cannot be cancelled any more.\n"))
        equal(json.loads(run("cancel", "1", "--json").output)["outcome"], "too-late")
        equal(run("cancel", "9").code, 1)


def SaysThatThereIsNoServiceOrNoBus():
    bus = Bus()
    bus.connect()

    nobody = run("list", "--service")
    # sdbus-c++ 1.2 does not free a bus that could not be opened.
    nowhere = run("jobs", "--bus", "unix:path=/run/no-bus",
                  ASAN_OPTIONS=os.environ.get("ASAN_OPTIONS", "") + ":detect_leaks=0")

    equal(nobody, Ended(1, "", "fw-update: No update service is on the bus.\nStart it: systemctl start fw-updated. "
                               "Without --service the command works by itself.\n"))
    equal((nowhere.code, nowhere.output), (1, ""))
    assert nowhere.errors.startswith("fw-update: The bus cannot be reached: "), nowhere
    assert nowhere.errors.endswith("\nSee whether the system bus runs, or name another: --bus ADDRESS.\n"), nowhere
    equal(json.loads(run("update", "libtuner", "--service", "--json").output)["outcome"], "no-service")


def SaysThatAPartOfItIsMissing():
    alone = pathlib.Path("/tmp/alone/bin/fw-update")
    alone.parent.mkdir(parents=True)
    shutil.copy(shutil.which("fw-update"), alone)

    done = subprocess.run([alone, "list", "--service"], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, check=False)

    equal((done.returncode, done.stdout), (1, ""))
    assert done.stderr.startswith("fw-update: What asks the update service cannot be loaded: /tmp/alone/"), done
    assert done.stderr.endswith("\nInstall fw-update anew, or use it without the service.\n"), done


def BeginsNoEntryForAServiceThatHasEnded():
    ended = run("update", "libtuner", FW_UPDATE_ONLY_ENTRY="999999")

    equal(ended, Ended(1, "", ""))
    equal(json.loads(run("history", "--json").output)["entries"], [])


def SaysThatAccessIsRefused():
    need_other_users()
    _, client = start()

    refused = as_user(STRANGER, [], "fw-update", "update", "libtuner", "--service", "--bus", ADDRESS)
    asked = as_user(STRANGER, [], "fw-update", "list", "--service")

    equal(refused, (8, "fw-update: This user may not update modules. Root may, and the members of the group fwupdate.\n"
                       "Run the command as root, or as a member of that group."))
    equal(asked[0], 0)
    equal(len(client.properties(PATH, NAME)["Jobs"]), 0)


def UpdatesForAMemberOfTheGroup():
    need_other_users()
    add_group("fwupdate", 7000)
    start()

    code, output = as_user(STRANGER, [7000], "fw-update", "update", "libtuner", "--service")

    equal(code, 0)
    assert "libtuner was updated. Version 0.0.0 -> 2.0.0 in " in output, output


if __name__ == "__main__":
    run_named_test(globals())
