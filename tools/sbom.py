#!/usr/bin/env python3
"""Writes the SPDX 2.3 JSON document (the SBOM) of one of our Debian packages.

    tools/sbom.py [--admindir DIR] PACKAGE.deb OUTPUT.spdx.json

It describes the package (its checksums, version, licence and copyright as the
package declares them), every file it installs with SHA-1 and SHA-256, and the
Debian packages it depends on, each with the version found in the build
environment: the host's package database, or with --admindir the cross build's
(tools/package.sh makes one beside the arm64 sysroot). A dependency that is
not part of the build environment (a service the package only needs at run
time, say) is listed without a version.

Reproducible: the time is SOURCE_DATE_EPOCH's, the namespace is derived from
the package's SHA-256, and every list is sorted.
"""

import argparse
import datetime
import hashlib
import io
import json
import os
import re
import subprocess
import sys
import tarfile
import urllib.parse

NAMESPACE_BASE = "https://kelvane.invalid/spdx/"


def run(*argv):
    return subprocess.run(argv, check=True, stdout=subprocess.PIPE).stdout


def spdx_id(prefix, name):
    return prefix + re.sub(r"[^A-Za-z0-9.-]", "-", name.strip("./"))


def agent(kind, text):
    """'Name <mail>' as SPDX's 'Organization: Name (mail)'."""
    match = re.fullmatch(r"\s*(.*?)\s*<([^>]*)>\s*", text)
    return f"{kind}: {match[1]} ({match[2]})" if match else f"{kind}: {text.strip()}"


def purl(namespace, name, version, arch):
    quoted = urllib.parse.quote(version, safe=".-_~")
    return f"pkg:deb/{namespace}/{name}@{quoted}?arch={arch}"


def control_fields(deb):
    fields = {}
    key = None
    for line in run("dpkg-deb", "-f", deb).decode().splitlines():
        if line[:1] in (" ", "\t") and key:
            fields[key] += "\n" + line
        else:
            key, _, value = line.partition(":")
            fields[key] = value.strip()
    return fields


def package_files(deb):
    """(name, content) of every regular file, sorted by name."""
    data = run("dpkg-deb", "--fsys-tarfile", deb)
    files = []
    with tarfile.open(fileobj=io.BytesIO(data)) as archive:
        for member in archive:
            if member.isfile():
                name = "./" + os.path.normpath(member.name).lstrip("./")
                files.append((name, archive.extractfile(member).read()))
    return sorted(files)


def declared_licence(files, package):
    """Copyright and licence of 'Files: *' in the package's DEP-5 copyright file."""
    copyright_file = dict(files).get(f"./usr/share/doc/{package}/copyright", b"").decode()
    stanza = next((s for s in copyright_file.split("\n\n") if re.search(r"^Files: \*$", s, re.M)), "")
    copyright_text = re.search(r"^Copyright: (.*)$", stanza, re.M)
    licence = re.search(r"^License: (\S+)$", stanza, re.M)
    return (copyright_text[1] if copyright_text else "NOASSERTION",
            licence[1] if licence else "NOASSERTION")


def file_type(name, content):
    if content.startswith(b"\x7fELF"):
        return "BINARY"
    if name.startswith(("./usr/share/doc/", "./usr/share/man/")):
        return "DOCUMENTATION"
    return "TEXT"


def installed(name, arch, admindir):
    """Version, architecture and maintainer of a package installed for `arch` (or
    for all), or None."""
    command = ["dpkg-query", "-W", "-f", "${db:Status-Status}\t${Version}\t${Architecture}\t${Maintainer}\n"]
    if admindir:
        command.insert(1, f"--admindir={admindir}")
    result = subprocess.run(command + [name], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
    for line in result.stdout.decode().splitlines():
        status, version, package_arch, maintainer = line.split("\t")
        if status == "installed" and package_arch in (arch, "all"):
            return version, package_arch, maintainer
    return None


def dependencies(depends, arch, admindir):
    """(name, (relation, installed or None)) for each relation of a Depends field,
    sorted: its alternative found in the build environment, else its first."""
    entries = {}
    for relation in filter(None, (r.strip() for r in depends.split(","))):
        alternatives = [re.split(r"[\s(:]", a.strip(), maxsplit=1)[0] for a in relation.split("|")]
        chosen, found = alternatives[0], None
        for alternative in alternatives:
            found = installed(alternative, arch, admindir)
            if found:
                chosen = alternative
                break
        entries[chosen] = (relation, found)
    return sorted(entries.items())


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--admindir", help="dpkg database of the build environment (cross builds)")
    parser.add_argument("deb")
    parser.add_argument("output")
    args = parser.parse_args()

    epoch = int(os.environ.get("SOURCE_DATE_EPOCH", "0"))
    created = datetime.datetime.fromtimestamp(epoch, datetime.timezone.utc).strftime("%Y-%m-%dT%H:%M:%SZ")
    with open(args.deb, "rb") as deb:
        content = deb.read()
    deb_sha1 = hashlib.sha1(content).hexdigest()
    deb_sha256 = hashlib.sha256(content).hexdigest()

    control = control_fields(args.deb)
    name, version, arch = control["Package"], control["Version"], control["Architecture"]
    files = package_files(args.deb)
    copyright_text, licence = declared_licence(files, name)
    document_name = os.path.basename(args.deb)
    package_id = spdx_id("SPDXRef-Package-", name)

    file_elements = []
    for path, data in files:
        file_elements.append({
            "SPDXID": spdx_id("SPDXRef-File-", path),
            "fileName": path,
            "fileTypes": [file_type(path, data)],
            "checksums": [
                {"algorithm": "SHA1", "checksumValue": hashlib.sha1(data).hexdigest()},
                {"algorithm": "SHA256", "checksumValue": hashlib.sha256(data).hexdigest()},
            ],
        })
    if len({f["SPDXID"] for f in file_elements}) != len(file_elements):
        sys.exit(f"sbom: two files of {document_name} map to one SPDX identifier")
    # SPDX 2.3, 7.9: SHA-1 of the files' sorted SHA-1 values, concatenated.
    verification = hashlib.sha1("".join(sorted(f["checksums"][0]["checksumValue"]
                                               for f in file_elements)).encode()).hexdigest()

    package = {
        "SPDXID": package_id,
        "name": name,
        "versionInfo": version,
        "packageFileName": document_name,
        "supplier": agent("Organization", control["Maintainer"]),
        "downloadLocation": "NOASSERTION",
        "filesAnalyzed": True,
        "packageVerificationCode": {"packageVerificationCodeValue": verification},
        "checksums": [
            {"algorithm": "SHA1", "checksumValue": deb_sha1},
            {"algorithm": "SHA256", "checksumValue": deb_sha256},
        ],
        "licenseConcluded": licence,
        "licenseDeclared": licence,
        "copyrightText": copyright_text,
        "summary": control["Description"].split("\n")[0],
        "primaryPackagePurpose": "APPLICATION",
        "externalRefs": [{"referenceCategory": "PACKAGE-MANAGER", "referenceType": "purl",
                          "referenceLocator": purl("kelvane", name, version, arch)}],
        "hasFiles": [f["SPDXID"] for f in file_elements],
    }
    packages = [package]
    relationships = [{"spdxElementId": "SPDXRef-DOCUMENT", "relationshipType": "DESCRIBES",
                      "relatedSpdxElement": package_id}]
    for dependency, (relation, found) in dependencies(control.get("Depends", ""), arch, args.admindir):
        element = {
            "SPDXID": spdx_id("SPDXRef-Package-deb-", dependency),
            "name": dependency,
            "downloadLocation": "NOASSERTION",
            "filesAnalyzed": False,
        }
        if found:
            dep_version, dep_arch, maintainer = found
            element.update({
                "versionInfo": dep_version,
                "supplier": agent("Organization", maintainer),
                "externalRefs": [{"referenceCategory": "PACKAGE-MANAGER", "referenceType": "purl",
                                  "referenceLocator": purl("debian", dependency, dep_version, dep_arch)}],
            })
            element["comment"] = "The version in the environment the package was built in."
        else:
            element["comment"] = "Not in the environment the package was built in: needed at run time only."
        packages.append(element)
        relationships.append({"spdxElementId": package_id, "relationshipType": "DEPENDS_ON",
                              "relatedSpdxElement": element["SPDXID"],
                              "comment": f"Depends: {relation}"})

    document = {
        "spdxVersion": "SPDX-2.3",
        "dataLicense": "CC0-1.0",
        "SPDXID": "SPDXRef-DOCUMENT",
        "name": document_name,
        "documentNamespace": f"{NAMESPACE_BASE}{name}_{version}_{arch}-{deb_sha256}",
        "creationInfo": {
            "created": created,
            "creators": [agent("Organization", control["Maintainer"]), f"Tool: kelvane-sbom-{version}"],
        },
        "documentDescribes": [package_id],
        "packages": packages,
        "files": file_elements,
        "relationships": relationships,
    }
    with open(args.output, "w", encoding="utf-8") as output:
        json.dump(document, output, indent=2, ensure_ascii=False)
        output.write("\n")


if __name__ == "__main__":
    main()
