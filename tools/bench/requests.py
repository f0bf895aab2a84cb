"""USB requests that one click costs: the virtual printer counts every request
it is sent while the window starts, takes the password and runs one Load or
one Save of the network page; the start without a click is subtracted.

Usage: dbus-run-session -- xvfb-run -a /usr/bin/python3 tools/bench/requests.py [PROGRAM]
(PROGRAM: another build's pellavoy, to compare.)
"""
import os
import re
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))
import gui_driver as driver  # noqa: E402


def requests(program, button):
    app = driver.Pellavoy(program=program, summary=True)
    if button:
        app.set_field("IP address:", "192.168.1.100")  # an empty page is refused without an exchange
        app.set_field("Subnet mask:", "255.255.255.0")
        before = len(app.ui_lines())
        app.click(button)
        # The handler's first line, then the chooser sensitive again: the exchange has ended.
        driver.wait_for(lambda: len(app.ui_lines()) > before, 15, "the click")
        driver.wait_for(lambda: app.chooser().sensitive, 15, "the exchange to end")
    app.close_window()
    app.proc.wait(15)
    with open(app.stderr_path) as f:
        text = f.read()
    app.finish()
    return int(re.search(r"(\d+) USB request\(s\) in all", text).group(1))


driver.start_accessibility_bus()
try:
    program = sys.argv[1] if len(sys.argv) > 1 else None
    idle = requests(program, None)
    for button in ("Load", "Save"):
        clicked = requests(program, button)
        print("requests: one click on %s costs %d USB requests (%d with the click, %d without)"
              % (button, clicked - idle, clicked, idle))
finally:
    driver.stop_accessibility_bus()
