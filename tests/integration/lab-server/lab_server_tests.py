#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""What the fleet's server for tests does. One test each: the functions with capital names.

usage: lab_server_tests.py LAB-SERVER NAME
  FW_DDI_DESCRIPTION names a description of the API (OpenAPI, JSON), which answers are held against.
"""
import hashlib
import http.client
import json
import os
import pathlib
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import urllib.parse

SKIPPED = 77
CONTENT = "firmware " * 100


class Server:
    def __init__(self, program):
        self.process = subprocess.Popen([program], stdout=subprocess.PIPE, text=True)
        self.address = self.process.stdout.readline().strip()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.terminate()
        self.process.wait()

    def request(self, method, address, body=None, headers=None):
        parts = urllib.parse.urlsplit(address)
        connection = http.client.HTTPConnection(parts.netloc, timeout=60)
        path = parts.path + ("?" + parts.query if parts.query else "")
        content = body if body is None or isinstance(body, bytes) else json.dumps(body)
        connection.request(method, path, content, headers or {})
        answer = connection.getresponse()
        try:
            content = answer.read()
        except http.client.IncompleteRead as cut:
            content = cut.partial
        connection.close()
        return answer.status, content, answer.headers

    def steer(self, what, **order):
        status, _, _ = self.request("POST", f"{self.address}/lab/{what}", order)
        assert status == 204, (what, status)

    def state(self):
        return json.loads(self.request("GET", f"{self.address}/lab/state")[1])

    def get(self, address, wanted=200):
        status, content, _ = self.request("GET", address)
        assert status == wanted, (address, status, content)
        return json.loads(content) if status == 200 else None

    def base(self, name="tv1"):
        return f"{self.address}/DEFAULT/controller/v1/{name}"

    def links(self, name="tv1"):
        return {link: value["href"] for link, value in self.get(self.base(name))["_links"].items()}

    def assign(self, **more):
        chunk = {"name": "tunerfw", "version": "2.0", "files": {"tuner.img": CONTENT}}
        self.steer("assign", set="tv1", chunks=[chunk], **more)

    def tell(self, execution, finished="none", what="deploymentBase", details=(), number="1"):
        status = {"execution": execution, "result": {"finished": finished}, "details": list(details)}
        return self.request("POST", f"{self.base()}/{what}/{number}/feedback", {"status": status})[0]

    def artifact(self):
        document = self.get(self.links()["deploymentBase"])
        return document["deployment"]["chunks"][0]["artifacts"][0]


def AsksForAttributesUntilItHasThem(server):
    assert server.get(server.base())["config"]["polling"]["sleep"] == "00:05:00"
    address = server.links()["configData"]
    assert server.request("PUT", address, {"data": {}})[0] == 400
    assert server.request("PUT", address, {"data": {"model": "T1"}})[0] == 200
    assert server.links() == {}
    assert server.state()["sets"]["tv1"]["attributes"] == {"model": "T1"}


def TakesOneEndAndNoOther(server):
    server.assign()
    assert server.tell("download") == 200
    assert server.tell("closed", "success", details=["Done."]) == 200
    assert server.tell("closed", "failure") == 410
    assert "deploymentBase" not in server.links() and "configData" in server.links()
    assert server.get(server.links()["installedBase"])["id"] == "1"
    action = server.state()["actions"]["1"]
    assert action["state"] == "finished" and [one["execution"] for one in action["history"]] == ["download", "closed"]
    assert [one["finished"] for one in action["refused"]] == ["failure"]


def TakesAnEndWithoutAResultForInstalled(server):
    server.assign()
    assert server.tell("closed") == 200
    assert server.state()["actions"]["1"]["state"] == "finished"


def EndsADownloadOnlyActionItself(server):
    server.assign(update="skip")
    assert server.tell("downloaded") == 200
    assert server.tell("closed", "success") == 410


def KeepsAnActionWhoseWindowIsClosed(server):
    server.assign(update="skip", window="unavailable")
    assert server.tell("downloaded") == 200
    first = server.links()["deploymentBase"]
    server.steer("change", set="tv1", update="forced", window="available")
    assert server.links()["deploymentBase"] != first
    assert server.get(server.links()["deploymentBase"])["deployment"]["maintenanceWindow"] == "available"


def StopsAnActionOnlyWhenThatIsAccepted(server):
    server.assign()
    assert server.tell("rejected", what="cancelAction") == 405
    server.steer("cancel", set="tv1")
    server.get(f"{server.base()}/deploymentBase/1", 404)
    assert server.get(server.links()["cancelAction"])["cancelAction"]["stopId"] == "1"
    assert server.tell("canceled", what="cancelAction") == 200
    assert "cancelAction" in server.links()
    assert server.tell("rejected", what="cancelAction") == 200
    assert "deploymentBase" in server.links()
    server.steer("cancel", set="tv1")
    assert server.tell("closed", "success", what="cancelAction") == 200
    assert server.state()["actions"]["1"]["state"] == "canceled"
    assert server.tell("proceeding") == 410


def GivesNothingOutBeforeItIsConfirmed(server):
    server.assign(confirm=True)
    digest = hashlib.sha256(CONTENT.encode()).hexdigest()
    server.get(f"{server.base()}/deploymentBase/1", 404)
    server.get(f"{server.base()}/softwaremodules/1/artifacts/{digest}", 404)
    address = server.links()["confirmationBase"]
    assert server.get(address)["confirmation"]["chunks"][0]["name"] == "tunerfw"
    answer = urllib.parse.urljoin(address, "1/feedback")
    assert server.request("POST", answer, {"confirmation": "denied"})[0] == 200
    assert "confirmationBase" in server.links()
    assert server.request("POST", answer, {"confirmation": "confirmed"})[0] == 200
    assert server.request("POST", answer, {"confirmation": "confirmed"})[0] == 404
    assert "deploymentBase" in server.links()


def ForgetsAnActionWithoutAWord(server):
    server.assign()
    server.steer("forget", set="tv1")
    assert "deploymentBase" not in server.links()
    assert server.tell("proceeding") == 410


def GivesArtifactsInPieces(server):
    server.assign()
    artifact = server.artifact()
    address = artifact["_links"]["download-http"]["href"]
    whole = CONTENT.encode()
    assert artifact["size"] == len(whole) and artifact["hashes"]["sha256"] == hashlib.sha256(whole).hexdigest()
    status, content, headers = server.request("GET", address)
    assert (status, content) == (200, whole)
    status, content, rest = server.request("GET", address, headers={"Range": "bytes=100-", "If-Match": headers["ETag"]})
    assert (status, content, rest["Content-Range"]) == (206, whole[100:], f"bytes 100-899/{len(whole)}")
    assert server.request("GET", address, headers={"If-Match": '"other"'})[0] == 412
    assert server.request("GET", address, headers={"Range": "bytes=900-"})[0] == 416


def DoesWithArtifactsWhatItIsToldTo(server):
    server.assign()
    address = server.artifact()["_links"]["download-http"]["href"]
    whole = CONTENT.encode()
    server.steer("switch", cutAt=10)
    assert server.request("GET", address)[1] == whole[:10]
    assert server.request("GET", address)[1] == whole
    server.steer("switch", wrongBytes=True, ranges=False)
    status, content, _ = server.request("GET", address, headers={"Range": "bytes=100-"})
    assert status == 200 and content != whole and len(content) == len(whole)
    server.steer("switch", elsewhere="http://127.0.0.1:1/")
    assert server.request("GET", address)[2]["Location"].startswith("http://127.0.0.1:1/")
    server.steer("switch", links="both", hashes=False)
    artifact = server.artifact()
    assert set(artifact["_links"]) == {"download", "download-http"} and "sha256" not in artifact["hashes"]


def AnswersWrongAsOftenAsItIsToldTo(server):
    wrong = {"what": "base", "status": 503, "headers": {"Retry-After": "7"}, "body": "<html>", "times": 2}
    server.steer("switch", answers=[wrong], sleep="x")
    for _ in range(2):
        status, content, headers = server.request("GET", server.base())
        assert (status, content, headers["Retry-After"]) == (503, b"<html>", "7")
    assert server.get(server.base())["config"]["polling"]["sleep"] == "x"


def WantsTheRightToken(server):
    server.steer("switch", token="TargetToken right")
    server.get(server.base(), 401)
    assert server.request("GET", server.base(), headers={"Authorization": "TargetToken right"})[0] == 200
    assert [one["token"] for one in server.state()["requests"]] == [None, "TargetToken right"]


def RefusesMessagesAsServersDo(server):
    server.assign()
    assert server.tell("closed", "failure", details=["<new>"]) == 400
    assert server.tell("closed", "failure", details=["a"] * 51) == 429
    assert server.tell("closed", "failure", details=["a" * 513] * 26) == 429
    assert server.request("POST", f"{server.base()}/deploymentBase/1/feedback", b'{"status":"\xff"}')[0] == 400
    assert server.tell("closed", "failure", details=["a"] * 50) == 200


def problems(value, schema, schemas, place=""):
    """What of the value is not as described. The interval's pattern is the literal text HH:MM:SS."""
    if "$ref" in schema:
        schema = schemas[schema["$ref"].rsplit("/", 1)[-1]]
    kinds = {"string": str, "integer": int, "object": dict, "array": list, "boolean": bool}
    kind = kinds.get(schema.get("type"), object)
    if not isinstance(value, kind):
        yield f"{place} is no {schema['type']}"
        return
    if "enum" in schema and value not in schema["enum"]:
        yield f"{place} is {value}"
    if isinstance(value, dict):
        yield from (f"{place} has no {name}" for name in schema.get("required", []) if name not in value)
        known = schema.get("properties", {})
        for name, member in value.items():
            if name in known:
                yield from problems(member, known[name], schemas, f"{place}/{name}")
            elif known:
                yield f"{place}/{name} is not described"
    for number, member in enumerate(value if isinstance(value, list) else []):
        yield from problems(member, schema.get("items", {}), schemas, f"{place}/{number}")


def AnswersAsTheDescriptionOfTheApiSays(server):
    path = os.environ.get("FW_DDI_DESCRIPTION", "")
    if not os.path.isfile(path):
        print("SKIPPED: FW_DDI_DESCRIPTION names no description of the API")
        sys.exit(SKIPPED)
    with open(path, encoding="utf-8") as file:
        schemas = json.load(file)["components"]["schemas"]

    def check(document, name):
        found = list(problems(document, {"$ref": name}, schemas))
        assert document and not found, found

    assert list(problems({"deployment": {"chunks": 7}}, {"$ref": "DdiDeploymentBase"}, schemas)) == [
        " has no id", "/deployment/chunks is no array"]  # the check finds something
    server.steer("switch", links="both")
    server.assign(confirm=True)
    check(server.get(server.base()), "DdiControllerBase")
    check(server.get(server.links()["confirmationBase"]), "DdiConfirmationBaseAction")
    server.request("POST", f"{server.base()}/confirmationBase/1/feedback", {"confirmation": "confirmed"})
    server.steer("change", set="tv1", window="available")
    check(server.get(server.links()["deploymentBase"]), "DdiDeploymentBase")
    server.steer("cancel", set="tv1")
    check(server.get(server.links()["cancelAction"]), "DdiCancel")


DESCRIPTION = """software = {{
  version = "2.0";
  hardware-compatibility: [ "1.0" ];
  images: ( {{ filename = "firmware.img"; device = "{target}"; type = "raw"; sha256 = "{sha256}"; }} );
}}
"""


def run(*words, **options):
    subprocess.run(words, check=True, capture_output=True, text=True, **options)


def pack_for_second_client(folder):
    """What it updates from; the firmware goes into the file target."""
    image = os.urandom(5000)
    (folder / "firmware.img").write_bytes(image)
    (folder / "target").touch()
    (folder / "sw-description").write_text(
        DESCRIPTION.format(target=folder / "target", sha256=hashlib.sha256(image).hexdigest()), encoding="ascii")
    run("openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", "key.pem", "-out", "cert.pem", "-days", "30",
        "-subj", "/CN=lab", "-addext", "extendedKeyUsage=emailProtection", cwd=folder)
    run("openssl", "cms", "-sign", "-in", "sw-description", "-out", "sw-description.sig", "-signer", "cert.pem", "-inkey",
        "key.pem", "-outform", "DER", "-nosmimecap", "-binary", cwd=folder)
    run("cpio", "--create", "--format=crc", "--file=update.swu", cwd=folder,
        input="sw-description\nsw-description.sig\nfirmware.img\n")
    return image


class SecondClient:
    """As it comes, where it sees no other processes and its sockets and temporary files are its own."""

    def __init__(self, server, folder, *options):
        own = [] if os.geteuid() == 0 else ["--map-root-user"]
        words = " ".join(["-t DEFAULT -u", server.address, "-i tv1 -p 1", *options])
        self.log = open(folder / "log", "ab")
        self.process = subprocess.Popen(
            ["unshare", *own, "--mount", "--pid", "--fork", "--kill-child", "--mount-proc", "sh", "-c",
             'mount -t tmpfs none /tmp && mount -t tmpfs none /run && exec swupdate -k "$0/cert.pem" -H lab:1.0 -u "$1"',
             str(folder), words], stdin=subprocess.DEVNULL, stdout=self.log, stderr=self.log)

    def wait_for(self, what):
        end = time.monotonic() + 60
        while not what():
            assert self.process.poll() is None and time.monotonic() < end, pathlib.Path(self.log.name).read_text(
                encoding="utf-8", errors="replace")[-4000:]
            time.sleep(0.05)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.wait()
        self.log.close()


def TakesASecondClientThroughAnUpdate(server):
    """A client that knows nothing of this one, and is none of its own project."""
    if any(shutil.which(program) is None for program in ("swupdate", "openssl", "cpio")):
        print("SKIPPED: swupdate is not installed (./setup --bench-peers)")
        sys.exit(SKIPPED)
    folder = pathlib.Path(tempfile.mkdtemp(dir="/var/tmp"))
    try:
        image = pack_for_second_client(folder)
        server.steer("switch", sleep="00:00:01")
        server.steer("assign", set="tv1", chunks=[
            {"name": "tunerfw", "version": "2.0", "files": {}, "paths": {"update.swu": str(folder / "update.swu")}}])

        def told():
            return [message for entry in server.state()["actions"]["1"]["history"] for message in entry["details"]]

        with SecondClient(server, folder) as client:
            client.wait_for(lambda: "All Chunks Installed." in told())
        assert (folder / "target").read_bytes() == image
        with SecondClient(server, folder, "-c 2") as client:  # as after a restart of its set
            client.wait_for(lambda: server.state()["actions"]["1"]["state"] == "finished")
        assert [entry["execution"] for entry in server.state()["actions"]["1"]["history"]].count("closed") == 1
    finally:
        shutil.rmtree(folder)


def EndsWithTheProcessThatStartedIt(server):
    starter = ("import subprocess, sys\n"
               "lab = subprocess.Popen([sys.argv[1]], stdout=subprocess.PIPE, text=True)\n"
               "print(lab.stdout.readline().strip(), lab.pid)")
    told = subprocess.run([sys.executable, "-c", starter, sys.argv[1]], stdout=subprocess.PIPE, text=True, check=True)
    address, process = told.stdout.split()
    end = time.monotonic() + 10  # it is on its way
    try:
        while time.monotonic() < end:
            server.request("GET", f"{address}/lab/state")
            time.sleep(0.05)
    except OSError:
        return
    os.kill(int(process), signal.SIGKILL)
    raise AssertionError("it still answers")


def main():
    with Server(sys.argv[1]) as server:
        globals()[sys.argv[2]](server)


if __name__ == "__main__":
    main()
