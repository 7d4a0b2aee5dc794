"""The `netforge` command: optimize a model, list the passes, show a graph."""

from netforge.command_line.main import main

__all__ = ["main"]
