#!/usr/bin/env python3
"""docs_test.py links SOURCE | blocks SOURCE BUILD: what the pages say is so.

links: links among the pages, their anchors and their pictures lead somewhere, and the index has every page.

blocks: every fenced block is run, compiled or checked by its language, page by page, each in a folder of its own, with
the built commands on the PATH, the installed package as PREFIX, and a network namespace whose addresses are those of
examples; status 77 where there is none to be had. Comments in front of a block tell more:

  not run: REASON      by nothing: what it needs is not to be had in a test
  tested by: FILE      that names the page
  file: NAME           the block is kept under that name from the page's beginning; or what stands behind it here is
  with: COMMAND        run while this one serves
  until ended          each line a server, which lives until a signal ends it; those before the last one may end before
  prints: COMMAND      it is what the command prints, or the block before; 'prints, times aside' (and sequences) and
                       'prints, numbers aside': lines of it, but for those
"""
import json
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time
from pathlib import Path

SOURCE = Path(sys.argv[2]).resolve()
PAGES = [SOURCE / "README.md", SOURCE / "CHANGELOG.md", *sorted((SOURCE / "docs").glob("*.md"))]
BLOCK = re.compile(r"((?:^<!--.*?-->\n)*)^```(\w*)\n(.*?)^```$", re.M | re.S)
SAID = re.compile(r"<!-- (not run|tested by|file|with|until ended|prints(?:, \w+ aside)?)(?:: ([^\n]*?))?"
                  r"(?: -->|\n(.*?)-->)", re.S)
ASIDE = {"prints, times aside": r"(?<=sequence )-?\d+|\d\d/\d\d \d\d:\d\d:\d\d",
         "prints, numbers aside": r"-?\d+([ .]\d+)*", "prints": r"^$"}
CONSUMER = "#include <kep/kep.h>\nint main(void) { return Collect_Init(0); }\n"
HOST = "-I PREFIX/include -L PREFIX/lib -Wall -Wextra -Wpedantic -Werror"
ARCHIVES = "-l:libkep.a -l:libkep_platform_posix.a"
failures = []


def fail(page, place, why):
    failures.append(f"{page.relative_to(SOURCE)}:{place}: {why}")


# ---- links

def check_links():
    sys.dont_write_bytecode = True
    sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "docs/doxygen"))
    from filter import slug
    texts = {page: BLOCK.sub("", page.read_text()) for page in PAGES}
    anchors = {page: {slug(found) for found in re.findall(r"^#+ (.*)", texts[page], re.M)} for page in PAGES}
    for page, text in texts.items():
        for target in re.findall(r"\]\(([^)]+)\)", text):
            path, _, anchor = target.partition("#")
            there = (page.parent / path).resolve() if path else page
            if "://" not in target and not there.exists():
                fail(page, target, "leads nowhere")
            elif anchor and "://" not in target and anchor not in anchors.get(there, ()):
                fail(page, target, "no such heading")
    index = SOURCE / "docs/README.md"
    for page in texts:
        if page.parent == index.parent and page != index and f"({page.name})" not in texts[index]:
            fail(page, 1, "not in the index")


# ---- blocks

def shell(command):
    result = subprocess.run(["bash", "-euo", "pipefail", "-c", command], text=True, timeout=240,
                            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    return result.stdout, f"status {result.returncode}:\n{result.stdout}" if result.returncode else ""


class Served:
    """While a command serves: in a group of its own, which a signal ends."""

    def __init__(self, command):
        self.command = command

    def __enter__(self):
        self.output = tempfile.TemporaryFile("w+")
        self.process = subprocess.Popen(["bash", "-c", self.command], start_new_session=True,
                                        stdout=self.output, stderr=subprocess.STDOUT)
        ports = re.compile(r":(238B|2327) \S+ 07|:23DC \S+ 0A")  # requests, configuration, kep-fleet's page
        for _ in range(50):
            tables = "".join(Path(f"/proc/net/{kind}").read_text() for kind in ("udp", "tcp"))
            if ports.search(tables) or self.process.poll() is not None:
                break
            time.sleep(0.1)
        return self

    def __exit__(self, *_):
        self.lived = self.process.poll() is None
        if self.lived:
            os.killpg(self.process.pid, signal.SIGTERM)
        self.status = self.process.wait()
        self.output.seek(0)


def serve_until_ended(text):
    for line in text.strip().split("\n"):
        with Served(line) as server:
            time.sleep(1)
        if not server.lived and (server.status != 0 or line == text.strip().split("\n")[-1]):
            return f"ended with status {server.status}: {line}\n{server.output.read()}"
    return ""


def usage_is_known(text):
    """Each option of a usage is one that the command's help has."""
    for line in text.strip().split("\n"):
        known = re.findall(r"--[a-z-]+", shell(f"{line.split()[0]} --help")[0])
        for option in re.findall(r"--[a-z-]+", line):
            if option not in known:
                return f"not in the help of {line.split()[0]}: {option}"
    return ""


def checked(language, text):
    """What is wrong with a block of a language, empty when nothing is."""
    Path("block." + language).write_text(text)
    if language == "json":
        return "" if all(json.loads(line) for line in text.strip().split("\n")) else "empty"
    if language == "usage":
        return usage_is_known(text)
    if language == "c":
        return shell(f"cc -std=c99 {HOST} block.c {ARCHIVES if 'int main(' in text else '-c'} -pthread -o block")[1]
    if language == "toml":
        is_fleet = re.search(r"^board =|^\[\[board\]\]", text, re.M)
        return shell("kep-fleet --config block.toml --check" if is_fleet else "kep-names --check block.toml")[1]
    if language == "cmake":
        if "CMAKE_SYSTEM_NAME" in text:  # a toolchain file
            Path("project/CMakeLists.txt").write_text("cmake_minimum_required(VERSION 3.22)\nproject(block)\n")
            return shell("cmake -S project -B built -DCMAKE_TOOLCHAIN_FILE=$PWD/block.cmake")[1]
        Path("project/host.c").write_text(CONSUMER)
        Path("project/CMakeLists.txt").write_text("cmake_minimum_required(VERSION 3.22)\nproject(block LANGUAGES C)\n"
                                                "add_executable(host host.c)\n" + text)
        return shell("cmake -S project -B built -DCMAKE_PREFIX_PATH=$PWD/PREFIX && cmake --build built")[1]
    if language == "ini":
        section, key, value = re.search(r"\[(\w+)\]\n(\w+) = (\S+)", text).groups()
        with Served("kep-config block.ini --listen 127.0.0.1"):
            answer = shell(f"kep-config --query {section} {key} none --server 127.0.0.1")[0]
        return "" if answer.strip() == value else f"the answer is {answer}"
    return f"nothing tries a block of '{language}'"


def compared(expected, printed, how):
    def likened(text):
        return [re.sub(r"\s+", " ", line).strip() for line in re.sub(ASIDE[how], "0", text).strip().split("\n")]
    lines = likened(printed)
    missing = [line for line in likened(expected) if line not in lines]
    if not missing and (how != "prints" or lines == likened(expected)):
        return ""
    return f"not as printed, {missing}:\n{printed}"


def tried(page, said, language, text, before):
    """Tries a block: what it printed, and what is wrong with it."""
    if "tested by" in said:
        other = SOURCE / said["tested by"]
        return "", "" if page.name in other.read_text() else f"{other} does not know this page"
    if "not run" in said:
        return "", "" if said["not run"] else "no reason is given"
    if "with" in said:
        with Served(said.pop("with")) as server:
            result = tried(page, said, language, text, before)
        return result if server.lived else ("", f"the server ended:\n{server.output.read()}")
    for word in said:
        if word.startswith("prints"):
            printed, wrong = shell(said[word]) if said[word] else (before, "")
            return printed, wrong or compared(text, printed, word)
    if "until ended" in said:
        return "", serve_until_ended(text)
    return shell(text) if language == "sh" else ("", checked(language, text))


def try_page(page, prefix):
    """Tries a page's blocks in the folder that is the current one; how many there are."""
    shutil.copytree(prefix, "PREFIX", symlinks=True, ignore=shutil.ignore_patterns("bin"))
    for entry in SOURCE.glob("[!.]*"):
        if entry.name != "build":
            Path(entry.name).symlink_to(entry)
    for name in ("names", "project"):
        Path(name).mkdir()
    Path("common.toml").touch()
    Path("token").write_text("0123456789abcdef\n")
    Path("host.c").write_text(CONSUMER)
    content, before, blocks = page.read_text(), "", []
    for found in BLOCK.finditer(content):
        said, files = {}, []
        for word, argument, rest in SAID.findall(found[1]):
            said[word] = argument
            files += [(argument, rest or found[3])] if word == "file" else []
        line = content.count("\n", 0, found.start(2)) + 1
        blocks.append((line, said, files, found[2], found[3]))
        if found[1].count("<!--") != len(SAID.findall(found[1])):
            fail(page, line, "a comment that says nothing here")
    for line, said, files, language, text in reversed(blocks):
        for name, lines in files:
            if SOURCE in Path(name).resolve().parents:
                raise RuntimeError(f"{page.name}:{line}: {name} would be written to the source")
            Path(name).write_text(lines)
    for line, said, files, language, text in blocks:
        for name, lines in files:
            Path(name).write_text(lines)
        try:
            printed, wrong = tried(page, said, language, text, before)
            before = printed or before
        except Exception as error:  # whatever it is, the other blocks are tried
            wrong = repr(error)
        if wrong:
            fail(page, line, wrong)
    if content.count("\n```") != 2 * len(blocks):
        fail(page, 1, "a fence is not understood")
    return len(blocks)


def check_blocks(build):
    prefix = Path(build, "tests/docs/installed")
    print(shell(f"cmake --install {build} --prefix {prefix} >/dev/null")[1], end="")
    folders = [f"tools/{tool.name}" for tool in (SOURCE / "tools").glob("kep-*")] + ["examples"]
    os.environ["PATH"] = ":".join([f"{build}/{folder}" for folder in folders] + [os.environ["PATH"]])
    os.environ.update(PKG_CONFIG_PATH="PREFIX/lib/pkgconfig", LC_ALL="C.UTF-8", TZ="UTC")
    count = 0
    for page in PAGES:
        with tempfile.TemporaryDirectory() as folder:
            os.environ["HOME"] = os.environ["XDG_STATE_HOME"] = folder
            os.chdir(folder)
            count += try_page(page, prefix)
            os.chdir("/")
    print(f"{count} blocks")


def apart(arguments):
    """Goes on in a network namespace with the addresses of the examples, which as root in it can be had by anyone."""
    inside = "ip link set lo up && ip address add 192.0.2.1 dev lo && KEP_APART=1 exec \"$@\""
    for unshare in (["unshare", "-n"], ["unshare", "-rn"]):
        if shutil.which("unshare") and subprocess.run(unshare + ["true"], stderr=subprocess.DEVNULL).returncode == 0:
            os.execvp("unshare", unshare + ["sh", "-c", inside, "sh", sys.executable] + arguments)
    print("SKIPPED: no network namespace to be had")
    sys.exit(77)


if __name__ == "__main__":
    if sys.argv[1] == "links":
        check_links()
    elif "KEP_APART" not in os.environ:
        apart(sys.argv)
    else:
        check_blocks(str(Path(sys.argv[3]).resolve()))
    print("\n".join(failures))
    sys.exit(1 if failures else 0)
