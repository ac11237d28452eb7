#!/usr/bin/env python3
"""wireshark_test.py SOURCE KEP-COLLECT: the dissector tells of random runs, damaged ones too, what kep-collect does."""
import itertools
import json
import os
import random
import re
import shutil
import struct
import subprocess
import sys
import tempfile

SOURCE, COLLECT = sys.argv[1:3]
sys.dont_write_bytecode = True
sys.path.insert(0, SOURCE + "/server/wireshark")
import pcap  # noqa: E402

SEED = 20261123
FIELDS = ["tcp.stream", "kep.identity", "kep.catalogue.item", "kep.catalogue.name", "kep.tested", "kep.damage"]
FIELDS += ["kep.value." + name for name in ("item", "name", "section", "key", "kind", "int", "long", "bytes")]
FIELDS += ["kep.run." + name for name in ("messages", "records", "bytes", "whole")]
NUMBERS = (0, 0, 1, 2, 0xFFFF, -1, -(2**31), 2**31 - 1)


class Board:
    """Writes a run as a board does."""

    def __init__(self, rand, record_count):
        self.rand, self.stream, self.payload = rand, b"", b""
        self.sequence = rand.choice((41, 2**31 - 3, 2**32 - 4))
        self.self_test = rand.random() < 0.3
        self.send(0, rand.getrandbits(32), b"KB\1\2")
        if not self.self_test:
            for item in sorted(rand.sample(range(-3, 20), rand.randrange(8))):
                name = bytes(rand.choices(b"abcxyz", k=rand.randrange(1, 20)))
                self.payload += struct.pack(">iH", item, len(name)) + name
            self.flush(1)
        for _ in range(record_count):
            self.put_value()
        self.flush()
        self.flush()

    def send(self, kind, sequence, payload):
        self.stream += struct.pack(">iiI", 12 + len(payload), kind, sequence % 2**32) + payload

    def flush(self, kind=2):
        self.sequence += 1
        self.send(kind, self.sequence, self.payload)
        self.payload = b""

    def put(self, kind, where, content):
        if len(self.payload) + 13 + len(content) > 1024:
            self.flush()
        self.payload += struct.pack(">Biii", kind, *where) + content

    def put_value(self):
        rand = self.rand
        where = [rand.choice(NUMBERS) for _ in range(3)]
        kind = rand.randrange(1, 5)
        if kind < 3:
            self.put(0x80 | kind, where, rand.randbytes(4 * kind))
            return
        content = rand.randbytes(rand.choice((0, 1, 9, 200, 1009, 3000)))
        if self.self_test and rand.random() < 0.3:
            kind, where, content = 3, [0xFFFF, 0, 0], b"item %d" % rand.randrange(9)
        while True:
            size = rand.randrange(1010)
            piece, content = content[:size], content[size:]
            self.put(kind if content else 0x80 | kind, where, struct.pack(">H", len(piece)) + piece)
            if not content:
                break
        if rand.random() < 0.1:
            self.flush()


def damaged(rand, stream):
    if rand.random() < 0.3:
        return stream[: rand.randrange(13, len(stream))]
    at = rand.choice((rand.randrange(len(stream)), rand.randrange(min(len(stream), 100))))
    return stream[:at] + bytes([stream[at] ^ 1 << rand.randrange(8)]) + stream[at + 1 :]


def plain(name):
    """Of a name, what is shown of it everywhere."""
    return re.sub("[^a-z0-9 ]+", "?", re.sub(r"\\x..", "?", name))


def by_place(values):
    return sorted(values, key=lambda value: value[:3])  # in a self-test items come one after another


def as_collected(path):
    replay = subprocess.run([COLLECT, "--replay", path, "--format", "json"], capture_output=True, text=True)
    rows = [json.loads(line) for line in replay.stdout.splitlines()]
    told = {"damage": "".join(re.findall(r"offset (.*)", replay.stderr)), "values": []}
    for kind, key in (("identity", "identity"), ("item", "item"), ("tested", "name")):
        told[kind] = [str(row[key]) for row in rows if row["row"] == kind]
    told["names"] = [plain(row["name"]) for row in rows if row["row"] == "item"]
    told["tested"] = [plain(name) for name in told["tested"]]
    for row in rows:
        if row["row"] == "value":
            content = row.get("value_hex", row["value"])
            if row["kind"] == "string" and "value_hex" not in row:
                content = content.encode().hex()
            place = row["item"], row["section"], row["key"]
            told["values"].append((*place, plain(row["name"]), row["kind"], str(content)))
    told["values"] = by_place(told["values"])
    told["summary"] = [str(rows[-1][key]) for key in ("messages", "records", "bytes")] + [rows[-1]["whole"]]
    return told


def as_dissected(capture):
    """What is told of each run, by its number."""
    options = [option for field in FIELDS for option in ("-e", field)]
    command = ["tshark", "-r", capture, "-X", "lua_script:" + SOURCE + "/server/wireshark/kep.lua", "-T", "fields"]
    command += ["-E", "separator=/t", "-E", "aggregator=,", "-Y", "tcp.stream && (kep || kepend)", *options]
    shark = subprocess.run(command, capture_output=True, text=True, errors="replace")
    assert shark.returncode == 0 and "Lua" not in shark.stderr, shark.stderr
    runs = {}
    for line in shark.stdout.splitlines():
        row = dict(zip(FIELDS, line.split("\t")))
        lists = {field: text.split(",") if text else [] for field, text in row.items()}
        new = {key: [] for key in ("identity", "item", "names", "tested", "values")}
        new.update(damage="", summary=["0", "0", "0", False])
        told = runs.setdefault(int(row["tcp.stream"]), new)
        told["identity"] += [text.replace(":", "") for text in lists["kep.identity"]]
        told["item"] += lists["kep.catalogue.item"]
        told["names"] += [plain(name) for name in lists["kep.catalogue.name"]]
        told["tested"] += [plain(name) for name in lists["kep.tested"]]
        told["damage"] += row["kep.damage"]
        contents = {"int": iter(lists["kep.value.int"]), "long": iter(lists["kep.value.long"])}
        contents["string"] = contents["buffer"] = iter(row["kep.value.bytes"].replace(":", "").split(","))
        places = [map(int, lists["kep.value." + name]) for name in ("item", "section", "key")]
        kinds, names = lists["kep.value.kind"], map(plain, row["kep.value.name"].split(","))
        for *place, name, kind in zip(*places, names, kinds):
            told["values"].append((*place, name, kind, next(contents[kind]).replace("<MISSING>", "")))
        if lists["kep.run.whole"]:
            told["summary"] = [lists["kep.run." + name][-1] for name in ("messages", "records", "bytes")]
            told["summary"].append(lists["kep.run.whole"][-1] in ("1", "True"))
    for told in runs.values():
        told["values"] = by_place(told["values"])
        told["summary"][-1] = told["summary"][-1] and not told["damage"]
    return runs


def test_random_runs(folder):
    rand = random.Random(SEED)
    path, capture_path, expected = folder + "/run", folder + "/capture", []

    def portions(message):
        cuts = sorted(rand.choices(range(1, len(message) + 1), k=rand.randrange(3)))
        return [message[a:b] for a, b in zip([0, *cuts], [*cuts, len(message)]) if a < b]

    with pcap.Capture(capture_path) as capture:
        for number in itertools.count():
            stream = Board(rand, rand.choice((0, 3, 30, 300))).stream
            if number % 2 == 1:
                stream = damaged(rand, stream)
            with open(path, "wb") as run:
                run.write(stream)
            expected.append(as_collected(path))
            pcap.write_run(capture, number, stream, portions)
            if number >= 200 and sum(int(told["summary"][1]) for told in expected) >= 10000:
                break
    found = as_dissected(capture_path)
    assert len(found) == len(expected), (len(found), len(expected))
    for number, told in enumerate(expected):
        for key, value in told.items():
            assert found[number][key] == value, "run %d, %s:\n%s\nnot\n%s" % (number, key, found[number][key], value)


if __name__ == "__main__":
    if not shutil.which("tshark"):
        print("tshark is missing")
        sys.exit(77)
    with tempfile.TemporaryDirectory() as folder:
        test_random_runs(folder)
