# SPDX-License-Identifier: Apache-2.0
"""usage: service_tests.py TEST: one test of the update service, on a device.

Each function whose name begins with a capital is a test.
"""
import collections
import contextlib
import errno
import fcntl
import json
import os
import pathlib
import random
import select
import signal
import sqlite3
import stat
import subprocess

import dbus

from service_client import (ADDRESS, JOB, NAME, PATH, PATIENCE, Bus, Client, Polkit, Service, Signals, TakenLock,
                            add_group, as_user, busctl, children_of, equal, has_other_users, held, history,
                            install_faulty_module, need_other_users, package, program, run_named_test, slow, stall, tool, usb_package, wait_for)

ERROR = NAME + ".Error."
STRANGER = 65534  # a user


def start(*options, **environment):
    connection = Bus().connect()
    return Service(connection, *options, **environment), Client(connection)


def GivesTheResultOfTheCommand():
    _, client = start()

    path = client.manager().Update("libtuner", "", "")
    job = client.result(path)

    equal(path, PATH + "/job/1")
    equal((job["Kind"], job["Module"], job["Outcome"], job["ExitCode"]), ("update", "libtuner", "updated", 0))
    equal((job["VersionBefore"], job["VersionAfter"], job["Percent"]), ("0.0.0", "2.0.0", 100))
    document = json.loads(job["Document"])
    equal((document["command"], document["message"]), ("update", job["Sentence"]))
    assert job["Sentence"].startswith("libtuner was updated. Version 0.0.0 -> 2.0.0 in "), job["Sentence"]
    again = client.result(client.manager().Update("libtuner", "upgrade-app", ""))
    direct = tool("update", "libtuner")
    equal((again["Outcome"], again["ExitCode"], again["Sentence"]),
          (direct["outcome"], direct["exitCode"], direct["message"]))


def GivesRemediesAndExitCodesOfRefusedImages():
    _, client = start()

    job = client.result(client.manager().Update("libpanel", "", ""))

    direct = tool("update", "libpanel")
    equal((job["Outcome"], job["ExitCode"]), ("refused-image", 5))
    equal((job["Sentence"], job["Remedy"]), (direct["message"], direct["remedy"]))


def WritesWhoAskedIntoTheHistory():
    _, client = start()

    client.result(client.manager().Update("libtuner", "", ""))

    entries = history()
    equal(len(entries), 1)
    equal((entries[0]["way"], entries[0]["user"], entries[0]["outcome"]), ("service", "root", "updated"))
    rows = client.manager().History("", False, 0)
    equal((rows[0][0], rows[0][3], rows[0][4], rows[0][6]), (1, "libtuner", "service", "updated"))


def TellsEachChange():
    slow("panelfw", 2000)
    service, client = start()
    signals = Signals(client.connection)

    path = client.manager().Update("libpanel", "lsm", "")
    signals.wait_for(lambda: any(event["event"] == "result" for _, event in signals.events), "the end")

    states = [str(changed["State"]) for where, changed in signals.changes if where == path and "State" in changed]
    equal(states, ["checking", "updating", "verifying", "done"])
    percents = [int(changed["Percent"]) for where, changed in signals.changes if where == path and "Percent" in changed]
    assert percents == sorted(percents) and len(percents) > 2 and percents[-1] == 100, percents
    events = [event["event"] for where, event in signals.events if where == path]
    equal((events[0], events[-1]), ("start", "result"))
    jobs = [changed["Jobs"] for where, changed in signals.changes if where == PATH]
    equal(jobs, [[path]])
    equal(service.kill(signal.SIGTERM), 0)


def UpdatesAllModules():
    slow("tunerfw", 2000)
    _, client = start()
    package("tunerfw", "tunerempfw", "4.0.0")
    signals = Signals(client.connection)

    path = client.manager().UpdateAll()
    signals.wait_for(lambda: any(changed.get("State") == "done" for _, changed in signals.changes), "the end")

    job = client.properties(path)
    equal((job["Kind"], job["Outcome"], job["ExitCode"], job["Percent"]), ("update-all", "updated", 0, 100))
    assert job["Sentence"].startswith("2 of 2 modules were updated, in "), job["Sentence"]
    modules = [str(changed["Module"]) for where, changed in signals.changes if where == path and "Module" in changed]
    # Which comes first is the library's table's to say.
    equal((sorted(modules[:2]), modules[2:]), (["libtuner", "libwifi"], [""]))
    versions = {module["library"]: module.get("versionAfter") for module in json.loads(job["Document"])["modules"][:2]}
    equal(versions, {"libtuner": "4.0.0", "libwifi": "1.5.0"})
    equal(tool("info", "libtuner")["version"], "4.0.0")


def EstimatesAndAppliesPackagesOfADrive():
    slow("tunerfw", 2000)
    _, client = start()
    usb_package()
    signals = Signals(client.connection)

    estimate = client.result(client.manager().EstimateUsb(""))
    path = client.manager().ApplyUsb("/opt/media/USBDriveA")
    signals.wait_for(lambda: (path, "done") in [(where, changed.get("State")) for where, changed in signals.changes],
                     "the end")

    equal((estimate["Kind"], estimate["Outcome"], estimate["ExitCode"]), ("usb-estimate", "ok", 0))
    equal(estimate["Sentence"], "1 modules need a package, in about 60 s.")
    job = client.properties(path)
    equal((job["Kind"], job["Outcome"], job["ExitCode"]), ("usb-apply", "updated", 0))
    states = [str(changed["State"]) for where, changed in signals.changes if where == path and "State" in changed]
    equal((states[0], states[-2:]), ("checking", ["updating", "done"]))
    equal(tool("info", "libtuner")["version"], "3.0.0")
    equal([entry["way"] for entry in history()], ["usb", "usb"])


def DownloadsAPackage():
    _, client = start()

    job = client.result(client.manager().Download("libtuner"))

    equal((job["Kind"], job["Module"], job["Outcome"], job["ExitCode"]), ("download", "libtuner", "ok", 0))
    assert job["Sentence"].startswith("tunerempfw was downloaded ("), job["Sentence"]
    assert pathlib.Path("/opt/usr/apps/appbinarymanager/tunerempfw.img").exists()
    equal([(entry["way"], entry["module"], entry["outcome"], entry["sentence"]) for entry in history()],
          [("download", "libtuner", "ok", str(job["Sentence"]))])


def QueuesWhatIsAskedAtOnce():
    _, client = start()
    lock = TakenLock()
    manager = client.manager()

    first, second = manager.Update("libpanel", "lsm", ""), manager.Update("libtuner", "", "")
    client.wait_for_state(first, "waiting-for-lock")

    equal(client.state(second), "queued")
    lock.give_back()
    equal(client.result(second)["Outcome"], "updated")
    equal(client.state(first), "done")
    equal([entry["module"] for entry in history()], ["libpanel", "libtuner"])
    equal(list(client.properties(PATH, NAME)["Jobs"]), [first, second])


def BeginsNoJobBeforeTheOneAtWorkIsDone():
    _, client = start()
    lock = TakenLock()
    signals = Signals(client.connection)
    manager = client.manager()
    first = manager.Update("libpanel", "lsm", "")
    client.wait_for_state(first, "waiting-for-lock")

    second = manager.Update("libtuner", "", "")
    manager.LockStatus()  # as long as a job takes to begin, at least

    equal((client.state(first), client.state(second)), ("waiting-for-lock", "queued"))
    lock.give_back()
    signals.wait_for(lambda: (second, "done") in states_in(signals), "both are done")
    assert states_in(signals).index((first, "done")) < states_in(signals).index((second, "checking")), signals.changes


def states_in(signals):
    return [(path, str(changed["State"])) for path, changed in signals.changes if "State" in changed]


def GoesOnAfterACommandThatCannotBeStarted():
    lock = TakenLock()
    tool_before = program("goes-away", '#!/bin/sh\nexec fw-update "$@"\n')
    _, client = start("--fw-update", tool_before)
    manager = client.manager()
    client.wait_for_state(manager.Update("libpanel", "lsm", ""), "waiting-for-lock")
    waiting = [manager.Update("libtuner", "", ""), manager.Update("libtuner", "", "")]

    os.remove(tool_before)
    lock.give_back()

    for path in waiting:
        job = client.result(path)
        equal((job["Outcome"], job["Sentence"]),
              ("unexpected-error", tool_before + " cannot be started: No such file or directory."))


def TakesNoMoreJobsThanCanWait():
    slow("panelfw", 100)
    _, client = start()
    manager = client.manager()
    client.wait_for_state(manager.Update("libpanel", "lsm", ""), "updating")

    for _ in range(64):
        manager.Update("libnothing", "", "")

    equal(client.error(manager.UpdateAll),
          (ERROR + "TooMany", "Too many jobs wait already. Try again when some of them are done."))
    equal(len(client.properties(PATH, NAME)["Jobs"]), 65)


def ForgetsTheOldestOfMoreThanFiveHundredAndTwelveEnds():
    slow("panelfw", 1000, expected_time=600)
    service, client = start()
    manager = client.manager()
    client.wait_for_state(manager.Update("libpanel", "lsm", ""), "updating")
    with held(service):
        for _ in range(514):
            client.job(manager.Update("libtuner", "", "")).Cancel()

        kept = sorted(int(path.rsplit("/", 1)[1]) for path in client.properties(PATH, NAME)["Jobs"])

        equal(kept, [1, *range(3, 516)])
        equal(client.error(client.job(PATH + "/job/2").Cancel)[0], "org.freedesktop.DBus.Error.UnknownObject")
        files = sorted(int(name.split(".")[0]) for name in os.listdir("/run/fw-updated") if name[0].isdigit())
        equal(sorted(set(files)), kept)


def CancelsWhatHasNotReachedAModule():
    slow("panelfw", 500, expected_time=600)
    service, client = start()
    manager = client.manager()
    first, second = manager.Update("libpanel", "lsm", ""), manager.Update("libtuner", "", "")
    client.wait_for_state(first, "updating")

    with held(service):
        client.job(second).Cancel()

        job = client.result(second)
        equal((job["Outcome"], job["ExitCode"], job["Sentence"]), ("stopped", 1, "It was cancelled before it began."))
        equal(client.error(client.job(first).Cancel),
              (ERROR + "TooLate", "The job has reached a module and cannot be cancelled any more."))
    equal(client.result(first)["Outcome"], "updated")
    equal(client.error(client.job(first).Cancel), (ERROR + "TooLate", "The job is over."))
    equal(tool("info", "libtuner")["version"], "0.0.0")


def CancelsWhatWaitsForTheLock():
    slow("panelfw", 500)
    _, client = start()
    with subprocess.Popen(["fw-update", "update", "libpanel", "--caller", "lsm", "--progress", "ndjson"],
                          stdout=subprocess.PIPE, text=True) as other:
        wait_for(lambda: '"progress"' in other.stdout.readline(), "the other one updates")
        path = client.manager().Update("libtuner", "", "")
        client.wait_for_state(path, "waiting-for-lock")

        client.job(path).Cancel()

        job = client.result(path)
        equal((job["Outcome"], job["Sentence"]), ("stopped", "It was cancelled before it reached a module."))
        other.stdout.read()
    equal([(entry["module"], entry["outcome"]) for entry in history()],
          [("libpanel", "updated"), ("libtuner", "stopped")])
    equal(history()[1]["sentence"], str(job["Sentence"]))
    equal(other.returncode, 0)
    equal(tool("info", "libtuner")["version"], "0.0.0")
    equal(client.manager().LockStatus()[0], "free")


def CancelsWhatWaitsForALockThatIsNeverGivenBack():
    _, client = start()
    TakenLock()
    path = client.manager().Update("libtuner", "", "")
    client.wait_for_state(path, "waiting-for-lock")

    client.job(path).Cancel()

    equal(client.result(path)["Outcome"], "stopped")
    equal(client.manager().LockStatus()[0], "taken")


def OutlivesModulesThatCrash():
    install_faulty_module()
    service, client = start(FAULTY_MODULE="doUpdate segv")

    job = client.result(client.manager().Update("libfaulty", "", ""))

    equal((job["Outcome"], job["ExitCode"]), ("module-crashed", 13))
    equal(job["Sentence"], "libfaulty crashed (SIGSEGV, Segmentation fault) while it was updating. "
                           "It held the update lock, which was given back.")
    equal(client.result(client.manager().Update("libtuner", "", ""))["Outcome"], "updated")
    equal(service.process.poll(), None)


def OutlivesModulesThatCrashWhenTheyAreListed():
    install_faulty_module()
    service, client = start(FAULTY_MODULE="getActiveVersion segv")

    equal(client.error(client.manager().ListModules),
          (ERROR + "Failed", "A module crashed, or ended the command that asked."))
    equal(service.process.poll(), None)


def FollowsAJobThatAnEarlierServiceBegan():
    slow("panelfw", 500, expected_time=600)
    service, client = start()
    path = client.manager().Update("libpanel", "lsm", "")
    waiting = client.manager().Update("libtuner", "", "")
    client.wait_for_state(path, "updating")

    with held(service):
        service.kill()
        Service(client.connection)

        assert client.state(path) != "done", "it was still at work"
    equal(client.result(path)["Outcome"], "updated")
    equal(client.result(path)["VersionAfter"], "2.1.0")
    equal(client.result(waiting)["Outcome"], "updated")
    equal([entry["outcome"] for entry in history()], ["updated", "updated"])


def KeepsTheResultsOfAnEarlierService():
    service, client = start()
    path = client.manager().Update("libpanel", "", "")
    before = client.result(path)

    service.kill()
    Service(client.connection)

    after = client.properties(path)
    for name in ("Outcome", "ExitCode", "Sentence", "Remedy", "VersionBefore", "Document", "AskedBy", "Kind"):
        equal(after[name], before[name])
    equal(client.manager().Update("libtuner", "", ""), PATH + "/job/2")


def FindsAJobThatWasCutOffTogetherWithTheService():
    stall("panelfw")
    service, client = start()
    path = client.manager().Update("libpanel", "lsm", "")
    client.wait_for_state(path, "updating")

    service.kill()
    for child in children_of(service.process.pid):
        os.kill(child, signal.SIGKILL)
    Service(client.connection)

    job = client.result(path)
    equal(job["Outcome"], "interrupted")
    wait_for(lambda: [entry["outcome"] for entry in history()] == ["interrupted"], "the history knows")
    equal((history()[0]["sentence"]), str(job["Sentence"]))
    wait_for(lambda: client.manager().LockStatus()[0] == "free", "the lock is given back")
    slow("panelfw", 100000)
    equal(client.result(client.manager().Update("libpanel", "lsm", ""))["Outcome"], "updated")


def SaysInterruptedOfAJobWhoseProcessesWereKilled():
    stall("panelfw")
    service, client = start()
    path = client.manager().Update("libpanel", "lsm", "")
    client.wait_for_state(path, "updating")

    for child in children_of(service.process.pid):
        os.kill(child, signal.SIGKILL)

    job = client.result(path)
    assert job["Outcome"] in ("interrupted", "module-crashed"), job["Outcome"]
    equal(client.result(client.manager().Update("libtuner", "", ""))["Outcome"], "updated")
    equal([entry["outcome"] for entry in history()], [str(job["Outcome"]), "updated"])


DIES_BEFORE_IT_TELLS = """#!/bin/sh
case "$1 $2" in
  "update "*) fw-update "$@" >/dev/null; kill -9 $$ ;;
  "history --json") mkdir /tmp/killed 2>/dev/null && kill -9 $$ ;;
esac
exec fw-update "$@"
"""


def AsksTheHistoryHowAJobEndedUntilItIsTold():
    connection = Bus().connect()
    Service(connection, "--fw-update", program("dies-before-it-tells", DIES_BEFORE_IT_TELLS))
    client = Client(connection)

    job = client.result(client.manager().Update("libtuner", "", ""))

    assert pathlib.Path("/tmp/killed").exists(), "the first question was not killed"
    equal((job["Outcome"], job["VersionAfter"]), ("updated", "2.0.0"))
    equal([(entry["outcome"], entry["sentence"]) for entry in history()], [("updated", str(job["Sentence"]))])


COUNTS_QUESTIONS = """#!/bin/sh
echo $1 >>/tmp/questions
case $1 in
  update) fw-update "$@" >/dev/null; kill -9 $$ ;;
  history) fw-update "$@" | sed "s/$(cat /tmp/hidden)/runs/"; exit ;;
esac
exec fw-update "$@"
"""


def questions_about_a_killed_job(hidden="nothing"):
    """(the job, how often the service asked for the lock and for the history); hidden: an outcome in it"""
    pathlib.Path("/tmp/hidden").write_text(hidden, encoding="ascii")
    connection = Bus().connect()
    Service(connection, "--fw-update", program("counts-questions", COUNTS_QUESTIONS))
    client = Client(connection)
    asked = pathlib.Path("/tmp/questions")
    wait_for(lambda: asked.exists() and "history" in asked.read_text(encoding="ascii"), "it has looked what there was")
    asked.write_text("", encoding="ascii")
    job = client.result(client.manager().Update("libtuner", "", ""))
    words = asked.read_text(encoding="ascii").split()
    return job, words.count("lock"), words.count("history")


def AsksOnceWhatIsAnswered():
    job, lock, looks = questions_about_a_killed_job()

    equal((job["Outcome"], lock, looks), ("updated", 1, 1))


def LooksEightTimesAtAHistoryThatTellsNoEnd():
    job, lock, looks = questions_about_a_killed_job("updated")

    equal((job["Outcome"], lock, looks), ("interrupted", 1, 8))


DIES_BEFORE_ITS_ENTRY = """#!/bin/sh
[ $1 != update ] || ! mkdir /tmp/killed 2>/dev/null || kill -9 $$
exec fw-update "$@"
"""


def HasAnEntryOfAJobThatWasKilledBeforeItBeganOne():
    connection = Bus().connect()
    Service(connection, "--fw-update", program("dies-before-its-entry", DIES_BEFORE_ITS_ENTRY))
    client = Client(connection)

    job = client.result(client.manager().Update("libtuner", "", ""))

    equal((job["Outcome"], job["ExitCode"]), ("interrupted", 1))
    equal([(entry["way"], entry["module"], entry["outcome"], entry["sentence"]) for entry in history()],
          [("service", "libtuner", "interrupted", str(job["Sentence"]))])
    equal(tool("info", "libtuner")["version"], "0.0.0")


WRITES_DOWN_WHAT_IT_IS_ASKED = """#!/bin/sh
echo "$1" >>/tmp/asked
exec "$(command -v fw-update)" "$@"
"""


def begins_no_second_entry_while_the_history_is(locked):
    stall("panelfw")
    service, client = start("--fw-update", program("writes-down", WRITES_DOWN_WHAT_IT_IS_ASKED))
    path = client.manager().Update("libpanel", "lsm", "")
    client.wait_for_state(path, "updating")
    asked = pathlib.Path("/tmp/asked")

    file = sqlite3.connect("/var/lib/fw-update/history.db", isolation_level=None)
    file.execute("BEGIN " + locked)
    asked.write_text("", encoding="ascii")
    for child in children_of(service.process.pid):
        os.kill(child, signal.SIGKILL)
    wait_for(lambda: asked.read_text(encoding="ascii").partition("history\n")[2], "more is asked than the history")
    file.execute("ROLLBACK")

    job = client.result(path)
    equal((job["Outcome"], [entry["outcome"] for entry in history()]), ("interrupted", ["interrupted"]))


def BeginsNoSecondEntryWhileNobodyMayWriteTheHistory():
    begins_no_second_entry_while_the_history_is("IMMEDIATE")


def BeginsNoSecondEntryWhileNobodyMayReadTheHistory():
    begins_no_second_entry_while_the_history_is("EXCLUSIVE")


DIES_WHEN_IT_IS_TOLD_TO = """#!/bin/sh
[ $1 != update ] || ! rm /tmp/die 2>/dev/null || kill -9 $$
exec fw-update "$@"
"""


def TellsTheEndOfAnEarlierJobOfNoOther():
    slow("tunerfw", 100000)
    _, client = start("--fw-update", program("dies-when-told", DIES_WHEN_IT_IS_TOLD_TO))
    equal(client.result(client.manager().Update("libtuner", "", ""))["Outcome"], "updated")
    pathlib.Path("/tmp/die").touch()

    job = client.result(client.manager().Update("libtuner", "", ""))

    equal(job["Outcome"], "interrupted")
    equal([(entry["outcome"], entry["way"]) for entry in history()],
          [("updated", "service"), ("interrupted", "service")])


IS_BESIDE_ANOTHER_WAY = """#!/bin/sh
[ $1 != update ] || ! rm /tmp/die 2>/dev/null || {
  env -u FW_UPDATE_ASKED_BY -u FW_UPDATE_JOB_GATE fw-update "$@" >/dev/null
  kill -9 $$
}
exec fw-update "$@"
"""


def TellsTheEndOfAnUpdateByAnotherWayOfNoJob():
    _, client = start("--fw-update", program("is-beside", IS_BESIDE_ANOTHER_WAY))
    pathlib.Path("/tmp/die").touch()

    job = client.result(client.manager().Update("libtuner", "", ""))

    equal(job["Outcome"], "interrupted")
    equal([(entry["outcome"], entry["way"]) for entry in history()],
          [("updated", "direct"), ("interrupted", "service")])


PAGE = os.sysconf("SC_PAGESIZE")
JOBS = pathlib.Path("/run/fw-updated")


class LittleRoom:
    """What the service keeps its jobs in, and a file that takes all of the room there."""

    def __init__(self):
        JOBS.mkdir(mode=0o700)
        subprocess.run(["mount", "-t", "tmpfs", "-o", f"size={16 * PAGE},mode=700", "none", str(JOBS)], check=True)
        self.file = JOBS / "other"

    def fill(self, pages_left=0):
        with open(self.file, "ab", buffering=0) as file:
            try:
                while True:
                    file.write(bytes(PAGE))
            except OSError as error:
                equal(error.errno, errno.ENOSPC)
            file.truncate(file.tell() - pages_left * PAGE)

    def give_back(self):
        self.file.unlink()


def KeepsTheEndsOfItsJobsWhereThereIsNoRoom():
    room = LittleRoom()
    slow("panelfw", 500, expected_time=600)
    service, client = start()
    paths = [client.manager().Update("libpanel", "lsm", ""), client.manager().Update("libtuner", "", "")]
    client.wait_for_state(paths[0], "updating")

    with held(service):
        room.fill()
        client.job(paths[1]).Cancel()
    before = [client.result(path) for path in paths]
    service.kill()
    room.give_back()
    Service(client.connection)

    equal([str(job["Outcome"]) for job in before], ["updated", "stopped"])
    for path, job in zip(paths, before):
        after = client.result(path)
        for name in ("Outcome", "ExitCode", "Sentence", "Document", "AskedBy"):
            equal(after[name], job[name])
    equal([(entry["module"], entry["outcome"]) for entry in history()], [("libpanel", "updated")])
    equal(sorted(os.listdir(JOBS)), ["1.job", "2.job"])


def BeginsNoJobWithoutRoomForIt():
    room = LittleRoom()
    service, client = start()
    manager = client.manager()
    room.fill(pages_left=1)

    job = client.result(manager.Update("libtuner", "", ""))

    equal((job["Outcome"], str(job["Sentence"]).split(": ")[1]), ("unexpected-error", "No space left on device."))
    equal(client.error(manager.Update, "libtuner", "", ""),
          (ERROR + "Failed", "The job cannot be kept: there is no room in /run."))
    room.give_back()
    equal(client.result(manager.Update("libtuner", "", ""))["Outcome"], "updated")
    equal(service.process.poll(), None)


HOLDS_QUESTIONS = """#!/bin/sh
mkdir -p /tmp/asked
touch /tmp/asked/$$
ls /tmp/asked | wc -l >>/tmp/counts
flock --shared /tmp/held true
rm /tmp/asked/$$
exec fw-update "$@"
"""


def counts():
    """How many questions each found that was asked."""
    path = pathlib.Path("/tmp/counts")
    return path.read_text(encoding="ascii").split() if path.exists() else []


def AsksAFewQuestionsAtOnceAndRefusesTooMany():
    pathlib.Path("/etc/fw-update").mkdir(exist_ok=True)
    pathlib.Path("/etc/fw-update/fw-updated.conf").write_text("at-start = no\n", encoding="ascii")  # it asks nothing itself
    _, client = start("--fw-update", program("holds-questions", HOLDS_QUESTIONS))
    signals, answers, refusals = Signals(client.connection), [], []
    manager = client.manager()

    with open("/tmp/held", "w", encoding="ascii") as held:
        fcntl.flock(held, fcntl.LOCK_EX)
        for _ in range(40):
            manager.LockStatus(reply_handler=lambda *answer: answers.append(str(answer[0])),
                               error_handler=lambda error: refusals.append(error.get_dbus_message()))
        signals.wait_for(lambda: len(refusals) >= 8, "questions are refused")
        signals.wait_for(lambda: "4" in counts(), "four are asked at once")
    signals.wait_for(lambda: len(answers) + len(refusals) == 40, "the others are answered")

    assert len(answers) in (31, 32), answers  # one may be the service's own, from its start
    equal((set(refusals), set(answers)), ({"Too many questions wait already. Try again."}, {"absent"}))
    equal(max(map(int, counts())), 4)


LISTS_WHAT_IS_OPEN = """#!/bin/sh
ls -l /proc/$$/fd >>/tmp/open-$1
exec fw-update "$@"
"""


LISTS_ITS_ENVIRONMENT = """#!/bin/sh
tr '\\0' '\\n' </proc/$$/environ >/tmp/environment-$1
exec fw-update "$@"
"""


def LeavesWhatIsForItselfToNoProgramThatItStarts():
    connection = Bus().connect()
    Service(connection, "--fw-update", program("lists-its-environment", LISTS_ITS_ENVIRONMENT), NOTIFY_SOCKET="/tmp/nobody",
            FW_UPDATE_ASKED_BY="77", FW_UPDATE_JOB_GATE="/tmp/no-gate", FOR_ALL="yes")
    client = Client(connection)

    equal(client.result(client.manager().Update("libtuner", "", ""))["Outcome"], "updated")

    listed = pathlib.Path("/tmp/environment-update").read_text(encoding="utf-8").splitlines()
    equal([line for line in listed if line.startswith(("NOTIFY_SOCKET=", "FW_UPDATE_ASKED_BY=", "FOR_ALL="))],
          ["FOR_ALL=yes", "FW_UPDATE_ASKED_BY=0"])
    gates = [line for line in listed if line.startswith("FW_UPDATE_JOB_GATE=")]
    assert len(gates) == 1 and gates[0] != "FW_UPDATE_JOB_GATE=/tmp/no-gate", gates


def LeavesItsFilesToNoProgramThatItStarts():
    connection = Bus().connect()
    reading, writing = os.pipe()
    Service(connection, "--fw-update", program("lists-what-is-open", LISTS_WHAT_IS_OPEN), inherited=[writing])
    client = Client(connection)
    pipe = os.readlink(f"/proc/self/fd/{reading}")

    equal(client.result(client.manager().Update("libtuner", "", ""))["Outcome"], "updated")
    client.manager().ListModules()

    for command in ("update", "list"):
        listed = pathlib.Path(f"/tmp/open-{command}").read_text(encoding="ascii")
        assert "-> /dev/null" in listed, listed
        assert pipe not in listed, listed


def AnswersQueriesAsTheCommandDoes():
    _, client = start()
    manager = client.manager()

    modules = [tuple(map(str, row)) for row in manager.ListModules()]
    pending = [tuple(map(str, row)) for row in manager.Pending("lsm")]
    lock = tuple(map(str, manager.LockStatus()))

    equal(modules, [(one["library"], one["firmware"], one["version"], one["kind"]) for one in tool("list")["modules"]])
    equal(pending, [(one["library"], one["firmware"], one["version"], one["outcome"], one["reason"], one.get("remedy", ""))
                    for one in tool("pending", "--caller", "lsm")["modules"]])
    direct = tool("lock", "status")
    equal(lock, (direct["state"], direct["message"], direct.get("remedy", "")))
    equal(json.loads(manager.Query("info", ["libtuner"])), tool("info", "libtuner"))
    equal(json.loads(manager.Query("verify", ["libtuner", "--version", "9"])), tool("verify", "libtuner", "--version", "9"))


def RefusesWhatMakesNoSense():
    _, client = start()
    manager = client.manager()

    for module in ("", "x" * 128, "../libtuner", "-x", "--help", ".", "a\nb"):
        equal(client.error(manager.Update, module, "", "")[0], ERROR + "InvalidArgument")
        equal(client.error(manager.Download, module or "/", )[0], ERROR + "InvalidArgument")
    equal(client.error(manager.Update, "libtuner", "nobody", "")[0], ERROR + "InvalidArgument")
    equal(client.error(manager.Update, "libtuner", "factory-automation", "x")[0], ERROR + "InvalidArgument")
    equal(client.error(manager.Update, "libtuner", "", "x" * 128)[0], ERROR + "InvalidArgument")
    for folder in ("relative", "/" + "x" * 5000, "-x", "/a\tb"):
        equal(client.error(manager.ApplyUsb, folder)[0], ERROR + "InvalidArgument")
        equal(client.error(manager.EstimateUsb, folder)[0], ERROR + "InvalidArgument")
    for option in ("--service", "--bus=unix:path=/tmp/bus", "--bus", "--key-file=/etc/shadow", "--help", "--", "-h"):
        equal(client.error(manager.Query, "list", [option]),
              (ERROR + "InvalidArgument", f"A question has no such option: {option}."))
    for command in ("", "update", "lock recover", "usb apply", "explain", "list; update"):
        equal(client.error(manager.Query, command, ["x"])[0], ERROR + "InvalidArgument")
    equal(list(client.properties(PATH, NAME)["Jobs"]), [])


def LetsStrangersOnlyAsk():
    need_other_users()
    start()
    refused = "Call failed: This user may not {}. Root may, and the members of the group fwupdate."

    for arguments in (("Update", "sss", "libtuner", "", ""), ("UpdateAll",), ("Download", "s", "libwifi")):
        equal(busctl(STRANGER, [], PATH, NAME, *arguments), (1, refused.format("update modules")))
    for method in ("ApplyUsb", "EstimateUsb"):
        equal(busctl(STRANGER, [], PATH, NAME, method, "s", ""), (1, refused.format("use packages of a USB drive")))
    equal(busctl(STRANGER, [], PATH, NAME, "LockStatus")[0], 0)
    equal(busctl(STRANGER, [], PATH, NAME, "ListModules")[0], 0)


def LeavesRoomForOthersThanAUserWhoAsksWithoutEnd():
    need_other_users()
    slow_tool = pathlib.Path("/run/slow-tool")
    slow_tool.write_text("#!/bin/sh\nwhile [ ! -e /run/go-on ]; do sleep 0.05; done\nexec fw-update \"$@\"\n", encoding="ascii")
    slow_tool.chmod(0o755)
    _, client = start("--fw-update", str(slow_tool))
    flood = ("import sys, dbus, dbus.bus, dbus.mainloop.glib; from gi.repository import GLib\n"
             "dbus.mainloop.glib.DBusGMainLoop(set_as_default=True); loop = GLib.MainLoop(); refused = []\n"
             f"object = dbus.bus.BusConnection({ADDRESS!r}).get_object({NAME!r}, {PATH!r}, introspect=False)\n"
             "def take(error):\n"
             "    refused.append(error.get_dbus_name())\n"
             "    if len(refused) == 32: print(sorted(set(refused)), flush=True)\n"
             f"for _ in range(40): object.LockStatus(dbus_interface={NAME!r}, reply_handler=print, error_handler=take, timeout=60)\n"
             "loop.run()")
    with subprocess.Popen(["/usr/bin/python3", "-c", flood], user=STRANGER, group=STRANGER, stdout=subprocess.PIPE,
                          text=True) as stranger:
        readable, _, _ = select.select([stranger.stdout], [], [], PATIENCE)
        told = stranger.stdout.readline() if readable else "fewer were refused"
        pathlib.Path("/run/go-on").touch()
        answer = client.manager().LockStatus()
        stranger.kill()

    equal(told, f"['{ERROR}TooMany']\n")
    assert answer[1], answer


def LetsMembersOfTheGroupUpdateAndNobodyElseCancel():
    need_other_users()
    add_group("fwupdate", 7000)
    _, client = start()
    lock = TakenLock()

    equal(busctl(STRANGER, [7000], PATH, NAME, "Update", "sss", "libpanel", "lsm", ""), (0, f'o "{PATH}/job/1"'))
    equal(busctl(STRANGER, [7000], PATH, NAME, "Update", "sss", "libtuner", "", ""), (0, f'o "{PATH}/job/2"'))

    equal(busctl(1, [], PATH + "/job/2", JOB, "Cancel"),
          (1, "Call failed: This user may not cancel the jobs of others. Root may, and the members of the group fwupdate."))
    equal(busctl(STRANGER, [], PATH + "/job/2", JOB, "Cancel"), (0, ""))
    lock.give_back()
    job = client.result(PATH + "/job/2")
    equal((job["Outcome"], job["AskedBy"][0]), ("stopped", STRANGER))
    equal(client.result(PATH + "/job/1")["Outcome"], "updated")
    equal(history()[0]["user"], "nobody")


def LetsAdministratorsUpdate():
    need_other_users()
    add_group("fwupdate-admin", 7001)
    _, client = start()

    equal(busctl(STRANGER, [7001], PATH, NAME, "Update", "sss", "libtuner", "", ""), (0, f'o "{PATH}/job/1"'))

    equal(client.result(PATH + "/job/1")["Outcome"], "updated")


def AsksPolkitWhereItRuns():
    need_other_users()
    add_group("fwupdate", 7000)
    _, client = start()
    Polkit(client.connection, ["org.fwupdate.update1.update"])

    allowed = busctl(STRANGER, [], PATH, NAME, "Update", "sss", "libtuner", "", "")
    query = busctl(STRANGER, [7000], PATH, NAME, "ListModules")

    equal(allowed, (0, f'o "{PATH}/job/1"'))
    equal(query, (1, "Call failed: This user may not ask about updates. Root may, and the members of the group fwupdate."))
    equal(busctl(0, [], PATH, NAME, "ListModules")[0], 0)
    equal(client.result(PATH + "/job/1")["Outcome"], "updated")


def AcceptsNoneOfThousandsOfHostileMessages():
    service, client = start()
    client.result(client.manager().Update("libtuner", "", ""))
    count = int(os.environ.get("FW_UPDATE_HOSTILE_MESSAGES", "10000"))
    program = ["/usr/bin/python3", "-B", str(pathlib.Path(__file__).with_name("hostile_client.py"))]

    own = subprocess.run([*program, str(count // 2), "0"], stdout=subprocess.PIPE, text=True, check=False)
    equal((own.returncode, own.stdout), (0, f"{count // 2} refused\n"))
    if has_other_users():
        equal(as_user(STRANGER, [], *program, str(count // 2), "1"), (0, f"{count // 2} refused"))

    equal(service.process.poll(), None)
    equal(len(client.properties(PATH, NAME)["Jobs"]), 1)
    equal(len(history()), 1)
    equal(client.result(client.manager().Update("libtuner", "", ""))["Outcome"], "nothing-to-do")


def application(*words):
    """One that uses the library itself."""
    return subprocess.Popen([os.environ["LIBRARY_CLIENT"], *words], stdout=subprocess.PIPE, text=True)


def TakesTheTracesOfApplicationsIntoTheHistoryOnce():
    _, client = start()
    with application("libtuner") as first:
        first.communicate()
    with application("libpanel", "wait") as second:
        second.stdout.readline()  # over, and it goes on

        for _ in range(3):
            rows = client.manager().History("", False, 0)
        second.kill()
    after = client.manager().History("", False, 0)

    equal([tuple(map(str, row[3:7])) for row in rows],
          [("libtuner", "library", "root", "updated"), ("libpanel", "library", "root", "refused-image")])
    equal([entry["caller"] for entry in tool("history")["entries"]], ["upgrade-app", "upgrade-app"])
    equal(str(rows[1][9]), tool("update", "libpanel")["message"])
    equal(after, rows)


def FindsWhatAnApplicationDidNotEnd():
    stall("tunerfw")
    _, client = start()
    with application("libtuner") as cut:
        wait_for(lambda: client.manager().LockStatus()[0] == "taken", "it updates")
        client.manager().History("", False, 0)
        cut.kill()

    rows = client.manager().History("", False, 0)

    equal([tuple(map(str, row[3:7])) for row in rows], [("libtuner", "library", "root", "interrupted")])


def TakesInWhatProgramsOfAnOrdinaryUserDid():
    need_other_users()
    add_group("fwupdate", 7000)
    _, client = start()

    with_library = as_user(STRANGER, [7000], os.environ["LIBRARY_CLIENT"], "libtuner")
    with_command = as_user(STRANGER, [7000], "fw-update", "update", "libpanel")
    rows = client.manager().History("", False, 0)

    equal((with_library[0], with_command[0]), (0, 5))
    equal([tuple(map(str, row[3:7])) for row in rows],
          [("libtuner", "library", "nobody", "module-failed"), ("libpanel", "library", "nobody", "refused-image")])


TRACES = pathlib.Path("/run/fw-trace")


def access_of(path):
    status = path.stat()
    return status.st_uid, status.st_gid, stat.S_IMODE(status.st_mode)


def LetsMembersOfTheGroupTraceAndNobodyElse():
    need_other_users()
    add_group("fwupdate", 7000)
    _, client = start()

    as_user(STRANGER, [], os.environ["LIBRARY_CLIENT"], "libtuner")

    equal(access_of(TRACES), (0, 7000, 0o1775))
    equal(list(client.manager().History("", False, 0)), [])


def LeavesTheDirectoryOfTracesAsTheSetHasIt():
    need_other_users()
    add_group("fwupdate", 7000)
    TRACES.mkdir()
    connection = Bus().connect()
    for owner, mode in (((0, 0), 0o700), ((0, 7), 0o755), ((STRANGER, 0), 0o755)):
        os.chown(TRACES, *owner)
        TRACES.chmod(mode)

        Service(connection).kill(signal.SIGTERM)

        equal(access_of(TRACES), (*owner, mode))


class Soak:
    """Clients, and somebody who kills at random and notes each job's end."""

    CLIENTS = 8

    def __init__(self, count):
        pathlib.Path("/etc/fw-update").mkdir(exist_ok=True)
        pathlib.Path("/etc/fw-update/history.conf").write_text("max_entries = 100000\n", encoding="ascii")
        for firmware in ("tunerfw", "panelfw"):
            slow(firmware, 8000)
        self.chance = random.Random(11)
        self.service, self.client = start()
        self.count = count
        self.started = 0
        self.ends = {}
        self.clients = []
        self.kills = collections.Counter()

    def add_client(self):
        self.started += 1
        program = str(pathlib.Path(__file__).with_name("soak_client.py"))
        self.clients.append(subprocess.Popen(["/usr/bin/python3", "-B", program, str(self.started)]))

    def note(self):
        """What the jobs that are done say now; they say the same for ever."""
        try:
            for path in self.client.properties(PATH, NAME)["Jobs"]:
                if path not in self.ends:
                    job = self.client.properties(path)
                    if job["State"] == "done":
                        self.ends[path] = (int(job["Number"]), str(job["Module"]), str(job["Outcome"]))
        except dbus.DBusException:
            pass  # killed meanwhile

    def kill_something(self):
        what = self.chance.choices(["nothing", "work", "client", "service"], [90, 6, 2, 2])[0]
        self.kills[what] += 1
        if what == "work":
            for child in children_of(self.service.process.pid)[:self.chance.randrange(3)]:
                with contextlib.suppress(ProcessLookupError):
                    os.kill(child, signal.SIGKILL)
        elif what == "client" and self.clients:
            self.clients[0].kill()
        elif what == "service":
            self.service.kill()
            self.service = Service(self.client.connection)

    def run(self):
        while len(self.ends) < self.count:
            for client in [one for one in self.clients if one.poll() is not None]:
                equal(client.returncode, -signal.SIGKILL)
                self.clients.remove(client)
            while len(self.clients) < self.CLIENTS:
                self.add_client()
            self.note()
            self.kill_something()
        for client in self.clients:
            client.kill()
            client.wait()
        wait_for(lambda: all(self.client.state(path) == "done" for path in self.client.properties(PATH, NAME)["Jobs"]),
                 "all jobs are done")
        self.note()


def judged(jobs, entries):
    """What of the history is not as the jobs say: those ran in the order of their numbers.

    A job says what its entry says. One that was cancelled before it began has none.
    """
    told = {0}  # how many entries the jobs up to here may have
    for number, module, outcome in sorted(jobs):
        following = set(told) if outcome == "stopped" else set()
        for count in told:
            entry = entries[count] if count < len(entries) else {}
            if (entry.get("module"), entry.get("outcome")) == (module, outcome):
                following.add(count + 1)
        if not following:
            yield f"job {number} of {module} is {outcome}, which the history does not have there"
            return
        told = following
    if len(entries) not in told:
        yield f"the history has {len(entries)} entries, the jobs had {sorted(told)}"


def HasOneTruthfulEndForEachJob():
    count = int(os.environ.get("FW_UPDATE_SOAK_JOBS", "60"))
    soak = Soak(count)

    soak.run()

    print(len(soak.ends), "jobs;", dict(soak.kills), collections.Counter(end[2] for end in soak.ends.values()))
    print(collections.Counter(entry["outcome"] for entry in history()), "in the history")
    equal(sorted(number for number, _, _ in soak.ends.values()), list(range(1, len(soak.ends) + 1)))
    equal(list(judged(soak.ends.values(), history())), [])
    wait_for(lambda: not children_of(soak.service.process.pid), "no process is left")
    equal(soak.client.manager().LockStatus()[0], "free")
    equal([name for name in os.listdir("/run/fw-updated") if not name.endswith(".job")], [])
    equal(soak.client.result(soak.client.manager().Update("libtuner", "", ""))["State"], "done")


def LeavesNothingOpenAfterItsJobs():
    service, client = start()
    manager = client.manager()
    client.result(manager.Update("libwifi", "", ""))
    manager.ListModules()
    files = f"/proc/{service.process.pid}/fd"
    before = len(os.listdir(files))

    for _ in range(40):
        client.result(manager.Update("libnothing", "", ""))
        manager.LockStatus()

    wait_for(lambda: len(os.listdir(files)) <= before, "no descriptor is left")
    equal([client.state(path) for path in client.properties(PATH, NAME)["Jobs"]], ["done"] * 41)


def EndsAfterASignalAndLeavesTheNameFree():
    service, _ = start()

    equal(service.kill(signal.SIGINT), 0)


if __name__ == "__main__":
    run_named_test(globals())
