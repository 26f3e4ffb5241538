"""A large company through the name services of a real client: whole listings and single look-ups
of ypbind and the system library's NIS services against what the directory holds."""

import ctypes
import random

import ldif
import nistest

USERS = 10000
GROUPS = 2000
LARGE_GROUP = 5000
HOSTS = 5000
NETGROUPS = 1000
NESTING = 6


# The client library itself looks up the portmapper's port, so services cannot come from NIS alone.
LOCAL_SERVICES = ["sunrpc 111/tcp portmapper", "sunrpc 111/udp portmapper"]


def getent(database, *keys):
    switch = database + ":nis" if database != "services" else "services:files nis"
    done = nistest.run("getent", "-s", switch, database, *keys)
    if done.returncode == 2:
        return []
    return nistest.lines_of(done)


def fields(lines):
    return sorted(" ".join(line.split()) for line in lines)


class Company(ldif.Directory):
    """The directory and, beside it, what clients must see of it."""

    def __init__(self, path, domain):
        super().__init__(path, domain)
        self.random = random.Random(20)
        self.passwd = {}
        self.groups = {}
        self.hosts = {}
        self.members = {}
        self._add_users()
        self._add_groups()
        self._add_hosts()
        self._add_small_maps()
        self._add_netgroups()

    def _add_users(self):
        self.user_dns = {}
        for number in range(USERS):
            name = "user%05d" % number
            uid = 20000 + number
            gecos = "Jürgen Ägidius %d" % number if number % 100 == 0 else "User %d" % number
            locked = number % 50 == 7
            self.user_dns[name] = self.user(
                name, uid, 30000 + number % GROUPS, gecos=gecos,
                userAccountControl="514" if locked else "512", unixUserPassword="$6$s$" + name)
            self.passwd[name] = "%s:%s:%d:%d:%s:/home/%s:/bin/bash" % (
                name, "!!" if locked else "$6$s$" + name, uid, 30000 + number % GROUPS, gecos, name)

    def _add_groups(self):
        names = sorted(self.user_dns)
        for number in range(GROUPS):
            group = "group%04d" % number
            size = LARGE_GROUP if number == 5 else self.random.randrange(0, 12)
            chosen = sorted(self.random.sample(names, size))
            self.groups[group] = (30000 + number, chosen)
            self.group(group, 30000 + number, [self.user_dns[name] for name in chosen])

    def _add_hosts(self):
        entries = {}
        for number in range(HOSTS):
            name = "host%04d" % number
            address = "10.%d.%d.%d" % (number // 62500, number // 250 % 250, number % 250 + 1)
            alias = "h%d" % number
            self.hosts[name] = (address, alias)
            entries[name] = "%s %s %s # Büro %d" % (address, name, alias, number)
        self.fill("hosts", entries)

    def _add_small_maps(self):
        self.services = {"svc%d/tcp" % n: "svc%d %d/tcp s%d" % (n, 20000 + n, n) for n in range(50)}
        self.fill("services", self.services)
        self.protocols = {"proto%d" % n: "proto%d %d P%d" % (n, 140 + n, n) for n in range(20)}
        self.fill("protocols", self.protocols)
        self.rpc = {"rpcsvc%d" % n: "rpcsvc%d %d r%d" % (n, 500000 + n, n) for n in range(20)}
        self.fill("rpc", self.rpc)
        self.networks = {"net%d" % n: "net%d 172.16.%d.0 n%d" % (n, n, n) for n in range(20)}
        self.fill("networks", self.networks)
        self.ethers = {"host%04d" % n: "2:0:0:0:0:%x host%04d" % (n, n) for n in range(100)}
        self.fill("ethers", self.ethers)

    def _add_netgroups(self):
        """Chains six deep, each bottom with triples, and two netgroups that name each other."""
        entries = {}
        for number in range(NETGROUPS):
            name = "ng%04d" % number
            if number % NESTING == NESTING - 1 or number == NETGROUPS - 1:
                triples = [("host%04d" % (number % HOSTS), "", "example"),
                           ("", "user%05d" % (number % USERS), "example")]
                self.members[name] = (triples, [])
            else:
                self.members[name] = ([("host%04d" % (number + 1), "-", "example")],
                                      ["ng%04d" % (number + 1)])
        self.members["ng0001"][1].append("ng0000")  # a cycle
        for name, (triples, nested) in self.members.items():
            entries[name] = " ".join(["(%s,%s,%s)" % triple for triple in triples] + nested)
        self.fill("netgroup", entries)

    def triples_of(self, name, seen=None):
        seen = set() if seen is None else seen
        if name in seen:
            return set()
        seen.add(name)
        triples, nested = self.members[name]
        result = set(triples)
        for child in nested:
            result |= self.triples_of(child, seen)
        return result

    def parents_of(self, names):
        result = set(names)
        changed = True
        while changed:
            more = {name for name, (_, nested) in self.members.items() if result & set(nested)}
            changed = not more <= result
            result |= more
        return result


class NssCompany(nistest.NisTest):
    log_level = "info"

    @classmethod
    def setUpClass(cls):
        cls.company = Company(nistest.LDIF_FILE, nistest.DOMAIN)

    def setUp(self):
        super().setUp()
        self.directory = self.company
        self.start_system(nisd_startup_delay="300")
        with self.client() as client:
            nistest.wait_for(lambda: "group.byname" in client.maplist()[1], "all maps", 120)
        with open("/etc/services", "w") as file:
            file.write("".join(line + "\n" for line in LOCAL_SERVICES))
        self.bind_client()

    def test_every_database(self):
        self.check_passwd()
        self.check_group()
        self.check_hosts()
        self.check_small_maps()
        self.check_netgroups()

    def check_passwd(self):
        company = self.company
        self.assertEqual(sorted(getent("passwd")), sorted(company.passwd.values()))
        for name in ("user00000", "user00007", "user09999"):
            self.assertEqual(getent("passwd", name), [company.passwd[name]])
            uid = company.passwd[name].split(":")[2]
            self.assertEqual(getent("passwd", uid), [company.passwd[name]])
        self.assertEqual(getent("passwd", "nobody-here"), [])

    def check_group(self):
        company = self.company
        joined = {}
        for line in getent("group"):
            self.assertLessEqual(len(line), 1024)
            name, _, gid, members = line.split(":")
            joined.setdefault(int(gid), {"names": [], "members": []})
            joined[int(gid)]["names"].append(name)
            joined[int(gid)]["members"] += [member for member in members.split(",") if member]
        self.assertEqual(len(joined), GROUPS)
        for name, (gid, members) in company.groups.items():
            with_primary = sorted(set(members))
            self.assertIn(name, joined[gid]["names"])
            self.assertEqual(sorted(joined[gid]["members"]), with_primary, name)
        self.assertGreater(len(joined[30005]["names"]), 40)
        first = getent("group", "30005")
        self.assertEqual(len(first), 1)
        self.assertTrue(first[0].startswith("group0005:x:30005:user"))
        self.assertEqual(getent("group", "group0005"), first)
        large = set(company.groups["group0005"][1])
        for name in (sorted(large)[0], sorted(large)[-1], "user00001"):
            number = int(name[4:])
            expected = {30000 + number % GROUPS}
            expected |= {gid for gid, members in company.groups.values() if name in members}
            self.assertEqual({int(gid) for gid in nistest.lines_of(
                nistest.run("id", "-G", name))[0].split()}, expected, name)

    def check_hosts(self):
        company = self.company
        expected = {"%s %s %s" % (address, name, alias)
                    for name, (address, alias) in company.hosts.items()}
        self.assertEqual({" ".join(line.split()) for line in getent("hosts")}, expected)
        for name in ("host0000", "host2500", "host4999"):
            address, alias = company.hosts[name]
            line = ["%s %s %s" % (address, name, alias)]
            for key in (name, alias, address):
                self.assertEqual(fields(getent("hosts", key)), line, key)

    def check_small_maps(self):
        company = self.company
        self.assertEqual(fields(getent("services")),
                         sorted(LOCAL_SERVICES + list(company.services.values())))
        self.assertEqual(fields(getent("services", "s7/tcp")), ["svc7 20007/tcp s7"])
        self.assertEqual(fields(getent("services", "20007/tcp")), ["svc7 20007/tcp s7"])
        self.assertEqual(fields(getent("protocols", "proto3")), ["proto3 143 P3"])
        self.assertEqual(fields(getent("protocols", "143")), ["proto3 143 P3"])
        self.assertEqual(set(fields(getent("protocols"))), set(company.protocols.values()))
        self.assertEqual(fields(getent("rpc", "rpcsvc3")), ["rpcsvc3 500003 r3"])
        self.assertEqual(set(fields(getent("rpc"))), set(company.rpc.values()))
        self.assertEqual(fields(getent("networks", "net3")), ["net3 172.16.3.0 n3"])
        self.assertEqual(fields(getent("ethers", "host0011")), ["2:0:0:0:0:b host0011"])

    def check_netgroups(self):
        company = self.company
        library = ctypes.CDLL(None)

        def innetgr(group, host, user):
            as_text = [None if text is None else text.encode() for text in (group, host, user)]
            return library.innetgr(*as_text, b"example") == 1

        for name in ("ng0000", "ng0001", "ng0006", "ng0997", "ng0999"):
            triples = company.triples_of(name)
            found = getent("netgroup", name)
            self.assertEqual(len(found), 1, name)
            listed = found[0].split(None, 1)[1].replace(" ", "")
            self.assertEqual(
                {tuple(text.split(",")) for text in listed.strip("()").split(")(")}, triples, name)
        self.assertTrue(innetgr("ng0000", "host0005", None))
        self.assertTrue(innetgr("ng0000", None, "user00005"))
        self.assertTrue(innetgr("ng0001", "host0001", None))
        # An empty field stands for any name, so only both names together can be outside.
        self.assertFalse(innetgr("ng0006", "host0005", "user00005"))
        self.assertFalse(innetgr("ng0000", "host0099", "user00006"))
        self.assertFalse(innetgr("ng1000", "host0005", "user00005"))
        by_host = self.whole_map("netgroup.byhost")
        expected = {}
        for name, (triples, _) in company.members.items():
            for host, _, domain in triples:
                key = "%s.%s" % (host or "*", domain or "*")
                expected.setdefault(key, set()).add(name)
        self.assertEqual({key.decode(): value.decode() for key, value in by_host.items()},
                         {key: ",".join(sorted(company.parents_of(names)))
                          for key, names in expected.items()})


if __name__ == "__main__":
    nistest.main()
