"""Times a click on Load (network page) until its sentence shows and the
entries are filled, through the accessibility bus, against the virtual
printer. Prints the median. Usage: click.py [ROUNDS [PROGRAM]] (PROGRAM:
another build's pellavoy, to compare)."""
import os
import statistics
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))
import gui_driver as driver  # noqa: E402

SENTENCE = "Read the network settings from printer VP0001."


def sentence(app):
    # An earlier build's GtkStatusbar shows its text as its own name.
    bar = app.status_bar()
    labels = [n for n in bar.children if n.roleName == "label"]
    return labels[0].name if labels else bar.name


rounds = int(sys.argv[1]) if len(sys.argv) > 1 else 30
driver.start_accessibility_bus()
app = driver.Pellavoy(program=sys.argv[2] if len(sys.argv) > 2 else None)
try:
    load = app.button("Load")
    # By role, not by label: an earlier build links no label to its entry.
    entries = app.app.findChildren(lambda n: n.roleName == "text" and n.showing)
    times = []
    for _ in range(rounds):
        for entry in entries:
            entry.text = ""
        start = time.perf_counter()
        driver.press(load)
        driver.wait_for(lambda: all(e.text for e in entries) and sentence(app) == SENTENCE, 5, "the sentence")
        times.append((time.perf_counter() - start) * 1000)
    with open("/proc/%d/status" % app.pid) as f:
        peak = next(line.split()[1] for line in f if line.startswith("VmHWM"))
    print("click on Load to its sentence: %d rounds, median %.1f ms, max %.1f ms; pellavoy peak RSS %s kB"
          % (rounds, statistics.median(times), max(times), peak))
finally:
    app.finish()
    driver.stop_accessibility_bus()
