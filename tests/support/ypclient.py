"""A client of the NIS protocol (ONC RPC program 100004, version 2), written for tests.

It speaks XDR by itself, so that a test can say exactly which bytes travel and see exactly which
bytes come back; the real clients are tested separately.
"""

import contextlib
import itertools
import os
import random
import socket
import struct
import time

PMAPPROG, PMAPVERS = 100000, 2
YPPROG, YPVERS = 100004, 2

(NULL, DOMAIN, DOMAIN_NONACK, MATCH, FIRST, NEXT, XFR, CLEAR, ALL, MASTER, ORDER, MAPLIST,
 NEWXFR) = range(13)

YP_TRUE, YP_NOMORE, YP_FALSE = 1, 2, 0
YP_NOMAP, YP_NODOM, YP_NOKEY, YP_YPERR, YP_BADARGS = -1, -2, -3, -6, -7
YPXFR_REFUSED = -14

# accept_stat of a reply (RFC 5531)
SUCCESS, PROG_UNAVAIL, PROG_MISMATCH, PROC_UNAVAIL, GARBAGE_ARGS, SYSTEM_ERR = range(6)

_xids = itertools.count(random.randrange(1, 1 << 30))


class RpcError(Exception):
    """The server answered with something other than a successful reply."""

    def __init__(self, text, accept_stat=None):
        super().__init__(text)
        self.accept_stat = accept_stat


class NoReply(Exception):
    """Nothing came back within the time allowed."""


def as_bytes(value):
    return value.encode() if isinstance(value, str) else bytes(value)


def pack_uint(*values):
    return b"".join(struct.pack(">I", value & 0xFFFFFFFF) for value in values)


def pack_bytes(value):
    value = as_bytes(value)
    return struct.pack(">I", len(value)) + value + b"\0" * (-len(value) % 4)


class Unpacker:
    """Reads XDR values from a byte string."""

    def __init__(self, data):
        self.data = data
        self.position = 0

    def take(self, count):
        piece = self.data[self.position:self.position + count]
        if len(piece) != count:
            raise RpcError("reply ends early at byte %d of %d" % (self.position, len(self.data)))
        self.position += count
        return piece

    def uint(self):
        return struct.unpack(">I", self.take(4))[0]

    def int(self):
        return struct.unpack(">i", self.take(4))[0]

    def bytes(self):
        length = self.uint()
        value = self.take(length)
        self.take(-length % 4)
        return value

    def finish(self):
        if self.position != len(self.data):
            raise RpcError("%d bytes left over in a reply" % (len(self.data) - self.position))


def call_message(program, version, procedure, arguments=b"", xid=None, credentials=None):
    """The bytes of a call with AUTH_NONE, or with the credentials (flavour, body) given."""
    flavour, body = credentials if credentials else (0, b"")
    return (pack_uint(xid if xid is not None else next(_xids), 0, 2, program, version, procedure,
                      flavour) + pack_bytes(body) + pack_uint(0, 0) + arguments)


def check_reply(unpacker, xid):
    """Reads a reply's header; raises unless it accepts the call and reports success."""
    if unpacker.uint() != xid:
        raise RpcError("reply to another call")
    if unpacker.uint() != 1:
        raise RpcError("not a reply")
    if unpacker.uint() != 0:
        raise RpcError("call denied")
    unpacker.uint()
    unpacker.bytes()
    accept_stat = unpacker.uint()
    if accept_stat != SUCCESS:
        raise RpcError("accept_stat %d" % accept_stat, accept_stat)


class Transport:
    """What UDP and TCP have in common: a socket and calls over it."""

    def __init__(self, host, port, timeout):
        self.address = (host, port)
        self.timeout = timeout
        self.socket = None

    def close(self):
        if self.socket is not None:
            self.socket.close()
            self.socket = None

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def call(self, program, version, procedure, arguments=b"", credentials=None):
        """@return an Unpacker that stands on the results"""
        xid = next(_xids)
        message = call_message(program, version, procedure, arguments, xid, credentials)
        unpacker = Unpacker(self.exchange(message, xid))
        check_reply(unpacker, xid)
        return unpacker


class UdpTransport(Transport):
    def __init__(self, host, port, timeout=20.0, attempts=1):
        super().__init__(host, port, timeout)
        self.attempts = attempts
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)

    def exchange(self, message, xid):
        for _ in range(self.attempts):
            self.socket.sendto(message, self.address)
            deadline = time.monotonic() + self.timeout
            while True:
                left = deadline - time.monotonic()
                if left <= 0:
                    break
                self.socket.settimeout(left)
                try:
                    data, sender = self.socket.recvfrom(65536)
                except socket.timeout:
                    break
                if sender == self.address and data[:4] == pack_uint(xid):
                    return data
        raise NoReply("no reply from %s:%d over UDP" % self.address)


class TcpTransport(Transport):
    def __init__(self, host, port, timeout=20.0, fragment=None):
        super().__init__(host, port, timeout)
        self.fragment = fragment  # bytes a fragment; None: one fragment a record
        self.socket = socket.create_connection(self.address, timeout)

    def send_record(self, message):
        size = self.fragment or len(message)
        pieces = [message[i:i + size] for i in range(0, len(message), size)]
        for index, piece in enumerate(pieces):
            last = 0x80000000 if index == len(pieces) - 1 else 0
            self.socket.sendall(pack_uint(last | len(piece)) + piece)

    def read_exactly(self, count):
        chunks, missing = [], count
        while missing:
            try:
                chunk = self.socket.recv(min(missing, 1 << 20))
            except socket.timeout:
                raise NoReply("no reply from %s:%d over TCP" % self.address) from None
            if not chunk:
                raise NoReply("connection closed by %s:%d" % self.address)
            chunks.append(chunk)
            missing -= len(chunk)
        return b"".join(chunks)

    def fragments(self):
        while True:
            mark = struct.unpack(">I", self.read_exactly(4))[0]
            yield self.read_exactly(mark & 0x7FFFFFFF)
            if mark & 0x80000000:
                return

    def exchange(self, message, xid):
        self.send_record(message)
        return b"".join(self.fragments())


class Portmapper:
    """Questions to rpcbind."""

    def __init__(self, host="127.0.0.1"):
        self.host = host

    def _call(self, procedure, arguments=b"", reserved=False):
        with UdpTransport(self.host, 111, timeout=3.0, attempts=3) as transport:
            if reserved:
                for port in range(1023, 600, -1):
                    with contextlib.suppress(OSError):
                        transport.socket.bind(("127.0.0.1", port))
                        break
            return transport.call(PMAPPROG, PMAPVERS, procedure, arguments)

    def port(self, program, version, protocol):
        """@return the port, 0 when the program is not registered"""
        return self._call(3, pack_uint(program, version, protocol, 0)).uint()

    def set(self, program, version, protocol, port):
        return bool(self._call(1, pack_uint(program, version, protocol, port), True).uint())

    def unset(self, program, version):
        return bool(self._call(2, pack_uint(program, version, 0, 0), True).uint())

    def registrations(self):
        """@return a set of (program, version, protocol, port)"""
        reply, found = self._call(4), set()
        while reply.uint():
            found.add((reply.uint(), reply.uint(), reply.uint(), reply.uint()))
        return found


def yp_port(protocol, host="127.0.0.1"):
    """The port at which rpcbind says the NIS server listens ("udp" or "tcp"); 0 if none."""
    return Portmapper(host).port(YPPROG, YPVERS, socket.getprotobyname(protocol))


class YpClient:
    """One client of the NIS server, over UDP or TCP."""

    def __init__(self, domain, protocol="udp", host="127.0.0.1", port=None, timeout=30.0,
                 fragment=None):
        self.domain = domain
        port = port or yp_port(protocol, host)
        if not port:
            raise NoReply("no NIS server registered for %s" % protocol)
        if protocol == "udp":
            self.transport = UdpTransport(host, port, timeout)
        else:
            self.transport = TcpTransport(host, port, timeout, fragment)

    def close(self):
        self.transport.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def call(self, procedure, arguments=b""):
        return self.transport.call(YPPROG, YPVERS, procedure, arguments)

    def _map(self, mapname, *more):
        return pack_bytes(self.domain) + pack_bytes(mapname) + b"".join(map(pack_bytes, more))

    def null(self):
        self.call(NULL).finish()

    def clear(self):
        self.call(CLEAR).finish()

    def is_served(self, domain=None):
        return bool(self.call(DOMAIN, pack_bytes(domain or self.domain)).uint())

    def is_served_nonack(self, domain=None):
        return bool(self.call(DOMAIN_NONACK, pack_bytes(domain or self.domain)).uint())

    def match(self, mapname, key):
        """@return (status, value)"""
        reply = self.call(MATCH, self._map(mapname, key))
        result = reply.int(), reply.bytes()
        reply.finish()
        return result

    def _pair(self, reply):
        status, value, key = reply.int(), reply.bytes(), reply.bytes()
        reply.finish()
        return status, key, value

    def first(self, mapname):
        """@return (status, key, value)"""
        return self._pair(self.call(FIRST, self._map(mapname)))

    def next(self, mapname, key):
        return self._pair(self.call(NEXT, self._map(mapname, key)))

    def walk(self, mapname):
        """Every entry through FIRST and NEXT, as {key: value}."""
        entries = {}
        status, key, value = self.first(mapname)
        while status == YP_TRUE:
            if key in entries:
                raise RpcError("key %r delivered twice" % key)
            entries[key] = value
            status, key, value = self.next(mapname, key)
        if status != YP_NOMORE:
            raise RpcError("walk of %s ended with status %d" % (mapname, status))
        return entries

    def send_all(self, mapname):
        """Asks for a whole map (TCP) and leaves the answer unread."""
        self.transport.send_record(
            call_message(YPPROG, YPVERS, ALL, self._map(mapname)))

    def all_records(self, mapname):
        """The whole-map stream as a list of (more, status, key, value); the end is (False,)."""
        reply = self.call(ALL, self._map(mapname))
        records = []
        while reply.uint():
            status, value, key = reply.int(), reply.bytes(), reply.bytes()
            records.append((True, status, key, value))
            if status != YP_TRUE:
                break
        else:
            records.append((False,))
        reply.finish()
        return records

    def all(self, mapname):
        """A whole map as {key: value}; raises on an error status or a repeated key."""
        entries = {}
        for record in self.all_records(mapname):
            if not record[0]:
                return entries
            _, status, key, value = record
            if status != YP_TRUE:
                raise RpcError("whole map %s: status %d" % (mapname, status))
            if key in entries:
                raise RpcError("key %r delivered twice" % key)
            entries[key] = value
        raise RpcError("whole map %s: no end flag" % mapname)

    def master(self, mapname):
        reply = self.call(MASTER, self._map(mapname))
        return reply.int(), reply.bytes()

    def order(self, mapname):
        reply = self.call(ORDER, self._map(mapname))
        return reply.int(), reply.uint()

    def maplist(self):
        """@return (status, names)"""
        reply = self.call(MAPLIST, pack_bytes(self.domain))
        status, names = reply.int(), []
        while reply.uint():
            names.append(reply.bytes().decode())
        reply.finish()
        return status, names

    def xfr(self, mapname, transid=99):
        """@return (transaction id, status) of a transfer request"""
        arguments = (self._map(mapname) + pack_uint(0) + pack_bytes("peer") +
                     pack_uint(transid, 0x40000000, 1))
        reply = self.call(XFR, arguments)
        return reply.uint(), reply.int()

    def newxfr(self, mapname, transid=99):
        arguments = (self._map(mapname) + pack_uint(0) + pack_bytes("peer") +
                     pack_uint(transid, 0x40000000) + pack_bytes("peer"))
        reply = self.call(NEWXFR, arguments)
        return reply.uint(), reply.int()


def unix_credentials():
    """AUTH_SYS credentials of this process."""
    body = (pack_uint(int(time.time())) + pack_bytes(socket.gethostname()) +
            pack_uint(os.getuid(), os.getgid(), 0))
    return 1, body
