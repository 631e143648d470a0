# SPDX-License-Identifier: Apache-2.0
"""What a sweep goes by: which errors a system call can return, what an interrupted
update may leave behind, and whether the result of one point keeps the promises.

docs/interruption.md states the same for people.
"""

import errno
import fnmatch
import json

# ---- Errors --------------------------------------------------------------------

# Of a call's name, or its name and what it is about: the errors that Linux documents
# for it and that a device can run into. No entry is a mistake of this table; an empty
# one says that the call cannot fail in these ways.
ERRORS = {
    "open": "EMFILE ENOMEM EIO",
    "open create": "EMFILE ENOSPC EIO",
    "openat": "EMFILE ENOMEM EIO",
    "openat create": "EMFILE ENOSPC EIO",
    "close": "EIO EINTR",
    "read": "EIO",
    "read socket": "ENOMEM EINTR",
    "read pipe": "EINTR",
    "pread64": "EIO",
    "write": "ENOSPC EIO",
    "write pipe": "",
    "writev": "ENOSPC EIO",
    "pwrite64": "ENOSPC EIO",
    "lseek": "",
    "_llseek": "",
    "fsync": "EIO ENOSPC",
    "fdatasync": "EIO ENOSPC",
    "ftruncate": "EIO ENOSPC",
    "fallocate": "ENOSPC EIO EINTR",
    "fadvise64": "",
    "fstat": "EIO ENOMEM",
    "stat": "EIO ENOMEM",
    "lstat": "EIO ENOMEM",
    "newfstatat": "EIO ENOMEM",
    "fstatat64": "EIO ENOMEM",
    "statx": "EIO ENOMEM",
    "statfs": "EIO ENOMEM",
    "fstatfs": "EIO ENOMEM",
    "access": "EIO ENOMEM",
    "faccessat": "EIO ENOMEM",
    "faccessat2": "EIO ENOMEM",
    "readlink": "EIO ENOMEM",
    "readlinkat": "EIO ENOMEM",
    "getdents64": "EIO ENOMEM",
    "mkdir": "ENOSPC EIO ENOMEM",
    "rename": "ENOSPC EIO ENOMEM",
    "renameat": "ENOSPC EIO ENOMEM",
    "renameat2": "ENOSPC EIO ENOMEM",
    "rmdir": "EIO ENOMEM",
    "link": "ENOSPC EIO ENOMEM",
    "unlink": "EIO ENOMEM",
    "unlinkat": "EIO ENOMEM",
    "chmod": "EIO",
    "fchmod": "EIO",
    "fchown": "EIO",
    "flock": "EINTR ENOLCK",
    "fcntl": "",
    "fcntl duplicate": "EMFILE",
    "fcntl lock": "ENOLCK",
    "ioctl": "EIO ENOMEM",
    "ioctl loop": "EIO ENOMEM EINTR",
    "mount": "ENOMEM EIO EBUSY",
    "fsopen": "EMFILE ENOMEM",
    "fsconfig": "ENOMEM EIO EBUSY",
    "fsmount": "EMFILE ENOMEM",
    "move_mount": "ENOMEM EBUSY",
    "umount2": "ENOMEM EBUSY",
    "mmap": "ENOMEM",
    "munmap": "ENOMEM",
    "mprotect": "ENOMEM",
    "mremap": "ENOMEM",
    "madvise": "ENOMEM",
    "brk": "ENOMEM",
    "clone": "EAGAIN ENOMEM",
    "clone3": "EAGAIN ENOMEM",
    "pipe2": "EMFILE",
    "dup": "EMFILE",
    "socket": "EMFILE ENOMEM",
    "connect": "EINTR EAGAIN",
    "bind": "ENOMEM",
    "listen": "",
    "accept4": "EMFILE ENOMEM EINTR",
    "sendto": "ENOMEM EINTR",
    "sendmsg": "ENOMEM EINTR",
    "recvfrom": "ENOMEM EINTR",
    "recvmsg": "ENOMEM EINTR",
    "shutdown": "",
    "setsockopt": "ENOMEM",
    "getsockopt": "",
    "getsockname": "",
    "getpeername": "",
    "poll": "EINTR ENOMEM",
    "ppoll": "EINTR ENOMEM",
    "futex wait": "EINTR",
    "futex_time64 wait": "EINTR",
    "futex": "",
    "futex_time64": "",
    "signalfd4": "EMFILE ENOMEM",
    "memfd_create": "EMFILE ENOMEM",
    "clock_nanosleep": "EINTR",
    "uname": "",
    "getrandom": "",
    "prctl": "",
    "prlimit64": "",
    "rt_sigaction": "",
    "rt_sigprocmask": "",
    "rt_sigpending": "",
    "rt_sigtimedwait": "",
    "rt_sigreturn": "",
    "rseq": "",
    "set_robust_list": "",
    "set_tid_address": "",
    "sched_yield": "",
    "sched_getaffinity": "",
    "restart_syscall": "",
    "clock_gettime": "",
    "clock_gettime64": "",
    "getpid": "",
    "getppid": "",
    "gettid": "",
    "getuid": "",
    "geteuid": "",
    "getgid": "",
    "getegid": "",
    "getresuid": "",
    "getresgid": "",
    "getcwd": "ENOMEM",
    "capget": "",
    "capset": "ENOMEM",
    "umask": "",
    "kill": "",
    "tgkill": "",
    "exit": "",
    "exit_group": "",
}

# What 32-bit x86 calls the same: by the width of numbers, and by its older calls of sockets.
OTHER_NAMES = {
    "accept": "accept4",
    "recv": "recvfrom",
    "send": "sendto",
    "mmap2": "mmap",
    "stat64": "stat",
    "lstat64": "lstat",
    "fchown32": "fchown",
    "fstat64": "fstat",
    "statfs64": "statfs",
    "fstatfs64": "fstatfs",
    "ftruncate64": "ftruncate",
    "fcntl64": "fcntl",
    "fadvise64_64": "fadvise64",
    "getuid32": "getuid",
    "geteuid32": "geteuid",
    "getgid32": "getgid",
    "getegid32": "getegid",
    "getresuid32": "getresuid",
    "getresgid32": "getresgid",
    "clock_nanosleep_time64": "clock_nanosleep",
    "ppoll_time64": "ppoll",
    "rt_sigtimedwait_time64": "rt_sigtimedwait",
    "ugetrlimit": "prlimit64",
}

KINDS = (
    ("create ", "create"),
    ("socket:", "socket"),
    ("pipe:", "pipe"),
    ("/dev/loop", "loop"),
    ("wait", "wait"),
    ("duplicate", "duplicate"),
    ("lock", "lock"),
)


# When this directory cannot be synced, a switch to the new firmware counts as failed.
COMPONENTS = "/var/lib/fw-components"

KILLED = 128 + 9  # the tracer's exit code


class UnknownCall(Exception):
    """A traced call that the table of errors does not know."""


def errors_of(call, subject):
    call = OTHER_NAMES.get(call, call)
    for beginning, kind in KINDS:
        if subject.startswith(beginning) and f"{call} {kind}" in ERRORS:
            return ERRORS[f"{call} {kind}"].split()
    if call not in ERRORS:
        raise UnknownCall(call)
    return ERRORS[call].split()


# What puts something on the disk; what else has a descriptor is no file.
WRITING = ("open create", "openat create", "write", "writev", "pwrite64", "fsync", "fdatasync", "ftruncate", "mkdir",
           "rename", "renameat", "renameat2", "link", "unlink", "unlinkat", "rmdir", "chmod", "fchmod")
NO_FILES = ("socket:", "pipe:", "anon_inode:", "standard ", "/dev/")


def errors_of_writing(call, subject):
    """Those of a disk that is full or broken."""
    kind = OTHER_NAMES.get(call, call) + (" create" if subject.startswith("create ") else "")
    if kind not in WRITING or subject.startswith(NO_FILES):
        return []
    return [error for error in errors_of(call, subject) if error in ("ENOSPC", "EIO")]


def error_number(name):
    return getattr(errno, name)


# ---- What may be left ------------------------------------------------------------

PENDING_LIST = "/tmp/fwupdate-off-list.txt"

# After an interruption, beside what was there before: a pattern, and what becomes of it.
LEFT_AFTER_KILL = {
    "/var/lib/fw-components/*.flash.new": "overwritten by the component's next update",
    "/dev/shm/sem.??????": "the lock's file before it gets its name; gone with the next start of the device",
    "/run/fw-update/update-all.json": "told by the next command, then removed",
    "/run/fw-update/update-all.json.new": "overwritten by the next update-all",
    "/run/fw-updated/*.job.new": "overwritten by the next job of this number",
    PENDING_LIST: "removed by the next update-all that has something to do",
}

# Kept by any update, interrupted or not.
KEPT = (
    "/var/lib/fw-components/*.progress",
    "/var/lib/fw-components/journal.log",
    "/opt/usr/apps/appbinarymanager/emps/*",
    "/dev/shm/sem.SEM_UPDATE_CONTROL",
    "/run/fw-trace",
    "/run/fw-trace/*",
    "/run/fw-lwipc",
    "/run/fw-lwipc/%2Ftmp%2F.ignore_resume",
    "/run/fw-update",
    "/run/fw-update/recovery.lock",
    "/run/fw-update/update-all.lock",
    "/run/fw-updated",
    "/run/fw-updated/*.job",
    "/run/fw-privileged.sock",
    "/var/lib/fw-update/history.db",
    "/var/lib/fw-update/history.db-journal",
    "/var/lib/fw-update/history.lock",
    "/var/lib/fw-update/minimum-versions*",
)

# Kept by an update that a fleet's server wanted: what there is of each action, and the images where they
# were handed over to.
KEPT_BY_FLEET = KEPT + (
    "/etc/fw-update/fw-fleet.conf",
    "/run/fw-fleet",
    "/var/lib/fw-fleet",
    "/var/lib/fw-fleet/store",
    "/var/lib/fw-fleet/actions",
    "/var/lib/fw-fleet/actions/[0-9].action",
    "/var/lib/fw-updated/incoming",
    "/opt/usr/share/sbox/*fw",
    "/opt/usr/share/sbox/*fw/*",
)

# Not removed when their own removal failed, or what makes them.
LEFT_AFTER_ERROR = {
    "unlink": ("/var/lib/fw-components/*.flash.new", "/dev/shm/sem.??????"),
    "unlinkat": ("/run/fw-update/update-all.json",),
}

# What was handed over, until the next is, or the service starts again.
UNFINISHED = ("/opt/usr/share/sbox/.incoming", "/opt/usr/share/sbox/.incoming/*", "/var/lib/fw-updated/incoming/.incoming",
              "/var/lib/fw-updated/incoming/.incoming/*", "/var/lib/fw-updated/incoming/[0-9]",
              "/var/lib/fw-updated/incoming/[0-9]/*")
LEFT_AFTER_ERROR_BY_FLEET = {call: UNFINISHED for call in ("unlink", "unlinkat", "rmdir")}
LEFT_AFTER_ERROR_BY_FLEET["unlink"] += ("/run/fw-updated/*.out", "/run/fw-updated/*.gate")  # until it starts anew

EXIT_CODES = {
    "ok": 0, "updated": 0, "unexpected-error": 1, "already-running": 1, "stopped": 1, "not-known": 1, "usage": 2,
    "nothing-to-do": 3, "no-such-module": 4, "refused-image": 5, "module-failed": 6, "timed-out": 7,
    "interrupted": 1, "no-service": 1, "not-permitted": 8, "broken-module": 9, "no-controls-directory": 10, "download-failed": 11,
    "lock-in-use": 12,
}


def new_files(look, before, allowed):
    """What is there now, was not before, and is not allowed."""
    added = set(look["files"]) - set(before["files"])
    return sorted(path for path in added
                  if not any(fnmatch.fnmatchcase(path, pattern) for pattern in allowed))


# ---- One point -------------------------------------------------------------------

class Judge:
    """Collects what one point did not keep."""

    def __init__(self, flash, new_components):
        self.flash = flash  # component -> {"old": digest, "new": digest}
        self.new_components = new_components  # those that the update is for
        self.broken = []

    def require(self, holds, what):
        if not holds:
            self.broken.append(what)

    def firmware(self, look, when):
        for name, digest in look["flash"].items():
            allowed = set(self.flash[name].values())
            self.require(digest in allowed, f"{when}: the firmware of {name} is neither the old nor the new one")

    def is_new(self, look, name):
        return look["flash"][name] == self.flash[name]["new"]

    def document(self, ended, when, stdout_failed=False):
        """The result of a command: no crash, no hang, and a document that fits its exit code."""
        if ended.get("hung"):
            self.broken.append(f"{when}: the command did not end")
            return {}
        code = ended["code"]
        if stdout_failed:
            self.require(code == 1, f"{when}: exit code {code} although the answer could not be written")
            return {}
        self.require(code in EXIT_CODES.values(), f"{when}: exit code {code}: {ended['errors'][-300:]}")
        try:
            document = json.loads(ended["output"])
        except ValueError:
            self.broken.append(f"{when}: no JSON document: {ended['output'][-200:]!r} {ended['errors'][-300:]!r}")
            return {}
        expected = EXIT_CODES.get(document.get("outcome"))
        self.require(expected == code == document.get("exitCode"),
                     f"{when}: exit code {code} for the outcome {document.get('outcome')}")
        self.require(bool(document.get("message")) or code == 0, f"{when}: no sentence for people")
        return document

    def mounts(self, look, when, packages):
        wanted = {f"/opt/usr/apps/appbinarymanager/emps/{name}" for name in packages}
        extra = sorted(set(look["mounts"]) - wanted)
        self.require(not extra, f"{when}: mounted: {extra}")
        self.require(len(look["mounts"]) == len(set(look["mounts"])), f"{when}: mounted twice: {look['mounts']}")
        self.require(len(look["loops"]) <= len(look["mounts"]), f"{when}: loop devices in use: {look['loops']}")

    def nothing_new(self, look, before, allowed, when):
        left = new_files(look, before, allowed)
        self.require(not left, f"{when}: left behind: {left}")


def judge_second_update(judge, result):
    """Whether the second update did what was left to do; an update from a package uses it up."""
    used_up = all(judge.is_new(result["after"], name) for name in judge.new_components) and not any(
        path.endswith(".img") for path in result["after"]["files"])
    wanted = ("updated", "nothing-to-do", "refused-image") if used_up else ("updated", "nothing-to-do")
    document = judge.document(result["again"], "update again")
    judge.require(document.get("outcome") in wanted,
                  f"update again: {document.get('outcome')}: {document.get('message')}")


def judge_history(judge, result):
    """The history has every update, each with its true end; only the one that was interrupted
    while it wrote may be missing."""
    document = judge.document(result["history"], "history")
    entries = [entry for entry in document.get("entries", []) if entry["number"] > result["entries-before"]
               and "run" not in entry]
    judge.require("damaged" not in document, "history: it was damaged")
    judge.require(all(entry["outcome"] != "running" for entry in entries), f"history: one runs for ever: {entries}")
    again = judge.document(result["again"], "update again").get("outcome")
    judge.require(entries and entries[-1]["outcome"] == again, f"history: the last is not {again}: {entries}")
    judge.require(len(entries) <= 2, f"history: more than was done: {entries}")
    if len(entries) == 2:
        first = entries[0]["outcome"]
        killed = result["update"]["code"] == KILLED
        # Who cannot say how it went ends with 1; the history has how it went.
        silenced = result["update"]["code"] == 1 and result["acted"] and result["acted"][2] == "standard output"
        told = silenced or EXIT_CODES.get(first) == result["update"]["code"]
        judge.require(first == "interrupted" if killed and first != "updated" else killed or told,
                      f"history: {first}, and the exit code was {result['update']['code']}")
        updated = all(judge.is_new(result["after"], name) for name in judge.new_components)
        judge.require(first != "updated" or updated, "history: updated, but the firmware is not the new one")
    elif result["acted"]:
        _, _, subject, _ = result["acted"]
        judge.require(result["update"]["code"] == KILLED or "history" in subject or "urandom" in subject,
                      "history: the update is missing")


def jobs_of(result):
    """Those of the first update, as the service shows them in the end."""
    try:
        return json.loads(result["jobs"]["output"])["jobs"]
    except (ValueError, KeyError):
        return []


def judge_jobs(judge, result):
    """Each job has one end, which is true, and which the history has as well."""
    judge.document(result["jobs"], "jobs")
    jobs = jobs_of(result)
    judge.require(all(job["state"] == "done" for job in jobs), f"jobs: one is not done: {jobs}")
    judge.require(len(jobs) <= 1, f"jobs: more than were asked for: {jobs}")
    ends = [job["outcome"] for job in jobs]
    judge.require(all(end in ("updated", "interrupted") for end in ends), f"jobs: {jobs}")
    updated = all(judge.is_new(result["after"], name) for name in judge.new_components)
    judge.require("updated" not in ends or updated, "jobs: updated, but the firmware is not the new one")
    judge.require(not updated or ends, "jobs: the firmware is the new one without a job")
    entries = [entry for entry in judge.document(result["history"], "history").get("entries", [])
               if entry["number"] > result["entries-before"]]
    again = judge.document(result["again"], "update again").get("outcome")
    judge.require([entry["outcome"] for entry in entries] == [*ends, again],
                  f"history: not {[*ends, again]}, as the jobs say: {entries}")
    told = judge.document(result["update"], "update").get("outcome")
    judge.require(told in (*ends, "no-service", "unexpected-error"), f"update: {told}, and the job: {ends}")


def judge_recovery(judge, result, packages, judge_entries=None):
    """A fresh process lists and updates, and then nothing is left."""
    if "remedy" in result:
        judge.require(result["remedy"]["code"] == 0, f"remedy: {result['remedy']}")
    listed = judge.document(result["list"], "list")
    judge.require(result["list"]["code"] == 0, f"list: exit code {result['list']['code']}")
    names = {module["firmware"] for module in listed.get("modules", [])}
    judge.require(set(judge.flash) <= names, f"list: only {sorted(names)}")
    judge_second_update(judge, result)
    (judge_entries or judge_history)(judge, result)
    end = result["end"]
    judge.firmware(end, "in the end")
    for name in judge.new_components:
        judge.require(judge.is_new(end, name), f"in the end: {name} has the old firmware")
    judge.require(end["lock"] in (1, None), f"in the end: the update lock has the value {end['lock']}")
    judge.mounts(end, "in the end", packages)
    allowed = KEPT + ("/dev/shm/sem.??????",)
    if PENDING_LIST in result["after"]["files"] and result["again"]["code"] == EXIT_CODES["nothing-to-do"]:
        allowed += (PENDING_LIST,)  # a run that has nothing to do leaves it alone, on purpose
    judge.nothing_new(end, result["before"], allowed, "in the end")
    judge.require(not result["power"], f"{result['power']} power locks were left")
    judge.require(result["orphans"] == 0, f"{result['orphans']} processes were left behind")


def judge_update(judge, result, packages):
    """Of an update that was not killed itself: a clear answer, and nothing left."""
    _, call, subject, _ = result["acted"]
    after = result["after"]
    stdout_failed = call == "write" and subject == "standard output"
    document = judge.document(result["update"], "update", stdout_failed)
    if document.get("outcome") == "updated":
        for name in judge.new_components:
            judge.require(judge.is_new(after, name), f"updated, but {name} has not the new firmware")
    elif document and not (call == "fsync" and subject == COMPONENTS):
        updated = all(judge.is_new(after, name) for name in judge.new_components)
        judge.require(not updated,
                      f"updated, but the answer is {document.get('outcome')}: {document.get('message')}")
    judge.firmware(after, "after the update")
    judge.require(after["lock"] in (1, None), f"after the update: the update lock has the value {after['lock']}")
    judge.mounts(after, "after the update", packages)
    allowed = KEPT + LEFT_AFTER_ERROR.get(call, ())
    judge.nothing_new(after, result["before"], allowed, "after the update")
    judge_recovery(judge, result, packages)


def judge_kill(judge, result, packages):
    if result["service"] and result["service"]["code"] == KILLED:
        judge_update(judge, result, packages)
        return
    after = result["after"]
    judge.require(result["update"]["code"] == KILLED, f"not killed: {result['update']['code']}")
    judge.firmware(after, "after the kill")
    judge.mounts(after, "after the kill", packages)
    judge.nothing_new(after, result["before"], KEPT + tuple(LEFT_AFTER_KILL), "after the kill")
    judge_recovery(judge, result, packages)


def judge_job(judge, result, packages):
    """The service is there again after a kill, and cleans up by itself."""
    after = result["after"]
    judge.firmware(after, "after the job")
    judge.require(after["lock"] in (1, None), f"after the job: the update lock has the value {after['lock']}")
    judge.mounts(after, "after the job", packages)
    judge.nothing_new(after, result["before"], KEPT + tuple(LEFT_AFTER_KILL), "after the job")
    judge.require(result["service"]["code"] in (0, KILLED), f"service: {result['service']}")
    judge_recovery(judge, result, packages, judge_jobs)


# ---- An action of a fleet's server -------------------------------------------------

CLOSED = ("finished", "error")


def judge_action(judge, action, look):
    """It has one end, and that is true; its progress was told once at most."""
    number = f"action {action['id']}"
    told = [entry["execution"] for entry in action["history"]]
    judge.require(told.count("closed") == 1, f"{number}: not closed once: {told}")
    judge.require(len(told) == len(set(told)), f"{number}: something was told twice: {told}")
    judge.require(action["state"] in CLOSED, f"{number}: it is {action['state']}")
    late = [entry["execution"] for entry in action["refused"] if entry["execution"] != "closed"]
    judge.require(not late, f"{number}: told after its end: {late}")
    updated = [name for name in judge.new_components if judge.is_new(look, name)]
    if action["state"] == "finished":
        judge.require(updated == judge.new_components, f"{number}: success, but only {updated} have the new firmware")
    else:
        details = action["history"][-1]["details"] if action["history"] else []
        judge.require(updated != judge.new_components, f"{number}: failure, but all have the new firmware: {details}")
        judge.require(bool(details) and bool(details[0]), f"{number}: a failure without a sentence")


def judge_ends_in_history(judge, result):
    """Each component was updated once, by whichever action; nothing runs for ever or was begun again in vain."""
    document = judge.document(result["history"], "history")
    entries = [entry for entry in document.get("entries", []) if entry["number"] > result["entries-before"]]
    ends = [(entry.get("module", "drive"), entry["outcome"]) for entry in entries]
    judge.require("damaged" not in document, "history: it was damaged")
    cut_off = [end for end in ends if end[1] == "interrupted"]
    if result["ended"].get("update-service", {}).get("code") == KILLED and len(cut_off) == 1:
        ends.remove(cut_off[0])  # the job that it was about to start
    judge.require(all(outcome == "updated" for _, outcome in ends), f"history: not only updates: {ends}")
    ends = [end for end in ends if end[0] != "drive"]
    judge.require(len(ends) == len(judge.new_components), f"history: not one end for each component: {ends}")


def judge_fleet(judge, result, _packages):
    """Both services are there again after a kill, and the action goes on by itself."""
    after, end = result["after"], result["end"]
    for name, ended in result["ended"].items():
        judge.require(not ended.get("hung"), f"{name}: it did not end")
        judge.require(ended["code"] in (0, 1, -15, 128 + 15, KILLED), f"{name}: {ended}")
        judge.require(ended["code"] != 1 or ended["errors"], f"{name}: it ended without a reason")
    judge_action(judge, result["actions"]["1"], after)
    judge_action(judge, result["actions"]["2"], end)
    judge.require(result["actions"]["2"]["state"] == "finished", f"action 2: {result['actions']['2']['history']}")
    judge_ends_in_history(judge, result)
    # Only where it failed; a service that was killed removes it when it is there again.
    is_killed = KILLED in (ended["code"] for ended in result["ended"].values())
    failed = "" if is_killed or not result["acted"] else result["acted"][1]
    allowed = KEPT_BY_FLEET + ("/dev/shm/sem.??????",) + LEFT_AFTER_ERROR_BY_FLEET.get(failed, ())
    for look, when in ((after, "after the action"), (end, "in the end")):
        judge.firmware(look, when)
        judge.require(look["lock"] in (1, None), f"{when}: the update lock has the value {look['lock']}")
        judge.mounts(look, when, [])
        judge.nothing_new(look, result["before"], allowed, when)
    judge.require(not result["power"], f"{result['power']} power locks were left")
    judge.require(result["orphans"] == 0, f"{result['orphans']} processes were left behind")


def judge_fleet_kill(judge, result, packages):
    action = result["actions"]["1"]
    judge.require(action["state"] == "finished", f"action 1: killed once, and not updated: {action['history'][-1:]}")
    judge_fleet(judge, result, packages)


def judge_error(judge, result, packages):
    service = result["service"]
    if service:
        judge.require(service["code"] in (0, 1) and not service.get("hung"), f"service: {service}")
        judge.require(service["code"] == 0 or service["errors"], "service: it ended without a reason")
    judge_update(judge, result, packages)
