"""While the directory or its client is away, clients keep the last complete data."""

import os
import signal

import ldif
import nistest


class Outage(nistest.NisTest):
    def setUp(self):
        super().setUp()
        self.entries = {"key%02d" % i: "value %d" % i for i in range(30)}
        self.dns = self.directory.fill("plain", self.entries)
        self.directory.user("nina", 2001)
        self.start_system()
        self.users = self.whole_map("passwd.byname")
        self.assertEqual(list(self.users), [b"nina"])

    def failing_update(self, number=signal.SIGUSR2):
        mark = self.orrisd.log_size()
        self.orrisd.signal(number)
        self.orrisd.wait_log("Update failed|Update from AD failed|While retrieving|While connect",
                             mark)
        self.orrisd.wait_log("Update complete$|Update failed|Update from AD failed", mark)
        self.assert_old_data()

    def assert_old_data(self):
        self.assert_map("plain", self.entries)
        self.assertEqual(self.whole_map("passwd.byname"), self.users)
        with self.client() as client:
            self.assertEqual(client.match("plain", "key07"), (1, b"value 7"))

    def change(self):
        self.directory.replace(self.dns["key03"], "adminDescription", "changed")
        self.directory.remove(self.dns["key04"])
        self.entries["key03"] = "changed"
        del self.entries["key04"]

    def catch_up(self):
        mark = self.orrisd.log_size()
        self.orrisd.signal(signal.SIGUSR2)
        self.orrisd.wait_log("Update complete$", mark)
        self.wait_map("plain", self.entries)
        self.assertEqual(self.whole_map("passwd.byname"), self.users)

    def test_quorad_stopped(self):
        self.assertEqual(self.quorad.stop(), 0)
        for number in (signal.SIGUSR2, signal.SIGUSR1, signal.SIGUSR2):
            self.failing_update(number)
        self.change()
        self.directory.save()
        self.start_quorad()
        self.catch_up()

    def test_quorad_killed(self):
        self.quorad.kill()
        self.failing_update()
        self.start_quorad()
        self.catch_up()

    def test_quorad_frozen(self):
        # An update that waits for an answer must not keep clients from theirs.
        self.quorad.signal(signal.SIGSTOP)
        self.orrisd.signal(signal.SIGUSR2)
        self.orrisd.wait_log("Refresh existing maps")
        self.assert_old_data()
        self.quorad.signal(signal.SIGCONT)
        self.change()
        self.change_directory()
        self.wait_map("plain", self.entries)

    def test_ldif_missing(self):
        os.rename(nistest.LDIF_FILE, nistest.LDIF_FILE + ".away")
        self.failing_update_after_notice()
        self.change()
        self.directory.save()
        self.catch_up_after_notice()

    def test_ldif_malformed(self):
        self.change()
        self.directory.save()
        with open(nistest.LDIF_FILE, "rb") as file:
            good = file.read()
        old = dict(self.entries, key03="value 3", key04="value 4")
        new, self.entries = self.entries, old
        for bad in (good[:len(good) // 2] + b"\nthis is no attribute line\n" +
                    good[len(good) // 2:],
                    b"dn:: !!!not base64\nobjectClass: top\n" + good,
                    good + b"\nobjectClass: record-without-dn\n",
                    os.urandom(5000), b""):
            ldif.write_atomically(nistest.LDIF_FILE, bad)
            self.failing_update_after_notice()
        self.entries = new
        ldif.write_atomically(nistest.LDIF_FILE, good)
        self.catch_up_after_notice()

    def failing_update_after_notice(self):
        self.wait_noticed()
        self.failing_update()

    def catch_up_after_notice(self):
        self.wait_noticed()
        self.catch_up()

    def test_restart_of_both_while_the_ldif_is_missing(self):
        self.assertEqual(self.orrisd.stop(), 0)
        self.assertEqual(self.quorad.stop(), 0)
        os.remove(nistest.LDIF_FILE)
        self.start_quorad()
        self.start_orrisd()
        self.assert_old_data()
        self.failing_update()
        self.change()
        self.directory.save()
        self.catch_up_after_notice()


if __name__ == "__main__":
    nistest.main()
