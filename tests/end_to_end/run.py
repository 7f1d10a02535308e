#!/usr/bin/python3
"""run.py MODULE.CLASS: one class of tests, with everything that it started ended in any case."""

import sys
import unittest

from support import end_with_cleanup

LIMIT = 170  # seconds; the test's time-out in CMakeLists.txt is longer

end_with_cleanup(LIMIT)
unittest.main(module=None, argv=[sys.argv[0], "--verbose", *sys.argv[1:]])
