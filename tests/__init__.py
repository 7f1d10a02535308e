"""Packages, so that `chaos/` tries the tests' faults, too."""
