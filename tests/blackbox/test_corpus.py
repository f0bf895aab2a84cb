"""Every real printer of the corpus through pellavoy-probe and the window: the
table beside the corpus (tests/data/printers-expected.tsv) says, printer by
printer, whether it is listed, how it is named and what a Load comes to."""
import csv
import json
import os
import unittest

from gui_driver import Pellavoy
from test_probe import FINE, FIRST, probe

DATA = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "data")
CORPUS = os.path.join(DATA, "printers.jsonl")
READ_NETCFG = "1b5e495352"
LOAD = {"read": "Read the network settings from printer %s.",
        "cannot answer": "Printer %s cannot answer: its USB interface only takes data."}
OTHER = ("No USB printer that Pellavoy can use: %s has its printer interface on interface %s, and Pellavoy uses "
         "interface 0 only.")


def table():
    with open(os.path.join(DATA, "printers-expected.tsv")) as f:
        rows = list(csv.DictReader((line for line in f if not line.startswith("#")), delimiter="\t",
                                   quoting=csv.QUOTE_NONE))
    with open(CORPUS) as f:
        corpus = [json.loads(line) for line in f if line.strip()]
    assert [r["name"] for r in rows] == [c["name"] for c in corpus], "one row for each printer, in the corpus order"
    assert len(rows) >= 25
    for row, device in zip(rows, corpus):
        row["ids"] = (device["vid"].upper(), device["pid"].upper())
    return rows


class Corpus(unittest.TestCase):
    def test_probe_names_each_printer(self):
        for row in table():
            with self.subTest(printer=row["name"]):
                vid, pid = row["ids"]
                if row["listed"] == "yes":
                    out = ("vid=%s,pid=%s,sn=%s" % (vid, pid, row["serial"]) +
                           ("" if row["serial"] else " (no serial number)") + FIRST +
                           "\n  on USB:      bus 001 device 002\n")
                    if row["alt"] != "0":
                        out += "  interface:   0, alternate setting %s (setting 0 only takes data)\n" % row["alt"]
                    if row["load"] == "cannot answer":
                        out += ("  cannot answer: its USB interface only takes data. Pellavoy can send it\n"
                                "  settings but cannot read anything back.\n")
                    expected = (0, out + FINE, "")
                else:
                    expected = (1, "%s:%s on bus 001 device 002, %s: a printer that cannot be used: its printer "
                                   "interface is interface %s; Pellavoy uses interface 0 only.\n"
                                % (vid, pid, row["chooser"], row["interface"]), "")
                self.assertEqual(probe("--corpus", CORPUS, "--device", row["name"]), expected)

    def test_one_window_chooses_each_printer_in_turn(self):
        rows = [r for r in table() if r["listed"] == "yes"]
        app = Pellavoy("--corpus", CORPUS)
        self.addCleanup(app.finish)
        self.assertEqual(app.chooser_items(), ["First printer found"] + [r["chooser"] for r in rows])
        for index, row in enumerate(rows, 1):
            with self.subTest(printer=row["name"]):
                frames = len(app.frames())
                app.choose(index)
                self.assertEqual(app.act("Load"), LOAD[row["load"]] % row["window_name"])
                self.assertEqual(app.frames()[frames:], [READ_NETCFG] if row["load"] == "read" else [])
                self.assertEqual(app.ui_lines()[-1],
                                 "[I]main_win:31: read %d bytes" % (13 if row["load"] == "read" else 64))

    def test_a_device_that_cannot_be_used_is_named_at_start_and_after_a_click(self):
        for row in table():
            if row["listed"] == "yes":
                continue
            with self.subTest(printer=row["name"]):
                app = Pellavoy("--corpus", CORPUS, "--device", row["name"])
                self.addCleanup(app.finish)
                self.assertEqual(app.chooser_items(), ["First printer found"])
                sentence = OTHER % (row["chooser"], row["interface"])
                self.assertEqual((app.status(), app.status_mark()), (sentence, None))
                self.assertEqual(app.act("Load"), sentence)
                self.assertEqual((app.status_mark(), app.frames()), ("Error", []))
                app.finish()


if __name__ == "__main__":
    unittest.main()
