"""server.py: a collection server that does what no good one does: it falls silent, and closes where it likes."""
import socket
import struct

IDENTITY, CATALOGUE, DATA = range(3)


class Server:
    """At one address, asking one board."""
    def __init__(self, address, board):
        self.board, self.sequence = board, 0
        self.listener = socket.create_server((address, 0), backlog=1000)
        self.asking = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.asking.bind((address, 0))

    def ask(self, kind=0):
        self.sequence += 1
        port = self.listener.getsockname()[1]
        self.asking.sendto(struct.pack(">IIII", 16, kind, self.sequence, port), (self.board, 9099))

    def accept(self, seconds=10.0):
        """The next run that the board begins; raises TimeoutError."""
        self.listener.settimeout(seconds)
        return Run(self.listener.accept()[0])

    def collect(self, kind=0):
        """A run from its request to its end."""
        self.ask(kind)
        run = self.accept()
        run.finish()
        return run


class Run:
    """One connection. Has the messages that came, as (type, sequence, payload)."""
    def __init__(self, connection, patience=60):
        self.connection, self.messages = connection, []
        connection.settimeout(patience)
        connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)

    def receive(self, size):
        """So many bytes, or those that come in front of the end."""
        data = b""
        while len(data) < size and (part := self.connection.recv(size - len(data))):
            data += part
        return data

    def message(self):
        """The next message, or None behind the last one."""
        head = self.receive(12)
        if len(head) < 12:
            return None
        size, kind, sequence = struct.unpack(">III", head)
        self.messages.append((kind, sequence, self.receive(size - 12)))
        return self.messages[-1]

    def acknowledge(self):
        self.connection.send(b"k")

    def finish(self):
        """Acknowledges all that comes; returns whether that is a whole run."""
        try:
            while self.message():
                self.acknowledge()
        except OSError:
            return False
        finally:
            self.connection.close()
        return self.isWhole()

    def isWhole(self):
        return len(self.messages) > 2 and self.messages[0][0] == IDENTITY and self.messages[-1][::2] == (DATA, b"")

    def counters(self):
        """What the first item of host.c reports, in the order of CollectStats."""
        first = next(payload for kind, _, payload in self.messages if kind == DATA)
        return [struct.unpack_from(">i", first, 17 * i + 13)[0] for i in range(6)]
