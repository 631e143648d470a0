# SPDX-License-Identifier: Apache-2.0
"""Programs of the 32-bit build on the set's kernel: tests of the library, and what plays
the states of a disk. They lie there at the same place as here, for they know it.
"""
import shutil
import subprocess

import made_set
from machine import MachineError
from support import debian, expect, succeed

BUILD = made_set.TREE / "build" / "i386"
PLAYER = "tests/power-cut-states"
CARELESS = "tests/modules/careless.so"
# What a test program looks for beside itself.
MODULES = ("lib/lib*.so*", "modules/*.so", "tests/modules/*.so")
LIMIT = 1200  # seconds for one program


def build(*targets):
    """Builds what is not there yet: the step of the 32-bit build made all of it."""
    for command in (["make"], ["run", "cmake", "--preset", "i386"],
                    ["run", "cmake", "--build", "--preset", "i386", "--target", *targets]):
        done = subprocess.run(["tests/device-root", *command], cwd=made_set.TREE, check=False, capture_output=True,
                              text=True)
        if done.returncode == 77:
            raise made_set.CannotMake("the 32-bit programs cannot be built here")
        if done.returncode:
            raise MachineError(f"{' '.join(command)}: {done.stdout[-2000:]}{done.stderr[-2000:]}")


def put(machine, *patterns):
    """Copies files of the build to the set, without what is for debuggers."""
    target = machine.share / "build"
    for path in (path for pattern in patterns for path in BUILD.glob(pattern) if path.is_file()):
        copy = target / path.relative_to(BUILD)
        copy.parent.mkdir(parents=True, exist_ok=True)
        shutil.copy(path, copy)
        subprocess.run(["strip", "--strip-debug", copy], check=True)
    succeed(machine, f"mkdir -p {BUILD} && cp -r /share/build/. {BUILD}/")


def run_tests(program, chosen="*"):
    """Runs each test of a program in a process of its own, as the library is made for."""
    build(program)
    with debian().machine() as machine:
        put(machine, f"tests/{program}", *MODULES)
        failed = succeed(machine, f"""
            {BUILD}/tests/{program} --gtest_list_tests --gtest_filter='{chosen}' |
              awk '/^[^ ]/ {{ suite = $1 }} /^ / {{ print suite $1 }}' >/tmp/names
            [ -s /tmp/names ]
            while read -r name; do
              code=0
              {BUILD}/tests/{program} --gtest_filter="$name" >/tmp/test.log 2>&1 </dev/null || code=$?
              if [ $code -ne 0 ] || ! grep -q '  PASSED  . 1 test' /tmp/test.log; then
                echo "$name: exit code $code"
                cat /tmp/test.log
              fi
            done </tmp/names
            echo "$(wc -l </tmp/names) tests" >/share/count""", LIMIT)
        print((machine.share / "count").read_text(), end="")
        expect(failed == "", f"every test of {program} passes", failed[-6000:])


def the_update_lock_is_one_for_all_processes():
    run_tests("test-fw-update-common")


def updates_are_guarded_by_lock_and_time_and_go_on_after_a_signal():
    run_tests("test-fw-update-symbol-manager-update")


def clients_get_what_they_asked_for():
    run_tests("test-fw-update-control")


def signals_and_programs_are_handled():
    run_tests("test-base")


def files_of_more_than_four_gibibytes_are_read_and_counted():
    # Those that read each byte take the emulated processor a quarter of an hour.
    run_tests("test-large-images", "LargeFlash.Counts*:LargeInput.*")


TESTS = (the_update_lock_is_one_for_all_processes,
         updates_are_guarded_by_lock_and_time_and_go_on_after_a_signal,
         clients_get_what_they_asked_for,
         signals_and_programs_are_handled,
         files_of_more_than_four_gibibytes_are_read_and_counted)
