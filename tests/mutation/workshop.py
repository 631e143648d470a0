# SPDX-License-Identifier: Apache-2.0
"""A copy of the source tree in which mutants are built and tested.

The sources themselves are never touched. Programs of the copy run confined (the script
beside this file): a mutant of code that mounts, deletes and kills is dangerous.
"""
import fcntl
import json
import os
import pathlib
import re
import shutil
import signal
import subprocess

HERE = pathlib.Path(__file__).resolve().parent
CACHE = HERE.parent / "with-compiler-cache"
PRESET = "dev"
# Links quickly, and what only calls a shared library not at all; and no program is run to
# be built.
OPTIONS = ["-DCMAKE_LINK_DEPENDS_NO_SHARED=ON", "-DCMAKE_GTEST_DISCOVER_TESTS_DISCOVERY_MODE=PRE_TEST"]
LINKER = "-fuse-ld=lld -Wl,--strip-debug"
# What a mutant may be warned of.
ALLOWED = ["address", "array-bounds", "conversion", "empty-body", "format-overflow", "format-truncation",
           "int-in-bool-context", "logical-not-parentheses", "maybe-uninitialized", "parentheses", "return-type",
           "sign-compare", "sign-conversion", "stringop-overflow", "type-limits", "unused-but-set-variable",
           "unused-const-variable", "unused-function", "unused-parameter", "unused-result", "unused-value",
           "unused-variable"]
PRAGMAS = "".join(f'#pragma GCC diagnostic ignored "-W{name}"\n' for name in ALLOWED) + "#line 1\n"
NAMED = re.compile(r"^\s*\d+ - (.+) \([^()]+\)$", re.MULTILINE)
FAILED = "The following tests FAILED:"
NOT_RUN = "The following tests did not run:"  # what ctest says before the names
NO_TEST = "the run of the tests itself"
QUICK = 2  # seconds
LIMIT_OF_QUICK = 30
STEPS = (0.15, 0.5, QUICK)  # seconds: the quicker a test is known to be, the earlier it runs
NO_SOURCES = ("build", ".git", "device")
BUILD_TIME = 1800  # seconds
TEST_RUN_TIME = 3600


class Stopped(Exception):
    """What the workshop needs does not work without a mutant."""


def sources(root):
    """The names of all files of a tree but those that are built."""
    for place, folders, files in os.walk(root):
        if pathlib.Path(place) == root:
            folders[:] = [name for name in folders if name not in NO_SOURCES]
        folders[:] = [name for name in folders if name != "__pycache__"]
        for name in files:
            yield str((pathlib.Path(place) / name).relative_to(root))


def same(one, other):
    if one.is_symlink() or other.is_symlink():
        return one.is_symlink() and other.is_symlink() and os.readlink(one) == os.readlink(other)
    return (other.is_file() and one.stat().st_mode == other.stat().st_mode
            and one.read_bytes() == other.read_bytes())


class Workshop:
    def __init__(self, root, place, jobs, limit):
        self.root, self.jobs, self.limit = root, jobs, limit
        place.mkdir(parents=True, exist_ok=True)
        self.place = place.resolve()
        self.copy = self.place / "tree"
        self.build_directory = self.copy / "build" / PRESET
        self.lock = open(self.place / "lock", "w", encoding="utf-8")
        try:
            fcntl.flock(self.lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
        except BlockingIOError:
            raise Stopped(f"another run works in {place}; wait for it, or give another place with --build") from None

    def close(self):
        self.lock.close()

    def synchronise(self):
        """Makes the copy what the sources are, and touches nothing that is the same."""
        wanted = set(sources(self.root))
        known = self.place / "files"
        before = set(known.read_text(encoding="utf-8").split("\0")) if known.exists() else set()
        known.write_text("\0".join(sorted(wanted | before)), encoding="utf-8")
        for name in before - wanted:
            (self.copy / name).unlink(missing_ok=True)
        for name in wanted:
            target = self.copy / name
            if not same(self.root / name, target):
                target.parent.mkdir(parents=True, exist_ok=True)
                target.unlink(missing_ok=True)
                shutil.copy(self.root / name, target, follow_symlinks=False)
        known.write_text("\0".join(sorted(wanted)), encoding="utf-8")

    def configure(self):
        linker = [f"-DCMAKE_{kind}_LINKER_FLAGS={LINKER}" for kind in ("EXE", "SHARED", "MODULE")]
        options = OPTIONS + (linker if shutil.which("ld.lld") else [])
        self.run(["cmake", "--preset", PRESET, *options], "configure", BUILD_TIME)

    def run(self, command, log, seconds, confined=False, read_cache_only=False):
        """Runs a command in the copy; its exit code, None when it ran out of time."""
        variables = dict(os.environ)
        if read_cache_only:
            variables.update({"CCACHE_READONLY": "1", "CCACHE_TEMPDIR": "/tmp/ccache"})
        prefix = [CACHE, *([HERE / "confined", self.copy] if confined else [])]
        with open(self.place / f"{log}.log", "wb") as output:
            child = subprocess.Popen([*prefix, *command], cwd=self.copy, stdin=subprocess.DEVNULL, stdout=output,
                                     stderr=subprocess.STDOUT, env=variables, start_new_session=True)
            try:
                return child.wait(seconds)
            except subprocess.TimeoutExpired:
                return None
            finally:
                if child.returncode is None:
                    os.killpg(child.pid, signal.SIGKILL)
                    child.wait()

    def log(self, name):
        return (self.place / f"{name}.log").read_text(encoding="utf-8", errors="replace")

    def build(self, targets, mutated=False):
        command = ["cmake", "--build", "--preset", PRESET, "--parallel", str(self.jobs), "--target", *targets]
        return self.run(command, "build", BUILD_TIME, confined=mutated, read_cache_only=mutated) == 0

    def known_targets(self):
        listed = subprocess.run(["ninja", "-C", self.build_directory, "-t", "targets", "all"],
                                stdout=subprocess.PIPE, text=True, check=True).stdout
        return {line.split(":")[0] for line in listed.splitlines()}

    def tests(self):
        """(number, name, program) of each test, in ctest's order."""
        self.run(["ctest", "--preset", PRESET, "--show-only=json-v1"], "tests", BUILD_TIME, confined=True)
        text = self.log("tests")
        listed = json.loads(text[text.index("{"):])["tests"]
        return [(number, test["name"], pathlib.Path(test["command"][0]).name)
                for number, test in enumerate(listed, 1) if test.get("command")]

    def cost_file(self):
        return self.build_directory / "Testing" / "Temporary" / "CTestCostData.txt"

    def mean_costs(self):
        """How many seconds tests took on average, by name."""
        known = self.cost_file()
        text = known.read_text(encoding="utf-8", errors="replace") if known.exists() else ""  # also of cut-off output
        rows = text.split("---")[0].splitlines()
        return {name: float(seconds) for name, _, seconds in (row.rsplit(" ", 2) for row in rows)}

    def costs(self):
        """How many seconds tests are known to take, by name; without a fault, where that was measured: many take longer with one."""
        return {**self.mean_costs(), **self.remembered("costs")}

    def measure(self, numbers):
        """Runs all of these tests, without a fault: the names of those that fail. From then on costs() has what each took."""
        self.cost_file().unlink(missing_ok=True)
        failed = self.failures(numbers, go_on=True)
        self.remember("costs", {**self.remembered("costs"), **self.mean_costs()})
        return failed

    def failures(self, numbers, limit=None, go_on=False):
        """The names of some of these tests that fail, or are skipped; unless it goes on, the others are not run then."""
        chosen = "0,0,0," + ",".join(map(str, sorted(numbers)))
        command = ["ctest", "--preset", PRESET, "-I", chosen, "--parallel", str(self.jobs), "--timeout",
                   str(limit or self.limit), "--repeat", "until-pass:2", *([] if go_on else ["--stop-on-failure"])]
        for _ in range(2):  # a test program that does not even name its tests may do so the next time
            passed = self.run(command, "test", TEST_RUN_TIME, confined=True) == 0
            failed = NAMED.findall(self.log("test").partition(NOT_RUN if passed else FAILED)[2])
            if failed or passed:
                return failed
        return [NO_TEST]

    def remembered(self, name):
        known = self.place / f"{name}.json"
        return json.loads(known.read_text(encoding="utf-8")) if known.exists() else {}

    def remember(self, name, value):
        (self.place / f"{name}.json").write_text(json.dumps(value, indent=1), encoding="utf-8")

    def put(self, mutant):
        text = (self.root / mutant.file).read_text(encoding="utf-8")
        (self.copy / mutant.file).write_text(PRAGMAS + mutant.apply(text), encoding="utf-8")

    def restore(self, name):
        shutil.copy(self.root / name, self.copy / name)  # with the time of now: it is built again
