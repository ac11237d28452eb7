#!/usr/bin/env python3
"""spdx.py DEB...: prints an SPDX 2.3 document of what is in Debian packages, from their own fields.

Beside each package stand what it depends on, and what was built into it: Static-Built-Using and Vendored. Packages have
no field for a licence. The date is SOURCE_DATE_EPOCH's, or now."""

import hashlib
import json
import os
import re
import subprocess
import sys
import time

NAMED = r"([a-z0-9][a-z0-9.+-]+)(?::[a-z0-9]+)?(?: \((?:= ([^)]*)|[^)]*)\))?"  # perhaps with its version
KEYS = ("spdxElementId", "relationshipType", "relatedSpdxElement")
RELATIONS = {"Pre-Depends": "DEPENDS_ON", "Depends": "DEPENDS_ON",
             "Static-Built-Using": "STATIC_LINK", "Vendored": "CONTAINS"}


def fields(deb):
    text = subprocess.run(["dpkg-deb", "-f", deb], check=True, capture_output=True, text=True).stdout
    return dict(line.split(": ", 1) for line in text.splitlines() if re.match(r"[A-Za-z-]+: ", line))


def entry(name, **more):
    unknown = dict.fromkeys(("downloadLocation", "licenseConcluded", "licenseDeclared", "copyrightText"), "NOASSERTION")
    return {"SPDXID": "SPDXRef-" + re.sub("[^A-Za-z0-9.-]", "-", name), "name": name, "filesAnalyzed": False,
            **unknown, **more}


def main(debs):
    if not debs or debs[0].startswith("-"):
        print("usage: scripts/spdx.py DEB...", file=sys.stderr)
        sys.exit(2)
    packages, others, relations, whole = {}, {}, [], hashlib.sha256()
    for deb in sorted(debs):
        has, digest = fields(deb), hashlib.sha256(open(deb, "rb").read()).hexdigest()
        name, version = has["Package"], has["Version"]
        whole.update(digest.encode())
        at = f"pkg:deb/kep/{name}@{version}?arch={has['Architecture']}"
        packages[name] = entry(
            name, versionInfo=version, summary=has["Description"], packageFileName=os.path.basename(deb),
            supplier="Organization: " + has["Maintainer"].translate({ord("<"): "(", ord(">"): ")"}),
            checksums=[{"algorithm": "SHA256", "checksumValue": digest}],
            externalRefs=[{"referenceCategory": "PACKAGE-MANAGER", "referenceType": "purl", "referenceLocator": at}])
        relations.append(("SPDXRef-DOCUMENT", "DESCRIBES", packages[name]["SPDXID"]))
        for field, relation in RELATIONS.items():
            for other, exactly in re.findall(NAMED, has.get(field, "")):
                others[other] = entry(other, **({"versionInfo": exactly} if exactly else {}))
                relations.append((packages[name]["SPDXID"], relation, others[other]["SPDXID"]))
    date = time.gmtime(float(os.environ.get("SOURCE_DATE_EPOCH") or time.time()))
    json.dump({"spdxVersion": "SPDX-2.3", "dataLicense": "CC0-1.0", "SPDXID": "SPDXRef-DOCUMENT", "name": "kep",
               "documentNamespace": "https://kep.invalid/spdx/" + whole.hexdigest(),
               "creationInfo": {"created": time.strftime("%Y-%m-%dT%H:%M:%SZ", date), "creators": ["Tool: spdx.py"]},
               "packages": [known for _, known in sorted((others | packages).items())],
               "relationships": [dict(zip(KEYS, row)) for row in dict.fromkeys(relations)]}, sys.stdout, indent=1)


main(sys.argv[1:])
