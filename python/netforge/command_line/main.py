"""Arguments of the `netforge` command and the way errors leave it."""

from __future__ import annotations

import argparse
import os
import sys
from collections.abc import Callable, Sequence

from netforge.command_line import optimize, passes, show


def build_parser() -> argparse.ArgumentParser:
    parser = argparse.ArgumentParser(
        prog="netforge",
        description="Optimizer for the intermediate representation of neural networks.",
    )
    commands = parser.add_subparsers(dest="command", required=True, metavar="COMMAND")
    for module in (optimize, passes, show):
        module.add_command(commands)
    return parser


def main(arguments: Sequence[str] | None = None) -> int:
    """Runs one command. Gives 0, 1 after an error told in one line, 2 after a check that found an output
    different, or 130 when interrupted."""
    options = build_parser().parse_args(arguments)
    command: Callable[[argparse.Namespace], int] = options.run
    try:
        status = command(options)
        sys.stdout.flush()
        return status
    except BrokenPipeError:
        # The reader (`| head`) has gone: nothing is left to say, and the interpreter must not try at exit.
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        return 0
    except KeyboardInterrupt:
        print("netforge: interrupted", file=sys.stderr)
        return 130
    except MemoryError:
        print("netforge: error: out of memory", file=sys.stderr)
        return 1
    except Exception as error:
        print(f"netforge: error: {one_line(error)}", file=sys.stderr)
        return 1


def one_line(error: BaseException) -> str:
    text = " ".join(str(error).split())
    return text or type(error).__name__
