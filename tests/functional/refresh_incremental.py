"""Only what changed in the directory travels, and clients see exactly the new state."""

import re
import signal

import nistest
from nistest import wait_for


class Incremental(nistest.NisTest):
    COUNT = 50

    def setUp(self):
        super().setUp()
        self.entries = {"key%02d" % i: "value %d" % i for i in range(self.COUNT)}
        self.dns = self.directory.fill("plain", self.entries)
        self.map_dn = "CN=plain,CN=nismaps," + self.directory.ZONE
        self.start_system()
        self.assert_map("plain", self.entries)

    def set_entry(self, dn, key=None, value=None):
        if key is not None:
            self.directory.replace(dn, "description", key)
        if value is not None:
            self.directory.replace(dn, "adminDescription", value)

    def changed_records(self, mark, name="plain"):
        """How many objects the last update of the map read."""
        lines = self.orrisd.find("Update complete for map '%s'" % name, mark)
        self.assertEqual(len(lines), 1, lines)
        return int(re.search(r"(\d+) records updated", lines[0]).group(1))

    def order(self, name="plain"):
        with self.client() as client:
            status, order = client.order(name)
        self.assertEqual(status, 1)
        return order

    def test_changed_added_deleted_swapped(self):
        before = self.order()
        self.set_entry(self.dns["key00"], value="another")
        self.directory.entry(self.map_dn, "added", "new")
        self.directory.remove(self.dns["key01"])
        self.set_entry(self.dns["key02"], key="key03")
        self.set_entry(self.dns["key03"], key="key02")
        self.entries.update(key00="another", added="new", key02="value 3", key03="value 2")
        del self.entries["key01"]
        mark, asked = self.orrisd.log_size(), self.quorad.log_size()
        self.change_directory()
        self.assert_map("plain", self.entries)
        self.assertEqual(self.changed_records(mark), 5)
        self.assertGreater(self.order(), before)
        self.assertFalse(self.orrisd.find("still duplicate", mark))
        self.assertTrue(self.quorad.find(
            r"\(&\(usnchanged>=\d+\)\(usnchanged<=\d+\)\)", asked),
            "no search with a range of sequence numbers")
        with self.client() as client:
            self.assertEqual(client.match("plain", "key01")[0], -3)
            self.assertEqual(client.match("plain", "key02"), (1, b"value 3"))
            self.assertEqual(client.match("plain", "added"), (1, b"new"))
            self.assertEqual(client.walk("plain"),
                             {k.encode(): v.encode() for k, v in self.entries.items()})

    def test_each_change_alone(self):
        steps = [
            ("value", lambda: self.set_entry(self.dns["key10"], value="v10")),
            ("key", lambda: self.set_entry(self.dns["key11"], key="renamed")),
            ("added", lambda: self.directory.entry(self.map_dn, "x", "y", cn="extra")),
            ("deleted", lambda: self.directory.remove(self.dns["key12"])),
            ("deleted again", lambda: self.directory.remove("CN=extra," + self.map_dn)),
        ]
        outcomes = [{"key10": "v10"}, {"key11": None, "renamed": "value 11"}, {"x": "y"},
                    {"key12": None}, {"x": None}]
        for (name, change), outcome in zip(steps, outcomes):
            with self.subTest(name):
                change()
                for key, value in outcome.items():
                    if value is None:
                        del self.entries[key]
                    else:
                        self.entries[key] = value
                mark = self.orrisd.log_size()
                self.change_directory()
                self.assert_map("plain", self.entries)
                self.assertEqual(self.changed_records(mark), 1)

    def test_moved_out_and_back(self):
        attributes = self.directory.objects[self.dns["key20"]]
        self.directory.remove(self.dns["key20"])
        elsewhere = self.directory.add("CN=parked,CN=Users," + self.directory.BASE, attributes)
        value = self.entries.pop("key20")
        self.change_directory()
        self.assert_map("plain", self.entries)
        self.directory.remove(elsewhere)
        self.directory.add(self.dns["key20"], attributes)
        self.entries["key20"] = value
        self.change_directory()
        self.assert_map("plain", self.entries)

    def test_two_objects_with_one_key(self):
        mark = self.orrisd.log_size()
        self.directory.entry(self.map_dn, "key30", "usurper")
        self.entries["key30"] = "usurper"
        self.change_directory()
        self.assert_map("plain", self.entries)
        self.assertTrue(self.orrisd.find("meet duplicate key30: usurper in layer 0", mark))
        self.assertTrue(self.orrisd.find("key30: usurper is still duplicate in layer 0", mark))

    def test_families_lose_the_old_keys_everywhere(self):
        dns = self.directory.fill("hosts", {"alpha": "10.0.0.1 alpha a", "beta": "10.0.0.2 beta"})
        self.change_directory()
        self.assert_map("hosts.byaddr", {"10.0.0.1": "10.0.0.1 alpha a",
                                         "10.0.0.2": "10.0.0.2 beta"})
        self.set_entry(dns["alpha"], value="10.0.0.9 alpha alias")
        mark = self.orrisd.log_size()
        self.change_directory()
        self.assertEqual(self.changed_records(mark, "hosts"), 1)
        line = "10.0.0.9 alpha alias"
        self.assert_map("hosts.byaddr", {"10.0.0.9": line, "10.0.0.2": "10.0.0.2 beta"})
        self.assert_map("hosts.byname", {"alpha": line, "alias": line, "beta": "10.0.0.2 beta"})

    def test_bad_record_is_left_out_and_comes_back_when_mended(self):
        dns = self.directory.fill("hosts", {"good": "10.0.0.1 good", "bad": "nowhere bad"})
        mark = self.orrisd.log_size()
        self.change_directory()
        self.assert_map("hosts.byname", {"good": "10.0.0.1 good"})
        self.assertTrue(self.orrisd.find("Error when parsing record '.*nowhere bad", mark))
        self.set_entry(dns["bad"], value="10.0.0.2 bad")
        self.change_directory()
        self.assert_map("hosts.byname", {"good": "10.0.0.1 good", "bad": "10.0.0.2 bad"})

    def test_rebuild_sees_deletions(self):
        self.directory.remove(self.dns["key03"])
        self.directory.replace(self.dns["key04"], "adminDescription", "other")
        self.directory.save()
        del self.entries["key03"]
        self.entries["key04"] = "other"
        self.refresh(signal.SIGUSR1)
        self.assert_map("plain", self.entries)
        self.refresh()
        self.assert_map("plain", self.entries)

    def test_netgroups_follow(self):
        dns = self.directory.fill("netgroup", {"inner": "(h1,u1,d)", "outer": "inner"})
        self.change_directory()
        self.assert_map("netgroup.byhost", {"h1.d": "inner,outer"})
        self.set_entry(dns["inner"], value="(h2,u1,d)")
        self.change_directory()
        self.assert_map("netgroup.byhost", {"h2.d": "inner,outer"})
        self.assert_map("netgroup.byuser", {"u1.d": "inner,outer"})
        self.directory.remove(dns["outer"])
        self.change_directory()
        self.assert_map("netgroup.byhost", {"h2.d": "inner"})

    def test_maps_appear_and_vanish(self):
        self.directory.fill("hosts", {"alpha": "10.0.0.1 alpha"})
        self.change_directory()
        with self.client() as client:
            self.assertLessEqual({"plain", "hosts.byname", "hosts.byaddr"},
                                 set(client.maplist()[1]))
        self.directory.remove("CN=hosts,CN=nismaps," + self.directory.ZONE)
        self.change_directory()
        with self.client() as client:
            names = client.maplist()[1]
            self.assertFalse([name for name in names if name.startswith("hosts")], names)
            for name in ("hosts.byname", "hosts.byaddr"):
                self.assertEqual(client.match(name, "alpha")[0], -1)
        self.assert_map("plain", self.entries)

    def test_users_and_groups_follow(self):
        self.change_directory()
        before = self.order("passwd.byname")
        self.refresh()
        self.assertEqual(self.order("passwd.byname"), before)
        dn = self.directory.user("nina", 2001)
        self.directory.group("crew", 600, [dn])
        self.change_directory()
        line = "nina:$6$salt$hashnina:2001:100:Nina:/home/nina:/bin/bash"
        self.assert_map("passwd.byname", {"nina": line})
        self.assert_map("group.byname", {"crew": "crew:x:600:nina"})
        self.assertGreater(self.order("passwd.byname"), before)
        self.directory.replace(dn, "userAccountControl", "514")
        self.change_directory()
        self.assert_map("passwd.byuid", {"2001": line.replace("$6$salt$hashnina", "!!")})

    def test_many_rounds(self):
        for number in range(8):
            self.set_entry(self.dns["key%02d" % number], value="round %d" % number)
            self.entries["key%02d" % number] = "round %d" % number
            self.change_directory()
            self.assert_map("plain", self.entries)
        wait_for(lambda: self.order() > 0, "the order")


if __name__ == "__main__":
    nistest.main()
