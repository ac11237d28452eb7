"""board_vm [--check [--full]]: run by board-vm.sh, which tells what for.

In the demo qemu passes on what goes between the board and this host, and nothing of the host is touched. The checks
have a wire of their own, each with a board of its own at its end.
"""
import concurrent.futures
import functools
import multiprocessing
import os
import shlex
import shutil
import socket
import subprocess
import sys
import time
import traceback

from figures import figure, figures, figureSpan, printTable
from machine import TCP, UDP, Board, Wire
from server import Server

FULL = "--full" in sys.argv
NAMES = os.path.abspath("examples/board/board.toml")
WORK = "build/board-vm"


# ---- the demo

def demo():
    width = shutil.get_terminal_size((120, 25)).columns
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as one:
        one.bind(("127.0.0.1", 0))
        port = one.getsockname()[1]

    def show(command):
        print("\n== " + command.replace(NAMES, os.path.relpath(NAMES, "../..")), flush=True)
        folder = "tools/tools/" + shlex.split(command)[0] + "/"
        subprocess.run(shlex.split(folder + command), check=True)

    print("\n== booting Linux with kep-board on it", flush=True)
    board = Board("demo", "10.0.2.15", "user,hostfwd=udp:127.0.0.1:%d-:9099" % port)
    pid = board.serve("/bin/kep-board")
    for file in ("/proc/version", "/proc/cpuinfo"):
        print("\n".join(line[:width] for line in board.read(file).decode().splitlines()))
    print("up after %.1f s" % board.seconds)
    for request in ("--type 0", "--type 1", "--selftest", "--type 2"):
        show("kep-collect 127.0.0.1 --port %d --names %s --width %d --cut %s" % (port, NAMES, width, request))
    with open("kep.log", "wb") as out:
        out.write(board.read("/tmp/kep.log"))
    show("kep-faultlog kep.log --names %s --type register" % NAMES)
    print("\n== memory: kep-board has %d KiB resident; %d of the board's %d KiB are left" % (
        board.number("/proc/%d/status" % pid, "VmRSS:"), board.number("/proc/meminfo", "MemAvailable:"),
        board.number("/proc/meminfo", "MemTotal:")))


# ---- a server that vanishes

UNLIMITED = "/bin/host 0 0 0"

# How often the board's system tries. How long that holds its host, in seconds, with these settings, and with its own.
PATIENCE = {"tcp_syn_retries": 1, "tcp_retries2": 3}
HELD = {"before": ((2.5, 6), (120, 145)), "next": ((2, 12), (850, 1200))}
NEVER = 20, 1260  # well above either


class Bench:
    """A board that serves `program`, and two servers on its wire, of which `lost` can be cut off."""
    def __init__(self, number, program):
        self.wire = wire = Wire(number)
        end = wire.cardEnd.fileno()
        self.board = Board("check-%d" % number, wire.board, "dgram,local.type=fd,local.str=%d" % end, [end])
        self.near, self.lost = Server(wire.nearServer, wire.board), Server(wire.lostServer, wire.board)
        self.pid = self.board.serve(program)

    def lowerPatience(self):
        for name, value in PATIENCE.items():
            self.board.tell("set /proc/sys/net/ipv4/%s %d" % (name, value))

    def vanish(self, phase, neighbour=False):
        """The second server asks for a run, and is gone: before the connection; when it has acknowledged a message,
        before the next; or when it has got one, and not acknowledged it."""
        self.lost.collect()  # the two know each other's addresses from then on
        if phase == "before":
            self.wire.lose(UDP, neighbour)
            self.lost.ask()
        else:
            self.lost.ask()
            self.run = run = self.lost.accept()
            run.message()
            run.acknowledge()
            run.message()
            if phase == "next":
                self.wire.lose(TCP, neighbour)
            else:
                time.sleep(0.5)  # until TCP itself has acknowledged the message
                self.wire.lose(None, neighbour)
            run.acknowledge()
        assert self.wire.isGone.wait(10), "nothing has passed"


def figureQueue(row, bench, count, first):
    """That the requests which came meanwhile are worked off, the first of which has begun a run."""
    runs = [first.finish()] + [bench.near.accept().finish() for _ in range(count - 1)]
    figure(row, "of %d requests that came meanwhile, served then" % count, str(sum(runs)), "all", all(runs))
    counters = bench.near.collect().counters()
    figure(row, "runs finished, and failed", "%d, %d" % tuple(counters[3:5]), "%d, 1" % (count + 1),
           counters[3:5] == [count + 1, 1])


def vanishing(row, number, phase, held=None, neighbour=False):
    """How long a board without limits is held by a server that vanishes; with no bounds for that, for ever."""
    bench, count = Bench(number, UNLIMITED), 20
    if not FULL:
        bench.lowerPatience()
    bench.vanish(phase, neighbour)
    began = time.monotonic()
    for _ in range(count):
        bench.near.ask()
    try:
        first = bench.near.accept(held[1] + 60 if held else NEVER[FULL])
    except TimeoutError:
        first = None
    seconds = time.monotonic() - began
    figure(row, "packets lost", str(bench.wire.dropped), ">= 1", bench.wire.dropped >= 1)
    if held:
        figureSpan(row, "the board is held", seconds, *held)
        if first:
            figureQueue(row, bench, count, first)
    else:
        figure(row, "the board is held", "more than %.0f s" % seconds, "for ever", first is None)
        began = time.monotonic()
        status = bench.board.tell("end")
        figureSpan(row, "Collect_Stop ends that, with status %s" % status, time.monotonic() - began, 0, 1)
        bench.board.serve(UNLIMITED)
        isWhole = bench.near.collect().isWhole()
        figure(row, "a host that starts anew serves", str(isWhole), "True", isWhole)


def limited(row, number):
    """The same with limits."""
    bench = Bench(number, "/bin/host 2000 2000 3000")
    for phase, limit in (("before", 2), ("next", 3), ("acknowledgement", 3)):
        bench.vanish(phase)
        began = time.monotonic()
        bench.near.ask()
        run = bench.near.accept()
        figureSpan(row, "the board is held, " + phase, time.monotonic() - began, limit - 1, limit + 1.5)
        run.finish()
        bench.wire.restore()
    counters = bench.near.collect().counters()
    figure(row, "runs finished, and failed", "%d, %d" % tuple(counters[3:5]), "6, 3", counters[3:5] == [6, 3])


def queue(row, number):
    """How many requests the system keeps while the board is held."""
    bench, count = Bench(number, "/bin/host 3000 3000 3000"), 2000
    bench.vanish("before")
    for i in range(count):
        bench.near.ask()
        time.sleep(0.0005)
    served = 0
    try:
        while bench.near.accept(8).finish():
            served += 1
    except TimeoutError:
        pass
    figure(row, "of %d requests while the board is held, served" % count, str(served), "50 to 1000",
           50 <= served <= 1000)


# ---- a link that goes

def gap(row, number):
    bench = Bench(number, UNLIMITED)
    for what in ("a message", "an acknowledgement"):
        bench.lost.ask()
        run = bench.lost.accept()
        for _ in range(3):
            run.message()
            run.acknowledge()
        run.message()
        bench.wire.lose(TCP if what == "a message" else None)
        run.acknowledge()
        began = time.monotonic()
        time.sleep(10)
        bench.wire.restore()
        isWhole = run.finish()
        seconds = time.monotonic() - began
        figure(row, "packets lost, from %s on" % what, str(bench.wire.dropped), ">= 3", bench.wire.dropped >= 3)
        figureSpan(row, "the run goes on, and ends", seconds, 10, 30)
        figure(row, "it comes whole", str(isWhole), "True", isWhole)
    counters = bench.near.collect().counters()
    figure(row, "runs finished, and failed", "%d, %d" % tuple(counters[3:5]), "2, 0", counters[3:5] == [2, 0])


# ---- a server that closes

def closing(row, number):
    """Instead of acknowledging message k; then how much the board has sent is told by the next run's numbers."""
    bench = Bench(number, UNLIMITED)
    whole = len(bench.near.collect().messages)
    for delay, least in (0, 1), (0.02, whole // 2):
        bench.wire.delay = delay
        before, through, most, missed = bench.near.collect(), 0, 0, 0
        for k in range(1, whole):
            bench.near.ask()
            run = bench.near.accept()
            for _ in range(k):
                run.message()
                run.acknowledge()
            run.message()
            run.connection.close()
            after = bench.near.collect()
            behind = after.messages[1][1] - before.messages[-1][1] - k - 1
            through += behind == whole - k - 1
            most = max(most, behind)
            was, now = before.counters(), after.counters()
            missed += now[3] - was[3] != 1 or now[4] - was[4] != 1 or now[5] - was[5] != whole + k
            before = after
        name = "%d runs closed after k of %d messages, %d ms of way" % (whole - 1, whole, 1000 * delay)
        figure(row, name + ": gone through to the end", str(through), ">= %d" % least, through >= least)
        figure(row, "most messages behind the close", str(most), ">= 1", most >= 1)
        figure(row, "counted as finished, or its messages wrongly", str(missed), "0", missed == 0)


# ---- thousands of runs

def runs(row, number, program, most):
    """Of every type in turn. Resident memory grows by so many KiB at most."""
    bench, count, first = Bench(number, program), 12000 if FULL else 2000, 500

    def memory():
        return [bench.board.number("/proc/%d/status" % bench.pid, "VmRSS:"),
                bench.board.number("/proc/meminfo", "MemAvailable:")]

    failed, began = 0, time.monotonic()
    for i in range(count):
        if i == first:
            before = memory()
        failed += not bench.near.collect(i % 4).isWhole()
    seconds, after = time.monotonic() - began, memory()
    figure(row, "%d runs, %.1f ms each: failed" % (count, 1000 * seconds / count), str(failed), "0", failed == 0)
    figure(row, "resident after %d and after all" % first, "%d, %d KiB" % (before[0], after[0]),
           "<= %d KiB more" % most, after[0] <= before[0] + most)
    figure(row, "left of 16 MB", "%d, %d KiB" % (before[1], after[1]), "<= %d KiB less" % (most + 256),
           after[1] >= before[1] - most - 256)


ROWS = {
    "runs": functools.partial(runs, program=UNLIMITED, most=16),
    "runs of kep-worker": functools.partial(runs, program="/bin/kep-worker /tmp", most=256),  # its logs still fill
    "before the connection": functools.partial(vanishing, phase="before", held=HELD["before"][FULL]),
    "next message lost": functools.partial(vanishing, phase="next", held=HELD["next"][FULL]),
    "acknowledgement missing": functools.partial(vanishing, phase="acknowledgement"),
    "with limits": limited,
    "queue": queue,
    "link gone for 10 s": gap,
    "closed": closing,
}
if FULL:
    ROWS["neighbour gone"] = functools.partial(vanishing, phase="before", held=(30, 80), neighbour=True)


def run(row):
    """Its figures."""
    figures.clear()
    try:
        ROWS[row](row, list(ROWS).index(row) + 1)
    except Exception:
        figure(row, "to the end", traceback.format_exc().strip().split("\n")[-1], "no failure", False)
        traceback.print_exc()
    Board.endAll()
    return list(figures)


def check():
    """Raises BrokenProcessPool when the process of a row is killed, as where memory is short."""
    fork = multiprocessing.get_context("fork")
    with concurrent.futures.ProcessPoolExecutor(len(ROWS) if FULL else 4, fork) as pool:
        lines = sum(pool.map(run, ROWS), [])
    printTable(lines)
    sys.exit(any(line[4] != "ok" for line in lines))


os.chdir(WORK)
check() if "--check" in sys.argv else demo()
