"""The window session on Wayland: the real binary on a headless mutter (GNOME's
compositor), with no X display, driven through the accessibility bus by its
actions and editable text (input cannot be synthesised there)."""
import glob
import os
import signal
import subprocess
import tempfile
import time
import unittest

from gui_driver import PASSWORD, wait_for
from test_window import AS_SENT, NETCFG, NO_PRINTER, READ_LOG, READ_NETCFG, SAVE_FRAME, Case

NO_X11 = {"DISPLAY": None, "XAUTHORITY": None}


class Mutter:
    """A headless mutter on a private runtime folder, inside this session bus."""

    def __init__(self):
        self.runtime = tempfile.TemporaryDirectory(prefix="pellavoy-wayland-")  # mode 700
        self.name = "wayland-pellavoy"
        self.socket = os.path.join(self.runtime.name, self.name)
        self.log_path = os.path.join(self.runtime.name, "mutter.log")
        env = {k: v for k, v in os.environ.items() if k not in ("DISPLAY", "XAUTHORITY", "WAYLAND_DISPLAY")}
        env["XDG_RUNTIME_DIR"] = self.runtime.name
        with open(self.log_path, "w") as log:
            self.proc = subprocess.Popen(["mutter", "--headless", "--wayland", "--no-x11", "--virtual-monitor",
                                          "1024x768", "--wayland-display", self.name],
                                         env=env, stdin=subprocess.DEVNULL, stdout=log, stderr=log)
        try:
            wait_for(lambda: os.path.exists(self.socket) or self.proc.poll() is not None, 20, "mutter's socket")
            if self.proc.poll() is not None:
                raise AssertionError("mutter ended with status %d" % self.proc.returncode)
        except AssertionError as e:
            self.stop()
            raise AssertionError("%s; mutter said:\n%s" % (e, self.log)) from None
        # What a program needs to open a window here and nowhere else.
        self.env = dict(NO_X11, GDK_BACKEND="wayland", WAYLAND_DISPLAY=self.name, XDG_RUNTIME_DIR=self.runtime.name)

    def stop(self):
        self.proc.terminate()
        try:
            self.proc.wait(10)
        except subprocess.TimeoutExpired:
            self.proc.kill()
            self.proc.wait()
        self.log = open(self.log_path, encoding="utf-8", errors="replace").read()
        self.runtime.cleanup()


def displays_of(pid):
    """The listening paths of the Unix sockets the process is connected to:
    ss lists the server's end of each connection with the peer's inode."""
    inodes = set()
    for fd in glob.glob("/proc/%d/fd/*" % pid):
        try:
            target = os.readlink(fd)
        except OSError:
            continue
        if target.startswith("socket:["):
            inodes.add(target[8:-1])
    paths = set()
    for line in subprocess.run(["ss", "-xnH"], capture_output=True, text=True, check=True).stdout.splitlines():
        fields = line.split()  # netid state recv-q send-q local-path local-inode peer-path peer-inode
        if len(fields) >= 8 and fields[7] in inodes:
            paths.add(fields[4])
    return paths


class Wayland(Case):
    def setUp(self):
        self.mutter = Mutter()
        self.addCleanup(self.mutter.stop)

    def test_the_window_session(self):
        app = self.run_app("--netcfg", NETCFG, "--job-log", "60,120", password=None, env=self.mutter.env)
        # The password dialog is a popup window: it shows inside its parent.
        entry = app.app.child(roleName="password text")
        wait_for(lambda: entry.showing, 10, "the password dialog to show")
        app.enter_password(PASSWORD)
        wait_for(lambda: [w.name for w in app.app.children] == ["Pellavoy"], 10, "the dialog to go")
        wait_for(lambda: app.button("Load").sensitive, 10, "the window to open after the password")

        # Where it draws: the compositor, no X server.
        paths = displays_of(app.pid)
        self.assertIn(self.mutter.socket, paths)
        self.assertEqual([p for p in paths if "X11-unix" in p], [])
        with open("/proc/%d/maps" % app.pid) as maps:
            self.assertIn("/memfd:gdk-wayland", maps.read())

        self.assertEqual(app.act("Load"), "Read the network settings from printer VP0001.")
        self.assertEqual(app.fields(), {"IP address:": "192.168.1.100", "Subnet mask:": "255.255.255.0",
                                        "Gateway:": "192.168.1.1"})
        self.assertEqual(app.act("Save"), AS_SENT)
        self.assertIsNone(app.status_mark())
        app.page("Log")
        self.assertEqual(app.act("Load"), "Read 2 jobs from printer VP0001.")
        self.assertEqual(app.log_rows(), [("1970-01-01 00:01:00", "start job"), ("1970-01-01 00:02:00", "start job")])
        app.signal(signal.SIGUSR1)
        wait_for(lambda: app.status() == "Printer VP0001 was disconnected.", 10, "the unplug")
        self.assertEqual(app.act("Load"), NO_PRINTER)
        self.assertEqual(app.status_mark(), "Error")
        self.assertEqual(app.frames(), [READ_NETCFG, SAVE_FRAME, READ_NETCFG, READ_LOG])

        app.close_window()
        self.assertEqual(app.wait(), 0)
        lines = app.stderr_lines()
        self.assertEqual([l for l in lines if l[:3] in ("[C]", "[W]", "[E]") or "Gdk" in l], [], "no warning")


if __name__ == "__main__":
    unittest.main()
