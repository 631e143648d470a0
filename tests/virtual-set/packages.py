# SPDX-License-Identifier: Apache-2.0
"""The Debian packages on a set with a service manager: installed, upgraded, purged."""
import pathlib
import re
import shutil
import subprocess
import tempfile

from support import debian, expect, set_packages, succeed

# Mounts and unmounts a package of its own, through the service.
ASK = "mkdir -p /opt/usr/apps/appbinarymanager/emps; fw-platform-check --only mount"
# Each service, what it is asked, and the program that answers.
SERVICES = {"fw-privileged": ASK,
            "fw-updated": "busctl get-property org.fwupdate.Update1 /org/fwupdate/Update1 org.fwupdate.Update1 Version"}
# One that runs only where it is configured.
CONFIGURED = {"fw-fleet": "fw-fleet status"}
CONFIGURE = """
mkdir -p /etc/fw-update
printf 'server = https://127.0.0.1:1\\ncontroller = tv-0001\\n' >/etc/fw-update/fw-fleet.conf
systemctl enable --quiet --now fw-fleet
"""
FILES = r"""
find / -xdev \( -path /proc -o -path /sys -o -path /dev -o -path /run -o -path /tmp -o -path /var/tmp -o -path /share \
  -o -path /var/lib/dpkg -o -path /var/lib/systemd/deb-systemd-helper-enabled -o -path /var/log -o -path /var/cache \
  -o -path /root -o -path '/etc/group*' -o -path '/etc/gshadow*' -o -path '/etc/passwd*' -o -path '/etc/shadow*' -o -path /etc/.pwd.lock \) -prune -o -print | sort
"""


def older(package, target):
    """A package of an earlier release: another version, and units that say so."""
    with tempfile.TemporaryDirectory() as work:
        subprocess.run(["dpkg-deb", "--raw-extract", package, work], check=True)
        control = pathlib.Path(work, "DEBIAN", "control")
        text = control.read_text()
        control.write_text(re.sub(r"(?m)^Version: .*", "Version: 0.9.0-1", re.sub(r"\(= [^)]*\)", "(= 0.9.0-1)", text)))
        for unit in pathlib.Path(work).rglob("lib/systemd/system/fw-*.service"):
            unit.write_text(unit.read_text().replace("[Service]\n", "[Service]\nEnvironment=RELEASE=before\n"))
        subprocess.run(["dpkg-deb", "--root-owner-group", "--build", "-Znone", work, target],
                       check=True, stdout=subprocess.DEVNULL)


def put_packages(machine):
    """The packages in /share/new, and in /share/old those of an earlier release."""
    for directory in ("new", "old"):
        (machine.share / directory).mkdir()
    for package in set_packages():
        shutil.copy(package, machine.share / "new")
        older(package, machine.share / "old" / package.name)


def packages_install_and_purge_without_a_rest():
    with debian().machine() as machine:
        put_packages(machine)
        succeed(machine, f"ldconfig; {FILES.strip()} >/tmp/before")
        installed = succeed(machine, "dpkg --install /share/new/*.deb 2>&1")
        expect("usage" not in installed.lower() and "warning" not in installed.lower(),
               "the packages' scripts complain about nothing", installed)
        state = succeed(machine, "systemctl show --property ActiveState,NeedDaemonReload fw-privileged.socket\n"
                                 "systemctl show --property ActiveState fw-privileged.service")
        expect(state.splitlines() == ["ActiveState=active", "NeedDaemonReload=no", "ActiveState=inactive"],
               "the socket listens, the service waits for a request", state)
        for question in SERVICES.values():
            succeed(machine, question)
        removed = succeed(machine, "dpkg --purge $(sed -n 's/^Package: //p' <(for p in /share/new/*.deb; do "
                                   "dpkg-deb --field $p Package | sed 's/^/Package: /'; done)) 2>&1")
        left = succeed(machine, f"ldconfig; {FILES.strip()} >/tmp/after; diff /tmp/before /tmp/after || true\n"
                                "ls /run/fw-privileged.sock 2>/dev/null || true\n"
                                "systemctl list-units --all --plain --no-legend 'fw-*'\n"
                                "systemctl --failed --plain --no-legend")
        expect(left == "", "nothing is left of them", removed + "\n" + left)


def an_upgrade_ends_the_old_service():
    with debian().machine() as machine:
        put_packages(machine)
        succeed(machine, "dpkg --install /share/old/*.deb 2>&1" + CONFIGURE)
        before = {}
        services = {**SERVICES, **CONFIGURED}
        for name, question in services.items():
            succeed(machine, question)
            before[name] = service(machine, name)
            expect(before[name]["ActiveState"] == "active" and before[name]["Environment"] == "RELEASE=before",
                   "the service of the release before runs", before)
        output = succeed(machine, "dpkg --install /share/new/*.deb 2>&1")
        for name, question in services.items():
            expect_new(machine, name, before[name], output)
            succeed(machine, question)
            after = service(machine, name)
            expect(after["ActiveState"] == "active" and after["NRestarts"] == "0", "and serves", after)


def expect_new(machine, name, before, output):
    after = service(machine, name)
    expect(after["ActiveState"] == "active" and after["MainPID"] != before["MainPID"],
           "the service was started anew", f"{before}\n{after}\n{output}")
    expect(after["Environment"] == "" and after["NeedDaemonReload"] == "no", "with its new unit", after)
    succeed(machine, f"! [ -e /proc/{before['MainPID']} ]")
    program = succeed(machine, f"readlink /proc/{after['MainPID']}/exe")
    expect(program == f"/usr/sbin/{name}", "it is the new program", program)


def service(machine, name):
    lines = succeed(machine, f"systemctl show --property ActiveState,MainPID,Environment,NeedDaemonReload,NRestarts {name}")
    return dict(line.split("=", 1) for line in lines.splitlines())


TESTS = (packages_install_and_purge_without_a_rest, an_upgrade_ends_the_old_service)
