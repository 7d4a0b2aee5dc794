"""The main job on a real model: import, optimize over all stages, and say what happened.

    python examples/demo.py [MODEL.onnx]

Without a model it takes the ResNet-50 that the `onnx` package ships among its light backend models. Its
weights are fills of one value, so they are replaced by seeded random values.
"""

from __future__ import annotations

import sys
from pathlib import Path

import onnx
from netforge.command_line import main


def shipped_resnet() -> Path:
    data = Path(onnx.__file__).parent / "backend" / "test" / "data" / "light"
    return data / "light_resnet50.onnx"


def demo(arguments: list[str]) -> int:
    model = Path(arguments[0]) if arguments else shipped_resnet()
    options = ["optimize", str(model), "--dump", "stage", "--dump-dir", "build/demo"]
    if not arguments:
        options += ["--random-weights", "1"]
    return main(options)


if __name__ == "__main__":
    sys.exit(demo(sys.argv[1:]))
