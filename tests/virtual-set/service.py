# SPDX-License-Identifier: Apache-2.0
"""The update service as on a set: under its unit, with the set's own bus, polkit and logind."""
import json

from flows import FLASH, LIMIT, QUICK_WIFI, SLOW_WIFI, nothing_is_left, patient_set, versions
from support import expect, succeed

NAME = "org.fwupdate.Update1"
JOB = f"{NAME}.Job"
OBJECT = "/org/fwupdate/Update1"
UNIT = "fw-updated.service"
CALL = f"busctl --timeout={LIMIT} call {NAME} {OBJECT} {NAME}"
UPDATE_TUNER = f"{CALL} Update sss libtuner '' ''"
UPDATE_WIFI = f"{CALL} Update sss libwifi debug ''"
REFUSAL = "This user may not update modules"


def shown(machine, *names):
    """Properties of the unit."""
    lines = succeed(machine, f"systemctl show --property {','.join(names)} {UNIT}").splitlines()
    return dict(line.split("=", 1) for line in lines)


def add_settings(machine, path, text):
    """A further file of settings for the service manager or one of its services."""
    succeed(machine, f"mkdir -p $(dirname {path})\ncat >{path} <<'END'\n{text}\nEND")


def ask(machine, call):
    """Makes a job: its path."""
    return succeed(machine, call).split('"')[1]


def result(machine, path):
    """Waits for the end of a job: its properties."""
    document = succeed(machine, f"""
      for try in $(seq {LIMIT * 5}); do
        case $(busctl get-property {NAME} {path} {JOB} State) in *done*) break ;; esac
        sleep 0.2
      done
      busctl --json=short call {NAME} {path} org.freedesktop.DBus.Properties GetAll s {JOB}""", LIMIT * 2)
    return {name: value["data"] for name, value in json.loads(document)["data"][0].items()}


def history(machine):
    return json.loads(succeed(machine, "fw-update history --json"))["entries"]


def begin_slow_update(machine):
    """A job whose module has begun to write: its path."""
    succeed(machine, SLOW_WIFI)
    path = ask(machine, UPDATE_WIFI)
    succeed(machine, f"""
      for try in $(seq {LIMIT * 10}); do
        grep -qs '^ *[1-9][0-9]' {FLASH}wififw.progress && exit
        sleep 0.1
      done
      exit 1""")
    return path


def expect_another_update(machine):
    succeed(machine, QUICK_WIFI)
    job = result(machine, ask(machine, UPDATE_WIFI))
    expect((job["Outcome"], job["VersionAfter"]) == ("updated", "1.5.0"), "the next update works", job)
    nothing_is_left(machine)


def expect_interrupted(machine):
    seen = [(entry["way"], entry["module"], entry["outcome"]) for entry in history(machine)]
    expect(seen == [("service", "libwifi", "interrupted")], "the history has how it ended", seen)
    expect(versions(machine)["libwifi"] == "0.0.0", "the old firmware stays", versions(machine))


def the_update_service_starts_with_a_request_and_keeps_to_its_unit():
    with patient_set() as machine:
        expect(shown(machine, "ActiveState")["ActiveState"] == "inactive", "the service waits for a request")
        job = result(machine, ask(machine, UPDATE_TUNER))
        expect((job["Outcome"], job["VersionAfter"]) == ("updated", "2.0.0"), "the module was updated", job)
        unit = shown(machine, "ActiveState", "Type", "WatchdogUSec", "NRestarts", "MainPID")
        expect((unit["ActiveState"], unit["Type"], unit["WatchdogUSec"], unit["NRestarts"]) ==
               ("active", "notify", "3min", "0"), "it has told the service manager that it is ready", unit)
        status = dict(line.split(":\t", 1) for line in
                      succeed(machine, f"cat /proc/{unit['MainPID']}/status").splitlines() if ":\t" in line)
        expect((status["Seccomp"], status["NoNewPrivs"]) == ("2", "1"), "it has its filter of system calls", status)
        group = succeed(machine, f"cat /proc/{unit['MainPID']}/cgroup")
        expect(group == f"0::/system.slice/{UNIT}", "it is in its control group", group)
        seen = [(entry["way"], entry["user"], entry["outcome"]) for entry in history(machine)]
        expect(seen == [("service", "root", "updated")], "the history has the job", seen)
        log = succeed(machine, f"journalctl --unit {UNIT} --output cat --no-pager")
        expect("not permitted" not in log, "it was refused nothing", log)
        nothing_is_left(machine)


def an_update_service_that_hangs_is_started_anew():
    with patient_set() as machine:
        add_settings(machine, f"/run/systemd/system/{UNIT}.d/quick.conf", "[Service]\nWatchdogSec=20")
        succeed(machine, f"systemctl daemon-reload; systemctl start {UNIT}")
        begun = shown(machine, "WatchdogTimestampMonotonic", "MainPID", "NRestarts")
        succeed(machine, f"""
          for try in $(seq {LIMIT}); do
            [ $(systemctl show --value --property WatchdogTimestampMonotonic {UNIT}) != {begun["WatchdogTimestampMonotonic"]} ] && exit
            sleep 1
          done
          echo "it does not tell that it is alive"; exit 1""")
        expect(shown(machine, "MainPID")["MainPID"] == begun["MainPID"], "one that is alive is left alone", begun)
        succeed(machine, f"""
          kill -STOP {begun["MainPID"]}
          for try in $(seq {LIMIT}); do
            [ $(systemctl show --value --property NRestarts {UNIT}) = 1 ] && exit
            sleep 1
          done
          exit 1""")
        job = result(machine, ask(machine, UPDATE_TUNER))
        expect(job["Outcome"] == "updated", "the new one serves", job)
        expect(shown(machine, "MainPID")["MainPID"] != begun["MainPID"], "it is another process", begun)


def polkit_decides_who_may_update():
    as_user = "setpriv --reuid {0} --regid {0} --init-groups {1}"
    with patient_set() as machine:
        succeed(machine, "useradd --groups fwupdate member; useradd stranger")
        code, output = machine.run(as_user.format("stranger", UPDATE_TUNER))
        expect(code != 0 and REFUSAL in output, "a stranger is refused", output)
        code, output = machine.run(as_user.format("stranger", f"{CALL} ListModules"))
        expect(code == 0 and "libtuner" in output, "but may look", output)
        job = result(machine, ask(machine, as_user.format("member", UPDATE_TUNER)))
        expect(job["Outcome"] == "updated", "a member of the group is not", job)
        user = history(machine)[0]["user"]
        expect(user == "member", "and is in the history", user)
        # The other way round, so that it is polkit that is asked.
        add_settings(machine, "/etc/polkit-1/rules.d/10-own.rules", """
          polkit.addRule(function (action, subject) {
            if (action.id === "org.fwupdate.update1.update") {
              return subject.user === "stranger" ? polkit.Result.YES : polkit.Result.NO;
            }
          });""")
        succeed(machine, "systemctl restart polkit")
        code, output = machine.run(as_user.format("member", UPDATE_TUNER))
        expect(code != 0 and REFUSAL in output, "by another rule a member is refused", output)
        job = result(machine, ask(machine, as_user.format("stranger", UPDATE_TUNER)))
        expect(job["Outcome"] == "nothing-to-do", "and a stranger may, though it is updated already", job)


def groups_decide_where_polkit_is_switched_off():
    as_user = "setpriv --reuid {0} --regid {0} --init-groups {1}"
    with patient_set() as machine:
        succeed(machine, "systemctl mask --quiet --now polkit; useradd --groups fwupdate member; useradd stranger")
        job = result(machine, ask(machine, as_user.format("member", UPDATE_TUNER)))
        expect(job["Outcome"] == "updated", "a member of the group may update", job)
        code, output = machine.run(as_user.format("stranger", UPDATE_TUNER))
        expect(code != 0 and REFUSAL in output, "a stranger may not", output)


def a_job_goes_on_while_its_service_is_restarted():
    with patient_set() as machine:
        path = begin_slow_update(machine)
        before = shown(machine, "MainPID")["MainPID"]
        succeed(machine, f"systemctl restart {UNIT}")
        expect(shown(machine, "MainPID")["MainPID"] not in (before, "0"), "it is another service", before)
        job = result(machine, path)
        expect((job["Outcome"], job["VersionAfter"]) == ("updated", "1.5.0"), "it knows the job, and how it ended", job)
        seen = [(entry["way"], entry["outcome"]) for entry in history(machine)]
        expect(seen == [("service", "updated")], "the history has it once", seen)
        nothing_is_left(machine)


def a_job_that_is_killed_with_its_service_is_interrupted():
    with patient_set() as machine:
        path = begin_slow_update(machine)
        succeed(machine, f"systemctl kill --kill-whom=all --signal=KILL {UNIT}")
        job = result(machine, path)
        expect(job["Outcome"] == "interrupted", "the service that was started anew says so", job)
        expect_interrupted(machine)
        expect_another_update(machine)


def a_job_is_interrupted_by_a_restart_of_the_set():
    with patient_set() as machine:
        begin_slow_update(machine)
        starts = machine.console().count("set-job: ready")
        machine.start("systemctl reboot")
        machine.wait_until_ready(starts + 1)
        expect_interrupted(machine)
        expect_another_update(machine)


def a_job_is_interrupted_by_a_power_cut():
    with patient_set() as machine:
        begin_slow_update(machine)
        machine.reset()
        expect_interrupted(machine)
        expect_another_update(machine)


def a_shutdown_waits_for_the_updates_that_come_before_it():
    with patient_set() as machine:
        add_settings(machine, "/etc/systemd/logind.conf.d/patient.conf", f"[Login]\nInhibitDelayMaxSec={LIMIT}")
        add_settings(machine, "/etc/fw-update/fw-updated.conf",
                     "at-start = no\nbefore-shutdown = yes\nsecurity = do\nfeature = do")
        held = succeed(machine, f"systemctl restart systemd-logind; systemctl enable --quiet --now {UNIT}\n"
                                f"for try in $(seq {LIMIT}); do\n"
                                "  systemd-inhibit --list --no-legend --no-pager | grep fw-updated && exit; sleep 0.2\n"
                                "done; exit 1")
        expect("shutdown" in held and "delay" in held, "logind waits for the service", held)
        expect(versions(machine)["libtuner"] == "0.0.0", "nothing is updated before that")
        starts = machine.console().count("set-job: ready")
        machine.start("systemctl reboot")
        machine.wait_until_ready(starts + 1)
        seen = [(entry["way"], entry["module"], entry["outcome"]) for entry in history(machine)]
        expect(("service", "libtuner", "updated") in seen, "the update was over before the set went", seen)
        expect(versions(machine)["libtuner"] == "2.0.0", "and the firmware is the new one", versions(machine))
        nothing_is_left(machine)


TESTS = (the_update_service_starts_with_a_request_and_keeps_to_its_unit,
         an_update_service_that_hangs_is_started_anew,
         polkit_decides_who_may_update,
         groups_decide_where_polkit_is_switched_off,
         a_job_goes_on_while_its_service_is_restarted,
         a_job_that_is_killed_with_its_service_is_interrupted,
         a_job_is_interrupted_by_a_restart_of_the_set,
         a_job_is_interrupted_by_a_power_cut,
         a_shutdown_waits_for_the_updates_that_come_before_it)
