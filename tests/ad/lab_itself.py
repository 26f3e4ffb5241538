"""The laboratory: what the other tests against a domain rely on."""

import calendar
import subprocess
import time

import adlab
import adtest
import nistest
from nistest import run


class OneController(adtest.AdTest):
    def as_machine(self, *arguments):
        run("kinit", "-k", adlab.MACHINE + "$", check=True)
        return run("ldapsearch", "-N", "-Q", "-LLL", "-Y", "GSSAPI", "-H",
                   "ldap://" + self.lab.dc1.host, *arguments, check=True).stdout

    def test_machine_account(self):
        answer = self.as_machine("-b", self.ZONE, "-s", "base", "extensionName")
        self.assertIn(b"extensionName: nisdomain=" + nistest.DOMAIN.encode(), answer)

    def test_password_of_the_machine_account(self):
        self.lab.change_machine_password()
        self.assertNotEqual(run("kinit", "-k", adlab.MACHINE + "$").returncode, 0)
        self.lab.export_keytab()
        self.as_machine("-b", "", "-s", "base")

    def test_tombstones_by_right(self):
        dns = self.lab.fill("plain", {"alpha": "a", "beta": "b"}, self.ZONE)
        self.lab.delete(dns["alpha"])
        where = ("-b", "CN=Deleted Objects," + adlab.BASE, "-s", "one", "-E",
                 "!1.2.840.113556.1.4.417", "lastKnownParent")
        self.assertNotIn(b"lastKnownParent", self.as_machine(*where))
        self.lab.allow_tombstones()
        self.assertIn(b"lastKnownParent: CN=plain,", self.as_machine(*where))
        self.assertEqual(len(self.lab.search("(description=*)", base=self.ZONE)), 1)

    def test_frozen_unplugged_restarted(self):
        dc1 = self.lab.dc1
        ask = ("ldapsearch", "-x", "-LLL", "-o", "nettimeout=1", "-l", "1", "-H",
               "ldap://" + dc1.address, "-s", "base", "-b", "")
        self.assertEqual(run(*ask).returncode, 0)
        dc1.freeze()
        with self.assertRaises(subprocess.TimeoutExpired):
            run(*ask, timeout=3)
        dc1.thaw()
        self.assertEqual(run(*ask).returncode, 0)
        dc1.unplug()
        self.assertNotEqual(run(*ask, timeout=30).returncode, 0)
        dc1.plug()
        nistest.wait_for(dc1.answers, "the controller")
        dc1.stop()
        self.assertNotEqual(run(*ask).returncode, 0)
        dc1.start(clock="+20m")
        self.assertAlmostEqual(self.clock() - time.time(), 1200, delta=60)
        dc1.restart()
        self.assertAlmostEqual(self.clock() - time.time(), 0, delta=60)

    def clock(self):
        text = self.lab.search(attributes=["currentTime"], base="", scope="base")[0]["currentTime"][0]
        return calendar.timegm(time.strptime(text.decode(), "%Y%m%d%H%M%S.0Z"))

    def test_restored_controller(self):
        self.lab.dc1.stop()
        self.lab.dc1.save("/run/backup")
        self.lab.dc1.start()
        self.lab.map("lost", self.ZONE)
        self.lab.dc1.stop()
        self.lab.dc1.restore("/run/backup")
        self.lab.dc1.start()
        self.assertEqual(self.lab.search("(cn=lost)"), [])

    def test_encrypted_connections(self):
        for name, url, ca, success in (("dc1", "ldaps://" + self.lab.dc1.host, adlab.CA_FILE, True),
                                       ("other", "ldaps://" + self.lab.dc1.host,
                                        adlab.OTHER_CA_FILE, False),
                                       ("address", "ldaps://" + self.lab.dc1.address,
                                        adlab.CA_FILE, False)):
            with self.subTest(name):
                done = subprocess.run(
                    ["ldapsearch", "-x", "-H", url, "-s", "base", "-b", ""], capture_output=True,
                    env={"LDAPTLS_CACERT": ca, "PATH": "/usr/bin"}, check=False)
                self.assertEqual(done.returncode == 0, success, done.stderr)


class TwoControllers(adtest.AdTest):
    controllers = 2

    @staticmethod
    def announced():
        found = run("dig", "+short", "_ldap._tcp.dc._msdcs." + adlab.DOMAIN, "SRV").stdout.decode()
        return {line.split()[3].rstrip(".") for line in found.splitlines()
                if not line.startswith(";")}

    def test_replication_and_discovery(self):
        self.assertEqual(self.announced(), {"dc1.ad.example.com", "dc2.ad.example.com"})
        dns = self.lab.fill("plain", {"alpha": "a"}, self.ZONE)
        self.lab.replicate(self.lab.dc1, self.lab.dc2)
        found = self.lab.search("(description=alpha)", controller=self.lab.dc2)
        self.assertEqual([one["dn"] for one in found], [dns["alpha"]])
        self.lab.dc1.stop()
        self.assertEqual(self.announced(), {"dc1.ad.example.com", "dc2.ad.example.com"})
        self.lab.replace(dns["alpha"], "adminDescription", "b", controller=self.lab.dc2)


if __name__ == "__main__":
    nistest.main()
