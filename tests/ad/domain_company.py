"""A company's domain: real clients get exactly what an independent look at the domain says, and
after changes there exactly the new state, of which only the changed objects travel."""

import random
import re
import struct

import adlab
import adtest
import expected
import nistest
from nistest import lines_of, run

HOSTS = 10000
USERS = 2500
GROUPS = 60
NESTED = 12
NEVER = 0x7FFFFFFFFFFFFFFF
EPOCH = 11644473600
PARENT = "CN=corp," + adlab.ZONES
CHILD = "CN=zoneA," + PARENT
FOREIGN = "CN=zoneB," + PARENT


def user_attributes(number):
    """What is special about some of the users."""
    if number % 50 == 7:
        return {"userAccountControl": "66082"}  # disabled
    if number % 50 == 8:
        return {"userAccountControl": "544", "pwdLastSet": "0"}  # must change the password
    if number % 50 == 9:
        return {"accountExpires": str((1000000000 + EPOCH) * 10 ** 7)}
    if number % 50 == 10:
        return {"accountExpires": str((4000000000 + EPOCH) * 10 ** 7)}
    if number % 50 == 11:
        return {"gecos": None, "displayName": "Jürgen Ägidius %d" % number}
    if number % 50 == 12:
        return {"unixUserPassword": "$6$salt$hash%d" % number}
    if number % 50 == 13:
        return {"uidNumber": None}  # nobody for Unix
    return {}


def fill_hosts(lab):
    map_dn = lab.map("hosts", CHILD)
    records = []
    for number in range(HOSTS):
        value = "10.%d.%d.%d host%05d h%d" % (
            number // 62500, number // 250 % 250, number % 250 + 1, number, number)
        records.append(lab.entry_record(map_dn, "host%05d" % number,
                                        value + " # Büro" * (number % 100 == 0),
                                        "host%05d" % number)[1])
    lab.ldapadd(records)


def fill_people(lab):
    records, dns = [], []
    for number in range(USERS):
        attributes = {"gecos": "User %d" % number}
        attributes.update(user_attributes(number))
        uid = attributes.pop("uidNumber", str(20000 + number))
        dn, text = lab.user_record("user%04d" % number, uid, 30000 + number % GROUPS,
                                   uidNumber=uid, **attributes)
        records.append(text)
        dns.append(dn)
    lab.ldapadd(records)
    chance = random.Random(4)
    lab.group("everybody", 31000, dns)
    for number in range(GROUPS):
        lab.group("group%03d" % number, 30000 + number, chance.sample(dns, number % 12))
    lab.group("notunix", None, dns[:20])
    below = lab.group("nested00", 32000, dns[100:105])
    for number in range(1, NESTED):
        below = lab.group("nested%02d" % number, 32000 + number,
                          [below, dns[number], "CN=notunix,CN=Users," + adlab.BASE])
    # A circle of groups, and a group whose members have it as their primary one.
    lab.ldapmodify(["dn: CN=nested00,CN=Users,%s\nchangetype: modify\nadd: member\nmember: %s\n"
                    % (adlab.BASE, below)])
    lab.replace("CN=Domain Users,CN=Users," + adlab.BASE, "gidNumber", "513")


def build(lab):
    lab.zone("corp")
    lab.zone("zoneA", PARENT, nistest.DOMAIN)
    lab.zone("zoneB", PARENT, "foreign")
    lab.allow_tombstones()
    fill_hosts(lab)
    lab.fill("auto.home", {"user%04d" % n: "-rw filer%d:/home/&" % n for n in range(50)}, PARENT)
    lab.fill("services", {"svc%d/tcp" % n: "svc%d %d/tcp s%d" % (n, 20000 + n, n)
                          for n in range(50)}, PARENT)
    lab.fill("secret", {"a": "b"}, FOREIGN)
    fill_people(lab)


def machine_search(text_filter, *attributes, base=adlab.BASE, scope="sub"):
    """What the machine account itself sees with another program."""
    run("kinit", "-k", adlab.MACHINE + "$", check=True)
    done = run("ldapsearch", "-N", "-Q", "-LLL", "-Y", "GSSAPI", "-o", "ldif-wrap=no", "-E",
               "pr=500/noprompt", "-H", "ldap://dc1." + adlab.DOMAIN, "-s", scope, "-b", base,
               text_filter, *attributes, check=True)
    return adlab.parse_ldif(done.stdout)


def text(found, name, default=""):
    return found[name][0].decode() if name in found else default


class Company(adtest.AdTest):
    image = "company"
    log_level = "debug"
    build = staticmethod(build)

    def setUp(self):
        super().setUp()
        self.configuration["nisd.startup.delay"] = "300"
        self.start_system()
        with self.client() as client:
            nistest.wait_for(lambda: "group.byname" in client.maplist()[1] and
                             "hosts.byname" in client.maplist()[1], "all maps", 180)
        self.bind_client()

    # -- what the domain says -----------------------------------------------------------------------

    @staticmethod
    def records(name, zone):
        return [(text(one, "description"), text(one, "adminDescription")) for one in machine_search(
            "(objectClass=container)", "description", "adminDescription",
            base="CN=%s,CN=nismaps,%s" % (name, zone), scope="one")]

    def expected_passwd(self):
        users = machine_search(
            "(&(objectClass=user)(objectCategory=person)(uidNumber=*))", "sAMAccountName",
            "uidNumber", "gidNumber", "gecos", "displayName", "unixHomeDirectory", "loginShell",
            "userAccountControl", "accountExpires", "unixUserPassword",
            "msDS-UserPasswordExpiryTimeComputed")
        lines = {}
        for user in users:
            name = text(user, "sAMAccountName")
            lines[name] = ":".join([
                name, self.password(user), text(user, "uidNumber"), text(user, "gidNumber"),
                text(user, "gecos") or text(user, "displayName"), text(user, "unixHomeDirectory"),
                text(user, "loginShell")])
        return lines

    @staticmethod
    def password(user):
        expires = int(text(user, "accountExpires", "0"))
        if int(text(user, "userAccountControl")) & 2:
            return "!!"
        if int(text(user, "msDS-UserPasswordExpiryTimeComputed", str(NEVER))) == 0:
            return "!!"
        if expires not in (0, NEVER) and expires // 10 ** 7 - EPOCH < 1700000000:
            return "!!"
        return text(user, "unixUserPassword") or "!"

    def expected_groups(self, users):
        """{name: (gid, members)} with the members of nested groups and of primary ones."""
        people = {one["dn"]: (text(one, "sAMAccountName"), text(one, "primaryGroupID"))
                  for one in machine_search(
                      "(&(objectClass=user)(objectCategory=person)(uidNumber=*))",
                      "sAMAccountName", "primaryGroupID")}
        found = {one["dn"]: one for one in machine_search(
            "(objectClass=group)", "sAMAccountName", "gidNumber", "objectSid", "member")}
        self.assertEqual({name for name, _ in people.values()}, set(users))

        def names(dn, seen):
            result = set()
            if dn in people:
                return {people[dn][0]}
            if dn not in found or dn in seen:
                return result
            seen.add(dn)
            rid = str(struct.unpack("<I", found[dn]["objectSid"][0][-4:])[0])
            result |= {name for name, primary in people.values() if primary == rid}
            for member in found[dn].get("member", []):
                result |= names(member.decode(), seen)
            return result
        return {text(group, "sAMAccountName"): (int(text(group, "gidNumber")), names(dn, set()))
                for dn, group in found.items() if "gidNumber" in group}

    # -- what clients say ---------------------------------------------------------------------------

    @staticmethod
    def ypcat(name):
        return sorted(lines_of(run("ypcat", "-k", name, timeout=300)))

    @staticmethod
    def as_ypcat(entries):
        return sorted("%s %s" % pair for pair in entries.items())

    def check_hosts(self):
        maps = expected.hosts(self.records("hosts", CHILD))
        for name, entries in maps.items():
            self.assertEqual(self.ypcat(name), self.as_ypcat(entries), name)
        return maps

    def test_clients_see_what_the_domain_says(self):
        maps = self.check_hosts()
        self.assertEqual(len(maps["hosts.byaddr"]), HOSTS)
        self.assertEqual(self.ypcat("auto.home"), self.as_ypcat(dict(
            self.records("auto.home", PARENT))))
        for name, entries in expected.services(self.records("services", PARENT)).items():
            self.assertEqual(self.ypcat(name), self.as_ypcat(entries), name)
        with self.client() as client:
            self.assertFalse([name for name in client.maplist()[1] if "secret" in name])
        self.check_accounts()
        self.check_getent(maps)

    def check_accounts(self):
        passwd = self.expected_passwd()
        self.assertEqual(len(passwd), USERS - USERS // 50)
        self.assertEqual(self.ypcat("passwd.byname"), self.as_ypcat(passwd))
        self.assertEqual(self.ypcat("passwd.byuid"), self.as_ypcat(
            {line.split(":")[2]: line for line in passwd.values()}))
        listed = sorted(lines_of(run("getent", "-s", "passwd:nis", "passwd")))
        self.assertEqual(listed, sorted(passwd.values()))
        kinds = [line.split(":")[1] for line in passwd.values()]
        self.assertEqual(kinds.count("!!"), 3 * (USERS // 50))
        self.check_groups(passwd)

    def check_groups(self, passwd):
        wanted = self.expected_groups(passwd)
        self.assertEqual(len(wanted), GROUPS + NESTED + 2)
        self.assertEqual(len(wanted["everybody"][1]), USERS - USERS // 50)
        self.assertEqual(len(wanted["Domain Users"][1]), USERS - USERS // 50)
        pieces, names = {}, {}
        for line in lines_of(run("ypcat", "group.byname", timeout=300)):
            self.assertLessEqual(len(line.encode()), 1024)
            name, _, gid, members = line.split(":")
            names.setdefault(int(gid), []).append(name)
            pieces.setdefault(int(gid), []).extend(one for one in members.split(",") if one)
        self.assertEqual(set(pieces), {gid for gid, _ in wanted.values()})
        for name, (gid, members) in wanted.items():
            self.assertEqual(sorted(pieces[gid]), sorted(members), name)
            self.assertIn(name, names[gid])
        for user in ("user0000", "user0101", "user2499"):
            expected_ids = {gid for gid, members in wanted.values() if user in members}
            expected_ids.add(int(passwd[user].split(":")[3]))
            self.assertEqual({int(gid) for gid in lines_of(run("id", "-G", user))[0].split()},
                             expected_ids, user)

    def check_getent(self, maps):
        for name in ("host00000", "host05000", "h9999"):
            line = maps["hosts.byname"][name].split("#")[0].split()
            self.assertEqual(lines_of(run("getent", "-s", "hosts:nis", "hosts", name))[0].split(),
                             line)
        found = {" ".join(line.split()) for line in lines_of(
            run("getent", "-s", "hosts:nis", "hosts", timeout=300))}
        wanted = {" ".join(line.split("#")[0].split()) for line in maps["hosts.byaddr"].values()}
        self.assertEqual(len(found & wanted), HOSTS)

    # -- changes ------------------------------------------------------------------------------------

    def changed(self, mark, name="hosts"):
        lines = self.orrisd.find("Update complete for map '%s'" % name, mark)
        self.assertEqual(len(lines), 1, lines)
        return int(re.search(r"(\d+) records updated", lines[0]).group(1))

    def refreshed(self, objects):
        """One refresh makes clients see the domain's state; @param objects that travel"""
        mark = self.orrisd.log_size()
        self.refresh()
        self.check_hosts()
        self.assertEqual(self.changed(mark), objects)

    def test_changes_reach_clients_with_one_refresh(self):
        lab, hosts = self.lab, "CN=hosts,CN=nismaps," + CHILD
        lab.entry(hosts, "fresh", "10.99.0.1 fresh f", "fresh")
        self.refreshed(1)
        lab.replace("CN=host00001," + hosts, "adminDescription", "10.99.0.2 host00001 newalias")
        self.refreshed(1)
        lab.ldapmodify(["dn: CN=host00002,%s\nchangetype: modify\nreplace: description\n"
                        "description: renamed\n-\nreplace: adminDescription\n"
                        "adminDescription: 10.99.0.3 renamed\n" % hosts])
        self.refreshed(1)
        lab.move("CN=host00003," + hosts, hosts, cn="another name")
        self.refreshed(1)
        lab.delete("CN=host00004," + hosts)
        self.refreshed(1)
        lab.delete("CN=fresh," + hosts)
        lab.replace("CN=host00005," + hosts, "adminDescription", "10.99.0.5 host00005")
        lab.ldapadd([lab.entry_record(hosts, "n%d" % n, "10.98.0.%d n%d" % (n, n))[1]
                     for n in range(1, 31)])
        self.refreshed(32)
        mark = self.orrisd.log_size()
        self.refresh()
        self.assertLessEqual(self.changed_or_skipped(mark), 0)
        self.check_hosts()

    def changed_or_skipped(self, mark):
        if self.orrisd.find("Skipping update for map 'hosts'", mark):
            return 0
        return self.changed(mark)

    def test_moved_out_and_in(self):
        hosts = "CN=hosts,CN=nismaps," + CHILD
        self.configuration["quorad.ldap.compare.interval"] = "1"
        self.write_config()
        mark = self.quorad.log_size()
        self.quorad.signal(nistest.signal.SIGHUP)
        self.quorad.wait_log("Configuration read again", mark)
        self.lab.move("CN=host00007," + hosts, "CN=secret,CN=nismaps," + FOREIGN)
        self.refresh()
        self.check_hosts()
        self.assertEqual(run("ypmatch", "host00007", "hosts.byname").returncode, 1)
        self.lab.move("CN=host00007,CN=secret,CN=nismaps," + FOREIGN, hosts)
        self.refresh()
        self.check_hosts()
        self.assertEqual(lines_of(run("ypmatch", "host00007", "hosts.byname")),
                         ["10.0.0.8 host00007 h7"])

    def test_accounts_follow(self):
        lab = self.lab
        user = "CN=user0020,CN=Users," + adlab.BASE
        lab.replace(user, "userAccountControl", "66082")
        lab.replace("CN=user0021,CN=Users," + adlab.BASE, "loginShell", "/bin/zsh")
        lab.ldapmodify(["dn: CN=everybody,CN=Users,%s\nchangetype: modify\ndelete: member\n"
                        "member: %s\n" % (adlab.BASE, user)])
        lab.delete("CN=user0022,CN=Users," + adlab.BASE)
        self.refresh()
        passwd = self.expected_passwd()
        self.assertEqual(passwd["user0020"].split(":")[1], "!!")
        self.assertEqual(self.ypcat("passwd.byname"), self.as_ypcat(passwd))
        wanted = self.expected_groups(passwd)["everybody"][1]
        self.assertNotIn("user0020", wanted)
        served = set()
        for line in lines_of(run("ypcat", "group.byname")):
            if line.split(":")[2] == "31000":
                served |= set(line.split(":")[3].split(","))
        self.assertEqual(served, wanted)


if __name__ == "__main__":
    nistest.main()
