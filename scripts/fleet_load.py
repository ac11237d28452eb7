"""fleet_load.py [--quick] [ROW...]: run by fleet-load.sh, which tells what for.

Two kinds of boards are asked. Those of kep-boards are served by the library; what became of their runs, the store says.
The others are played here, in a process of their own that notes every request and how its run ended: what a store
lacks, what was asked twice at a time and what came late, they know by themselves.
"""
import asyncio
import collections
import csv
import datetime
import multiprocessing
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
    def __init__(self, folder, net, count, *options):
        path = os.path.join(folder, "boards.toml")
        super().__init__(folder, "boards", [BUILD + "/examples/kep-boards", str(count), "--first", "127.%d.0.1" % net,
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
    row, count, seconds, warm = "schedule", 1000 if QUICK else 10000, 50 if QUICK else 660, 16 if QUICK else 60
    boards = Boards(folder, 78, count, "--dead", "5%", "--trickling", "1%", "--garbage", "1%")
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
                                         " ON b.id = r.board WHERE started > ?", (int(began * 1000),)))
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


class Postgres:
    """A private server; `folder` has its socket."""
    def __init__(self):
        self.process = subprocess.Popen(["tests/fleet/postgres.sh"], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                        text=True)
        self.folder = self.process.stdout.readline().strip()

    def tell(self, word):
        self.process.stdin.write(word + "\n")
        self.process.stdin.flush()
        self.process.stdout.readline()

    def end(self):
        self.process.stdin.close()
        self.process.wait()


class Relay:
    """The way of one instance to the database, in a process of its own, which can be stopped."""
    SOCKET = ".s.PGSQL.5432"

    def __init__(self, folder, database):
        self.folder, self.database = folder, database
        self.pid = os.fork()
        if self.pid == 0:
            try:
                asyncio.run(self.work())
            finally:
                os._exit(1)
        waitFor(lambda: os.path.exists(os.path.join(folder, self.SOCKET)), 10, "the relay")

    async def work(self):
        async def pass_on(back, out):
            while piece := await back.read(65536):
                out.write(piece)
                await out.drain()
            out.close()

        async def relay(back, out):
            try:
                other, far = await asyncio.open_unix_connection(os.path.join(self.database, self.SOCKET))
                await asyncio.gather(pass_on(back, far), pass_on(other, out))
            except OSError:
                out.close()

        server = await asyncio.start_unix_server(relay, os.path.join(self.folder, self.SOCKET))
        await server.serve_forever()

    def send(self, number):
        os.kill(self.pid, number)

    def end(self):
        os.kill(self.pid, signal.SIGKILL)
        os.waitpid(self.pid, 0)


def shared(folder, name, players, host, lease, period):
    return Fleet(folder, name, configOf("postgresql:///postgres?user=kep&host=" + host, players.config(),
                                        [(period, "")], 'lease = "%ds"\ninstance = "%s"' % (lease, name)))


def atATime(noted):
    """Runs that began while another of their board was under way, as the boards saw it."""
    ends, count = {}, 0
    for one in sorted(noted, key=lambda one: one.asked):
        count += one.asked < ends.get(one.board, 0) - 0.05
        ends[one.board] = max(one.ended, ends.get(one.board, 0))
    return count


def figureStored(row, noted, runs):
    """What is stored: of each board one run after the other."""
    ends, twice = {}, 0
    for board, started, seconds, _ in sorted(runs, key=lambda run: run[1]):
        twice += started < ends.get(board, 0) - 0.002
        ends[board] = max(started + seconds, ends.get(board, 0))
    figure(row, "two runs of a board at a time", "%d of %d" % (atATime(noted), len(noted)), "0", atATime(noted) == 0)
    figure(row, "stored twice, or beside another", "%d of %d" % (twice, len(runs)), "0", twice == 0)


def figureLost(row, noted, runs):
    times = collections.defaultdict(list)
    for board, started, *_ in runs:
        times[board].append(started)
    lost = sum(not any(-0.01 <= one.asked - time < 1 for time in times[one.board]) for one in noted if one.isWhole)
    figure(row, "runs that are lost", "%d of %d" % (lost, len(noted)), "0", lost == 0)


def leases(folder):
    row, count, lease, period = "leases", 100 if QUICK else 300, 6 if QUICK else 15, 5 if QUICK else 15
    database, players = Postgres(), Players(folder, 20, count, "played", slow=True)
    relay = Relay(folder, database.folder)
    one, two, three = (shared(folder, name, players, host, lease, period) for name, host in
                       (("one", database.folder), ("two", folder), ("three", database.folder)))

    def heldBy(fleet, when):
        last = {run.board: run.port for run in players.noted() if run.asked < when}
        return {board for board, port in last.items() if port == fleet.port}

    def againBy(fleets, boards, since):
        """How long it took until one of the servers asked the last of the boards."""
        ports, first = [fleet.port for fleet in fleets], {}
        for run in players.noted():
            if run.asked > since and run.port in ports:
                first[run.board] = min(run.asked, first.get(run.board, run.asked))
        return max((first.get(board, float("inf")) for board in boards), default=float("inf")) - since

    time.sleep(lease + 1.2 * period)
    shares = sorted(len(heldBy(fleet, time.time())) for fleet in (one, two, three))
    figure(row, "boards of each of three", str(shares), "all have some", shares[0] >= count / 6)

    stopped, held = time.time(), heldBy(three, time.time())
    three.process.send_signal(signal.SIGSTOP)
    time.sleep(lease + period)
    before = set(one.runs())
    three.process.send_signal(signal.SIGCONT)
    time.sleep(lease + 4)
    late = [run for run in set(one.runs()) - before if run[1] < stopped and run[0] in held]
    again = againBy((one, two), held, stopped)
    figure(row, "one suspended: its %d boards asked by others" % len(held), "within %.1f s" % again,
           "<= %d s" % (lease + period), again <= lease + period)
    figure(row, "what it stores of its old lease", str(len(late)), "0", not late)

    cut, held = time.time(), set(players.names) - heldBy(three, time.time())
    one.end(signal.SIGKILL)
    relay.send(signal.SIGSTOP)
    time.sleep(lease + period + 4)
    again = againBy((three,), held, cut)
    last = max(run.asked for run in players.noted() if run.port == two.port) - cut
    figure(row, "one killed, one cut off: their %d asked by the third" % len(held), "within %.1f s" % again,
           "<= %d s" % (lease + period), again <= lease + period)
    figure(row, "the one cut off asks nobody after", "%.1f s" % last, "<= %d s" % lease, last <= lease)
    relay.send(signal.SIGCONT)
    time.sleep(lease + 4)
    figure(row, "back again, it has boards", str(len(heldBy(two, time.time()))), ">= a third",
           len(heldBy(two, time.time())) >= count // 3)
    for fleet in (two, three):
        fleet.end()
    time.sleep(3)
    runs, noted = three.runs(), players.noted()
    figureStored(row, noted, runs)
    for each in (players, relay, database):
        each.end()


def outage(folder):
    row, count, period, seconds = "outage", 100 if QUICK else 1000, 5, 4 if QUICK else 10
    database, players = Postgres(), Players(folder, 30, count, "played")
    fleets = [shared(folder, name, players, database.folder, 30, period) for name in ("one", "two")]
    time.sleep(25 if QUICK else 40)  # until both have their share
    began = time.time()
    database.tell("stop")
    time.sleep(seconds)
    database.tell("start")
    time.sleep(8 if QUICK else 20)
    ended = time.time()
    for fleet in fleets:
        fleet.end()
    time.sleep(0.5)
    noted, runs = players.noted(), fleets[0].runs()
    late = lateness([(one.board, one.asked) for one in noted], players.names, period, began - 5, ended - 2)
    figureStored(row, noted, runs)
    figureLost(row, [one for one in noted if one.ended < ended - 0.2], runs)
    figureLateness(row, late)
    for each in (players, database):
        each.end()


def flood(port, count, seconds):
    """Connections that say nothing, each opened again when it is closed. Runs in a process of its own."""
    async def one():
        while True:
            try:
                back, out = await asyncio.open_connection("127.0.0.1", port)
                await back.read()
                out.close()
            except OSError:
                await asyncio.sleep(0.1)
            await asyncio.sleep(1)

    async def all():
        connections = [asyncio.ensure_future(one()) for _ in range(count)]
        await asyncio.wait(connections, timeout=seconds)
        os._exit(0)

    pid = os.fork()
    if pid == 0:
        try:
            asyncio.run(all())
        finally:
            os._exit(1)
    os.waitpid(pid, 0)


def hostile(folder):
    row, period, wanted, connections = "hostile", 5, 1000 if QUICK else 10000, 1000 if QUICK else 10000
    boards = Boards(folder, 79, 100 if QUICK else 500)
    players = Players(folder, 40, 50 if QUICK else 100, "hostile", hostile=True)
    fleet = Fleet(folder, "fleet", configOf(
        os.path.join(folder, "fleet.db"), boards.config + players.config(), [(period, "good"), (1, "hostile")],
        limits='connect = "2s"\nsilence = "3s"\npause = "2s"'))
    time.sleep(10)
    watch, began = Watch(fleet), time.time()
    waitFor(lambda: len(players.noted()) >= wanted, 300, "hostile runs")
    flooded = time.time()
    flood(fleet.port, connections, 12 if QUICK else 30)
    over = time.time()
    time.sleep(8)
    ended, watch.isOver = time.time(), True
    assert fleet.process.poll() is None, "kep-fleet has ended"
    strangers = int(re.search(rb"(?m)^kep_fleet_\w*stranger\w* (\d+)", fleet.metrics() + b"\nkep_fleet_strangers 0").group(1))
    fleet.end()
    boards.end()
    players.end()
    runs = fleet.runs()
    good = [run for run in runs if run[0] in set(boards.good)]
    outcomes = collections.Counter(run[3] for run in runs if run[0] in set(players.names))
    say("%s: mutated runs: %s; %d strangers" % (row, dict(outcomes), strangers))
    figure(row, "mutated runs", str(len(players.noted())), ">= %d" % wanted, len(players.noted()) >= wanted)
    figureLateness(row, lateness(good, boards.good, period, began, ended - 2))
    whole = sum(run[3] == "whole" for run in good if began < run[1] < ended - 2)
    figure(row, "runs of the others that come whole", "%d of %d" % (whole, sum(began < run[1] < ended - 2 for run in good)),
           "all", whole == sum(began < run[1] < ended - 2 for run in good))
    before, during, after = (watch.most(2, *times) for times in
                             ((began, flooded), (flooded, over), (over + 6, ended)))
    figure(row, "descriptors before, in and after a flood", "%d, %d, %d" % (before, during, after), "<= 1024 more",
           during <= before + 1024 and after <= before)
    grown = watch.most(1) - watch.most(1, began, began + 5)
    figure(row, "growth of memory", "%.1f MB" % grown, "<= 16 MB", grown <= 16)


ROWS = [schedule, leases, outage, kills, hostile]


def run(row):
    """Its figures."""
    folder = tempfile.mkdtemp(prefix="kep-load.")
    os.chmod(folder, 0o755)  # a database's user passes
    try:
        row(folder)
    except Exception:
        figure(row.__name__, "to the end", traceback.format_exc().strip().split("\n")[-1], "no failure", False)
        traceback.print_exc()
    finally:
        shutil.rmtree(folder, ignore_errors=True)
    return figures


def main():
    most = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (most, most))
    wanted = [name for name in sys.argv[1:] if name != "--quick"]
    if any(name not in [row.__name__ for row in ROWS] for name in wanted):
        sys.exit("usage: fleet-load.sh [--quick] [%s]..." % "|".join(row.__name__ for row in ROWS))
    rows = [row for row in ROWS if not wanted or row.__name__ in wanted]
    with multiprocessing.Pool(2 if QUICK else 1, maxtasksperchild=1) as pool:
        figures = [line for lines in pool.map(run, rows, chunksize=1) for line in lines]
    widths = [max(len(line[i]) for line in figures) for i in range(5)]
    print("\n" + "\n".join("  ".join(cell.ljust(width) for cell, width in zip(line, widths)) for line in
                           [("row", "figure", "measured", "aim", "")] + figures))
    sys.exit(any(line[4] != "ok" for line in figures))


main()
