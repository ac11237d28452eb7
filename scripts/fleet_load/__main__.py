"""fleet_load [--quick] [ROW...]: run by fleet-load.sh, which tells what for.

Two kinds of boards are asked. Those of kep-boards are served by the library; what became of their runs, the store says.
The others are played here, in a process of their own that notes every request and how its run ended: what a store
lacks, what was asked twice at a time and what came late, they know by themselves.
"""
import collections
import multiprocessing
import os
import random
import re
import resource
import shutil
import signal
import sqlite3
import sys
import tempfile
import time
import traceback

from figures import figure, figureLateness, figureLost, figureStored, figures, lateness, say
from parts import Boards, Fleet, Postgres, Relay, Watch, configOf, endAll, flood, waitFor
from played import Players

QUICK = "--quick" in sys.argv


def schedule(folder):
    row, count, seconds, warm = "schedule", 1000 if QUICK else 10000, 46 if QUICK else 660, 16 if QUICK else 60
    boards = Boards(folder, 78, count, "--dead", "5%", "--trickling", "1%", "--garbage", "1%")
    store = os.path.join(folder, "fleet.db")
    fleet = Fleet(folder, "fleet", configOf(store, boards.config, [(15, "")],
                                            "[label_from]\nfirmware = { item = \"system\", key = 2 }"))
    began, watch = time.time(), Watch(fleet)
    while time.time() < began + seconds:
        time.sleep(min(10 if QUICK else 60, began + seconds - time.time()))
        before = time.time()
        size = len(fleet.metrics())
        say("%s: %.0f MB resident, a scrape of %.1f MB in %.1f s, %.0f %% of a processor" % (
            row, fleet.resident(), size / 1e6, time.time() - before, 100 * fleet.seconds() / (time.time() - began)))
    watch.isOver = True
    ended = time.time()
    status, took = fleet.end(), time.time() - ended
    figure(row, "ends by SIGTERM, all stored", "in %.2f s, status %d" % (took, status), "<= 2 s, 0",
           took <= 2 and status == 0)
    boards.end()
    runs = fleet.runs()
    figureLateness(row, lateness(runs, boards.good, 15, began + warm, ended - 16))
    figure(row, "resident memory", "%.0f MB" % watch.most(1), "<= 200 MB", watch.most(1) <= 200)
    third = (seconds - warm) / 3
    grown = watch.most(1, ended - third) - watch.most(1, began + warm, began + warm + third)
    figure(row, "its growth, %d min" % (seconds // 60), "%.1f MB" % grown, "<= 5 % and 2 MB",
           grown <= 2 + 0.05 * watch.most(1))
    answered = sum(1 for run in runs if run[3] != "no answer")
    size = os.path.getsize(store) / len(runs)
    figure(row, "disk a run, of %d (%d answered)" % (len(runs), answered), "%.0f bytes" % size, "<= 400", size <= 400)


def shared(folder, name, players, host, lease, period):
    return Fleet(folder, name, configOf("postgresql:///postgres?user=kep&host=" + host, players.config(),
                                        [(period, "")], 'lease = "%ds"\ninstance = "%s"' % (lease, name)))


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


def hostile(folder):
    row, period, wanted, connections = "hostile", 5, 1000 if QUICK else 10000, 1000 if QUICK else 10000
    boards = Boards(folder, 79, 100 if QUICK else 500)
    players = Players(folder, 40, 50 if QUICK else 100, "hostile", hostile=True)
    fleet = Fleet(folder, "fleet", configOf(
        os.path.join(folder, "fleet.db"), boards.config + players.config(), [(period, "good"), (1, "hostile")],
        limits='connect = "2s"\nsilence = "3s"\npause = "2s"'))
    time.sleep(6)
    watch, began = Watch(fleet), time.time()
    waitFor(lambda: len(players.noted()) >= wanted, 300, "hostile runs")
    flooded = time.time()
    flood(fleet.port, connections, 8 if QUICK else 30)
    over = time.time()
    time.sleep(8)
    ended, watch.isOver = time.time(), True
    assert fleet.process.poll() is None, "kep-fleet has ended"
    strangers = int(re.search(rb"\nkep_fleet_strangers_total (\d+)", fleet.metrics()).group(1))
    fleet.end()
    boards.end()
    players.end()
    runs = fleet.runs()
    good = [run for run in runs if run[0] in set(boards.good)]
    outcomes = collections.Counter(run[3] for run in runs if run[0] in set(players.names))
    say("%s: what came of mutated runs: %s; %d strangers" % (row, dict(outcomes), strangers))
    figure(row, "mutated runs", str(len(players.noted())), ">= %d" % wanted, len(players.noted()) >= wanted)
    figureLateness(row, lateness(good, boards.good, period, began, ended - 2))
    outcomes = [run[3] for run in good if began < run[1] < ended - 2]
    whole = outcomes.count("whole")
    figure(row, "runs of the others that come whole", "%d of %d" % (whole, len(outcomes)), "all",
           whole == len(outcomes))
    before, during, after = (watch.most(2, *times) for times in
                             ((began, flooded), (flooded, over), (over + 6, ended)))
    figure(row, "descriptors before, in and after a flood", "%d, %d, %d" % (before, during, after), "<= 1024 more",
           during <= before + 1024 and after <= before)
    grown = watch.most(1) - watch.most(1, began, began + 5)
    figure(row, "growth of memory", "%.1f MB" % grown, "<= 16 MB", grown <= 16)


ROWS = [schedule, leases, outage, hostile, kills]


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
        endAll()
        shutil.rmtree(folder, ignore_errors=True)
    return figures


def main():
    most = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (most, most))
    wanted = [name for name in sys.argv[1:] if name != "--quick"]
    rows = [row for row in ROWS if not wanted or row.__name__ in wanted]
    with multiprocessing.Pool(2 if QUICK else 1, maxtasksperchild=1) as pool:
        all = [line for lines in pool.map(run, rows, chunksize=1) for line in lines]
    widths = [max(len(line[i]) for line in all) for i in range(5)]
    print("\n" + "\n".join("  ".join(cell.ljust(width) for cell, width in zip(line, widths)) for line in
                           [("row", "figure", "measured", "aim", "")] + all))
    sys.exit(any(line[4] != "ok" for line in all))


main()
