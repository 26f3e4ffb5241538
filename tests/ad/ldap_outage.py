"""Controllers that stop, hang or do not let the machine in: a clear message each time, clients are
served from the caches throughout, and everything goes on by itself afterwards."""

import glob
import os
import time
import unittest

import adlab
import adtest
import nistest
from nistest import wait_for

QUICK = {"quorad.ldap.connect.timeout": "2", "quorad.ldap.timeout": "2",
         "quorad.ldap.search.timeout": "5"}
MESSAGES = {
    "stopped": r"dc1\.ad\.example\.com cannot be used: .*Can't contact LDAP server",
    "hanging": r"dc1\.ad\.example\.com cannot be used: .*"
               r"(connected but does not answer|Can't contact LDAP server|Timed out)",
}


class Outage(adtest.AdTest):
    def setUp(self):
        super().setUp()
        self.entries = {"key%02d" % i: "value %d" % i for i in range(20)}
        self.dns = self.lab.fill("plain", self.entries, self.ZONE)
        self.map_dn = "CN=plain,CN=nismaps," + self.ZONE
        self.lab.user("adams", 2001)
        self.configuration.update(QUICK)
        self.start_system()
        self.wait_map("plain", self.entries)
        with self.client() as client:
            wait_for(lambda: client.match("passwd.byname", "adams")[0] == 1, "the users")

    def still_served(self):
        self.assert_map("plain", self.entries)
        with self.client() as client:
            self.assertEqual(client.match("passwd.byname", "adams")[0], 1)

    def refresh_fails(self):
        """An update that fails, and does so before orrisd gives quorad up."""
        mark = self.orrisd.log_size()
        begin = time.monotonic()
        self.orrisd.signal(nistest.signal.SIGUSR2)
        self.orrisd.wait_log("Update from AD failed|Update failed", mark, 150)
        self.assertLess(time.monotonic() - begin, 120 * nistest.SLOW)
        self.assertFalse(self.orrisd.find("deadline passed", mark))
        self.still_served()

    def goes_on(self):
        """A change made now arrives, with the same programs still running."""
        self.lab.entry(self.map_dn, "afterwards", "new")
        self.entries["afterwards"] = "new"

        def arrives():
            self.refresh_tried()
            return self.whole_map("plain") == {
                key.encode(): value.encode() for key, value in self.entries.items()}
        wait_for(arrives, "the change to arrive")
        self.assertTrue(self.quorad.running() and self.orrisd.running())

    def refresh_tried(self):
        mark = self.orrisd.log_size()
        self.orrisd.signal(nistest.signal.SIGUSR2)
        self.orrisd.wait_log("Update from AD failed|Update failed|Update complete$", mark, 150)

    def test_stopped(self):
        mark = self.quorad.log_size()
        self.lab.dc1.stop()
        self.quorad.wait_log(MESSAGES["stopped"], mark)
        self.refresh_fails()
        self.refresh_fails()
        self.assertLessEqual(len(self.quorad.find("warning.*" + MESSAGES["stopped"], mark)), 2,
                             "told more than once")
        self.lab.dc1.start()
        self.quorad.wait_log("answers again", mark)
        self.goes_on()

    def test_hanging(self):
        """Connections are accepted and never answered."""
        mark = self.quorad.log_size()
        self.lab.dc1.freeze()
        self.quorad.wait_log(MESSAGES["hanging"], mark)
        self.refresh_fails()
        self.lab.dc1.thaw()
        self.quorad.wait_log("answers again", mark)
        self.goes_on()

    def test_packets_dropped(self):
        mark = self.quorad.log_size()
        self.lab.dc1.unplug()
        self.quorad.wait_log(MESSAGES["hanging"], mark)
        self.refresh_fails()
        self.lab.dc1.plug()
        self.quorad.wait_log("answers again", mark)
        self.goes_on()

    def test_restarted_between_two_updates(self):
        """Nobody notices."""
        mark = self.orrisd.log_size()
        self.lab.dc1.stop()
        self.lab.dc1.start()
        self.goes_on()
        self.assertFalse(self.orrisd.find("No NIS maps found", mark))

    def test_restarted_while_the_domain_is_away(self):
        """Zone and hierarchy are remembered: the caches serve."""
        self.orrisd.stop()
        self.quorad.stop()
        self.lab.dc1.stop()
        self.start_quorad()
        self.start_orrisd()
        self.wait_served()
        self.still_served()
        self.lab.dc1.start()
        self.goes_on()

    def test_keytab_gone(self):
        mark = self.quorad.log_size()
        os.rename(adlab.KEYTAB, adlab.KEYTAB + ".away")
        self.quorad.wait_log("keytab '/etc/krb5.keytab' cannot be read", mark)
        self.lab.dc1.restart()  # open connections end
        self.still_served()
        os.rename(adlab.KEYTAB + ".away", adlab.KEYTAB)
        self.quorad.wait_log("Keytab and tickets are in order again", mark)
        self.goes_on()

    def test_keytab_open_to_others(self):
        mark = self.quorad.log_size()
        os.chmod(adlab.KEYTAB, 0o644)
        self.quorad.wait_log("keytab '/etc/krb5.keytab' is open to others", mark)
        os.chmod(adlab.KEYTAB, 0o600)
        self.quorad.wait_log("in order again", mark)

    def test_password_changed(self):
        """The keytab is old, until a new one is written."""
        self.quorad.stop()
        self.lab.change_machine_password()
        self.start_quorad()
        self.quorad.wait_log("the keytab does not hold the present password")
        self.refresh_fails()
        self.lab.export_keytab()
        self.quorad.wait_log("answers again")
        self.goes_on()

    # What Kerberos says of clocks that differ, and what quorad adds.
    SKEW = (r"Clock skew too great; the clocks of this machine and of the domain differ by too "
            r"much: set them by one time source \(that of dc1\.ad\.example\.com is 20 minutes %s\)")

    @staticmethod
    def believe_own_clock():
        """Kerberos takes the time of the domain for its own otherwise."""
        with open("/etc/krb5.conf", "a") as file:
            file.write("  kdc_timesync = 0\n")

    def test_clock_of_the_controller(self):
        self.lab.dc1.stop()
        self.lab.dc1.start(clock="+20m")
        self.quorad.stop()
        self.start_quorad()
        self.quorad.wait_log("[Tt]he clocks of this machine and of")
        self.still_served()
        self.quorad.stop()
        self.believe_own_clock()
        self.start_quorad()
        self.quorad.wait_log("warning.*" + self.SKEW % "ahead")
        self.refresh_fails()
        self.refresh_fails()
        self.assertEqual(len(self.quorad.find("warning.*Domain controller.*Clock skew")), 1)
        self.lab.dc1.restart()
        self.goes_on()

    @unittest.skipIf(nistest.SLOW > 1, "sanitizers and a changed clock want to be loaded first")
    def test_clock_of_this_machine(self):
        """It is set wrong, and right again, under a running quorad."""
        self.quorad.stop()
        self.believe_own_clock()
        adlab.write("/run/clock", "+0\n")
        library, = glob.glob("/usr/lib/*/faketime/libfaketimeMT.so.1")
        self.quorad = self.start("quorad", [nistest.program("quorad"), "-d"], {
            "LD_PRELOAD": library, "FAKETIME_TIMESTAMP_FILE": "/run/clock",
            "FAKETIME_NO_CACHE": "1", "FAKETIME_DONT_FAKE_MONOTONIC": "1",
            "DONT_FAKE_MONOTONIC": "1"})
        self.quorad.wait_log("is asked from now on")
        mark = self.quorad.log_size()
        adlab.write("/run/clock", "+20m\n")
        self.lab.dc1.restart()  # open connections end
        self.quorad.wait_log("warning.*" + self.SKEW % "behind", mark)
        self.refresh_fails()
        adlab.write("/run/clock", "+0\n")
        self.quorad.wait_log("answers again", mark)
        self.goes_on()


if __name__ == "__main__":
    nistest.main()
