"""Start-up to the password dialog: the time from starting a program until its
popup dialog is mapped on the X display, and the program's peak memory (VmHWM)
at that moment, for pellavoy and for a bare GTK 3 program with the same
widgets. Prints medians and the ratios; passes or fails nothing.

Usage: xvfb-run -a /usr/bin/python3 tools/bench/startup.py BUILD [ROUNDS]
"""
import os
import statistics
import subprocess
import sys
import time

from Xlib import X, display


def once(d, cmd, env):
    while d.pending_events():  # what the last program left
        d.next_event()
    start = time.monotonic()
    proc = subprocess.Popen(cmd, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, env=env)
    try:
        deadline = start + 20
        while time.monotonic() < deadline:
            if not d.pending_events():
                time.sleep(0.001)
                continue
            event = d.next_event()
            if event.type == X.MapNotify and event.override:  # the password popup
                elapsed = time.monotonic() - start
                with open("/proc/%d/status" % proc.pid) as f:
                    peak = next(int(line.split()[1]) for line in f if line.startswith("VmHWM:"))
                return elapsed * 1000, peak / 1024
        raise SystemExit("startup: %s showed no popup within 20 s" % cmd[0])
    finally:
        proc.kill()
        proc.wait()


def main(build, rounds):
    env = dict(os.environ, NO_AT_BRIDGE="1", GTK_A11Y="none", GSETTINGS_BACKEND="memory")
    programs = {"bare GTK": [os.path.join(build, "tools", "bench-bare-gtk")],
                "pellavoy": [os.path.join(build, "pellavoy")]}
    results = {name: [] for name in programs}
    d = display.Display()
    d.screen().root.change_attributes(event_mask=X.SubstructureNotifyMask)
    d.sync()
    for _ in range(rounds):  # alternate, so that both see the same machine
        for name, cmd in programs.items():
            results[name].append(once(d, cmd, env))
    d.close()
    medians = {}
    for name, runs in results.items():
        ms, mb = statistics.median(r[0] for r in runs), statistics.median(r[1] for r in runs)
        medians[name] = (ms, mb)
        print("startup: %-9s to the password dialog: median %.1f ms, peak memory %.1f MB (%d rounds)"
              % (name, ms, mb, rounds))
    (pms, pmb), (bms, bmb) = medians["pellavoy"], medians["bare GTK"]
    print("startup: pellavoy / bare GTK: time %.2fx, peak memory %.2fx" % (pms / bms, pmb / bmb))


if __name__ == "__main__":
    main(sys.argv[1], int(sys.argv[2]) if len(sys.argv) > 2 else 20)
