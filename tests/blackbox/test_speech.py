"""What a screen reader is told when a click ends, heard the way one hears
it: an event listener on the accessibility bus. Each outcome is announced
(spoken by Orca 46 and later) and its info bar becomes showing again (what
Orca 43 speaks); progress is neither."""
import signal
import time
import unittest

import pyatspi
from gi.repository import GLib

from gui_driver import wait_for
from test_window import NETCFG, SENT, Case

EVENTS = ("object:announcement", "object:state-changed:showing")


class Listener:
    """Records the announcements and the info bars that become showing, as
    (kind, name, text). The toolkit sends an event only once a listener has
    registered for it, so this starts before the program."""

    def __init__(self):
        self.events = []
        self.pid = None
        pyatspi.Registry.registerEventListener(self._on_event, *EVENTS)
        self.pump(0.5)  # the registry tells the applications about the listener

    def stop(self):
        pyatspi.Registry.deregisterEventListener(self._on_event, *EVENTS)

    def _on_event(self, event):
        try:
            if self.pid is None or event.host_application.get_process_id() != self.pid:
                return
            source = event.source
            if event.type == "object:announcement":
                self.events.append(("announcement", source.getRoleName(), event.any_data))
            elif source.getRole() == pyatspi.ROLE_INFO_BAR and event.detail1:
                labels = pyatspi.findAllDescendants(source, lambda n: n.getRole() == pyatspi.ROLE_LABEL)
                self.events.append(("info bar", source.name, labels[0].name if labels else None))
        except GLib.Error:  # an object that has just gone
            pass

    def pump(self, seconds):
        """Events wait in the listener's connection until its main loop runs."""
        context = GLib.MainContext.default()
        end = time.time() + seconds
        while time.time() < end:
            while context.pending():
                context.iteration(False)
            time.sleep(0.02)

    def take(self, count, timeout=5):
        """The next count events, and a moment more to see that none follows."""
        def arrived():
            self.pump(0.05)
            return len(self.events) >= count
        wait_for(arrived, timeout, "%d events" % count)
        self.pump(0.3)
        taken, self.events = self.events, []
        return taken


class Speech(Case):
    def setUp(self):
        self.listener = Listener()
        self.addCleanup(self.listener.stop)

    def start(self, *options):
        app = self.run_app(*options)
        self.listener.pid = app.pid
        self.listener.pump(0.5)
        self.listener.events.clear()  # the window's first showing
        return app

    def outcome(self, kind, sentence):
        return [("announcement", "status bar", sentence), ("info bar", kind, sentence)]

    def test_each_outcome_is_announced_and_shown_anew(self):
        other = "02" + NETCFG[2:]  # DHCP on
        app = self.start("--reply", NETCFG, "--reply", NETCFG, "--reply", "00" * 12, "--reply", other,
                         "--hotplug", "1")
        read = "Read the network settings from printer VP0001."
        cases = [  # button, what it says, the info bar's name; the same success twice is spoken twice
            ("Load", read, "Information"),
            ("Load", read, "Information"),
            ("Load", "Printer VP0001 sent an unexpected reply (12 bytes).", "Error"),
            ("Save", SENT + " It reports other settings: DHCP on.", "Warning"),
        ]
        for button, sentence, kind in cases:
            with self.subTest(button=button, sentence=sentence):
                self.assertEqual(app.act(button), sentence)
                self.assertCountEqual(self.listener.take(2), self.outcome(kind, sentence), "no progress sentence")
        app.signal(signal.SIGUSR1)
        self.assertCountEqual(self.listener.take(2), self.outcome("Information", "Printer VP0001 was disconnected."))

    def test_a_failure_after_progress(self):
        app = self.start("--no-reply")
        self.assertEqual(app.act("Load"), "Printer VP0001 did not answer within 1 second.")
        self.assertCountEqual(self.listener.take(2),
                              self.outcome("Error", "Printer VP0001 did not answer within 1 second."))


if __name__ == "__main__":
    unittest.main()
