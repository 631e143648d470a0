#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Prints the bill of materials of a release, as SPDX 2.3 in JSON.

usage: sbom.py TREE VERSION TARBALL-SHA256 TIME [PACKAGE.deb...]
  TREE  the unpacked tarball; each file of it is listed with its sums
  TIME  of the commit, so that the same release has the same bill
"""
import hashlib
import json
import pathlib
import re
import subprocess
import sys

# What the library and the commands link or hold: the licence, the home, and the packages of
# packaging/build-packages.txt that it is built with.
LINKED = {
    "boost": ("BSL-1.0", "https://www.boost.org", ("libboost-dev", "libboost-filesystem-dev")),
    "cli11": ("BSD-3-Clause", "https://github.com/CLIUtils/CLI11", ("libcli11-dev",)),
    "curl": ("curl", "https://curl.se", ("libcurl4-openssl-dev",)),
    "d3": ("ISC AND BSD-3-Clause", "https://d3js.org", ("node-d3",)),
    "fuse3": ("LGPL-2.1-only", "https://github.com/libfuse/libfuse", ("libfuse3-dev",)),
    "jsoncpp": ("MIT", "https://github.com/open-source-parsers/jsoncpp", ("libjsoncpp-dev",)),
    "openssl": ("Apache-2.0", "https://www.openssl.org", ("libssl-dev",)),
    "sdbus-c++": ("LGPL-2.1-or-later", "https://github.com/Kistler-Group/sdbus-cpp", ("libsdbus-c++-dev",)),
    "sqlite3": ("blessing", "https://sqlite.org", ("libsqlite3-dev",)),
    "sqlitecpp": ("MIT", "https://github.com/SRombauts/SQLiteCpp", ("libsqlitecpp-dev",)),
    "systemd": ("LGPL-2.1-or-later", "https://systemd.io", ("libsystemd-dev",)),
}


def libraries_without_entry(tree):
    """What is built with and LINKED does not know of."""
    known = {package for _, _, packages in LINKED.values() for package in packages}
    lines = (tree / "packaging" / "build-packages.txt").read_text(encoding="utf-8").split("\n")
    return sorted(name for name in lines if re.fullmatch(r"lib.*-dev|node-.*", name) and name not in known)


def identifier(text):
    return "SPDXRef-" + re.sub(r"[^A-Za-z0-9.-]", "-", text)


def sums_of(path):
    content = path.read_bytes()
    return [{"algorithm": name, "checksumValue": hashlib.new(name.lower(), content).hexdigest()}
            for name in ("SHA1", "SHA256")]


def file_entry(tree, path):
    name = path.relative_to(tree).as_posix()
    return {
        "SPDXID": identifier("File-" + name),
        "fileName": "./" + name,
        "checksums": sums_of(path),
        "licenseConcluded": "Apache-2.0",
        "copyrightText": "NOASSERTION",
    }


def verification_code(files):
    """As SPDX defines it: the SHA-1 of the files' sorted SHA-1 sums."""
    sums = sorted(entry["checksums"][0]["checksumValue"] for entry in files)
    return hashlib.sha1("".join(sums).encode()).hexdigest()


def linked_package(name):
    licence, home, _ = LINKED[name]
    return {
        "SPDXID": identifier("Package-" + name),
        "name": name,
        "downloadLocation": home,
        "filesAnalyzed": False,
        "licenseConcluded": licence,
        "licenseDeclared": licence,
        "copyrightText": "NOASSERTION",
        "comment": "linked or packed in; the version is that of the build system",
    }


def debian_package(path):
    name, version, needs = subprocess.run(
        ["dpkg-deb", "--show", "--showformat=${Package}\\n${Version}\\n${Depends}", path],
        check=True, stdout=subprocess.PIPE, text=True).stdout.split("\n", 2)
    return {
        "SPDXID": identifier("Debian-" + name),
        "name": name,
        "versionInfo": version,
        "packageFileName": pathlib.Path(path).name,
        "downloadLocation": "NOASSERTION",
        "filesAnalyzed": False,
        "checksums": [sums_of(pathlib.Path(path))[1]],
        "licenseConcluded": "Apache-2.0",
        "licenseDeclared": "Apache-2.0",
        "copyrightText": "NOASSERTION",
        "comment": "depends on " + needs,
    }


def relationship(one, kind, other):
    return {"spdxElementId": one, "relationshipType": kind, "relatedSpdxElement": other}


def bill(tree, version, tarball_sum, time, packages):
    files = [file_entry(tree, path) for path in sorted(tree.rglob("*"))
             if path.is_file() and not path.is_symlink() and "build" not in path.relative_to(tree).parts[:1]]
    source = {
        "SPDXID": "SPDXRef-Source",
        "name": "fw-update-control",
        "versionInfo": version,
        "packageFileName": f"fw-update-control-{version}.tar.gz",
        "downloadLocation": "NOASSERTION",
        "filesAnalyzed": True,
        "packageVerificationCode": {"packageVerificationCodeValue": verification_code(files)},
        "checksums": [{"algorithm": "SHA256", "checksumValue": tarball_sum}],
        "licenseConcluded": "Apache-2.0",
        "licenseDeclared": "Apache-2.0",
        "licenseInfoFromFiles": ["Apache-2.0"],
        "copyrightText": "2026 the authors of fw-update-control",
    }
    linked = [linked_package(name) for name in sorted(LINKED)]
    debian = [debian_package(path) for path in packages]
    relations = [relationship("SPDXRef-DOCUMENT", "DESCRIBES", "SPDXRef-Source")]
    relations += [relationship("SPDXRef-Source", "CONTAINS", entry["SPDXID"]) for entry in files]
    relations += [relationship("SPDXRef-Source", "DEPENDS_ON", entry["SPDXID"]) for entry in linked]
    relations += [relationship(entry["SPDXID"], "GENERATED_FROM", "SPDXRef-Source") for entry in debian]
    return {
        "spdxVersion": "SPDX-2.3",
        "dataLicense": "CC0-1.0",
        "SPDXID": "SPDXRef-DOCUMENT",
        "name": f"fw-update-control-{version}",
        "documentNamespace": f"https://example.org/fw-update-control/{version}/{tarball_sum}",
        "creationInfo": {
            "created": subprocess.run(["date", "--utc", "--date", time, "+%Y-%m-%dT%H:%M:%SZ"], check=True,
                                      stdout=subprocess.PIPE, text=True).stdout.strip(),
            "creators": ["Tool: fw-update-control-sbom"],
        },
        "packages": [source] + linked + debian,
        "files": files,
        "relationships": relations,
    }


def main():
    if len(sys.argv) < 5:
        sys.exit(__doc__)
    tree, version, tarball_sum, time = sys.argv[1:5]
    packages = [path for path in sys.argv[5:] if pathlib.Path(path).exists()]
    unknown = libraries_without_entry(pathlib.Path(tree))
    if unknown:
        sys.exit(f"sbom.py: LINKED has no entry that is built with {', '.join(unknown)}; add it with its licence")
    json.dump(bill(pathlib.Path(tree), version, tarball_sum, time, packages), sys.stdout, indent=1)
    print()


main()
