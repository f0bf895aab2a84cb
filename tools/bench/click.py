"""Times a click on Load (network page) until the entries are filled, through
the accessibility bus, against the virtual printer. Prints the median."""
import os
import statistics
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))
import gui_driver as driver  # noqa: E402

rounds = int(sys.argv[1]) if len(sys.argv) > 1 else 30
driver.start_accessibility_bus()
app = driver.Pellavoy()
try:
    load = app.button("Load")
    entries = app._entries_by_label()
    times = []
    for _ in range(rounds):
        for entry in entries.values():
            entry.text = ""
        start = time.perf_counter()
        driver.press(load)
        driver.wait_for(lambda: all(e.text for e in entries.values()), 5, "filled entries")
        times.append((time.perf_counter() - start) * 1000)
    with open("/proc/%d/status" % app.pid) as f:
        peak = next(line.split()[1] for line in f if line.startswith("VmHWM"))
    print("click on Load to filled entries: %d rounds, median %.1f ms, max %.1f ms; pellavoy peak RSS %s kB"
          % (rounds, statistics.median(times), max(times), peak))
finally:
    app.finish()
    driver.stop_accessibility_bus()
