#!/usr/bin/python3
"""run.py MODULE[.CLASS]: the tests of a module, such as tests.end_to_end.test_process, or of one of
its classes, with everything that they started ended in any case."""

from pathlib import Path
import sys
import unittest

sys.path.insert(0, str(Path(__file__).resolve().parents[1]))
from harness.process import end_with_cleanup  # noqa: E402

LIMIT = 590  # seconds; the test's time-out in CMakeLists.txt is longer

end_with_cleanup(LIMIT)
unittest.main(module=None, argv=[sys.argv[0], "--verbose", *sys.argv[1:]])
