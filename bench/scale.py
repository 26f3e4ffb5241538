"""How load, memory, look-ups, refresh and warm start grow with the number of entries and clients.
Prints a table; each row names what was measured and in what units."""

import argparse
import json
import os
import signal
import sys
import time

import ldif
import nistest
import served

CLIENTS = (1, 8, 64)
MAPS_OF_A_WARM_START = 50
USERS = 100000


class Scale(nistest.NisTest):
    log_level = "info"
    options = None

    def runTest(self):
        results = []
        for size in self.options.sizes:
            results.append(self.one_map(size))
            self.again()
            results[-1].update(self.warm_start(size))
            self.again()
        users = self.users(min(USERS, max(self.options.sizes)))
        self.report(results, users)
        if self.options.json:
            with open(self.options.json, "w") as file:
                json.dump({"sizes": results, "users": users}, file, indent=1)

    def again(self):
        """Ends everything and begins with empty folders."""
        self.stop_daemons()
        self.setUp()

    def timed(self, what):
        begin = time.monotonic()
        what()
        return time.monotonic() - begin

    def start_directory(self):
        self.directory.save()
        self.write_config(nisd_port_udp=str(served.UDP_PORT), nisd_port_tcp=str(served.TCP_PORT))
        self.start_quorad()
        self.quorad.wait_log("irectory file '.*' read:")

    # -- one map ----------------------------------------------------------------------------------

    def one_map(self, size):
        served.write_pairs("bench", size)
        entries = self.directory.fill("bench", dict(served.entries(size)))
        self.start_directory()
        empty = self.memory_of_an_empty_server()
        quorad = served.cpu_seconds(self.quorad.pid)
        load = self.timed(lambda: (self.start_orrisd(), self.wait_served()))
        result = {"entries": size, "load_s": load, "load_per_s": size / load,
                  "load_cpu_s": served.cpu_seconds(self.orrisd.pid),
                  "load_quorad_cpu_s": served.cpu_seconds(self.quorad.pid) - quorad,
                  "load_growth": served.memory(self.orrisd.pid)[0] - empty}
        ours = served.Served("orrisd", self.orrisd.pid, served.UDP_PORT, served.TCP_PORT)
        for clients in CLIENTS:
            run = ours.load("udp-match", self.options.seconds, "--sockets", clients, "--window", 1)
            result["match_%d" % clients] = {name: run[name] for name in (
                "per_second", "p50_us", "p99_us", "cpu_us")}
        result["refresh_s"] = self.refresh_one(entries)
        run = ours.load("all", self.options.seconds, "--sockets", 1)
        result["whole_map_bytes_per_s"] = run["bytes"] / run["seconds"]
        result["own_memory"], _ = served.memory(self.orrisd.pid)
        result["map_file"] = sum(os.path.getsize(os.path.join(nistest.CACHE_FOLDER, name))
                                 for name in os.listdir(nistest.CACHE_FOLDER)
                                 if name.endswith(".map"))
        return result

    def memory_of_an_empty_server(self):
        """Private bytes before anything was loaded: of a daemon whose only map is another one."""
        self.write_config(nisd_maps="nothing")
        self.start_orrisd()
        time.sleep(0.5)
        own, _ = served.memory(self.orrisd.pid)
        self.orrisd.stop()
        self.write_config(nisd_maps=None)
        return own

    def refresh_one(self, entries):
        """From the signal until a client sees one changed entry; the median of several."""
        key = next(iter(entries))
        times = []
        for number in range(5):
            value = "changed %d" % number
            self.directory.replace(entries[key], "adminDescription", value)
            self.save_directory()
            with self.client() as client:
                begin = time.monotonic()
                self.orrisd.signal(signal.SIGUSR2)
                while client.match("bench", key) != (1, value.encode()):
                    time.sleep(0.002)
                times.append(time.monotonic() - begin)
        self.directory.replace(entries[key], "adminDescription",
                               next(value for _, value in served.entries(1)))
        self.save_directory()
        self.orrisd.signal(signal.SIGUSR2)
        original = next(value for _, value in served.entries(1)).encode()
        with self.client() as client:
            nistest.wait_for(lambda: client.match("bench", key) == (1, original), "the old value")
        return sorted(times)[len(times) // 2]

    # -- many maps, and a start without the directory -----------------------------------------------

    def warm_start(self, size):
        names = ["map%02d" % number for number in range(MAPS_OF_A_WARM_START)]
        each = max(1, size // len(names))
        for name in names:
            self.directory.fill(name, dict(served.entries(each, name)))
        self.start_directory()
        self.start_orrisd()
        wanted = set(names)
        with self.client() as client:
            nistest.wait_for(lambda: set(client.maplist()[1]) >= wanted, "all maps", 120)
        self.orrisd.stop()
        self.quorad.stop()
        os.remove(nistest.LDIF_FILE)
        self.start_quorad()
        begin = time.monotonic()
        self.start_orrisd()
        with self.client() as client:
            first = self.answer(client, names[0], each)
            first = time.monotonic() - begin
            for name in names[1:]:
                self.answer(client, name, each)
        return {"warm_first_s": first, "warm_all_s": time.monotonic() - begin,
                "warm_memory": served.memory(self.orrisd.pid)[0]}

    def answer(self, client, name, each):
        key, value = list(served.entries(each, name))[-1]
        self.assertEqual(client.match(name, key), (1, value.encode()))

    # -- users ------------------------------------------------------------------------------------

    def users(self, count):
        for number in range(count):
            self.directory.user("user%06d" % number, 10000 + number)
        self.start_directory()
        load = self.timed(lambda: (self.start_orrisd(), self.wait_served()))
        with self.client() as client:
            order = client.order("passwd.byname")
        own, _ = served.memory(self.orrisd.pid)
        cpu = served.cpu_seconds(self.orrisd.pid)
        quorad = served.cpu_seconds(self.quorad.pid)
        self.orrisd.signal(signal.SIGUSR2)
        busy = self.until_idle()
        with self.client() as client:
            self.assertEqual(client.order("passwd.byname"), order)
        return {"users": count, "load_s": load, "refresh_s": busy,
                "refresh_cpu_s": served.cpu_seconds(self.orrisd.pid) - cpu,
                "refresh_quorad_cpu_s": served.cpu_seconds(self.quorad.pid) - quorad,
                "own_memory": served.memory(self.orrisd.pid)[0], "own_memory_before": own}

    def until_idle(self):
        """Seconds until the two daemons have used no time for a while."""
        begin = last = time.monotonic()
        used = None
        while time.monotonic() - last < 1:
            time.sleep(0.05)
            now = served.cpu_seconds(self.orrisd.pid) + served.cpu_seconds(self.quorad.pid)
            if now != used:
                used, last = now, time.monotonic()
        return last - begin

    # -- report -----------------------------------------------------------------------------------

    @staticmethod
    def report(results, users):
        rows = [
            ("entries", "%d", lambda r: r["entries"]),
            ("load from quorad, entries/s", "%.0f", lambda r: r["load_per_s"]),
            ("load, us CPU per entry (orrisd)", "%.1f",
             lambda r: r["load_cpu_s"] / r["entries"] * 1e6),
            ("load, us CPU per entry (quorad)", "%.1f",
             lambda r: r["load_quorad_cpu_s"] / r["entries"] * 1e6),
            ("memory grown by the load, MiB", "%.1f", lambda r: r["load_growth"] / 2**20),
            ("own memory after all works, MiB", "%.1f", lambda r: r["own_memory"] / 2**20),
            ("map file, MiB", "%.1f", lambda r: r["map_file"] / 2**20),
        ]
        for clients in CLIENTS:
            name = "match_%d" % clients
            rows.append(("match, %d clients, per second" % clients, "%.0f",
                         lambda r, name=name: r[name]["per_second"]))
            rows.append(("match, %d clients, us CPU" % clients, "%.1f",
                         lambda r, name=name: r[name]["cpu_us"]))
        rows += [
            ("refresh of one changed entry, ms", "%.1f", lambda r: r["refresh_s"] * 1e3),
            ("whole map, MB/s", "%.0f", lambda r: r["whole_map_bytes_per_s"] / 1e6),
            ("warm start of %d maps, first answer, s" % MAPS_OF_A_WARM_START, "%.2f",
             lambda r: r["warm_first_s"]),
            ("  all maps answered, s", "%.2f", lambda r: r["warm_all_s"]),
            ("  own memory, MiB", "%.1f", lambda r: r["warm_memory"] / 2**20),
        ]
        for title, form, value in rows:
            print("%-44s" % title + "".join("%12s" % (form % value(result)) for result in results))
        print("%d users: load %.1f s; refresh without a change %.2f s (CPU orrisd %.2f s, "
              "quorad %.2f s), own memory %.1f MiB" % (
                  users["users"], users["load_s"], users["refresh_s"], users["refresh_cpu_s"],
                  users["refresh_quorad_cpu_s"], users["own_memory"] / 2**20))


def main():
    parser = argparse.ArgumentParser(prog="bench/run scale")
    parser.add_argument("--sizes", type=lambda text: [int(size) for size in text.split(",")],
                        default=[1000, 100000, 1000000])
    parser.add_argument("--seconds", type=float, default=3)
    parser.add_argument("--json")
    Scale.options = parser.parse_args()
    sys.argv = sys.argv[:1]
    nistest.main()


if __name__ == "__main__":
    main()
