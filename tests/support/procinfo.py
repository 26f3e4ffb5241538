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


def thread_names(pid):
    names = []
    for task in os.listdir("/proc/%d/task" % pid):
        with open("/proc/%d/task/%s/comm" % (pid, task)) as file:
            names.append(file.read().strip())
    return sorted(names)


def arguments(pid):
    return _read(pid, "cmdline").decode().split("\0")[:-1]


def children(pid):
    found = []
    for name in os.listdir("/proc"):
        if name.isdigit():
            try:
                if int(_read(int(name), "stat").rpartition(b")")[2].split()[1]) == pid:
                    found.append(int(name))
            except OSError:
                pass
    return found
