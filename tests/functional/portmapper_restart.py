"""rpcbind that forgot everything: the registration comes back by itself."""

import nistest
from nistest import wait_for
from ypclient import NoReply, yp_port


class PortmapperRestart(nistest.NisTest):
    def setUp(self):
        super().setUp()
        self.directory.fill("plain", {"key": "value"})
        self.start_system()

    def restart(self, *options):
        self.portmapper.stop()
        self.portmapper = self.start("rpcbind", ["/usr/sbin/rpcbind", "-f", *options])
        wait_for(self.portmapper_answers, "rpcbind")

    @staticmethod
    def ports():
        try:
            return yp_port("udp"), yp_port("tcp")
        except NoReply:
            return 0, 0

    def test_registration_comes_back(self):
        ports = self.ports()
        mark = self.orrisd.log_size()
        self.restart()
        wait_for(lambda: self.ports() == ports, "the registration to come back", 180)
        for protocol in ("UDP", "TCP"):
            self.assertEqual(len(self.orrisd.find(
                "The portmapper has lost the %s registration: registered again" % protocol,
                mark)), 1)
        for protocol in ("udp", "tcp"):
            with self.client(protocol) as client:
                self.assertEqual(client.match("plain", "key"), (1, b"value"))

    def test_known_clients_do_not_notice(self):
        with self.client("udp") as udp, self.client("tcp") as tcp:
            self.portmapper.stop()
            for _ in range(20):
                for client in (udp, tcp):
                    self.assertEqual(client.match("plain", "key"), (1, b"value"))
            self.orrisd.signal(nistest.signal.SIGUSR2)
            self.assertEqual(udp.match("plain", "key"), (1, b"value"))
            self.portmapper = self.start("rpcbind", ["/usr/sbin/rpcbind", "-f"])
            wait_for(self.portmapper_answers, "rpcbind")
            wait_for(lambda: all(self.ports()), "the registration to come back", 180)

    def test_shutdown_without_rpcbind(self):
        self.portmapper.stop()
        self.assertEqual(self.orrisd.stop(), 0)


if __name__ == "__main__":
    nistest.main()
