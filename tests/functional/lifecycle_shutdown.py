"""SIGTERM: calls in progress finish or three seconds pass; nothing is left behind."""

import os
import signal
import time

import nistest
from nistest import wait_for
from ypclient import NoReply, RpcError, Unpacker, check_reply, yp_port

COUNT = 30000


class Shutdown(nistest.NisTest):
    log_level = "info"

    def setUp(self):
        super().setUp()
        self.entries = {"key%06d" % i: "value %d %s" % (i, "x" * 40) for i in range(COUNT)}

    def start_big(self):
        self.directory.fill("big", self.entries)
        self.start_system()

    def assert_gone(self, status):
        self.assertEqual(status, 0)
        self.assertEqual((yp_port("udp"), yp_port("tcp")), (0, 0))
        self.assertFalse(os.path.exists(nistest.PID_FILE))
        self.assertFalse(self.orrisd.find(r"\.snap.*\.new"))

    def read_records(self, client):
        """Reads the rest of a whole-map stream; @return the entries, and whether it was whole."""
        try:
            data = b"".join(client.transport.fragments())
        except (NoReply, OSError):
            return {}, False
        reply = Unpacker(data)
        check_reply(reply, int.from_bytes(data[:4], "big"))
        entries = {}
        while reply.uint():
            self.assertEqual(reply.int(), 1)
            value, key = reply.bytes(), reply.bytes()
            entries[key] = value
        return entries, True

    def test_idle(self):
        self.directory.fill("small", {"a": "b"})
        for number in (signal.SIGTERM, signal.SIGINT):
            self.start_system()
            self.assert_gone(self.orrisd.stop(number))
            self.assertEqual(self.quorad.stop(), 0)

    def test_during_transfers_that_are_read(self):
        self.start_big()
        clients = [self.client("tcp") for _ in range(4)]
        for client in clients:
            client.send_all("big")
        for client in clients:
            client.transport.socket.recv(1, 2)  # MSG_PEEK: the stream has begun
        self.orrisd.signal(signal.SIGTERM)
        outcomes = []
        nistest.in_threads([lambda client=client: outcomes.append(self.read_records(client))
                            for client in clients])
        self.assert_gone(self.orrisd.wait())
        expected = {key.encode(): value.encode() for key, value in self.entries.items()}
        for entries, whole in outcomes:
            if whole:
                self.assertEqual(entries, expected)
        for client in clients:
            client.close()

    def test_during_a_transfer_that_nobody_reads(self):
        self.start_big()
        with self.client("tcp") as client:
            client.send_all("big")
            client.transport.socket.recv(1, 2)
            begin = time.monotonic()
            self.orrisd.signal(signal.SIGTERM)
            status = self.orrisd.wait()
            self.assertTrue(self.orrisd.find("Waiting for pending transactions to finish"))
            self.assertTrue(self.orrisd.find(
                "Waited 3 seconds but pending transactions did not finish"))
            self.assertGreaterEqual(time.monotonic() - begin, 2.9)
            self.assert_gone(status)
            entries, whole = self.read_records(client)
            self.assertFalse(whole and len(entries) < COUNT, "part of a map looked whole")

    def test_new_calls_during_shutdown_get_no_reply(self):
        self.start_big()
        with self.client("tcp") as reader, self.client("udp", timeout=1.0) as other:
            reader.send_all("big")
            reader.transport.socket.recv(1, 2)
            self.orrisd.signal(signal.SIGTERM)
            self.orrisd.wait_log("Shutting down")
            with self.assertRaises((NoReply, RpcError, OSError)):
                other.match("big", "key000001")
        self.assert_gone(self.orrisd.wait())

    def test_restart_serves_from_what_was_left(self):
        self.directory.fill("small", {"a": "b"})
        for _ in range(3):
            self.start_system()
            self.assert_map("small", {"a": "b"})
            self.assert_gone(self.orrisd.stop())
            self.assertEqual(self.quorad.stop(), 0)

    def test_during_an_update(self):
        self.start_big()
        for index, dn in enumerate(list(self.directory.objects)):
            if dn.startswith("CN=e"):
                self.directory.replace(dn, "adminDescription", "second %d" % index)
        self.save_directory()
        self.orrisd.signal(signal.SIGUSR2)
        self.orrisd.wait_log("Refresh existing maps")
        self.orrisd.signal(signal.SIGTERM)
        self.assert_gone(self.orrisd.wait(120))
        self.assertFalse(self.orrisd.running())
        wait_for(lambda: not nistest.procinfo.is_running(self.orrisd.pid), "the end")


if __name__ == "__main__":
    nistest.main()
