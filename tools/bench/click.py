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
    labels = bar.findChildren(lambda n: n.roleName == "label")
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

# How long the window takes to answer the accessibility bus while a Save
# waits for a printer that takes no data (2 s).
app = driver.Pellavoy("--no-accept", program=sys.argv[2] if len(sys.argv) > 2 else None)
try:
    app.set_field("IP address:", "192.168.1.100")  # an empty page is refused without an exchange
    app.set_field("Subnet mask:", "255.255.255.0")
    driver.press(app.button("Save"))
    start = time.perf_counter()
    answers = []
    while time.perf_counter() - start < 1.5:
        t = time.perf_counter()
        sentence(app)
        answers.append((time.perf_counter() - t) * 1000)
    print("answering the accessibility bus during an exchange: %d calls in 1.5 s, median %.1f ms, max %.1f ms"
          % (len(answers), statistics.median(answers), max(answers)))
finally:
    app.finish()
    driver.stop_accessibility_bus()
