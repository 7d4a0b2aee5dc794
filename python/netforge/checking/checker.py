"""The check of one model against another."""

from __future__ import annotations

import os
import tempfile
import time
from collections.abc import Mapping, Sequence
from contextlib import ExitStack
from dataclasses import dataclass
from pathlib import Path

import numpy as np
import onnx

import netforge
from netforge.checking.boundaries import (
    LinearEncoding,
    input_dtypes,
    input_encodings,
    output_encodings,
)
from netforge.checking.comparison import compare, compare_quantised
from netforge.checking.probes import add_probes
from netforge.checking.regimes import REGIMES, feeds_of
from netforge.checking.report import CheckReport, Difference, OutputCheck, Verdict
from netforge.checking.running import DoubleRun, Feeds, Session

_LARGEST_MESSAGE = (1 << 31) - (64 << 20)


@dataclass
class Runs:
    """The original's runs by regime: what it was fed with, what another model is fed with in its place, and
    what came out, in its own precision and in double."""

    feeds: dict[str, Feeds]
    others: dict[str, Feeds]
    singles: dict[str, dict[str, np.ndarray]]
    doubles: dict[str, dict[str, np.ndarray] | None]


@dataclass
class _Side:
    """One of the two models: as a message without foreign constants, and in the runtime. `outputs` are the
    model's own; `probes` are further outputs."""

    proto: onnx.ModelProto
    session: Session
    outputs: list[str]
    probes: dict[str, str]

    @classmethod
    def of(cls, source: object, folder: str) -> _Side:
        if isinstance(source, netforge.IrGraph):
            path = Path(folder) / f"{len(os.listdir(folder))}.onnx"
            netforge.save_onnx(source, path)
            source = path
        if isinstance(source, onnx.ModelProto):
            proto = onnx.ModelProto()
            proto.CopyFrom(source)
        else:
            proto = onnx.load(source, load_external_data=_external_bytes(source) < _LARGEST_MESSAGE)
        outputs = [info.name for info in proto.graph.output]
        if proto.ByteSize() < _LARGEST_MESSAGE and not _has_external(proto):
            probes = add_probes(proto)
            try:
                return cls(proto, Session(proto), outputs, probes)
            except Exception:
                if not probes:
                    raise
                del proto.graph.output[len(outputs) :]
                return cls(proto, Session(proto), outputs, {})
        if isinstance(source, onnx.ModelProto):
            path = Path(folder) / f"{len(os.listdir(folder))}.onnx"
            onnx.save_model(source, path, save_as_external_data=True, location=f"{path.name}.data")
            source = path
        return cls(proto, Session(source), outputs, {})


def _has_external(proto: onnx.ModelProto) -> bool:
    return any(tensor.data_location == onnx.TensorProto.EXTERNAL for tensor in proto.graph.initializer)


def _external_bytes(path: str | os.PathLike[str]) -> int:
    proto = onnx.load(path, load_external_data=False)
    outside = [
        tensor for tensor in proto.graph.initializer if tensor.data_location == onnx.TensorProto.EXTERNAL
    ]
    return sum(
        int(entry.value) for tensor in outside for entry in tensor.external_data if entry.key == "length"
    )


class Checker:
    """Checks several models against one original, whose runs are made once.

    Inputs are drawn for the original. `sizes` gives its symbolic dims by symbol, "" standing for all others;
    without it they are 2, or 1 where the original refuses 2.
    """

    def __init__(
        self,
        before: object,
        *,
        regimes: Sequence[str] = REGIMES,
        seed: int = 0,
        sizes: Mapping[str, int] | None = None,
        time_limit: float = 60.0,
    ) -> None:
        unknown = [regime for regime in regimes if regime not in REGIMES]
        if unknown:
            raise ValueError(f"unknown regime {unknown[0]!r}; the regimes are {', '.join(REGIMES)}")
        self._stack = ExitStack()
        self._folder = self._stack.enter_context(tempfile.TemporaryDirectory())
        self.notes: list[str] = []
        side = _Side.of(before, self._folder)
        self.original = side
        self._double = DoubleRun(side.proto, time_limit)
        self.feeds, self.singles, self.doubles = {}, {}, {}
        for regime in regimes:
            self._run_original(regime, seed, sizes)
        if not self.feeds:
            self._stack.close()
            raise ValueError("; ".join(self.notes) or "no regime is asked for")
        if self._double.note:
            self.notes.append(self._double.note)
        self._on_grids: dict[tuple, Runs] = {}
        self.precision = next(
            (self._ran_in for found in self.doubles.values() if found is not None), "single"
        )

    def __enter__(self) -> Checker:
        return self

    def __exit__(self, *details: object) -> None:
        self._stack.close()

    def _run_original(self, regime: str, seed: int, sizes: Mapping[str, int] | None) -> None:
        tried = [sizes] if sizes is not None else [{"": 2}, {"": 1}]
        for candidate in tried:
            feeds = feeds_of(self.original.proto, candidate, regime, seed)
            try:
                found = self.original.session.run(feeds)
            except Exception as error:
                reason = " ".join(str(error).split())[:200]
                continue
            self.feeds[regime], self.singles[regime] = feeds, found
            self._ran_in = self._double.precision
            self.doubles[regime] = self._double.run(feeds)
            return
        self.notes.append(f"the original doesn't run on the regime '{regime}', which is left out: {reason}")

    def runs_for(self, model: onnx.ModelProto) -> Runs:
        """Runs to compare a model with. Where it takes an input as integers of an encoding in place of the
        original's numbers, the original is run on the numbers that integers stand for. Raises ValueError for
        an input of another type without an encoding."""
        mine, theirs = input_dtypes(self.original.proto), input_dtypes(model)
        changed = [name for name in mine if name in theirs and mine[name] != theirs[name]]
        if not changed:
            return Runs(self.feeds, self.feeds, self.singles, self.doubles)
        encodings = input_encodings(model)
        unknown = next((name for name in changed if name not in encodings), None)
        if unknown is not None:
            raise ValueError(
                f"the input '{unknown}' is {theirs[unknown]} and was {mine[unknown]}, and no DequantizeLinear"
                " says what its integers stand for"
            )
        key = tuple((name, encodings[name]) for name in changed)
        if key not in self._on_grids:
            self._on_grids[key] = self._run_on_grid({name: encodings[name] for name in changed}, mine)
        return self._on_grids[key]

    def _run_on_grid(self, encodings: dict[str, LinearEncoding], dtypes: dict[str, np.dtype]) -> Runs:
        runs = Runs({}, {}, {}, {})
        for regime, feeds in self.feeds.items():
            integers = {name: encodings[name].quantise(feeds[name]) for name in encodings if name in feeds}
            numbers = {
                name: encodings[name].dequantise(array).astype(dtypes[name])
                for name, array in integers.items()
            }
            runs.feeds[regime], runs.others[regime] = {**feeds, **numbers}, {**feeds, **integers}
            runs.singles[regime] = self.original.session.run(runs.feeds[regime])
            runs.doubles[regime] = self._double.run(runs.feeds[regime])
        return runs

    def check(self, after: object) -> CheckReport:
        """Compares a model with the original. Raises ValueError when its inputs or outputs are others.

        Inputs and outputs may be integers of an encoding where the original has floats: see `runs_for`."""
        begin = time.perf_counter()
        side = _Side.of(after, self._folder)
        pairs = [(name, name, other) for name, other in self._pairs(side)]
        outputs = len(pairs)
        probes = self.original.probes
        pairs += [(label, probes[label], value) for label, value in side.probes.items() if label in probes]
        report = CheckReport([OutputCheck(label) for label, _, _ in pairs], self.precision, list(self.notes))
        encodings = output_encodings(side.proto)
        runs = self.runs_for(side.proto)
        for regime, feeds in runs.others.items():
            try:
                found = side.session.run(feeds)
            except Exception as error:
                reason = " ".join(str(error).split())[:200]
                found = None
                report.notes.append(f"the model doesn't run on the regime '{regime}': {reason}")
            doubles = runs.doubles[regime]
            for output, (_, name, other) in zip(report.outputs, pairs, strict=True):
                if found is None:
                    output.regimes[regime] = Difference(Verdict.DIFFERENT, note="it doesn't run")
                    continue
                before, double = runs.singles[regime][name], None if doubles is None else doubles[name]
                if other in encodings and before.dtype != found[other].dtype:
                    output.regimes[regime] = compare_quantised(before, found[other], double, encodings[other])
                else:
                    output.regimes[regime] = compare(before, found[other], double)
        # An operand in another layout isn't comparable.
        report.outputs[outputs:] = [
            output
            for output in report.outputs[outputs:]
            if not any(found.note.startswith("dims") for found in output.regimes.values())
        ]
        report.seconds = time.perf_counter() - begin
        return report

    def _pairs(self, side: _Side) -> list[tuple[str, str]]:
        """Outputs of both models in pairs: by name, or by position where names changed."""
        missing = [
            info.name
            for info in side.session.inputs
            if all(info.name not in feeds for feeds in self.feeds.values())
        ]
        if missing and self.feeds:
            raise ValueError(f"the model has an input '{missing[0]}' that the original doesn't have")
        before, after = self.original.outputs, side.outputs
        if set(before) <= set(after):
            return [(name, name) for name in before]
        if len(before) != len(after):
            raise ValueError(f"the model has the outputs {after}, the original has {before}")
        return list(zip(before, after, strict=True))


def check(
    before: object,
    after: object,
    *,
    regimes: Sequence[str] = REGIMES,
    seed: int = 0,
    sizes: Mapping[str, int] | None = None,
    time_limit: float = 60.0,
) -> CheckReport:
    """Runs two models on the same inputs and judges how far their outputs are apart.

    A model is an ONNX file, a ModelProto or an IrGraph. Both run in ONNX Runtime with its own graph
    optimisations switched off, on inputs of each regime, drawn from `seed`: normal (standard deviation 1),
    small (1e-3), large (100), zeros, ones and whole numbers; integer inputs are drawn below the axis that
    they count. The thresholds of the verdicts grow with the noise of the original, its distance from its own
    run in double precision; for that the original's floats become doubles, and the runtime or, where it
    has no such kernels, NumPy runs it, `time_limit` seconds long at most.

    Where the second model has a DequantizeLinear behind an input or a QuantizeLinear in front of an output
    that the first has as float, the first is run on numbers that integers stand for, and such outputs are
    compared in integers.

    `sizes` gives the original's symbolic dims by symbol, "" standing for all others. Raises ValueError for
    models whose inputs or outputs don't belong together, and what the runtime raises for a model that it
    can't load.
    """
    begin = time.perf_counter()
    with Checker(before, regimes=regimes, seed=seed, sizes=sizes, time_limit=time_limit) as checker:
        report = checker.check(after)
    report.seconds = time.perf_counter() - begin
    return report
