#!/usr/bin/env python3
"""spdx.py DEB...: prints an SPDX 2.3 document of what is in Debian packages, from their own fields.

Beside each package stand what it depends on, and what was built into it: Static-Built-Using and Vendored. Packages have
no field for a licence. The date is SOURCE_DATE_EPOCH's, or now."""

import datetime
import hashlib
import json
import os
import re
import subprocess
import sys

RELATIONS = {"Pre-Depends": "DEPENDS_ON", "Depends": "DEPENDS_ON", "Static-Built-Using": "STATIC_LINK", "Vendored": "CONTAINS"}


def fields(deb):
    text = subprocess.run(["dpkg-deb", "-f", deb], check=True, capture_output=True, text=True).stdout
    return dict(line.split(": ", 1) for line in text.splitlines() if re.match(r"[A-Za-z-]+: ", line))


def entry(name, version, **more):
    return {"SPDXID": "SPDXRef-" + re.sub("[^A-Za-z0-9.-]", "-", name), "name": name, "versionInfo": version,
            "downloadLocation": "NOASSERTION", "filesAnalyzed": False, "licenseConcluded": "NOASSERTION",
            "licenseDeclared": "NOASSERTION", "copyrightText": "NOASSERTION", **more}


def main(debs):
    if not debs or debs[0].startswith("-"):
        sys.exit("usage: scripts/spdx.py DEB...")
    packages, others, relations, whole = {}, {}, [], hashlib.sha256()
    for deb in sorted(debs):
        has, digest = fields(deb), hashlib.sha256(open(deb, "rb").read()).hexdigest()
        whole.update(digest.encode())
        at = f"pkg:deb/kep/{has['Package']}@{has['Version']}?arch={has['Architecture']}"
        packages[has["Package"]] = entry(
            has["Package"], has["Version"], supplier="Organization: " + has["Maintainer"].replace("<", "(").replace(">", ")"),
            summary=has["Description"], packageFileName=os.path.basename(deb),
            checksums=[{"algorithm": "SHA256", "checksumValue": digest}],
            externalRefs=[{"referenceCategory": "PACKAGE-MANAGER", "referenceType": "purl", "referenceLocator": at}])
        for field, relation in RELATIONS.items():
            for name, version in re.findall(r"([a-z0-9][a-z0-9.+-]+)(?: \(([^)]*)\))?", has.get(field, "")):
                others.setdefault(name, entry(name, version.removeprefix("= ")))
                relations.append((has["Package"], relation, name))
    known = others | packages
    date = datetime.datetime.fromtimestamp(float(os.environ.get("SOURCE_DATE_EPOCH") or datetime.datetime.now().timestamp()))
    ids = [("SPDXRef-DOCUMENT", "DESCRIBES", known[name]["SPDXID"]) for name in packages]
    ids += [(known[a]["SPDXID"], relation, known[b]["SPDXID"]) for a, relation, b in dict.fromkeys(relations)]
    json.dump({"spdxVersion": "SPDX-2.3", "dataLicense": "CC0-1.0", "SPDXID": "SPDXRef-DOCUMENT", "name": "kep",
               "documentNamespace": "https://kep.invalid/spdx/" + whole.hexdigest(),
               "creationInfo": {"created": date.astimezone(datetime.timezone.utc).strftime("%Y-%m-%dT%H:%M:%SZ"),
                                "creators": ["Tool: spdx.py"]},
               "packages": [known[name] for name in sorted(known)],
               "relationships": [dict(zip(("spdxElementId", "relationshipType", "relatedSpdxElement"), row)) for row in ids]},
              sys.stdout, indent=1)


main(sys.argv[1:])
