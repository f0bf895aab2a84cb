"""The files that reach the desktop, and the installed Debian package."""
import fnmatch
import glob
import os
import re
import shutil
import subprocess
import unittest

import gui_driver as driver
from test_probe import probe

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..")
DATA = os.path.join(ROOT, "data")
APP_ID = "org.pellavoy.Pellavoy"

# udev's rule grammar: KEY[{attribute}] OPERATOR "value", separated by commas.
UDEV_PAIR = re.compile(r'\s*([A-Z_]+)(?:\{([^}]+)\})?\s*(==|!=|\+=|-=|:=|=)\s*"((?:[^"\\]|\\.)*)"\s*(?:,|$)')
UDEV_MATCH = {"ACTION", "DEVPATH", "KERNEL", "KERNELS", "SUBSYSTEM", "SUBSYSTEMS", "DRIVER", "DRIVERS",
              "ATTR", "ATTRS", "ENV", "TAG", "TAGS", "TEST", "PROGRAM", "RESULT", "NAME", "SYMLINK", "CONST"}
UDEV_ASSIGN = {"NAME", "SYMLINK", "OWNER", "GROUP", "MODE", "TAG", "ENV", "ATTR", "RUN", "LABEL", "GOTO",
               "IMPORT", "OPTIONS", "SECLABEL", "SYSCTL"}
UDEV_WITH_ATTRIBUTE = {"ATTR", "ATTRS", "ENV", "TEST", "IMPORT", "RUN", "CONST", "SECLABEL", "SYSCTL"}


def udev_rules(path):
    """The rule lines of a rules file as lists of (key, attribute, operator, value)."""
    rules = []
    with open(path) as f:
        for number, line in enumerate(f, 1):
            line = line.strip()
            if not line or line.startswith("#"):
                continue
            pairs, pos = [], 0
            while pos < len(line):
                m = UDEV_PAIR.match(line, pos)
                if not m:
                    raise AssertionError("%s:%d: cannot parse from: %s" % (path, number, line[pos:]))
                pairs.append(m.groups())
                pos = m.end()
            rules.append(pairs)
    return rules


class DesktopFiles(unittest.TestCase):
    def test_validators_accept_them(self):
        for cmd in (["desktop-file-validate", os.path.join(DATA, APP_ID + ".desktop")],
                    ["appstreamcli", "validate", "--no-net", os.path.join(DATA, APP_ID + ".metainfo.xml")]):
            done = subprocess.run(cmd, capture_output=True, text=True)
            self.assertEqual(done.returncode, 0, done.stdout + done.stderr)

    def test_udev_rule_is_well_formed_and_matches_printer_interfaces(self):
        rules = udev_rules(os.path.join(DATA, "70-pellavoy.rules"))
        self.assertEqual(len(rules), 1)
        for key, attribute, op, _ in rules[0]:
            if op in ("==", "!="):
                self.assertIn(key, UDEV_MATCH)
            else:
                self.assertIn(key, UDEV_ASSIGN)
            self.assertEqual(attribute is not None, key in UDEV_WITH_ATTRIBUTE, key)
        pairs = {(k, a): v for k, a, _, v in rules[0]}
        # The user at the seat, and the printing group for SSH and su sessions.
        self.assertEqual((pairs[("TAG", None)], pairs[("GROUP", None)], pairs[("MODE", None)]), ("uaccess", "lp", "0660"))
        glob = pairs[("ENV", "ID_USB_INTERFACES")]
        for interfaces, printer in ((":070102:", True), (":030101:070102:", True), (":070201:ff0000:", True),
                                    (":080650:", False), (":030101:", False), (":0701:", False)):
            self.assertEqual(fnmatch.fnmatchcase(interfaces, glob), printer, interfaces)


DEBS = os.path.join(os.environ.get("PELLAVOY_BUILD", os.path.join(ROOT, "build")), "deb")


def deb(name):
    found = glob.glob(os.path.join(DEBS, name + "_*.deb"))
    return found[0] if found else None


@unittest.skipUnless(deb("pellavoy") and deb("pellavoy-virtual-printer"), "the packages are not built (tools/build-deb)")
class BuiltPackages(unittest.TestCase):
    def files(self, name):
        out = subprocess.run(["dpkg-deb", "-c", deb(name)], capture_output=True, text=True, check=True).stdout
        return sorted(line.split()[-1][1:] for line in out.splitlines()
                      if not line.endswith("/") and "/usr/share/doc/" not in line)

    def test_the_program_and_the_emulator_are_apart(self):
        self.assertEqual(self.files("pellavoy"), [
            "/lib/udev/rules.d/70-pellavoy.rules", "/usr/bin/pellavoy", "/usr/bin/pellavoy-probe",
            "/usr/share/applications/%s.desktop" % APP_ID, "/usr/share/icons/hicolor/scalable/apps/%s.svg" % APP_ID,
            "/usr/share/locale/de/LC_MESSAGES/Pellavoy.mo", "/usr/share/locale/zh_CN/LC_MESSAGES/Pellavoy.mo",
            "/usr/share/man/man1/pellavoy-probe.1.gz", "/usr/share/man/man1/pellavoy.1.gz",
            "/usr/share/metainfo/%s.metainfo.xml" % APP_ID])
        self.assertEqual(self.files("pellavoy-virtual-printer"),
                         ["/usr/bin/virtual-printer", "/usr/share/man/man1/virtual-printer.1.gz"])
        fields = subprocess.run(["dpkg-deb", "-f", deb("pellavoy"), "Depends", "Recommends", "Suggests"],
                                capture_output=True, text=True, check=True).stdout
        self.assertNotIn("umockdev", fields.split("Suggests:")[0], "the program needs no test library")
        self.assertIn("fonts-noto-cjk", fields)


@unittest.skipUnless(shutil.which("dpkg-query") and subprocess.run(
    ["dpkg-query", "-W", "pellavoy"], capture_output=True).returncode == 0, "the package is not installed")
class InstalledPackage(unittest.TestCase):
    def test_probe_lists_the_emulated_printer(self):
        status, out, _ = probe(program="/usr/bin/pellavoy-probe")
        self.assertEqual(status, 0)
        self.assertIn("device ID:   MFG:Virtual;CMD:ESC;MDL:VP-1;CLS:PRINTER;", out)

    def test_german_labels_from_the_installed_catalogue(self):
        app = driver.Pellavoy("--no-device", program="/usr/bin/pellavoy", password=None,
                              env={"LANG": "C.UTF-8", "LANGUAGE": "de"})
        self.addCleanup(app.finish)
        self.assertTrue(app.app.findChild(lambda n: n.roleName == "label" and n.name == "Passwort eingeben:"))
        app.app.child(roleName="password text").text = driver.PASSWORD
        driver.press(app.button("OK"))
        tabs = [n.name for n in app.app.findChildren(lambda n: n.roleName == "page tab")]
        self.assertEqual(tabs, ["Netzwerkeinstellungen", "Protokoll"])
        self.assertIsNotNone(app.button("Speichern"))
