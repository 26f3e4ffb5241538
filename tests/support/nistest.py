"""Starts the real programs on a private system and asks them questions, for functional tests.

A test program runs inside in_namespace and ends with nistest.main(). Each test has fresh folders
and its own daemons; when it fails, their logs are printed. ORRISD_BIN names the folder of the
programs; ORRISD_TEST_SLOW multiplies every time limit (sanitizer builds).
"""

import contextlib
import os
import re
import shutil
import signal
import socket
import subprocess
import sys
import threading
import time
import unittest

import ldif
import procinfo
from ypclient import NoReply, RpcError, YpClient, yp_port

DOMAIN = "example"
CONFIG_FILE = "/etc/velmorix/velmorix.conf"
STATE_FOLDER = "/var/velmorix"
CACHE_FOLDER = "/var/velmorix/nis"
PID_FILE = "/var/run/orrisd.pid"
LDIF_FILE = "/run/directory.ldif"
LOG_FOLDER = "/run/logs"
SIGTERM = signal.SIGTERM
SLOW = float(os.environ.get("ORRISD_TEST_SLOW", "1"))
SANITIZER_REPORT = re.compile(
    rb"ERROR: (Address|Leak)Sanitizer|WARNING: ThreadSanitizer|SUMMARY: .*Sanitizer|runtime error:")


def program(name):
    folder = os.environ.get("ORRISD_BIN")
    if not folder:
        sys.exit("ORRISD_BIN must name the folder of the programs")
    return os.path.join(folder, name)


def wait_for(condition, what, seconds=60.0):
    """Polls until the condition holds and returns its value; fails after a generous bound."""
    deadline = time.monotonic() + seconds * SLOW
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > deadline:
            raise AssertionError("waited %d s in vain for %s" % (seconds * SLOW, what))
        time.sleep(0.05)


def run(*command, timeout=120.0, check=False, stdin=subprocess.DEVNULL):
    """Runs a command to its end; standard output and error come back as bytes."""
    done = subprocess.run(command, stdin=stdin, capture_output=True, timeout=timeout * SLOW,
                          check=False)
    if check and done.returncode != 0:
        raise AssertionError("%s: status %d\n%s%s" % (
            " ".join(command), done.returncode, done.stdout.decode(errors="replace"),
            done.stderr.decode(errors="replace")))
    return done


class Daemon:
    """A running program whose output goes to a log file."""

    def __init__(self, name, command, environment=None):
        os.makedirs(LOG_FOLDER, exist_ok=True)
        self.name = name
        self.log_path = os.path.join(LOG_FOLDER, "%d-%s.log" % (time.monotonic_ns(), name))
        with open(self.log_path, "wb") as log:
            self.process = subprocess.Popen(
                command, stdin=subprocess.DEVNULL, stdout=log, stderr=log,
                env=dict(os.environ, **(environment or {})), start_new_session=True)

    @property
    def pid(self):
        return self.process.pid

    def log(self, since=0):
        with open(self.log_path, "rb") as file:
            file.seek(since)
            return file.read()

    def log_size(self):
        return os.path.getsize(self.log_path)

    def find(self, pattern, since=0):
        """All lines of the log that match the regular expression."""
        expression = re.compile(pattern.encode())
        return [line.decode(errors="replace") for line in self.log(since).splitlines()
                if expression.search(line)]

    def wait_log(self, pattern, since=0, seconds=60.0):
        def look():
            found = self.find(pattern, since)
            if not found and self.process.poll() is not None:
                found = self.find(pattern, since)
                if not found:
                    raise AssertionError("%s ended with status %d before it logged '%s'" % (
                        self.name, self.process.returncode, pattern))
            return found
        return wait_for(look, "'%s' in the log of %s" % (pattern, self.name), seconds)

    def running(self):
        return self.process.poll() is None

    def signal(self, number):
        self.process.send_signal(number)

    def wait(self, seconds=60.0):
        """@return the exit status"""
        return self.process.wait(seconds * SLOW)

    def stop(self, number=SIGTERM, seconds=60.0):
        if self.running():
            self.signal(number)
        try:
            return self.wait(seconds)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
            raise AssertionError("%s did not end within %d s of signal %d" % (
                self.name, seconds * SLOW, number)) from None

    def kill(self):
        if self.running():
            self.process.kill()
        self.process.wait()


class NisTest(unittest.TestCase):
    """Fresh folders, a directory and helpers that start the programs."""

    log_level = "debug"

    def setUp(self):
        self.daemons = []
        self.addCleanup(self.stop_daemons)
        self.configuration = {
            "quorad.directory": "ldif:" + LDIF_FILE,
            "quorad.zone": ldif.Directory.ZONE,
            "nisd.watch.enabled": "no",
            "log.level": self.log_level,
        }
        for folder in (STATE_FOLDER, LOG_FOLDER):
            shutil.rmtree(folder, ignore_errors=True)
            os.makedirs(folder)
        self.directory = ldif.Directory(LDIF_FILE, DOMAIN)
        self.portmapper = self.start("rpcbind", ["/usr/sbin/rpcbind", "-w", "-f"])
        wait_for(self.portmapper_answers, "rpcbind")

    @staticmethod
    def portmapper_answers():
        """An answer, not just a connection: it still reads /etc/passwd when it listens already."""
        try:
            socket.create_connection(("127.0.0.1", 111), 1).close()
            yp_port("udp")
            return True
        except (OSError, NoReply):
            return False

    def stop_daemons(self):
        """Runs after each test, also when its setUp failed."""
        for daemon in reversed(self.daemons):
            if daemon.running():
                try:
                    daemon.stop()
                except AssertionError as error:
                    self.complain(str(error))
        stray = recorded_pid()
        if stray and procinfo.is_running(stray):
            os.kill(stray, signal.SIGKILL)
            wait_for(lambda: not procinfo.is_running(stray), "the end of a daemon left behind")
        for daemon in self.daemons:
            if SANITIZER_REPORT.search(daemon.log()):
                self.complain("sanitizer report in the log of " + daemon.name)
            elif daemon.process.returncode in (-signal.SIGSEGV, -signal.SIGABRT, -signal.SIGBUS):
                self.complain("%s ended with signal %d" % (
                    daemon.name, -daemon.process.returncode))

    def complain(self, text):
        with self.subTest(text):
            self.fail(text)

    def run(self, result=None):
        result = result if result is not None else self.defaultTestResult()
        before = len(result.failures) + len(result.errors)
        super().run(result)
        if len(result.failures) + len(result.errors) > before:
            self.print_logs()
        return result

    def print_logs(self):
        for daemon in getattr(self, "daemons", []):
            text = daemon.log().decode(errors="replace")
            if len(text) > 60000:
                text = text[:20000] + "\n[...]\n" + text[-40000:]
            sys.stderr.write("---- log of %s (pid %d, status %s)\n%s\n" % (
                daemon.name, daemon.pid, daemon.process.returncode, text))
        sys.stderr.flush()

    # -- programs ---------------------------------------------------------------------------------

    def start(self, name, command, environment=None):
        daemon = Daemon(name, command, environment)
        self.daemons.append(daemon)
        return daemon

    def write_config(self, **changes):
        """Writes the configuration; underscores stand for points, None leaves a key out."""
        for key, value in changes.items():
            self.configure(key.replace("_", "."), value)
        text = "".join("%s: %s\n" % pair for pair in self.configuration.items())
        ldif.write_atomically(CONFIG_FILE, text.encode())

    def configure(self, key, value):
        if value is None:
            self.configuration.pop(key, None)
        else:
            self.configuration[key] = value

    def start_quorad(self):
        self.quorad = self.start("quorad", [program("quorad"), "-d"])
        wait_for(self.quorad_answers, "quorad")
        return self.quorad

    @staticmethod
    def quorad_answers():
        with socket.socket(socket.AF_UNIX) as connection:
            try:
                connection.connect(STATE_FOLDER + "/daemon")
                return True
            except OSError:
                return False

    def start_orrisd(self, *arguments, environment=None):
        """Starts the daemon in the foreground and waits until it serves its sockets."""
        self.orrisd = self.start("orrisd", [program("orrisd"), "-d", *arguments], environment)
        self.orrisd.wait_log(r"Ready\.")
        wait_for(lambda: yp_port("udp") and yp_port("tcp"), "the registration with rpcbind")
        return self.orrisd

    def start_system(self, *arguments, **settings):
        """Directory, configuration, quorad and orrisd; returns when all maps are served."""
        self.directory.save()
        self.write_config(**settings)
        self.start_quorad()
        self.start_orrisd(*arguments)
        self.wait_served()

    def wait_served(self, domain=DOMAIN):
        """Until calls are answered: at once with caches, otherwise after the first update."""
        with self.client("udp", domain) as client:
            wait_for(lambda: client.maplist()[1], "maps")

    def refresh(self, number=signal.SIGUSR2):
        """Asks for an update and returns when it has succeeded (needs debug logging). One that was
        on its way already does not count: it may have read the directory before."""
        mark = self.orrisd.log_size()
        self.orrisd.signal(number)
        begun = ("Re-building existing explicit maps" if number == signal.SIGUSR1
                 else "Refresh existing maps")
        self.orrisd.wait_log(begun, mark)
        mark += self.orrisd.log(mark).index(begun.encode())
        self.orrisd.wait_log("Update complete$", mark)

    @contextlib.contextmanager
    def directory_change(self):
        """What is done to the directory file inside is known to quorad afterwards."""
        mark = self.quorad.log_size()
        yield
        self.quorad.wait_log(
            "irectory file '.*' (read:|is missing)|Directory file not taken over", mark)

    def save_directory(self):
        with self.directory_change():
            self.directory.save()

    def change_directory(self):
        """Saves the changed directory and returns when the server has taken it over."""
        self.save_directory()
        self.refresh()

    # -- questions --------------------------------------------------------------------------------

    def client(self, protocol="udp", domain=DOMAIN, **options):
        options.setdefault("timeout", 30.0 * SLOW)
        return YpClient(domain, protocol, **options)

    def whole_map(self, name, domain=DOMAIN):
        with self.client("tcp", domain) as client:
            return client.all(name)

    def assert_map(self, name, expected):
        """The whole map over TCP is exactly the given {key: value}."""
        expected = {as_key(key): as_key(value) for key, value in expected.items()}
        actual = self.whole_map(name)
        if actual != expected:
            missing = sorted(set(expected) - set(actual))[:5]
            extra = sorted(set(actual) - set(expected))[:5]
            wrong = [(key, expected[key], actual[key]) for key in sorted(expected)
                     if key in actual and actual[key] != expected[key]][:5]
            self.fail("map %s: %d entries, expected %d; missing %r, extra %r, wrong %r" % (
                name, len(actual), len(expected), missing, extra, wrong))

    def wait_map(self, name, expected, seconds=60.0):
        """Until a whole-map transfer gives exactly the expected entries."""
        expected = {as_key(key): as_key(value) for key, value in expected.items()}

        def same():
            try:
                return self.whole_map(name) == expected
            except (RpcError, NoReply):
                return False
        try:
            wait_for(same, "the new content of " + name, seconds)
        except AssertionError:
            self.assert_map(name, expected)
            raise

    # -- real clients -----------------------------------------------------------------------------

    def bind_client(self, domain=DOMAIN, switch="files nis"):
        """Makes this system a NIS client of its own server."""
        with open("/etc/yp.conf", "w") as file:
            file.write("ypserver 127.0.0.1\n")
        with open("/etc/hosts", "w") as file:
            file.write("127.0.0.1 localhost\n")
        for path in ("/etc/passwd", "/etc/group"):
            keep_system_accounts(path)
        with open("/etc/nsswitch.conf", "w") as file:
            for database in ("passwd", "group", "hosts", "networks", "protocols", "services",
                             "ethers", "rpc", "netgroup", "aliases"):
                file.write("%s: %s\n" % (database, switch))
        run("domainname", domain, check=True)
        os.makedirs("/var/yp/binding", exist_ok=True)
        self.ypbind = self.start("ypbind", ["/usr/sbin/ypbind", "-foreground", "-verbose"])
        wait_for(lambda: run("ypwhich").returncode == 0, "ypbind to find the server")


def recorded_pid():
    """The process id in the daemon's pid file, 0 when there is none."""
    try:
        with open(PID_FILE) as file:
            return int(file.read() or 0)
    except OSError:
        return 0


def keep_system_accounts(path):
    """Takes people and their groups out of a private copy of /etc, so that only NIS knows any."""
    with open(path) as file:
        lines = [line for line in file if int(line.split(":")[2]) < 500]
    with open(path, "w") as file:
        file.writelines(lines)


def as_key(value):
    return value.encode() if isinstance(value, str) else value


def lines_of(command_result):
    """Standard output of a successful command as a list of lines."""
    if command_result.returncode != 0:
        raise AssertionError("status %d: %s" % (
            command_result.returncode, command_result.stderr.decode(errors="replace")))
    return command_result.stdout.decode(errors="surrogateescape").splitlines()


def in_threads(functions):
    """Runs functions side by side and raises the first failure of any."""
    failures = []

    def guarded(function):
        try:
            function()
        except BaseException as error:  # noqa: B902 - handed to the caller's thread
            failures.append(error)
    threads = [threading.Thread(target=guarded, args=(function,)) for function in functions]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    if failures:
        raise failures[0]


def main():
    """Runs the tests. As process 1 of a PID namespace it also collects orphaned processes."""
    if os.getpid() == 1:
        child = os.fork()
        if child != 0:
            while True:
                pid, status = os.wait()
                if pid == child:
                    os._exit(os.waitstatus_to_exitcode(status) & 0xFF)
    # Descriptors of a hostile test must not be cut short by a small default.
    import resource
    _, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (min(hard, 65536), hard))
    unittest.main(verbosity=2)
