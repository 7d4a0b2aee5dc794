"""The main job on a real model: import, optimize over all stages, write the result and check it.

    python examples/demo.py [MODEL.onnx]

Without a model it takes the ResNet-50 that the `onnx` package ships among its light backend models. Its
weights are fills of one value, so they are replaced by seeded random values. Dumps and the optimized model
go to build/demo; the status is 2 when the optimized model computes something else than the given one.
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
    folder = Path("build/demo")
    folder.mkdir(parents=True, exist_ok=True)
    options = ["optimize", str(model), "--dump", "stage", "--dump-dir", str(folder)]
    options += ["--output", str(folder / f"{model.stem}_optimized.onnx"), "--check"]
    if not arguments:
        options += ["--random-weights", "1"]
    return main(options)


if __name__ == "__main__":
    sys.exit(demo(sys.argv[1:]))
