"""The real clients against every map of the sample directory; all answers compared with its LDIF."""

import os
import shutil

import expected
import ldif
import nistest
from nistest import lines_of, run

SAMPLE = os.path.join(os.path.dirname(__file__), "../../config/sample/directory.ldif")
DOMAIN = "lab.example.com"
ZONE = "CN=lab,CN=harbour,CN=Zones,DC=example,DC=com"
CONTAINERS = {"hosts", "ethers", "services", "networks", "protocols", "rpc", "netmasks",
              "timezone", "publickey", "aliases", "passwd", "group"}


class SampleDirectory(nistest.NisTest):
    def setUp(self):
        super().setUp()
        shutil.copy(SAMPLE, nistest.LDIF_FILE)
        self.maps = expected.all_maps(ldif.load(SAMPLE), ZONE)
        self.configure("quorad.zone", ZONE)
        self.write_config()
        self.start_quorad()
        self.start_orrisd()
        self.wait_served(DOMAIN)

    def bytes_of(self, name):
        return {key.encode(): value.encode() for key, value in self.maps[name].items()}

    def test_map_list_and_masters(self):
        with self.client("udp", DOMAIN) as client:
            status, names = client.maplist()
        self.assertEqual(status, 1)
        self.assertEqual(len(names), len(set(names)), "a map is listed twice")
        self.assertLessEqual(set(self.maps), set(names))
        self.assertLessEqual(set(names) - set(self.maps), CONTAINERS)
        self.bind_client(DOMAIN)
        self.assertIn(lines_of(run("ypwhich")), (["localhost"], ["127.0.0.1"]))
        self.assertEqual(sorted(lines_of(run("ypwhich", "-m"))),
                         sorted(name + " nis-test" for name in names))

    def test_whole_maps_with_ypcat(self):
        self.bind_client(DOMAIN)
        for name, entries in self.maps.items():
            with self.subTest(name):
                result = run("ypcat", "-k", name, check=True)
                self.assertEqual(sorted(result.stdout.splitlines()),
                                 sorted(("%s %s" % entry).encode() for entry in entries.items()))

    def test_whole_maps_with_ypcat_from_a_named_host(self):
        for name, entries in self.maps.items():
            with self.subTest(name):
                result = run("ypcat", "-h", "127.0.0.1", "-d", DOMAIN, name, check=True)
                self.assertEqual(sorted(result.stdout.splitlines()),
                                 sorted(value.encode() for value in entries.values()))

    def test_every_key_with_ypmatch(self):
        self.bind_client(DOMAIN)
        for name, entries in self.maps.items():
            with self.subTest(name):
                keys = list(entries)
                result = run("ypmatch", *keys, name, check=True)
                self.assertEqual(result.stdout.splitlines(),
                                 [entries[key].encode() for key in keys])

    def test_unknown_key_and_map_with_ypmatch(self):
        self.bind_client(DOMAIN)
        result = run("ypmatch", "nobody-of-that-name", "passwd.byname")
        self.assertNotEqual(result.returncode, 0)
        self.assertIn(b"No such key in map", result.stderr)
        result = run("ypmatch", "x", "no.such.map")
        self.assertNotEqual(result.returncode, 0)
        self.assertIn(b"No such map", result.stderr)

    def test_order_numbers_with_yppoll(self):
        for name in self.maps:
            with self.subTest(name), self.client("tcp", DOMAIN) as client:
                status, order = client.order(name)
                self.assertEqual(status, 1)
                text = run("yppoll", "-h", "127.0.0.1", "-d", DOMAIN, name, check=True).stdout
                self.assertIn(b"order number %d." % order, text)
                self.assertIn(b"nis-test", text)

    def test_every_answer_over_udp_and_tcp(self):
        for protocol in ("udp", "tcp"):
            for name in self.maps:
                entries = self.bytes_of(name)
                with self.subTest(protocol + " " + name), \
                        self.client(protocol, DOMAIN) as client:
                    for key, value in entries.items():
                        self.assertEqual(client.match(name, key), (1, value))
                    self.assertEqual(client.walk(name), entries)
                    if protocol == "tcp":
                        self.assertEqual(client.all(name), entries)


if __name__ == "__main__":
    nistest.main()
