"""quorad-admin against a domain: zones, maps, import and export."""

import os
import pty
import re
import select
import subprocess
import time

import adlab
import adtest
import nistest
from nistest import lines_of, program, run

FILES = "/run/files"
MANUAL = os.path.join(os.path.dirname(os.path.abspath(__file__)), os.pardir, os.pardir, "man",
                      "quorad-admin.8")


class AdminTest(adtest.AdTest):
    def setUp(self):
        super().setUp()
        self.write_config()
        os.makedirs(FILES, exist_ok=True)
        os.environ["KRB5CCNAME"] = "FILE:/run/tickets"
        self.become_administrator()

    @staticmethod
    def become_administrator():
        subprocess.run(["kinit", adlab.ADMIN], input=adlab.PASSWORD.encode(), check=True,
                       capture_output=True)

    def admin(self, *arguments, status=0, stdin=subprocess.DEVNULL):
        """Runs the tool. @return (standard output, standard error)"""
        done = run(program("quorad-admin"), *arguments, stdin=stdin)
        self.assertEqual(done.returncode, status, done.stderr.decode() + done.stdout.decode())
        return done.stdout.decode(), done.stderr.decode()

    @staticmethod
    def file(text, name="file"):
        path = os.path.join(FILES, name)
        with open(path, "wb") as file:
            file.write(text if isinstance(text, bytes) else text.encode())
        return path

    def held(self, name):
        """What the domain holds of a map, seen without the tool: sorted [(key, value)]."""
        found = self.lab.search("(objectClass=container)", ["description", "adminDescription"],
                                base="CN=%s,CN=nismaps,%s" % (name, self.ZONE), scope="one")
        return sorted((one["description"][0].decode(),
                       one.get("adminDescription", [b""])[0].decode()) for one in found)

    def names(self, name):
        found = self.lab.search("(objectClass=container)", ["cn"],
                                base="CN=%s,CN=nismaps,%s" % (name, self.ZONE), scope="one")
        return {one["cn"][0].decode() for one in found}


class Zones(AdminTest):
    def setting(self, dn):
        return self.lab.search(attributes=["extensionName"], base=dn, scope="base")[0].get(
            "extensionName")

    def test_created_with_what_lies_above(self):
        dn = "CN=deep,CN=region,CN=other,CN=Zones," + adlab.BASE
        out, _ = self.admin("zone", "create", dn, "--nisdomain", "deep.example")
        self.assertEqual(out.splitlines(), ["CN=other,CN=Zones," + adlab.BASE,
                                            "CN=region,CN=other,CN=Zones," + adlab.BASE, dn,
                                            "CN=nismaps," + dn])
        self.assertEqual(self.setting(dn), [b"nisdomain=deep.example"])
        self.assertEqual(self.setting("CN=region,CN=other,CN=Zones," + adlab.BASE), None)
        out, error = self.admin("zone", "create", dn)
        self.assertEqual(out, "")
        self.assertIn("is there already", error)
        self.lab.replace(dn, "extensionName", "other=1", "nisdomain=deep.example")
        self.assertEqual(self.admin("zone", "create", dn, "--nisdomain=new")[0], dn + "\n")
        self.assertEqual(sorted(self.setting(dn)), [b"nisdomain=new", b"other=1"])

    def test_container_of_all_zones_is_made_too(self):
        base = "CN=Zones,CN=Program Data," + adlab.BASE
        out, _ = self.admin("zone", "create", "CN=first," + base)
        self.assertEqual(out.splitlines()[0], base)

    def test_refused(self):
        for dn in ("CN=x," + adlab.BASE, "nonsense", "CN=x,CN=Zones"):
            _, error = self.admin("zone", "create", dn, status=1)
            self.assertIn(dn, error)
        run("kdestroy", check=True)
        _, error = self.admin("zone", "create", "CN=new," + adlab.ZONES, status=1)
        self.assertIn("CN=new," + adlab.ZONES, error)
        self.assertRegex(error, "(?i)insufficient access|access")


class Maps(AdminTest):
    def test_create_list_delete(self):
        self.assertEqual(self.admin("map", "list")[0], "")
        self.admin("map", "create", "auto.home")
        self.lab.fill("plain", {"key%d" % i: "v" for i in range(1500)}, self.ZONE)
        self.assertEqual(self.admin("map", "list")[0], "auto.home 0\nplain 1500\n")
        _, error = self.admin("map", "delete", "plain", status=1)
        self.assertIn("Remove the map 'plain' with 1500 entries? Give --yes", error)
        self.admin("map", "delete", "plain", "--dry-run", "--yes")
        self.assertEqual(len(self.held("plain")), 1500)
        self.admin("map", "delete", "plain", "--yes")
        self.assertEqual(self.admin("map", "list")[0], "auto.home 0\n")
        self.assertIn("no map 'plain'", self.admin("map", "delete", "plain", "--yes", status=1)[1])
        self.assertIn("already", self.admin("map", "create", "auto.home")[1])

    def test_question_at_a_terminal(self):
        for answer, status in ((b"n\n", 1), (b"\n", 1), (b"y\n", 0)):
            self.admin("map", "create", "m")
            self.assertEqual(self.at_terminal([b"[y/N]", answer], "map", "delete", "m")[0], status)
            self.assertEqual(self.admin("map", "list")[0], "" if status == 0 else "m 0\n")

    def at_terminal(self, dialogue, *arguments):
        """Runs the tool at a terminal and answers its question. @return (status, output)"""
        question, answer = dialogue
        pid, terminal = pty.fork()
        if pid == 0:
            os.execv(program("quorad-admin"), ["quorad-admin", *arguments])
        output, asked = b"", False
        deadline = time.monotonic() + 60 * nistest.SLOW
        while time.monotonic() < deadline:
            if not select.select([terminal], [], [], 1)[0]:
                continue
            try:
                piece = os.read(terminal, 4096)
            except OSError:
                break
            output += piece
            if question in output and not asked:
                os.write(terminal, answer)
                asked = True
        os.close(terminal)
        return os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1]), output

    def test_progress_at_a_terminal(self):
        path = self.file("".join("k%d v\n" % i for i in range(300)))
        status, output = self.at_terminal([b"never asked", b""], "import", "plain", path)
        self.assertEqual(status, 0)
        self.assertRegex(output, rb"\rImporting plain \[#+ +\] +\d+% \d+/300")
        self.assertIn(b"Added 300", output)


class Import(AdminTest):
    HOSTS = "127.0.0.1 localhost\n10.0.0.1\talpha a # the first\n10.0.0.2 beta\n"

    def test_hosts_file_and_again(self):
        path = self.file(self.HOSTS)
        out, error = self.admin("import", "hosts", path, "--dry-run")
        self.assertIn("+ alpha: 10.0.0.1\\x09alpha a\n", out)
        self.assertIn("Would add 3, change 0, remove 0; 0 unchanged", error)
        self.assertEqual(self.admin("map", "list")[0], "")
        self.assertIn("Added 3, changed 0, removed 0, 0 unchanged; 'hosts' has 3 entries",
                      self.admin("import", "hosts", path)[1])
        self.assertEqual(self.held("hosts"), [("alpha", "10.0.0.1\talpha a"),
                                              ("beta", "10.0.0.2 beta"),
                                              ("localhost", "127.0.0.1 localhost")])
        before = self.usns("hosts")
        self.assertIn("Added 0, changed 0, removed 0, 3 unchanged",
                      self.admin("import", "hosts", path)[1])
        self.assertEqual(self.usns("hosts"), before)

    def usns(self, name):
        found = self.lab.search("(objectClass=container)", ["uSNChanged"],
                                base="CN=%s,CN=nismaps,%s" % (name, self.ZONE), scope="one")
        return {one["dn"]: one["uSNChanged"] for one in found}

    def test_only_differences_are_written(self):
        self.admin("import", "hosts", self.file(self.HOSTS))
        before = self.usns("hosts")
        path = self.file(self.HOSTS.replace("10.0.0.2", "10.0.0.22") + "10.0.0.3 gamma\n")
        self.assertIn("Added 1, changed 1, removed 0, 2 unchanged",
                      self.admin("import", "hosts", path)[1])
        after = self.usns("hosts")
        changed = {dn for dn in after if after[dn] != before.get(dn)}
        self.assertEqual({dn.split(",")[0] for dn in changed}, {"CN=beta", "CN=gamma"})

    def test_removal_is_confirmed(self):
        self.admin("import", "plain", self.file("a 1\nb 2\nc 3\n"))
        shorter = self.file("a 1\nd 4\n")
        _, error = self.admin("import", "plain", shorter, status=1)
        self.assertIn("Remove 2 of 3 entries of 'plain'?", error)
        self.assertEqual(len(self.held("plain")), 3)
        self.admin("import", "plain", shorter, "--keep")
        self.assertEqual([key for key, _ in self.held("plain")], ["a", "b", "c", "d"])
        self.admin("import", "plain", shorter, "--yes")
        self.assertEqual(self.held("plain"), [("a", "1"), ("d", "4")])

    def test_what_cannot_be_kept_is_named_and_nothing_done(self):
        path = self.file(b"good value\nlong " + b"x" * 1025 + b"\nlatin J\xfcrgen\n"
                         b"edge " + "ü".encode() * 1024 + b"\n")
        _, error = self.admin("import", "plain", path, status=1)
        self.assertIn(path + ":2: 'long': the value has 1025 characters; the directory keeps 1024",
                      error)
        self.assertIn(path + ":3: 'latin': the value is not UTF-8", error)
        self.assertIn("2 lines cannot be taken over, see above. Nothing was changed", error)
        self.assertEqual(self.admin("map", "list")[0], "")
        _, error = self.admin("import", "plain", path, "--skip-bad")
        self.assertIn("2 lines left out", error)
        self.assertEqual(self.held("plain"), [("edge", "ü" * 1024), ("good", "value")])

    def test_odd_keys(self):
        keys = ["Case", "CASE", "case", "k" * 64, "k" * 65, "k" * 1000, "K" * 1000, "22/tcp", "a,b",
                "a+b", "<>", "Jürgen", "\"quoted\"", "x=y", "*", "(h,u,d)", "a\\b", ";"]
        path = self.file("".join("%s v%d\n" % pair[::-1] for pair in enumerate(keys)))
        self.admin("import", "plain", path)
        self.assertEqual([key for key, _ in self.held("plain")], sorted(keys))
        names = self.names("plain")
        self.assertTrue(all(len(name) <= 64 for name in names), names)
        self.assertIn("Added 0, changed 0, removed 0, %d unchanged" % len(keys),
                      self.admin("import", "plain", path)[1])
        # The same names come out when the map is made anew in another order.
        self.admin("map", "delete", "plain", "--yes")
        with open(path) as file:
            backwards = "".join(reversed(file.readlines()))
        self.admin("import", "plain", self.file(backwards))
        self.assertEqual(self.names("plain"), names)

    def test_export_is_imported_again(self):
        text = "".join("key%04d value %d  with  blanks\n" % (i, i) for i in range(2500)) + "void \n"
        self.admin("import", "plain", self.file(text))
        out, _ = self.admin("export", "plain")
        self.assertEqual(sorted(out.splitlines()), sorted(text.splitlines()))
        self.admin("import", "copy", self.file(out, "copy"))
        self.assertEqual(self.held("copy"), self.held("plain"))
        self.assertIn("no map 'none'", self.admin("export", "none", status=1)[1])

    def test_standard_input_and_formats(self):
        with open(self.file("ines:x:1:2:Ines:/home/ines:/bin/sh\n")) as file:
            self.admin("import", "people", "-", "--format=passwd", stdin=file)
        self.assertEqual(self.held("people"), [("ines", "ines:x:1:2:Ines:/home/ines:/bin/sh")])
        self.assertIn("/nowhere: No such file", self.admin("import", "m", "/nowhere", status=1)[1])
        self.assertIn("is none of", self.admin("import", "m", "-", "--format=x", status=2)[1])
        self.assertIn("not served", self.admin(
            "import", "passwd", self.file("a:x:1:1:::\n"), "--dry-run")[1])

    def test_as_somebody_else(self):
        run("kdestroy", check=True)
        password = self.file(adlab.PASSWORD + "\n", "password")
        path = self.file("a 1\n")
        self.assertRegex(self.admin("import", "plain", path, status=1)[1], "(?i)access")
        arguments = ("import", "plain", path, "--bind", adlab.ADMIN + "@" + adlab.REALM,
                     "--password-file", password)
        os.chmod(password, 0o644)
        self.configuration["quorad.ldap.starttls"] = "yes"
        self.configuration["quorad.ldap.tls.cacert"] = adlab.CA_FILE
        self.write_config()
        self.assertIn("open to others", self.admin(*arguments, status=1)[1])
        os.chmod(password, 0o600)
        _, error = self.admin(*arguments)
        self.assertIn("As %s@%s at dc1.%s" % (adlab.ADMIN, adlab.REALM, adlab.DOMAIN), error)
        self.assertNotIn(adlab.PASSWORD, error)
        self.assertEqual(self.held("plain"), [("a", "1")])
        self.write_config(quorad_ldap_starttls="no")
        self.assertIn("As NIS-TEST$@", self.admin("map", "list", "--machine")[1])

    def test_controller_away_in_the_middle(self):
        path = self.file("".join("key%05d value\n" % i for i in range(4000)))
        tool = subprocess.Popen([program("quorad-admin"), "import", "plain", path],
                                stderr=subprocess.PIPE, stdin=subprocess.DEVNULL)
        nistest.wait_for(lambda: self.started("plain"), "the first entries")
        self.lab.dc1.stop()
        error = tool.communicate(timeout=120 * nistest.SLOW)[1].decode()
        self.assertEqual(tool.returncode, 1, error)
        done = int(re.search(r"Stopped after (\d+) of 4000 changes", error).group(1))
        self.lab.dc1.start()
        # The change under way when the controller went may have been made or not.
        self.assertIn(len(self.held("plain")), (done, done + 1))
        self.admin("import", "plain", path)
        self.assertEqual(len(self.held("plain")), 4000)

    def started(self, name):
        try:
            return len(self.held(name)) > 20
        except AssertionError:
            return False


class Migration(AdminTest):
    SAMPLE = os.path.join(os.path.dirname(os.path.abspath(__file__)), os.pardir, os.pardir, "config",
                          "sample", "directory.ldif")
    OLD_DOMAIN = "lab.example.com"
    # Where one map of the directory is served in several forms: the one that is taken over.
    SOURCES = {"hosts": "hosts.byname", "services": "services.byservicename",
               "networks": "networks.byname", "protocols": "protocols.byname", "rpc": "rpc.byname",
               "ethers": "ethers.byaddr", "netmasks": "netmasks.byaddr",
               "timezone": "timezone.byname", "publickey": "publickey.byname",
               "aliases": "mail.aliases"}

    def dump_all(self, domain):
        """{map: lines of ypcat -k} of everything but users and groups"""
        with self.client(domain=domain) as client:
            names = client.maplist()[1]
        return {name: sorted(lines_of(run("ypcat", "-h", "127.0.0.1", "-d", domain, "-k", name)))
                for name in names if not name.startswith(("passwd", "group"))}

    def test_whole_server(self):
        """All maps of the sample go from a server into the domain, and are served as before."""
        self.write_config(quorad_directory="ldif:" + self.SAMPLE,
                          quorad_zone="CN=lab,CN=harbour,CN=Zones,DC=example,DC=com")
        self.start_quorad()
        self.start_orrisd()
        self.wait_served(self.OLD_DOMAIN)
        before = self.dump_all(self.OLD_DOMAIN)
        self.assertGreater(len(before), 12)
        self.orrisd.stop()
        self.quorad.stop()
        self.write_config(quorad_directory="ldap:", quorad_zone=self.ZONE)
        served = set(self.SOURCES.values())
        derived = {name for name in before for source in self.SOURCES
                   if name not in served and name.startswith(source + ".")}
        derived |= {"mail.byaddr", "netgroup.byhost", "netgroup.byuser"}
        taken = {**{name: name for name in before if name not in served | derived},
                 **{name: source for name, source in self.SOURCES.items() if source in before}}
        for name, source in taken.items():
            path = self.file("".join(line + "\n" for line in before[source]))
            self.admin("import", name, path)
        self.start_quorad()
        self.start_orrisd()
        self.wait_served()
        self.assertEqual(self.dump_all(nistest.DOMAIN), before)

    def test_from_another_server(self):
        """`ypcat -k` from the old server goes into the tool; the new one serves the same."""
        old = {
            "hosts": ["alpha 10.0.0.1 alpha a", "a 10.0.0.1 alpha a", "beta 10.0.0.2 beta"],
            "services": ["ssh/tcp ssh 22/tcp shell", "shell/tcp ssh 22/tcp shell",
                         "dns/udp dns 53/udp"],
            "auto.home": ["* -rw filer:/export/&", "ines filer2:/export/ines"],
            "netgroup": ["crew (alpha,ines,) inner", "inner (beta,-,)"],
        }
        for name, lines in old.items():
            self.admin("import", name, self.file("".join(line + "\n" for line in lines)))
        self.start_quorad()
        self.start_orrisd()
        self.wait_served()
        self.bind_client()
        for name, served in (("hosts", "hosts.byname"), ("services", "services.byservicename"),
                             ("auto.home", "auto.home"), ("netgroup", "netgroup")):
            self.assertEqual(sorted(lines_of(run("ypcat", "-k", served))), sorted(old[name]), name)
        self.assertEqual(sorted(lines_of(run("ypcat", "-k", "hosts.byaddr"))),
                         ["10.0.0.1 10.0.0.1 alpha a", "10.0.0.2 10.0.0.2 beta"])

    @staticmethod
    def manual_example(first_words):
        """The commands of the example that begins so, as the manual shows them."""
        with open(MANUAL) as file:
            text = file.read()
        return text[text.index(first_words):].partition(".Ed\n")[0].replace("\\e", "\\")

    def test_keys_with_blanks(self):
        """Their dump says no longer where they end: refused, and taken over by way of a second one."""
        old = {"ines": "filer:/export/ines", "My Documents": "-rw filer:/export/documents",
               "a  b c": "filer:/export/abc", " lead": "filer:/export/lead"}
        self.directory.fill("auto.shares", old)
        self.directory.save()
        self.write_config(quorad_directory="ldif:" + nistest.LDIF_FILE,
                          quorad_zone=self.directory.ZONE)
        self.start_quorad()
        self.start_orrisd()
        self.wait_served()
        example = self.manual_example("ypcat -h oldserver -d olddomain auto.shares")
        commands, arrow, importing = example.rpartition("quorad-admin ")
        self.assertTrue(arrow)
        commands = commands.replace("oldserver", "127.0.0.1").replace("olddomain", nistest.DOMAIN)
        done = run("sh", "-ec", "cd /run\n" + commands + "cat >/run/tabbed", check=True)
        self.assertEqual(done.stderr, b"")
        with open("/run/both") as file:
            lines = file.read().splitlines()
        self.assertEqual(sorted(lines), sorted("%s %s" % pair for pair in old.items()))
        with open("/run/tabbed") as file:
            self.assertEqual(sorted(file.read().splitlines()),
                             sorted("%s\t%s" % pair for pair in old.items()))
        self.orrisd.stop()
        self.quorad.stop()
        self.write_config(quorad_directory="ldap:", quorad_zone=self.ZONE)
        _, error = self.admin("import", "auto.shares", "/run/both", status=1)
        for key in ("My Documents", "a  b c", " lead"):
            number = lines.index("%s %s" % (key, old[key])) + 1
            self.assertRegex(error, "/run/both:%d: '%s .*--format tabbed" % (number, key))
        self.assertIn("3 lines cannot be taken over", error)
        with open("/run/tabbed") as file:
            self.admin(*importing.split()[:2], "-", *importing.split()[3:], stdin=file)
        self.start_quorad()
        self.start_orrisd()
        self.wait_served()
        self.assert_map("auto.shares", old)
        self.bind_client()
        self.assertEqual(lines_of(run("ypmatch", "My Documents", "auto.shares")),
                         [old["My Documents"]])
        self.assertEqual(sorted(lines_of(run("ypcat", "-k", "auto.shares"))), sorted(lines))
        out, error = self.admin("export", "auto.shares")
        self.assertEqual(sorted(out.splitlines()), sorted(lines))
        self.assertIn("Entry 'My Documents' would not be read as the same", error)
        out, error = self.admin("export", "auto.shares", "--format", "tabbed")
        self.assertNotIn("would not", error)
        self.admin("import", "copy", self.file(out, "copy"), "--format", "tabbed")
        self.assertEqual(self.held("copy"), sorted(old.items()))


if __name__ == "__main__":
    nistest.main()
