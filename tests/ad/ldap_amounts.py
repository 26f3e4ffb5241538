"""What quorad keeps in memory does not depend on how much a domain holds.

Bounds are on the highest resident size (VmHWM), compared with that after the same questions to a small
domain. A map of 1,000,000 entries may cost SLACK in all: half of what nothing but the GUIDs of its
entries would be (16 bytes each), and less than a hundredth of the entries themselves. Users and groups
are sorted in a temporary database whose cache is CACHE; of a group the names of its members are in
memory, once as a list that doubles while it grows, and a page of them encoded."""

import doubletest
import ldapcontents
import nistest
import procinfo
from quoradsession import Failed, Session

DOMAIN = "ad.example.com"
MEGABYTE = 1 << 20
SLACK = 8 * MEGABYTE
CACHE = 8 * MEGABYTE
NAME = 3 * 32  # bytes of a short text in a list that has just grown
FRAME = 8 * MEGABYTE  # the largest message
ATTRIBUTES = ["cn", "description", "adminDescription"]


class Amounts(doubletest.DoubleTest):
    log_level = "debug"
    ENTRIES = 1000000
    FEW_ENTRIES = 10000
    MEMBERS = 100000
    FEW_MEMBERS = 1000
    VALUES = 250000  # more than a message carries

    def setUp(self):
        super().setUp()
        self.write_config(quorad_ldap_compare_interval="0")

    def go(self):
        self.start_quorad()
        self.quorad.wait_log("is asked from now on")

    def peak(self):
        return procinfo.peak_bytes(self.quorad.pid)

    def grown(self, question, bound):
        """The question is answered, with no more than so many bytes on top of the highest use."""
        before = self.peak()
        question()
        growth = self.peak() - before
        print("%s: %.1f MB of %.1f" % (self.id(), growth / MEGABYTE, bound / MEGABYTE), flush=True)
        self.assertLess(growth, bound)

    def read(self, session, dn, filter_text, count):
        pages = session.search(DOMAIN, dn, filter_text, ATTRIBUTES, decode=False)
        self.assertEqual(sum(pages), count)

    def read_and_compare(self, session, dn, count):
        """Everything, and then what changed, with a comparison of all that is there."""
        self.read(session, dn, "(usnchanged<=%d)" % self.contents.usn, count)
        usn = self.contents.usn
        self.contents.change(self.dns["key00"], "adminDescription", "%d" % usn)
        mark = self.quorad.log_size()
        self.read(session, dn, "(&(usnchanged>=%d)(usnchanged<=%d))" % (
            usn + 1, self.contents.usn), 0)
        self.assertTrue(self.quorad.find("Compared '%s': %d objects, 0 gone" % (dn, count), mark))

    def test_map(self):
        small = self.contents.big_map("small", self.FEW_ENTRIES)
        large = self.contents.big_map("large", self.ENTRIES)
        self.go()
        with Session() as session:
            self.read_and_compare(session, small, self.FEW_ENTRIES)
            self.grown(lambda: self.read_and_compare(session, large, self.ENTRIES), SLACK)

    def test_users_and_members(self):
        family = self.contents.many_users(self.FEW_MEMBERS)
        dn = self.contents.group("team", 5000, ldapcontents.Members(family, self.FEW_MEMBERS))
        self.go()
        with Session() as session:
            self.enumerated(session, self.FEW_MEMBERS)
            self.of_one_group(session, self.FEW_MEMBERS)
            family.count = self.MEMBERS
            self.contents.change(dn, "member", ldapcontents.Members(family, self.MEMBERS))
            self.grown(lambda: self.enumerated(session, self.MEMBERS),
                       SLACK + 2 * CACHE + NAME * self.MEMBERS)
            # As an object all of its values are in one message: a list of them, the object that is
            # made of it, and the message.
            self.grown(lambda: self.of_one_group(session, self.MEMBERS), 4 * FRAME)
            self.contents.change(dn, "member", ldapcontents.Members(family, self.VALUES))
            self.grown(lambda: self.refused(session), 4 * FRAME)

    def enumerated(self, session, count):
        self.assertEqual(session.users(), count)
        self.assertEqual(sum(len(members) for _, members in session.groups()), count)

    def of_one_group(self, session, count):
        (group,), *_ = session.search(DOMAIN, ldapcontents.USERS, "(objectClass=group)", ["member"])
        self.assertEqual(len(group["member"]), count)

    def refused(self, session):
        for question in (
                lambda: list(session.search(DOMAIN, ldapcontents.USERS, "(cn=team)", ["member"])),
                lambda: session.fetch(DOMAIN, "CN=team," + ldapcontents.USERS, ["member"])):
            with self.assertRaisesRegex(Failed, "CN=team.*too large for a message: 'member' alone"):
                question()


if __name__ == "__main__":
    nistest.main()
