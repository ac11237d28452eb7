"""played.py: boards that know what became of their runs, played by a process of their own."""
import asyncio
import collections
import os
import random
import struct
import time

from parts import Child

# Of a run: its board, the server's port, when the board was asked, when that ended, and whether all was acknowledged.
Noted = collections.namedtuple("Noted", "board port asked ended isWhole")


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


async def untilOver(back, seconds):
    """A pause that fails as soon as the server breaks the run off: a board that noticed it only with its next message
    would take for under way what is over, and another server may ask by then."""
    try:
        await asyncio.wait_for(back.readexactly(1), seconds)
    except asyncio.TimeoutError:
        pass


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
                    if self.isSlow:
                        await untilOver(back, 0.5)
                isWhole = 1
        except (OSError, EOFError, asyncio.TimeoutError):
            pass
        self.log.write("%s %d %.4f %.4f %d\n" % (self.name, request[3], asked, time.time(), isWhole))
        if out:
            out.close()


class Players(Child):
    """So many boards, every fifth of them slow if `slow`, at 127.77.<net>.1 and on."""
    def __init__(self, folder, net, count, name, slow=False, hostile=False):
        self.path = os.path.join(folder, name + ".log")
        self.names = ["%s-%04d" % (name, i) for i in range(count)]
        self.hosts = ["127.77.%d.%d" % (net + i // 250, i % 250 + 1) for i in range(count)]
        self.plays = name
        open(self.path, "w").close()
        super().__init__(lambda: self.play(slow, hostile))

    async def play(self, slow, hostile):
        log = open(self.path, "a", buffering=1)
        for i, (name, host) in enumerate(zip(self.names, self.hosts)):
            make = lambda name=name, isSlow=slow and i % 5 == 0: Player(name, log, isSlow, hostile)
            await asyncio.get_running_loop().create_datagram_endpoint(make, local_addr=(host, 9099))
        while os.getppid() > 1:
            await asyncio.sleep(1)

    def config(self):
        board = '[[board]]\nname = "%s"\nhost = "%s:9099"\nlabels = { plays = "%s" }\n'
        return "".join(board % (name, host, self.plays) for name, host in zip(self.names, self.hosts))

    def noted(self):
        """Complete lines, in the order in which runs ended."""
        with open(self.path) as log:
            lines = log.read().split("\n")[:-1]
        return [Noted(board, int(port), float(asked), float(ended), whole == "1")
                for board, port, asked, ended, whole in (line.split() for line in lines)]
