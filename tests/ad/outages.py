"""Bad days of a domain, seen by real clients: whatever happens to the controllers and to the machine's
account, clients are answered all the time, with one complete state after another, and everything goes
on by itself afterwards."""

import os
import re
import signal
import threading
import time

import adlab
import adtest
import nistest
from nistest import lines_of, run, wait_for

DC1, DC2 = "dc1." + adlab.DOMAIN, "dc2." + adlab.DOMAIN
PATIENCE = 10.0  # seconds in which a client wants its answer


class Watcher(threading.Thread):
    """Asks with the clients' own programs, again and again, and keeps what is wrong."""

    def __init__(self, states, user):
        super().__init__(daemon=True)
        self.states = states  # all that the map has ever been; grows
        self.user = user
        self.faults = []
        self.rounds = 0
        self.slowest = 0.0
        self.orders = []
        self.ending = threading.Event()

    def run(self):
        # Each look takes reserved ports, which stay taken for a minute.
        while not self.ending.wait(0.5):
            begin = time.monotonic()
            try:
                self.look()
            except Exception as error:  # noqa: B902 - anything is a fault of the service
                self.faults.append(repr(error))
            self.slowest = max(self.slowest, time.monotonic() - begin)
            self.rounds += 1

    def look(self):
        self.expect(lines_of(run("ypmatch", "constant", "plain")), ["always here"])
        self.expect(lines_of(run("getent", "passwd", "adams")), [self.user])
        listed = frozenset(lines_of(run("ypcat", "-k", "plain")))
        if listed not in list(self.states):
            self.faults.append("a state that never was: %r" % sorted(listed))
        poll = run("yppoll", "-h", "127.0.0.1", "-d", nistest.DOMAIN, "plain").stdout.decode()
        order = int(re.search(r"order number (\d+)", poll).group(1))
        if self.orders and order < self.orders[-1]:
            self.faults.append("order number %d after %d" % (order, self.orders[-1]))
        self.orders.append(order)

    def expect(self, found, wanted):
        if found != wanted:
            self.faults.append("%r instead of %r" % (found, wanted))

    def finish(self):
        self.ending.set()
        self.join()


class BadDay(adtest.AdTest):
    settings = {}

    def setUp(self):
        super().setUp()
        self.entries = {"constant": "always here", "a": "1", "b": "2"}
        self.dns = self.lab.fill("plain", self.entries, self.ZONE)
        self.lab.user("adams", 2001)
        for controller in self.lab.controllers[1:]:
            self.lab.replicate(self.lab.dc1, controller)
        self.configuration.update({"quorad.ldap.connect.timeout": "2", "quorad.ldap.timeout": "2",
                                   "quorad.ldap.search.timeout": "5", **self.settings})
        self.start_system()
        self.wait_map("plain", self.entries)
        self.bind_client()
        user = "adams:!:2001:100:Adams:/home/adams:/bin/bash"
        wait_for(lambda: lines_of(run("getent", "passwd", "adams")) == [user], "the user")
        self.states = [self.state()]
        self.watcher = Watcher(self.states, user)
        self.watcher.start()
        self.addCleanup(self.watcher.finish)
        self.pids = (self.quorad.pid, self.orrisd.pid)

    def state(self):
        return frozenset("%s %s" % pair for pair in self.entries.items())

    def tried(self):
        """One update, however it ends; it does end before orrisd gives quorad up."""
        mark = self.orrisd.log_size()
        self.orrisd.signal(signal.SIGUSR2)
        self.orrisd.wait_log("Update from AD failed|Update failed|Update complete$", mark, 150)
        self.assertFalse(self.orrisd.find("deadline passed", mark))

    def change(self, value, controller):
        """A change made on a controller reaches clients, with the same processes running."""
        self.entries["a"] = value
        self.states.append(self.state())
        self.lab.replace(self.dns["a"], "adminDescription", value, controller=controller)

        def arrived():
            self.tried()
            return run("ypmatch", "a", "plain").stdout.decode() == value + "\n"
        wait_for(arrived, "'%s' to reach clients" % value, 120)
        self.assertTrue(self.quorad.running() and self.orrisd.running())
        self.assertEqual((self.quorad.pid, self.orrisd.pid), self.pids)

    def round_passed(self):
        """Clients have asked everything once more."""
        rounds = self.watcher.rounds
        wait_for(lambda: self.watcher.rounds > rounds + 1, "clients")

    def well_served(self):
        self.round_passed()
        self.assertEqual(self.watcher.faults, [])
        self.assertLess(self.watcher.slowest, PATIENCE * nistest.SLOW)

    def fails(self, message):
        """An update in vain is told, and clients do not notice."""
        mark = self.quorad.log_size()
        self.tried()
        self.quorad.wait_log(message, mark)
        self.well_served()


class TwoControllers(BadDay):
    controllers = 2
    settings = {"quorad.directory": "ldap://%s ldap://%s" % (DC1, DC2),
                "quorad.ldap.failback.interval": "1d", "nisd.server.switch.delay": "3"}

    def in_use(self):
        return self.quorad.find("is asked from now on")[-1]

    def test_one_after_the_other(self):
        lab = self.lab
        self.assertIn(DC1, self.in_use())
        lab.dc1.stop()
        self.change("on the second", lab.dc2)
        self.assertIn(DC2, self.in_use())
        self.assertTrue(self.quorad.find(r"dc1\.\S* cannot be used"))
        self.well_served()
        lab.dc1.start()
        lab.replicate(lab.dc2, lab.dc1)
        lab.dc2.freeze()
        self.change("back on the first", lab.dc1)
        self.assertIn(DC1, self.in_use())
        self.assertTrue(self.quorad.find(r"dc2\.\S* cannot be used"))
        self.well_served()
        lab.dc2.thaw()
        lab.replicate(lab.dc1, lab.dc2)
        lab.dc1.unplug()
        self.change("packets dropped", lab.dc2)
        self.well_served()
        lab.dc2.unplug()
        self.tried()
        self.well_served()
        lab.dc1.plug()
        lab.dc2.plug()
        self.change("all are back", lab.dc2 if DC2 in self.in_use() else lab.dc1)
        self.well_served()
        self.assertGreater(len(set(self.watcher.orders)), 3)


class OneController(BadDay):
    settings = {"quorad.directory": "ldap://" + DC1}

    def test_stopped_hanging_and_dropped(self):
        dc1 = self.lab.dc1
        dc1.stop()
        self.fails("cannot be used.*Can't contact LDAP server|none of the domain controllers")
        dc1.start()
        self.change("after the stop", dc1)
        dc1.freeze()
        self.tried()
        self.well_served()
        self.assertTrue(self.quorad.find("connected but does not answer|Timed out|cannot be used"))
        dc1.thaw()
        self.change("after the freeze", dc1)
        dc1.unplug()
        self.tried()
        self.well_served()
        dc1.plug()
        self.change("after the drop", dc1)
        self.well_served()

    def test_keytab_gone_and_password_changed(self):
        mark = self.quorad.log_size()
        os.rename(adlab.KEYTAB, adlab.KEYTAB + ".away")
        self.quorad.wait_log("keytab '/etc/krb5.keytab' cannot be read", mark)
        self.lab.dc1.restart()
        self.tried()
        self.well_served()
        os.rename(adlab.KEYTAB + ".away", adlab.KEYTAB)
        self.change("keytab is back", self.lab.dc1)
        mark = self.quorad.log_size()
        self.lab.change_machine_password()
        self.lab.dc1.restart()  # what was open with the old password ends
        # New tickets are needed at once, because the old ones lie in a keytab that is touched.
        os.utime(adlab.KEYTAB)
        self.tried()
        self.quorad.wait_log("the keytab does not hold the present password", mark)
        self.well_served()
        self.lab.export_keytab()
        self.change("new keytab", self.lab.dc1)
        self.well_served()

    def test_clock(self):
        mark = self.quorad.log_size()
        self.lab.dc1.stop()
        self.lab.dc1.start(clock="+20m")
        self.tried()
        self.quorad.wait_log("clocks? of this machine and of", mark)
        self.well_served()
        self.lab.dc1.restart()
        self.change("right again", self.lab.dc1)
        self.well_served()

    def test_quorad_and_orrisd_restarted_meanwhile(self):
        """Both start while the domain is away: the watcher may not notice quorad's restart, and
        orrisd serves from its caches at once."""
        self.lab.dc1.stop()
        self.quorad.stop()
        self.well_served()
        self.start_quorad()
        self.well_served()
        self.watcher.finish()
        self.assertEqual(self.orrisd.stop(), 0)
        self.start_orrisd()
        wait_for(lambda: run("ypmatch", "constant", "plain").returncode == 0, "the caches")
        self.assertEqual(frozenset(lines_of(run("ypcat", "-k", "plain"))), self.state())
        self.pids = (self.quorad.pid, self.orrisd.pid)
        self.lab.dc1.start()
        self.change("all are back", self.lab.dc1)


if __name__ == "__main__":
    nistest.main()
