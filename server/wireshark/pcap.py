#!/usr/bin/env python3
"""Writes bytes that kep-collect --raw kept as a packet capture: what went over the wire, as far as they tell.

  pcap.py CAPTURE RUN...      each RUN with a request, acknowledgements and a connection of its own

Nothing is captured, so no rights are needed. Addresses, ports and times are made up.
"""
import struct
import sys

BOARD, SERVER = b"\x0a\0\0\x02", b"\x0a\0\0\x01"
REQUEST_PORT = 9099
FIN, SYN, PSH, ACK = 1, 2, 8, 16
MOST_BYTES = 65000  # in a packet


def checksum(data):
    data += b"\0" * (len(data) % 2)
    total = sum(struct.unpack(">%dH" % (len(data) // 2), data))
    while total > 0xFFFF:
        total = (total >> 16) + (total & 0xFFFF)
    return total ^ 0xFFFF


class Capture:
    """A pcap file of IP packets, a millisecond apart."""

    def __init__(self, path):
        self._file = open(path, "wb")
        self._file.write(struct.pack(">IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 65535, 101))
        self._count = 0

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self._file.close()

    def _packet(self, protocol, source, target, segment, checksum_at):
        pseudo = source + target + struct.pack(">BBH", 0, protocol, len(segment))
        total = struct.pack(">H", checksum(pseudo + segment))
        segment = segment[:checksum_at] + total + segment[checksum_at + 2 :]
        head = struct.pack(">BBHHHBBH", 0x45, 0, 20 + len(segment), self._count & 0xFFFF, 0x4000, 64, protocol, 0)
        head += source + target
        packet = head[:10] + struct.pack(">H", checksum(head)) + head[12:] + segment
        second, milli = divmod(self._count, 1000)
        self._file.write(struct.pack(">IIII", second, milli * 1000, len(packet), len(packet)) + packet)
        self._count += 1

    def udp(self, source, source_port, target, target_port, payload):
        head = struct.pack(">HHHH", source_port, target_port, 8 + len(payload), 0)
        self._packet(17, source, target, head + payload, 6)

    def tcp(self, source, source_port, target, target_port, sequence, acknowledged, flags, payload=b""):
        ports = struct.pack(">HHII", source_port, target_port, sequence, acknowledged)
        self._packet(6, source, target, ports + struct.pack(">BBHHH", 0x50, flags, 65535, 0, 0) + payload, 16)


class Connection:
    """A board's connection to the server that asked it."""

    def __init__(self, capture, board_port, server_port):
        self._capture = capture
        self._ends = ((BOARD, board_port), (SERVER, server_port))
        self._sent = [0, 0]
        self._send(0, SYN)
        self._send(1, SYN | ACK)
        self._send(0, ACK)

    def _send(self, side, flags, payload=b""):
        ends = self._ends if side == 0 else self._ends[::-1]
        sequence = 1000 * (side + 1) + self._sent[side]
        acknowledged = 1000 * (2 - side) + self._sent[1 - side] if flags & ACK else 0
        self._capture.tcp(*ends[0], *ends[1], sequence, acknowledged, flags, payload)
        self._sent[side] += len(payload) + (1 if flags & (SYN | FIN) else 0)

    def board_sends(self, payload):
        for start in range(0, len(payload), MOST_BYTES):
            self._send(0, PSH | ACK, payload[start : start + MOST_BYTES])

    def server_sends(self, payload):
        self._send(1, PSH | ACK, payload)

    def close(self):
        for side, flags in ((0, FIN | ACK), (1, FIN | ACK), (0, ACK)):
            self._send(side, flags)


def messages_of(stream):
    """The messages of a run; what is no message comes last, as it is."""
    while len(stream) >= 12:
        size = struct.unpack(">i", stream[:4])[0]
        if not 12 <= size <= min(len(stream), 1036):
            break
        yield stream[:size]
        stream = stream[size:]
    if stream:
        yield stream


def request_of(stream, port):
    """A request that fits a run: it has the sequence of the first message, and a self-test has no catalogue."""
    first_two = list(messages_of(stream))[:2]
    sequence = first_two[0][8:12] if first_two and len(first_two[0]) >= 12 else b"\0\0\0\0"
    is_self_test = len(first_two) == 2 and first_two[1][4:8] == b"\0\0\0\2"
    return struct.pack(">II", 16, 3 if is_self_test else 0) + sequence + struct.pack(">I", port)


def write_run(capture, number, stream, portions=lambda message: [message]):
    """Writes a run as number `number` of its capture; `portions` cuts a message into segments."""
    board_port, server_port = 32768 + number, 20000 + number
    capture.udp(SERVER, 40000, BOARD, REQUEST_PORT, request_of(stream, server_port))
    connection = Connection(capture, board_port, server_port)
    for message in messages_of(stream):
        for portion in portions(message):
            connection.board_sends(portion)
        connection.server_sends(b"\0")
    connection.close()


def main(arguments):
    if len(arguments) < 2:
        sys.exit("usage: pcap.py CAPTURE RUN...")
    with Capture(arguments[0]) as capture:
        for number, path in enumerate(arguments[1:]):
            with open(path, "rb") as run:
                write_run(capture, number, run.read())


if __name__ == "__main__":
    main(sys.argv[1:])
