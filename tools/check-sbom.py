#!/usr/bin/env python3
"""Checks SPDX 2.3 JSON documents as tools/sbom.py writes them.

    tools/check-sbom.py dist/*.spdx.json

Each document must hold the fields SPDX 2.3 requires, of the types and values
it allows, and no others; identifiers must be well formed and unique, and
every reference must name an element of the document. The package
verification code must match the files listed. Where the described package
(its packageFileName) lies beside the document, its checksums and those of
every file in it must match too. One line per document; exits 1 when any
fails.
"""

import hashlib
import io
import json
import os
import re
import subprocess
import sys
import tarfile

ALGORITHMS = {"SHA1": 40, "SHA224": 56, "SHA256": 64, "SHA384": 96, "SHA512": 128,
              "SHA3-256": 64, "SHA3-384": 96, "SHA3-512": 128, "BLAKE2b-256": 64,
              "BLAKE2b-384": 96, "BLAKE2b-512": 128, "BLAKE3": None, "MD2": 32, "MD4": 32,
              "MD5": 32, "MD6": None, "ADLER32": 8}
RELATIONSHIPS = {
    "DESCRIBES", "DESCRIBED_BY", "CONTAINS", "CONTAINED_BY", "DEPENDS_ON", "DEPENDENCY_OF",
    "DEPENDENCY_MANIFEST_OF", "BUILD_DEPENDENCY_OF", "DEV_DEPENDENCY_OF", "OPTIONAL_DEPENDENCY_OF",
    "PROVIDED_DEPENDENCY_OF", "TEST_DEPENDENCY_OF", "RUNTIME_DEPENDENCY_OF", "EXAMPLE_OF",
    "GENERATES", "GENERATED_FROM", "ANCESTOR_OF", "DESCENDANT_OF", "VARIANT_OF",
    "DISTRIBUTION_ARTIFACT", "PATCH_FOR", "PATCH_APPLIED", "COPY_OF", "FILE_ADDED", "FILE_DELETED",
    "FILE_MODIFIED", "EXPANDED_FROM_ARCHIVE", "DYNAMIC_LINK", "STATIC_LINK", "DATA_FILE_OF",
    "TEST_CASE_OF", "BUILD_TOOL_OF", "DEV_TOOL_OF", "TEST_OF", "TEST_TOOL_OF", "DOCUMENTATION_OF",
    "OPTIONAL_COMPONENT_OF", "METAFILE_OF", "PACKAGE_OF", "AMENDS", "PREREQUISITE_FOR",
    "HAS_PREREQUISITE", "REQUIREMENT_DESCRIPTION_FOR", "SPECIFICATION_FOR", "OTHER"}
PURPOSES = {"APPLICATION", "FRAMEWORK", "LIBRARY", "CONTAINER", "OPERATING_SYSTEM", "DEVICE",
            "FIRMWARE", "SOURCE", "ARCHIVE", "FILE", "INSTALL", "OTHER"}
FILE_TYPES = {"SOURCE", "BINARY", "ARCHIVE", "APPLICATION", "AUDIO", "IMAGE", "TEXT", "VIDEO",
              "DOCUMENTATION", "SPDX", "OTHER"}
REFERENCE_CATEGORIES = {"SECURITY", "PACKAGE-MANAGER", "PERSISTENT-ID", "OTHER"}

STRING, BOOLEAN, LIST, OBJECT = str, bool, list, dict
DOCUMENT = {"SPDXID": STRING, "spdxVersion": STRING, "dataLicense": STRING, "name": STRING,
            "documentNamespace": STRING, "creationInfo": OBJECT, "comment": STRING,
            "externalDocumentRefs": LIST, "hasExtractedLicensingInfos": LIST,
            "documentDescribes": LIST, "packages": LIST, "files": LIST, "snippets": LIST,
            "relationships": LIST, "annotations": LIST, "revieweds": LIST}
DOCUMENT_REQUIRED = {"SPDXID", "spdxVersion", "dataLicense", "name", "documentNamespace",
                     "creationInfo"}
CREATION = {"created": STRING, "creators": LIST, "comment": STRING, "licenseListVersion": STRING}
PACKAGE = {"SPDXID": STRING, "name": STRING, "versionInfo": STRING, "packageFileName": STRING,
           "supplier": STRING, "originator": STRING, "downloadLocation": STRING,
           "filesAnalyzed": BOOLEAN, "packageVerificationCode": OBJECT, "checksums": LIST,
           "homepage": STRING, "sourceInfo": STRING, "licenseConcluded": STRING,
           "licenseInfoFromFiles": LIST, "licenseDeclared": STRING, "licenseComments": STRING,
           "copyrightText": STRING, "summary": STRING, "description": STRING, "comment": STRING,
           "externalRefs": LIST, "attributionTexts": LIST, "primaryPackagePurpose": STRING,
           "releaseDate": STRING, "builtDate": STRING, "validUntilDate": STRING,
           "hasFiles": LIST, "annotations": LIST}
FILE = {"SPDXID": STRING, "fileName": STRING, "fileTypes": LIST, "checksums": LIST,
        "licenseConcluded": STRING, "licenseInfoInFiles": LIST, "licenseComments": STRING,
        "copyrightText": STRING, "comment": STRING, "noticeText": STRING,
        "fileContributors": LIST, "attributionTexts": LIST, "fileDependencies": LIST,
        "artifactOfs": LIST, "annotations": LIST}
RELATIONSHIP = {"spdxElementId": STRING, "relationshipType": STRING, "relatedSpdxElement": STRING,
                "comment": STRING}
CHECKSUM = {"algorithm": STRING, "checksumValue": STRING}
EXTERNAL_REF = {"referenceCategory": STRING, "referenceType": STRING, "referenceLocator": STRING,
                "comment": STRING}
VERIFICATION = {"packageVerificationCodeValue": STRING,
                "packageVerificationCodeExcludedFiles": LIST}

ID = re.compile(r"SPDXRef-[A-Za-z0-9.-]+")
DATE = re.compile(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ")
AGENT = re.compile(r"(Person|Organization): \S.*")
CREATOR = re.compile(r"(Person|Organization|Tool): \S.*")
LICENCE_TOKEN = re.compile(r"\s*(\(|\)|AND\b|OR\b|WITH\b|(?:DocumentRef-[A-Za-z0-9.-]+:)?"
                           r"LicenseRef-[A-Za-z0-9.-]+|[A-Za-z0-9.-]+\+?)")


class Problems(list):
    def fields(self, where, value, allowed, required=()):
        """Types of the fields of one object; unknown and missing fields."""
        if not isinstance(value, dict):
            self.append(f"{where}: not an object")
            return False
        for key in sorted(set(required) - value.keys()):
            self.append(f"{where}: no {key}")
        for key, item in value.items():
            if key not in allowed:
                self.append(f"{where}: field {key} is not SPDX 2.3's")
            elif not isinstance(item, allowed[key]) or (allowed[key] is not bool and isinstance(item, bool)):
                self.append(f"{where}.{key}: not a {allowed[key].__name__}")
        return True

    def checksums(self, where, checksums):
        for index, checksum in enumerate(checksums):
            at = f"{where}.checksums[{index}]"
            if not self.fields(at, checksum, CHECKSUM, CHECKSUM):
                continue
            algorithm, value = checksum.get("algorithm"), checksum.get("checksumValue", "")
            if algorithm not in ALGORITHMS:
                self.append(f"{at}: unknown algorithm {algorithm!r}")
            elif not re.fullmatch(r"[0-9a-f]{%s}" % (ALGORITHMS[algorithm] or "1,"), str(value)):
                self.append(f"{at}: {algorithm} value is not lower-case hex of its length")

    def licence(self, where, expression):
        if expression in ("NOASSERTION", "NONE"):
            return
        rest = expression
        while rest.strip():
            token = LICENCE_TOKEN.match(rest)
            if not token:
                self.append(f"{where}: {expression!r} is not a licence expression")
                return
            rest = rest[token.end():]


def digests(checksums):
    return {c.get("algorithm"): c.get("checksumValue") for c in checksums if isinstance(c, dict)}


def check(path):
    problems = Problems()
    try:
        with open(path, encoding="utf-8") as source:
            document = json.load(source)
    except (OSError, ValueError) as error:
        return [f"cannot read: {error}"]
    if not problems.fields("document", document, DOCUMENT, DOCUMENT_REQUIRED):
        return problems

    if document.get("spdxVersion") != "SPDX-2.3":
        problems.append(f"spdxVersion is {document.get('spdxVersion')!r}, not 'SPDX-2.3'")
    if document.get("dataLicense") != "CC0-1.0":
        problems.append("dataLicense must be CC0-1.0")
    if document.get("SPDXID") != "SPDXRef-DOCUMENT":
        problems.append("the document's SPDXID must be SPDXRef-DOCUMENT")
    if not re.fullmatch(r"[a-z][a-z0-9+.-]*://[^#\s]+", str(document.get("documentNamespace", ""))):
        problems.append("documentNamespace is not an absolute URI without '#'")
    creation = document.get("creationInfo", {})
    if problems.fields("creationInfo", creation, CREATION, ("created", "creators")):
        if not DATE.fullmatch(str(creation.get("created", ""))):
            problems.append("creationInfo.created is not YYYY-MM-DDThh:mm:ssZ")
        creators = creation.get("creators", [])
        if not creators or not all(CREATOR.fullmatch(str(c)) for c in creators):
            problems.append("creationInfo.creators: none, or one not 'Person|Organization|Tool: ...'")

    elements = {"SPDXRef-DOCUMENT": document}
    def register(where, element):
        identifier = element.get("SPDXID", "")
        if not ID.fullmatch(str(identifier)):
            problems.append(f"{where}: SPDXID {identifier!r} is not SPDXRef-[A-Za-z0-9.-]+")
        elif identifier in elements:
            problems.append(f"{where}: SPDXID {identifier} is used twice")
        elements[identifier] = element

    files = {}
    for index, file in enumerate(document.get("files", [])):
        where = f"files[{index}]"
        if not problems.fields(where, file, FILE, ("SPDXID", "fileName", "checksums")):
            continue
        register(where, file)
        files[file.get("SPDXID")] = file
        if not str(file.get("fileName", "")).startswith("./"):
            problems.append(f"{where}: fileName does not start with './'")
        problems.checksums(where, file.get("checksums", []))
        if "SHA1" not in digests(file.get("checksums", [])):
            problems.append(f"{where}: no SHA1 checksum")
        for file_type in file.get("fileTypes", []):
            if file_type not in FILE_TYPES:
                problems.append(f"{where}: unknown file type {file_type!r}")
        if "licenseConcluded" in file:
            problems.licence(f"{where}.licenseConcluded", file["licenseConcluded"])

    for index, package in enumerate(document.get("packages", [])):
        where = f"packages[{index}]"
        if not problems.fields(where, package, PACKAGE, ("SPDXID", "name", "downloadLocation")):
            continue
        register(where, package)
        for key in ("supplier", "originator"):
            if key in package and package[key] != "NOASSERTION" and not AGENT.fullmatch(package[key]):
                problems.append(f"{where}.{key}: not 'Person|Organization: ...' nor NOASSERTION")
        for key in ("licenseConcluded", "licenseDeclared"):
            if key in package:
                problems.licence(f"{where}.{key}", package[key])
        problems.checksums(where, package.get("checksums", []))
        if package.get("primaryPackagePurpose", "OTHER") not in PURPOSES:
            problems.append(f"{where}: unknown primaryPackagePurpose")
        for ref_index, ref in enumerate(package.get("externalRefs", [])):
            at = f"{where}.externalRefs[{ref_index}]"
            if problems.fields(at, ref, EXTERNAL_REF,
                               ("referenceCategory", "referenceType", "referenceLocator")):
                if ref.get("referenceCategory") not in REFERENCE_CATEGORIES:
                    problems.append(f"{at}: unknown referenceCategory")
                if re.search(r"\s", str(ref.get("referenceLocator", ""))):
                    problems.append(f"{at}: referenceLocator holds white space")
        analysed = package.get("filesAnalyzed", True)  # SPDX 2.3: true when absent
        code = package.get("packageVerificationCode")
        if not analysed:
            if code is not None or package.get("hasFiles"):
                problems.append(f"{where}: files not analysed, yet a verification code or files")
            continue
        if not problems.fields(f"{where}.packageVerificationCode", code, VERIFICATION,
                               ("packageVerificationCodeValue",)):
            continue
        listed = package.get("hasFiles", [])
        unknown = [f for f in listed if f not in files]
        if unknown:
            problems.append(f"{where}.hasFiles: no such files: {', '.join(map(str, unknown))}")
            continue
        # SPDX 2.3, 7.9: SHA-1 of the files' sorted SHA-1 values, concatenated.
        excluded = set(code.get("packageVerificationCodeExcludedFiles", []))
        sha1s = sorted(digests(files[f]["checksums"])["SHA1"] for f in listed
                       if files[f]["fileName"] not in excluded)
        if hashlib.sha1("".join(sha1s).encode()).hexdigest() != code.get("packageVerificationCodeValue"):
            problems.append(f"{where}: packageVerificationCode does not match its files")

    describes = set(document.get("documentDescribes", []))
    for index, relationship in enumerate(document.get("relationships", [])):
        where = f"relationships[{index}]"
        if not problems.fields(where, relationship, RELATIONSHIP, RELATIONSHIP.keys() - {"comment"}):
            continue
        if relationship["relationshipType"] not in RELATIONSHIPS:
            problems.append(f"{where}: unknown relationshipType {relationship['relationshipType']!r}")
        for key in ("spdxElementId", "relatedSpdxElement"):
            target = relationship[key]
            if target not in elements and target not in ("NONE", "NOASSERTION") \
                    and not target.startswith("DocumentRef-"):
                problems.append(f"{where}.{key}: no element {target}")
        if relationship["spdxElementId"] == "SPDXRef-DOCUMENT" and \
                relationship["relationshipType"] == "DESCRIBES":
            describes.add(relationship["relatedSpdxElement"])
    if not describes:
        problems.append("the document describes nothing (no DESCRIBES relationship)")
    for identifier in sorted(describes - elements.keys()):
        problems.append(f"documentDescribes: no element {identifier}")

    if not problems:
        problems.extend(check_against_package(path, document, files))
    return problems


def check_against_package(path, document, files):
    """The described packages' checksums and files against the packages beside the document."""
    problems = []
    for package in document.get("packages", []):
        deb = os.path.join(os.path.dirname(path), package.get("packageFileName", ""))
        if "packageFileName" not in package or not os.path.isfile(deb):
            continue
        with open(deb, "rb") as source:
            content = source.read()
        for algorithm, value in digests(package.get("checksums", [])).items():
            if algorithm in ("SHA1", "SHA256") and hashlib.new(algorithm.lower(), content).hexdigest() != value:
                problems.append(f"{package['packageFileName']}: its {algorithm} differs from the document's")
        data = subprocess.run(["dpkg-deb", "--fsys-tarfile", deb], check=True,
                              stdout=subprocess.PIPE).stdout
        actual = {}
        with tarfile.open(fileobj=io.BytesIO(data)) as archive:
            for member in archive:
                if member.isfile():
                    name = "./" + os.path.normpath(member.name).lstrip("./")
                    actual[name] = hashlib.sha256(archive.extractfile(member).read()).hexdigest()
        listed = {files[f]["fileName"]: digests(files[f]["checksums"]).get("SHA256")
                  for f in package.get("hasFiles", [])}
        for name in sorted(actual.keys() | listed.keys()):
            if name not in listed:
                problems.append(f"{package['packageFileName']}: {name} is not in the document")
            elif name not in actual:
                problems.append(f"{package['packageFileName']}: {name} is not in the package")
            elif listed[name] is not None and listed[name] != actual[name]:
                problems.append(f"{package['packageFileName']}: {name} differs from the document")
    return problems


def main():
    if len(sys.argv) < 2 or sys.argv[1] in ("-h", "--help"):
        print(__doc__.strip())
        sys.exit(0 if len(sys.argv) > 1 else 2)
    failed = False
    for path in sys.argv[1:]:
        problems = check(path)
        if problems:
            failed = True
            print(f"check-sbom: {path}: {len(problems)} problem(s)")
            for problem in problems[:20]:
                print(f"  {problem}")
        else:
            document = json.load(open(path, encoding="utf-8"))
            print(f"check-sbom: {path}: valid SPDX 2.3, {len(document.get('packages', []))} packages, "
                  f"{len(document.get('files', []))} files")
    sys.exit(1 if failed else 0)


if __name__ == "__main__":
    main()
