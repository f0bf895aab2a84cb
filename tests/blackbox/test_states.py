"""What a screen reader knows of the window's controls, through the real
binary: the sensitive state it keeps from the accessibility bus's events, as
Orca keeps it, is what each control does before the password, after it,
during an exchange and after it; and the keyboard focus is where it was once
an exchange ends."""
import unittest

import pyatspi
from Xlib import X, XK, display
from Xlib.ext import xtest

from gui_driver import PASSWORD, Pellavoy, pump_events as pump, wait_for

ROLES = ("push button", "check box", "combo box", "text", "page tab", "page tab list")
LOCKED, IDLE, BUSY = "before the password", "idle", "during an exchange"
GW = "text Gateway: (Network Settings)"


def expected(key, moment):
    """Whether a control acts at that moment: the page tabs always (they only
    show); the entries and the check box once the password is accepted; the
    buttons and the chooser also only while no exchange runs."""
    role = key.split(" ")[0]
    if role == "page":
        return True
    if role in ("text", "check"):
        return moment != LOCKED
    return moment == IDLE


def controls(app):
    """The main window's controls by role, name (an entry's label) and page;
    those hidden for good (Trigger, Reset, the status line's close button) are
    no one's concern."""
    frame = app.app.child(name="Pellavoy", roleName="frame")
    found = {}
    for node in frame.findChildren(lambda n: n.roleName in ROLES and n.visible):
        name = node.labeller.name if node.roleName == "text" else node.name
        tab = node.parent
        while tab is not None and tab.roleName != "page tab":
            tab = tab.parent
        found[" ".join(part for part in (node.roleName, name, tab and "(%s)" % tab.name) if part)] = node
    return found


STATES = {"sensitive": pyatspi.STATE_SENSITIVE, "enabled": pyatspi.STATE_ENABLED, "focused": pyatspi.STATE_FOCUSED}


def asked(node):
    """The states the program gives when asked now."""
    states = node.getState()
    return {name: states.contains(state) for name, state in STATES.items()}


def reading(node, states):
    """(sensitive or not, focused or not). GTK says a page tab is focused in
    an event when its notebook takes the focus, never in the tab's states:
    the notebook's own states tell."""
    sensitive, enabled = states["sensitive"], states["enabled"]
    return ("sensitive" if sensitive and enabled else "insensitive" if not (sensitive or enabled) else "mixed",
            states["focused"] and node.roleName != "page tab")


class ScreenReader:
    """Keeps each control's states as a screen reader does (Orca, in
    libatspi's cache): asked when first seen, then changed by the bus's
    events alone. The program's bridge sends only the events someone
    listens for, so this listens before the program starts."""

    EVENTS = ["object:state-changed:" + name for name in STATES]

    def __init__(self):
        self.kept = {}
        pyatspi.Registry.registerEventListener(self.changed, *self.EVENTS)
        pump()

    def close(self):
        pyatspi.Registry.deregisterEventListener(self.changed, *self.EVENTS)

    def changed(self, event):
        if event.source in self.kept:
            self.kept[event.source][event.type.split(":")[-1]] = bool(event.detail1)

    def states(self, node):
        return self.kept.setdefault(node, asked(node))


def key(name):
    """A real key press, to the window that has the X keyboard focus."""
    d = display.Display()
    code = d.keysym_to_keycode(XK.string_to_keysym(name))
    xtest.fake_input(d, X.KeyPress, code)
    xtest.fake_input(d, X.KeyRelease, code)
    d.sync()
    d.close()


class States(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        self.reader = ScreenReader()
        self.addCleanup(self.reader.close)

    def run_app(self, *options):
        app = Pellavoy(*options, password=None)
        self.addCleanup(app.finish)
        return app

    def assertStates(self, app, moment, focus=None):
        """Each control's state as kept from the events, then as the program
        gives it now: both as the control acts, the focus on focus alone."""
        pump()
        nodes = controls(app)
        kept = {key: reading(node, self.reader.states(node)) for key, node in nodes.items()}
        now = {key: reading(node, asked(node)) for key, node in nodes.items()}
        want = {key: ("sensitive" if expected(key, moment) else "insensitive", key == focus) for key in nodes}
        self.assertEqual(now, want, "the program, " + moment)
        self.assertEqual(kept, want, "what a screen reader kept from the events, " + moment)

    def test_each_control_reads_as_it_acts_and_the_focus_comes_back(self):
        app = self.run_app("--no-accept")
        self.assertStates(app, LOCKED)
        app.enter_password(PASSWORD)
        wait_for(lambda: controls(app)["check box DHCP (Network Settings)"].sensitive, 5, "the window to unlock")
        self.assertStates(app, IDLE, focus="page tab list")
        # Settings that Save sends rather than refuses.
        settings = (("IP address:", "192.168.1.100"), ("Subnet mask:", "255.255.255.0"), ("Gateway:", "192.168.1.1"))
        for label, text in settings:
            app.set_field(label, text)

        for page, button in (("Network Settings", "Load"), ("Network Settings", "Save"), ("Log", "Load")):
            with self.subTest(page=page, button=button):
                app.page(page)
                started = "push button %s (%s)" % (button, page)
                node = controls(app)[started]
                node.grabFocus()
                x, y = node.position
                pyatspi.Registry.generateMouseEvent(x + 2, y + 2, "abs")  # the X keyboard focus follows the pointer
                wait_for(lambda: asked(node)["focused"], 5, "the focus on " + started)
                key("space")
                wait_for(app.busy, 5, "the exchange")
                self.assertStates(app, BUSY)
                wait_for(lambda: not app.busy(), 10, "the write time-out")
                self.assertStates(app, IDLE, focus=started)

        # The focus moved on during the exchange: it stays where it went.
        app.page("Network Settings")
        node = controls(app)["push button Save (Network Settings)"]
        node.grabFocus()
        key("space")
        wait_for(app.busy, 5, "the exchange")
        controls(app)[GW].grabFocus()
        self.assertStates(app, BUSY, focus=GW)
        wait_for(lambda: not app.busy(), 10, "the write time-out")
        self.assertStates(app, IDLE, focus=GW)
        self.assertEqual([line for line in app.ui_lines() if "ing " in line],
                         ["[I]main_win:22: loading net config", "[I]main_win:48: saving net config",
                          "[I]main_win:65: loading log", "[I]main_win:48: saving net config"], "one exchange per key")


if __name__ == "__main__":
    unittest.main()
