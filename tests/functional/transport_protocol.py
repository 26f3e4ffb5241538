"""The thirteen procedures and the rules of RPC, over UDP and TCP, byte by byte."""

import socket

import nistest
import ypclient
from ypclient import (GARBAGE_ARGS, PROC_UNAVAIL, PROG_MISMATCH, PROG_UNAVAIL, NoReply, RpcError,
                      call_message, pack_bytes, pack_uint)


class Protocol(nistest.NisTest):
    ENTRIES = {"one": "1", "two": "22", "three": "333", "empty": "", "spaced key": "v v"}

    def setUp(self):
        super().setUp()
        self.directory.fill("plain", self.ENTRIES)
        self.directory.map("void")
        self.start_system()
        self.entries = {key.encode(): value.encode() for key, value in self.ENTRIES.items()}

    def each(self, **options):
        for protocol in ("udp", "tcp"):
            with self.subTest(protocol), self.client(protocol, **options) as client:
                yield client

    def assert_refused(self, accept_stat, function, *arguments):
        with self.assertRaises(RpcError) as caught:
            function(*arguments)
        self.assertEqual(caught.exception.accept_stat, accept_stat)

    def test_null_clear_and_domains(self):
        for client in self.each():
            client.null()
            client.clear()
            self.assertTrue(client.is_served())
            self.assertFalse(client.is_served("elsewhere"))
            self.assertFalse(client.is_served(nistest.DOMAIN.upper()))
            self.assertTrue(client.is_served_nonack())
            client.clear()
            self.assertEqual(client.match("plain", "one"), (1, b"1"))

    def test_nonack_is_silent_for_a_foreign_domain(self):
        for client in self.each(timeout=2.0):
            with self.assertRaises(NoReply):
                client.is_served_nonack("elsewhere")

    def test_match(self):
        for client in self.each():
            for key, value in self.entries.items():
                self.assertEqual(client.match("plain", key), (1, value))
            self.assertEqual(client.match("plain", "four"), (ypclient.YP_NOKEY, b""))
            self.assertEqual(client.match("plain", "one\0"), (ypclient.YP_NOKEY, b""))
            self.assertEqual(client.match("void", "one"), (ypclient.YP_NOKEY, b""))
            self.assertEqual(client.match("absent", "one"), (ypclient.YP_NOMAP, b""))
            self.assertEqual(client.match("Plain", "one"), (ypclient.YP_NOMAP, b""))

    def test_foreign_domain(self):
        for client in self.each(domain="elsewhere"):
            self.assertEqual(client.match("plain", "one"), (ypclient.YP_NODOM, b""))
            self.assertEqual(client.first("plain")[0], ypclient.YP_NODOM)
            self.assertEqual(client.next("plain", "one")[0], ypclient.YP_NODOM)
            self.assertEqual(client.master("plain")[0], ypclient.YP_NODOM)
            self.assertEqual(client.order("plain")[0], ypclient.YP_NODOM)
            self.assertEqual(client.maplist(), (ypclient.YP_NODOM, []))

    def test_walk(self):
        for client in self.each():
            self.assertEqual(client.walk("plain"), self.entries)
            self.assertEqual(client.first("void"), (ypclient.YP_NOMORE, b"", b""))
            self.assertEqual(client.first("absent")[0], ypclient.YP_NOMAP)
            self.assertEqual(client.next("absent", "one")[0], ypclient.YP_NOMAP)

    def test_whole_map(self):
        with self.client("tcp") as client:
            for _ in range(2):
                self.assertEqual(client.all("plain"), self.entries)
            self.assertEqual(client.all_records("void"), [(False,)])
            self.assertEqual(client.all_records("absent"),
                             [(True, ypclient.YP_NOMAP, b"", b"")])
            client.domain = "elsewhere"
            self.assertEqual(client.all_records("plain"),
                             [(True, ypclient.YP_NODOM, b"", b"")])

    def test_master_order_and_list(self):
        for client in self.each():
            self.assertEqual(client.master("plain"), (1, b"nis-test"))
            self.assertEqual(client.master("absent")[0], ypclient.YP_NOMAP)
            status, order = client.order("plain")
            self.assertEqual(status, 1)
            self.assertGreater(order, 0)
            self.assertEqual(client.order("absent")[0], ypclient.YP_NOMAP)
            status, names = client.maplist()
            self.assertEqual(status, 1)
            self.assertLessEqual({"plain", "void", "passwd.byname", "group.bygid"}, set(names))

    def test_transfers_are_refused(self):
        for client in self.each():
            self.assertEqual(client.xfr("plain"), (0, ypclient.YPXFR_REFUSED))
            self.assertEqual(client.newxfr("plain"), (0, ypclient.YPXFR_REFUSED))

    def test_calls_that_cannot_be_served(self):
        for client in self.each():
            call = client.transport.call
            self.assert_refused(PROC_UNAVAIL, client.call, 13)
            self.assert_refused(PROG_UNAVAIL, call, 100005, 2, 0)
            self.assert_refused(PROG_MISMATCH, call, ypclient.YPPROG, 1, 0)
            self.assert_refused(PROG_MISMATCH, call, ypclient.YPPROG, 3, 0)
            self.assert_refused(GARBAGE_ARGS, client.call, ypclient.MATCH, b"")
            self.assert_refused(GARBAGE_ARGS, client.call, ypclient.MATCH, pack_uint(0xFFFFFFF0))
            self.assert_refused(GARBAGE_ARGS, client.call, ypclient.FIRST,
                                pack_bytes(nistest.DOMAIN) + pack_bytes("m" * 5000))
            client.null()

    def test_credentials(self):
        for client in self.each():
            call = client.transport.call
            call(ypclient.YPPROG, ypclient.YPVERS, ypclient.NULL,
                 credentials=ypclient.unix_credentials()).finish()
            for flavour in (3, 6, 4711):
                with self.assertRaises(RpcError):
                    call(ypclient.YPPROG, ypclient.YPVERS, ypclient.NULL,
                         credentials=(flavour, b"x" * 8))
            with self.assertRaises(RpcError):
                call(ypclient.YPPROG, ypclient.YPVERS, ypclient.NULL,
                     credentials=(1, b"\xff" * 40))
            client.null()

    def test_records_in_small_fragments(self):
        for size in (1, 3, 4, 7, 16):
            with self.client("tcp", fragment=size) as client:
                self.assertEqual(client.match("plain", "three"), (1, b"333"))
                self.assertEqual(client.all("plain"), self.entries)

    def test_empty_fragments_inside_a_record(self):
        with self.client("tcp") as client:
            message = call_message(ypclient.YPPROG, ypclient.YPVERS, ypclient.NULL, xid=77)
            client.transport.socket.sendall(
                pack_uint(0, len(message)) + message + pack_uint(0, 0x80000000))
            try:
                reply = b"".join(client.transport.fragments())
            except NoReply:
                return  # closing the connection is as good an answer
            self.assertEqual(reply[:4], pack_uint(77))

    def test_calls_one_behind_the_other_on_one_connection(self):
        with self.client("tcp") as client:
            arguments = b"".join(map(pack_bytes, (nistest.DOMAIN, "plain", "two")))
            messages = [call_message(ypclient.YPPROG, ypclient.YPVERS, ypclient.MATCH, arguments,
                                     xid) for xid in range(1, 51)]
            client.transport.socket.sendall(b"".join(
                pack_uint(0x80000000 | len(message)) + message for message in messages))
            seen = [b"".join(client.transport.fragments()) for _ in messages]
            self.assertEqual(sorted(reply[:4] for reply in seen),
                             [pack_uint(xid) for xid in range(1, 51)])
            self.assertTrue(all(reply.endswith(pack_bytes("22")) for reply in seen))

    def test_reply_comes_from_the_address_that_was_asked(self):
        nistest.run("ip", "addr", "add", "127.9.9.9/8", "dev", "lo", check=True)
        port = ypclient.yp_port("udp")
        with ypclient.UdpTransport("127.9.9.9", port, 10.0) as transport:
            transport.call(ypclient.YPPROG, ypclient.YPVERS, ypclient.NULL).finish()

    def test_half_closed_connection_still_gets_its_answer(self):
        with self.client("tcp") as client:
            client.transport.send_record(call_message(
                ypclient.YPPROG, ypclient.YPVERS, ypclient.NULL, xid=5))
            client.transport.socket.shutdown(socket.SHUT_WR)
            self.assertEqual(b"".join(client.transport.fragments())[:4], pack_uint(5))


if __name__ == "__main__":
    nistest.main()
