"""The servers that are measured: orrisd on the embedded directory, Debian's ypserv with the same
data, and bare baselines that move the same bytes."""

import json
import os
import subprocess
import sys

import nistest
import procinfo

DOMAIN = nistest.DOMAIN
UDP_PORT, TCP_PORT, PEER_PORT = 710, 711, 720
ECHO_PORT, STREAM_PORT, ACCEPT_PORT = 7010, 7011, 7012
PAIRS = "/run/pairs-%s.tsv"

# A reply to a match of one of the entries below, as a datagram.
REPLY_SIZE = 92


def entries(count, prefix="key"):
    """About 60 bytes each."""
    for number in range(count):
        yield ("%s%07d" % (prefix, number),
               "value of entry %07d, so that it has sixty" % number)


def write_pairs(name, count, prefix="key"):
    with open(PAIRS % name, "w") as file:
        for key, value in entries(count, prefix):
            file.write("%s\t%s\n" % (key, value))


def cpu_seconds(pid):
    """Of the process and of its children that have ended: a server may fork for a transfer."""
    with open("/proc/%d/stat" % pid, "rb") as file:
        fields = file.read().rpartition(b")")[2].split()
    return sum(int(field) for field in fields[11:15]) / os.sysconf("SC_CLK_TCK")


def memory(pid):
    """(private, shared) resident bytes: what the process has of its own, and mapped files."""
    own = total = 0
    with open("/proc/%d/smaps_rollup" % pid) as file:
        for line in file:
            name, _, rest = line.partition(":")
            if name in ("Private_Dirty", "Private_Clean"):
                own += int(rest.split()[0]) * 1024
            elif name == "Rss":
                total = int(rest.split()[0]) * 1024
    return own, total - own


class Served:
    """A server under test: how to reach it and what its process has used so far."""

    def __init__(self, name, pid, udp, tcp, enter=()):
        self.name, self.pid, self.udp, self.tcp, self.enter = name, pid, udp, tcp, list(enter)

    def command(self, work, port, seconds, *extra, pairs="bench", nismap="bench"):
        return self.enter + [nistest.program("nisload"), work, "--port", str(port), "--domain",
                             DOMAIN, "--map", nismap, "--pairs", PAIRS % pairs, "--seconds",
                             str(seconds), *map(str, extra)]

    def load(self, work, seconds, *extra, **target):
        """One run; any wrong answer ends the measurement."""
        port = self.tcp if work in ("all", "stream", "connect") else self.udp
        before = cpu_seconds(self.pid)
        done = subprocess.run(self.command(work, port, seconds, *extra, **target),
                              capture_output=True, check=False)
        if done.returncode != 0:
            sys.exit("%s %s: %s%s" % (self.name, work, done.stdout.decode(), done.stderr.decode()))
        result = json.loads(done.stdout)
        result["server"] = self.name
        result["cpu_us"] = (cpu_seconds(self.pid) - before) / max(result["answers"], 1) * 1e6
        return result


def start_peer(test, count):
    """Debian's ypserv in a network of its own, where nobody holds its ports."""
    folder = "/var/yp/" + DOMAIN
    os.makedirs(folder, exist_ok=True)
    with open("/run/peer.txt", "w") as file:
        for key, value in entries(count):
            file.write("%s %s\n" % (key, value))
    nistest.run("/usr/lib/yp/makedbm", "/run/peer.txt", folder + "/bench", check=True, timeout=600)
    nistest.run("domainname", DOMAIN, check=True)
    script = ("ip link set lo up; mount -t tmpfs tmpfs /run/rpcbind; rpcbind -w -f & "
              "sleep 1; exec /usr/sbin/ypserv -p %d -f" % PEER_PORT)
    starter = test.start("ypserv", ["unshare", "--net", "--mount", "bash", "-c", script])
    enter = ["nsenter", "--net", "--target", str(starter.pid)]
    peer = Served("ypserv", starter.pid, PEER_PORT, PEER_PORT, enter)

    def answers():
        probe = subprocess.run(peer.command("udp-match", PEER_PORT, 2, "--count", "10"),
                               capture_output=True, check=False)
        return probe.returncode == 0 and json.loads(probe.stdout)["answers"] > 0
    nistest.wait_for(answers, "ypserv")
    return peer


def start_baseline(test, work, port, size):
    daemon = test.start(work, [nistest.program("nisload"), work, "--port", str(port), "--size",
                               str(size)])
    protocol = "udp" if work == "udp-echo" else "tcp"

    def listens():
        with open("/proc/net/" + protocol) as file:
            return ":%04X " % port in file.read()
    nistest.wait_for(listens, work)
    return Served(work, daemon.pid, port, port)
