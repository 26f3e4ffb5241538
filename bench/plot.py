"""Draws what "bench/run scale --json FILE" measured: throughput and CPU per look-up against the
number of entries, one line for each number of clients.

usage: plot.py FILE.json FILE.svg"""

import json
import sys

import matplotlib
matplotlib.use("svg")
import matplotlib.pyplot as plt  # noqa: E402: the backend is chosen first


def main():
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    with open(sys.argv[1]) as file:
        sizes = json.load(file)["sizes"]
    entries = [size["entries"] for size in sizes]
    clients = sorted(int(name.split("_")[1]) for name in sizes[0] if name.startswith("match_"))
    figure, axes = plt.subplots(1, 3, figsize=(13, 4))
    for axis, name, title in ((axes[0], "per_second", "look-ups per second"),
                              (axes[1], "p50_us", "median latency, us"),
                              (axes[2], "cpu_us", "CPU of the server per look-up, us")):
        for count in clients:
            axis.plot(entries, [size["match_%d" % count][name] for size in sizes], marker="o",
                      label="%d client%s" % (count, "" if count == 1 else "s"))
        axis.set_xscale("log")
        axis.set_ylim(bottom=0)
        axis.set_xlabel("entries in the map")
        axis.set_title(title)
        axis.grid(alpha=0.3)
    axes[0].legend()
    figure.tight_layout()
    figure.savefig(sys.argv[2])


if __name__ == "__main__":
    main()
