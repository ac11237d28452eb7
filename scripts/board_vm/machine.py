"""machine.py: the emulated board: its machine, its console, and the wire between it and this host."""
import collections
import fcntl
import os
import queue
import select
import socket
import struct
import subprocess
import threading
import time

KERNEL = "kernel/vmlinux"
ARP, IP, UDP, TCP = 0x0806, 0x0800, 17, 6
TUNSETIFF, IFF_TAP, IFF_NO_PI = 0x400454CA, 0x0002, 0x1000


class Wire(threading.Thread):
    """Carries frames between a device of this network namespace, which has the addresses of two servers, and the end
    that the board's card is given. Loses those of the second server when it is told to."""
    def __init__(self, number):
        super().__init__(daemon=True)
        self.nearServer, self.lostServer, self.board = ("10.0.%d.%d" % (number, host) for host in (2, 3, 15))
        self.delay = 0.0  # on the way to the board, in seconds
        self.loses, self.lastOf = (), None
        self.isGone, self.dropped = threading.Event(), 0
        self.lost = socket.inet_aton(self.lostServer)
        name = "board%d" % number
        self.device = os.open("/dev/net/tun", os.O_RDWR)
        fcntl.ioctl(self.device, TUNSETIFF, struct.pack("16sH22x", name.encode(), IFF_TAP | IFF_NO_PI))
        for command in ("addr add %s/24 dev %s" % (self.nearServer, name),
                        "addr add %s/24 dev %s" % (self.lostServer, name), "link set %s up" % name):
            subprocess.run(["ip", *command.split()], check=True)
        self.card, self.cardEnd = socket.socketpair(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.start()

    def lose(self, after=None, neighbour=False):
        """From now on; or, with UDP or TCP for `after`, once more of that has passed to the board. Unless its
        `neighbour` is gone too, as on the same wire, its address can be resolved: a router lives that it is behind."""
        self.loses, self.dropped = (IP, ARP) if neighbour else (IP,), 0
        self.lastOf = after
        if not after:
            self.isGone.set()

    def restore(self):
        self.lastOf = None
        self.isGone.clear()

    def isLost(self, frame, isToBoard):
        kind, = struct.unpack_from(">H", frame, 12)
        ends = {IP: (frame[26:30], frame[30:34]), ARP: (frame[28:32], frame[38:42])}.get(kind, ())
        if self.lost not in ends:
            return False
        if self.isGone.is_set():
            return kind in self.loses
        if isToBoard and kind == IP and frame[23] == self.lastOf and hasContent(frame):
            self.isGone.set()
        return False

    def run(self):
        waiting = collections.deque()  # frames to the board, behind when they are due
        while True:
            pause = max(0, waiting[0][0] - time.monotonic()) if waiting else None
            for one in select.select([self.device, self.card], [], [], pause)[0]:
                isToBoard = one is self.device
                frame = os.read(one, 2048) if isToBoard else one.recv(2048)
                if self.isLost(frame, isToBoard):
                    self.dropped += 1
                elif isToBoard:
                    waiting.append((time.monotonic() + self.delay, frame))
                else:
                    os.write(self.device, frame)
            while waiting and waiting[0][0] <= time.monotonic():
                try:
                    self.card.send(waiting.popleft()[1], socket.MSG_DONTWAIT)
                except BlockingIOError:
                    pass  # the board is not up yet, or full


def hasContent(frame):
    """Whether a packet is more than its heads, as an acknowledgement of TCP's own is not."""
    size, = struct.unpack_from(">H", frame, 16)
    head = 14 + 4 * (frame[14] & 15)
    return 14 + size > head + (8 if frame[23] == UDP else 4 * (frame[head + 12] >> 4))


class Board:
    """Ends with this process, or with `endAll`. What its console says is in NAME.txt, but for answers. At the card's
    other end is what qemu calls a netdev, which may use a socket of this process."""
    running = []  # qemu's processes

    @classmethod
    def endAll(cls):
        while cls.running:
            cls.running.pop().kill()

    def __init__(self, name, address, netdev, sockets=()):
        net = address.rsplit(".", 1)[0]
        self.answers, began = queue.Queue(), time.monotonic()
        self.process = subprocess.Popen(
            ["setpriv", "--pdeathsig", "KILL", "qemu-system-ppc", "-M", "ppce500", "-cpu", "e500mc", "-m", "64",
             "-display", "none", "-no-reboot", "-kernel", KERNEL, "-append", "console=ttyS0 quiet panic=-1 mem=16M "
             "ip=%s::%s.2:255.255.255.0::eth0:off" % (address, net), "-netdev", netdev + ",id=wire",
             "-device", "virtio-net-pci,netdev=wire,romfile=", "-monitor", "none", "-serial", "stdio"],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, pass_fds=sockets)
        self.running.append(self.process)
        threading.Thread(target=self.listen, args=(name + ".txt",), daemon=True).start()
        assert self.answer(60) == "up"
        self.seconds = time.monotonic() - began

    def listen(self, path):
        """Reads all that the console says: one that nobody reads blocks who writes there."""
        with open(path, "w") as out:
            for line in self.process.stdout:
                line = line.decode(errors="replace").rstrip()
                if line.startswith("init: "):
                    self.answers.put(line[6:])
                else:
                    print(line, file=out, flush=True)
        self.answers.put("error 5")  # the machine has ended

    def answer(self, seconds=10):
        try:
            answer = self.answers.get(timeout=seconds)
        except queue.Empty:
            raise TimeoutError("the board's console is silent") from None
        if answer.startswith("error "):
            raise OSError(int(answer[6:]), "on the board")
        return answer

    def tell(self, command):
        """One of init.c's."""
        self.process.stdin.write(command.encode() + b"\n")
        self.process.stdin.flush()
        return self.answer()

    def read(self, path):
        return bytes.fromhex(self.tell("get " + path))

    def number(self, path, name):
        """Behind the name in the file."""
        words = self.read(path).decode().split()
        return int(words[words.index(name) + 1])

    def serve(self, program):
        """Starts it, and waits until it has the port."""
        pid = int(self.tell("run " + program))
        waitFor(lambda: b":238B " in self.read("/proc/net/udp"), 10, program)
        return pid


def waitFor(condition, seconds, what):
    end = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > end:
            raise RuntimeError("waited in vain for " + what)
        time.sleep(0.05)
