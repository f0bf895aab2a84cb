"""The real pellavoy binary against the virtual printer, driven through the
accessibility bus: the frames on the wire, the log lines, the pages, the
status line and its mark, the chooser, and a window that stays alive while
the printer takes its time."""
import os
import signal
import subprocess
import unittest

from gui_driver import BUILD, PASSWORD, Pellavoy, press, wait_for

ADDR, MASK, GW = "IP address:", "Subnet mask:", "Gateway:"
READ_NETCFG = "1b5e495352"
READ_LOG = "1b1d1e10571b1d1f"
NETCFG = "00c0a80164c0a80101ffffff00"
SAVE_FRAME = "1b5e49535700c0a80164c0a80101ffffff00"
EPOCH = ("1970-01-01 00:00:00", "start job")
NO_PRINTER = "No USB printer found. Check the cable and that the printer is switched on."
SENT = "Sent the network settings to printer VP0001."
AS_SENT = SENT + " It reports them back as sent."


class Case(unittest.TestCase):
    def run_app(self, *options, **kw):
        app = Pellavoy(*options, **kw)
        self.addCleanup(app.finish)
        return app


class CommandLine(unittest.TestCase):
    def test_help_and_version_need_no_display(self):
        env = {k: v for k, v in os.environ.items() if k not in ("DISPLAY", "WAYLAND_DISPLAY")}

        def run(*args):
            done = subprocess.run([os.path.join(BUILD, "pellavoy"), *args], capture_output=True, text=True,
                                  env=env, timeout=30)
            return done.returncode, done.stdout, done.stderr

        status, out, _ = run("--help")
        self.assertEqual(status, 0)
        for option in ("--version", "--help-gtk", "--display=DISPLAY"):
            self.assertIn(option, out)
        self.assertEqual(run("--version")[:2], (0, "pellavoy 1.0.0\n"))
        status, _, err = run()
        self.assertEqual(status, 1)
        self.assertIn("pellavoy: no display (DISPLAY is not set)", err)
        status, _, err = run("--bogus")
        self.assertEqual(status, 2)
        self.assertIn("try 'pellavoy --help'", err)


class PasswordGate(Case):
    def test_wrong_password_warns_and_ends_with_status_0(self):
        app = self.run_app("--no-device", password=None)
        app.enter_password("724918 ")  # which texts pass is the in-process suite's
        alert = app.app.child(roleName="alert")
        self.assertIn("Invalid password!", [n.name for n in alert.findChildren(lambda n: n.roleName == "label")])
        press(alert.child(name="OK", roleName="push button"))
        self.assertEqual(app.wait(), 0)
        self.assertEqual(app.stdout, b"")
        for line in app.stderr_lines():
            self.assertRegex(line, r"^\[[EWCMIDX]\]", "only log lines on standard error")
        self.assertEqual(app.frames(), [])

    def test_nothing_answers_before_the_password(self):
        app = self.run_app(password=None)
        self.assertEqual(sorted(w.name for w in app.app.children), ["Access password", "Pellavoy"])
        self.assertEqual(app.app.child(roleName="password text").labeller.name, "Input password:")
        load = app.button("Load")
        self.assertFalse(load.sensitive)
        press(load)
        press(app.dhcp())
        app.enter_password(PASSWORD)
        self.assertEqual(app.ui_lines(), [])
        self.assertEqual(app.frames(), [])
        self.assertFalse(app.dhcp().checked)
        self.assertTrue(app.app.child(name="Network Settings", roleName="page tab").selected)
        self.assertEqual([b.name for b in app.app.findChildren(lambda n: n.roleName == "push button" and n.showing)],
                         ["Load", "Save"])
        self.assertEqual(app.act("Load"), "Read the network settings from printer VP0001.")
        app.close_window()
        self.assertEqual(app.wait(), 0)


class NetworkPage(Case):
    def test_load_fills_the_page_in_wire_order_and_ignores_other_lengths(self):
        app = self.run_app("--no-serial", "--reply", NETCFG, "--reply", "020a0000010a0000feff000000",
                           "--reply", "00" * 12, "--reply", "01" * 14, "--reply", "02" * 64)
        press(app.dhcp())  # on, so that the first load visibly turns it off
        self.assertEqual(app.act("Load"), "Read the network settings from printer 1A2B:00C4.")
        self.assertEqual(app.fields(), {ADDR: "192.168.1.100", MASK: "255.255.255.0", GW: "192.168.1.1"})
        self.assertFalse(app.dhcp().checked)
        app.act("Load")
        self.assertTrue(app.dhcp().checked, "any DHCP byte but 0 checks the box")
        loaded = {ADDR: "10.0.0.1", MASK: "255.0.0.0", GW: "10.0.0.254"}
        self.assertEqual(app.fields(), loaded)
        for n in (12, 14, 64):
            self.assertEqual(app.act("Load"), "Printer 1A2B:00C4 sent an unexpected reply (%d bytes)." % n)
            self.assertEqual(app.status_mark(), "Error")
            self.assertEqual(app.fields(), loaded, "the page stays as it was")
        self.assertEqual(app.frames(), [READ_NETCFG] * 5)
        self.assertEqual([l for l in app.ui_lines() if "read" in l],
                         ["[I]main_win:31: read %d bytes" % n for n in (13, 13, 12, 14, 64)])

    def test_save_sends_the_exact_frame_and_with_dhcp_what_is_not_an_address_as_0_0_0_0(self):
        app = self.run_app()
        for label, text in ((ADDR, "10.0.0.1"), (GW, "10.0.0.254"), (MASK, "255.0.0.0")):
            app.set_field(label, text)
        self.assertEqual(app.act("Save"), AS_SENT)
        self.assertIsNone(app.status_mark())
        app.set_field(ADDR, "300.1.1.1")
        app.set_field(GW, "::1")
        app.set_field(MASK, "")
        press(app.dhcp())  # with DHCP the printer takes its address from the network
        self.assertEqual(app.act("Save"), AS_SENT + " The IP address was not an IPv4 address and was sent as 0.0.0.0."
                         " The subnet mask was not an IPv4 address and was sent as 0.0.0.0."
                         " The gateway was not an IPv4 address and was sent as 0.0.0.0.")
        self.assertEqual(app.status_mark(), "Warning")
        self.assertEqual(app.fields(), {ADDR: "300.1.1.1", MASK: "", GW: "::1"}, "the page keeps what was typed")
        self.assertEqual(app.frames(), ["1b5e495357000a0000010a0000feff000000", READ_NETCFG,
                                        "1b5e49535701000000000000000000000000", READ_NETCFG])
        self.assertEqual(app.ui_lines(), ["[I]main_win:48: saving net config"] * 2)

        # What the firmware took comes back on the next Load.
        values = {ADDR: "172.16.5.20", MASK: "255.255.240.0", GW: "172.16.0.1"}
        for label, text in values.items():
            app.set_field(label, text)
        app.act("Save")
        for label in values:
            app.set_field(label, "")
        app.act("Load")
        self.assertEqual(app.fields(), values)

    def test_save_reads_the_settings_back(self):
        typed = {ADDR: "10.0.0.1", MASK: "255.255.255.0", GW: "10.0.0.254"}  # DHCP is sent off
        cases = [  # what the printer reports, what the window says of it
            ("010a0000090a000001ffff0000", " It reports other settings: IP address 10.0.0.9, subnet mask 255.255.0.0,"
                                           " gateway 10.0.0.1, DHCP on."),
            ("020a0000010a0000feffffff00", " It reports other settings: DHCP on."),
            ("00" * 12, " It did not report them back."),
        ]
        app = self.run_app(*[arg for reply, _ in cases for arg in ("--reply", reply)])
        for label, text in typed.items():
            app.set_field(label, text)
        for reply, said in cases:
            with self.subTest(reply=reply):
                self.assertEqual(app.act("Save"), SENT + said)
                self.assertEqual(app.status_mark(), "Warning")
        self.assertEqual(app.fields(), typed, "the page keeps what was typed")
        self.assertEqual(app.frames(), ["1b5e495357000a0000010a0000feffffff00", READ_NETCFG] * len(cases))
        self.assertEqual(app.ui_lines(), ["[I]main_win:48: saving net config"] * len(cases))


class LogPage(Case):
    def test_records_become_rows_in_utc(self):
        cases = [
            ("01000000ffffffff", [("2106-02-07 06:28:15", "start job")], "Read 1 job from printer VP0001."),
            ("00000000", [], "The job log of printer VP0001 is empty."),
            ("020000", [], "Printer VP0001 sent an unexpected reply (3 bytes)."),
            # A count far beyond the reply: every slot of the 2048-byte buffer, no more.
            ("ffffffff01000000", [("1970-01-01 00:00:01", "start job")] + [EPOCH] * 510,
             "Read 511 jobs from printer VP0001."),
        ]
        app = self.run_app(*[arg for reply, _, _ in cases for arg in ("--reply", reply)])
        app.page("Log")
        for reply, rows, sentence in cases:
            with self.subTest(reply=reply):
                self.assertEqual(app.act("Load"), sentence)
                self.assertEqual(app.log_rows(), rows)
        self.assertIn("[I]main_win:84: 4294967295 => 2106-02-07 06:28:15", app.ui_lines())
        lines = app.ui_lines()
        short = lines.index("[I]main_win:75: read 3 bytes")
        self.assertEqual(lines[short:short + 4], ["[I]main_win:75: read 3 bytes", "[I]main_win:65: loading log",
                                                  "[I]main_win:75: read 8 bytes", "[I]main_win:78: 4294967295 records"],
                         "a short reply gives no records line")
        self.assertEqual(app.frames(), [READ_LOG] * len(cases))

    def test_a_longer_reply_is_said_in_words(self):
        app = self.run_app("--overflow", "--job-log", "60,120")
        app.page("Log")
        self.assertEqual(app.act("Load"), "Printer VP0001 sent a longer reply than expected.")
        self.assertEqual(app.status_mark(), "Error")
        self.assertEqual(app.log_rows(), [])
        self.assertEqual(app.ui_lines(), ["[I]main_win:65: loading log", "[I]main_win:75: read 2048 bytes",
                                          "[I]main_win:78: 0 records"], "the read failed: nothing of the reply is used")


class Outcomes(Case):
    def test_success_of_each_action(self):
        app = self.run_app("--netcfg", NETCFG, "--job-log", "60,120")
        self.assertEqual((app.status(), app.status_mark()), ("", None), "a printer is attached: the line starts empty")
        self.assertEqual(app.act("Load"), "Read the network settings from printer VP0001.")
        self.assertIsNone(app.status_mark())
        self.assertEqual(app.act("Save"), AS_SENT)
        app.page("Log")
        self.assertEqual(app.act("Load"), "Read 2 jobs from printer VP0001.")
        self.assertIsNone(app.status_mark())
        self.assertEqual(app.frames(), [READ_NETCFG, SAVE_FRAME, READ_NETCFG, READ_LOG])
        self.assertEqual(app.ui_lines(), [
            "[I]main_win:22: loading net config", "[I]main_win:31: read 13 bytes",
            "[I]main_win:48: saving net config",
            "[I]main_win:65: loading log", "[I]main_win:75: read 12 bytes", "[I]main_win:78: 2 records",
            "[I]main_win:84: 60 => 1970-01-01 00:01:00", "[I]main_win:84: 120 => 1970-01-01 00:02:00"])

    def test_failures(self):
        root = os.geteuid() == 0
        gone = "No such device (it may have been disconnected)"
        # options, button, sentence, mark, frames that reach the printer, the manager's warning
        cases = [
            (("--unopenable",), "Load",
             "Printer VP0001 cannot be opened: %s." % gone if root else
             "Printer VP0001 cannot be opened: permission denied. Install the udev rule (see the README) or run as root.",
             "Error", [], "failed to open device: " + (gone if root else "Access denied (insufficient permissions)")),
            (("--busy",), "Load", "Printer VP0001 is in use by another program.", "Error", [], "Resource busy"),
            (("--busy",), "Save", "Printer VP0001 is in use by another program.", "Error", [], "Input/Output Error"),
            (("--no-reply",), "Load", "Printer VP0001 did not answer within 1 second.", "Error", [READ_NETCFG],
             "Operation timed out"),
            (("--no-reply",), "Save", SENT + " It did not report them back.", "Warning", [SAVE_FRAME, READ_NETCFG],
             "Operation timed out"),
            (("--no-accept",), "Load", "Printer VP0001 did not accept the command within 2 seconds.", "Error", [],
             "Operation timed out"),
            (("--no-accept",), "Save", "Printer VP0001 did not accept the command within 2 seconds.", "Error", [],
             "Operation timed out"),
            (("--stall", "out"), "Load", "The exchange with printer VP0001 failed: Pipe error.", "Error", [READ_NETCFG],
             "Pipe error"),
            (("--overflow",), "Load", "Printer VP0001 sent a longer reply than expected.", "Error", [READ_NETCFG],
             "Overflow"),
            (("--overflow",), "Save", SENT + " It did not report them back.", "Warning", [SAVE_FRAME, READ_NETCFG],
             "Overflow"),
            (("--unplug-after", "1"), "Load", "Printer VP0001 was disconnected.", "Error", [READ_NETCFG], gone),
            # Pulled out while the window waits for the reply: the kernel's bus error.
            (("--unplug-after", "2", "--no-reply"), "Load", "Printer VP0001 was disconnected.", "Error", [READ_NETCFG],
             "Input/Output Error"),
            # No way back: nothing is asked that cannot be answered, and the manager has nothing to complain of.
            (("--endpoints", "01"), "Load", "Printer VP0001 cannot answer: its USB interface only takes data.",
             "Error", [], None),
            (("--endpoints", "01"), "Save", SENT + " It cannot report them back: its USB interface only takes data.",
             "Warning", [SAVE_FRAME], None),
            (("--endpoints", "01"), "Log", "Printer VP0001 cannot answer: its USB interface only takes data.",
             "Error", [], None),
        ]
        for options, button, sentence, mark, frames, warning in cases:
            with self.subTest(options=options, button=button):
                app = self.run_app(*options)
                for label, text in ((ADDR, "192.168.1.100"), (MASK, "255.255.255.0"), (GW, "192.168.1.1")):
                    app.set_field(label, text)
                if button == "Log":
                    app.page("Log")
                self.assertEqual(app.act("Load" if button == "Log" else button), sentence)
                self.assertEqual(app.status_mark(), mark)
                self.assertEqual(app.frames(), frames)
                if warning:
                    self.assertIn(warning, app.stderr_lines())
                else:  # the manager refuses a read that has no endpoint: none was tried
                    self.assertNotIn("Entity not found", app.stderr_lines())
                # The log lines are those of a window without a status line; a read
                # that did not happen is logged as one that failed.
                expected = (["[I]main_win:48: saving net config"] if button == "Save" else
                            ["[I]main_win:65: loading log", "[I]main_win:75: read 2048 bytes",
                             "[I]main_win:78: 0 records"] if button == "Log" else
                            ["[I]main_win:22: loading net config"] +
                            ([] if options == ("--unopenable",) else ["[I]main_win:31: read 64 bytes"]))
                self.assertEqual(app.ui_lines(), expected)
                app.finish()

    def test_nothing_found_and_nothing_sent_without_a_printer(self):
        app = self.run_app("--no-device")
        self.assertEqual((app.status(), app.chooser_items()), (NO_PRINTER, ["First printer found"]))
        self.assertIsNone(app.status_mark(), "at the start it is news, not a failure")
        app.set_field(ADDR, "1.1.1.1")
        app.set_field(MASK, "255.0.0.0")
        self.assertEqual(app.act("Save"), NO_PRINTER)
        self.assertEqual(app.status_mark(), "Error")
        app.act("Load")
        app.page("Log")
        app.act("Load")
        self.assertEqual(app.ui_lines(), ["[I]main_win:48: saving net config", "[I]main_win:22: loading net config",
                                          "[I]main_win:65: loading log"])
        self.assertEqual(app.frames(), [])
        self.assertEqual(app.log_rows(), [])


class Background(Case):
    """The exchange runs away from the main loop: the window keeps answering."""

    def test_the_window_answers_while_the_printer_takes_nothing(self):
        for page, button, progress in (("Network Settings", "Save", "Sending the network settings…"),
                                       ("Network Settings", "Load", "Reading the network settings…"),
                                       ("Log", "Load", "Reading the job log…")):
            with self.subTest(button=button, page=page):
                app = self.run_app("--no-accept")
                app.set_field(ADDR, "192.168.1.100")
                app.set_field(MASK, "255.255.255.0")
                app.page(page)
                app.click(button)
                # Seen at all, the progress sentence shows the bus answering mid-exchange.
                wait_for(lambda: app.status() == progress, 5, "the progress sentence")
                self.assertTrue(app.busy())
                self.assertIsNone(app.status_mark())
                # Named: the status line's info bar has a close button, never shown.
                buttons = app.app.findChildren(lambda n: n.roleName == "push button" and n.name)
                self.assertEqual(sorted(b.name for b in buttons),
                                 ["Load", "Load", "Reset", "Save", "Trigger"])
                self.assertFalse(any(b.sensitive for b in buttons), "no action can start")
                self.assertFalse(app.chooser().sensitive)
                if page == "Network Settings":
                    app.set_field(GW, "10.9.8.7")
                    self.assertEqual(app.fields()[GW], "10.9.8.7", "the entries stay editable")
                wait_for(lambda: not app.busy(), 5, "the write time-out")
                self.assertEqual(app.status(), "Printer VP0001 did not accept the command within 2 seconds.")
                self.assertTrue(all(b.sensitive for b in buttons if b.showing))
                self.assertTrue(app.chooser().sensitive)
                app.finish()

    def test_clicks_during_an_exchange_start_nothing(self):
        app = self.run_app("--no-reply")
        app.click("Load")
        wait_for(app.busy, 5, "the exchange")
        app.click("Load")
        app.click("Load")
        app.click("Save")
        wait_for(lambda: not app.busy(), 5, "the read time-out")
        self.assertEqual(app.status(), "Printer VP0001 did not answer within 1 second.")
        self.assertEqual(app.frames(), [READ_NETCFG])
        self.assertEqual(app.ui_lines(), ["[I]main_win:22: loading net config", "[I]main_win:31: read 64 bytes"])

    def test_udev_news_during_an_exchange_gives_way_to_the_outcome(self):
        app = self.run_app("--printers", "2", "--hotplug", "2", "--no-reply")
        app.click("Load")
        wait_for(app.busy, 5, "the exchange")
        app.signal(signal.SIGUSR1)
        wait_for(lambda: app.status() == "Printer VP0002 was disconnected.", 5, "the unplug")
        self.assertTrue(app.busy(), "the exchange with VP0001 goes on")
        wait_for(lambda: not app.busy(), 5, "the read time-out")
        self.assertEqual(app.status(), "Printer VP0001 did not answer within 1 second.")
        self.assertEqual(app.chooser_items(), ["First printer found", "Virtual Printer (VP0001)"])

    def test_closing_mid_exchange_releases_the_printer(self):
        app = self.run_app("--no-accept", summary=True)
        app.set_field(ADDR, "192.168.1.100")
        app.set_field(MASK, "255.255.255.0")
        app.click("Save")
        wait_for(app.busy, 5, "the exchange")
        app.close_window()
        self.assertEqual(app.wait(5), 0)
        lines = app.stderr_lines()
        self.assertTrue(lines[-1].endswith("; 0 interface(s) left claimed"), lines[-1])
        self.assertEqual([l for l in lines if l[:3] in ("[C]", "[W]", "[E]")], [], "no critical, no warning")


class Chooser(Case):
    def test_the_chosen_printer_alone_gets_the_frames(self):
        app = self.run_app("--printers", "3", "--record-serial", "--hotplug", "2", "--product", "")
        self.assertEqual(app.chooser_items(), ["First printer found", "USB printer (VP0001)", "USB printer (VP0002)",
                                               "USB printer (VP0003)"])
        self.assertEqual(app.act("Load"), "Read the network settings from printer VP0001.")
        app.choose(2)
        self.assertEqual(app.act("Save"), "Sent the network settings to printer VP0002. It reports them back as sent.")
        app.page("Log")
        self.assertEqual(app.act("Load"), "The job log of printer VP0002 is empty.")
        self.assertEqual(app.frames(), ["VP0001 " + READ_NETCFG, "VP0002 " + SAVE_FRAME, "VP0002 " + READ_NETCFG,
                                        "VP0002 " + READ_LOG])

        # Unplugged before the click: marked, nothing sent, never another printer.
        app.signal(signal.SIGUSR1)
        wait_for(lambda: app.status() == "Printer VP0002 was disconnected.", 10, "the unplug")
        self.assertIsNone(app.status_mark(), "udev's news is no failure")
        self.assertEqual(app.chooser_items(), ["First printer found", "USB printer (VP0001)", "USB printer (VP0003)",
                                               "USB printer (VP0002) — not connected"])
        self.assertEqual(app.act("Load"), "Printer VP0002 is not connected.")
        self.assertEqual(app.status_mark(), "Error")
        self.assertEqual(len(app.frames()), 4)
        self.assertEqual(app.ui_lines()[-1], "[I]main_win:65: loading log", "no read line: nothing was sent")

        # Back in the same port with a new address: used again.
        app.signal(signal.SIGUSR2)
        wait_for(lambda: app.status() == "Printer VP0002 connected.", 10, "the plug")
        self.assertIsNone(app.status_mark())
        self.assertEqual(app.chooser_items()[1:], ["USB printer (VP0001)", "USB printer (VP0002)", "USB printer (VP0003)"])
        self.assertEqual(app.act("Load"), "The job log of printer VP0002 is empty.")
        self.assertEqual(app.frames()[-1], "VP0002 " + READ_LOG)

    def test_plug_and_unplug_without_a_click(self):
        app = self.run_app("--job-log", "60,120")
        app.page("Log")
        app.act("Load")
        self.assertEqual(len(app.log_rows()), 2)
        app.signal(signal.SIGUSR1)
        wait_for(lambda: app.status() == "Printer VP0001 was disconnected.", 10, "the unplug")
        self.assertEqual(app.chooser_items(), ["First printer found"])
        self.assertEqual(app.act("Load"), NO_PRINTER)
        self.assertEqual(app.log_rows(), [], "a load that finds no printer empties the list")
        app.signal(signal.SIGUSR2)
        wait_for(lambda: app.status() == "Printer VP0001 connected.", 10, "the plug")
        self.assertEqual(app.chooser_items(), ["First printer found", "Virtual Printer (VP0001)"])
        self.assertEqual(app.frames(), [READ_LOG])

    def test_an_unopenable_printer_is_marked(self):
        app = self.run_app("--unopenable")
        self.assertEqual(app.chooser_items(), ["First printer found", "Virtual Printer (VP0001) — no permission"])


class Names(Case):
    def test_every_control_that_shows_is_named(self):
        app = self.run_app()
        self.assertEqual(sorted(app.fields()), sorted([ADDR, MASK, GW]), "each entry is labelled by its label")
        controls = ("push button", "check box", "combo box", "text", "page tab", "table", "tree table")
        for page in ("Network Settings", "Log"):
            app.page(page)
            for node in app.app.findChildren(lambda n: n.roleName in controls and n.showing):
                self.assertTrue(node.name or node.labeller is not None, "%s has no name" % node.roleName)


if __name__ == "__main__":
    unittest.main()
