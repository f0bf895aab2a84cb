"""Runs Pellavoy against the virtual printer on the current (virtual) display,
presses Load on both pages and saves a picture of the password dialog and of
each page: password.png, network.png, log.png in the folder given.

Usage: dbus-run-session -- xvfb-run -a /usr/bin/python3 tools/screenshots.py DIR
(tools/start --screenshots DIR does this for you.)
"""
import os
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import gui_driver as driver  # noqa: E402
from gi.repository import Gdk  # noqa: E402

# A printer with a fixed address and a few jobs on the log.
DEMO_PRINTER = ["--netcfg", "00c0a80164c0a80101ffffff00", "--job-log", "1795420800,1795424400,1795428000"]


def shoot(node, path):
    """Saves the screen area of the window that holds node."""
    while node.parent is not None and node.parent.roleName != "application":
        node = node.parent
    (x, y), (w, h) = node.position, node.size
    Gdk.Display.get_default().sync()
    pixbuf = Gdk.pixbuf_get_from_window(Gdk.get_default_root_window(), x, y, w, h)
    pixbuf.savev(path, "png", [], [])
    print("saved", path)


def main(folder):
    os.makedirs(folder, exist_ok=True)
    driver.start_accessibility_bus()
    app = driver.Pellavoy(*DEMO_PRINTER, password=None)
    try:
        entry = app.app.child(roleName="password text")
        entry.text = driver.PASSWORD
        shoot(entry, os.path.join(folder, "password.png"))
        driver.press(app.button("Ok"))
        app.click("Load")
        shoot(app.button("Load"), os.path.join(folder, "network.png"))
        app.page("Log")
        app.click("Load")
        shoot(app.button("Load"), os.path.join(folder, "log.png"))
    finally:
        app.finish()
        driver.stop_accessibility_bus()


if __name__ == "__main__":
    if len(sys.argv) != 2:
        sys.exit("usage: screenshots.py FOLDER")
    main(sys.argv[1])
