"""The network settings' check through the real binary: the marks while
typing (sign, tooltip, what a screen reader reads), a Save refused with
nothing on the wire, a Save with a warning, and DHCP on sending as before."""
from gui_driver import press, wait_for
from test_window import ADDR, AS_SENT, GW, MASK, READ_NETCFG, Case

NONE = (None, None, "")


def error(sentence):
    return ("dialog-error", sentence, sentence)


def warning(sentence):
    return ("dialog-warning", sentence, sentence)


EMPTY_ADDR = "The IP address is empty: the printer needs one when DHCP is off."
EMPTY_MASK = "The subnet mask is empty: the printer needs one when DHCP is off."
OUTSIDE = "The gateway 10.0.1.1 is outside the printer's subnet 192.168.1.0/24."
NOT_A_MASK = "255.0.255.0 is not a subnet mask: its ones must come first."
NOT_IPV4 = "Not an IPv4 address: Save sends 0.0.0.0"
ZEROED = " The %s was not an IPv4 address and was sent as 0.0.0.0."


class SettingsCheck(Case):
    def fill(self, app, dhcp, address, mask, gateway):
        if app.dhcp().checked != dhcp:
            press(app.dhcp())
        for label, text in ((ADDR, address), (MASK, mask), (GW, gateway)):
            app.set_field(label, text)

    def test_marks_follow_every_edit(self):
        app = self.run_app()
        # An empty page with DHCP off cannot be sent: it says so from the start.
        self.assertEqual([app.mark(l) for l in (ADDR, MASK, GW)], [error(EMPTY_ADDR), error(EMPTY_MASK), NONE])
        cases = [  # DHCP, address, mask, gateway: the marks on the address, the mask, the gateway
            (False, "192.168.1.100", "255.255.255.0", "192.168.1.1", NONE, NONE, NONE),
            (False, "192.168.1.100", "255.255.255.0", "10.0.1.1", NONE, NONE, warning(OUTSIDE)),
            (False, "192.168.1.100", "255.0.255.0", "10.0.1.1", NONE, error(NOT_A_MASK), NONE),
            (False, "192.168.1.100", "192.168.1.1", "255.255.255.0", NONE,
             error("192.168.1.1 is not a subnet mask, but the gateway 255.255.255.0 is: are the two swapped?"), NONE),
            (False, "127.0.0.1", "255.255.255.255", "",
             error("The IP address 127.0.0.1 is a loopback address: no other device can reach it."),
             warning("The subnet mask 255.255.255.255 (/32) puts no other device in the printer's subnet."), NONE),
            (False, "", "", "printer.local", error(EMPTY_ADDR), error(EMPTY_MASK),
             error("The gateway “printer.local” is not an IPv4 address; leave it empty for none.")),
            # The DHCP box alone: on, only text Save would send as 0.0.0.0 is marked; off again, all is back.
            (True, "", "", "printer.local", NONE, NONE, warning(NOT_IPV4)),
            (False, "", "", "printer.local", error(EMPTY_ADDR), error(EMPTY_MASK),
             error("The gateway “printer.local” is not an IPv4 address; leave it empty for none.")),
            (True, "0.0.0.0", "255.0.255.0", "::1", NONE, NONE, warning(NOT_IPV4)),
        ]
        for dhcp, address, mask, gateway, *marks in cases:
            with self.subTest(dhcp=dhcp, address=address, mask=mask, gateway=gateway):
                self.fill(app, dhcp, address, mask, gateway)
                wait_for(lambda: [app.mark(l) for l in (ADDR, MASK, GW)] == marks, 5, "the marks")
        self.assertEqual(app.frames(), [])

    def test_save_sends_nothing_while_an_error_stands_and_adds_the_warnings(self):
        # What the printer reports back after each Save that goes out; the first differs.
        app = self.run_app("--reply", "000a0000090a000101ffffff00", "--reply", "00c0a801640a000101ffffff00",
                           "--reply", "00c0a8016400000000ffffff00", "--reply", "010000000000000000ff00ff00")
        cases = [  # DHCP, address, mask, gateway; the sentence, its mark, the frame sent, the entry then focused
            (False, "192.168.1.100", "255.0.255.0", "10.0.1.1",
             "Nothing was sent to the printer: " + NOT_A_MASK, "Error", None, MASK),
            (False, "", "", "192.168.1.0",
             "Nothing was sent to the printer: " + EMPTY_ADDR + " " + EMPTY_MASK, "Error", None, ADDR),
            (False, "192.168.1.100", "255.255.255.0", "192.168.1.100",
             "Nothing was sent to the printer: The gateway 192.168.1.100 is the printer's own IP address: it would "
             "send to itself what is meant for other networks.", "Error", None, GW),
            # Warnings only: sent as before, the read-back's words first.
            (False, "10.0.0.1", "255.255.255.0", "10.0.1.1",
             "Sent the network settings to printer VP0001. It reports other settings: IP address 10.0.0.9. "
             "The gateway 10.0.1.1 is outside the printer's subnet 10.0.0.0/24.", "Warning",
             "1b5e495357000a0000010a000101ffffff00", None),
            (False, "192.168.1.100", "255.255.255.0", "10.0.1.1", AS_SENT + " " + OUTSIDE, "Warning",
             "1b5e49535700c0a801640a000101ffffff00", None),
            # An empty gateway means none: nothing to say of it.
            (False, "192.168.1.100", "255.255.255.0", "", AS_SENT, None, "1b5e49535700c0a8016400000000ffffff00", None),
            # DHCP on: what is not an address goes out as 0.0.0.0, as it always did.
            (True, "", "255.0.255.0", "printer.local", AS_SENT + ZEROED % "IP address" + ZEROED % "gateway", "Warning",
             "1b5e495357010000000000000000ff00ff00", None),
        ]
        sent = []
        for dhcp, address, mask, gateway, sentence, mark, frame, focused in cases:
            with self.subTest(dhcp=dhcp, address=address, mask=mask, gateway=gateway):
                self.fill(app, dhcp, address, mask, gateway)
                sent += [frame, READ_NETCFG] if frame else []
                self.assertEqual(app.act("Save"), sentence)
                self.assertEqual(app.status_mark(), mark)
                self.assertEqual(app.frames(), sent)
                if focused:
                    wait_for(lambda: app.focused_entry() == focused, 5, "the focus on " + focused)
        self.assertEqual(app.ui_lines(), ["[I]main_win:48: saving net config"] * len(cases))
