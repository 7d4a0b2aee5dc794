"""`python -m netforge` is the `netforge` command."""

import sys

from netforge.command_line import main

if __name__ == "__main__":
    sys.exit(main())
