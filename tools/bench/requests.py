"""USB requests that one click on Load costs: the virtual printer counts every
request it is sent while the window starts, takes the password and loads the
network page once; the start without a click is subtracted.

Usage: dbus-run-session -- xvfb-run -a /usr/bin/python3 tools/bench/requests.py [PROGRAM]
"""
import os
import re
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))
import gui_driver as driver  # noqa: E402


def requests(program, click):
    app = driver.Pellavoy(program=program, summary=True)
    if click:
        app.click("Load")
        driver.wait_for(lambda: len(app.ui_lines()) == 2, 15, "the load to finish")
    app.close_window()
    app.proc.wait(15)
    with open(app.stderr_path) as f:
        text = f.read()
    app.finish()
    return int(re.search(r"(\d+) USB request\(s\) in all", text).group(1))


driver.start_accessibility_bus()
try:
    program = sys.argv[1] if len(sys.argv) > 1 else None
    idle, clicked = requests(program, False), requests(program, True)
    print("requests: one click on Load costs %d USB requests (%d with the click, %d without)"
          % (clicked - idle, clicked, idle))
finally:
    driver.stop_accessibility_bus()
