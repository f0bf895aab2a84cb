"""pellavoy-probe against the virtual printer: what it prints and its exit status in each scene."""
import functools
import os
import pwd
import shutil
import subprocess
import tempfile
import unittest

BUILD = os.environ.get("PELLAVOY_BUILD", os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "build"))
FIRST = "  [first found: the window uses it unless another is chosen]"
ID = "  device ID:   MFG:Virtual;CMD:ESC;MDL:VP-1;CLS:PRINTER;\n"
FINE = ID + "  port status: 0x18 (selected, no error)\n"
DENIED = ("1A2B:00C4 on bus 001 device 002: a printer that cannot be opened: permission denied.\n"
          "  Install the udev rule 70-pellavoy.rules and plug the printer in again, or add\n"
          "  the user to the group lp (adduser USER lp, then log in again), or run as root.\n")


def probe(*printer_options, program=None, args=(), user=None, tools=os.path.join(BUILD, "tools")):
    cmd = [os.path.join(tools, "virtual-printer"), "--quiet", *printer_options, "--",
           program or os.path.join(tools, "pellavoy-probe"), *args]
    if user:
        cmd = ["runuser", "-u", user, "--"] + cmd
    done = subprocess.run(cmd, capture_output=True, text=True, timeout=60)
    return done.returncode, done.stdout, done.stderr


class Probe(unittest.TestCase):
    def test_scenes(self):
        cases = [
            ((), 0, "vid=1A2B,pid=00C4,sn=VP0001" + FIRST + "\n  on USB:      bus 001 device 002\n" + FINE),
            (("--no-device",), 1, "no USB printer found\n"),
            # Blanks around the serial number are not part of it.
            (("--endpoints", "01", "--serial", "  VP 1  "), 0, "vid=1A2B,pid=00C4,sn=VP 1" + FIRST + "\n"
             "  on USB:      bus 001 device 002\n  cannot answer: its USB interface only takes data. Pellavoy can send "
             "it\n  settings but cannot read anything back.\n" + FINE),
            (("--printers", "2", "--vid", "04b8", "--device-id", "MFG:X;", "--port-status", "0x20"), 0,
             "vid=04B8,pid=00C4,sn=VP0001" + FIRST + "\n  on USB:      bus 001 device 002\n"
             "  device ID:   MFG:X;\n  port status: 0x20 (paper empty, not selected, error)\n"
             "vid=04B8,pid=00C4,sn=VP0002\n  on USB:      bus 001 device 003\n"
             "  device ID:   MFG:X;\n  port status: 0x20 (paper empty, not selected, error)\n"),
            (("--stall", "control"), 0, "vid=1A2B,pid=00C4,sn=VP0001" + FIRST + "\n  on USB:      bus 001 device 002\n"
             "  device ID:   (no answer)\n  port status: (no answer)\n"),
            (("--no-serial",), 0, "vid=1A2B,pid=00C4,sn= (no serial number)" + FIRST + "\n"
             "  on USB:      bus 001 device 002\n" + FINE),
            (("--busy",), 3, "vid=1A2B,pid=00C4,sn=VP0001" + FIRST + "\n  on USB:      bus 001 device 002\n"
             "  cannot be used: another program holds its interface (a print spooler, say). Stop that program, "
             "then run pellavoy-probe again.\n"),
            (("--busy", "--driver", "usblp"), 3, "vid=1A2B,pid=00C4,sn=VP0001" + FIRST + "\n"
             "  on USB:      bus 001 device 002\n  cannot be used: the kernel driver usblp holds its interface and "
             "could not be detached. Unbind it, then run pellavoy-probe again.\n"),
            (("--driver", "usblp"), 0, "vid=1A2B,pid=00C4,sn=VP0001" + FIRST + "\n  on USB:      bus 001 device 002\n" + FINE),
        ]
        if os.geteuid() == 0:  # root may open anything: the emulation takes the node away instead
            cases.append((("--unopenable",), 1, "1A2B:00C4 on bus 001 device 002: a printer that cannot be opened: "
                          "No such device (it may have been disconnected).\n"
                          "  Check the cable, plug the printer in again and run pellavoy-probe again.\n"))
        else:
            cases.append((("--unopenable",), 1, DENIED))
        for options, status, out in cases:
            with self.subTest(options=options):
                self.assertEqual(probe(*options), (status, out, ""))

    @unittest.skipUnless(os.geteuid() == 0 and shutil.which("runuser"), "needs root to become another user")
    def test_a_user_without_permission_is_told_the_fix(self):
        nobody = pwd.getpwnam("nobody").pw_name
        # The build folder may be closed to other users: run copies from an open one.
        tools = tempfile.mkdtemp(prefix="pellavoy-probe-")
        self.addCleanup(shutil.rmtree, tools)
        os.chmod(tools, 0o755)
        for name in ("virtual-printer", "pellavoy-probe"):
            shutil.copy(os.path.join(BUILD, "tools", name), tools)
        as_nobody = functools.partial(probe, user=nobody, tools=tools)
        status, out, err = as_nobody("--unopenable", "--printers", "2")
        self.assertEqual((status, err), (0, ""), "the second printer can be used")
        self.assertEqual(out, "vid=1A2B,pid=00C4,sn=VP0002" + FIRST + "\n  on USB:      bus 001 device 003\n" + FINE
                         + DENIED)
        self.assertEqual(as_nobody("--unopenable"), (1, DENIED, ""))

    def test_options(self):
        self.assertEqual(probe(args=["--help"])[0], 0)
        status, out, _ = probe(args=["--version"])
        self.assertEqual((status, out), (0, "pellavoy-probe 1.0.0\n"))
        status, _, err = probe(args=["--list"])
        self.assertEqual(status, 2)
        self.assertIn("unknown argument '--list'", err)
