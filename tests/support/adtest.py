"""Tests of quorad and orrisd against a real domain: nistest's programs, adlab's controllers."""

import os
import sys

import adlab
import nistest


def contents(paths):
    kept = {}
    for path in paths:
        with open(path, "rb") as file:
            kept[path] = file.read()
    return kept


# As they are before a test makes this system a client of its own server.
ORIGINAL = contents(["/etc/passwd", "/etc/group"])


class AdTest(nistest.NisTest):
    """Every test has a fresh copy of the domain, the zone CN=zoneA,CN=corp,CN=Zones in it unless
    the image was built with one, and the joined host's configuration."""

    controllers = 1
    image = None  # name of an archive that build(lab) makes once
    build = None
    PARENT_ZONE = "CN=corp," + adlab.ZONES
    ZONE = "CN=zoneA," + PARENT_ZONE

    def setUp(self):
        for path, content in ORIGINAL.items():
            with open(path, "wb") as file:
                file.write(content)
        super().setUp()
        self.lab = adlab.Lab(self.controllers, self.image, type(self).build)
        self.addCleanup(self.lab.stop)
        self.lab.start()
        if self.build is None:
            self.make_zones()
        self.configuration["quorad.directory"] = "ldap:"
        self.configuration["quorad.zone"] = self.ZONE

    def make_zones(self):
        self.lab.zone("corp")
        self.lab.zone("zoneA", self.PARENT_ZONE, nistest.DOMAIN)
        for controller in self.lab.controllers[1:]:
            self.lab.replicate(self.lab.dc1, controller)

    def start_system(self, *arguments, **settings):
        self.write_config(**settings)
        self.start_quorad()
        self.start_orrisd(*arguments)
        self.wait_served()

    def bind_client(self, domain=nistest.DOMAIN, switch="files nis"):
        """As a NIS client of itself this host still finds its controllers through DNS, and does not
        ask itself for them when DNS is silent."""
        super().bind_client(domain, switch)
        self.lab.write_client_files()
        with open("/etc/nsswitch.conf", "w") as file:
            for database in ("passwd", "group", "networks", "protocols", "services", "ethers", "rpc",
                             "netgroup", "aliases"):
                file.write("%s: %s\n" % (database, switch))
            file.write("hosts: files dns\n")

    def print_logs(self):
        super().print_logs()
        lab = getattr(self, "lab", None)
        for daemon in lab.daemons() if lab else []:
            if os.path.exists(daemon.log_path):
                sys.stderr.write("---- log of %s\n%s\n" % (
                    daemon.name, daemon.log().decode(errors="replace")[-5000:]))
