"""What /proc says about a process."""

import os


def _read(pid, name):
    with open("/proc/%d/%s" % (pid, name), "rb") as file:
        return file.read()


def is_running(pid):
    """Whether the process exists and is not a zombie."""
    try:
        return state(pid) not in ("Z", "X")
    except OSError:
        return False


def state(pid):
    return _read(pid, "stat").rpartition(b")")[2].split()[0].decode()


def cpu_seconds(pid):
    """User and system time of all threads so far."""
    fields = _read(pid, "stat").rpartition(b")")[2].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def open_descriptors(pid):
    return len(os.listdir("/proc/%d/fd" % pid))


def resident_bytes(pid):
    return int(_read(pid, "statm").split()[1]) * os.sysconf("SC_PAGE_SIZE")


def peak_bytes(pid):
    """The most that was ever resident."""
    for line in _read(pid, "status").splitlines():
        if line.startswith(b"VmHWM:"):
            return int(line.split()[1]) * 1024
    raise OSError("process %d tells no peak" % pid)


def thread_names(pid):
    names = []
    for task in os.listdir("/proc/%d/task" % pid):
        with open("/proc/%d/task/%s/comm" % (pid, task)) as file:
            names.append(file.read().strip())
    return sorted(names)


def arguments(pid):
    return _read(pid, "cmdline").decode().split("\0")[:-1]


def all_pids():
    """Every process that is not a zombie."""
    return [int(name) for name in os.listdir("/proc") if name.isdigit() and is_running(int(name))]


def name(pid):
    """The short name of the process, empty when it is gone."""
    try:
        return _read(pid, "comm").decode().strip()
    except OSError:
        return ""


def parent(pid):
    try:
        return int(_read(pid, "stat").rpartition(b")")[2].split()[1])
    except OSError:
        return 0


def children(pid):
    return [one for one in all_pids() if parent(one) == pid]
