"""A package, so that no other one of this name is taken."""
