"""Compares orrisd with bare baselines and with Debian's ypserv, all on this machine with the same
data, in rounds that take turns. Prints a table of medians and ratios with their spread."""

import argparse
import json
import signal
import statistics
import subprocess
import sys
import threading
import time

import ldif
import nistest
import served

ONE = ("--sockets", 1, "--window", 1)
OTHER_ENTRIES = 100


class Comparison(nistest.NisTest):
    log_level = "info"
    options = None

    def runTest(self):
        count = self.options.entries
        served.write_pairs("bench", count)
        served.write_pairs("other", OTHER_ENTRIES, "other")
        self.directory = ldif.Directory(nistest.LDIF_FILE)
        self.directory.fill("bench", dict(served.entries(count)))
        self.directory.fill("other", dict(served.entries(OTHER_ENTRIES, "other")))
        self.start_system(nisd_port_udp=str(served.UDP_PORT), nisd_port_tcp=str(served.TCP_PORT))
        self.ours = served.Served("orrisd", self.orrisd.pid, served.UDP_PORT, served.TCP_PORT)
        self.peer = served.start_peer(self, count)
        self.stream_size = len(self.whole_map_bytes())
        self.echo = served.start_baseline(self, "udp-echo", served.ECHO_PORT, served.REPLY_SIZE)
        self.stream = served.start_baseline(self, "tcp-stream", served.STREAM_PORT,
                                            self.stream_size)
        self.accept = served.start_baseline(self, "tcp-echo", served.ACCEPT_PORT,
                                            served.REPLY_SIZE)
        results = self.measure()
        self.report(results)
        if self.options.json:
            with open(self.options.json, "w") as file:
                json.dump(results, file, indent=1)

    def whole_map_bytes(self):
        """As many bytes as a whole-map answer has, for the plain stream."""
        return b"".join(b"%s%s" % (key.encode(), value.encode()) + b"\0" * 16
                        for key, value in served.entries(self.options.entries))

    # -- works: each a list of (server, how to run it once), the base of the ratios first ----------

    def works(self):
        size = ("--size", self.stream_size)
        base = {"extra": ("--echo",)}
        return {
            # The round before ended with a rebuild: orrisd has nothing in memory.
            "UDP match, records not yet read": self.row("udp-match", self.echo, base),
            "UDP match, 8 sockets x window 16": self.row("udp-match", self.echo, base),
            "UDP match, one call at a time": self.row("udp-match", self.echo, base, *ONE),
            "whole map, 1 stream": self.row("all", self.stream, {"work": "stream", "extra": size},
                                            *ONE),
            "whole map, 8 streams": self.row("all", self.stream,
                                             {"work": "stream", "extra": size}, "--sockets", 8),
            "first/next walk": self.row("walk", self.echo, base),
            "new TCP connection per match": self.row("connect", self.accept, base),
            "UDP match among hostile clients": self.disturbed(self.hostile),
            "UDP match, another map rebuilt": self.disturbed(
                self.rebuild, pairs="other", nismap="other"),
            "UDP match, its map rebuilt": self.disturbed(self.rebuild),
        }

    def row(self, work, base, how, *extra):
        def run(server, what, more):
            return lambda: server.load(what, self.options.seconds, *extra, *more)
        return [(base.name, run(base, how.get("work", work), how["extra"])),
                (self.ours.name, run(self.ours, work, ())),
                (self.peer.name, run(self.peer, work, ()))]

    def disturbed(self, disturbance, **target):
        """Undisturbed runs are the base."""
        def run(disturb):
            def once():
                if not disturb:
                    return self.ours.load("udp-match", self.options.seconds, **target)
                with_it = disturbance()
                try:
                    return self.ours.load("udp-match", self.options.seconds, **target)
                finally:
                    with_it()
            return once
        return [("undisturbed", run(False)), ("disturbed", run(True))]

    def hostile(self):
        process = subprocess.Popen(
            self.ours.command("hostile", served.TCP_PORT, self.options.seconds + 2, "--half", 200,
                              "--silent", 200, "--idle", 1000), stdout=subprocess.DEVNULL)
        time.sleep(1)
        return process.wait

    def rebuild(self):
        """Rebuilds of all maps, one after the other, until it is told to end."""
        done = threading.Event()

        def again():
            while not done.wait(0.1):  # signals that come during a rebuild count as one
                self.orrisd.signal(signal.SIGUSR1)
        thread = threading.Thread(target=again)
        thread.start()

        def end():
            done.set()
            thread.join()
            self.settle()
        return end

    def settle(self):
        """Until the last rebuild is over: it must not burden what is measured next."""
        def used():
            return [served.cpu_seconds(daemon.pid) for daemon in (self.orrisd, self.quorad)]
        before, now = None, used()
        while before != now:
            time.sleep(0.3)
            before, now = now, used()

    def measure(self):
        results = {}
        for _ in range(self.options.rounds):
            for title, runs in self.works().items():
                for name, run in runs:
                    results.setdefault(title, {}).setdefault(name, []).append(run())
        return results

    # -- report -----------------------------------------------------------------------------------

    def report(self, results):
        print("%d entries; %d rounds of %g s that take turns; medians" % (
            self.options.entries, self.options.rounds, self.options.seconds))
        row = "%-34s %-12s %12s %7s %8s %9s %9s %9s"
        print(row % ("work", "server", "per second", "spread", "of base", "p50 us", "p99 us",
                     "cpu us"))
        for title, servers in results.items():
            base = None
            for name, runs in servers.items():
                rates = [self.rate(run) for run in runs]
                rate = statistics.median(rates)
                base = base or rate
                print(row % (title, name, "%.0f" % rate,
                             "%.0f%%" % (100 * (max(rates) - min(rates)) / rate),
                             "%.2f" % (rate / base), *("%.1f" % statistics.median(
                                 run[name] for run in runs)
                                 for name in ("p50_us", "p99_us", "cpu_us"))))
                title = ""

    @staticmethod
    def rate(run):
        """Answers; of whole maps and streams bytes."""
        whole = run["work"] in ("all", "stream")
        return (run["bytes"] if whole else run["answers"]) / run["seconds"]


def main():
    parser = argparse.ArgumentParser(prog="bench/run compare")
    parser.add_argument("--entries", type=int, default=100000)
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--seconds", type=float, default=2)
    parser.add_argument("--json")
    Comparison.options = parser.parse_args()
    sys.argv = sys.argv[:1]
    nistest.main()


if __name__ == "__main__":
    main()
