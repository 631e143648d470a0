# SPDX-License-Identifier: Apache-2.0
"""The topics: each runs its programs and returns figures and measurements."""
import json
import subprocess
from dataclasses import dataclass

from answer import first_answer
from programs import Failed, counter_values, google_benchmark, run, values_by_name
from results import Figure, Measurement, ratios
from service import service
from whole_update import growth, steps_of_update, whole_update

MEBIBYTE = 1024 * 1024


@dataclass
class Ratio:
    """One benchmark of a program to another."""

    what: str
    label: str
    subject: str
    reference: str
    goal: float | None = None

    def figure(self, topic, values):
        figure = Figure(topic, self.what, self.label, self.goal)
        missing = [name for name in (self.subject, self.reference) if name not in values]
        if missing:
            figure.note = f"no {missing[0]} on this machine"
        else:
            figure.values = ratios(values[self.subject], values[self.reference])
        return figure


def of_program(topic, values, wanted):
    found = [ratio.figure(topic, values) for ratio in wanted]
    return found + [Measurement(topic, name, times) for name, times in values.items()]


WAYS = {"fold-512": "512-bit folding", "fold-256": "256-bit folding", "fold": "128-bit folding",
        "sliced": "no carry-less multiplication"}


def checksum(environment):
    values = values_by_name(google_benchmark(environment, "image-crc"))
    # Each way that this processor has, as another one without the wider ones would take it.
    ways = [Ratio(f"the same with {way} : reading it", f"{way} : reading", f"ImageFile/Checksum/{name}",
                  "ImageFile/Read") for name, way in WAYS.items()]
    return of_program("checksum", values, [
        Ratio("checksum of a cached file of 1 GiB : reading it in 32 KiB reads", "checksum : reading",
              "ImageFile/Checksum", "ImageFile/Read", 1.25),
        *ways,
        Ratio("a cached chunk of 32 KiB folded in 256 bits : in 128 bits", "256-bit : 128-bit folding",
              "Chunk/fold-256", "Chunk/fold", 0.6),
        Ratio("the same : `openssl dgst -sha256` of it", "checksum : openssl sha256",
              "ImageFile/Checksum", "ImageFile/OpensslSha256", 0.35),
        Ratio("the same without carry-less multiplication : Boost.CRC", "sliced checksum : Boost.CRC",
              "ImageFile/Checksum/sliced", "ImageFile/Checksum/boost", 0.25),
    ])


def decryption(environment):
    values = values_by_name(google_benchmark(environment, "decryption"))
    return of_program("decryption", values, [
        Ratio("decryption of 256 MiB : `openssl enc -d` to a file in memory", "decryption : openssl enc",
              "Package/Decrypt", "Package/OpensslDecrypt", 0.8),
        Ratio("decryption of 256 MiB : its parts alone (reading, cipher, fresh memory)", "decryption : its parts",
              "Package/Decrypt", "Package/Parts", 1.05),
    ])


def start_up(environment):
    values = values_by_name(google_benchmark(environment, "start-up"))
    goals = {100: 1.1, 1000: 1.1}
    wanted = [
        Ratio(f"scan and bind {count} {'module' if count == 1 else 'modules'} : `dlopen` and nine `dlsym` each",
              f"bind {count} modules : dlopen, dlsym", f"startUp/library/{count}", f"startUp/bare/{count}",
              goals.get(count))
        for count in (1, 10, 100, 1000)
    ]
    wanted.append(Ratio("scan and bind 1000 modules without the four optional entry points, with the four messages "
                        "that each causes : the same", "", "startUp/libraryMinimal/1000",
                        "startUp/bareMinimal/1000"))
    found = of_program("start-up", values, wanted)
    # How much more a module costs among a thousand than among a hundred.
    for who, name in (("library", "the library's"), ("bare", "the bare")):
        thousand, hundred = values[f"startUp/{who}/1000"], values[f"startUp/{who}/100"]
        found.append(Measurement("start-up", f"{name} cost of a module among 1000 : among 100",
                                 [ratio / 10 for ratio in ratios(thousand, hundred)], ""))
    return found


def memory(environment):
    seen = {"bare": [], "loaded": [], "facade_up": []}
    own = {name: [] for name in seen}
    for _ in range(environment.repetitions):
        found = json.loads(run([environment.program("resident-memory")], environment.work / "memory.log"))
        for name, amounts in found.items():
            seen[name].append(amounts["resident"] / MEBIBYTE)
            own[name].append(amounts["private"] / MEBIBYTE)
    more = [up - bare for up, bare in zip(seen["facade_up"], seen["bare"])]
    measurements = [
        Measurement("memory", f"{what}, {kind}", amounts[name], "MiB")
        for name, what in (("bare", "a bare process"), ("loaded", "with the library loaded"),
                           ("facade_up", "with the facade up and 10 modules"))
        for kind, amounts in (("resident", seen), ("of it private", own))
    ]
    return [Figure("memory", "library loaded, facade up, 10 modules : the bare process, resident, more",
                   "facade up : bare process", 4, more, "MiB"), *measurements, *library_sizes(environment)]


def library_sizes(environment):
    for name in ("libfw-update-control.so", "libfw-platform.so"):
        stripped = environment.work / name
        subprocess.run(["strip", "-o", stripped, (environment.libraries / name).resolve()], check=True)
        yield Measurement("memory", f"{name}, stripped", [stripped.stat().st_size / MEBIBYTE], "MiB")


QUIET = {"FW_UPDATE_LOG": "none", "FW_UPDATE_TRACE": "none"}


REQUEST_PARTS = (
    ("checks_ns", "part: checks before the lock"),
    ("lock_ns", "part: the lock opened and taken"),
    ("thread_ns", "part: until the worker's thread runs"),
    ("worker_ns", "part: checks on the worker"),
    ("module_ns", "part: in the module, which waits for its caller to wait"),
    ("back_ns", "part: back to the caller"),
)


def request(environment):
    found = []
    totals = {}
    for kind, variables in (("with messages", {}), ("without messages", QUIET)):
        document = google_benchmark(environment, "request", "--benchmark_min_time=0.2", variables=variables)
        totals[kind] = values_by_name(document)["request"]
        found.append(Measurement("request", f"a request {kind}", totals[kind]))
        found += [Measurement("request", f"{what}, {kind}", counter_values(document, name, 1e-9))
                  for name, what in REQUEST_PARTS]
    shares = ratios(totals["with messages"], totals["without messages"])
    return [Figure("request", "a request with an empty module and 16 bytes of image : the same without messages",
                   "request : without messages", None, shares), *found]


UPDATES = 10000


def lock(environment):
    found = {1: [], 2: []}
    for _ in range(environment.repetitions):
        for processes, runs in found.items():
            output = run([environment.program("update-lock"), str(processes), str(UPDATES)],
                         environment.work / "update-lock.log")
            runs.append(json.loads(output))
    alone, two = ([each["seconds"] for each in found[processes]] for processes in (1, 2))
    lost = sum(each["failures"] + each["overlaps"] for runs in found.values() for each in runs)
    if lost:
        raise Failed(f"{lost} updates failed or overlapped")
    return [
        Figure("lock", f"{UPDATES} updates by two processes in turn : by one process", "two processes : one",
               None, ratios(two, alone)),
        Measurement("lock", "an update, one process", [each / UPDATES for each in alone]),
        Measurement("lock", "an update, two processes", [each / UPDATES for each in two]),
        Measurement("lock", "the longest request of two processes", [each["longest_ms"] / 1e3 for each in found[2]]),
        Measurement("lock", "times that the lock went to the other process",
                    [each["handovers"] for each in found[2]], "times"),
    ]


def trace(environment):
    values = values_by_name(google_benchmark(environment, "trace-storage", "--benchmark_min_time=0.2"))
    return of_program("trace", values, [
        Ratio("a trace record : the same message formatted and written as a line", "trace record : log line",
              "traceRecord", "formatAndWrite"),
    ])


def rate(values, mebibytes):
    return [mebibytes / seconds for seconds in values]


def traces(environment):
    document = google_benchmark(environment, "trace-reading")
    values = values_by_name(document)
    found = [
        # A pace that is kept is 1.
        Figure("traces", "fw-trace summary of 1 GiB of traces : 16 times that of 64 MiB", "summary 1 GiB : 16 x 64 MiB",
               1.1, [ratio / 16 for ratio in ratios(values["summary/1024"], values["summary/64"])]),
        Figure("traces", "fw-trace show of 256 MiB of traces : 4 times that of 64 MiB", "show 256 MiB : 4 x 64 MiB",
               1.1, [ratio / 4 for ratio in ratios(values["show/256"], values["show/64"])]),
    ]
    for name, mebibytes in (("summary/1024", 1024), ("show/256", 256)):
        command = name.split("/")[0]
        found.append(Measurement("traces", f"fw-trace {command}: traces read", rate(values[name], mebibytes), "MiB/s"))
    memory = [entry["memory_mib"] for entry in document["benchmarks"] if "memory_mib" in entry]
    found.append(Measurement("traces", "most memory that any of them took", [max(memory)], "MiB"))
    found.append(Measurement("traces", "processor time of fw-trace follow in five seconds, 1 GiB of traces, nothing new",
                             values["followIdle/1024"]))
    return found


TOPICS = {
    "checksum": checksum,
    "decryption": decryption,
    "start-up": start_up,
    "answer": first_answer,
    "memory": memory,
    "request": request,
    "lock": lock,
    "update": whole_update,
    "steps": steps_of_update,
    "growth": growth,
    "trace": trace,
    "traces": traces,
    "service": service,
}
