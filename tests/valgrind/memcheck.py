"""One full session of the real pellavoy binary under valgrind's memcheck,
against two virtual printers: password, Load, a Save refused by the check, a
Save with a warning, log Load, another printer chosen, that printer unplugged
and plugged back, Load, then a Save that the printer does not take, and the window closed while it waits. Fails on any
invalid read, write or free, and on bytes definitely lost whose stack holds
the project's own code; pellavoy.supp names the noise of the libraries.

Run: dbus-run-session -- xvfb-run -a /usr/bin/python3 tests/valgrind/memcheck.py
(PELLAVOY_BUILD: the build folder). The last line is "memcheck: N passed, M failed".
"""
import os
import signal
import stat
import sys
import tempfile
import xml.etree.ElementTree as ET

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "..", "tools"))
import gui_driver as driver  # noqa: E402

# Project functions: everything linked into the binary but main(), which every stack passes.
PROJECT_SOURCES = ("main_win.cpp", "passwd_dlg.cpp", "printer_list.cpp", "exchange.cpp", "status_line.cpp", "netcheck.cpp", "log.cpp",
                   "usb_mgr.cpp", "plog_ex.h")


def session(xml_path):
    wrapper = tempfile.NamedTemporaryFile("w", suffix=".sh", delete=False)
    wrapper.write("#!/bin/sh\nexec valgrind --tool=memcheck --leak-check=full --show-leak-kinds=definite "
                  "--errors-for-leak-kinds=definite --num-callers=40 --suppressions=%s --xml=yes --xml-file=%s %s\n"
                  % (os.path.join(HERE, "pellavoy.supp"), xml_path, os.path.join(driver.BUILD, "pellavoy")))
    wrapper.close()
    os.chmod(wrapper.name, stat.S_IRWXU)
    # The printers take no data after the session's first eleven transfers.
    app = driver.Pellavoy("--printers", "2", "--hotplug", "2", "--job-log", "60,120", "--no-accept=11",
                          program=wrapper.name,
                          env={"GLIBC_TUNABLES": "glibc.malloc.tcache_count=0"})
    try:
        app.act("Load")
        app.set_field("Gateway:", "not an address")
        app.act("Save")  # refused: nothing goes out
        app.set_field("Gateway:", "10.0.1.1")
        app.act("Save")
        app.page("Log")
        app.act("Load")
        app.choose(2)
        app.act("Load")
        app.signal(signal.SIGUSR1)
        driver.wait_for(lambda: "disconnected" in app.status(), 60, "the unplug")
        app.act("Load")
        app.signal(signal.SIGUSR2)
        driver.wait_for(lambda: "connected." in app.status() and "dis" not in app.status(), 60, "the plug")
        app.act("Load")
        app.page("Network Settings")
        app.click("Save")
        driver.wait_for(app.busy, 60, "the Save to start")
        app.close_window()
        status = app.wait(120)
        # Load, Save and its read-back, and three loads: the last Save never got through.
        if len(app.frames()) != 6:
            status = "not closed mid-exchange: frames %s" % app.frames()
    finally:
        app.finish()
        os.unlink(wrapper.name)
    return status


def findings(xml_path):
    out = []
    for error in ET.parse(xml_path).getroot().iter("error"):
        kind = error.findtext("kind")
        frames = [(f.findtext("fn") or "?", f.findtext("file") or "") for f in error.iter("frame")]
        ours = [fn for fn, src in frames if src in PROJECT_SOURCES]
        if kind.startswith("Invalid") or (kind == "Leak_DefinitelyLost" and ours):
            what = error.findtext("what") or error.findtext("xwhat/text")
            out.append("%s: %s\n    %s" % (kind, what, "\n    ".join(fn for fn, _ in frames[:12])))
    return out


def main():
    xml_path = os.path.join(tempfile.mkdtemp(prefix="pellavoy-memcheck-"), "memcheck.xml")
    driver.start_accessibility_bus()
    try:
        status = session(xml_path)
    finally:
        driver.stop_accessibility_bus()
    problems = findings(xml_path)
    for p in problems:
        print(p)
    print("memcheck: the session ended with status %s; valgrind's report: %s" % (status, xml_path))
    failed = 1 if problems or status != 0 else 0
    print("memcheck: %d passed, %d failed" % (1 - failed, failed))
    sys.exit(failed)


if __name__ == "__main__":
    main()
