"""Clients that send half, never read, never speak or send nonsense; all others are served rightly."""

import os
import random
import resource
import socket
import threading
import time

import nistest
import procinfo
from nistest import wait_for
from ypclient import (ALL, MATCH, YPPROG, YPVERS, RpcError, call_message, pack_bytes, pack_uint,
                      yp_port)

HALF_RECORDS, NON_READERS, IDLE = 200, 200, 1000


class Hostile(nistest.NisTest):
    log_level = "info"

    def setUp(self):
        super().setUp()
        self.entries = {"key%05d" % i: "value %d %s" % (i, "x" * 60) for i in range(20000)}
        self.directory.fill("big", self.entries)
        self.directory.fill("small", {"a": "1", "b": "2"})
        self.sockets = []
        self.addCleanup(self.close_all)

    def close_all(self):
        for one in self.sockets:
            one.close()
        self.sockets = []

    def connect(self):
        one = socket.create_connection(("127.0.0.1", self.tcp), 30)
        self.sockets.append(one)
        return one

    def attempt(self, action):
        """The server may turn a hostile client away at any moment."""
        try:
            action()
        except OSError:
            pass

    # -- hostile kinds, each run in a thread of its own --------------------------------------------

    def half_records(self):
        message = call_message(YPPROG, YPVERS, MATCH, pack_bytes("x"))
        for number in range(HALF_RECORDS):
            data = (pack_uint(0x80000000 | 400) + message)[:number % 40 + 1]
            self.attempt(lambda data=data: self.connect().sendall(data))

    def non_readers(self):
        arguments = pack_bytes(nistest.DOMAIN) + pack_bytes("big")
        message = call_message(YPPROG, YPVERS, ALL, arguments)
        record = pack_uint(0x80000000 | len(message)) + message
        for _ in range(NON_READERS):
            def ask():
                one = self.connect()
                one.sendall(record)
            self.attempt(ask)

    def idle(self):
        for _ in range(IDLE):
            self.attempt(self.connect)

    def nonsense(self):
        source = random.Random(1)
        marks = (0x7FFFFFFF, 0xFFFFFFFF, 0x80000000, 0, 0x80000001, 0x7FFFFFF0)
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
            for number in range(2000):
                length = source.choice((0, 1, 3, 4, 24, 40, 200, 8800, 9000, 40000))
                sender.sendto(source.randbytes(length), ("127.0.0.1", self.udp))
                good = call_message(YPPROG, YPVERS, number % 20, source.randbytes(length % 300))
                sender.sendto(good[:source.randrange(len(good) + 1)], ("127.0.0.1", self.udp))
        for number in range(300):
            def send():
                one = self.connect()
                one.sendall(pack_uint(marks[number % len(marks)]) + source.randbytes(number % 97))
                if number % 3 == 0:
                    one.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, b"\1\0\0\0\0\0\0\0")
                one.close()
            self.attempt(send)

    # -- the well-behaved ---------------------------------------------------------------------------

    def well_behaved(self, counts, protocol):
        """Every call is answered, and rightly; UDP may lose packets, so it asks again."""
        source = random.Random(protocol)
        while not self.done.is_set():
            number = source.randrange(20000)
            key = "key%05d" % number
            with self.client(protocol, port=self.ports[protocol]) as client:
                if protocol == "udp":
                    client.transport.timeout, client.transport.attempts = 5.0, 12
                for _ in range(5):
                    self.assertEqual(client.match("big", key), (1, self.entries[key].encode()))
                if protocol == "tcp":
                    self.assertEqual(client.all("small"), {b"a": b"1", b"b": b"2"})
            counts[protocol] = counts.get(protocol, 0) + 1

    def test_all_at_once(self):
        self.start_system()
        self.tcp, self.udp = yp_port("tcp"), yp_port("udp")
        self.ports = {"tcp": self.tcp, "udp": self.udp}
        self.assert_map("big", self.entries)
        pid = self.orrisd.pid
        descriptors, memory = procinfo.open_descriptors(pid), procinfo.resident_bytes(pid)

        self.done, counts, failures = threading.Event(), {}, []

        def guarded(protocol):
            try:
                self.well_behaved(counts, protocol)
            except BaseException as error:  # noqa: B902 - shown by the main thread
                failures.append("%s: %r" % (protocol, error))
        good = [threading.Thread(target=guarded, args=(protocol,)) for protocol in ("udp", "tcp")]
        for thread in good:
            thread.start()
        try:
            nistest.in_threads([self.half_records, self.non_readers, self.idle, self.nonsense])
            reached = dict(counts)
            wait_for(lambda: failures or all(counts.get(protocol, 0) > reached.get(protocol, 0) + 5
                                             for protocol in ("udp", "tcp")),
                     "answers to both well-behaved clients")
            self.assertEqual(failures, [])
            # All hostile clients are still connected: the daemon must be asleep, not spinning.
            self.done.set()
            for thread in good:
                thread.join()
            used, begin = procinfo.cpu_seconds(pid), time.monotonic()
            time.sleep(4)
            share = (procinfo.cpu_seconds(pid) - used) / (time.monotonic() - begin)
            self.assertLess(share, 0.5, "the daemon spins while nobody asks")
        finally:
            self.done.set()
            for thread in good:
                thread.join()
        self.assertEqual(failures, [])
        self.assertTrue(all(counts.get(protocol, 0) > 5 for protocol in ("udp", "tcp")), counts)

        self.close_all()
        wait_for(lambda: procinfo.open_descriptors(pid) <= descriptors + 16,
                 "the descriptors to be closed", 120)
        self.assertTrue(self.orrisd.running())
        if nistest.SLOW == 1:
            grown = procinfo.resident_bytes(pid) - memory
            self.assertLess(grown, 200 << 20, "memory grew by %d MiB" % (grown >> 20))
        self.assert_map("big", self.entries)
        self.assertEqual(self.orrisd.stop(), 0)

    def test_rounds_do_not_leak(self):
        self.start_system()
        self.tcp, self.udp = yp_port("tcp"), yp_port("udp")
        pid = self.orrisd.pid
        sizes, descriptors = [], procinfo.open_descriptors(pid)
        arguments = pack_bytes(nistest.DOMAIN) + pack_bytes("big")
        message = call_message(YPPROG, YPVERS, ALL, arguments)
        for _ in range(6):
            for number in range(150):
                def ask():
                    one = self.connect()
                    one.sendall(pack_uint(0x80000000 | len(message)) + message)
                    if number % 2:
                        one.recv(1000)
                self.attempt(ask)
            self.close_all()
            wait_for(lambda: procinfo.open_descriptors(pid) <= descriptors + 8,
                     "the descriptors to be closed", 120)
            sizes.append(procinfo.resident_bytes(pid))
        if nistest.SLOW == 1:
            self.assertLess(sizes[-1], sizes[1] + (40 << 20), sizes)
        self.assert_map("small", {"a": "1", "b": "2"})

    def test_descriptor_limit(self):
        self.start_system()
        self.tcp, self.udp = yp_port("tcp"), yp_port("udp")
        pid = self.orrisd.pid
        limit = procinfo.open_descriptors(pid) + 20
        resource.prlimit(pid, resource.RLIMIT_NOFILE, (limit, limit))
        for _ in range(200):
            self.attempt(self.connect)
        with self.client("udp", port=self.udp) as client:
            for _ in range(20):
                self.assertEqual(client.match("small", "a"), (1, b"1"))
        used, begin = procinfo.cpu_seconds(pid), time.monotonic()
        time.sleep(3)
        share = (procinfo.cpu_seconds(pid) - used) / (time.monotonic() - begin)
        self.assertLess(share, 0.5, "the daemon spins without descriptors")
        self.assertTrue(self.orrisd.running())

        self.close_all()

        def answered():
            try:
                with self.client("tcp", port=self.tcp, timeout=5.0) as client:
                    return client.match("small", "b") == (1, b"2")
            except (OSError, RpcError, nistest.NoReply):
                return False
        wait_for(answered, "TCP to recover", 120)
        self.assertEqual(self.orrisd.stop(), 0)

    def test_fast_reconnects(self):
        self.start_system()
        self.tcp, self.udp = yp_port("tcp"), yp_port("udp")

        def calls():
            for _ in range(300):
                with self.client("tcp", port=self.tcp) as client:
                    self.assertEqual(client.match("small", "a"), (1, b"1"))
        nistest.in_threads([calls] * 4)
        self.assertLess(procinfo.open_descriptors(self.orrisd.pid), 200)
        self.assertTrue(os.path.exists(nistest.PID_FILE))


if __name__ == "__main__":
    nistest.main()
