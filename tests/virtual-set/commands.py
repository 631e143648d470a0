# SPDX-License-Identifier: Apache-2.0
"""./virtual-set itself: what its commands and options do, whoever gives them."""
import contextlib
import os
import pathlib
import shutil
import subprocess
import tempfile

import made_set
from support import expect

LIMIT = 3600
USER = "setmaker"
NUMBER, RANGE = 64999, "700000:65536"
# Names and ranges of users for this command alone.
AS_USER = f"""
set -eu
for file in passwd group subuid subgid; do cp /etc/$file "$1/$file"; done
echo "{USER}:x:{NUMBER}:{NUMBER}::$1:/bin/sh" >>"$1/passwd"
echo "{USER}:x:{NUMBER}:" >>"$1/group"
echo "{USER}:{RANGE}" >>"$1/subuid"
echo "{USER}:{RANGE}" >>"$1/subgid"
for file in passwd group subuid subgid; do mount --bind "$1/$file" /etc/$file; done
cd "$1/tree"
exec setpriv --reuid {NUMBER} --regid {NUMBER} --clear-groups --reset-env env -u XDG_CACHE_HOME "HOME=$1" \\
  ./virtual-set "${{@:2}}"
"""


def virtual_set(*words, **options):
    """Exit code and output of a ./virtual-set command."""
    done = subprocess.run([made_set.TREE / "virtual-set", *words], capture_output=True, text=True, timeout=LIMIT,
                          check=False, **{"stdin": subprocess.DEVNULL, **options})
    return done.returncode, done.stdout, done.stderr


def a_command_has_its_output_and_exit_code():
    code, output, errors = virtual_set("run", "sh", "-c", "fw-update list; exit 3")
    expect(code == 3 and "libtuner" in output, "they are those of the command in the set", output + errors)
    code, output, errors = virtual_set("run", "--debian", "--", "sh", "-c", "command -v fw-update; uname -m")
    expect(code == 0 and output == "i686\n", "without the packages there is no such command", output + errors)


def a_shared_directory_and_a_drive_are_found():
    with tempfile.TemporaryDirectory() as share:
        code, _, errors = virtual_set("run", "--share", share, "sh", "-c", """set -e
            truncate --size 16M /tmp/drive; mkfs.vfat /tmp/drive >/dev/null
            mount -o loop /tmp/drive /mnt; echo here >/mnt/file; umount /mnt; mv /tmp/drive /share/drive""")
        expect(code == 0 and os.listdir(share) == ["drive"], "what is put into the shared directory stays", errors)
        code, output, errors = virtual_set("run", "--drive", f"{share}/drive", "cat", "/opt/media/USBDriveA/file")
        expect((code, output) == (0, "here\n"), "the drive is mounted when the command begins", output + errors)
        code, output, errors = virtual_set("run", "--drive", f"{share}/another", "true")
        expect(code == 125 and "another" in errors, "a drive that is not there is named", output + errors)
        code, output, errors = virtual_set("run", "--share", f"{share}/another", "true")
        expect(code == 125 and "another is no directory" in errors, "so is a directory", output + errors)
        expect(os.listdir(share) == ["drive"], "and none is made")


def a_set_that_is_started_anew_runs_the_same():
    start = "cat /proc/sys/kernel/random/boot_id"
    _, kept, _ = virtual_set("run", "sh", "-c", start)
    code, output, errors = virtual_set("run", "--boot", "sh", "-c", f"systemctl is-system-running --wait; fw-update list; {start}")
    expect(code == 0 and "running" in output and "libtuner" in output, "it starts, and has its modules", output + errors)
    expect(kept and kept not in output, "it is another start than the kept one", output)


def a_shell_takes_commands_and_ends():
    code, output, errors = virtual_set("shell", input="echo $((6 * 7))\nexit 5\n", stdin=None)
    expect(code == 5 and "\n42" in output, "the shell did what was typed", output + errors)


def a_set_that_is_switched_off_ends_its_shell():
    # The system would end a shell that stays after 90 seconds.
    code, output, errors = virtual_set("shell", "--limit", "80", input="systemctl poweroff\n", stdin=None)
    expect(code == 0, "the shell ended with its set", output + errors)


def a_limit_ends_it_and_is_named():
    for words, typed in ((["run", "--limit", "20", "sleep", "1000"], None), (["shell", "--limit", "20"], "sleep 1000\n")):
        code, output, errors = virtual_set(*words, input=typed, **({"stdin": None} if typed else {}))
        expect(code == 125 and errors.endswith("it had run for its limit of 20 s\n"), "the last line says why", output + errors)


@contextlib.contextmanager
def tree_of_an_ordinary_user():
    """The commands, owned by somebody who has no rights."""
    with tempfile.TemporaryDirectory(dir="/var/tmp") as home:
        tree = pathlib.Path(home, "tree")
        shutil.copytree(made_set.HERE, tree / "sandbox" / "virtual-set", ignore=shutil.ignore_patterns("__pycache__"))
        shutil.copy(made_set.TREE / "virtual-set", tree)
        subprocess.run(["chown", "-R", f"{NUMBER}:{NUMBER}", home], check=True)
        yield home


def an_ordinary_user_makes_it_and_runs_it():
    if os.geteuid() != 0 or shutil.which("newuidmap") is None:
        raise made_set.CannotMake("becoming an ordinary user takes root and newuidmap (uidmap)")
    with tree_of_an_ordinary_user() as home:
        def as_user(*words):
            done = subprocess.run(["unshare", "--mount", "bash", "-c", AS_USER, "as-user", home, *words],
                                  capture_output=True, text=True, timeout=LIMIT, check=False)
            return done.returncode, done.stdout, done.stderr
        code, output, errors = as_user("make", "--debian")
        expect(code == 0, "the set is made", output + errors)
        code, output, errors = as_user("run", "--debian", "sh", "-c", "id --user; stat --format %u /root /etc/shadow")
        expect((code, output) == (0, "0\n0\n0\n"), "in the set it is root, and files have their owners", output + errors)


TESTS = (a_command_has_its_output_and_exit_code,
         a_shared_directory_and_a_drive_are_found,
         a_set_that_is_started_anew_runs_the_same,
         a_shell_takes_commands_and_ends,
         a_set_that_is_switched_off_ends_its_shell,
         a_limit_ends_it_and_is_named,
         an_ordinary_user_makes_it_and_runs_it)
