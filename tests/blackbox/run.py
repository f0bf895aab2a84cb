"""Runs the black-box suites; the last line is "blackbox: N passed, M failed"."""
import os
import sys
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tools"))
import gui_driver as driver  # noqa: E402

driver.start_accessibility_bus()
try:
    names = sys.argv[1:]
    loader = unittest.defaultTestLoader
    suite = (loader.loadTestsFromNames(names) if names
             else loader.discover(os.path.dirname(os.path.abspath(__file__)), pattern="test_*.py"))
    result = unittest.TextTestRunner(verbosity=2, stream=sys.stdout).run(suite)
finally:
    driver.stop_accessibility_bus()
failed = len(result.failures) + len(result.errors)
print("blackbox: %d passed, %d failed" % (result.testsRun - failed, failed))
sys.exit(1 if failed or result.testsRun == 0 else 0)
