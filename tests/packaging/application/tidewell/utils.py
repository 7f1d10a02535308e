"""What the application's other modules share."""


def local_path(name):
    from pathlib import Path
    return Path("/run/pelorus", name)
