"""Writes the table of docs/models.md: what the pipeline does to real models, and what the check says.

python tools/models_table.py [NAME ...] [--output docs/models.md]
"""

from __future__ import annotations

import argparse
import sys
import time
from collections.abc import Iterator
from pathlib import Path

import libPyGraphRefiner312 as refiner
import netforge
import onnx
from netforge.command_line.capture import captured_output

sys.path.append(str(Path(__file__).parents[1] / "tests" / "python"))
import sample_models

STAGES = [
    getattr(refiner.OptimizationStage, name) for name in ("PreLayout", "PostLayout", "PreQuant", "PostQuant")
]
COUNTED = ("Transpose", "Reshape", "Batchnorm")
HEAD = """# What the pipeline does to real models

Made by `tools/models_table.py`. The light networks of the `onnx` package have their weights replaced by
seeded random values, since they ship with fills of one value. Two numbers are before and after all four
stages. The verdict is the worst over all outputs and input regimes: "same bits", "rounding", "suspicious" or
"different". The fusion of GELUs that are approximated by tanh puts the exact function in their place, which
the check calls suspicious by right.

| Model | Layout | Ops | Transposes | Reshapes | Batchnorms | Optimize | Verdict |
|---|---|---|---|---|---|---|---|
"""


def models() -> Iterator[tuple[str, Path | onnx.ModelProto, dict]]:
    """Name, model, and options of the import, such as the seed for weights where the model's own prove
    nothing."""
    for path in sorted(sample_models.LIGHT.glob("light_*.onnx")):
        yield path.stem.removeprefix("light_"), path, {"random_weights": 1}
    if (trained := sample_models.trained_model()) is not None:
        yield "basic-pitch", trained, {}
    if (speech := sample_models.speech_model()) is not None:
        yield "silero-vad, 5 windows", speech, {"input_shapes": {"input": [5, 576]}}
    yield "transformer encoder", sample_models.transformer_encoder(), {}
    yield "transformer encoder, tanh", sample_models.transformer_encoder(tanh=True), {}
    yield "window transformer", sample_models.window_transformer(), {}


def row(name: str, model: Path | onnx.ModelProto, settings: dict, layout: str) -> str:
    def load() -> netforge.IrGraph:
        return netforge.from_onnx(model, layout, **settings)

    graph = load()
    counts = [[graph.numOps(), *(graph.countOpsOfType(kind) for kind in COUNTED)]]
    begin = time.perf_counter()
    with captured_output():
        refiner.GraphRefiner(graph, STAGES, None, refiner.GraphRefinerContext()).optimize()
    seconds = time.perf_counter() - begin
    counts.append([graph.numOps(), *(graph.countOpsOfType(kind) for kind in COUNTED)])
    report = netforge.check(load() if settings else model, graph)
    cells = [f"{before} → {after}" for before, after in zip(*counts, strict=True)]
    return f"| {name} | {layout} | {' | '.join(cells)} | {seconds * 1e3:.0f} ms | {report.worst} |"


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("names", nargs="*", help="models to take (default: all)")
    parser.add_argument("--output", type=Path, help="write the page there too")
    options = parser.parse_args()
    rows = []
    for name, model, settings in models():
        if options.names and name not in options.names:
            continue
        for layout in ("spatial_first", "source"):
            rows.append(row(name, model, settings, layout))
            print(rows[-1], flush=True)
    if options.output is not None:
        options.output.write_text(HEAD + "\n".join(rows) + "\n")


if __name__ == "__main__":
    main()
