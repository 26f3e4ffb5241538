"""The local protocol of quorad as bytes, for tests that look at quorad alone. Answers are taken
apart only as far as tests need it."""

import socket
import struct

import nistest

HELLO, FETCH, SEARCH, SEARCH_NEXT = 0, 3, 4, 5
USERS_START, USERS_NEXT, GROUPS_START, GROUPS_NEXT, GROUP = 7, 8, 10, 11, 14
UNIX_ONLY, GROUP_MEMBERSHIP = 1, 2


class Failed(Exception):
    """quorad answered with a failure."""

    def __init__(self, status, text):
        super().__init__("status %d: %s" % (status, text))
        self.status, self.text = status, text


def packed(text):
    data = text.encode() if isinstance(text, str) else text
    return struct.pack(">I", len(data)) + data + b"\0" * (-len(data) % 4)


def listed(texts):
    return struct.pack(">I", len(texts)) + b"".join(packed(one) for one in texts)


class Answer:
    """What follows in an answer."""

    def __init__(self, data):
        self.data, self.at = data, 0

    def number(self):
        self.at += 4
        return int.from_bytes(self.data[self.at - 4:self.at], "big")

    def bytes(self):
        length = self.number()
        value = self.data[self.at:self.at + length]
        self.at += length + -length % 4
        return value

    def list(self):
        return [self.bytes() for _ in range(self.number())]

    def object(self):
        return {self.bytes().decode(): self.list() for _ in range(self.number())}


class Session:
    def __init__(self, timeout=120.0):
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.settimeout(timeout * nistest.SLOW)
        self.socket.connect(nistest.STATE_FOLDER + "/daemon")
        self.call(HELLO, struct.pack(">I", 1))

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.socket.close()

    def _receive(self, size):
        data = bytearray()
        while len(data) < size:
            more = self.socket.recv(min(size - len(data), 1 << 20))
            if not more:
                raise OSError("quorad closed the connection")
            data += more
        return bytes(data)

    def call(self, operation, arguments=b""):
        frame = struct.pack(">I", operation) + arguments
        self.socket.sendall(struct.pack(">I", len(frame)) + frame)
        answer = Answer(self._receive(int.from_bytes(self._receive(4), "big")))
        status = answer.number()
        if status != 0:
            raise Failed(status, answer.bytes().decode(errors="replace"))
        answer.number()  # the operation once more
        return answer

    def fetch(self, domain, dn, attributes=()):
        return self.call(FETCH, packed(domain) + packed(dn) + listed(attributes) +
                         struct.pack(">I", 0 if attributes else 1)).object()

    def search(self, domain, base, text_filter, attributes=(), scope=1, decode=True):
        """Yields the objects of each page, or how many there are in it."""
        answer = self.call(SEARCH, packed(domain) + packed(text_filter) + packed(base) +
                           listed(attributes) +
                           struct.pack(">iII", scope, 0, 0 if attributes else 1))
        while True:
            cursor, count = answer.number(), answer.number()
            yield [answer.object() for _ in range(count)] if decode else count
            if cursor == 0:
                return
            answer = self.call(SEARCH_NEXT, struct.pack(">I", cursor))

    def users(self):
        """How many users an enumeration delivers."""
        self.call(USERS_START, struct.pack(">I", UNIX_ONLY))
        total, more = 0, True
        while more:
            answer = self.call(USERS_NEXT)
            more = answer.number() != 0
            total += answer.number()
        return total

    def groups(self, flags=UNIX_ONLY | GROUP_MEMBERSHIP):
        """Yields (name, members); a large group comes in several pieces."""
        self.call(GROUPS_START, struct.pack(">I", flags))
        more = True
        while more:
            answer = self.call(GROUPS_NEXT)
            more = answer.number() != 0
            for _ in range(answer.number()):
                name, _, members, _ = (answer.bytes(), answer.number(), answer.list(),
                                       answer.number())
                yield name, members

    def group(self, name):
        answer = self.call(GROUP, packed(name))
        return answer.bytes(), answer.number(), answer.list()
