#!/usr/bin/env python3
"""wireshark_test.py SOURCE KEP-COLLECT KEP-NAMES: what the dissector tells.

Of random runs, damaged ones too, what kep-collect does; of requests, what a board makes of them; and with names, what
the numbers mean."""
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

SOURCE, COLLECT, NAMES = sys.argv[1:]
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
                name = bytes(rand.choices(b"abcxyz", k=rand.choice((1, 1, 8, 19))))
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


def as_collected(path, names):
    command = [COLLECT, "--replay", path, "--format", "json", "--names", names]
    replay = subprocess.run(command, capture_output=True, text=True)
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


def dissect(capture, condition, fields, *options):
    command = ["tshark", "-r", capture, "-X", "lua_script:" + SOURCE + "/server/wireshark/kep.lua"]
    command += ["-Y", condition] if condition else []  # without one the first of two passes has no fields
    command += ["-T", "fields", "-E", "separator=/t", *[option for field in fields for option in ("-e", field)]]
    shark = subprocess.run([*command, *options], capture_output=True, text=True, errors="replace")
    assert shark.returncode == 0 and "Lua" not in shark.stderr, shark.stderr
    return shark.stdout.splitlines()


def as_dissected(capture, condition, *options):
    """What is told of each run, by its number."""
    runs = {}
    for line in dissect(capture, condition, FIELDS, *options):
        row = dict(zip(FIELDS, line.split("\t")))
        if not row["tcp.stream"]:
            continue
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
    path, capture_path, names, expected = folder + "/run", folder + "/capture", folder + "/names.toml", []
    with open(names, "w") as some:  # all of them report
        some.write("".join("[item.%s]\n" % item for item in "abcxyz"))

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
            expected.append(as_collected(path, names))
            pcap.write_run(capture, number, stream, portions)
            if number >= 200 and sum(int(told["summary"][1]) for told in expected) >= 10000:
                break
    for arguments in (("kep || kepend",), ("", "-2")):  # looked at once, and again as it is when somebody clicks
        found = as_dissected(capture_path, *arguments, *named(folder, names))
        assert len(found) == len(expected), (len(found), len(expected))
        for number, told in enumerate(expected):
            for key, value in told.items():
                assert found[number][key] == value, "run %d, %s: %s\nnot\n%s" % (number, key, found[number], value)


def named(folder, path):
    with open(folder + "/names.lua", "w") as names:
        subprocess.run([NAMES, "--lua", path], stdout=names, check=True)
    return "-o", "kep.names:" + folder + "/names.lua"


NAMED = """
board = { zone = "Europe/Berlin" }
[item.all.keys]
1.name = "it"
1.format = "HhBT4s8s8s3sB"
1.fields = [{ name = "status" }, { name = "angle", unit = "deg", scale = 0.1 }, { name = "level", kind = "gauge" }, { name = "time" },
  { name = "power", as = "f" }, { name = "work", as = "i64" }, { name = "count", as = "u64" }, {},
  { name = "flags", bits = { 0 = "up", 7 = "hot" } }]
2 = { name = "mode", kind = "state", states = { -1 = "lost" } }
3 = { name = "alarms", bits = { 31 = "fire" } }
"""


def test_names(folder):
    board = Board(random.Random(0), 0)
    board.stream = b""
    board.send(0, 0, b"KB\0\0")
    board.send(1, 1, struct.pack(">iH", 0, 3) + b"all")
    buffer = struct.pack(">HhBIfqQ3sB", 171, -15, 255, 1782907200, 1.5, -(2**62) - 1, 2**64 - 1, b"xyz", 0x83)
    board.put(0x84, (0, 0, 1), struct.pack(">H", len(buffer)) + buffer)
    board.put(0x81, (0, 0, 2), b"\xff" * 4)
    board.put(0x81, (0, 0, 3), b"\x80\0\0\1")
    board.sequence = 1
    board.flush()
    with open(folder + "/names.toml", "w") as names:
        names.write(NAMED)
    with pcap.Capture(folder + "/capture") as capture:
        pcap.write_run(capture, 0, board.stream)
    shown = dissect(folder + "/capture", "kep.value.kind", ["kep.value.shown"], *named(folder, folder + "/names.toml"))
    assert shown == [
        "all it status 0x00AB, angle -1.5 deg, level 255, time 2026/07/01 14:00:00, power 1.5, "
        "work -4611686018427387905, count 18446744073709551615, flags up, bit 1, hot,all mode lost,"
        "all alarms bit 0, fire"
    ], shown


def test_sample(folder):
    with open(SOURCE + "/docs/wire.md") as page:
        block = page.read().split("```hex\n")[1].split("```")[0]
    stream = bytes.fromhex("".join(line.split("  ")[0] for line in block.splitlines()))[16:]
    with pcap.Capture(folder + "/sample") as capture:
        pcap.write_run(capture, 0, stream)
    sample = SOURCE + "/server/wireshark/sample.pcap"
    with open(folder + "/sample", "rb") as made, open(sample, "rb") as kept:
        assert made.read() == kept.read(), "the sample is not the page's run"
    shown = dissect(sample, "kep && !kep.ack", ["_ws.col.Info"], *named(folder, SOURCE + "/examples/board/board.toml"))
    assert shown == [
        "Request: collection, type 0, sequence 77, to port 20000",
        "identity",
        "catalogue",
        "data: system processes -5; system load 1 min 4.00, 5 min 2.50, 15 min 0.75",
        "data: network eth0 name eth0; network eth0 received 672176260 B",
        "data, empty",
        "data, empty",
    ], shown


def test_datagrams(folder):
    def request(*words):
        return struct.pack(">%dI" % len(words), *words)

    dropped, query = "Dropped: ", b"=>config net mtu 1500"
    cases = [
        (pcap.SERVER, 9099, request(16, 2, 7, 5000), ""),
        (pcap.SERVER, 9099, request(16, 4, 7, 5000), dropped + "the type is above 3"),
        (pcap.SERVER, 9099, request(15, 3, 7, 5000), dropped + "the length field is 15, the datagram 16"),
        (pcap.SERVER, 9099, request(20, 3, 7, 5000, 0), dropped + "longer than 16 bytes"),
        (b"\xe0\0\0\1", 9099, request(16, 3, 7, 5000), dropped + "the sender's address cannot be one host's"),
        (pcap.SERVER, 9099, request(16, 3, 0, 0x15000), "Only the low 16 bits of the port count: 20480,"
         "The identity gets the board's own next number"),
        (pcap.SERVER, 9099, request(16, 3, 2**32 - 1, 5000), "A sequence of -1 means no request: it is never answered"),
        (pcap.SERVER, 9099, request(12, 3, 7), "What a short datagram does not bring is 0,"
         "Nobody can be reached at port 0"),
        (pcap.SERVER, 8999, query, ""),
        (pcap.SERVER, 8999, query[:12], "Not of the form =>config SECTION KEY DEFAULT"),
        (pcap.SERVER, 8999, query + b"0" * 1000, "A query of more than 1000 bytes"),
    ]
    with pcap.Capture(folder + "/datagrams") as capture:
        for source, port, datagram, _ in cases:
            capture.udp(source, 8998 if port == 8999 else 40000, pcap.BOARD, port, datagram)
        capture.udp(pcap.BOARD, 8999, pcap.SERVER, 8998, b"9000")
    shown = dissect(folder + "/datagrams", "udp", ["_ws.expert.message"])
    assert shown == [told for _, _, _, told in cases] + [""], shown
    answer = dissect(folder + "/datagrams", "kepconfig.query", ["kepconfig.value", "kepconfig.query", "_ws.col.Info"])
    assert answer == ["9000\t11\tAnswer: 9000"], answer


if __name__ == "__main__":
    if not shutil.which("tshark"):
        print("tshark is missing")
        sys.exit(77)
    for test in (test_random_runs, test_names, test_sample, test_datagrams):
        with tempfile.TemporaryDirectory() as folder:
            test(folder)
