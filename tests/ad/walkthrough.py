"""docs/active-directory.md is followed to the letter: each block of commands is run as it stands."""

import os
import re
import subprocess

import adlab
import adtest
import nistest
from nistest import program
from ypclient import yp_port

DOCUMENT = os.path.join(os.path.dirname(os.path.abspath(__file__)), os.pardir, os.pardir, "docs",
                        "active-directory.md")
TOOLS = "/run/tools"

# There is no service manager on a private system: this one starts what the units start.
SYSTEMCTL = """\
#!/bin/bash
[ "$1 $2" = "enable --now" ] || { echo "systemctl: unexpected: $*" >&2; exit 1; }
shift 2
for unit in "$@"; do
    case $unit in
        rpcbind) rpcinfo -p 127.0.0.1 >/dev/null 2>&1 || exit 1 ;;
        quorad | orrisd) %(programs)s/$unit || exit 1 ;;
        ypbind) mkdir -p /var/yp/binding; ypbind || exit 1 ;;
        *) echo "systemctl: no unit $unit" >&2; exit 1 ;;
    esac
done
"""


def blocks():
    """(kind, commands) of each block that is marked as shell commands, in order."""
    with open(DOCUMENT) as file:
        found = re.findall(r"^```sh *(\w*)\n(.*?)^```$", file.read(), re.MULTILINE | re.DOTALL)
    return [(kind or "host", commands) for kind, commands in found]


class Walkthrough(adtest.AdTest):
    def make_zones(self):
        """The document makes what is needed itself."""
        self.lab.delete(adlab.ZONES)

    def setUp(self):
        super().setUp()
        os.makedirs(TOOLS, exist_ok=True)
        path = os.path.join(TOOLS, "systemctl")
        with open(path, "w") as file:
            file.write(SYSTEMCTL % {"programs": os.path.dirname(program("quorad"))})
        os.chmod(path, 0o755)
        for account in ("/etc/passwd", "/etc/group"):
            nistest.keep_system_accounts(account)
        os.environ["PATH"] = "%s:%s:%s" % (TOOLS, os.path.dirname(program("quorad")),
                                           os.environ["PATH"])

    def stop_daemons(self):
        for name in ("quorad", "orrisd", "ypbind"):
            pid_file = "/var/run/%s.pid" % name
            if os.path.exists(pid_file):
                with open(pid_file) as file:
                    os.kill(int(file.read()), nistest.SIGTERM)
        super().stop_daemons()

    def follow(self, kind, commands):
        text = "set -e -o pipefail\n" + commands
        command = ["bash", "-c", text]
        if kind == "controller":
            command = self.lab.dc1.inside(*command)
        typed = adlab.PASSWORD + "\n" if kind == "password" else ""
        # A file, because daemons may hold on to it longer than the command runs.
        with open("/run/output", "w+b") as file:
            done = subprocess.run(command, input=typed.encode(), stdout=file, stderr=file,
                                  timeout=120 * nistest.SLOW, check=False)
            file.seek(0)
            output = file.read().decode(errors="replace")
        self.assertEqual(done.returncode, 0, "%s\nfailed:\n%s" % (commands, output))
        return output

    def test_followed_to_the_letter(self):
        outputs = {}
        for kind, commands in blocks():
            if "ypmatch capstan" in commands:
                self.wait_until_changed(commands)
            if "ypwhich" in commands:
                # ypbind takes a moment to find its server.
                commands = commands.replace("ypwhich\n", "")
                self.follow(kind, commands)
                commands = "ypwhich\n"
                nistest.wait_for(lambda: nistest.run("ypwhich").returncode == 0, "ypbind")
            outputs[commands] = self.follow(kind, commands)
            if "systemctl enable --now rpcbind quorad" in commands:
                nistest.wait_for(lambda: yp_port("udp"), "the registration with rpcbind")
                self.wait_served("lab.example.com")
        self.check(outputs)

    @staticmethod
    def wait_until_changed(commands):
        nistest.wait_for(lambda: b"10.53.0.30" in nistest.run(*commands.split()).stdout,
                         "the changed address")

    def check(self, outputs):
        whole = "\n".join(outputs.values())
        for expected in ("dc1.ad.example.com",
                         "CN=nismaps,CN=lab,CN=Zones,DC=ad,DC=example,DC=com",
                         "+ capstan.ad.example.com: 10.53.0.20  capstan.ad.example.com capstan",
                         "hosts 2\n", "0 failed, 1 warning.", "10.53.0.254",
                         "davit 10.53.0.21  davit.ad.example.com davit", "-rw capstan:/export/ines",
                         "ines:!:1001:1000:Ines Moreau:/home/ines:/bin/bash", "1000(crew)",
                         "10.53.0.30  capstan.ad.example.com capstan"):
            self.assertIn(expected, whole)
        self.assertRegex(whole, "OK +deleted objects readable")

    def test_every_block_is_marked(self):
        with open(DOCUMENT) as file:
            fences = re.findall(r"^```(.+)$", file.read(), re.MULTILINE)
        self.assertGreater(len(fences), 12)
        self.assertLessEqual(set(fences), {"sh", "sh controller", "sh client", "sh password", "bat"})


if __name__ == "__main__":
    nistest.main()
