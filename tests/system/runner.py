#!/usr/bin/env python3
"""runner.py --list: names every system test, one a line. runner.py MODULE.CLASS.TEST: runs one; exits 0, 1, or 77 when skipped."""
import pathlib
import sys
import unittest

HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(HERE))
sys.dont_write_bytecode = True


def each(suite):
    for item in suite:
        if isinstance(item, unittest.TestSuite):
            yield from each(item)
        else:
            yield item


def main():
    if sys.argv[1:] == ["--list"]:
        for test in each(unittest.TestLoader().discover(str(HERE), "*_test.py")):
            print(test.id())
        return 0
    result = unittest.TextTestRunner(verbosity=2).run(unittest.TestLoader().loadTestsFromName(sys.argv[1]))
    if not result.wasSuccessful() or result.testsRun == 0:
        return 1
    return 77 if result.skipped else 0


if __name__ == "__main__":
    sys.exit(main())
