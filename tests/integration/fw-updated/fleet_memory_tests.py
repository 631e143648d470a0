# SPDX-License-Identifier: Apache-2.0
"""usage: fleet_memory_tests.py TEST: how much memory the fleet's client takes for itself alone.

Each function whose name begins with a capital is a test.
"""
import os
import pathlib
import tempfile
import time

from fleet_program_tests import Lab, configure, fleet, run_client_on_the_bus
from hand_over_tests import start
from service_client import run_named_test, wait_for

MIB = 1 << 20
ALLOWED = 8 * MIB
LARGE = 64 * MIB
MUCH = 60 * MIB  # then nothing more comes, and it is looked at


def own_memory(process):
    """What nobody shares with it."""
    rows = pathlib.Path(f"/proc/{process.pid}/smaps_rollup").read_text(encoding="ascii").splitlines()
    return sum(int(row.split()[1]) << 10 for row in rows if row.startswith("Private_"))


def received():
    return sum(path.stat().st_size for path in pathlib.Path("/var/lib/fw-fleet/store").glob("*.part"))


def wait_for_much():
    """A download may take its time on a machine that has other work."""
    end = time.monotonic() + 200
    while received() < MUCH:
        assert time.monotonic() < end, received()
        time.sleep(0.05)


def idle_client():
    _, client = start()
    lab = Lab()
    configure(lab)
    process = run_client_on_the_bus(client)
    fleet("poll")
    wait_for(lambda: lab.state()["sets"].get("tv1", {}).get("attributes"), "it has told its attributes")
    return process, lab


def TakesNoMoreThanEightMebibytes():
    process, lab = idle_client()
    idle = own_memory(process)

    image = pathlib.Path(tempfile.mkdtemp()) / "large.img"
    image.write_bytes(os.urandom(LARGE))
    lab.order("switch", stallAt=MUCH)
    lab.assign(("tunerfw", "3.0.0", {"large.img": str(image)}))
    fleet("poll")
    wait_for_much()
    loading = own_memory(process)

    print(f"{idle / MIB:.1f} MiB when it waits, {loading / MIB:.1f} MiB while it downloads 64 MiB")
    assert idle <= ALLOWED and loading <= ALLOWED, (idle, loading)


def largest_resident(process):
    rows = pathlib.Path(f"/proc/{process.pid}/status").read_text(encoding="ascii").splitlines()
    return next(int(row.split()[1]) << 10 for row in rows if row.startswith("VmHWM"))


def GivesBackWhatADocumentTook():
    """One as large as it may be, of as many values as it can have, which is no action."""
    process, lab = idle_client()
    idle = own_memory(process)
    document = '{"a":[' + "[]," * 32000 + "[]]}"
    lab.order("switch", answers=[{"what": "deploymentBase", "status": 200, "body": document.ljust(MIB)}])

    lab.assign(("tunerfw", "3.0.0", {}))
    fleet("poll")
    wait_for(lambda: 'Trouble: The server\'s answer has no usable "id".' in fleet("status").stdout, "it has read the document")
    afterwards, largest = own_memory(process), largest_resident(process)

    print(f"{idle / MIB:.1f} MiB when it waits, {afterwards / MIB:.1f} MiB after the document, {largest / MIB:.1f} MiB resident "
          "at most")
    assert afterwards <= idle + 2 * MIB, (idle, afterwards)
    assert largest <= 32 * MIB, largest


if __name__ == "__main__":
    run_named_test(globals())
