"""quorad-admin join-check: each mistake on the way from the machine to its maps has its verdict."""

import os
import re
import shutil
import subprocess

import adlab
import adtest
import nistest
from nistest import program, run


class JoinCheck(adtest.AdTest):
    def setUp(self):
        super().setUp()
        self.lab.allow_tombstones()
        self.lab.user("nina", 2001)
        self.lab.fill("plain", {"a": "1"}, self.ZONE)
        self.configuration["quorad.ldap.connect.timeout"] = "2"
        self.configuration["quorad.ldap.timeout"] = "3"
        self.write_config()
        self.start_quorad()
        self.before = self.check(0)
        self.assertEqual(set(self.before.values()), {"OK"}, self.before)

    def check(self, status):
        """@return {check: gravest verdict}; the whole output is in self.output"""
        done = run(program("quorad-admin"), "join-check")
        self.output = done.stdout.decode()
        self.assertEqual(done.returncode, status, self.output + done.stderr.decode())
        self.assertNotIn(adlab.PASSWORD, self.output)
        verdicts = {}
        order = ["OK", "WARNING", "FAILED"]
        for verdict, check in re.findall(r"^(OK|WARNING|FAILED) +(\S+(?: \S+)*)  ", self.output,
                                         re.MULTILINE):
            verdicts[check] = max(verdict, verdicts.get(check, "OK"), key=order.index)
        return verdicts

    def differs(self, status, **expected):
        """The verdicts are those of the healthy system but for the given ones."""
        verdicts = self.check(status)
        for check, verdict in expected.items():
            name = check.replace("_", " ")
            self.assertEqual(verdicts.get(name), verdict, self.output)
        others = {check: verdict for check, verdict in verdicts.items()
                  if check.replace(" ", "_") not in expected}
        self.assertEqual(set(others.values()), {"OK"}, self.output)

    def test_healthy(self):
        for text in ("OK       controllers     dc1.%s (found through DNS)" % adlab.DOMAIN,
                     "dc1.%s is 10.53.0.1" % adlab.DOMAIN, "NIS-TEST$@%s at dc1" % adlab.REALM,
                     self.ZONE + ", nisdomain=example", "1 in the zone: plain",
                     "Everything is in order."):
            self.assertIn(text, self.output)

    def test_dns(self):
        with open("/etc/resolv.conf", "w") as file:
            file.write("nameserver 127.0.0.9\noptions timeout:1 attempts:1\n")
        verdicts = self.check(1)
        self.assertEqual(verdicts["controllers"], "FAILED")
        self.assertNotIn("bind", verdicts)
        self.assertIn("/etc/resolv.conf", self.output)
        self.configuration["quorad.directory"] = "ldap://dc9.%s ldap://dc1.%s" % (
            adlab.DOMAIN, adlab.DOMAIN)
        self.write_config()
        self.lab.write_client_files()
        self.differs(1, address="FAILED", connection="FAILED", bind="FAILED", quorad="OK")
        self.assertIn("dc9." + adlab.DOMAIN, self.output)
        self.assertEqual(run(program("quorad-admin"), "join-check", "--server",
                             "dc1." + adlab.DOMAIN).returncode, 0)

    def test_clock(self):
        self.lab.dc1.stop()
        self.lab.dc1.start(clock="+2m")
        self.differs(0, clock="WARNING")
        self.lab.dc1.stop()
        self.lab.dc1.start(clock="-20m")
        verdicts = self.check(1)
        self.assertEqual(verdicts["clock"], "FAILED")
        self.assertRegex(self.output, r"dc1\S* is (1199|1200|1201) s behind\n +-> set both clocks")

    def test_controller_away(self):
        self.lab.dc1.stop()
        with open("/etc/hosts", "a") as file:
            file.write("10.53.0.1 dc1.%s\n" % adlab.DOMAIN)
        self.configuration["quorad.directory"] = "ldap://dc1." + adlab.DOMAIN
        self.write_config()
        verdicts = self.check(1)
        self.assertEqual((verdicts["connection"], verdicts["bind"]), ("FAILED", "FAILED"))
        self.assertNotIn("zone", verdicts)
        self.lab.dc1.start()
        self.lab.dc1.freeze()
        verdicts = self.check(1)
        self.assertEqual((verdicts["connection"], verdicts["bind"]), ("FAILED", "FAILED"))

    def test_keytab(self):
        shutil.move(adlab.KEYTAB, "/run/keytab")
        verdicts = self.check(1)
        self.assertEqual((verdicts["keytab"], verdicts["bind"]), ("FAILED", "FAILED"))
        self.assertIn("join the machine, or put the keytab back", self.output)
        shutil.copy("/run/keytab", adlab.KEYTAB)
        os.chmod(adlab.KEYTAB, 0o644)
        self.assertEqual(self.check(1)["keytab"], "FAILED")
        self.assertIn("open to others", self.output)
        with open(adlab.KEYTAB, "wb") as file:
            file.write(b"nonsense")
        os.chmod(adlab.KEYTAB, 0o600)
        self.assertEqual(self.check(1)["keytab"], "FAILED")
        shutil.move("/run/keytab", adlab.KEYTAB)
        os.chmod(adlab.KEYTAB, 0o600)
        self.configuration["quorad.hostname"] = "elsewhere"
        self.write_config()
        verdicts = self.check(1)
        self.assertEqual((verdicts["keytab"], verdicts["bind"]), ("FAILED", "FAILED"))
        self.assertIn("has no key of ELSEWHERE$@%s, but of NIS-TEST$@" % adlab.REALM, self.output)

    def test_password_changed(self):
        self.lab.change_machine_password()
        verdicts = self.check(1)
        self.assertEqual((verdicts["keytab"], verdicts["bind"]), ("OK", "FAILED"))
        self.assertIn("write a new keytab", self.output)

    def test_zone(self):
        self.configuration["quorad.zone"] = "CN=none,CN=corp," + adlab.ZONES
        self.write_config()
        self.differs(1, zone="FAILED")
        self.assertIn("zone create 'CN=none,CN=corp," + adlab.ZONES, self.output)
        self.configuration["quorad.zone"] = None
        del self.configuration["quorad.zone"]
        self.write_config()
        self.assertEqual(self.check(1)["configuration"], "FAILED")
        self.assertIn("quorad.zone is not set", self.output)

    def test_container_of_maps(self):
        subprocess.run(["kinit", adlab.ADMIN], input=adlab.PASSWORD.encode(), check=True,
                       capture_output=True)
        run(program("quorad-admin"), "map", "delete", "plain", "--yes", check=True)
        self.lab.delete("CN=nismaps," + self.ZONE)
        self.differs(0, maps="WARNING")

    def test_not_running(self):
        self.quorad.stop()
        self.differs(0, quorad="WARNING")


class Rights(adtest.AdTest):
    def test_tombstones_and_users(self):
        self.write_config()
        done = run(program("quorad-admin"), "join-check")
        text = done.stdout.decode()
        self.assertEqual(done.returncode, 0, text)
        self.assertRegex(text, r"WARNING  deleted objects not readable")
        self.assertIn('dsacls "CN=Deleted Objects,%s" /G' % adlab.BASE, text)
        self.assertRegex(text, r"WARNING  users +no user with a uidNumber")
        self.assertIn("0 failed, 3 warnings.", text)

    def test_embedded_directory(self):
        self.write_config(quorad_directory="ldif:/run/x.ldif")
        done = run(program("quorad-admin"), "join-check")
        self.assertEqual(done.returncode, 1)
        self.assertIn(b"names no Active Directory domain", done.stdout)


if __name__ == "__main__":
    nistest.main()
