"""One domain controller of the laboratory (see adlab.py): its machine, its files, its process."""

import os
import shutil
import signal
import subprocess

import nistest

DOMAIN = "ad.example.com"
REALM = DOMAIN.upper()
WORKGROUP = "AD"
BASE = "DC=ad,DC=example,DC=com"
ADMIN = "Administrator"
PASSWORD = "Passw0rd.lab"
FOLDER = "/run/ad"
DATABASE = ("-H", "/var/lib/samba/private/sam.ldb")
CA_FILE = FOLDER + "/tls/ca.pem"
OTHER_CA_FILE = FOLDER + "/tls/other-ca.pem"
NETWORK = "10.53.0"
OWN_ADDRESS = NETWORK + ".254"

KERBEROS = """\
[libdefaults]
  default_realm = %s
  dns_lookup_kdc = true
  dns_lookup_realm = false
  rdns = false
  dns_canonicalize_hostname = false
""" % REALM
SMB_OPTIONS = """\
    server services = ldap, cldap, kdc, dns, rpc, drepl
    dns forwarder = 127.0.0.1
    tls enabled = yes
    tls keyfile = /var/lib/samba/private/tls/key.pem
    tls certfile = /var/lib/samba/private/tls/cert.pem
    tls cafile = /var/lib/samba/private/tls/ca.pem
    allow dns updates = nonsecure and secure
    ldap max search request size = 10000000
    log level = 1
"""


def call(*command, **options):
    """Runs a command of the lab; its output is part of the message when it fails."""
    options.setdefault("stdin", subprocess.DEVNULL)
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False,
                          **options)
    if done.returncode != 0:
        raise AssertionError("%s: status %d\n%s" % (
            " ".join(command), done.returncode, done.stdout.decode(errors="replace")))
    return done.stdout.decode(errors="replace")


def write(path, text):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "w") as file:
        file.write(text)


class Controller:
    """One domain controller: its machine, its files and its process."""

    def __init__(self, number, alone):
        """@param alone the only controller: one process will do. With several, a process that asks
        the other one must be able to get a ticket from this one's own ticket server."""
        self.number = number
        self.model = "single" if alone else "standard"
        self.name = "dc%d" % number
        self.host = "%s.%s" % (self.name, DOMAIN)
        self.address = "%s.%d" % (NETWORK, number)
        self.folder = os.path.join(FOLDER, self.name)
        self.daemon = None

    def make_machine(self):
        """The network namespace and the files of /etc that differ there."""
        nistest.run("ip", "netns", "add", self.name, check=True)
        for command in ("link add %s type veth peer name eth0 netns %s" % (self.name, self.name),
                        "link set %s master lab up" % self.name,
                        "-n %s addr add %s/24 dev eth0" % (self.name, self.address),
                        "-n %s link set eth0 up" % self.name, "-n %s link set lo up" % self.name):
            nistest.run("ip", *command.split(), check=True)
        etc = "/etc/netns/" + self.name
        servers = [self.address] + ([NETWORK + ".1"] if self.number != 1 else [])
        write(etc + "/resolv.conf", resolver(servers))
        write(etc + "/hosts", "127.0.0.1 localhost\n%s %s %s\n" % (
            self.address, self.host, self.name))
        write(etc + "/krb5.conf", KERBEROS)
        write(etc + "/nsswitch.conf", "passwd: files\ngroup: files\nhosts: files dns\n")

    def inside(self, *command):
        """The command as it is run on this controller's machine. faketime names what it shares by
        process ids, which tests in other namespaces have as well: its folder is the machine's own."""
        steps = ["ulimit -n $(ulimit -Hn)", "hostname " + self.name, "mount -t tmpfs tmpfs /dev/shm"]
        for path in ("etc/samba", "var/lib/samba", "var/cache/samba", "var/log/samba", "run/samba"):
            here = os.path.join(self.folder, path)
            steps.append("mkdir -p %s /%s && mount --bind %s /%s" % (here, path, here, path))
        return ["ip", "netns", "exec", self.name, "unshare", "--uts", "--mount", "--ipc", "sh", "-c",
                " && ".join(steps) + ' && exec "$@"', "sh", *command]

    def run(self, *command, **options):
        return call(*self.inside(*command), **options)

    def tool(self, *arguments):
        """samba-tool on this controller's own database."""
        return self.run("samba-tool", *arguments)

    def start(self, clock=None):
        """Starts Samba and returns when it answers.
        @param clock offset of its clock as faketime takes it ("+20m"); None: the right time"""
        command = ["/usr/sbin/samba", "-i", "-M", self.model, "--no-process-group",
                   "--debug-stdout"]
        if clock:
            # Otherwise its database modules bind to the C library past the changed clock.
            command = ["env", "LDB_MODULES_DISABLE_DEEPBIND=1", "faketime", "-f", clock, *command]
        self.daemon = nistest.Daemon("samba-" + self.name, self.inside(*command))
        nistest.wait_for(self.answers, "the domain controller " + self.name)

    def answers(self):
        if not self.daemon.running():
            raise AssertionError("samba on %s ended:\n%s" % (
                self.name, self.daemon.log().decode(errors="replace")[-3000:]))
        done = nistest.run("ldapsearch", "-x", "-LLL", "-o", "nettimeout=2", "-H",
                           "ldap://" + self.address, "-s", "base", "-b", "", "dnsHostName")
        return self.host.encode() in done.stdout

    def stop(self):
        if self.daemon is not None and self.daemon.running():
            self.thaw()
            self._signal(signal.SIGTERM)
            try:
                self.daemon.wait(30)
            except subprocess.TimeoutExpired:
                self._signal(signal.SIGKILL)
                self.daemon.wait(30)

    def restart(self):
        self.stop()
        self.start()

    def freeze(self):
        """Connections are accepted by the kernel, but nothing is ever answered."""
        self._signal(signal.SIGSTOP)

    def thaw(self):
        self._signal(signal.SIGCONT)

    def _signal(self, number):
        os.killpg(self.daemon.pid, number)

    def unplug(self):
        """Packets to and from the controller are dropped."""
        nistest.run("ip", "link", "set", self.name, "nomaster", check=True)

    def plug(self):
        nistest.run("ip", "link", "set", self.name, "master", "lab", check=True)

    def save(self, path):
        """Keeps a copy of the stopped controller's database, as a backup of its disk would."""
        shutil.rmtree(path, ignore_errors=True)
        call("cp", "-a", self.folder, path)

    def restore(self, path):
        shutil.rmtree(self.folder)
        call("cp", "-a", path, self.folder)

    # -- making it ----------------------------------------------------------------------------------

    def provision(self):
        self._prepare_files()
        self.tool("domain", "provision", "--use-rfc2307", "--dns-backend=SAMBA_INTERNAL",
                  "--realm=" + REALM, "--domain=" + WORKGROUP, "--server-role=dc",
                  "--adminpass=" + PASSWORD, "--host-ip=" + self.address, "--host-name=" + self.name)
        self._finish_files()
        self.tool("domain", "passwordsettings", "set", "--complexity=off", "--history-length=0",
                  "--min-pwd-age=0", "--min-pwd-length=4")
        self.tool("user", "setexpiry", ADMIN, "--noexpiry")

    def join(self):
        self._prepare_files()
        self.tool("domain", "join", DOMAIN, "DC", "--server=dc1." + DOMAIN,
                  "-U%s%%%s" % (ADMIN, PASSWORD), "--dns-backend=SAMBA_INTERNAL")
        self._finish_files()

    def register(self):
        """Service names and DNS records, which the lean set of services does not keep up."""
        self.run("samba_spnupdate")
        self.run("samba_dnsupdate", "--use-samba-tool")

    def _prepare_files(self):
        shutil.rmtree(self.folder, ignore_errors=True)
        for path in ("etc/samba", "var/lib/samba/private", "var/cache/samba", "var/log/samba"):
            os.makedirs(os.path.join(self.folder, path))

    def _finish_files(self):
        path = os.path.join(self.folder, "etc/samba/smb.conf")
        with open(path) as file:
            lines = [line for line in file if "dns forwarder" not in line and "log level" not in line]
        at = lines.index("[global]\n") + 1
        write(path, "".join(lines[:at]) + SMB_OPTIONS + "".join(lines[at:]))
        tls = os.path.join(self.folder, "var/lib/samba/private/tls")
        os.makedirs(tls, exist_ok=True)
        make_certificate(self.host, tls)


def resolver(servers):
    return "search %s\n%soptions timeout:1 attempts:2\n" % (
        DOMAIN, "".join("nameserver %s\n" % address for address in servers))


def make_authority(path, name):
    call("openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "30", "-subj",
         "/CN=" + name, "-keyout", path[:-4] + "-key.pem", "-out", path)


def make_certificate(host, folder):
    key, request, certificate = (os.path.join(folder, name)
                                 for name in ("key.pem", "request.pem", "cert.pem"))
    call("openssl", "req", "-newkey", "rsa:2048", "-nodes", "-subj", "/CN=" + host, "-keyout", key,
         "-out", request)
    write(request + ".ext", "subjectAltName=DNS:" + host)
    call("openssl", "x509", "-req", "-in", request, "-CA", CA_FILE, "-CAkey",
         CA_FILE[:-4] + "-key.pem", "-CAcreateserial", "-days", "30", "-extfile", request + ".ext",
         "-out", certificate)
    shutil.copy(CA_FILE, os.path.join(folder, "ca.pem"))
    os.chmod(key, 0o600)
