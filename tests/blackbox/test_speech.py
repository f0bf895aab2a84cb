"""What a screen reader is told when a click ends, heard the way one hears
it: an event listener on the accessibility bus. Each outcome is announced
(spoken by Orca 46 and later) and its info bar becomes showing again (what
Orca 43 speaks); progress is neither. And what Orca itself says."""
import os
import pty
import signal
import subprocess
import tempfile
import threading
import unittest

import pyatspi
from gi.repository import GLib

from gui_driver import pump_events, wait_for
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
        pump_events(seconds)

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


class Orca:
    """Orca on the current display and accessibility bus, with its own home
    and settings and no speech server: it still writes what it would say
    into its debug output ("SPEECH OUTPUT: '...'"), which it flushes line by
    line only to a terminal."""

    def __init__(self):
        self.home = tempfile.TemporaryDirectory(prefix="pellavoy-orca-")
        home = self.home.name
        env = dict(os.environ, HOME=home, XDG_CONFIG_HOME=home + "/config", XDG_DATA_HOME=home + "/data",
                   XDG_CACHE_HOME=home + "/cache", SPEECHD_ADDRESS="unix_socket:" + home + "/no-speech-server")
        command = ["orca", "--debug-file", "/dev/stdout", "--user-prefs", home + "/orca"]
        if os.geteuid() == 0:
            # Orca refuses to start beside another Orca of the same user: a
            # PID namespace of its own keeps it apart from the desktop's.
            # It ends with unshare.
            command = ["unshare", "--pid", "--fork", "--mount-proc", "--kill-child"] + command
        self.terminal, child = pty.openpty()
        self.proc = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=child, stderr=child, env=env)
        os.close(child)
        self.lines = []
        self.reader = threading.Thread(target=self._read, daemon=True)
        self.reader.start()
        wait_for(self.spoken, 30, "Orca to speak")

    def _read(self):
        rest = b""
        while True:
            try:
                data = os.read(self.terminal, 65536)
            except OSError:  # the terminal's other end has closed
                break
            if not data:
                break
            *lines, rest = (rest + data).split(b"\n")
            self.lines.extend(line.decode(errors="replace").rstrip("\r") for line in lines)

    def spoken(self):
        return [line.split("SPEECH OUTPUT: ", 1)[1] for line in list(self.lines) if "SPEECH OUTPUT: " in line]

    def stop(self):
        self.proc.kill()  # it has nothing to keep, and takes seconds to end on SIGTERM
        self.proc.wait()
        self.reader.join(5)
        os.close(self.terminal)
        self.home.cleanup()


class Orca43(Case):
    """Orca 43 (Debian 12) speaks each outcome: its info bar showing again."""

    def test_orca_says_what_each_click_came_to(self):
        orca = Orca()
        self.addCleanup(orca.stop)
        app = self.run_app("--reply", NETCFG, "--reply", "00" * 12, "--reply", "02" + NETCFG[2:])
        cases = [  # button, what Orca says
            ("Load", "Information Read the network settings from printer VP0001."),
            ("Load", "Error Printer VP0001 sent an unexpected reply (12 bytes)."),
            ("Save", "Warning " + SENT + " It reports other settings: DHCP on."),
        ]
        for button, said in cases:
            with self.subTest(button=button):
                before = len(orca.spoken())
                app.act(button)
                # It may still be telling of the window that came up.
                wait_for(lambda: any(u.startswith(repr(said)) for u in orca.spoken()[before:]), 10,
                         "Orca to say %r; it said %r" % (said, orca.spoken()[before:]))


if __name__ == "__main__":
    unittest.main()
