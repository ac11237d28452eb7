"""parts.py: the processes that take part: boards, servers, a database and the way to it, and what floods a port."""
import asyncio
import csv
import datetime
import os
import re
import signal
import socket
import subprocess
import threading
import time
import urllib.request

BUILD = os.environ.get("KEP_BUILD", "build/release")
NAMES = os.path.abspath("examples/fleet/board.toml")


started = []  # whatever has an end()


def endAll():
    """Of what a row that failed has left."""
    for each in reversed(started):
        try:
            each.end()
        except OSError:
            pass


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


class Child:
    """A process of this program, for what would hold up the rest of it."""
    def __init__(self, work):
        started.append(self)
        self.isOver, self.pid = False, os.fork()
        if self.pid == 0:
            try:
                asyncio.run(work())
            finally:
                os._exit(1)

    def send(self, number):
        os.kill(self.pid, number)

    def end(self):
        if not self.isOver:
            os.kill(self.pid, signal.SIGKILL)
            os.waitpid(self.pid, 0)
        self.isOver = True


class Process:
    def __init__(self, folder, name, command):
        started.append(self)
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
        super().__init__(self.folder, self.name, [BUILD + "/tools/kep-fleet/kep-fleet", "--config", self.path])

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
        with subprocess.Popen([BUILD + "/tools/kep-fleet/kep-fleet", "runs", "--format", "csv", "--config", self.path],
                              stdout=subprocess.PIPE, text=True) as listed:
            return [(row["board"], datetime.datetime.fromisoformat(row["started"][:-1] + "+00:00").timestamp(),
                     int(row["duration_ms"]) / 1000, row["outcome"]) for row in csv.DictReader(listed.stdout)]


def configOf(store, boards, polls, more="", limits=""):
    polls = "".join('[[poll]]\ntype = 0\nevery = "%gs"\n%s\n' % (every, "labels = { plays = \"%s\" }" % plays
                                                                   if plays else "") for every, plays in polls)
    return 'store = "%s"\n%s\n[limits]\n%s\n[log]\nlevel = "info"\n%s%s' % (store, more, limits, polls, boards)


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


class Postgres:
    """A private server; `folder` has its socket."""
    def __init__(self):
        started.append(self)
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


class Relay(Child):
    """The way of one instance to the database, in a process of its own, which can be stopped."""
    SOCKET = ".s.PGSQL.5432"

    def __init__(self, folder, database):
        self.folder, self.database = folder, database
        super().__init__(self.work)
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

    child = Child(all)
    os.waitpid(child.pid, 0)
    child.isOver = True
