"""Map names from the directory that would be paths, or no file names at all."""

import os

import nistest
from ypclient import GARBAGE_ARGS, YP_NOMAP, RpcError


class EvilNames(nistest.NisTest):
    EVIL = ["/", ".", "..", "../evil", "../../etc/evil", "/etc/evil", "a/b", "a/../b", "k" * 65,
            "n" * 201, "m" * 300, "nul\0byte", ""]
    ODD = ["with space", "colon:name", ".hidden", "...", "-dash", "star*", "dollar$x", "ünïcode",
           "k" * 64, "plain", "new\nline", "100%s%n"]

    def tree(self):
        found = set()
        for folder in ("/etc", "/var", "/run"):
            for base, folders, files in os.walk(folder):
                if base.startswith((nistest.CACHE_FOLDER, nistest.LOG_FOLDER, "/run/.layers")):
                    continue
                found.update(os.path.join(base, name) for name in files + folders)
        return found

    @staticmethod
    def escaped(name):
        return "".join("\\%02x" % byte if byte in b'\0\n\\,+"<>;=#' or byte == 32 else chr(byte)
                       for byte in name.encode("utf-8")).encode("latin-1").decode("utf-8")

    def add_map(self, name):
        dn = "CN=%s,CN=nismaps,%s" % (self.escaped(name), self.directory.ZONE)
        self.directory.add(dn, [("objectClass", "container"), ("cn", name)])
        self.directory.entry(dn, "key", "value of " + name)

    def assert_no_such_map(self, client, name):
        """Names longer than the protocol's 64 bytes cannot even be asked for."""
        if len(name.encode()) > 64:
            with self.assertRaises(RpcError) as caught:
                client.match(name, "key")
            self.assertEqual(caught.exception.accept_stat, GARBAGE_ARGS)
        else:
            self.assertEqual(client.match(name, "key")[0], YP_NOMAP)
            self.assertEqual(client.order(name)[0], YP_NOMAP)

    def test_names(self):
        for name in self.ODD:
            self.add_map(name)
        for name in self.EVIL:
            if name:
                self.add_map(name)
        self.start_system()
        before = self.tree()
        self.directory.fill("trigger", {"a": "b"})
        self.change_directory()
        self.assertEqual(self.tree() - before, set())
        with self.client("tcp") as client:
            names = client.maplist()[1]
            for name in self.ODD:
                with self.subTest(name):
                    self.assertIn(name, names)
                    self.assertEqual(client.match(name, "key"),
                                     (1, ("value of " + name).encode()))
                    self.assertEqual(client.all(name),
                                     {b"key": ("value of " + name).encode()})
            for name in self.EVIL:
                with self.subTest(name):
                    self.assertNotIn(name, names)
                    self.assert_no_such_map(client, name)
        for name in ("/etc/evil", "/var/velmorix/evil", "/evil"):
            self.assertFalse(os.path.exists(name))
        self.assertEqual(self.orrisd.stop(), 0)
        self.start_orrisd()
        with self.client() as client:
            for name in self.ODD:
                self.assertEqual(client.match(name, "key")[0], 1, name)

    def test_evil_names_from_clients(self):
        self.directory.fill("plain", {"key": "value"})
        self.start_system()
        before = self.tree()
        for protocol in ("udp", "tcp"):
            with self.client(protocol) as client:
                for name in ("../../../etc/passwd", "/etc/passwd", "", "plain.map", "n" * 65,
                             "n" * 1000):
                    self.assert_no_such_map(client, name)
            with self.client(protocol, "../example") as client:
                self.assertEqual(client.match("plain", "key")[0], -2)
        self.assertEqual(self.tree() - before, set())

    def test_domain_that_is_no_file_name(self):
        self.directory.fill("plain", {"key": "value"})
        self.directory.save()
        self.write_config(nisd_domain_name="../../etc/evil")
        before = self.tree()
        self.start_quorad()
        self.orrisd = self.start("orrisd", [nistest.program("orrisd"), "-d"])
        nistest.wait_for(lambda: self.orrisd.find("evil"), "a message that names the domain")
        self.orrisd.stop()
        created = {path for path in self.tree() - before if "evil" in path}
        self.assertEqual(created, set())


if __name__ == "__main__":
    nistest.main()
