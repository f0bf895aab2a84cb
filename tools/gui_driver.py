"""Drives the real pellavoy binary through the accessibility bus (dogtail):
used by the black-box tests, the screenshot script and the benchmark.

Needs an X display and a session bus (dbus-run-session -- xvfb-run -a ...);
starts the accessibility bus itself. The program may run on a Wayland
compositor instead (GDK_BACKEND=wayland in its env), driven the same way.
Run with Debian's /usr/bin/python3.
"""
import os
import subprocess
import tempfile
import time

os.environ["GSETTINGS_BACKEND"] = "memory"
from gi.repository import Gio, GLib  # noqa: E402

# dogtail refuses to start unless the desktop says accessibility is on.
Gio.Settings.new("org.gnome.desktop.interface").set_boolean("toolkit-accessibility", True)

from dogtail import rawinput, tree  # noqa: E402
from dogtail.config import config  # noqa: E402
import pyatspi  # noqa: E402
from Xlib import X, display, protocol  # noqa: E402

config.actionDelay = 0.05
config.defaultDelay = 0.05
config.typingDelay = 0.02
config.searchBackoffDuration = 0.1
config.searchCutoffCount = 50
config.logDebugToStdOut = False
config.logDebugToFile = False

PASSWORD = "724918"
BUILD = os.environ.get("PELLAVOY_BUILD", os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "build"))
_bus = None
_runtime = None


def start_accessibility_bus():
    global _bus, _runtime
    if _bus is None:
        # A bus of this run's own: as root without XDG_RUNTIME_DIR every session
        # shares one socket (~/.cache/at-spi/bus), and two runs side by side
        # would disturb each other.
        _runtime = tempfile.TemporaryDirectory(prefix="pellavoy-a11y-")
        os.environ["XDG_RUNTIME_DIR"] = _runtime.name
        _bus = subprocess.Popen(["/usr/libexec/at-spi-bus-launcher", "--launch-immediately"],
                                stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        time.sleep(0.5)


def stop_accessibility_bus():
    global _bus, _runtime
    if _bus is not None:
        _bus.terminate()
        _bus.wait()
        _bus = None
        _runtime.cleanup()
        _runtime = None


def pump_events(seconds=0.3):
    """Lets the accessibility bus's events reach a listener in this process:
    they wait in its connection until the GLib main loop runs."""
    context = GLib.MainContext.default()
    end = time.time() + seconds
    while time.time() < end:
        while context.pending():
            context.iteration(False)
        time.sleep(0.01)


def wait_for(predicate, timeout=10.0, what="condition"):
    end = time.time() + timeout
    while time.time() < end:
        value = predicate()
        if value:
            return value
        time.sleep(0.05)
    raise AssertionError("timed out waiting for " + what)


def shown(node):
    """Whether the window has made the widget visible. GTK reports "showing"
    only once the widget has been laid out, a frame after it was shown, so a
    mark or spinner just switched on can read as not showing for a moment."""
    return node.getState().contains(pyatspi.STATE_VISIBLE)


def press(node):
    """A click through the accessibility interface: it returns once the
    widget's handler has run, so what it changed can be read at once."""
    node.doActionNamed("click")


class Pellavoy:
    """One run of pellavoy under the virtual printer, with the given options;
    with emulate=False, on the machine's own USB devices."""

    def __init__(self, *printer_options, password=PASSWORD, program=None, env=None, summary=False, emulate=True):
        """env: variables to set, or with None to unset."""
        self.tmp = tempfile.TemporaryDirectory(prefix="pellavoy-gui-")
        self.frames_path = os.path.join(self.tmp.name, "frames")
        self.stderr_path = os.path.join(self.tmp.name, "stderr")
        env = dict(os.environ, GTK_A11Y="atspi", NO_AT_BRIDGE="0", TZ="UTC", **(env or {}))
        env = {name: value for name, value in env.items() if value is not None}
        self.wayland = env.get("GDK_BACKEND") == "wayland"
        self.stderr = open(self.stderr_path, "w")
        program = program or os.path.join(BUILD, "pellavoy")
        emulator = [os.path.join(BUILD, "tools", "virtual-printer"), *([] if summary else ["--quiet"]),
                    "--record", self.frames_path, *printer_options, "--"]
        self.proc = subprocess.Popen((emulator if emulate else []) + [program],
                                     env=env, stdout=subprocess.PIPE, stderr=self.stderr)
        self.pid = wait_for(self._pellavoy_pid, 10, "pellavoy to start") if emulate else self.proc.pid
        self.app = wait_for(self._find_app, 60, "pellavoy on the accessibility bus")
        if password is not None:
            self.enter_password(password)

    def _find_app(self):
        for app in tree.root.children:
            try:
                if app.get_process_id() == self.pid:
                    return app
            except Exception:  # an application that has just gone
                pass
        return None

    # --- the password dialog -------------------------------------------------
    def enter_password(self, text, press_ok=True):
        entry = self.app.child(roleName="password text")
        # A popup dialog never gets the keyboard without a window manager, so
        # the text goes in through the accessibility interface.
        entry.text = text
        wait_for(lambda: len(entry.text or "") == len(text) or not text, 5, "the password in the entry")
        if press_ok:
            press(self.button("Ok"))

    # --- widgets --------------------------------------------------------------
    def button(self, name):
        """The button of that name on the page in front (both pages have a Load)."""
        return self.app.findChild(lambda n: n.roleName == "push button" and n.name == name and n.showing)

    def click(self, name):
        """Presses a button and returns at once: the exchange runs on."""
        press(self.button(name))

    def act(self, name):
        """Presses a button whose handler logs a line, waits until the
        exchange it starts has ended, and returns the status line. The
        handler runs from an idle callback; its first log line says that it
        has run, and so that the exchange is under way."""
        before = len(self.ui_lines())
        self.click(name)
        wait_for(lambda: len(self.ui_lines()) > before, 15, "the handler of " + name)
        wait_for(lambda: not self.busy(), 15, "the exchange of " + name + " to end")
        return self.status()

    def status_bar(self):
        return self.app.child(roleName="status bar")

    def status(self):
        return self.status_bar().child(roleName="label").name

    def status_mark(self):
        """The accessible name of the icon shown in the status line ("Error",
        "Warning"), or None without one."""
        icons = self.status_bar().findChildren(lambda n: n.roleName == "icon" and shown(n))
        return icons[0].name if icons else None

    def busy(self):
        """An exchange runs: the status line's spinner shows."""
        return bool(self.status_bar().findChildren(lambda n: n.roleName == "animation" and shown(n)))

    def chooser(self):
        return self.app.child(roleName="combo box")

    def chooser_items(self):
        return [item.name for item in self.chooser().child(roleName="menu").children]

    def choose(self, index):
        self.chooser().querySelection().selectChild(index)

    def signal(self, sig):
        """To the virtual printer: SIGUSR1 unplugs the printer --hotplug names, SIGUSR2 plugs it back in."""
        self.proc.send_signal(sig)

    def mark(self, label):
        """What the check says of that entry: (icon name, its tooltip, the
        entry's accessible description); (None, None, "") without a finding."""
        entry = self._entries_by_label()[label]
        icons = [c for c in entry.children if c.roleName == "icon"]
        return (icons[0].name if icons else None, icons[0].description if icons else None, entry.description or "")

    def focused_entry(self):
        """The label of the entry that has the keyboard focus, or None."""
        return next((label for label, entry in self._entries_by_label().items() if entry.focused), None)

    def page(self, name):
        tab = self.app.child(name=name, roleName="page tab")
        tabs = [t for t in tab.parent.children if t.roleName == "page tab"]
        tab.parent.querySelection().selectChild(tabs.index(tab))
        wait_for(lambda: tab.selected, 5, "page " + name)

    def fields(self):
        """The network page: {'IP address:': text, ...}."""
        return {label: entry.text for label, entry in self._entries_by_label().items()}

    def set_field(self, label, text):
        self._entries_by_label()[label].text = text

    def _entries_by_label(self):
        """The showing entries by the text of the label linked to them."""
        entries = self.app.findChildren(lambda n: n.roleName == "text" and n.showing and n.labeller is not None)
        return {entry.labeller.name: entry for entry in entries}

    def dhcp(self):
        return self.app.child(name="DHCP", roleName="check box")

    def log_rows(self):
        """Rows of the job-log list as (time, event) pairs, top to bottom."""
        tables = self.app.findChildren(lambda n: n.roleName == "table")
        if not tables:  # a tree view without a model is no table yet
            return []
        table = tables[0].queryTable()
        return [tuple(table.getAccessibleAt(r, c).name for c in range(table.nColumns)) for r in range(table.nRows)]

    # --- what happened ----------------------------------------------------------
    def frames(self):
        """Frames the printers received, in hex; with --record-serial each
        line begins with the receiving printer's serial number."""
        with open(self.frames_path) as f:
            return [line.strip() for line in f if line.strip()]

    def stderr_lines(self):
        self.stderr.flush()
        with open(self.stderr_path, encoding="utf-8", errors="replace") as f:
            return f.read().splitlines()

    def ui_lines(self):
        return [line for line in self.stderr_lines() if line.startswith("[I]main_win:")]

    # --- the end ----------------------------------------------------------------
    def close_window(self):
        """Asks the main window to close, as a window manager's close button does."""
        if self.wayland:
            # The window draws its own title bar there, the frame's first child.
            frame = self.app.child(name="Pellavoy", roleName="frame", recursive=False)
            press(frame.children[0].child(name="Close", roleName="push button"))
            return
        d = display.Display()
        pid = self.pid
        net_wm_pid = d.intern_atom("_NET_WM_PID")
        protocols = d.intern_atom("WM_PROTOCOLS")
        delete = d.intern_atom("WM_DELETE_WINDOW")
        for w in d.screen().root.query_tree().children:
            prop = w.get_full_property(net_wm_pid, X.AnyPropertyType)
            attrs = w.get_attributes()
            if prop and prop.value[0] == pid and attrs.map_state == X.IsViewable:
                event = protocol.event.ClientMessage(window=w, client_type=protocols, data=(32, [delete, X.CurrentTime, 0, 0, 0]))
                w.send_event(event)
        d.flush()
        d.close()

    def _pellavoy_pid(self):
        out = subprocess.run(["pgrep", "-P", str(self.proc.pid)], capture_output=True, text=True).stdout.split()
        return int(out[0]) if out else None

    def wait(self, timeout=15):
        status = self.proc.wait(timeout)
        self.stdout = self.proc.stdout.read()
        return status

    def finish(self):
        if self.proc.poll() is None:
            self.close_window()
            try:
                self.proc.wait(10)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait()
        self.stderr.close()
        self.tmp.cleanup()
