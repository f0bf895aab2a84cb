"""pellavoy-probe against the virtual printer."""
import os
import subprocess
import unittest

BUILD = os.environ.get("PELLAVOY_BUILD", os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "build"))


def probe(*printer_options, program=None, args=()):
    cmd = [os.path.join(BUILD, "tools", "virtual-printer"), "--quiet", *printer_options, "--",
           program or os.path.join(BUILD, "tools", "pellavoy-probe"), *args]
    done = subprocess.run(cmd, capture_output=True, text=True, timeout=60)
    return done.returncode, done.stdout, done.stderr


class Probe(unittest.TestCase):
    def test_scenes(self):
        cases = [
            ((), 0, "vid=1A2B,pid=00C4,sn=VP0001\n"
                    "  device ID:   MFG:Virtual;CMD:ESC;MDL:VP-1;CLS:PRINTER;\n"
                    "  port status: 0x18 (selected, no error)\n"),
            (("--no-device",), 1, "no USB printer found\n"),
            (("--other", "2", "--printers", "0"), 1, "no USB printer found\n"),
            (("--printers", "2", "--vid", "04b8", "--device-id", "MFG:X;", "--port-status", "0x20"), 0,
             "vid=04B8,pid=00C4,sn=VP0001\n  device ID:   MFG:X;\n  port status: 0x20 (paper empty, not selected, error)\n"
             "vid=04B8,pid=00C4,sn=VP0002\n  device ID:   MFG:X;\n  port status: 0x20 (paper empty, not selected, error)\n"),
            (("--stall", "control"), 0,
             "vid=1A2B,pid=00C4,sn=VP0001\n  device ID:   (no answer)\n  port status: (no answer)\n"),
        ]
        for options, status, out in cases:
            with self.subTest(options=options):
                self.assertEqual(probe(*options)[:2], (status, out))

    def test_a_printer_it_may_not_open_is_named_on_standard_error(self):
        status, out, err = probe("--unopenable")
        self.assertEqual((status, out), (1, "no USB printer found\n"))
        self.assertRegex(err, r"^failed to open device: ")

    def test_options(self):
        self.assertEqual(probe(args=["--help"])[0], 0)
        status, out, _ = probe(args=["--version"])
        self.assertEqual((status, out), (0, "pellavoy-probe 1.0.0\n"))
        status, _, err = probe(args=["--list"])
        self.assertEqual(status, 2)
        self.assertIn("unknown argument '--list'", err)
