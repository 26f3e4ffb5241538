"""What the signals and the update interval do."""

import os
import shutil
import signal

import nistest
import procinfo
from nistest import run, program, wait_for


class Signals(nistest.NisTest):
    def setUp(self):
        super().setUp()
        self.entries = {"a": "1", "b": "2"}
        self.dns = self.directory.fill("plain", self.entries)

    def client_threads(self):
        return [name for name in procinfo.thread_names(self.orrisd.pid)
                if name.startswith("client-")]

    def hang_up(self, **settings):
        mark = self.orrisd.log_size()
        self.write_config(**settings)
        self.orrisd.signal(signal.SIGHUP)
        self.orrisd.wait_log("Re-reading config file /etc/velmorix/velmorix.conf", mark)
        self.orrisd.wait_log("UpdateLoop: nisd.update.interval", mark)

    def test_rebuild_reads_everything_again(self):
        self.start_system()
        mark = self.orrisd.log_size()
        self.orrisd.signal(signal.SIGUSR1)
        self.orrisd.wait_log("Re-building existing explicit maps", mark)
        self.orrisd.wait_log("Rebuild complete for map 'plain'", mark)
        self.orrisd.wait_log("Update complete$", mark)
        self.assertTrue(self.orrisd.find(
            r"Update complete for map 'plain', server dc1\.example\.com\. 2 records updated", mark))
        self.assert_map("plain", self.entries)

    def test_refresh_without_changes_reads_nothing(self):
        self.start_system()
        with self.client() as client:
            before = client.order("plain")
        mark = self.orrisd.log_size()
        self.refresh()
        self.assertTrue(self.orrisd.find("Skipping update for map 'plain'", mark) or
                        self.orrisd.find("Update complete for map 'plain'.* 0 records", mark))
        with self.client() as client:
            self.assertEqual(client.order("plain"), before)

    def test_hang_up_adds_threads_and_stops_none(self):
        self.start_system(nisd_threads="2")
        self.assertEqual(len(self.client_threads()), 2)
        self.hang_up(nisd_threads="5")
        wait_for(lambda: len(self.client_threads()) == 5, "five threads")
        self.hang_up(nisd_threads="1")
        self.assertEqual(self.client_threads(), ["client-%d" % i for i in range(5)])

    def test_hang_up_changes_what_is_served(self):
        self.directory.fill("other", {"x": "y"})
        self.directory.fill("hosts", {"h": "10.0.0.1 h"})
        self.start_system()
        self.hang_up(nisd_exclude_maps="other hosts.byaddr")
        with self.client() as client:
            wait_for(lambda: client.match("other", "x")[0] == -1, "the map to go")
            self.assertEqual(client.match("hosts.byaddr", "10.0.0.1")[0], -1)
            self.assertEqual(client.match("hosts.byname", "h"), (1, b"10.0.0.1 h"))
            self.assertEqual(client.match("plain", "a"), (1, b"1"))
        self.configure("nisd.exclude.maps", None)
        self.hang_up()
        self.refresh()
        self.assert_map("other", {"x": "y"})
        self.assert_map("plain", self.entries)

    def test_permitted_maps_only(self):
        self.directory.fill("other", {"x": "y"})
        self.start_system(nisd_maps="plain passwd passwd.byname")
        with self.client() as client:
            names = client.maplist()[1]
        self.assertIn("plain", names)
        self.assertIn("passwd.byname", names)
        self.assertLessEqual(set(names), {"plain", "passwd", "passwd.byname"})

    def test_negative_interval(self):
        self.start_system(nisd_update_interval="-5")
        self.assertTrue(self.orrisd.find(
            "Negative value for property nisd.update.interval not allowed. Using 1800 seconds"))

    def test_interval_zero_updates_only_on_signals(self):
        self.directory.save()
        self.write_config(nisd_update_interval="0")
        self.start_quorad()
        self.start_orrisd()
        self.refresh()
        self.assert_map("plain", self.entries)
        self.entries["c"] = "3"
        self.directory.entry("CN=plain,CN=nismaps," + self.directory.ZONE, "c", "3")
        self.change_directory()
        self.assert_map("plain", self.entries)

    def test_changes_arrive_after_the_interval(self):
        self.start_system(nisd_update_interval="2")
        self.directory.replace(self.dns["a"], "adminDescription", "changed")
        self.directory.save()
        self.entries["a"] = "changed"
        self.wait_map("plain", self.entries)

    def test_flush_discards_the_caches(self):
        self.start_system()
        self.assertEqual(self.orrisd.stop(), 0)
        names = os.listdir(nistest.CACHE_FOLDER)
        self.assertTrue([name for name in names if name.startswith("example:plain:")])
        self.start_orrisd("-f")
        self.assertTrue(self.orrisd.find("Discarding cache example:plain:"))
        self.wait_served()
        self.assert_map("plain", self.entries)

    def test_caches_serve_at_once_after_a_restart(self):
        self.start_system()
        self.assertEqual(self.orrisd.stop(), 0)
        self.assertEqual(self.quorad.stop(), 0)
        os.remove(nistest.LDIF_FILE)
        self.start_quorad()
        self.start_orrisd()
        self.assert_map("plain", self.entries)

    def test_vanished_cache_folder_ends_the_daemon(self):
        self.start_system()
        shutil.rmtree(nistest.CACHE_FOLDER)
        self.directory.fill("new", {"k": "v"})
        self.directory.replace(self.dns["a"], "adminDescription", "changed")
        self.directory.save()
        self.orrisd.signal(signal.SIGUSR1)
        self.orrisd.wait_log(r"Directory '.*' is gone \(was quordrop called\?\) Cannot continue\.")
        self.assertEqual(self.orrisd.wait(), 0)
        self.assertFalse(os.path.exists(nistest.PID_FILE))

    def test_no_maps_yet_holds_calls_until_the_first_update(self):
        self.directory.save()
        self.write_config()
        self.start_quorad()
        self.orrisd = self.start("orrisd", [program("orrisd"), "-d"])
        self.orrisd.wait_log(r"Ready\.")
        with self.client() as client:
            self.assertEqual(client.match("plain", "a"), (1, b"1"))

    def test_broken_pipe_and_stray_signals(self):
        self.start_system()
        for number in (signal.SIGPIPE, signal.SIGHUP, signal.SIGUSR2, signal.SIGUSR1,
                       signal.SIGPIPE):
            self.orrisd.signal(number)
        self.refresh()
        self.assert_map("plain", self.entries)
        self.assertEqual(run("true").returncode, 0)


if __name__ == "__main__":
    nistest.main()
