#!/usr/bin/env python3
"""spdx_test.py DOCUMENT DEB...: whether the document is valid SPDX 2.3, as far as it uses that, and tells of the DEBs."""
import hashlib
import json
import re
import subprocess
import sys

with open(sys.argv[1]) as file:
    document = json.load(file)
TEXT = {"dataLicense": "CC0-1.0", "spdxVersion": "SPDX-2.3", "SPDXID": "SPDXRef-DOCUMENT", "name": ".+",
        "documentNamespace": r"https://[^#]+/[0-9a-f]{64}"}
PACKAGE = {"SPDXID": "SPDXRef-[A-Za-z0-9.-]+", "name": ".+", "versionInfo": "[^ ]+", "downloadLocation": "NOASSERTION",
           "licenseConcluded": "NOASSERTION", "licenseDeclared": "NOASSERTION", "copyrightText": "NOASSERTION",
           "supplier": r"Organization: .+ \(.+@.+\)", "packageFileName": r".+\.deb", "summary": ".+"}
OPTIONAL = {"supplier", "packageFileName", "summary", "versionInfo"}  # of packages that are not ours
for thing, form in [(document, TEXT)] + [(package, PACKAGE) for package in document["packages"]]:
    wrong = [key for key in form
             if (key in thing or key not in OPTIONAL) and not re.fullmatch(form[key], thing.get(key, ""))]
    assert not wrong, (wrong, thing)
assert re.fullmatch(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ", document["creationInfo"]["created"])
assert all(re.match("(Tool|Person|Organization): ", who) for who in document["creationInfo"]["creators"])

packages = {package["name"]: package for package in document["packages"]}
names = {package["SPDXID"]: package["name"] for package in packages.values()} | {"SPDXRef-DOCUMENT": ""}
assert len(names) == len(document["packages"]) + 1, "an identifier twice"
relations = {tuple(row[key] if key == "relationshipType" else names[row[key]] for key in row)
             for row in document["relationships"]}
for deb in sys.argv[2:]:
    def field(name):
        return subprocess.run(["dpkg-deb", "-f", deb, name], check=True, capture_output=True, text=True).stdout.strip()
    package = packages[field("Package")]
    digest = hashlib.sha256(open(deb, "rb").read()).hexdigest()
    assert package["checksums"] == [{"algorithm": "SHA256", "checksumValue": digest}]
    assert package["versionInfo"] == field("Version") and ("", "DESCRIBES", package["name"]) in relations
    for depends in filter(None, re.split(r", *|\| *", field("Depends"))):
        assert (package["name"], "DEPENDS_ON", depends.split()[0]) in relations, depends
assert relations >= {("kep-fleet", "CONTAINS", "uplot"), ("kep-tools", "STATIC_LINK", "cli11"),
                     ("kep-doc", "CONTAINS", "jquery"), ("kep-doc", "CONTAINS", "doxygen")}
