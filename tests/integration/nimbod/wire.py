"""The SMBus proxy daemon's protocol, put together by hand from its description: nothing here is
generated from the schema or shared with the daemon."""

import socket
import struct

READ, WRITE = 0, 1


def varint(value):
    out = bytearray()
    while value > 0x7F:
        out.append(value & 0x7F | 0x80)
        value >>= 7
    out.append(value)
    return bytes(out)


def number_field(number, value):
    return varint(number << 3) + varint(value) if value else b""


def bytes_field(number, value):
    return varint(number << 3 | 2) + varint(len(value)) + value


def fields(message):
    """(number, value) of each field of an encoded message."""
    at = 0

    def take():
        nonlocal at
        value = shift = 0
        while True:
            byte = message[at]
            at += 1
            value |= (byte & 0x7F) << shift
            shift += 7
            if byte < 0x80:
                return value

    while at < len(message):
        key = take()
        value = take()
        if key & 7 == 2:
            value, at = message[at : at + value], at + value
        yield key >> 3, value


def address(bus, device, offset=0, offset_bytes=None, controller=0):
    if offset_bytes is None:
        offset_bytes = 1 if offset <= 0xFF else 2 if offset < 0x10000 else 4
    size = {1: 1, 2: 2, 4: 4}[offset_bytes]
    return offset | device << 32 | bus << 39 | controller << 46 | size << 57


def write(where, data, pci=0, master=2):
    return (number_field(1, WRITE) + number_field(2, master) + number_field(3, where)
            + bytes_field(4, data) + number_field(5, len(data)) + number_field(6, pci))


def read(where, length, pci=0, master=2):
    return (number_field(1, READ) + number_field(2, master) + number_field(3, where)
            + number_field(5, length) + number_field(6, pci))


def frame(xid, requests, kind=1):
    payload = number_field(1, xid) + b"".join(bytes_field(2, one) for one in requests)
    return header(kind, len(payload)) + payload


def header(kind, length):
    return struct.pack("<I", kind | length << 8)


def write_register(bus, device, register, value):
    """The requests by which clients write a 32-bit register behind a 16-bit pointer."""
    data = struct.pack(">BI", register & 0xFF, value)
    return [write(address(bus, device, register >> 8), data)]


def read_register(bus, device, register):
    return [write(address(bus, device, register >> 8), bytes([register & 0xFF])),
            read(address(bus, device), 4)]


class Response:
    def __init__(self, payload):
        self.xid, self.failed, self.error, self.data = 0, False, "", []
        for number, value in fields(payload):
            if number == 1:
                self.xid = value
            elif number == 2:
                self.failed = bool(value)
            elif number == 3:
                self.error = value.decode()
            elif number == 4:
                self.data.append(dict(fields(value)).get(1, b""))


class Client:
    """A connection. Raises EOFError when the daemon closes it, and socket.timeout when nothing
    comes for as long as a loaded machine may take."""

    def __init__(self, path, timeout=60):
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.socket.settimeout(timeout)
        self.socket.connect(path)
        self.latest = 0

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.socket.close()

    def send(self, data):
        self.socket.sendall(data)

    def exactly(self, size):
        data = b""
        while len(data) < size:
            piece = self.socket.recv(size - len(data))
            if not piece:
                raise EOFError
            data += piece
        return data

    def receive(self):
        value = struct.unpack("<I", self.exactly(4))[0]
        assert value & 0xFF == 2, value
        return Response(self.exactly(value >> 8))

    def call(self, requests):
        self.latest += 1
        self.send(frame(self.latest, requests))
        response = self.receive()
        assert response.xid == self.latest
        return response

    def write_register(self, bus, device, register, value):
        response = self.call(write_register(bus, device, register, value))
        assert not response.failed, response.error

    def read_register(self, bus, device, register):
        response = self.call(read_register(bus, device, register))
        assert not response.failed, response.error
        return struct.unpack(">I", response.data[1])[0]

    def is_closed(self):
        """Waits for the daemon to close the connection."""
        try:
            while self.socket.recv(65536):
                pass
            return True
        except ConnectionResetError:
            return True
