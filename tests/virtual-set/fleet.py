# SPDX-License-Identifier: Apache-2.0
"""The client of a fleet's server as on a set: its package, its unit, the set's own polkit, and the update service.

The server is the one of tests/support, on this computer: it outlasts a power cut of the set.
"""
import contextlib
import json
import signal
import subprocess
import urllib.request

import made_set
from flows import FLASH, LIMIT, QUICK_WIFI, SLOW_WIFI, nothing_is_left, patient_set, versions
from machine import wait_until
from support import expect, succeed

UNIT = "fw-fleet.service"
SERVER = made_set.TREE / "tests" / "support" / "lab-server"
TOKEN = "of-this-set"
UPDATED = ["download none", "downloaded none", "proceeding none", "closed success"]
# The card appears when the kernel has found it.
NETWORK = """
printf '[Match]\\nName=en*\\n[Network]\\nAddress=10.0.2.15/24\\nLinkLocalAddressing=no\\n' >/etc/systemd/network/10-card.network
systemctl enable --quiet --now systemd-networkd
/lib/systemd/systemd-networkd-wait-online --timeout=120
"""
CONFIGURATION = """
install -m 0400 -o fw-fleet /dev/stdin /etc/fw-update/fw-fleet.token <<<{token}
cat >/etc/fw-update/fw-fleet.conf <<'END'
server = {server}
controller = tv-0001
token-type = target
token-file = /etc/fw-update/fw-fleet.token
allow-insecure = yes
poll = 30
END
fw-fleet --check-config
systemctl enable --quiet --now {unit}
"""
AS_USER = "setpriv --reuid {0} --regid {0} --init-groups fw-fleet {1}"


class Server:
    """A fleet's server that has one set."""

    def __init__(self, address):
        self._address = address
        self._ask("switch", {"sleep": "00:00:30", "token": f"TargetToken {TOKEN}"})

    def _ask(self, what, order=None):
        body = None if order is None else json.dumps(order).encode()
        with urllib.request.urlopen(f"{self._address}/lab/{what}", body) as answer:
            return json.loads(answer.read() or "null")

    def for_the_set(self):
        return self._address.replace("127.0.0.1", "10.0.2.2")

    def assign(self, name, version, artifact):
        self._ask("assign", {"set": "tv-0001", "chunks": [
            {"name": name, "version": version, "files": {}, "paths": {artifact.name: str(artifact)}}]})

    def action(self):
        return self._ask("state")["actions"]["1"]

    def attributes(self):
        return self._ask("state")["sets"]["tv-0001"]["attributes"]

    def history(self):
        return [f"{one['execution']} {one['finished']}" for one in self.action()["history"]]

    def wait(self, state, machine):
        """The set asks within half a minute, and anew when something was in the way."""
        wait_until(lambda: self.action()["state"] == state, LIMIT * 3, f"state {state} of the action", machine)


@contextlib.contextmanager
def server():
    with subprocess.Popen([SERVER], stdout=subprocess.PIPE, text=True) as process:
        try:
            yield Server(process.stdout.readline().strip())
        finally:
            process.send_signal(signal.SIGKILL)


@contextlib.contextmanager
def set_of_a_fleet():
    """A machine with a network, and its server."""
    with server() as fleet, patient_set() as machine:
        machine.connect()
        succeed(machine, "for try in $(seq 600); do [ -e /sys/class/net/en* ] && exit; sleep 0.1; done; ls /sys/class/net; exit 1")
        succeed(machine, NETWORK)
        yield machine, fleet


def package(machine, component, version, image):
    """A signed extension package, made in the set."""
    path = machine.share / f"{component}.img"
    succeed(machine, f"fw-pack emp {image} --id {component.replace('fw', 'empfw')} --version {version} --expected-time {LIMIT} "
                     f"--signing-key /root/maker/signing.key --output /share/{path.name} >/dev/null")
    return path


def configure(machine, fleet):
    succeed(machine, CONFIGURATION.format(server=fleet.for_the_set(), token=TOKEN, unit=UNIT))


def shown(machine, *names):
    lines = succeed(machine, f"systemctl show --property {','.join(names)} {UNIT}").splitlines()
    return dict(line.split("=", 1) for line in lines)


def expect_success(machine, fleet, component, version):
    fleet.wait("finished", machine)
    expect(fleet.history() == UPDATED, "the server was told each thing once, and the end last", fleet.action())
    status = succeed(machine, f"""
      for try in $(seq {LIMIT}); do
        fw-fleet status | grep -q 'Action 1: success' && break
        sleep 1
      done
      fw-fleet status""")
    expect(f"{component} {version}: updated" in status, "the set knows that it is updated", status)


def keeps_to_its_unit(machine):
    unit = shown(machine, "ActiveState", "Type", "NRestarts", "MainPID")
    expect((unit["ActiveState"], unit["Type"], unit["NRestarts"]) == ("active", "notify", "0"),
           "it has told the service manager that it is ready, and goes on", unit)
    status = dict(line.split(":\t", 1) for line in
                  succeed(machine, f"cat /proc/{unit['MainPID']}/status").splitlines() if ":\t" in line)
    expect((status["Seccomp"], status["NoNewPrivs"], status["CapBnd"]) == ("2", "1", "0000000000000000"),
           "it has its filter of system calls, and no right at all", status)
    user = succeed(machine, f"id -nu {status['Uid'].split()[0]}; id -nG fw-fleet; stat -c '%U %a' /var/lib/fw-fleet")
    expect(user.splitlines() == ["fw-fleet", "fw-fleet fwupdate-fleet", "fw-fleet 700"], "it has its user and its directory", user)
    log = succeed(machine, f"journalctl --unit {UNIT} --output cat --no-pager")
    expect("not permitted" not in log and "ermission denied" not in log, "it was refused nothing", log)


def an_action_of_a_fleets_server_is_carried_out_under_its_unit():
    with set_of_a_fleet() as (machine, fleet):
        fleet.assign("tunerfw", "2.5.0", package(machine, "tunerfw", "2.5.0", "/lib/firmware/ext/tunerfw/tunerfw.bin"))
        configure(machine, fleet)
        expect_success(machine, fleet, "tunerfw", "2.5.0")
        expect(versions(machine)["libtuner"] == "2.5.0", "the component has it", versions(machine))
        attributes = fleet.attributes()
        expect(attributes.get("version.tunerfw") in ("0.0.0", "2.5.0"), "the server knows the components", attributes)
        keeps_to_its_unit(machine)
        # The set's own polkit, with the rules of the package.
        succeed(machine, "useradd --groups fwupdate member; useradd stranger")
        code, output = machine.run(AS_USER.format("stranger", "status"))
        expect(code == 0 and "Action 1: success" in output, "everybody may look", output)
        code, output = machine.run(AS_USER.format("stranger", "poll"))
        expect(code == 1 and "may not have the fleet's server asked" in output, "a stranger may not have it asked", output)
        code, output = machine.run(AS_USER.format("member", "poll"))
        expect(code == 0, "a member of the group may", output)
        log = succeed(machine, "journalctl --unit polkit --output cat --no-pager")
        expect("rror" not in log, "polkit has nothing to complain of", log)
        nothing_is_left(machine)


def an_action_goes_on_after_a_power_cut_in_mid_update():
    with set_of_a_fleet() as (machine, fleet):
        fleet.assign("wififw", "1.5.0", package(machine, "wififw", "1.5.0", "/root/drive/wififw/wififw.bin"))
        succeed(machine, SLOW_WIFI)
        configure(machine, fleet)
        succeed(machine, f"""
          sync
          for try in $(seq {LIMIT * 10}); do
            grep -qs '^ *[1-9][0-9]' {FLASH}wififw.progress && exit
            sleep 0.1
          done
          fw-fleet status; exit 1""", LIMIT * 2)
        machine.reset()
        succeed(machine, QUICK_WIFI)
        expect_success(machine, fleet, "wififw", "1.5.0")
        expect(versions(machine)["libwifi"] == "1.5.0", "the component has it", versions(machine))
        keeps_to_its_unit(machine)
        seen = succeed(machine, "fw-update history")
        expect("interrupted" in seen, "the history has the update that was cut off", seen)
        nothing_is_left(machine)


TESTS = (an_action_of_a_fleets_server_is_carried_out_under_its_unit,
         an_action_goes_on_after_a_power_cut_in_mid_update)
