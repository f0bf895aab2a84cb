"""What the window says after each click and on each plug or unplug, which
printer it talks to, and what it refuses before the password: the real
binary against the virtual printer."""
import os
import signal
import unittest

from gui_driver import PASSWORD, press, wait_for
from test_pellavoy import ADDR, GW, MASK, NO_PRINTER, READ_LOG, READ_NETCFG, Case
NETCFG = "00c0a80164c0a80101ffffff00"
SAVE_FRAME = "1b5e49535700c0a80164c0a80101ffffff00"


class Outcomes(Case):
    def test_success_of_each_action(self):
        app = self.run_app("--netcfg", NETCFG, "--job-log", "60,120")
        self.assertEqual(app.status(), "", "a printer is attached: the line starts empty")
        self.assertEqual(app.act("Load"), "Read the network settings from printer VP0001.")
        self.assertEqual(app.act("Save"), "Sent the network settings to printer VP0001.")
        app.page("Log")
        self.assertEqual(app.act("Load"), "Read 2 jobs from printer VP0001.")
        self.assertEqual(app.frames(), [READ_NETCFG, SAVE_FRAME, READ_LOG])
        self.assertEqual(app.ui_lines(), [
            "[I]main_win:22: loading net config", "[I]main_win:31: read 13 bytes",
            "[I]main_win:48: saving net config",
            "[I]main_win:65: loading log", "[I]main_win:75: read 12 bytes", "[I]main_win:78: 2 records",
            "[I]main_win:84: 60 => 1970-01-01 00:01:00", "[I]main_win:84: 120 => 1970-01-01 00:02:00"])

    def test_job_counts_and_unusable_replies(self):
        # Replies in turn: one job, none, 3 bytes, 0 bytes; then 12 bytes of network settings.
        app = self.run_app("--no-serial", "--reply", "0100000000000000", "--reply", "00000000",
                           "--reply", "020000", "--reply", "", "--reply", "00" * 12)
        app.page("Log")
        self.assertEqual(app.act("Load"), "Read 1 job from printer 1A2B:00C4.")
        self.assertEqual(app.act("Load"), "The job log of printer 1A2B:00C4 is empty.")
        self.assertEqual(app.act("Load"), "Printer 1A2B:00C4 sent an unexpected reply (3 bytes).")
        self.assertEqual(app.act("Load"), "Printer 1A2B:00C4 sent an unexpected reply (0 bytes).")
        self.assertEqual(app.log_rows(), [])
        app.page("Network Settings")
        app.set_field(ADDR, "1.2.3.4")
        self.assertEqual(app.act("Load"), "Printer 1A2B:00C4 sent an unexpected reply (12 bytes).")
        self.assertEqual(app.fields()[ADDR], "1.2.3.4", "the page stays as it was")

    def test_failures(self):
        root = os.geteuid() == 0
        # options, button, sentence, frames that reach the printer
        cases = [
            (("--no-device",), "Save", NO_PRINTER, []),
            (("--unopenable",), "Load",
             "Printer VP0001 cannot be opened: No such device (it may have been disconnected)." if root else
             "Printer VP0001 cannot be opened: permission denied. Install the udev rule (see the README) or run as root.",
             []),
            (("--busy",), "Load", "Printer VP0001 is in use by another program.", []),
            (("--no-reply",), "Load", "Printer VP0001 did not answer within 1 second.", [READ_NETCFG]),
            (("--no-accept",), "Load", "Printer VP0001 did not accept the command within 2 seconds.", []),
            (("--no-accept",), "Save", "Printer VP0001 did not accept the command within 2 seconds.", []),
            (("--stall", "out"), "Load", "The exchange with printer VP0001 failed: Pipe error.", [READ_NETCFG]),
            (("--overflow",), "Load", "The exchange with printer VP0001 failed: Overflow.", [READ_NETCFG]),
            (("--unplug-after", "1"), "Load", "Printer VP0001 was disconnected.", [READ_NETCFG]),
            # Pulled out while the window waits for the reply: the kernel's bus error.
            (("--unplug-after", "2", "--no-reply"), "Load", "Printer VP0001 was disconnected.", [READ_NETCFG]),
        ]
        for options, button, sentence, frames in cases:
            with self.subTest(options=options, button=button):
                app = self.run_app(*options)
                self.assertEqual(app.act(button), sentence)
                self.assertEqual(app.frames(), frames)
                # The log lines are those of a window without a status line.
                expected = (["[I]main_win:48: saving net config"] if button == "Save" else
                            ["[I]main_win:22: loading net config"] +
                            ([] if options in (("--no-device",), ("--unopenable",)) else
                             ["[I]main_win:31: read 64 bytes"]))
                self.assertEqual(app.ui_lines(), expected)
                app.finish()

    def test_an_unopenable_printer_is_marked_in_the_chooser(self):
        app = self.run_app("--unopenable")
        self.assertEqual(app.chooser_items(), ["First printer found", "Virtual Printer (VP0001) — no permission"])


class Chooser(Case):
    def test_the_chosen_printer_alone_gets_the_frames(self):
        app = self.run_app("--printers", "3", "--record-serial", "--hotplug", "2", "--product", "")
        self.assertEqual(app.chooser_items(), ["First printer found", "USB printer (VP0001)", "USB printer (VP0002)",
                                               "USB printer (VP0003)"])
        self.assertEqual(app.act("Load"), "Read the network settings from printer VP0001.")
        app.choose(2)
        self.assertEqual(app.act("Save"), "Sent the network settings to printer VP0002.")
        app.page("Log")
        self.assertEqual(app.act("Load"), "The job log of printer VP0002 is empty.")
        self.assertEqual(app.frames(), ["VP0001 " + READ_NETCFG, "VP0002 " + SAVE_FRAME, "VP0002 " + READ_LOG])

        # Unplugged before the click: marked, nothing sent, never another printer.
        app.signal(signal.SIGUSR1)
        wait_for(lambda: app.status() == "Printer VP0002 was disconnected.", 10, "the unplug")
        self.assertEqual(app.chooser_items(), ["First printer found", "USB printer (VP0001)", "USB printer (VP0003)",
                                               "USB printer (VP0002) — not connected"])
        self.assertEqual(app.act("Load"), "Printer VP0002 is not connected.")
        self.assertEqual(len(app.frames()), 3)
        self.assertEqual(app.ui_lines()[-1], "[I]main_win:65: loading log", "no read line: nothing was sent")

        # Back in the same port with a new address: used again.
        app.signal(signal.SIGUSR2)
        wait_for(lambda: app.status() == "Printer VP0002 connected.", 10, "the plug")
        self.assertEqual(app.chooser_items()[1:], ["USB printer (VP0001)", "USB printer (VP0002)", "USB printer (VP0003)"])
        self.assertEqual(app.act("Load"), "The job log of printer VP0002 is empty.")
        self.assertEqual(app.frames()[-1], "VP0002 " + READ_LOG)

    def test_plug_and_unplug_without_a_click(self):
        app = self.run_app()
        app.signal(signal.SIGUSR1)
        wait_for(lambda: app.status() == "Printer VP0001 was disconnected.", 10, "the unplug")
        self.assertEqual(app.chooser_items(), ["First printer found"])
        self.assertEqual(app.act("Load"), NO_PRINTER)
        app.signal(signal.SIGUSR2)
        wait_for(lambda: app.status() == "Printer VP0001 connected.", 10, "the plug")
        self.assertEqual(app.chooser_items(), ["First printer found", "Virtual Printer (VP0001)"])
        self.assertEqual(app.frames(), [])


class Addresses(Case):
    def test_bad_addresses_are_marked_and_named_after_save(self):
        warning = "Not an IPv4 address: Save sends 0.0.0.0"
        app = self.run_app()
        for text, marked in (("10.0.0.1", False), ("300.1.1.1", True), ("::1", True), ("printer.local", True),
                             ("", False)):
            app.set_field(ADDR, text)
            wait_for(lambda: (app.address_warning(ADDR) == warning) == marked, 5, "the mark for %r" % text)
        app.set_field(ADDR, "10.0.0.1")
        app.set_field(MASK, "")
        app.set_field(GW, "10.0.0.256")
        self.assertEqual(app.act("Save"), "Sent the network settings to printer VP0001."
                         " The subnet mask was not an IPv4 address and was sent as 0.0.0.0."
                         " The gateway was not an IPv4 address and was sent as 0.0.0.0.")
        self.assertEqual(app.frames(), ["1b5e495357000a0000010000000000000000"])


class PasswordGate(Case):
    def test_nothing_answers_before_the_password(self):
        app = self.run_app(password=None)
        self.assertEqual(sorted(w.name for w in app.app.children), ["Access password", "Pellavoy"])
        load = app.button("Load")
        self.assertFalse(load.sensitive)
        press(load)
        press(app.app.child(name="DHCP", roleName="check box"))
        app.enter_password(PASSWORD)
        self.assertEqual(app.ui_lines(), [])
        self.assertEqual(app.frames(), [])
        self.assertFalse(app.dhcp().checked)
        self.assertEqual(app.act("Load"), "Read the network settings from printer VP0001.")


if __name__ == "__main__":
    unittest.main()
