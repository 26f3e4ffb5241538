"""What the install rules put where, and that it runs from there."""

import os
import shutil
import stat
import tempfile
import unittest

import nistest
from nistest import run

BUILD = os.path.dirname(os.environ.get("ORRISD_BIN", "/nowhere/bin"))


class InstallLayout(unittest.TestCase):
    def setUp(self):
        self.root = tempfile.mkdtemp(dir="/run")
        self.addCleanup(shutil.rmtree, self.root)
        run("env", "DESTDIR=" + self.root, "cmake", "--install", BUILD, "--prefix", "/usr",
            check=True)

    def installed(self):
        found = []
        for base, _, files in os.walk(self.root):
            found.extend(os.path.join(base, name)[len(self.root):] for name in files)
        return found

    def test_files(self):
        files = self.installed()
        for path in ("/usr/sbin/orrisd", "/usr/sbin/quorad", "/usr/sbin/quorad-admin",
                     "/usr/share/velmorix/sbin/orrisguard", "/etc/velmorix/velmorix.conf",
                     "/usr/lib/systemd/system/orrisd.service",
                     "/usr/lib/systemd/system/quorad.service", "/usr/lib/tmpfiles.d/orrisd.conf",
                     "/usr/share/man/man8/orrisd.8", "/usr/share/man/man8/quorad.8",
                     "/usr/share/man/man8/quorad-admin.8",
                     "/usr/share/man/man8/orrisguard.8", "/usr/share/man/man5/velmorix.conf.5",
                     "/usr/share/doc/orrisd/README.md",
                     "/usr/share/doc/orrisd/docs/administration.md",
                     "/usr/share/doc/orrisd/examples/directory.ldif"):
            self.assertIn(path, files)
        libraries = [path for path in files if "/libkarst.so." in path]
        self.assertTrue(libraries, files)
        known = ("/usr/sbin/", "/usr/share/velmorix/sbin/", "/usr/share/man/",
                 "/usr/share/doc/orrisd/", "/usr/share/bash-completion/", "/usr/lib/",
                 "/etc/velmorix/")
        self.assertEqual([path for path in files if not path.startswith(known)], [])
        for path in ("/usr/sbin/orrisd", "/usr/sbin/quorad", "/usr/sbin/quorad-admin",
                     "/usr/share/velmorix/sbin/orrisguard"):
            self.assertTrue(os.stat(self.root + path).st_mode & stat.S_IXUSR, path)

    def test_programs_run_from_there(self):
        library = [path for path in self.installed() if "/libkarst.so." in path][0]
        folder = os.path.dirname(self.root + library)
        result = run("env", "LD_LIBRARY_PATH=" + folder, self.root + "/usr/sbin/orrisd", "-v",
                     check=True)
        self.assertEqual(result.stdout, b"Velmorix-nis 5.3.1-398\n")
        run("env", "LD_LIBRARY_PATH=" + folder, self.root + "/usr/sbin/quorad", "-v", check=True)

    def test_shipped_configuration_is_all_defaults(self):
        with open(self.root + "/etc/velmorix/velmorix.conf") as file:
            settings = [line.strip() for line in file
                        if line.strip() and not line.startswith("#")]
        self.assertEqual(settings, ["nisd.watch.enabled: no"])

    def test_units_name_the_installed_programs(self):
        for name in ("orrisd", "quorad"):
            with open(self.root + "/usr/lib/systemd/system/%s.service" % name) as file:
                self.assertIn("ExecStart=/usr/sbin/%s -d\n" % name, file.read())


if __name__ == "__main__":
    nistest.main()
