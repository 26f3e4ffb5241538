"""A Samba Active Directory domain on the private system of a test.

Runs inside in_namespace. Each controller is a machine of its own: a network namespace on a bridge
(so that it can be unplugged), its own host name, /etc/samba, /var/lib/samba and /run. The test's
own system is the joined host: machine account, keytab, krb5.conf, resolv.conf and the certificate
of the authority that signed the controllers' ones.

A provisioned domain is kept as an archive in the folder that ORRISD_AD_IMAGES names (default:
beside the folder of the programs), made by the first test that needs it and unpacked by the others.
"""

import base64
import fcntl
import hashlib
import inspect
import os
import shutil
import subprocess
import time

import adcontroller
import ldif
import nistest
from adcontroller import (ADMIN, BASE, CA_FILE, DATABASE, DOMAIN, FOLDER, KERBEROS, OTHER_CA_FILE,
                          OWN_ADDRESS, PASSWORD, REALM, Controller, call, make_authority, resolver,
                          write)

ZONES = "CN=Zones," + BASE
MACHINE = "NIS-TEST"
KEYTAB = "/etc/krb5.keytab"
MAX_AGE = 7 * 86400  # an archive's account passwords and certificates must not run out


class Lab:
    """The domain. start() makes it, stop() ends its processes; between them it can be changed
    through LDAP as an administrator would."""

    def __init__(self, controllers=1, image=None, build=None):
        """
        @param controllers how many domain controllers
        @param image name of an archive that holds what `build` made; None: the empty domain
        @param build function(lab) that fills the running domain, once"""
        self.controllers = [Controller(number + 1, controllers == 1)
                            for number in range(controllers)]
        self.dc1 = self.controllers[0]
        self.dc2 = self.controllers[1] if controllers > 1 else None
        self._image = image
        self._build = build
        self._next_cn = 0

    # -- life ---------------------------------------------------------------------------------------

    def start(self):
        """The domain with its machine account, running; this system is joined to it."""
        self._make_network()
        os.makedirs(FOLDER, exist_ok=True)
        with self._locked_images() as images:
            self._unpack(images)
        for controller in self.controllers:
            controller.start()
        self.write_client_files()
        self.export_keytab()
        return self

    def stop(self):
        for controller in reversed(self.controllers):
            controller.stop()
        for controller in self.controllers:
            nistest.run("ip", "netns", "delete", controller.name)
            nistest.run("ip", "link", "delete", controller.name)
        nistest.run("ip", "link", "delete", "lab")
        shutil.rmtree(FOLDER, ignore_errors=True)

    def daemons(self):
        return [controller.daemon for controller in self.controllers if controller.daemon]

    def _make_network(self):
        for command in ("link add lab type bridge", "addr add %s/24 dev lab" % OWN_ADDRESS,
                        "link set lab up"):
            nistest.run("ip", *command.split(), check=True)
        for controller in self.controllers:
            controller.make_machine()
        write("/etc/krb5.conf", KERBEROS + "  default_ccache_name = FILE:/run/krb5cc_%{uid}\n")

    def write_client_files(self):
        write("/etc/resolv.conf", resolver([one.address for one in self.controllers]))
        write("/etc/hosts", "127.0.0.1 localhost\n%s %s.%s %s\n" % (
                OWN_ADDRESS, MACHINE.lower(), DOMAIN, MACHINE.lower()))
        write("/etc/nsswitch.conf", "passwd: files\ngroup: files\nhosts: files dns\n")

    # -- archives -----------------------------------------------------------------------------------

    @staticmethod
    def _locked_images():
        folder = os.environ.get("ORRISD_AD_IMAGES") or os.path.join(
            os.environ["ORRISD_BIN"], os.pardir, "ad-images")
        os.makedirs(folder, exist_ok=True)
        return _Locked(os.path.abspath(folder))

    def _name(self, filled):
        """Archives are made again when what makes them changes."""
        recipe = b""
        for module in (__file__, adcontroller.__file__):
            with open(os.path.abspath(module), "rb") as file:
                recipe += file.read()
        recipe += call("dpkg-query", "-W", "-f", "${Version}", "samba-ad-dc").encode()
        name = "domain-%d" % len(self.controllers)
        if filled:
            name += "-" + self._image
            recipe += inspect.getsource(inspect.getmodule(self._build)).encode()
        return "%s-%s.tar.gz" % (name, hashlib.sha256(recipe).hexdigest()[:16])

    def _unpack(self, images):
        if self._build and self._fresh(images, True):
            self._extract(os.path.join(images, self._name(True)))
            return
        if self._fresh(images, False):
            self._extract(os.path.join(images, self._name(False)))
        else:
            self._provision()
            self._archive(images, self._name(False))
        if self._build:
            for controller in self.controllers:
                controller.start()
            self.write_client_files()
            self._build(self)
            self._stop_controllers()
            self._archive(images, self._name(True))

    def _fresh(self, images, filled):
        path = os.path.join(images, self._name(filled))
        return os.path.exists(path) and time.time() - os.path.getmtime(path) < MAX_AGE

    @staticmethod
    def _extract(path):
        call("tar", "--extract", "--gzip", "--xattrs", "--sparse", "--file", path, "--directory",
             FOLDER)

    @staticmethod
    def _archive(images, name):
        path = os.path.join(images, name)
        call("tar", "--create", "--gzip", "--xattrs", "--sparse", "--exclude=*/run/samba/*",
             "--exclude=*/ldapi", "--exclude=*/msg.sock/*", "--file", path + ".new", "--directory",
             FOLDER, ".")
        stem = name.rpartition("-")[0] + "-"
        for old in os.listdir(images):
            if old.rpartition("-")[0] + "-" == stem and not old.endswith(".new"):
                os.remove(os.path.join(images, old))
        os.rename(path + ".new", path)

    def _stop_controllers(self):
        for controller in self.controllers:
            controller.stop()

    def _provision(self):
        os.makedirs(FOLDER + "/tls", exist_ok=True)
        make_authority(CA_FILE, "Laboratory authority")
        make_authority(OTHER_CA_FILE, "Another authority")
        self.dc1.provision()
        self.dc1.start()
        self.dc1.register()
        self.write_client_files()
        self.dc1.tool("computer", "create", MACHINE)
        self.dc1.tool("user", "setpassword", MACHINE + "$", "--newpassword=" + PASSWORD)
        self.dc1.tool("user", "enable", MACHINE + "$")
        self.dc1.tool("spn", "add", "host/%s.%s" % (MACHINE.lower(), DOMAIN), MACHINE + "$")
        for controller in self.controllers[1:]:
            controller.join()
            controller.start()
            controller.register()
            for tree in (BASE, "DC=DomainDnsZones," + BASE, "DC=ForestDnsZones," + BASE):
                self.replicate(controller, self.dc1, tree)
                self.replicate(self.dc1, controller, tree)
        self.ldapadd(["dn: %s\nobjectClass: container\n" % ZONES])
        for controller in self.controllers[1:]:
            self.replicate(self.dc1, controller)
        self._stop_controllers()

    # -- the machine's account ----------------------------------------------------------------------

    def export_keytab(self, path=KEYTAB):
        """The machine account's keys, as they are now, in the keytab of this host."""
        inner = os.path.join(self.dc1.folder, "var/lib/samba/exported.keytab")
        for principal in (MACHINE + "$", "host/%s.%s" % (MACHINE.lower(), DOMAIN)):
            self.dc1.tool("domain", "exportkeytab", "/var/lib/samba/exported.keytab",
                          "--principal=%s@%s" % (principal, REALM))
        shutil.copy(inner, path)
        os.chmod(path, 0o600)
        os.remove(inner)

    def change_machine_password(self, password="An0ther.Secret"):
        """Keys in the keytab are old afterwards, until export_keytab()."""
        self.dc1.tool("user", "setpassword", MACHINE + "$", "--newpassword=" + password)

    def allow_tombstones(self, account=MACHINE, controller=None):
        """Lets a machine see deleted objects (list children, read property). samba-tool cannot do
        it, because it does not find the container of deleted objects."""
        sid = self.search("(sAMAccountName=%s$)" % account, ["objectSid"])[0]["objectSid"][0]
        controller = controller or self.dc1
        found = controller.run("ldbsearch", *DATABASE, "--show-deleted", "-s", "base", "-b",
                               "CN=Deleted Objects," + BASE, "nTSecurityDescriptor")
        rights = parse_ldif(found.encode())[0]["nTSecurityDescriptor"][0].decode()
        owner, _, entries = rights.partition("(")
        controller.run(
            "ldbmodify", *DATABASE, "--controls=show_deleted:1", stdin=None,
            input=("dn: CN=Deleted Objects,%s\nchangetype: modify\nreplace: nTSecurityDescriptor\n"
                   "nTSecurityDescriptor: %s(A;;LCRP;;;%s)(%s\n" % (
                       BASE, owner, sid_text(sid), entries)).encode())

    def replicate(self, source, target, base=BASE):
        """Waits until what the source holds is on the target too."""
        target.tool("drs", "replicate", target.host, source.host, base,
                    "-U%s%%%s" % (ADMIN, PASSWORD))

    # -- LDAP as the administrator ------------------------------------------------------------------

    def _bound(self, tool, controller):
        environment = dict(os.environ, LDAPTLS_CACERT=CA_FILE, LDAPTLS_REQCERT="demand")
        command = [tool, "-x", "-H", "ldaps://" + (controller or self.dc1).host, "-D",
                   "%s@%s" % (ADMIN, REALM), "-w", PASSWORD]
        return command, environment

    def _change(self, tool, records, controller):
        command, environment = self._bound(tool, controller)
        text = "\n".join(record if isinstance(record, str) else record.decode()
                         for record in records)
        return call(*command, env=environment, stdin=None, input=text.encode())

    def ldapadd(self, records, controller=None):
        """Adds objects: LDIF texts, each one record that ends with a line feed."""
        return self._change("ldapadd", records, controller)

    def ldapmodify(self, records, controller=None):
        return self._change("ldapmodify", records, controller)

    def search(self, text_filter="(objectClass=*)", attributes=(), base=BASE, scope="sub",
               controller=None, options=()):
        """An independent look at the domain.
        @return list of objects {attribute: [bytes, ...]}, "dn" among them; the page control is used,
                values that a controller hands out by range are not put together"""
        command, environment = self._bound("ldapsearch", controller)
        done = subprocess.run(
            [*command, "-LLL", "-o", "ldif-wrap=no", "-E", "pr=1000/noprompt", *options, "-s", scope,
             "-b", base, text_filter, *attributes],
            env=environment, capture_output=True, check=False, stdin=subprocess.DEVNULL)
        if done.returncode != 0:
            raise AssertionError("ldapsearch %s: status %d: %s" % (
                text_filter, done.returncode, done.stderr.decode(errors="replace")))
        return parse_ldif(done.stdout)

    def replace(self, dn, attribute, *values, controller=None):
        lines = ["dn:: " + encode(dn), "changetype: modify", "replace: " + attribute]
        self.ldapmodify(["\n".join(lines + ["%s:: %s" % (attribute, encode(value))
                                            for value in values]) + "\n"], controller)

    def delete(self, dn, controller=None):
        self.ldapmodify(["dn:: %s\nchangetype: delete\n" % encode(dn)], controller)

    def move(self, dn, parent, controller=None, cn=None):
        """Gives an object another parent, and another name where asked."""
        name = "CN=" + cn if cn else dn.split(",", 1)[0]
        self.ldapmodify(["dn:: %s\nchangetype: modrdn\nnewrdn:: %s\ndeleteoldrdn: 1\n"
                         "newsuperior:: %s\n" % (encode(dn), encode(name), encode(parent))],
                        controller)

    # -- the object model ---------------------------------------------------------------------------

    def zone(self, name, parent=ZONES, nisdomain=None):
        """A zone with its container of maps. @return its DN"""
        dn = "CN=%s,%s" % (name, parent)
        settings = {"extensionName": "nisdomain=" + nisdomain} if nisdomain else {}
        self.ldapadd([record(dn, objectClass="container", **settings),
                      record("CN=nismaps," + dn, objectClass="container")])
        return dn

    def map(self, name, zone):
        dn = "CN=%s,CN=nismaps,%s" % (name, zone)
        self.ldapadd([record(dn, objectClass="container")])
        return dn

    def entry_record(self, map_dn, key, value, cn=None):
        """@return (dn, LDIF) of an entry that is not there yet"""
        if cn is None:
            self._next_cn += 1
            cn = "e%d" % self._next_cn
        dn = "CN=%s,%s" % (cn, map_dn)
        return dn, record(dn, objectClass="container", description=key, adminDescription=value)

    def entry(self, map_dn, key, value, cn=None):
        dn, text = self.entry_record(map_dn, key, value, cn)
        self.ldapadd([text])
        return dn

    def fill(self, name, entries, zone):
        """A map with the given {key: value}; @return {key: dn of its entry}"""
        map_dn = self.map(name, zone)
        made = {key: self.entry_record(map_dn, key, value) for key, value in entries.items()}
        self.ldapadd([text for _, text in made.values()])
        return {key: dn for key, (dn, _) in made.items()}

    @staticmethod
    def user_record(name, uid, gid=100, **attributes):
        """@return (dn, LDIF) of an enabled account whose password never expires"""
        dn = "CN=%s,CN=Users,%s" % (name, BASE)
        values = {"sAMAccountName": name, "uidNumber": str(uid), "gidNumber": str(gid),
                  "gecos": name.capitalize(), "unixHomeDirectory": "/home/" + name,
                  "loginShell": "/bin/bash", "userAccountControl": "66080"}
        values.update(attributes)
        return dn, record(dn, objectClass="user",
                          **{key: value for key, value in values.items() if value is not None})

    def user(self, name, uid, gid=100, **attributes):
        dn, text = self.user_record(name, uid, gid, **attributes)
        self.ldapadd([text])
        return dn

    @staticmethod
    def group_record(name, gid, members=()):
        dn = "CN=%s,CN=Users,%s" % (name, BASE)
        attributes = {"sAMAccountName": name}
        if gid is not None:
            attributes["gidNumber"] = str(gid)
        if members:
            attributes["member"] = list(members)
        return dn, record(dn, objectClass="group", **attributes)

    def group(self, name, gid, members=()):
        dn, text = self.group_record(name, gid, members)
        self.ldapadd([text])
        return dn


def encode(value):
    return base64.b64encode(value.encode() if isinstance(value, str) else value).decode()


def password_value(password):
    """A password in the form that the attribute unicodePwd takes."""
    return ('"%s"' % password).encode("utf-16-le")


def record(dn, **attributes):
    """LDIF of an object to add; a list gives an attribute several values."""
    lines = ["dn:: " + encode(dn)]
    for name, values in attributes.items():
        for value in values if isinstance(values, list) else [values]:
            raw = value.encode() if isinstance(value, str) else value
            if raw and ldif.is_plain(raw):
                lines.append("%s: %s" % (name, value if isinstance(value, str) else raw.decode()))
            else:
                lines.append("%s:: %s" % (name, encode(value)))
    return "\n".join(lines) + "\n"


def parse_ldif(text):
    objects = []
    for block in text.replace(b"\n ", b"").split(b"\n\n"):
        found = {}
        for line in block.splitlines():
            if not line or line.startswith(b"#"):
                continue
            name, _, value = line.partition(b":")
            value = base64.b64decode(value[1:]) if value.startswith(b":") else value.strip()
            found.setdefault(name.decode(), []).append(value)
        if "dn" in found:
            found["dn"] = found["dn"][0].decode()
            objects.append(found)
    return objects


def sid_text(raw):
    count = raw[1]
    parts = [int.from_bytes(raw[2:8], "big")]
    parts += [int.from_bytes(raw[8 + 4 * i:12 + 4 * i], "little") for i in range(count)]
    return "S-%d-%s" % (raw[0], "-".join(str(part) for part in parts))


class _Locked:
    """The folder of the archives while no other test makes one."""

    def __init__(self, folder):
        self.folder = folder

    def __enter__(self):
        self.file = open(os.path.join(self.folder, "lock"), "w")
        fcntl.flock(self.file, fcntl.LOCK_EX)
        return self.folder

    def __exit__(self, *_):
        self.file.close()
