"""Who is answered: loopback, own addresses and the secure nets; nobody else gets a reply."""

import signal

import netns
import nistest
from ypclient import NoReply, yp_port


class SecureNets(nistest.NisTest):
    def setUp(self):
        super().setUp()
        self.directory.fill("plain", {"key": "value"})
        self.neighbour = netns.Neighbour()
        self.addCleanup(self.neighbour.remove)

    def ask(self, protocol, timeout):
        port = yp_port(protocol)
        with self.neighbour.inside(), \
                self.client(protocol, host=self.neighbour.server, port=port,
                            timeout=timeout) as client:
            return client.match("plain", "key")

    def test_strangers_get_no_reply_and_one_warning_that_names_the_call(self):
        self.start_system()
        for protocol in ("udp", "tcp"):
            mark = self.orrisd.log_size()
            with self.assertRaises(NoReply):
                self.ask(protocol, 3.0)
            warnings = self.orrisd.wait_log("Dropping call from unauthorized address", mark)
            self.assertEqual(len(warnings), 1, warnings)
            self.assertIn("Dropping call from unauthorized address %s: "
                          "ypMatch(domain=example, map=plain, key=key)" % self.neighbour.address,
                          warnings[0])
        with self.client() as client:
            self.assertEqual(client.match("plain", "key"), (1, b"value"))

    def test_own_address_is_answered(self):
        self.start_system()
        for protocol in ("udp", "tcp"):
            with self.client(protocol, host=self.neighbour.server,
                             port=yp_port(protocol)) as client:
                self.assertEqual(client.match("plain", "key"), (1, b"value"))

    def test_listed_network_is_answered(self):
        self.start_system(nisd_securenets="192.168.1.0/24, 10.77.0.9/255.255.255.0 10.8.0.0")
        for protocol in ("udp", "tcp"):
            self.assertEqual(self.ask(protocol, 30.0), (1, b"value"))
        self.assertTrue(self.orrisd.find(
            r"invalid securenet format 192\.168\.1\.0/24: malformed mask"))
        self.assertTrue(self.orrisd.find(
            r"invalid securenet format 10\.8\.0\.0: Expected '/' in '10\.8\.0\.0'"))

    def test_networks_follow_the_configuration(self):
        self.start_system()
        with self.assertRaises(NoReply):
            self.ask("udp", 2.0)
        for nets, answered in (("0.0.0.0/0", True), ("10.77.0.3/255.255.255.255", False),
                               ("10.77.0.2/255.255.255.255", True), (None, False)):
            mark = self.orrisd.log_size()
            self.configure("nisd.securenets", nets)
            self.write_config()
            self.orrisd.signal(signal.SIGHUP)
            self.orrisd.wait_log(r"Allowed subnet 127\.0\.0\.0/255\.0\.0\.0", mark)
            self.orrisd.wait_log("UpdateLoop: nisd.update.interval", mark)
            if answered:
                self.assertEqual(self.ask("udp", 30.0), (1, b"value"))
            else:
                with self.assertRaises(NoReply):
                    self.ask("udp", 2.0)


if __name__ == "__main__":
    nistest.main()
