"""What every command that reads a model shares: its options, and loading with a progress bar."""

from __future__ import annotations

import argparse
import json
import os
import sys
from pathlib import Path

import netforge

# Below this size a model loads before a bar could be read.
_PROGRESS_FROM_BYTES = 20 << 20


def add_model_arguments(parser: argparse.ArgumentParser) -> None:
    parser.add_argument("model", type=Path, metavar="MODEL.onnx", help="the model, opset 7 or newer")
    parser.add_argument(
        "--layout",
        choices=("spatial_first", "source"),
        default="spatial_first",
        help="spatial_first: ops that have a layout work channel-last; source: as the model has it"
        " (default: %(default)s)",
    )
    parser.add_argument(
        "--random-weights",
        type=int,
        metavar="SEED",
        help="replace weights that the model fills by a constant with seeded random values",
    )
    parser.add_argument(
        "--input-shape",
        action="append",
        default=[],
        type=name_and_shape,
        metavar="NAME=SIZES",
        help="settle the shape of an input, such as x=1,3,224,224; may be given several times",
    )
    parser.add_argument(
        "--input-value",
        action="append",
        default=[],
        type=name_and_value,
        metavar="NAME=JSON",
        help="put a constant in the place of an input, such as rate=16000; may be given several times",
    )
    parser.add_argument("--quiet", action="store_true", help="print errors only")


def prepared_model(options: argparse.Namespace) -> netforge.IrGraph:
    """The model with what the options say of the application's buffers."""
    entries = [] if options.custom_io is None else netforge.read_custom_io(options.custom_io)
    graph = load_model(options)
    netforge.set_custom_io(graph, entries)
    return graph


def name_and_shape(text: str) -> tuple[str, list[int]]:
    name, _, sizes = text.rpartition("=")
    return name, [int(size) for size in sizes.split(",")]


def name_and_value(text: str) -> tuple[str, object]:
    name, _, value = text.partition("=")
    return name, json.loads(value)


def settled_inputs(options: argparse.Namespace) -> dict[str, dict]:
    """What the options say of the model's inputs, as `from_onnx` takes it."""
    return {
        "input_shapes": dict(options.input_shape),
        "constant_inputs": dict(options.input_value),
    }


def load_model(options: argparse.Namespace) -> netforge.IrGraph:
    """Imports the model that the options name; draws a progress bar on a terminal when the file is large."""
    path: Path = options.model
    if not path.exists():
        raise FileNotFoundError(f"no such file: {path}")
    given = {"layout": options.layout, "random_weights": options.random_weights, **settled_inputs(options)}
    large = path.is_file() and os.path.getsize(path) >= _PROGRESS_FROM_BYTES
    show_bar = large and not options.quiet and sys.stderr.isatty()
    if not show_bar:
        return netforge.from_onnx(path, **given)

    from tqdm import tqdm

    with tqdm(total=1.0, desc=f"loading {path.name}", bar_format="{desc} {percentage:3.0f}%|{bar}|") as bar:

        def progress(fraction: float, what: str) -> None:
            bar.set_description_str(f"{path.name}: {what}")
            bar.update(max(0.0, fraction - bar.n))

        return netforge.from_onnx(path, **given, progress=progress)
