"""fleet_load.py [--quick] [ROW...]: run by fleet-load.sh, which tells what for.

Two kinds of boards are asked. Those of kep-boards are served by the library; what became of their runs, the store says.
The others are played here, in a process of their own that notes every request and how its run ended: what a store
lacks, what was asked twice at a time and what came late, they know by themselves.
"""
import asyncio
import collections
import csv
import datetime
import os
import random
import re
import resource
import shutil
import signal
import socket
import sqlite3
import statistics
import struct
import subprocess
import sys
import tempfile
import threading
import time
import traceback
import urllib.request

BUILD = os.environ.get("KEP_BUILD", "build/release")
NAMES = os.path.abspath("examples/fleet/board.toml")
QUICK = "--quick" in sys.argv
figures, printing = [], threading.Lock()


def say(text):
    with printing:
        print(time.strftime("%H:%M:%S"), text, flush=True)


def figure(row, what, measured, aim, isGood):
    figures.append((row, what, measured, aim, "ok" if isGood else "MISSED"))
    say("%s: %s: %s (%s)%s" % (row, what, measured, aim, "" if isGood else "  MISSED"))


def waitFor(condition, seconds, what):
    end = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > end:
            raise RuntimeError("waited in vain for " + what)
        time.sleep(0.05)


def freePort():
    with socket.socket() as one:
        one.bind(("127.0.0.1", 0))
        return one.getsockname()[1]


# ---- boards that are played here

def message(kind, number, payload=b""):
    return struct.pack(">III", 12 + len(payload), kind, number) + payload


def runOf(name, number, turn):
    """The messages of a run in good order, with a text that names the board and the turn."""
    text = lambda key, value: b"\x83" + struct.pack(">IIIH", 0, 0, key, len(value)) + value
    catalogue = struct.pack(">IH", 0, 6) + b"system"
    data = text(1, name.encode()) + text(2, b"2.4.1") + text(3, str(turn).encode())
    return [message(0, number, struct.pack(">HH", 0x0B04, 0)), message(1, 1, catalogue), message(2, 2, data),
            message(2, 3)]


def mutated(run, dice):
    """Any bytes, or a run of which some are changed, left out, doubled or cut; every third finds its way in."""
    run = bytearray(run)
    if dice.random() < 0.05:
        return dice.randbytes(dice.randrange(2000))
    first = 12 if dice.random() < 0.7 else 0
    for _ in range(dice.choice((1, 1, 2, 5, 30))):
        at = dice.randrange(first, len(run))
        what = dice.randrange(5)
        if what == 0:
            run[at] = dice.randrange(256)
        elif what == 1:
            run[at] = dice.choice((0, 0x7F, 0x80, 0xFF))
        elif what == 2:
            del run[at:at + dice.randrange(1, 9)]
        elif what == 3:
            run[at:at] = run[at:at + dice.randrange(1, 40)]
        elif at > 12:
            del run[at:]
        if len(run) <= first + 1:
            break
    return bytes(run)


class Player(asyncio.DatagramProtocol):
    """One board. Notes: its name, the server's port, when it was asked, when that ended, and whether it came whole."""
    def __init__(self, name, log, isSlow, isHostile):
        self.name, self.log, self.isSlow, self.isHostile = name, log, isSlow, isHostile
        self.turn, self.dice = 0, random.Random(name)

    def datagram_received(self, request, server):
        asyncio.ensure_future(self.answer(struct.unpack(">IIII", request), server[0], time.time()))

    async def answer(self, request, server, asked):
        isWhole, self.turn, out = 0, self.turn + 1, None
        run = runOf(self.name, request[2], self.turn)
        try:
            back, out = await asyncio.wait_for(asyncio.open_connection(server, request[3]), 5)
            if self.isHostile:
                out.write(mutated(b"".join(run), self.dice))
                out.write_eof()
                await asyncio.wait_for(back.read(), 5)
            else:
                for part in run:
                    out.write(part)
                    await asyncio.wait_for(back.readexactly(1), 2)
                    await asyncio.sleep(0.5 * self.isSlow)
                isWhole = 1
        except (OSError, asyncio.TimeoutError, asyncio.IncompleteReadError):
            pass
        self.log.write("%s %d %.4f %.4f %d\n" % (self.name, request[3], asked, time.time(), isWhole))
        if out:
            out.close()


Noted = collections.namedtuple("Noted", "board port asked ended isWhole")


class Players:
    """So many boards, every fifth of them slow if `slow`, at 127.77.<net>.1 and on."""
    def __init__(self, folder, net, count, name, slow=False, hostile=False):
        self.path = os.path.join(folder, name + ".log")
        self.names = ["%s-%04d" % (name, i) for i in range(count)]
        self.hosts = ["127.77.%d.%d" % (net + i // 250, i % 250 + 1) for i in range(count)]
        self.plays = name
        open(self.path, "w").close()
        self.pid = os.fork()
        if self.pid == 0:
            try:
                asyncio.run(self.play(slow, hostile))
            finally:
                os._exit(1)

    async def play(self, slow, hostile):
        log = open(self.path, "a", buffering=1)
        for i, (name, host) in enumerate(zip(self.names, self.hosts)):
            make = lambda name=name, isSlow=slow and i % 5 == 0: Player(name, log, isSlow, hostile)
            await asyncio.get_running_loop().create_datagram_endpoint(make, local_addr=(host, 9099))
        while os.getppid() > 1:
            await asyncio.sleep(1)

    def config(self):
        return "".join('[[board]]\nname = "%s"\nhost = "%s:9099"\nlabels = { plays = "%s" }\n' % (name, host, self.plays)
                       for name, host in zip(self.names, self.hosts))

    def noted(self):
        """Complete lines, in the order in which runs ended."""
        with open(self.path) as log:
            lines = log.read().split("\n")[:-1]
        return [Noted(board, int(port), float(asked), float(ended), whole == "1")
                for board, port, asked, ended, whole in (line.split() for line in lines)]

    def end(self):
        os.kill(self.pid, signal.SIGKILL)
        os.waitpid(self.pid, 0)


# ---- what is under test

class Process:
    def __init__(self, folder, name, command):
        self.out = os.path.join(folder, name + ".out")
        self.process = subprocess.Popen(command, stdout=open(self.out, "a"), stderr=subprocess.STDOUT)

    def said(self):
        with open(self.out, errors="replace") as out:
            return out.read()

    def end(self, number=signal.SIGTERM):
        if self.process.poll() is None:
            self.process.send_signal(number)
        return self.process.wait()


class Boards(Process):
    """kep-boards; `config` lists them."""
    def __init__(self, folder, count, *options):
        path = os.path.join(folder, "boards.toml")
        super().__init__(folder, "boards", [BUILD + "/examples/kep-boards", str(count), "--first", "127.78.0.1",
                                            "--write-config", path, "--names", NAMES, *options])
        waitFor(lambda: "boards at" in self.said() or self.process.poll() is not None, 60, "boards")
        with open(path) as file:
            self.config = file.read()
        self.config = self.config[self.config.index("[[board]]"):]
        self.good = re.findall(r'name = "(.*)"\nhost.*\nlabels = .*plays = "good"', self.config)


class Fleet(Process):
    """kep-fleet with a configuration of its own; started again by start()."""
    def __init__(self, folder, name, config):
        self.folder, self.name = folder, name
        self.port, self.http = freePort(), freePort()
        self.path = os.path.join(folder, name + ".toml")
        with open(self.path, "w") as file:
            file.write('listen = "127.0.0.1:%d"\n%s' % (self.port, config.replace(
                "[limits]", '[http]\naddress = "127.0.0.1:%d"\n[limits]' % self.http)))
        self.start()

    def start(self):
        super().__init__(self.folder, self.name, [BUILD + "/fleet/kep-fleet", "--config", self.path])

    def resident(self):
        with open("/proc/%d/status" % self.process.pid) as status:
            return int(re.search(r"VmRSS:\s+(\d+)", status.read()).group(1)) / 1024

    def descriptors(self):
        return len(os.listdir("/proc/%d/fd" % self.process.pid))

    def seconds(self):
        with open("/proc/%d/stat" % self.process.pid) as stat:
            return sum(map(int, stat.read().rsplit(")")[1].split()[11:13])) / os.sysconf("SC_CLK_TCK")

    def metrics(self):
        with urllib.request.urlopen("http://127.0.0.1:%d/metrics" % self.http, timeout=30) as answer:
            return answer.read()

    def runs(self):
        """Those that are stored, as (board, when asked, seconds, outcome)."""
        with subprocess.Popen([BUILD + "/fleet/kep-fleet", "runs", "--format", "csv", "--config", self.path],
                              stdout=subprocess.PIPE, text=True) as listed:
            return [(row["board"], datetime.datetime.fromisoformat(row["started"][:-1] + "+00:00").timestamp(),
                     int(row["duration_ms"]) / 1000, row["outcome"]) for row in csv.DictReader(listed.stdout)]


def configOf(store, boards, polls, more="", limits=""):
    polls = "".join('[[poll]]\ntype = 0\nevery = "%gs"\n%s\n' % (every, "labels = { plays = \"%s\" }" % plays
                                                                   if plays else "") for every, plays in polls)
    return 'store = "%s"\n%s\n[limits]\n%s\n[log]\nlevel = "info"\n%s%s' % (store, more, limits, polls, boards)


# ---- what came when

def phaseOf(board, period):
    """Of its grid on the monotonic clock: as Schedule has it."""
    mask = (1 << 64) - 1
    value = 0xCBF29CE484222325
    for byte in board.encode():
        value = (value ^ byte) * 0x100000001B3 & mask
    value = (value ^ value >> 33) * 0xFF51AFD7ED558CCD & mask
    return (value ^ value >> 33) % int(period * 1000) / 1000


def lateness(runs, boards, period, begin, end):
    """Of every time of a board's grid between the two, how much later a run began; a time without one counts as a
    period. Seconds, in order."""
    wall = time.time() - time.monotonic()
    late, times = [], collections.defaultdict(list)
    for board, started, *_ in runs:
        times[board].append(started)
    for board in boards:
        phase = wall + phaseOf(board, period) - 0.002  # what the clocks' readings differ by
        slots = {}
        for started in sorted(times[board]):
            slots.setdefault(int((started - phase) // period), (started - phase) % period)
        first = int(-(-(begin - phase) // period))
        late += [slots.get(slot, period) for slot in range(first, int((end - phase) // period) + 1)]
    return sorted(late)


def figureLateness(row, late):
    share = sum(1 for one in late if one <= 1) / len(late)
    figure(row, "runs that begin within 1 s of their time", "%.2f %% of %d, median %.0f ms" %
           (100 * share, len(late), 1000 * statistics.median(late)), ">= 99 %", share >= 0.99)
    figure(row, "the latest", "%.2f s" % late[-1], "<= 5 s", late[-1] <= 5)


class Watch(threading.Thread):
    """Looks at a server's memory and descriptors every half second."""
    def __init__(self, fleet):
        super().__init__(daemon=True)
        self.fleet, self.seen, self.isOver = fleet, [], False
        self.start()

    def run(self):
        while not self.isOver:
            try:
                self.seen.append((time.time(), self.fleet.resident(), self.fleet.descriptors()))
            except (OSError, AttributeError):
                pass
            time.sleep(0.5)

    def most(self, column, begin=0.0, end=float("inf")):
        return max(one[column] for one in self.seen if begin <= one[0] <= end)


# ---- the rows

def schedule(folder):
    row, count, seconds, warm = "schedule", 1000 if QUICK else 10000, 60 if QUICK else 660, 16 if QUICK else 60
    boards = Boards(folder, count, "--dead", "5%", "--trickling", "1%", "--garbage", "1%")
    store = os.path.join(folder, "fleet.db")
    fleet = Fleet(folder, "fleet", configOf(store, boards.config, [(15, "")],
                                            "[label_from]\nfirmware = { item = \"system\", key = 2 }"))
    began, watch = time.time(), Watch(fleet)
    scrapes = []
    while time.time() < began + seconds:
        time.sleep(min(10 if QUICK else 60, began + seconds - time.time()))
        before = time.time()
        scrapes.append((len(fleet.metrics()), time.time() - before))
        say("%s: %.0f MB resident, a scrape of %.1f MB in %.1f s, %.0f %% of a processor" % (
            row, fleet.resident(), scrapes[-1][0] / 1e6, scrapes[-1][1], 100 * fleet.seconds() / (time.time() - began)))
    watch.isOver = True
    ended, used = time.time(), fleet.seconds()
    fleet.end()
    boards.end()
    runs = fleet.runs()
    figureLateness(row, lateness(runs, boards.good, 15, began + warm, ended - 16))
    late = {(board, started): 1 for board, started, *_ in runs}
    assert len(late) == len(runs), "a run is stored twice"
    figure(row, "resident memory", "%.0f MB" % watch.most(1), "<= 200 MB", watch.most(1) <= 200)
    third = (seconds - warm) / 3
    grown = watch.most(1, ended - third) - watch.most(1, began + warm, began + warm + third)
    figure(row, "its growth, %d min" % (seconds // 60), "%.1f MB" % grown, "<= 5 % and 2 MB",
           grown <= 2 + 0.05 * watch.most(1))
    answered = sum(1 for run in runs if run[3] != "no answer")
    size = os.path.getsize(store) / len(runs)
    figure(row, "disk a run, of %d (%d answered)" % (len(runs), answered), "%.0f bytes" % size, "<= 400", size <= 400)
    say("%s: kep-fleet took %.0f %% of a processor" % (row, 100 * used / (ended - began)))


def kills(folder):
    row, times = "kills", 10 if QUICK else 100
    players = Players(folder, 10, 200, "played")
    store = os.path.join(folder, "fleet.db")
    config = configOf(store, players.config(), [(1, "")])
    fleet, isWhole, worst, stored = Fleet(folder, "fleet", config), 0, 0.0, 0
    for _ in range(times):
        began = time.time()
        time.sleep(random.uniform(1.3, 2.5))
        killed = time.time()
        fleet.end(signal.SIGKILL)
        with sqlite3.connect(store) as database:
            isWhole += database.execute("PRAGMA integrity_check").fetchall() == [("ok",)]
            there = set(database.execute("SELECT CAST(b.name AS TEXT), started / 100 FROM runs r JOIN boards b"
                                         " ON b.id = r.board WHERE started > ?", (int(killed * 1000) - 10000,)))
        database.close()
        stored += len(there)
        for one in players.noted():
            tenths = int(one.asked * 10)
            if not one.isWhole or one.asked < began or one.ended > killed:
                continue
            if not any((one.board, tenths + d) in there for d in range(-5, 1)):
                worst = max(worst, killed - one.ended)
        fleet.start()
    fleet.end()
    players.end()
    figure(row, "databases that are whole after SIGKILL", "%d of %d" % (isWhole, times), "all", isWhole == times)
    figure(row, "the oldest run that is missing", "%.2f s" % worst, "<= 1 s", worst <= 1)
    figure(row, "runs at hand", str(stored), ">= 100 a kill", stored >= 100 * times)


ROWS = [schedule, kills]


def run(row):
    folder = tempfile.mkdtemp(prefix="kep-load.")
    try:
        row(folder)
    except Exception:
        figure(row.__name__, "to the end", traceback.format_exc().strip().split("\n")[-1], "no failure", False)
        traceback.print_exc()
    finally:
        shutil.rmtree(folder, ignore_errors=True)


def main():
    most = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (most, most))
    wanted = [name for name in sys.argv[1:] if name != "--quick"]
    if any(name not in [row.__name__ for row in ROWS] for name in wanted):
        sys.exit("usage: fleet-load.sh [--quick] [%s]..." % "|".join(row.__name__ for row in ROWS))
    rows = [row for row in ROWS if not wanted or row.__name__ in wanted]
    for row in rows:
        run(row)
    widths = [max(len(line[i]) for line in figures) for i in range(5)]
    print("\n" + "\n".join("  ".join(cell.ljust(width) for cell, width in zip(line, widths)) for line in
                           [("row", "figure", "measured", "aim", "")] + figures))
    sys.exit(any(line[4] != "ok" for line in figures))


main()
