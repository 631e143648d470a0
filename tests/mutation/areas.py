# SPDX-License-Identifier: Apache-2.0
"""Which tests look at which sources first.

An area is a folder, the programs whose tests are its own (shell patterns over the names of
targets), and further tests by name, of commands and pages. A file belongs to the area with
the longest folder that it lies in.
"""
import dataclasses
import fnmatch
import pathlib


@dataclasses.dataclass(frozen=True)
class Area:
    folder: str
    programs: tuple
    tests: tuple = ()  # shell patterns over their names
    targets: tuple = ()  # what these need to be built


# What a device is made of.
DEVICE = ("fw-device", "module-tuner", "module-panel", "module-wifi", "module-remote", "kZAQUser", "fw-privileged")

AREAS = (
    Area("base", ("test-base", "test-whole-file", "test-platform-log", "sandbox-test"), ("HostileTexts.*",),
         (*DEVICE, "fw-update", "fw-trace", "fw-module", "fw-pack", "fw-download", "fw-platform-check",
          "hostile-module")),
    Area("src", ("test-fw-update-*", "test-diagnostic-log", "test-image-crc", "test-regular-file"), ("Exports.*", "Troubleshooting.*")),
    Area("platform/linux", ("test-platform-*", "test-download", "test-privileged-*", "platform-check-test")),
    Area("platform/linux/log", ("test-platform-log", "test-platform-files", "test-platform-journal")),
    Area("platform/linux/power", ("test-platform-power",)),
    Area("platform/linux/privileged", ("test-platform-privileged", "test-privileged-*", "test-squashfs-unpack",
                                       "replay-privileged-message"),
         ("AsAnOrdinaryUser.test-squashfs-unpack", "AsAnOrdinaryUser.test-privileged-operations")),
    Area("platform/linux/trace", ("test-platform-trace-*", "test-fw-trace", "replay-trace-reader")),
    Area("platform/linux/verifier", ("test-verifier", "test-package-signature", "replay-package-signature", "fw-pack-test")),
    Area("platform/skeleton", ("test-platform-skeleton", "platform-check-test")),
    Area("sandbox", ("sandbox-test", "fw-device-test")),
    Area("sandbox/power-cut", ("test-power-cut",)),
    Area("image", ("test-image", "sandbox-test", "fw-pack-test")),
    Area("history", ("test-history",), ("UpdateHistory.*",), (*DEVICE, "fw-update")),
    Area("modules", ("modules-test", "component-flash-test", "test-large-images")),
    Area("transfer", ("test-transfer", "test-download", "test-fw-download*", "test-fw-fleet*")),
    Area("vocabulary", ("test-vocabulary", "test-fw-update", "test-fw-trace"), ("Troubleshooting.*",)),
    Area("tools/shared", ("test-tool-*", "test-fw-update")),
    Area("tools/fw-device", ("fw-device-test", "test-fw-device*")),
    Area("tools/fw-download", ("test-download", "test-fw-download*")),
    Area("tools/fw-module", ("fw-module-test", "test-fw-module*")),
    Area("tools/fw-pack", ("fw-pack-test", "test-fw-pack*", "test-verifier")),
    Area("tools/fw-platform-check", ("platform-check-test",)),
    Area("services/fw-privileged", ("test-privileged-service",)),
    Area("services/fw-fleet", ("test-fw-fleet", "test-fw-fleet-agent", "test-fw-fleet-check"), ("FleetProgram.*",),
         (*DEVICE, "fw-fleet", "fw-pack", "fw-update", "fw-updated")),
    Area("services/access", (), ("UpdateService.*", "ServiceHandOver.*"),
         (*DEVICE, "faulty-module", "library-client", "fw-pack", "fw-update", "fw-updated")),
    Area("services/fw-fleet/bus", (), ("FleetProgram.*",), (*DEVICE, "fw-fleet", "fw-pack", "fw-update", "fw-updated")),
    Area("services/fw-fleet/install", (), ("FleetInstaller.*",),
         (*DEVICE, "fleet-installer", "fw-pack", "fw-update", "fw-updated")),
    Area("services/fw-updated", ("test-fw-updated-*",), ("UpdateService.*", "ServiceHandOver.*", "ServiceOccasion.*"),
         (*DEVICE, "faulty-module", "library-client", "fw-pack", "fw-update", "fw-updated")),
    Area("tools/fw-trace", ("test-fw-trace", "fw-trace-test", "replay-trace-reader"), ("FwTrace.*",),
         (*DEVICE, "fw-trace", "fw-update")),
    Area("tools/fw-update", ("test-fw-update", "test-update-lock", "fw-update-tool-test"), ("DownloadCommand.*",),
         ("test-download",)),
    Area("tools/fw-update/record", ("test-fw-update", "test-update-lock", "fw-update-tool-test"),
         ("DownloadCommand.*", "UpdateService.TakesTheTraces*", "UpdateService.FindsWhatAnApplication*"),
         (*DEVICE, "faulty-module", "library-client", "fw-pack", "fw-update", "fw-updated", "test-download")),
    Area("tools/fw-update/service", ("test-fw-update",), ("ServiceCommand.*",),
         (*DEVICE, "faulty-module", "library-client", "fw-pack", "fw-update", "fw-updated")),
)

# No programs of the project, but what others are made from; declarations alone; and what is
# built with the thread sanitizer alone.
LEFT_OUT = ("tools/fw-module/templates/*", "platform/include/*", "sandbox/no-sanitizer-thread.cpp")


def wrong(tree, files, areas=AREAS):
    """What the table does not know of a tree with these files, as sentences."""
    for area in areas:
        if not (tree / area.folder).is_dir():
            yield f"areas.py names {area.folder}, which is not there"
    tops = {area.folder.split("/")[0] for area in areas}
    for folder in sorted({str(pathlib.PurePath(file).parent) for file in files
                          if file.split("/")[0] in tops and not is_left_out(file) and not area_of(file, areas)}):
        yield f"areas.py names no area for the sources in {folder}"


def is_left_out(file):
    return any(fnmatch.fnmatchcase(file, pattern) for pattern in LEFT_OUT)


def area_of(file, areas=AREAS):
    """The area of a file, or None."""
    if is_left_out(file):
        return None
    fitting = [area for area in areas if file.startswith(area.folder + "/")]
    return max(fitting, key=lambda area: len(area.folder), default=None)


def matches(name, patterns):
    return any(fnmatch.fnmatchcase(name, pattern) for pattern in patterns)
