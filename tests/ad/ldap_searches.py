"""What a controller hands out in parts is put together, and accounts are what the domain says."""

import os

import adlab
import adtest
import nistest


class Searches(adtest.AdTest):
    def test_small_pages(self):
        entries = {"key%03d" % i: "value %d" % i for i in range(157)}
        self.lab.fill("plain", entries, self.ZONE)
        self.start_system(quorad_ldap_page_size="7")
        self.assert_map("plain", entries)

    def test_odd_names_and_values(self):
        """Names that a filter or a DN would take for something else."""
        entries = {"ke(y)*": "v*l(ue)\\", "blank key": "ünïcödé", "comma,key": "a=b,c=d"}
        map_dn = self.lab.map("auto\\, (home)*", self.ZONE)
        for number, (key, value) in enumerate(entries.items()):
            self.lab.entry(map_dn, key, value, cn="x\\, (y)* %d" % number)
        self.start_system()
        self.assert_map("auto, (home)*", entries)
        self.lab.delete("CN=x\\, (y)* 0," + map_dn)
        del entries["ke(y)*"]
        self.refresh()
        self.assert_map("auto, (home)*", entries)

    def test_encrypted_simple_bind(self):
        entries = {"alpha": "1", "beta": "2"}
        self.lab.fill("plain", entries, self.ZONE)
        adlab.write("/etc/velmorix/secret", adlab.PASSWORD + "\n")
        nistest.run("chmod", "600", "/etc/velmorix/secret", check=True)
        self.configuration.update({
            "quorad.ldap.auth": "simple", "quorad.ldap.bind.dn": "Administrator@" + adlab.REALM,
            "quorad.ldap.password.file": "/etc/velmorix/secret",
            "quorad.ldap.tls.cacert": adlab.CA_FILE})
        for number, directory in enumerate(("ldap:", "ldaps://" + self.lab.dc1.host)):
            with self.subTest(directory):
                self.start_system("-f", quorad_directory=directory,
                                  quorad_ldap_starttls="yes" if number == 0 else "no")
                self.assert_map("plain", entries)
                self.assertNotIn(adlab.PASSWORD.encode(), self.quorad.log())
                self.orrisd.stop()
                self.quorad.stop()

    def test_certificate_is_checked(self):
        for name, directory, ca, tls in (
                ("authority", "ldaps://" + self.lab.dc1.host, adlab.OTHER_CA_FILE, "no"),
                ("name", "ldaps://" + self.lab.dc1.address, adlab.CA_FILE, "no"),
                ("starttls", "ldap://" + self.lab.dc1.host, adlab.OTHER_CA_FILE, "yes")):
            with self.subTest(name):
                self.write_config(quorad_directory=directory, quorad_ldap_tls_cacert=ca,
                                  quorad_ldap_starttls=tls)
                self.start_quorad()
                self.quorad.wait_log("cannot be used: ")
                self.assertFalse(self.quorad.find("is asked from now on"))
                self.quorad.stop()

    def test_tickets_over_tls(self):
        """Where the controller takes them there; otherwise the message says what to do."""
        self.lab.fill("plain", {"a": "b"}, self.ZONE)
        self.write_config(quorad_directory="ldaps://" + self.lab.dc1.host,
                          quorad_ldap_tls_cacert=adlab.CA_FILE)
        self.start_quorad()
        self.quorad.wait_log("use ldap:// without StartTLS")
        self.lab.dc1.stop()
        path = os.path.join(self.lab.dc1.folder, "etc/samba/smb.conf")
        with open(path) as file:
            text = file.read()
        adlab.write(path, text.replace(
            "[global]\n", "[global]\n ldap server require strong auth = allow_sasl_over_tls\n"))
        self.lab.dc1.start()
        self.quorad.wait_log("is asked from now on")
        self.start_orrisd()
        self.wait_served()
        self.assert_map("plain", {"a": "b"})

    def test_unusable_configuration(self):
        adlab.write("/etc/velmorix/open", "secret words\n")
        nistest.run("chmod", "644", "/etc/velmorix/open", check=True)
        simple = {"quorad.ldap.auth": "simple", "quorad.ldap.bind.dn": "CN=x,DC=y"}
        for settings, text in (
                ({"quorad.ldap.auth": "none"}, "quorad.ldap.auth"),
                (dict(simple, **{"quorad.ldap.password.file": "/etc/velmorix/open"}),
                 "clear connection"),
                (dict(simple, **{"quorad.ldap.password.file": "/etc/velmorix/open",
                                 "quorad.ldap.starttls": "yes"}), "open to others")):
            with self.subTest(text):
                self.configuration.update(settings)
                self.write_config()
                quorad = self.start("quorad", [nistest.program("quorad"), "-d"])
                self.assertNotEqual(quorad.wait(), 0)
                self.assertIn(text, quorad.log().decode())
                self.assertNotIn(b"secret words", quorad.log())


class Accounts(adtest.AdTest):
    EPOCH = 116444736000000000  # 1970 in the directory's time

    def passwd(self, name):
        with self.client() as client:
            status, value = client.match("passwd.byname", name)
        return value.decode() if status == 1 else None

    def members(self, name):
        """All members, of the pieces of a large group too."""
        found = []
        for key, line in self.whole_map("group.byname").items():
            if key.decode() == name or key.decode().startswith(name + "_"):
                found += [one for one in line.decode().split(":")[3].split(",") if one]
        return sorted(found)

    def test_users(self):
        self.lab.user("plainuser", 2001)
        self.lab.user("disabled", 2002, userAccountControl="66082")
        self.lab.user("expired", 2003, accountExpires=str(self.EPOCH + 10 ** 7))
        self.lab.user("future", 2004, accountExpires=str(self.EPOCH + 4 * 10 ** 16))
        self.lab.user("mustchange", 2005, userAccountControl="544", pwdLastSet="0")
        self.lab.user("named", 2006, gecos=None, displayName="Given Name")
        self.lab.user("windowsonly", 0, uidNumber=None)
        self.start_system()
        self.assertEqual(self.passwd("plainuser"),
                         "plainuser:!:2001:100:Plainuser:/home/plainuser:/bin/bash")
        for name in ("disabled", "expired", "mustchange"):
            self.assertEqual(self.passwd(name).split(":")[1], "!!", name)
        self.assertEqual(self.passwd("future").split(":")[1], "!")
        self.assertEqual(self.passwd("named").split(":")[4], "Given Name")
        self.assertIsNone(self.passwd("windowsonly"))
        self.assertEqual(len(self.whole_map("passwd.byname")), 6)

    def test_groups(self):
        users = {name: self.lab.user(name, 3000 + number)
                 for number, name in enumerate(("ann", "bob", "cid", "dee"))}
        outsider = self.lab.user("outsider", 0, uidNumber=None)
        inner = self.lab.group("inner", None, [users["cid"]])
        outer = self.lab.group("outer", 4001, [users["ann"], inner, outsider])
        self.lab.ldapmodify(["dn: %s\nchangetype: modify\nadd: member\nmember: %s\n" % (
            inner, outer)])
        self.lab.group("empty", 4002)
        self.lab.replace("CN=Domain Users,CN=Users," + adlab.BASE, "gidNumber", "4003")
        self.start_system()
        self.assertEqual(self.members("outer"), ["ann", "cid"])
        self.assertEqual(self.members("empty"), [])
        self.assertEqual(self.members("Domain Users"), ["ann", "bob", "cid", "dee"])
        self.assertNotIn(b"inner", self.whole_map("group.byname"))

    def test_large_group(self):
        """More members than a controller hands out at once."""
        names = ["m%04d" % number for number in range(1600)]
        records = [self.lab.user_record(name, 10000 + number)
                   for number, name in enumerate(names)]
        self.lab.ldapadd([text for _, text in records])
        self.lab.group("large", 5000, [dn for dn, _ in records])
        self.start_system()
        self.assertEqual(self.members("large"), names)

    def test_duplicates_are_told_once(self):
        self.lab.user("first", 2001)
        self.lab.user("second", 2001)
        self.lab.group("team1", 4001)
        self.lab.group("team2", 4001)
        self.lab.user("bad:name", 2009, sAMAccountName="badname", unixHomeDirectory="/home/a:b")
        self.start_system()
        for pattern in ("CN=first,.*CN=second,.*uidNumber 2001", "CN=team1,.*CN=team2,.*4001",
                        "CN=bad:name,.*unixHomeDirectory"):
            self.assertEqual(len(self.quorad.wait_log("warning.*" + pattern)), 1)
        self.refresh()
        self.refresh()
        self.assertEqual(len(self.quorad.find("uidNumber 2001")), 1)


if __name__ == "__main__":
    nistest.main()
