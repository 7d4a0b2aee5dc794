"""`netforge show`: prints the graph of a model."""

from __future__ import annotations

import argparse

from netforge.command_line.models import add_model_arguments, load_model


def add_command(commands: argparse._SubParsersAction) -> None:
    parser = commands.add_parser("show", help="print the graph of a model")
    add_model_arguments(parser)
    parser.set_defaults(run=run)


def run(options: argparse.Namespace) -> int:
    print(str(load_model(options)))
    return 0
