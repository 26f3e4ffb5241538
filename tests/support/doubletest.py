"""Tests of quorad and orrisd against stand-ins for domain controllers (ldapdouble.py)."""

import ldapcontents
import ldapdouble
import nistest

QUICK = {"quorad.ldap.connect.timeout": "2", "quorad.ldap.timeout": "4",
         "quorad.ldap.search.timeout": "20", "quorad.ldap.failback.interval": "1d",
         "nisd.server.switch.delay": "0"}


class DoubleTest(nistest.NisTest):
    """Every test has controllers of its own, with the maps "plain" and "other" in the zone."""

    controllers = 1

    def setUp(self):
        super().setUp()
        ldapdouble.make_authority()
        self.contents = ldapcontents.Contents(nistest.DOMAIN)
        self.entries = {"key%02d" % i: "value %d" % i for i in range(20)}
        self.other = {"one": "1", "two": "2"}
        self.dns = self.contents.map("plain", self.entries)
        self.contents.map("other", self.other)
        self.map_dn = self.map_named("plain")
        self.doubles = []
        for number in range(self.controllers):
            held = self.contents if number == 0 else self.contents.copy()
            double = ldapdouble.Double(number + 1, held).start()
            self.addCleanup(double.stop)
            self.doubles.append(double)
        self.dc1, self.dc2 = (self.doubles + [None])[:2]
        self.configuration.update(ldapdouble.settings(*self.doubles), **QUICK)

    def map_named(self, name):
        return "CN=%s,CN=nismaps,%s" % (name, self.contents.zone_dn)

    def start_system(self, *arguments, **settings):
        self.write_config(**settings)
        self.start_quorad()
        self.start_orrisd(*arguments)
        self.wait_served()

    def tried(self):
        """One update, however it ends; it does end before orrisd gives quorad up."""
        mark = self.orrisd.log_size()
        self.orrisd.signal(nistest.signal.SIGUSR2)
        found = self.orrisd.wait_log("Update from AD failed|Update failed|Update complete$", mark,
                                     150)
        self.assertFalse(self.orrisd.find("deadline passed", mark))
        return "Update complete" in found[-1]

    def arrives(self, expected, name="plain"):
        expected = {nistest.as_key(key): nistest.as_key(value) for key, value in expected.items()}

        def look():
            self.tried()
            return self.whole_map(name) == expected
        nistest.wait_for(look, "%d entries of %s" % (len(expected), name), 120)
