"""What real controllers cannot be brought to on demand: one that binds and sends every search away,
one that breaks off in the middle of a page, one that was restored with higher numbers."""

import doubletest
import ldapcontents
import nistest
from ldapdouble import BUSY, OPERATIONS_ERROR, UNAVAILABLE, UNWILLING
from quoradsession import Failed, Session

DOMAIN = "ad.example.com"


def below_the_top(search):
    """Searches, but not the reading of single objects."""
    return search.scope != 0


class TwoControllers(doubletest.DoubleTest):
    controllers = 2

    def in_use(self):
        return self.quorad.find("is asked from now on")[-1]

    def change(self, double, value):
        """What is changed on that controller, and there only, reaches clients."""
        self.entries["key00"] = value
        double.contents.change(self.dns["key00"], "adminDescription", value)
        self.arrives(self.entries)
        self.assertIn(double.host, self.in_use())

    def sent_away(self, bad, good, code, applies=None):
        with self.subTest(code=code, only_searches=applies is not None):
            mark = self.quorad.log_size()
            bad.applies, bad.code = applies, code
            self.change(good, "%s, code %d" % (good.host, code))
            self.assertTrue(self.quorad.find("warning.*%s cannot be used: .*as the test wants it"
                                             % bad.host, mark))
            self.assert_map("other", self.other)
            bad.code = 0

    def test_every_question_is_sent_away(self):
        self.start_system()
        self.assertIn(self.dc1.host, self.in_use())
        for code in (UNAVAILABLE, BUSY, UNWILLING, OPERATIONS_ERROR):
            self.sent_away(self.dc1, self.dc2, code)
            self.dc1, self.dc2 = self.dc2, self.dc1

    def test_searches_are_sent_away(self):
        """Single objects are still answered."""
        self.start_system()
        for code in (UNAVAILABLE, UNWILLING):
            self.sent_away(self.dc1, self.dc2, code, below_the_top)
            self.dc1, self.dc2 = self.dc2, self.dc1

    def test_question_that_no_controller_answers(self):
        """It is the question that is at fault: the controller stays."""
        self.start_system()
        other = ldapcontents.normal(self.map_named("other"))
        for double in self.doubles:
            double.code = UNWILLING
            double.applies = lambda search: ldapcontents.normal(search.base) == other and (
                search.scope == 1)
        self.dc1.contents.entry(self.map_named("other"), "three", "3")
        for _ in range(4):
            self.assertFalse(self.tried())
        with Session() as session:
            for _ in range(8):
                with self.assertRaisesRegex(Failed, "as the test wants it"):
                    list(session.search(DOMAIN, self.map_named("other"), "(cn=*)", ["cn"]))
        self.assertEqual(len(self.quorad.find("is asked from now on")), 1)
        self.assert_map("plain", self.entries)
        self.assert_map("other", self.other)


class OneController(doubletest.DoubleTest):
    def goes_on(self):
        self.entries["fresh"] = "%d" % len(self.entries)
        self.contents.entry(self.map_dn, "fresh", self.entries["fresh"])
        self.arrives(self.entries)
        self.assertTrue(self.quorad.running() and self.orrisd.running())

    def test_every_question_is_sent_away(self):
        """There is no other one to ask: it is asked again, and clients are served meanwhile."""
        self.start_system()
        self.dc1.code = UNAVAILABLE
        for _ in range(4):
            self.assertFalse(self.tried())
            self.assert_map("plain", self.entries)
        self.dc1.code = 0
        self.goes_on()

    def test_broken_off_in_a_page(self):
        """A part of a map is never taken for the whole."""
        self.start_system()
        for count in (0, 7):
            self.contents.change(self.dns["key00"], "adminDescription", "changed %d" % count)
            self.entries["key00"] = "changed %d" % count
            mark = self.orrisd.log_size()
            self.dc1.cut_after = count
            self.orrisd.signal(nistest.signal.SIGUSR1)  # everything is read again
            self.orrisd.wait_log("Update from AD failed|Update failed|Update complete$", mark)
            self.assertIsNone(self.dc1.cut_after, "nothing was broken off")
            self.assertEqual(len(self.whole_map("plain")), len(self.entries))
            self.arrives(self.entries)

    def test_search_that_cannot_be_gone_on_with(self):
        self.write_config(quorad_ldap_page_size="7")
        self.start_quorad()
        self.dc1.refuse_cookies = True
        found = []
        with Session() as session:
            with self.assertRaisesRegex(Failed, "no such cookie"):
                for page in session.search(DOMAIN, self.map_dn, "(usnchanged<=99999999)", ["cn"]):
                    found += page
            self.assertEqual(len(found), 7)
            self.dc1.refuse_cookies = False
            pages = list(session.search(DOMAIN, self.map_dn, "(usnchanged<=99999999)", ["cn"]))
            self.assertEqual(sum(len(page) for page in pages), len(self.entries))

    def test_broken_off_while_values_are_completed(self):
        """Members come in parts, each of which may be the last one."""
        family = self.contents.many_users(5000)
        self.contents.group("team", 500, ldapcontents.Members(family, 5000))
        self.write_config()
        self.start_quorad()
        self.quorad.wait_log("is asked from now on")
        asked = []

        def cut(search):
            if any(b"range=3000" in name for name in search.attributes):
                asked.append(search)
                self.dc1.disconnect()
        self.dc1.before = cut
        with Session() as session:
            for _ in range(2):
                with self.assertRaises(Failed):
                    list(session.search(DOMAIN, ldapcontents.USERS, "(objectClass=group)",
                                        ["member"]))
            self.assertTrue(asked)
            self.dc1.before = None
            (group,), *_ = session.search(DOMAIN, ldapcontents.USERS, "(objectClass=group)",
                                          ["member"])
            self.assertEqual(len(group["member"]), 5000)
            self.assertEqual(len(set(group["member"])), 5000)
            (part,), *_ = session.search(DOMAIN, ldapcontents.USERS, "(objectClass=group)",
                                         ["member;range=10-19"])
            self.assertEqual(len(part["member;range=10-19"]), 10)
            self.assertEqual(len(session.group("team")[2]), 5000)


class Restored(doubletest.DoubleTest):
    """The database is another one, and its numbers say nothing about that of before."""

    def restored(self, usn):
        """The directory as it was, with changes that no number shows."""
        self.start_system()
        self.assert_map("plain", self.entries)
        self.assert_map("other", self.other)
        older = self.contents.copy()
        for key in ("key01", "key02"):
            del older.objects[ldapcontents.normal(self.dns[key])], self.entries[key]
        older.objects[ldapcontents.normal(self.dns["key03"])].set("adminDescription", "older")
        self.entries["key03"] = "older"
        found = older.entry(self.map_dn, "key04b", "was there once")
        older.objects[ldapcontents.normal(found)].touch(5)
        self.entries["key04b"] = "was there once"
        for one in older.objects.values():
            one.touch(min(int(one.values["usnchanged"][1][0]), usn - 1))
        mark, orrisd_mark = self.quorad.log_size(), self.orrisd.log_size()
        self.dc1.restore(older)
        older.usn = usn
        self.contents = older
        with Session() as session:  # sooner than quorad would ask by itself
            session.fetch(DOMAIN, "", ["highestCommittedUSN"])
        self.assertTrue(self.quorad.find("was restored from a backup", mark))
        self.arrives(self.entries)
        self.assert_map("other", self.other)
        for name, count in (("plain", len(self.entries) + 2), ("other", 2)):
            self.assertTrue(self.orrisd.find(
                "Update complete for map '%s'.* %d records" % (name, count), orrisd_mark))
        mark = self.orrisd.log_size()
        older.change(self.dns["key05"], "adminDescription", "afterwards")
        older.delete(self.dns["key06"])
        del self.entries["key06"]
        self.entries["key05"] = "afterwards"
        self.refresh()
        self.assert_map("plain", self.entries)
        self.assertTrue(self.orrisd.find("Update complete for map 'plain'.* 2 records", mark))
        self.assertEqual(len(self.quorad.find("was restored from a backup")), 1)

    def test_with_higher_numbers(self):
        self.restored(self.contents.usn + 5000)

    def test_with_lower_numbers(self):
        self.restored(self.contents.usn - 15)

    def test_with_deletions_that_can_be_read(self):
        self.contents.tombstones_readable = True
        self.contents.delete(self.contents.entry(self.map_dn, "gone", "before"))
        self.restored(self.contents.usn + 5000)

    def test_two_connections_at_once(self):
        """What one of them learns last may be what the controller said first."""
        self.write_config(quorad_ldap_page_size="5")
        self.start_quorad()
        self.quorad.wait_log("is asked from now on")
        others = []

        def between(search):
            if search.base == self.dc1.settings_dn and not others:
                others.append(Session())
                self.contents.entry(self.map_dn, "new", "1")
                others[0].fetch(DOMAIN, "", ["highestCommittedUSN"])
        with Session() as holder, Session() as asking:
            # An open search keeps its connection, so that another one must be made.
            next(holder.search(DOMAIN, self.map_dn, "(cn=*)", ["cn"]))
            mark = self.quorad.log_size()
            self.dc1.before = between
            asking.fetch(DOMAIN, "", ["highestCommittedUSN"])
            self.dc1.before = None
            self.assertTrue(others)
            others[0].socket.close()
            root = asking.fetch(DOMAIN, "", ["highestCommittedUSN"])
        self.assertEqual(int(root["highestCommittedUSN"][0]), self.contents.usn)
        self.assertFalse(self.quorad.find("was restored", mark))


if __name__ == "__main__":
    nistest.main()
