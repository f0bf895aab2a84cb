"""Sessions of the real pellavoy binary inside the VM of tests/kernel/run, on
the kernel's printer gadget: password, Load, Save with its read-back, log
Load, then the same window on a printer held by another program and on one
pulled out mid-exchange; and a window closed mid-exchange with usblp bound,
which must give the printer back to usblp. The frames are checked where the
printer receives them.

Run inside the VM: dbus-run-session -- xvfb-run -a /usr/bin/python3 gui_session.py
(KERNEL_GADGET and PELLAVOY_BUILD set); the last line is "N passed, M failed".
"""
import glob
import os
import signal
import subprocess
import sys
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "..", "tools"))
import gui_driver as driver  # noqa: E402

GADGET = os.environ.get("KERNEL_GADGET", "")
RECORD = "/tmp/gui-frames"
ADDR, MASK, GW = "IP address:", "Subnet mask:", "Gateway:"
READ_NETCFG, READ_LOG = "1b5e495352", "1b1d1e10571b1d1f"


class Responder:
    def __init__(self, *options):
        self.proc = subprocess.Popen([os.path.join(driver.BUILD, "tools", "kernel-responder"), RECORD, GADGET, *options],
                                     stderr=subprocess.PIPE, text=True)
        self.proc.stderr.readline()  # "responder: ready"

    def stop(self):
        self.proc.send_signal(signal.SIGCONT)
        self.proc.terminate()
        self.proc.wait()


def interface_driver():
    """The driver bound to the gadget's printer interface on the host side."""
    for itf in glob.glob("/sys/bus/usb/devices/*:1.0"):
        with open(os.path.join(os.path.dirname(os.path.realpath(itf)), "idVendor")) as f:
            if f.read().strip() == "1a2b":
                link = os.path.join(itf, "driver")
                return os.path.basename(os.readlink(link)) if os.path.islink(link) else ""
    return None


def frames():
    with open(RECORD) as f:
        return f.read().split()


@unittest.skipUnless(GADGET, "runs inside the VM of tests/kernel/run")
class KernelSession(unittest.TestCase):
    def test_a_session_on_the_real_kernel(self):
        responder = Responder()
        self.addCleanup(lambda: responder.stop())
        app = driver.Pellavoy(emulate=False)
        self.addCleanup(app.finish)
        self.assertEqual(app.chooser_items(), ["First printer found", "Kernel Printer (K7Q0012)"])
        self.assertEqual(app.act("Load"), "Read the network settings from printer K7Q0012.")
        self.assertEqual(app.fields(), {ADDR: "192.168.7.20", MASK: "255.255.255.0", GW: "192.168.7.1"})
        app.set_field(ADDR, "192.168.7.21")
        self.assertEqual(app.act("Save"), "Sent the network settings to printer K7Q0012."
                         " It reports them back as sent.")
        app.page("Log")
        self.assertEqual(app.act("Load"), "Read 2 jobs from printer K7Q0012.")
        self.assertEqual(len(app.log_rows()), 2)
        self.assertEqual(frames(), [READ_NETCFG, "1b5e49535700c0a80715c0a80701ffffff00", READ_NETCFG, READ_LOG])

        # Held by another program: the busy sentence, and nothing reaches the printer.
        holder = subprocess.Popen([os.path.join(driver.BUILD, "tools", "hold-printer"), "1a2b", "00c4"],
                                  stdout=subprocess.PIPE, text=True)
        self.assertEqual(holder.stdout.readline(), "held\n")
        self.assertEqual(app.act("Load"), "Printer K7Q0012 is in use by another program.")
        self.assertEqual(app.ui_lines()[-2:], ["[I]main_win:75: read 2048 bytes", "[I]main_win:78: 0 records"])
        holder.terminate()
        holder.wait()
        self.assertEqual(len(frames()), 4)

        # Pulled out while the window waits for the reply.
        responder.stop()
        responder = Responder("--unplug-on-read")
        app.page("Network Settings")
        self.assertEqual(app.act("Load"), "Printer K7Q0012 was disconnected.")
        with open(os.path.join(GADGET, "UDC"), "w") as udc:
            udc.write("dummy_udc.0\n")

    def test_usblp_steps_aside_and_comes_back_also_after_a_close_mid_exchange(self):
        subprocess.run(["modprobe", "usblp"], check=True)
        self.addCleanup(subprocess.run, ["rmmod", "usblp"])
        driver.wait_for(lambda: interface_driver() == "usblp", 20, "usblp to bind")
        responder = Responder()
        self.addCleanup(responder.stop)
        app = driver.Pellavoy(emulate=False)
        self.addCleanup(app.finish)
        self.assertEqual(app.act("Load"), "Read the network settings from printer K7Q0012.")
        driver.wait_for(lambda: interface_driver() == "usblp", 5, "usblp to have the printer back")

        responder.proc.send_signal(signal.SIGSTOP)  # the printer answers nothing now
        app.click("Load")
        # usblp steps aside: the program holds the interface through usbfs.
        driver.wait_for(lambda: interface_driver() == "usbfs", 10, "the exchange to claim the printer")
        app.close_window()
        self.assertEqual(app.wait(10), 0)
        # Nothing but the program's release binds usblp again.
        driver.wait_for(lambda: interface_driver() == "usblp", 5, "usblp to have the printer back")
        self.assertEqual([l for l in app.stderr_lines() if l[:3] in ("[C]", "[W]", "[E]")], [])

        # And usblp works: what is printed through it reaches the printer.
        responder.proc.send_signal(signal.SIGCONT)
        driver.wait_for(lambda: os.access("/dev/usb/lp0", os.W_OK), 10, "/dev/usb/lp0")
        with open("/dev/usb/lp0", "wb") as lp:
            lp.write(b"PING")
        # The responder, stopped meanwhile, may read the waiting frame and these in one go.
        try:
            driver.wait_for(lambda: "".join(frames()).endswith("50494e47"), 10, "the printed bytes at the printer")
        except AssertionError:
            self.fail("frames %s, driver %s, responder %s" % (frames(), interface_driver(), responder.proc.poll()))


if __name__ == "__main__":
    driver.start_accessibility_bus()
    try:
        result = unittest.TextTestRunner(verbosity=2, stream=sys.stdout).run(
            unittest.defaultTestLoader.loadTestsFromTestCase(KernelSession))
    finally:
        driver.stop_accessibility_bus()
    failed = len(result.failures) + len(result.errors)
    print("%d passed, %d failed" % (result.testsRun - failed, failed))
    sys.exit(1 if failed else 0)
