"""kill -9 at random moments of an update: each restart serves a complete map, old or new."""

import os
import random
import signal
import time

import nistest
from nistest import program
from ypclient import yp_port

KILLS = 50 if nistest.SLOW == 1 else 8
COUNT = 4000


class Kill(nistest.NisTest):
    log_level = "info"

    def versions(self, number):
        return {"key%05d" % i: "version %d of %d" % (number, i) for i in range(COUNT)}

    def write_version(self, number):
        for i, dn in enumerate(self.dns):
            self.directory.replace(dn, "adminDescription", "version %d of %d" % (number, i))
        self.directory.replace(self.user, "gecos", "Version %d" % number)
        self.save_directory()

    def start_again(self):
        self.orrisd = self.start("orrisd", [program("orrisd"), "-d"])
        self.orrisd.wait_log(r"Ready\.")
        nistest.wait_for(lambda: yp_port("udp") and yp_port("tcp"), "the registration")

    @staticmethod
    def seeded():
        seed = int(os.environ.get("ORRISD_TEST_SEED", random.randrange(1 << 30)))
        print("ORRISD_TEST_SEED=%d" % seed)
        return random.Random(seed)

    def test_kill_at_random_moments(self):
        source = self.seeded()
        self.dns = list(self.directory.fill("plain", self.versions(0)).values())
        self.user = self.directory.user("nina", 2001, gecos="Version 0")
        self.start_system()
        self.assert_map("plain", self.versions(0))
        possible = {0}
        for number in range(1, KILLS + 1):
            self.write_version(number)
            possible.add(number)
            self.orrisd.signal(source.choice((signal.SIGUSR2, signal.SIGUSR1)))
            # A moment somewhere in the update, which takes between milliseconds and seconds.
            time.sleep(source.random() ** 2 * 2.0)
            self.orrisd.kill()
            self.daemons.remove(self.orrisd)

            self.start_again()
            entries = self.whole_map("plain")
            self.assertEqual(len(entries), COUNT, "kill %d: part of a map is served" % number)
            served = {int(value.split()[1]) for value in entries.values()}
            self.assertEqual(len(served), 1, "kill %d: a mixture of %r is served" % (
                number, served))
            version = served.pop()
            self.assertIn(version, possible)
            self.assertEqual(entries, {key.encode(): value.encode() for key, value in
                                       self.versions(version).items()})
            users = self.whole_map("passwd.byname")
            self.assertEqual(list(users), [b"nina"])
            self.assertIn(b":Version ", users[b"nina"])
            possible = {n for n in possible if n >= version}
        self.write_version(KILLS + 1)
        self.orrisd.signal(signal.SIGUSR2)
        self.wait_map("plain", self.versions(KILLS + 1))

    def test_kill_during_the_first_load(self):
        source = self.seeded()
        self.dns = list(self.directory.fill("plain", self.versions(0)).values())
        self.directory.save()
        self.write_config()
        self.start_quorad()
        for _ in range(10 if nistest.SLOW == 1 else 3):
            for name in os.listdir(nistest.CACHE_FOLDER) if os.path.isdir(
                    nistest.CACHE_FOLDER) else []:
                os.remove(os.path.join(nistest.CACHE_FOLDER, name))
            self.start_again()
            time.sleep(source.random() * 0.8)
            self.orrisd.kill()
            self.daemons.remove(self.orrisd)
            self.start_again()
            self.assert_map("plain", self.versions(0))
            self.orrisd.kill()
            self.daemons.remove(self.orrisd)


if __name__ == "__main__":
    nistest.main()
