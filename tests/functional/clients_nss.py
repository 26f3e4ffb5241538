"""Users, groups, hosts and the rest through ypbind and the C library."""

import nistest
from nistest import lines_of, run


class NameServices(nistest.NisTest):
    def setUp(self):
        super().setUp()
        directory = self.directory
        users = {name: directory.user(name, uid, 500 + uid % 2)
                 for name, uid in (("amal", 1001), ("bela", 1002), ("cleo", 1003))}
        directory.user("gone", 1004, 500, userAccountControl="514")
        directory.user("zoltan", 1005, 500, gecos="Zoltán Kertész")
        self.even = directory.group("even", 500, [users["bela"]])
        inner = directory.group("inner", 601, [users["cleo"]])
        directory.group("outer", 602, [users["amal"], inner])
        directory.fill("hosts", {"anvil": "10.1.2.3 anvil anvil.example.com hammerhost"})
        directory.fill("services", {"forge/tcp": "forge 7777/tcp smithy"})
        directory.fill("networks", {"yard": "yard 10.9 backyard"})
        directory.fill("protocols", {"tin": "tin 201 TIN"})
        directory.fill("rpc", {"bellowd": "bellowd 390001 bellow"})
        directory.fill("ethers", {"anvil": "52:54:0:1:2:3 anvil"})
        directory.fill("netgroup", {"smiths": "(-,amal,) (anvil,bela,)", "all": "smiths (-,cleo,)"})
        self.start_system()
        self.bind_client()

    def getent(self, database, *keys):
        # Only this database from NIS alone: the client library itself needs hosts and services.
        return lines_of(run("getent", "-s", database + ":nis", database, *keys))

    def test_users(self):
        line = "amal:$6$salt$hashamal:1001:501:Amal:/home/amal:/bin/bash"
        self.assertEqual(self.getent("passwd", "amal"), [line])
        self.assertEqual(self.getent("passwd", "1001"), [line])
        self.assertEqual(self.getent("passwd", "gone"),
                         ["gone:!!:1004:500:Gone:/home/gone:/bin/bash"])
        self.assertIn("Zoltán Kertész", self.getent("passwd", "zoltan")[0])
        self.assertEqual(sorted(line.split(":")[0] for line in self.getent("passwd")),
                         ["amal", "bela", "cleo", "gone", "zoltan"])
        self.assertEqual(run("getent", "-s", "passwd:nis", "passwd", "nobody-there").returncode, 2)

    def test_groups_and_id(self):
        self.assertEqual(self.getent("group", "outer"), ["outer:x:602:amal,cleo"])
        self.assertEqual(self.getent("group", "601"), ["inner:x:601:cleo"])
        self.assertEqual(sorted(line.split(":")[0] for line in self.getent("group")),
                         ["even", "inner", "outer"])
        text = lines_of(run("id", "cleo"))[0]
        self.assertTrue(text.startswith("uid=1003(cleo) "), text)
        self.assertIn("601(inner)", text)
        self.assertIn("602(outer)", text)
        self.assertNotIn("(even)", text)
        self.assertIn("602(outer)", lines_of(run("id", "amal"))[0])

    def test_other_databases(self):
        for key in ("hammerhost", "10.1.2.3"):
            self.assertRegex(lines_of(run("getent", "hosts", key))[0], r"^10\.1\.2\.3\s+anvil\b")
        for key in ("smithy/tcp", "7777/tcp"):
            self.assertRegex(lines_of(run("getent", "services", key))[0],
                             r"^forge\s+7777/tcp smithy")
        self.assertRegex(self.getent("networks", "backyard")[0], r"^yard\s+10\.9\.0\.0")
        self.assertRegex(self.getent("protocols", "201")[0], r"^tin\s+201 TIN")
        self.assertRegex(self.getent("rpc", "bellow")[0], r"^bellowd\s+390001\s+bellow")
        self.assertRegex(self.getent("ethers", "anvil")[0], r"^52:54:0:1:2:3 anvil")

    def test_netgroups(self):
        line = self.getent("netgroup", "all")[0]
        self.assertIn("amal", line)
        self.assertIn("cleo", line)
        self.assertIn("anvil", line)

    def test_log_in_while_maps_change(self):
        for number in range(5):
            self.directory.replace(self.even, "gidNumber", str(500 + 10 * number))
            self.change_directory()
            self.assertIn("(inner)", lines_of(run("id", "cleo"))[0])
            self.assertEqual(self.getent("group", "even"), ["even:x:%d:bela" % (500 + 10 * number)])


if __name__ == "__main__":
    nistest.main()
