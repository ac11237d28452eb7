#!/usr/bin/env python3
"""man.py FROM TO VERSION: man pages by the modules' names, of those that Doxygen wrote by the headers' to FROM.

A function's name leads to its module's page. What belongs to no reader goes: dates, the tool's name, what a header
itself includes.
"""
import re
import sys
from pathlib import Path

source, target, version = Path(sys.argv[1]), Path(sys.argv[2]), sys.argv[3]
target.mkdir(parents=True, exist_ok=True)
for old in target.glob("*.3"):
    old.unlink()
for page in sorted(source.glob("*.h.3")):
    header = page.name[:-2]
    if header == "api.h":
        continue  # marks of the headers' own
    name = "kep_platform" if header == "platform.h" else header[:-2]
    text = page.read_text(encoding="utf-8")
    text = re.sub(r"^\.TH .*", f'.TH "{name}" 3 "" "kep {version}" "kep"', text, flags=re.M)
    text = re.sub(r"^\\fC#include .*\n(\.br\n)?", "", text, flags=re.M)
    text = re.sub(r"^\.SH SYNOPSIS\n", f".SH SYNOPSIS\n\\\\fC#include <kep/{header}>\\\\fP\n", text, flags=re.M)
    summary = re.search(r"^\.SH \"Detailed Description\"\n\.PP \n(.*?)[:.;]", text, flags=re.M)[1]
    summary = summary[0].lower() + re.split(", which| that", summary[1:])[0].rstrip("\\&")
    text = text.replace("\\fC", "\\fB")
    text = re.sub(r"(#define \S+ +)'([^'\n]*)'", r"\1\\(dq\2\\(dq", text)  # texts, not characters
    text = re.sub(r"^kep/.* *$", f"{name} \\\\- {summary}", text, count=1, flags=re.M)
    text = re.sub(r"^\.SH \"Author\"\n(.*\n)*", "", text, flags=re.M)
    (target / f"{name}.3").write_text(text, encoding="utf-8")
    for function in set(re.findall(r"\\fB([A-Za-z]+_\w+)\\fP \(", text)):
        (target / f"{function}.3").write_text(f".so man3/{name}.3\n", encoding="utf-8")
