"""Black-box tests of the real pellavoy binary against the virtual printer."""
import os
import subprocess
import unittest

from gui_driver import BUILD, Pellavoy, press

ADDR, MASK, GW = "IP address:", "Subnet mask:", "Gateway:"
READ_NETCFG = "1b5e495352"
READ_LOG = "1b1d1e10571b1d1f"
EPOCH = ("1970-01-01 00:00:00", "start job")
NO_PRINTER = "No USB printer found. Check the cable and that the printer is switched on."


class Case(unittest.TestCase):
    def run_app(self, *options, **kw):
        app = Pellavoy(*options, **kw)
        self.addCleanup(app.finish)
        return app

    def load_net(self, app):
        app.click("Load")

    def load_log(self, app):
        app.page("Log")
        app.click("Load")


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
        for typed in ("724918 ", "000000", ""):
            with self.subTest(typed=typed):
                app = self.run_app("--no-device", password=None)
                app.enter_password(typed)
                alert = app.app.child(roleName="alert")
                self.assertIn("Invalid password!", [n.name for n in alert.findChildren(lambda n: n.roleName == "label")])
                press(alert.child(name="OK", roleName="push button"))
                self.assertEqual(app.wait(), 0)
                self.assertEqual(app.stdout, b"")
                for line in app.stderr_lines():
                    self.assertRegex(line, r"^\[[EWCMIDX]\]", "only log lines on standard error")
                self.assertEqual(app.frames(), [])

    def test_right_password_shows_the_network_page(self):
        app = self.run_app("--no-device")
        tab = app.app.child(name="Network Settings", roleName="page tab")
        self.assertTrue(tab.selected)
        self.assertEqual([b.name for b in app.app.findChildren(lambda n: n.roleName == "push button" and n.showing)],
                         ["Load", "Save"])
        app.close_window()
        self.assertEqual(app.wait(), 0)


class NetworkPage(Case):
    def test_load_fills_the_page_from_the_wire_order(self):
        app = self.run_app("--netcfg", "00c0a80164c0a80101ffffff00")
        press(app.dhcp())  # on, so that the load visibly turns it off
        self.load_net(app)
        self.assertEqual(app.fields(), {ADDR: "192.168.1.100", MASK: "255.255.255.0", GW: "192.168.1.1"})
        self.assertFalse(app.dhcp().checked)
        self.assertEqual(app.frames(), [READ_NETCFG])
        self.assertEqual(app.ui_lines(), ["[I]main_win:22: loading net config", "[I]main_win:31: read 13 bytes"])

    def test_dhcp_byte_other_than_one_checks_the_box(self):
        app = self.run_app("--netcfg", "020a0000010a0000feff000000")
        self.load_net(app)
        self.assertTrue(app.dhcp().checked)
        self.assertEqual(app.fields(), {ADDR: "10.0.0.1", MASK: "255.0.0.0", GW: "10.0.0.254"})

    def test_replies_of_another_length_change_nothing(self):
        twelve, fourteen, sixty_four = "00" * 12, "01" * 14, "02" * 64
        app = self.run_app("--reply", twelve, "--reply", fourteen, "--reply", sixty_four)
        app.set_field(ADDR, "1.2.3.4")
        for n in (12, 14, 64):
            self.load_net(app)
            self.assertEqual(app.fields(), {ADDR: "1.2.3.4", MASK: "", GW: ""})
            self.assertFalse(app.dhcp().checked)
        self.assertEqual([l for l in app.ui_lines() if "read" in l],
                         ["[I]main_win:31: read %d bytes" % n for n in (12, 14, 64)])

    def test_timed_out_read_changes_nothing_and_logs_the_capacity(self):
        app = self.run_app("--no-reply")
        app.set_field(GW, "9.9.9.9")
        self.load_net(app)
        self.assertEqual(app.fields(), {ADDR: "", MASK: "", GW: "9.9.9.9"})
        self.assertIn("Operation timed out", app.stderr_lines())
        self.assertEqual(app.ui_lines()[-1], "[I]main_win:31: read 64 bytes")

    def test_save_sends_the_exact_frame(self):
        app = self.run_app()
        app.set_field(ADDR, "10.0.0.1")
        app.set_field(GW, "10.0.0.254")
        app.set_field(MASK, "255.0.0.0")
        if not app.dhcp().checked:
            press(app.dhcp())
        app.click("Save")
        # Not an address: 300.1.1.1, an IPv6 text, a host name, nothing.
        app.set_field(ADDR, "300.1.1.1")
        app.set_field(GW, "::1")
        app.set_field(MASK, "")
        press(app.dhcp())
        app.click("Save")
        app.set_field(ADDR, "printer.local")
        app.click("Save")
        self.assertEqual(app.frames(), [
            "1b5e495357010a0000010a0000feff000000",
            "1b5e49535700000000000000000000000000",
            "1b5e49535700000000000000000000000000",
        ])
        self.assertEqual(app.ui_lines(), ["[I]main_win:48: saving net config"] * 3)

    def test_save_then_load_round_trips_through_the_firmware(self):
        app = self.run_app()
        values = {ADDR: "172.16.5.20", MASK: "255.255.240.0", GW: "172.16.0.1"}
        for label, text in values.items():
            app.set_field(label, text)
        press(app.dhcp())
        app.click("Save")
        for label in values:
            app.set_field(label, "")
        press(app.dhcp())
        self.load_net(app)
        self.assertEqual(app.fields(), values)
        self.assertTrue(app.dhcp().checked)


class LogPage(Case):
    def test_records_become_rows_in_utc(self):
        cases = [
            ("0100000000000000", [EPOCH]),
            ("01000000ffffffff", [("2106-02-07 06:28:15", "start job")]),
            ("02000000", [EPOCH, EPOCH]),
            ("00000000", []),
        ]
        app = self.run_app(*[arg for reply, _ in cases for arg in ("--reply", reply)])
        for reply, rows in cases:
            with self.subTest(reply=reply):
                self.load_log(app)
                self.assertEqual(app.log_rows(), rows)
        self.assertIn("[I]main_win:84: 4294967295 => 2106-02-07 06:28:15", app.ui_lines())
        self.assertEqual(app.frames(), [READ_LOG] * 4)

    def test_a_count_far_beyond_the_reply_stays_inside_the_buffer(self):
        app = self.run_app("--reply", "ffffffff01000000")
        self.load_log(app)
        rows = app.log_rows()
        self.assertEqual(len(rows), 511, "every slot of the 2048-byte buffer, no more")
        self.assertEqual(rows[0], ("1970-01-01 00:00:01", "start job"))
        self.assertEqual(set(rows[1:]), {EPOCH})
        self.assertIn("[I]main_win:78: 4294967295 records", app.ui_lines())
        self.assertEqual(app.proc.poll(), None, "still running")

    def test_short_and_failed_reads_give_an_empty_list(self):
        app = self.run_app("--reply", "020000")
        self.load_log(app)
        self.assertEqual(app.log_rows(), [])
        self.assertEqual(app.ui_lines(), ["[I]main_win:65: loading log", "[I]main_win:75: read 3 bytes"])

    def test_load_replaces_the_rows_and_no_printer_empties_them(self):
        # Two loads of two transfers each, then the printer is gone.
        app = self.run_app("--job-log", "60,120", "--unplug-after", "4")
        self.load_log(app)
        self.load_log(app)
        self.assertEqual(app.log_rows(), [("1970-01-01 00:01:00", "start job"), ("1970-01-01 00:02:00", "start job")])
        self.load_log(app)
        self.assertEqual(app.log_rows(), [])


class NoPrinter(Case):
    def test_every_action_logs_its_first_line_and_sends_nothing(self):
        app = self.run_app("--no-device")
        self.assertEqual((app.status(), app.chooser_items()), (NO_PRINTER, ["First printer found"]))
        app.set_field(ADDR, "1.1.1.1")
        app.click("Save")
        self.load_net(app)
        self.load_log(app)
        self.assertEqual(app.ui_lines(), ["[I]main_win:48: saving net config", "[I]main_win:22: loading net config",
                                          "[I]main_win:65: loading log"])
        self.assertEqual(app.frames(), [])
        self.assertEqual(app.log_rows(), [])
        app.page("Network Settings")
        self.assertEqual(app.fields()[ADDR], "1.1.1.1")


if __name__ == "__main__":
    unittest.main()
