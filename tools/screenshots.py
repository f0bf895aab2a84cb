"""Runs Pellavoy against the virtual printer on the current (virtual) display
and saves pictures of it in the folder given: password.png (the password
dialog), network.png and log.png (each page after Load), error.png (the
status line after a Load from a printer that takes no data).

Usage: dbus-run-session -- xvfb-run -a /usr/bin/python3 tools/screenshots.py DIR
(tools/start --screenshots DIR does this for you.)
"""
import os
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import gui_driver as driver  # noqa: E402
from gi.repository import Gdk  # noqa: E402

# Two printers with a fixed address and a few jobs on the log.
DEMO_PRINTER = ["--printers", "2", "--netcfg", "00c0a80164c0a80101ffffff00",
                "--job-log", "1795420800,1795424400,1795428000"]


def grab(node):
    """The screen area of node, as a pixbuf."""
    (x, y), (w, h) = node.position, node.size
    Gdk.Display.get_default().sync()
    return Gdk.pixbuf_get_from_window(Gdk.get_default_root_window(), x, y, w, h)


def dark_pixels(node):
    """Dark pixels inside the node's border: a caret makes a few, six dots many."""
    pixbuf = grab(node)
    data, stride, channels = pixbuf.get_pixels(), pixbuf.get_rowstride(), pixbuf.get_n_channels()
    return sum(1 for y in range(4, pixbuf.get_height() - 4) for x in range(4, pixbuf.get_width() - 4)
               if sum(data[y * stride + x * channels + c] for c in range(3)) < 300)


def window_of(node):
    while node.parent is not None and node.parent.roleName != "application":
        node = node.parent
    return node


def shoot(node, path):
    """Saves the screen area of the window that holds node, once the theme's
    transitions (buttons fading back in after an exchange) have run."""
    time.sleep(0.5)
    grab(window_of(node)).savev(path, "png", [], [])
    print("saved", path)


def main(folder):
    os.makedirs(folder, exist_ok=True)
    driver.start_accessibility_bus()
    app = driver.Pellavoy(*DEMO_PRINTER, password=None)
    try:
        entry = app.app.child(roleName="password text")
        entry.text = driver.PASSWORD
        # The entry repaints a little later: wait until its dots are on the screen.
        driver.wait_for(lambda: dark_pixels(entry) > 60, 10, "the password to be painted")
        shoot(entry, os.path.join(folder, "password.png"))
        driver.press(app.button("Ok"))
        app.act("Load")
        shoot(app.button("Load"), os.path.join(folder, "network.png"))
        app.page("Log")
        app.act("Load")
        shoot(app.button("Load"), os.path.join(folder, "log.png"))
    finally:
        app.finish()
    app = driver.Pellavoy("--no-accept")
    try:
        app.act("Load")
        shoot(app.button("Load"), os.path.join(folder, "error.png"))
    finally:
        app.finish()
        driver.stop_accessibility_bus()


if __name__ == "__main__":
    if len(sys.argv) != 2:
        sys.exit("usage: screenshots.py FOLDER")
    main(sys.argv[1])
