"""A second network namespace joined to the test's own by a pair of virtual interfaces."""

import contextlib
import ctypes
import os
import subprocess

CLONE_NEWNET = 0x40000000
_libc = ctypes.CDLL(None, use_errno=True)


def ip(*arguments):
    subprocess.run(["ip", *arguments], check=True)


class Neighbour:
    """Another machine on a wire: `address` is its own, `server` is ours on that wire."""

    def __init__(self, name="neighbour", network="10.77.0", mask=24):
        self.name = name
        self.server, self.address = network + ".1", network + ".2"
        ip("netns", "add", name)
        ip("link", "add", name, "type", "veth", "peer", "name", "eth0", "netns", name)
        ip("addr", "add", "%s/%d" % (self.server, mask), "dev", name)
        ip("link", "set", name, "up")
        ip("-n", name, "addr", "add", "%s/%d" % (self.address, mask), "dev", "eth0")
        ip("-n", name, "link", "set", "eth0", "up")
        ip("-n", name, "link", "set", "lo", "up")

    def remove(self):
        ip("netns", "delete", self.name)
        subprocess.run(["ip", "link", "delete", self.name], stderr=subprocess.DEVNULL,
                       check=False)

    @contextlib.contextmanager
    def inside(self):
        """The calling thread is in the other namespace; sockets made here stay there."""
        with open("/proc/thread-self/ns/net") as home, \
                open("/run/netns/" + self.name) as there:
            self._enter(there)
            try:
                yield
            finally:
                self._enter(home)

    @staticmethod
    def _enter(file):
        if _libc.setns(file.fileno(), CLONE_NEWNET) != 0:
            raise OSError(ctypes.get_errno(), "setns")
