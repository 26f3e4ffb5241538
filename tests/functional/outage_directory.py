"""While the directory or its client is away, clients keep the last complete data."""

import os
import re
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
        with self.directory_change():
            os.rename(nistest.LDIF_FILE, nistest.LDIF_FILE + ".away")
        self.failing_update()
        self.failing_update(signal.SIGUSR1)
        self.change()
        self.save_directory()
        self.catch_up()

    def test_ldif_malformed(self):
        with open(nistest.LDIF_FILE, "rb") as file:
            before = file.read()
        lines = before.count(b"\n")
        for bad in (before + b"\nthis is no attribute line\n",
                    b"dn:: !!!not base64\nobjectClass: top\n\n" + before,
                    before + b"\nobjectClass: record-without-dn\n",
                    before + b"\ndn: no equals sign\nobjectClass: top\n",
                    b"\xff\x00" * 3000, b""):
            mark = self.quorad.log_size()
            with self.directory_change():
                ldif.write_atomically(nistest.LDIF_FILE, bad)
            message = self.quorad.find("Directory file not taken over", mark)
            self.assertEqual(len(message), 1)
            self.assertRegex(message[0], r"directory\.ldif:\d+")
            number = int(re.search(r"directory\.ldif:(\d+)", message[0]).group(1))
            self.assertLessEqual(number, lines + 4)
            # quorad goes on with what it read last, so the update may succeed or fail.
            mark = self.orrisd.log_size()
            self.orrisd.signal(signal.SIGUSR2)
            self.orrisd.wait_log("Update complete$|Update failed|Update from AD failed", mark)
            self.assert_old_data()
        self.change()
        self.save_directory()
        self.catch_up()

    def test_restart_of_quorad_with_a_malformed_ldif(self):
        self.assertEqual(self.quorad.stop(), 0)
        ldif.write_atomically(nistest.LDIF_FILE, b"dn: DC=example,DC=com\nrubbish\n")
        self.start_quorad()
        mark = self.orrisd.log_size()
        self.orrisd.signal(signal.SIGUSR2)
        self.orrisd.wait_log("Update complete$|Update failed|Update from AD failed", mark)
        self.assert_old_data()
        self.change()
        self.save_directory()
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
        self.save_directory()
        self.catch_up()


if __name__ == "__main__":
    nistest.main()
