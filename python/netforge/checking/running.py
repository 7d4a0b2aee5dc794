"""Runs of a model: in the runtime, in single precision as it is and in double precision."""

from __future__ import annotations

import time
from pathlib import Path

import numpy as np
import onnx

from netforge.checking.doubling import doubled
from netforge.checking.kernels import FAST_KERNELS
from netforge.checking.recurrent_kernels import RECURRENT_KERNELS

Feeds = dict[str, np.ndarray]
# Above this size a second copy of all constants as doubles is too much.
LARGEST_DOUBLED = 1 << 30
_RUN_IN_NUMPY = frozenset(("LSTM", "GRU", "RNN"))


class Session:
    """A model in the runtime, with the runtime's own graph optimisations switched off."""

    def __init__(self, model: onnx.ModelProto | str | Path) -> None:
        import onnxruntime

        options = onnxruntime.SessionOptions()
        options.graph_optimization_level = onnxruntime.GraphOptimizationLevel.ORT_DISABLE_ALL
        options.log_severity_level = 4
        source = model.SerializeToString() if isinstance(model, onnx.ModelProto) else str(model)
        self._session = onnxruntime.InferenceSession(source, options, providers=["CPUExecutionProvider"])
        self.inputs = self._session.get_inputs()
        self.outputs = [output.name for output in self._session.get_outputs()]

    def run(self, feeds: Feeds) -> dict[str, np.ndarray]:
        given = {info.name: feeds[info.name] for info in self.inputs if info.name in feeds}
        return dict(zip(self.outputs, self._session.run(None, given), strict=True))


class DoubleRun:
    """The original in double precision, by the runtime where it has the kernels, else by NumPy.

    `precision` is "double (runtime)", "double (reference)" or "single" where neither is possible; then, and
    once the time is up, `run` gives None.
    """

    def __init__(self, model: onnx.ModelProto, time_limit: float) -> None:
        self.precision = "single"
        self.note = ""
        self._time_limit = time_limit
        self._session: Session | None = None
        self._evaluator: object | None = None
        size = model.ByteSize()
        if size > LARGEST_DOUBLED:
            self.note = f"the model's {size >> 20} MiB of constants are too many for a double-precision run"
            return
        double = doubled(model)
        if double is None:
            self.note = "the model has subgraphs or types that a double-precision run can't be made of"
            return
        self._kinds = {info.name: info.type.tensor_type.elem_type for info in double.graph.input}
        # The runtime takes some operators in double precision and refuses them when they run.
        if not _RUN_IN_NUMPY & {node.op_type for node in double.graph.node}:
            try:
                self._session = Session(double)
                self.precision = "double (runtime)"
                return
            except Exception:
                pass
        self._start_reference(double)

    def _start_reference(self, double: onnx.ModelProto) -> None:
        from onnx.reference import ReferenceEvaluator

        try:
            self._evaluator = ReferenceEvaluator(double, new_ops=FAST_KERNELS + RECURRENT_KERNELS)
            self.precision = "double (reference)"
        except Exception as error:
            self.note = f"no double-precision run: {error}"

    def run(self, feeds: Feeds) -> dict[str, np.ndarray] | None:
        if self.precision == "single":
            return None
        doubles = {
            name: array.astype(np.float64) if array.dtype.kind in "fV" else array
            for name, array in feeds.items()
        }
        try:
            if self._session is not None:
                return self._session.run(doubles)
            begin = time.monotonic()
            found = _evaluate(self._evaluator, doubles, begin + self._time_limit)
            self._time_limit -= time.monotonic() - begin
            return found
        except TimeoutError:
            self._give_up("the time for double-precision runs was up")
        except Exception as error:
            self._give_up(f"a double-precision run failed: {' '.join(str(error).split())[:200]}")
        return None

    def _give_up(self, note: str) -> None:
        self.note = note
        self.precision = "single"


def _evaluate(evaluator: object, feeds: Feeds, deadline: float) -> dict[str, np.ndarray]:
    """The evaluator's nodes one by one, with an eye on the clock; frees what nobody reads any more."""
    last_read = {name: index for index, node in enumerate(evaluator.rt_nodes_) for name in node.input}
    results = {"": None, **evaluator.rt_inits_, **feeds}
    kept = set(evaluator.output_names)
    with np.errstate(all="ignore"):
        for index, node in enumerate(evaluator.rt_nodes_):
            if time.monotonic() > deadline:
                raise TimeoutError
            values = node.run(*(results[name] for name in node.input))
            results.update(zip(node.output, values, strict=False))
            for name in node.input:
                if name and last_read[name] == index and name not in kept:
                    results.pop(name, None)
    return {name: np.asarray(results[name]) for name in evaluator.output_names}
