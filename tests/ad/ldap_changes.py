"""Changes in a domain reach clients with one refresh, and only changed objects are fetched."""

import re

import adlab
import adtest
import nistest


class Changes(adtest.AdTest):
    COUNT = 40
    readable_tombstones = False

    def setUp(self):
        super().setUp()
        self.entries = {"key%02d" % i: "value %d" % i for i in range(self.COUNT)}
        self.dns = self.lab.fill("plain", self.entries, self.ZONE)
        self.map_dn = "CN=plain,CN=nismaps," + self.ZONE
        self.other = {"one": "1", "two": "2"}
        self.other_dns = self.lab.fill("other", self.other, self.ZONE)
        if self.readable_tombstones:
            self.lab.allow_tombstones()
            # One that anybody can see: without it there is nothing to tell the right by.
            self.lab.delete(self.lab.entry(self.map_dn, "gone", "before"))
        self.start_system()
        self.assert_map("plain", self.entries)
        self.assert_map("other", self.other)

    def changed_records(self, mark, name="plain"):
        """How many objects the last update of the map read."""
        lines = self.orrisd.find("Update complete for map '%s'" % name, mark)
        self.assertEqual(len(lines), 1, lines)
        return int(re.search(r"(\d+) records updated", lines[0]).group(1))

    def refreshed(self, name="plain"):
        mark = self.orrisd.log_size()
        self.refresh()
        self.assert_map("plain", self.entries)
        self.assert_map("other", self.other)
        return self.changed_records(mark, name)

    def test_added_changed_renamed(self):
        self.lab.entry(self.map_dn, "added", "new")
        self.lab.replace(self.dns["key00"], "adminDescription", "another")
        self.lab.replace(self.dns["key01"], "description", "renamed")
        self.lab.move(self.dns["key02"], self.map_dn, cn="other name")
        self.entries.update(added="new", key00="another", renamed="value 1")
        del self.entries["key01"]
        self.assertEqual(self.refreshed(), 4)

    def test_keys_exchanged(self):
        self.lab.replace(self.dns["key00"], "description", "key01")
        self.lab.replace(self.dns["key01"], "description", "key00")
        self.entries.update(key00="value 1", key01="value 0")
        self.assertEqual(self.refreshed(), 2)

    def test_deleted(self):
        for key in ("key03", "key04"):
            self.lab.delete(self.dns[key])
            del self.entries[key]
        self.assertEqual(self.refreshed(), 2)
        self.assertTrue(self.orrisd.find("plain - key03"))

    def test_deleted_and_key_taken_over(self):
        self.lab.delete(self.dns["key05"])
        self.lab.entry(self.map_dn, "key05", "from another object")
        self.entries["key05"] = "from another object"
        self.refreshed()

    def test_moved(self):
        """Out of a map, into another one, and back."""
        moved = self.dns["key06"]
        name = moved.split(",", 1)[0]
        self.lab.move(moved, "CN=other,CN=nismaps," + self.ZONE)
        self.other["key06"] = self.entries.pop("key06")
        self.refreshed()
        self.lab.move(name + ",CN=other,CN=nismaps," + self.ZONE, self.map_dn)
        self.entries["key06"] = self.other.pop("key06")
        self.refreshed()
        self.lab.move(moved, "CN=Users," + adlab.BASE)
        del self.entries["key06"]
        self.refreshed()

    def test_whole_map_moved_away(self):
        self.lab.move(self.map_dn, "CN=Users," + adlab.BASE)
        self.refresh()
        with self.client() as client:
            self.assertEqual(client.maplist()[1].count("plain"), 0)
        self.assert_map("other", self.other)

    def test_deletions_while_quorad_is_away(self):
        self.quorad.stop()
        self.lab.delete(self.dns["key07"])
        self.lab.move(self.dns["key08"], "CN=Users," + adlab.BASE)
        self.lab.replace(self.dns["key09"], "adminDescription", "changed")
        del self.entries["key07"], self.entries["key08"]
        self.entries["key09"] = "changed"
        self.start_quorad()
        self.refreshed()

    def test_nothing_changed(self):
        self.refresh()
        mark = self.orrisd.log_size()
        self.refresh()
        lines = self.orrisd.find(
            "Skipping update for map 'plain'|Update complete for map 'plain'.* 0 records", mark)
        self.assertEqual(len(lines), 1, lines)


class ChangesWithReadableTombstones(Changes):
    readable_tombstones = True

    def test_deleted_is_read_from_the_tombstones(self):
        self.lab.entry(self.map_dn, "added", "new")
        self.entries["added"] = "new"
        self.refreshed()
        self.assertTrue(self.quorad.find("Deleted objects can be read on dc1"))
        mark = self.quorad.log_size()
        self.lab.delete(self.dns["key03"])
        del self.entries["key03"]
        self.refreshed()
        self.assertFalse(self.quorad.find("Compared '", mark))


    def test_deleted_and_state_lost(self):
        """Tombstones name their map: nothing need be known of the entry."""
        self.quorad.stop()
        self.lab.delete(self.dns["key03"])
        del self.entries["key03"]
        self.quorad = self.start("quorad", [nistest.program("quorad"), "-d", "-f"])
        nistest.wait_for(self.quorad_answers, "quorad")
        self.refreshed()


class Sequence(adtest.AdTest):
    """A restored controller counts from a lower number on: nothing may go unnoticed."""

    def test_restored_controller(self):
        entries = {"key%02d" % i: "value %d" % i for i in range(20)}
        dns = self.lab.fill("plain", entries, self.ZONE)
        self.start_system()
        self.assert_map("plain", entries)
        self.lab.dc1.stop()
        self.lab.dc1.save("/run/backup")
        self.lab.dc1.start()
        map_dn = "CN=plain,CN=nismaps," + self.ZONE
        later = dict(entries, added="after the backup", key00="changed after the backup")
        self.lab.entry(map_dn, "added", "after the backup")
        self.lab.replace(dns["key00"], "adminDescription", "changed after the backup")
        self.lab.delete(dns["key01"])
        del later["key01"]
        self.refresh()
        self.assert_map("plain", later)
        self.lab.dc1.stop()
        self.lab.dc1.restore("/run/backup")
        self.lab.dc1.start()
        self.quorad.wait_log("was restored from a backup")
        self.refresh()
        self.assert_map("plain", entries)
        self.lab.entry(map_dn, "fresh", "1")
        self.lab.delete(dns["key02"])
        entries["fresh"] = "1"
        del entries["key02"]
        self.refresh()
        self.assert_map("plain", entries)


if __name__ == "__main__":
    nistest.main()
