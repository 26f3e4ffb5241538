"""Bad configuration, bad directory data, bad bytes on the local socket: a message, and life goes on."""

import os
import random
import socket
import struct

import ldif
import nistest
import procinfo
from nistest import run, wait_for

SOCKET = nistest.STATE_FOLDER + "/daemon"


class BadConfiguration(nistest.NisTest):
    def setUp(self):
        super().setUp()
        self.directory.fill("plain", {"key": "value"})

    def assert_serves(self):
        for protocol in ("udp", "tcp"):
            with self.client(protocol) as client:
                self.assertEqual(client.match("plain", "key"), (1, b"value"))

    def test_bad_values(self):
        values = {
            "nisd.threads": "many", "nisd.update.interval": "soon", "nisd.port.udp": "http",
            "nisd.port.tcp": "-1", "nisd.net_addr": "everywhere", "nisd.maps.max": "none",
            "nisd.startup.delay": "a while", "nisd.server.switch.delay": "x",
            "nisd.largegroup.name.length": "long", "nisd.datahorde.enable": "perhaps",
            "nisd.passwd.expired.allow": "perhaps", "log.level.quorad": "loud",
            "nisd.securenets": "anywhere 1.2.3.4 10.0.0.0/8 /255.0.0.0 //",
        }
        self.configuration.update(values)
        self.start_system()
        self.assert_serves()
        self.assertTrue(self.orrisd.find("bad socket address config everywhere"))
        for entry in ("anywhere", r"1\.2\.3\.4", r"10\.0\.0\.0/8", "//"):
            self.assertTrue(self.orrisd.find("invalid securenet format %s: " % entry), entry)
        self.assertEqual(self.orrisd.stop(), 0)

    def test_malformed_lines(self):
        self.directory.save()
        self.write_config()
        with open(nistest.CONFIG_FILE, "ab") as file:
            file.write(b"no colon here\n: no key\n\xff\xfe\x00binary: \x01\x02\n" +
                       b"a" * 100000 + b"\n\n   \n#comment\nNISD.Threads: 2\n")
        self.start_quorad()
        self.start_orrisd()
        self.wait_served()
        self.assert_serves()
        self.assertTrue(self.orrisd.find(r"velmorix\.conf"))
        self.assertEqual(len([name for name in procinfo.thread_names(self.orrisd.pid)
                              if name.startswith("client-")]), 2)

    def test_taken_port(self):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as taken:
            taken.bind(("0.0.0.0", 777))
            self.start_system(nisd_port_udp="777")
            self.assertTrue(self.orrisd.find("bind udp ifc 0 port 777 failed: Address already"))
            self.assert_serves()

    def test_configuration_vanishes(self):
        self.start_system()
        os.remove(nistest.CONFIG_FILE)
        mark = self.orrisd.log_size()
        self.orrisd.signal(nistest.signal.SIGHUP)
        self.orrisd.wait_log("Re-reading config file", mark)
        self.assert_serves()
        self.assertEqual(self.orrisd.stop(), 0)


class BadDirectory(nistest.NisTest):
    def test_malformed_at_the_start(self):
        ldif.write_atomically(nistest.LDIF_FILE, b"dn: DC=example,DC=com\nno colon\n")
        self.write_config()
        self.quorad = self.start("quorad", [nistest.program("quorad"), "-d"])
        wait_for(lambda: self.quorad.find("directory.ldif") or not self.quorad.running(),
                 "a message that names the file")
        self.assertTrue(self.quorad.find(r"directory\.ldif.*2"), "the line is not named")

    def test_odd_but_valid_data(self):
        zone = self.directory.ZONE
        entries = {"ünïcode": "wärt", "tab\tkey": "a\tb", " lead": " space ", "colon:key": "a:b",
                   "long": "z" * 1024, "valueless": "", "\x01\x02": "\x7f", "new\nline": "a\nb"}
        self.directory.fill("odd", entries)
        map_dn = "CN=odd,CN=nismaps," + zone
        self.directory.add("CN=nokey," + map_dn, [("objectClass", "container")])
        self.directory.add("CN=noval," + map_dn, [("objectClass", "container"),
                                                  ("description", "novalue")])
        self.directory.add("CN=two," + map_dn, [
            ("objectClass", "container"), ("description", "zz"), ("description", "aa"),
            ("adminDescription", "both")])
        self.start_system()
        expected = {as_bytes(k): as_bytes(v) for k, v in entries.items()}
        expected.update({b"novalue": b"", b"aa": b"both"})
        self.assertEqual(self.whole_map("odd"), expected)

    def test_bytes_in_keys(self):
        map_dn = self.directory.map("bytes")
        keys = [b"\0", b"a\0b", b"\xff\0", b"\xff\0usn", bytes(range(256)), b"\x02\0x"]
        for number, key in enumerate(keys):
            self.directory.entry(map_dn, key, b"v%d" % number)
        self.start_system()
        self.assert_map("bytes", {key: b"v%d" % i for i, key in enumerate(keys)})
        for protocol in ("udp", "tcp"):
            with self.client(protocol) as client:
                for number, key in enumerate(keys):
                    self.assertEqual(client.match("bytes", key), (1, b"v%d" % number))
                self.assertEqual(len(client.walk("bytes")), len(keys))


class BadFrames(nistest.NisTest):
    def setUp(self):
        super().setUp()
        self.entries = {"key%d" % i: "value" for i in range(20)}
        self.directory.fill("plain", self.entries)
        self.start_system()

    def test_nonsense_to_quorad(self):
        source = random.Random(7)
        memory = procinfo.resident_bytes(self.quorad.pid)
        kept = []
        for number in range(300):
            one = socket.socket(socket.AF_UNIX)
            one.settimeout(10)
            try:
                one.connect(SOCKET)
                one.sendall((
                    source.randbytes(number),
                    struct.pack(">I", 0xFFFFFFFF) + b"x" * 100,
                    struct.pack("<I", 0xFFFFFFFF) + b"x" * 100,
                    struct.pack(">I", 8) + source.randbytes(8),
                    struct.pack(">I", 0),
                    struct.pack(">I", 400) + b"half",
                    b"",
                )[number % 7])
            except OSError:
                pass
            if number % 3:
                one.close()
            else:
                kept.append(one)
        self.directory.fill("another", {"a": "b"})
        self.change_directory()
        self.assert_map("another", {"a": "b"})
        self.assertTrue(self.quorad.running())
        for one in kept:
            one.close()
        if nistest.SLOW == 1:
            self.assertLess(procinfo.resident_bytes(self.quorad.pid), memory + (64 << 20))

    def test_strangers_are_turned_away(self):
        os.chmod(nistest.STATE_FOLDER, 0o755)
        code = ("import socket,sys\ns=socket.socket(socket.AF_UNIX); s.settimeout(20)\n"
                "try:\n s.connect(%r)\n s.sendall(b'\\0'*64)\n sys.exit(1 if s.recv(100) else 0)\n"
                "except OSError: sys.exit(0)\n" % SOCKET)
        result = run("setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", "/usr/bin/python3",
                     "-c", code)
        self.assertEqual(result.returncode, 0, result.stderr)

    def test_nonsense_from_a_false_quorad(self):
        self.assertEqual(self.quorad.stop(), 0)
        source = random.Random(9)
        for answer in (b"", source.randbytes(300), struct.pack(">I", 0xFFFFFFFF),
                       struct.pack(">I", 0x7FFFFFFF) + b"y" * 50, struct.pack(">I", 0) * 20,
                       struct.pack(">I", 16) + source.randbytes(16),
                       struct.pack("<I", 16) + source.randbytes(16)):
            if os.path.exists(SOCKET):
                os.remove(SOCKET)
            with socket.socket(socket.AF_UNIX) as listener:
                listener.bind(SOCKET)
                listener.listen(5)
                listener.settimeout(60 * nistest.SLOW)
                mark = self.orrisd.log_size()
                self.orrisd.signal(nistest.signal.SIGUSR2)
                peers = []
                peer, _ = listener.accept()
                peers.append(peer)
                peer.settimeout(60 * nistest.SLOW)
                peer.recv(65536)
                try:
                    peer.sendall(answer)
                except OSError:
                    pass
                peer.close()
                listener.settimeout(0.2)
                while not self.orrisd.find("Update failed|Update from AD failed|Update complete$",
                                           mark):
                    self.assertTrue(self.orrisd.running())
                    try:
                        peer, _ = listener.accept()
                        peer.close()
                    except OSError:
                        pass
            self.assert_map("plain", self.entries)
        if os.path.exists(SOCKET):
            os.remove(SOCKET)
        self.start_quorad()
        self.entries["more"] = "x"
        self.directory.entry("CN=plain,CN=nismaps," + self.directory.ZONE, "more", "x")
        self.change_directory()
        self.assert_map("plain", self.entries)


def as_bytes(value):
    return value.encode() if isinstance(value, str) else value


if __name__ == "__main__":
    nistest.main()
