"""Command line, exit statuses, ports, threads, second instance, watchdog."""

import os
import signal
import stat
import subprocess

import nistest
import procinfo
from nistest import SLOW, program, run, wait_for
from ypclient import YPPROG, NoReply, Portmapper, RpcError, yp_port

USAGE = ("usage: %s [-dfv]\n"
         " -d    Debug mode. Runs in foreground instead of forking like a normal daemon.\n"
         " -f    Flush cache before starting. Forces reload from AD.\n"
         " -v    Reports version and exits.\n")
GUARD = "/usr/share/velmorix/sbin/orrisguard"


class CommandLine(nistest.NisTest):
    def as_nobody(self, *arguments):
        return subprocess.run([program("orrisd"), *arguments], capture_output=True, check=False,
                              stdin=subprocess.DEVNULL, timeout=60 * nistest.SLOW,
                              user=65534, group=65534)

    def test_version_for_everybody(self):
        for result in (run(program("orrisd"), "-v"), self.as_nobody("-v")):
            self.assertEqual((result.returncode, result.stdout), (0, b"Velmorix-nis 5.3.1-398\n"))

    def test_usage(self):
        for arguments in (["extra"], ["-d", "extra"], ["-x"], ["-dz"]):
            result = run(program("orrisd"), *arguments)
            self.assertEqual(result.returncode, 1)
            text = (result.stdout + result.stderr).decode()
            self.assertIn(USAGE % program("orrisd"), text)
            self.assertNotIn("invalid option", text)

    def test_root_is_needed(self):
        result = self.as_nobody("-d")
        self.assertEqual(result.returncode, 1)
        self.assertIn(b"must be run as root", result.stderr)
        self.assertIn(b"Terminating orrisd with exit(1): usage error", result.stderr)

    def test_missing_state_folder(self):
        os.rmdir(nistest.STATE_FOLDER)
        self.write_config()
        result = run(program("orrisd"), "-d")
        self.assertEqual(result.returncode, 2)
        self.assertIn(b"chdir(/var/velmorix/) failed: No such file or directory", result.stderr)

    def test_without_quorad(self):
        self.write_config()
        result = run(program("orrisd"), "-d")
        self.assertIn(result.returncode, (1, 2, 5))
        self.assertIn(b"Terminating orrisd with exit(%d)" % result.returncode, result.stderr)


class Running(nistest.NisTest):
    def setUp(self):
        super().setUp()
        self.directory.fill("plain", {"key": "value"})

    def test_second_instance(self):
        self.start_system()
        result = run(program("orrisd"), "-d")
        self.assertEqual(result.returncode, 1)
        self.assertIn(b"orrisd is already running", result.stderr)
        with self.client() as client:
            self.assertEqual(client.match("plain", "key"), (1, b"value"))
        with open(nistest.PID_FILE) as file:
            self.assertEqual(file.read(), str(self.orrisd.pid))
        self.assertEqual(self.orrisd.stop(), 0)
        self.start_orrisd()

    def test_background(self):
        self.directory.save()
        self.write_config()
        self.start_quorad()
        self.assertEqual(self.start("orrisd", [program("orrisd")]).wait(), 0)
        pid = wait_for(nistest.recorded_pid, "the pid file")
        wait_for(lambda: yp_port("udp") and yp_port("tcp"), "the registration")
        with self.client() as client:
            self.assertEqual(client.match("plain", "key"), (1, b"value"))
        self.assertEqual(os.getsid(pid), pid)
        self.assertEqual(os.readlink("/proc/%d/fd/0" % pid), "/dev/null")
        self.assertEqual(os.readlink("/proc/%d/fd/1" % pid), "/dev/null")
        self.assertEqual(os.readlink("/proc/%d/cwd" % pid), nistest.CACHE_FOLDER)
        os.kill(pid, signal.SIGTERM)
        wait_for(lambda: not procinfo.is_running(pid), "the end of the daemon")
        self.assertFalse(os.path.exists(nistest.PID_FILE))

    def test_files_belong_to_the_owner_alone(self):
        self.start_system()
        self.assertEqual(stat.S_IMODE(os.stat(nistest.CACHE_FOLDER).st_mode), 0o700)
        names = os.listdir(nistest.CACHE_FOLDER)
        self.assertTrue(any(name.endswith(".map") for name in names), names)
        for name in names:
            mode = os.stat(os.path.join(nistest.CACHE_FOLDER, name)).st_mode
            self.assertEqual(stat.S_IMODE(mode), 0o600, name)

    def test_random_reserved_ports(self):
        self.start_system()
        for protocol in ("udp", "tcp"):
            self.assertLess(yp_port(protocol), 1024)
        self.assertFalse(self.orrisd.find("Failed to bind .* service to reserved port"))

    def test_configured_ports(self):
        self.start_system(nisd_port_udp="5000", nisd_port_tcp="5001")
        self.assertEqual((yp_port("udp"), yp_port("tcp")), (5000, 5001))
        self.assertFalse(self.orrisd.find("to reserved port"))
        for protocol in ("udp", "tcp"):
            with self.client(protocol) as client:
                self.assertEqual(client.match("plain", "key"), (1, b"value"))

    def test_configured_address(self):
        run("ip", "addr", "add", "10.5.5.5/32", "dev", "lo", check=True)
        self.configure("nisd.net_addr", "127.0.0.1")
        self.start_system()
        with self.client() as client:
            self.assertEqual(client.match("plain", "key"), (1, b"value"))
        with self.assertRaises(OSError):
            self.client("tcp", host="10.5.5.5", port=yp_port("tcp"))

    def test_other_server_of_version_1(self):
        self.assertTrue(Portmapper().set(YPPROG, 1, 17, 4000))
        self.start_system()
        self.assertEqual(len(self.orrisd.find(
            r"Detected version 1 UDP ypserv on port 4000\. Please terminate other ypserv\.")), 1)
        with self.client() as client:
            self.assertEqual(client.match("plain", "key"), (1, b"value"))

    def test_stale_registration_is_replaced(self):
        self.assertTrue(Portmapper().set(YPPROG, 2, 17, 4000))
        self.start_system()
        self.assertNotEqual(yp_port("udp"), 4000)
        with self.client() as client:
            client.null()

    def test_thread_counts(self):
        for value, count, warned in (("2", 2, False), ("0", 4, True), ("-3", 4, True),
                                     ("", 4, False)):
            with self.subTest(value):
                self.start_system(nisd_threads=value)
                threads = [name for name in procinfo.thread_names(self.orrisd.pid)
                           if name.startswith("client-")]
                self.assertEqual(threads, ["client-%d" % i for i in range(count)])
                self.assertEqual(bool(self.orrisd.find(
                    "nisd.threads is set to invalid number: %s, should be restored to default: 4"
                    % value)), warned)
                self.assertEqual(self.orrisd.stop(), 0)
                self.assertEqual(self.quorad.stop(), 0)


class Watchdog(nistest.NisTest):
    RECORD = "/run/guard-arguments"

    def setUp(self):
        super().setUp()
        os.makedirs(os.path.dirname(GUARD), exist_ok=True)
        with open(GUARD, "w") as file:
            file.write("#!/bin/sh\n{ echo $$; printf '%%s\\n' \"$@\"; } >%s.new\n"
                       "mv %s.new %s\nexec sleep 600\n" % (self.RECORD, self.RECORD, self.RECORD))
        os.chmod(GUARD, 0o755)
        if os.path.exists(self.RECORD):
            os.remove(self.RECORD)

    def guard(self):
        wait_for(lambda: os.path.exists(self.RECORD), "the watchdog")
        with open(self.RECORD) as file:
            pid, *arguments = file.read().split("\n")[:-1]
        return int(pid), arguments

    def test_arguments_and_end(self):
        self.start_system("-f", nisd_watch_enabled="yes")
        pid, arguments = self.guard()
        self.assertEqual(arguments, [str(self.orrisd.pid), "-d", "-f"])
        self.assertTrue(procinfo.is_running(pid))
        self.assertEqual(self.orrisd.stop(), 0)
        wait_for(lambda: not procinfo.is_running(pid), "the watchdog to be ended")

    def test_unrecognised_word_means_the_default(self):
        self.start_system(nisd_watch_enabled="maybe")
        self.assertEqual(self.guard()[1], [str(self.orrisd.pid), "-d"])

    def test_unset_means_the_default(self):
        self.start_system(nisd_watch_enabled=None)
        self.guard()

    def test_no_in_any_case(self):
        for word in ("No", "NO", "false", "0"):
            self.start_system(nisd_watch_enabled=word)
            self.assertEqual(procinfo.children(self.orrisd.pid), [])
            self.assertFalse(os.path.exists(self.RECORD))
            self.assertFalse(self.orrisd.find("Starting watchdog"))
            self.assertEqual(self.orrisd.stop(), 0)
            self.assertEqual(self.quorad.stop(), 0)

    def test_missing_watchdog_is_survived(self):
        os.remove(GUARD)
        self.start_system(nisd_watch_enabled="yes")
        self.orrisd.wait_log("unable to exec watchdog: No such file or directory")
        with self.client() as client:
            client.null()
        self.assertEqual(self.orrisd.stop(), 0)


class RealWatchdog(nistest.NisTest):
    """orrisguard itself: whoever goes without being told to comes back."""

    def setUp(self):
        super().setUp()
        os.makedirs(os.path.dirname(GUARD), exist_ok=True)
        if os.path.lexists(GUARD):
            os.remove(GUARD)
        os.symlink(program("orrisguard"), GUARD)
        self.addCleanup(os.remove, GUARD)
        self.directory.fill("plain", {"key": "value"})
        self.configuration.update({
            "nisd.watch.check.frequency": "1", "nisd.watch.check.timeout": str(int(2 * SLOW)),
            "nisd.watch.death.timeout": str(int(5 * SLOW)),
            "nisd.startup.delay": str(int(5 * SLOW))})

    def wait_watched(self, pid):
        # Daemons and watchdogs to come write to the same file.
        wait_for(lambda: self.orrisd.find(r"Watching orrisd \(pid %d\)" % pid), "the watchdog")

    def wait_successor(self, before):
        def successor():
            pid = nistest.recorded_pid()
            return pid if pid != before and pid and procinfo.is_running(pid) else 0
        # A daemon that is told to end and does not is killed after half a minute.
        pid = wait_for(successor, "a successor of the daemon", 180)

        def answered():
            try:
                with self.client(timeout=2.0) as client:
                    return client.match("plain", "key") == (1, b"value")
            except (NoReply, RpcError):
                return False
        wait_for(answered, "the successor to answer")
        return pid

    def end(self, pid):
        os.kill(pid, signal.SIGTERM)
        wait_for(lambda: not procinfo.is_running(pid), "the end of the daemon")
        wait_for(lambda: not self.guards(), "the end of the watchdog")
        self.assertEqual(nistest.recorded_pid(), 0)

    @staticmethod
    def guards():
        return [pid for pid in procinfo.all_pids() if procinfo.name(pid) == "orrisguard"]

    def test_killed_daemon_is_started_again(self):
        self.start_system(nisd_watch_enabled="yes")
        self.wait_watched(self.orrisd.pid)
        self.orrisd.kill()
        second = self.wait_successor(self.orrisd.pid)
        self.assertEqual(procinfo.arguments(second)[1:], ["-d"])
        self.wait_watched(second)
        os.kill(second, signal.SIGKILL)
        self.end(self.wait_successor(second))

    def test_silent_daemon_is_ended_and_started_again(self):
        self.start_system(nisd_watch_enabled="yes")
        self.wait_watched(self.orrisd.pid)
        first = self.orrisd.pid
        self.orrisd.signal(signal.SIGSTOP)
        self.end(self.wait_successor(first))

    def test_orderly_end_is_final(self):
        self.start_system(nisd_watch_enabled="yes")
        self.wait_watched(self.orrisd.pid)
        self.assertEqual(self.orrisd.stop(), 0)
        wait_for(lambda: not self.guards(), "the end of the watchdog")
        self.assertEqual(nistest.recorded_pid(), 0)


if __name__ == "__main__":
    nistest.main()
