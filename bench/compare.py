#!/usr/bin/python3
"""Compares orrisd with bare baselines and with Debian's ypserv, all on this machine with the same
data, in rounds that take turns. Prints a table of medians and ratios with their spread.

usage (as root): bench/compare [--entries N] [--rounds N] [--seconds S] [--json FILE]
"""

import argparse
import json
import os
import statistics
import subprocess
import sys
import time

import ldif
import nistest
import procinfo

DOMAIN = "bench"
MAP = "bench"
UDP_PORT, TCP_PORT = 710, 711
PEER_PORT = 720
ECHO_PORT, STREAM_PORT, ACCEPT_PORT = 7010, 7011, 7012
PAIRS = "/run/pairs.tsv"


def entries(count):
    for number in range(count):
        yield "key%07d" % number, "value of entry %07d, which makes it about sixty bytes" % number


class Served:
    """A server under test: how to reach it and what its process has used so far."""

    def __init__(self, name, pid, udp, tcp, enter=()):
        self.name, self.pid, self.udp, self.tcp, self.enter = name, pid, udp, tcp, list(enter)

    def load(self, work, options, port, *extra):
        before = procinfo.cpu_seconds(self.pid)
        command = self.enter + [nistest.program("nisload"), work, "--port", str(port), "--domain",
                                DOMAIN, "--map", MAP, "--pairs", PAIRS, "--seconds",
                                str(options.seconds), *extra]
        done = subprocess.run(command, capture_output=True, check=False)
        if done.returncode != 0:
            sys.exit("%s %s: %s%s" % (self.name, work, done.stdout.decode(), done.stderr.decode()))
        result = json.loads(done.stdout)
        result["cpu_us"] = (procinfo.cpu_seconds(self.pid) - before) / max(
            result["answers"], 1) * 1e6
        return result


class Comparison(nistest.NisTest):
    log_level = "info"
    options = None

    def runTest(self):
        self.write_pairs()
        self.fill_directory()
        started = time.monotonic()
        self.start_system(nisd_port_udp=str(UDP_PORT), nisd_port_tcp=str(TCP_PORT))
        self.loaded_in = time.monotonic() - started
        ours = Served("orrisd", self.orrisd.pid, UDP_PORT, TCP_PORT)
        peer = self.start_peer()
        self.start_baselines()
        self.report(self.measure(ours, peer))

    def write_pairs(self):
        with open(PAIRS, "w") as file:
            for key, value in entries(self.options.entries):
                file.write("%s\t%s\n" % (key, value))

    def fill_directory(self):
        self.directory = ldif.Directory(nistest.LDIF_FILE, DOMAIN)
        self.directory.fill(MAP, dict(entries(self.options.entries)))

    def start_peer(self):
        if not os.path.exists("/usr/sbin/ypserv"):
            return None
        folder = "/var/yp/" + DOMAIN
        os.makedirs(folder, exist_ok=True)
        with open("/run/peer.txt", "w") as file:
            for key, value in entries(self.options.entries):
                file.write("%s %s\n" % (key, value))
        nistest.run("/usr/lib/yp/makedbm", "/run/peer.txt", folder + "/" + MAP, check=True,
                    timeout=600)
        nistest.run("domainname", DOMAIN, check=True)
        script = ("ip link set lo up; mount -t tmpfs tmpfs /run/rpcbind; rpcbind -w -f & "
                  "sleep 1; exec /usr/sbin/ypserv -p %d -f" % PEER_PORT)
        starter = self.start("ypserv", ["unshare", "--net", "--mount", "bash", "-c", script])
        enter = ["nsenter", "--net", "--target", str(starter.pid)]
        peer = Served("ypserv", starter.pid, PEER_PORT, PEER_PORT, enter)

        def answers():
            probe = subprocess.run(
                enter + [nistest.program("nisload"), "udp-match", "--port", str(PEER_PORT),
                         "--domain", DOMAIN, "--map", MAP, "--pairs", PAIRS, "--count", "10",
                         "--seconds", "2"], capture_output=True, check=False)
            return probe.returncode == 0 and json.loads(probe.stdout)["answers"] > 0
        nistest.wait_for(answers, "ypserv")
        return peer

    def start_baselines(self):
        size = self.options.entries * 88
        for work, port, reply in (("udp-echo", ECHO_PORT, 88), ("tcp-stream", STREAM_PORT, size),
                                  ("tcp-echo", ACCEPT_PORT, 88)):
            self.start(work, [nistest.program("nisload"), work, "--port", str(port), "--size",
                              str(reply)])
        self.stream_size = size
        time.sleep(0.5)

    def measure(self, ours, peer):
        echo = Served("echo", self.daemons[-3].pid, ECHO_PORT, 0)
        stream = Served("stream", self.daemons[-2].pid, 0, STREAM_PORT)
        accept = Served("accept", self.daemons[-1].pid, 0, ACCEPT_PORT)
        one = ("--sockets", "1", "--window", "1")
        size = ("--size", str(self.stream_size))
        works = {
            "UDP match, 8 sockets x window 16": [
                (echo, "udp-match", "udp", ("--echo",)), (ours, "udp-match", "udp", ()),
                (peer, "udp-match", "udp", ())],
            "UDP match, one at a time": [
                (echo, "udp-match", "udp", ("--echo",) + one), (ours, "udp-match", "udp", one),
                (peer, "udp-match", "udp", one)],
            "whole map, 1 stream": [
                (stream, "stream", "tcp", one + size), (ours, "all", "tcp", one),
                (peer, "all", "tcp", one)],
            "whole map, 8 streams": [
                (stream, "stream", "tcp", ("--sockets", "8") + size),
                (ours, "all", "tcp", ("--sockets", "8")), (peer, "all", "tcp", ("--sockets", "8"))],
            "first/next walk": [
                (echo, "walk", "udp", ("--echo",)), (ours, "walk", "udp", ()),
                (peer, "walk", "udp", ())],
            "new TCP connection per match": [
                (accept, "connect", "tcp", ("--echo",)), (ours, "connect", "tcp", ()),
                (peer, "connect", "tcp", ())],
        }
        results = {}
        for _ in range(self.options.rounds):
            for title, runs in works.items():
                for served, work, protocol, extra in runs:
                    if served is not None:
                        results.setdefault(title, {}).setdefault(served.name, []).append(
                            served.load(work, self.options, getattr(served, protocol), *extra))
        return results

    def report(self, results):
        print("%d entries, loaded and served %.1f s after the start; %d rounds of %g s" % (
            self.options.entries, self.loaded_in, self.options.rounds, self.options.seconds))
        print("%-34s %-8s %12s %8s %10s %10s %10s" % (
            "work", "server", "median/s", "spread", "of base", "p99 us", "cpu us"))
        for title, servers in results.items():
            base = None
            for name, runs in servers.items():
                rates = [self.rate(run) for run in runs]
                median = statistics.median(rates)
                base = median if base is None else base
                print("%-34s %-8s %12.0f %7.0f%% %10.2f %10.0f %10.1f" % (
                    title, name, median, 100 * (max(rates) - min(rates)) / max(median, 1e-9),
                    median / base, statistics.median(run["p99_us"] for run in runs),
                    statistics.median(run["cpu_us"] for run in runs)))
        if self.options.json:
            with open(self.options.json, "w") as file:
                json.dump(results, file)

    @staticmethod
    def rate(run):
        """Answers a second; for whole maps and streams bytes a second."""
        whole = run["work"] in ("all", "stream")
        return (run["bytes"] if whole else run["answers"]) / run["seconds"]


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--entries", type=int, default=100000)
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--seconds", type=float, default=2)
    parser.add_argument("--json")
    Comparison.options = parser.parse_args()
    sys.argv = sys.argv[:1]
    nistest.main()


if __name__ == "__main__":
    main()
