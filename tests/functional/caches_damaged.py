"""Whatever lies in the cache folder at the start: right answers, or none, and a clear message."""

import glob
import os
import random
import shutil
import socket

import nistest
from nistest import program
from ypclient import YP_NOMAP, yp_port


class DamagedFiles(nistest.NisTest):
    def setUp(self):
        super().setUp()
        self.entries = {"key%03d" % i: "value %d %s" % (i, "y" * 50) for i in range(400)}
        self.hosts = {"h%d" % i: "10.0.%d.1 h%d" % (i, i) for i in range(100)}
        self.directory.fill("plain", self.entries)
        self.directory.fill("hosts", self.hosts)
        self.directory.user("nina", 2001)
        self.start_system()
        self.users = self.whole_map("passwd.byname")
        self.assertEqual(self.orrisd.stop(), 0)
        self.store = "/run/saved-caches"
        shutil.rmtree(self.store, ignore_errors=True)
        shutil.copytree(nistest.CACHE_FOLDER, self.store)

    def restore(self):
        shutil.rmtree(nistest.CACHE_FOLDER)
        shutil.copytree(self.store, nistest.CACHE_FOLDER)

    def files(self, suffix):
        found = sorted(glob.glob(os.path.join(nistest.CACHE_FOLDER, "*" + suffix)))
        self.assertTrue(found, "no %s files" % suffix)
        return found

    def check(self):
        """The daemon comes up with right maps, or none, and the next update brings all."""
        self.start_orrisd()
        maps = {"plain": self.entries, "hosts.byname": self.hosts, "passwd.byname": self.users}
        for name, entries in maps.items():
            with self.client("tcp") as client:
                if client.order(name)[0] == 1:
                    self.assert_map(name, entries)
                else:
                    self.assertEqual(client.all_records(name), [(True, YP_NOMAP, b"", b"")])
        self.refresh()
        for name, entries in maps.items():
            self.assert_map(name, entries)
        self.assertEqual(self.orrisd.stop(), 0)

    def damage(self, suffix, change):
        for path in self.files(suffix):
            with open(path, "rb") as file:
                content = bytearray(file.read())
            content = change(content)
            with open(path, "wb") as file:
                file.write(content)

    DAMAGES = {
        "empty": lambda content: b"",
        "one byte": lambda content: b"x",
        "cut in half": lambda content: content[:len(content) // 2],
        "cut by one byte": lambda content: content[:-1],
        "longer by one byte": lambda content: content + b"\0",
        "zeroes": lambda content: bytes(len(content)),
        "noise": lambda content: os.urandom(len(content)),
        "damaged beginning": lambda content: os.urandom(64) + content[64:],
        "a hole in the middle": lambda content: (
            content[:len(content) // 3] + bytes(200) + content[len(content) // 3 + 200:]),
    }

    def test_damaged_caches(self):
        for name, change in self.DAMAGES.items():
            with self.subTest(name):
                self.restore()
                self.damage(".map", change)
                self.check()

    def test_damaged_snapshots(self):
        for name, change in self.DAMAGES.items():
            with self.subTest(name):
                self.restore()
                self.damage(".snap", change)
                self.check()

    def test_flipped_bytes_never_give_a_wrong_answer(self):
        seed = int(os.environ.get("ORRISD_TEST_SEED", random.randrange(1 << 30)))
        print("ORRISD_TEST_SEED=%d" % seed)
        source = random.Random(seed)
        for round_number in range(6 if nistest.SLOW == 1 else 2):
            self.restore()

            def flip(content):
                for _ in range(3):
                    content[source.randrange(len(content))] ^= 1 << source.randrange(8)
                return content
            with self.subTest("round %d" % round_number):
                self.damage(".map", flip)
                self.damage(".snap", lambda content: flip(content) if source.random() < .5
                            else content)
                self.check()

    def test_damage_while_the_directory_is_away(self):
        # Nothing can be read again: the damaged map is not served at all, the others are.
        self.restore()
        for path in self.files(".map"):
            if ":plain:" in path:
                os.truncate(path, os.path.getsize(path) // 2)
        with self.directory_change():
            os.remove(nistest.LDIF_FILE)
        self.start_orrisd()
        self.assertTrue(self.orrisd.find("While opening cache file '.*:plain:.*Deleting file"))
        self.assert_map("hosts.byname", self.hosts)
        with self.client() as client:
            self.assertEqual(client.match("plain", "key001")[0], -1)
        self.save_directory()
        self.orrisd.signal(nistest.signal.SIGUSR2)
        self.wait_map("plain", self.entries)

    def test_strange_entries_in_the_folder(self):
        self.restore()
        folder = nistest.CACHE_FOLDER
        outside = "/run/outside"
        with open(outside, "w") as file:
            file.write("untouched")
        os.mkdir(folder + "/subfolder")
        os.mkdir(folder + "/folder.map")
        os.symlink(outside, folder + "/link.map")
        os.symlink("/nowhere", folder + "/dangling.snap")
        os.mkfifo(folder + "/pipe.map")
        os.mknod(folder + "/device", 0o20600, os.makedev(1, 3))
        listener = socket.socket(socket.AF_UNIX)
        listener.bind(folder + "/socket.snap")
        self.addCleanup(listener.close)
        for name in (".map", ".snap", "readme", "a:b:c.map", "x.map-journal"):
            with open(os.path.join(folder, name), "w") as file:
                file.write("junk")
        self.check()
        left = set(os.listdir(folder))
        self.assertLessEqual({"subfolder", "folder.map"}, left)
        gone = {"link.map", "dangling.snap", "pipe.map", "device", "socket.snap", ".map", ".snap",
                "readme", "a:b:c.map", "x.map-journal"}
        self.assertEqual(gone & left, set())
        with open(outside) as file:
            self.assertEqual(file.read(), "untouched")
        self.assertTrue(self.orrisd.find("Unexpected directory 'subfolder'. Ignoring"))
        self.assertTrue(self.orrisd.find("Deleting unknown file 'readme'"))
        self.assertTrue(self.orrisd.find("Deleting unexpected non-file entry 'link.map'"))

    def test_caches_of_another_domain_are_dropped(self):
        self.restore()
        self.start_orrisd()
        self.assertEqual(self.orrisd.stop(), 0)
        self.write_config(nisd_domain_name="renamed")
        self.orrisd = self.start("orrisd", [program("orrisd"), "-d"])
        self.orrisd.wait_log(r"Ready\.")
        nistest.wait_for(lambda: yp_port("udp") and yp_port("tcp"), "the registration")
        self.assertTrue(self.orrisd.find("Discarding cache example:plain:.*: wrong domain"))
        with self.client(domain="renamed") as client:
            nistest.wait_for(lambda: client.match("plain", "key001") == (1, (
                self.entries["key001"].encode())), "the maps of the new domain")
        with self.client() as client:
            self.assertEqual(client.match("plain", "key001")[0], -2)
        self.assertFalse(glob.glob(nistest.CACHE_FOLDER + "/example:*"))


if __name__ == "__main__":
    nistest.main()
