"""The program: python3 -m vortadev, or this file itself."""

import os
import sys

if sys.version_info < (3, 9):
    # pylint: disable-next=consider-using-f-string  # which the old ones do not know
    sys.exit("vortadev: this is Python %d.%d; install Python 3.9 or newer" % sys.version_info[:2])
if not __package__:  # started as a file: the package is the folder that it lies in
    sys.path[0] = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))


def start() -> int:
    try:
        from vortadev.cli import main  # an interrupt can come as early as that

        return main()
    except KeyboardInterrupt:
        return 130


status = start()
try:
    sys.stdout.flush()
except (OSError, AttributeError):  # it was complained about: the interpreter must not try once more
    os.dup2(os.open(os.devnull, os.O_WRONLY), 1)
sys.exit(status)
