"""Another controller takes over: map sets switch by the rules of orrisd, order numbers never go
backwards, and data of two controllers are never mixed."""

import adlab
import adtest
import nistest
from nistest import wait_for

DC1, DC2 = "dc1.ad.example.com", "dc2.ad.example.com"


class Failover(adtest.AdTest):
    controllers = 2

    def setUp(self):
        super().setUp()
        self.entries = {"key%02d" % i: "value %d" % i for i in range(20)}
        self.dns = self.lab.fill("plain", self.entries, self.ZONE)
        self.map_dn = "CN=plain,CN=nismaps," + self.ZONE
        self.lab.user("adams", 2001)
        self.lab.replicate(self.lab.dc1, self.lab.dc2)
        self.configuration.update({
            "quorad.directory": "ldap://%s ldap://%s" % (DC1, DC2),
            "quorad.ldap.connect.timeout": "2", "quorad.ldap.timeout": "2",
            "quorad.ldap.search.timeout": "5", "quorad.ldap.failback.interval": "1d",
            "nisd.server.switch.delay": "0"})

    def go(self, **settings):
        self.start_system(**settings)
        self.wait_map("plain", self.entries)
        self.assertTrue(self.quorad.find("%s .* is asked from now on" % DC1))

    def add(self, key, value, controller):
        _, record = self.lab.entry_record(self.map_dn, key, value)
        self.lab.ldapadd([record], controller)

    def switched_to(self, name):
        wait_for(lambda: self.tried() or self.serving() == name, "the maps of " + name)
        self.assert_map("plain", self.entries)

    def order(self, name="plain"):
        with self.client() as client:
            status, order = client.order(name)
        self.assertEqual(status, 1)
        return order

    def tried(self):
        mark = self.orrisd.log_size()
        self.orrisd.signal(nistest.signal.SIGUSR2)
        self.orrisd.wait_log("Update from AD failed|Update failed|Update complete$", mark, 150)

    def arrives(self, expected):
        """With refreshes, and never an order number below one that was seen before."""
        orders = [self.order()]

        def look():
            self.tried()
            orders.append(self.order())
            return self.whole_map("plain") == {
                key.encode(): value.encode() for key, value in expected.items()}
        wait_for(look, "the state of the other controller", 120)
        self.assertEqual(orders, sorted(orders))

    def serving(self):
        found = self.orrisd.find("add mapset into m_current_mapSets")
        return found[-1].rpartition(" ")[2]

    def test_next_one_takes_over(self):
        self.go()
        for stop in (self.lab.dc1.stop, self.lab.dc1.freeze):
            with self.subTest(stop.__name__):
                if stop == self.lab.dc1.freeze:
                    self.quorad.stop()
                    self.lab.dc1.start()
                    self.lab.replicate(self.lab.dc2, self.lab.dc1)
                    self.start_quorad()
                    self.arrives(self.entries)
                stop()
                name = "after " + stop.__name__
                self.add(name, "on the second", self.lab.dc2)
                self.entries[name] = "on the second"
                self.arrives(self.entries)
                self.assertEqual(self.serving(), DC2)
                with self.client() as client:
                    self.assertEqual(client.match("passwd.byname", "adams")[0], 1)
        self.lab.dc1.thaw()

    def test_delay_of_the_switch(self):
        self.go(nisd_server_switch_delay="1h")
        self.lab.dc1.stop()
        self.add("later", "x", self.lab.dc2)
        wait_for(lambda: self.tried() or self.orrisd.find("Detect DC switching, skip update"),
                 "the other controller to be noticed")
        self.tried()
        self.assert_map("plain", self.entries)
        self.assertEqual(self.serving(), DC1)

    def test_other_states_are_not_mixed(self):
        """The second controller lags behind: all of its state is served, or nothing of it."""
        self.go()
        self.lab.replace(self.dns["key00"], "adminDescription", "not replicated")
        self.lab.entry(self.map_dn, "key99", "not replicated")
        first = dict(self.entries, key00="not replicated", key99="not replicated")
        self.refresh()
        self.assert_map("plain", first)
        self.lab.dc1.stop()
        self.arrives(self.entries)
        self.assertEqual(self.serving(), DC2)

    def test_back_to_the_preferred_one(self):
        self.go(quorad_ldap_failback_interval="4")
        self.lab.dc1.stop()
        self.quorad.wait_log("%s .* is asked from now on" % DC2)
        self.arrives(self.entries)
        mark = self.quorad.log_size()
        self.lab.dc1.start()
        self.quorad.wait_log("%s .* is asked from now on" % DC1, mark)
        self.arrives(self.entries)
        self.switched_to(DC1)

    def test_deleted_while_the_other_was_asked(self):
        """Each controller's maps learn of it, though one was away when it happened."""
        self.go(quorad_ldap_failback_interval="4")
        self.lab.dc1.stop()
        self.quorad.wait_log("%s .* is asked from now on" % DC2)
        self.arrives(self.entries)
        self.lab.delete(self.dns["key05"], controller=self.lab.dc2)
        del self.entries["key05"]
        self.arrives(self.entries)
        mark = self.quorad.log_size()
        self.lab.dc1.start()
        self.lab.replicate(self.lab.dc2, self.lab.dc1)
        self.quorad.wait_log("%s .* is asked from now on" % DC1, mark)
        self.switched_to(DC1)
        self.arrives(self.entries)

    def test_found_through_dns(self):
        self.start_system(quorad_directory="ldap:")
        self.wait_map("plain", self.entries)
        asked = self.quorad.find("is asked from now on")
        self.assertEqual(len(asked), 1)
        first, other = ((self.lab.dc1, DC2) if DC1 in asked[0] else (self.lab.dc2, DC1))
        first.stop()
        self.quorad.wait_log("%s .* is asked from now on" % other)
        self.switched_to(other)


if __name__ == "__main__":
    nistest.main()
