#!/usr/bin/env python3
"""filter.py FILE: what Doxygen reads in place of FILE, a header or a page.

The headers are written to be read as they are: plain comments, one for several declarations where it holds for all,
drawings by indentation. Doxygen wants marks for these, and escapes for what it would take for its own. The pages are
for any reader of Markdown; Doxygen's wants headings with labels that are unique among all pages, and links to them as
its own references. Lines stay where they are, but for a repeated comment of macros, so that its warnings are found.
"""
import re
import sys
from pathlib import Path


def escaped(text):
    """Text in which nothing means anything to Doxygen, but for what stands between backticks, which it leaves alone."""
    parts = re.split(r"(`[^`]*`)", text)
    parts[::2] = [re.sub(r"([\\@%<>#*&])", r"\\\1", part) for part in parts[::2]]
    return "".join(parts)


def marked(comment, first):
    """The lines of a comment, `first` as its beginning; indented lines are a drawing unless they are a list."""
    lines = [re.sub(r"^/\* ?| \*/$|^ \*(/$| ?)", "", line) for line in comment]
    out, is_drawing, is_list = [], False, False
    for line in lines:
        if line.startswith("  "):
            is_list = is_list or line.startswith("  - ")
            if not is_list and not is_drawing:
                out[-1] += " @verbatim"
                is_drawing = True
        elif line:
            is_list = False
            if is_drawing:
                line, is_drawing = "@endverbatim " + escaped(line), False
                out.append(line)
                continue
        out.append(line if is_drawing else escaped(line))
    if first:
        out[0] = first + out[0][0].upper() + out[0][1:]
    return "/** " + "\n".join(out) + " */"


DECLARATION = re.compile(r"KEP_API|extern|typedef|#define")


def header(text, name):
    out, comment, doc, is_told = [], [], "", False
    for number, line in enumerate(text.split("\n")):
        if comment or line.startswith("/*"):
            comment.append(line)
            if line.endswith("*/"):
                is_first, is_told = number < len(comment), False
                comment[0] = comment[0].replace(f"/* {name}: ", "/* ")
                doc = marked(comment, f"@file {name} " if is_first else "")
                out.append(doc)
                comment = []
            continue
        line = re.sub(r"/\* (.*) \*/", lambda found: "/**< " + escaped(found[1]) + " */", line)
        if not line:
            doc = ""
        elif doc and DECLARATION.match(line):  # what is said of several is said of each
            if is_told:
                line = doc.replace("\n", " ") + ("\n" if line[0] == "#" else " ") + line
            is_told = True
        out.append(line)
    return "\n".join(out)


def slug(heading):
    """The anchor of a heading, as the common readers of Markdown make it."""
    return re.sub(r"[^\w\- ]", "", heading.strip().lower()).replace(" ", "-")


def page(text, name):
    def link(found):
        words, target, anchor = found.groups()
        if "://" in target:
            return found[0]
        if target and "/" in target or target and not target.endswith(".md"):
            return words  # of the source, which is not here
        stem = target[:-3] if target else name
        return f"[{words}](@ref kep-{stem}{'-' + anchor if anchor else ''})"

    out, in_fence = [], False
    for number, line in enumerate(text.split("\n")):
        if line.startswith("```"):
            in_fence = not in_fence
            line = re.sub(r"^```\w+", "```", line)
        elif not in_fence and (heading := re.match(r"(#+) (.*)", line)):
            label = f"kep-{name}" if number == 0 else f"kep-{name}-{slug(heading[2])}"
            line += " {#mainpage}" if label == "kep-README" else f" {{#{label}}}"
        elif not in_fence:
            line = re.sub(r"(?<!!)\[([^\]]*)\]\(([^)#]*)(?:#([^)]*))?\)", link, line)
        out.append(line)
    return "\n".join(out)


if __name__ == "__main__":
    path = Path(sys.argv[1])
    content = path.read_text(encoding="utf-8")
    sys.stdout.reconfigure(encoding="utf-8")
    print(header(content, path.name) if path.suffix == ".h" else page(content, path.stem), end="")
