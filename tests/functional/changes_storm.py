"""Clients that walk, transfer and match without a pause while the directory changes and signals
come: what did not change is always there, once, and right; in the end everything is."""

import signal
import threading

import nistest
from ypclient import YP_TRUE

STABLE = 1500
VOLATILE = 60
USERS = 300
ROUNDS = 12


class Storm(nistest.NisTest):
    log_level = "info"

    def setUp(self):
        super().setUp()
        self.stable = {"stable%04d" % n: "value %d" % n for n in range(STABLE)}
        volatile = {"moving%04d" % n: "round 0" for n in range(VOLATILE)}
        self.entries = self.directory.fill("churn", {**self.stable, **volatile})
        self.hosts = self.directory.fill(
            "hosts", {"box%03d" % n: "10.1.0.%d box%03d" % (n, n) for n in range(200)})
        for number in range(USERS):
            self.directory.user("user%03d" % number, 1000 + number)
        self.passwd = {
            "user%03d" % n: "user%03d:$6$salt$hashuser%03d:%d:100:User%03d:/home/user%03d:/bin/bash"
            % (n, n, 1000 + n, n, n) for n in range(USERS)}
        self.over = threading.Event()
        self.counted = {}

    def count(self, what):
        self.counted[what] = self.counted.get(what, 0) + 1

    def check_churn(self, entries):
        for key, value in self.stable.items():
            self.assertEqual(entries.pop(key.encode(), None), value.encode(), key)
        for key, value in entries.items():
            self.assertRegex(key, rb"^(moving|extra)\d+$")
            self.assertRegex(value, rb"^round \d+$")

    def check_passwd(self, entries):
        changed = [key for key, line in self.passwd.items()
                   if entries.pop(key.encode(), None) != line.encode()]
        self.assertLessEqual(set(changed), {"user000"})
        self.assertEqual(entries, {})

    def until_over(self, what, work):
        while not self.over.is_set():
            work()
            self.count(what)

    def walker(self):
        with self.client("udp") as client:
            self.until_over("walks", lambda: (self.check_churn(client.walk("churn")),
                                              self.check_passwd(client.walk("passwd.byname"))))

    def transferrer(self):
        with self.client("tcp") as client:
            self.until_over("transfers", lambda: (self.check_churn(client.all("churn")),
                                                  self.check_passwd(client.all("passwd.byname"))))

    def matcher(self):
        def work():
            for number in range(0, 200, 7):
                key = "box%03d" % number
                self.assertEqual(client.match("hosts.byname", key),
                                 (YP_TRUE, b"10.1.0.%d %s" % (number, key.encode())))
                self.assertEqual(client.match("passwd.byuid", str(1001))[0], YP_TRUE)
        with self.client("udp") as client:
            self.until_over("matches", work)

    def change(self, number):
        for index in range(VOLATILE):
            dn = self.entries.get("moving%04d" % index)
            if dn and (index + number) % 3 == 0:
                self.directory.replace(dn, "adminDescription", "round %d" % number)
        extra = self.directory.entry("CN=churn,CN=nismaps," + self.directory.ZONE,
                                     "extra%d" % number, "round %d" % number)
        gone = "moving%04d" % (number - 1)
        self.directory.remove(self.entries.pop(gone))
        # The same value written again: the record is taken out and put back for every reader.
        self.directory.replace(self.hosts["box007"], "displayName", "round %d" % number)
        self.directory.replace("CN=user000,CN=Users," + self.directory.BASE, "loginShell",
                               "/bin/sh%d" % number)
        if number % 4 == 0:
            self.directory.remove(extra)
        self.directory.save()

    def storm(self):
        try:
            for number in range(1, ROUNDS + 1):
                self.change(number)
                for sent in (signal.SIGUSR2, signal.SIGHUP, signal.SIGUSR1):
                    self.orrisd.signal(sent)
                    self.over.wait(0.4)
        finally:
            self.over.set()

    def expected_churn(self):
        entries = {}
        for dn, attributes in self.directory.objects.items():
            if dn.endswith(",CN=churn,CN=nismaps," + self.directory.ZONE):
                values = dict(attributes)
                entries[values["description"]] = values["adminDescription"]
        return entries

    def test_readers_in_a_storm(self):
        self.start_system()
        with self.client() as client:
            nistest.wait_for(lambda: "passwd.byname" in client.maplist()[1], "all maps")
        nistest.in_threads([self.storm, self.walker, self.transferrer, self.matcher])
        for what in ("walks", "transfers", "matches"):
            self.assertGreater(self.counted.get(what, 0), 0, what)
        self.directory.replace(self.hosts["box007"], "displayName", "the last change")
        self.directory.save()
        self.assertTrue(self.orrisd.running())
        # An update may still be under way; asking again is what an administrator would do.

        def settled():
            self.orrisd.signal(signal.SIGUSR2)
            with self.client("tcp") as client:
                return client.all("churn") == {
                    key.encode(): value.encode() for key, value in self.expected_churn().items()}
        nistest.wait_for(settled, "the last state of the map")
        last = self.passwd["user000"].replace("/bin/bash", "/bin/sh%d" % ROUNDS)
        self.wait_map("passwd.byname", {**self.passwd, "user000": last})
        self.assert_map("hosts.byname", {"box%03d" % n: "10.1.0.%d box%03d" % (n, n)
                                         for n in range(200)})


if __name__ == "__main__":
    nistest.main()
