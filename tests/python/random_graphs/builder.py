"""Builds valid graphs step by step, in the text form."""

from __future__ import annotations

import random
from collections.abc import Sequence
from typing import Any, TypeVar

import netforge_testing
import numpy as np

T = TypeVar("T")
ORDERS = ("spatial_first", "spatial_last", "onnx")
ADD, DIVIDE, MAXIMUM, MINIMUM, MULTIPLY, POWER, SUBTRACT = 0, 2, 10, 11, 13, 16, 18


class Refused(Exception):
    """The graph doesn't take an op."""


def literal(value: object) -> str:
    """An attribute in the text form; texts stand as they are."""
    if isinstance(value, (bool, np.bool_)):
        return "true" if value else "false"
    if isinstance(value, (list, tuple, np.ndarray)):
        return "[" + ",".join(literal(item) for item in value) + "]"
    if isinstance(value, (float, np.floating)):
        text = str(np.float32(value))
        return text if any(mark in text for mark in ".en") else text + ".0"
    return str(value)


def number(value: object, dtype: str) -> str:
    return str(np.float32(value)) if dtype.startswith(("f", "b")) and dtype != "bool" else str(int(value))  # type: ignore[call-overload]


class Builder:
    """See the package's docstring for what plants use."""

    def __init__(self, rng: random.Random, order: str) -> None:
        self.rng = rng
        self.order = order
        self.spatial_first = order == "spatial_first"
        self.graph = netforge_testing.read_graph(f"order {order}")
        self.names: list[str] = []  # float tensors that ops may read
        self.outputs: list[str] = []
        self.constants: dict[tuple[Any, ...], str] = {}
        self.is_dynamic = rng.random() < 0.15
        self._count = 0

    # Drawing

    def pick(self, sequence: Sequence[T]) -> T:
        return self.rng.choice(sequence)

    def chance(self, p: float) -> bool:
        return self.rng.random() < p

    def shuffled(self, sequence: Sequence[T]) -> list[T]:
        return self.rng.sample(list(sequence), len(sequence))

    def dims_of_rank(self, rank: int) -> list[int]:
        large = 4 if rank < 5 else 3
        dims = [self.rng.randint(1 if self.chance(0.3) else 2, large) for _ in range(rank)]
        if rank > 1 and self.chance(0.3):
            place = self.rng.randrange(rank - 1)
            dims[place + 1] = dims[place]
        return dims

    def permutation(self, rank: int) -> list[int]:
        order = self.shuffled(range(rank))
        return order if order != sorted(order) or self.chance(0.2) else order[::-1]

    @staticmethod
    def inverse(order: Sequence[int]) -> list[int]:
        return [list(order).index(axis) for axis in range(len(order))]

    # Tensors

    def dims(self, name: str) -> list[int]:
        return list(self.graph.getTensor(name).dims)

    def fresh(self, prefix: str = "t") -> str:
        self._count += 1
        return f"{prefix}{self._count}"

    def write(self, statement: str) -> None:
        try:
            netforge_testing.extend_graph(self.graph, statement)
        except (ValueError, RuntimeError, IndexError) as failure:
            raise Refused(str(failure)) from failure

    def input(self, dims: Sequence[int], words: str = "") -> str:
        name = self.fresh("x")
        sizes = [str(size) for size in dims]
        if self.is_dynamic and dims and self.chance(0.5):
            sizes[0] = "?" + sizes[0]
        self.write(f"in {name}[{','.join(sizes)}] {words}")
        if "FLOAT_32" in self.graph.getTensor(name).dataType.name:
            self.names.append(name)
        return name

    def tensor(self, dims: Sequence[int], words: str = "") -> str:
        wanted = list(dims)
        if not words and self.chance(0.3):
            fitting = [name for name in self.names if self.dims(name) == wanted]
            if fitting:
                return self.pick(fitting)
        name = self.input(dims, words)
        return name if self.chance(0.4) else self.relu(name)

    def constant(self, values: Any, type: str = "f32", words: str = "") -> str:
        array = np.asarray(values)
        key = (array.shape, type, words, tuple(array.reshape(-1).tolist()))
        if key in self.constants and self.chance(0.5):
            return self.constants[key]
        name = self.fresh("c")
        flat = " ".join(number(value, type) for value in array.reshape(-1))
        self.write(f"const {name}[{','.join(str(size) for size in array.shape)}] {type} {words} = {flat}")
        return self.constants.setdefault(key, name) if self.chance(0.5) else name

    def random_constant(self, dims: Sequence[int]) -> str:
        values = [self.rng.gauss(0, 1) for _ in range(int(np.prod(dims)))]
        return self.constant(np.array(values).reshape(list(dims)).round(3))

    # Ops

    def op(
        self, type: str, inputs: Sequence[str], outputs: int | Sequence[str] = 1, **attributes: object
    ) -> Any:
        words = [""] * outputs if isinstance(outputs, int) else list(outputs)
        names = [self.fresh() for _ in words]
        left = ", ".join(name + word for name, word in zip(names, words, strict=True))
        right = " ".join(f"{name}={literal(value)}" for name, value in attributes.items())
        prefix = f"{self.fresh('n')}: " if self.chance(0.2) else ""
        self.write(f"{prefix}{left} = {type}({', '.join(inputs)}) {right}")
        for name in names:
            if "FLOAT_32" in self.graph.getTensor(name).dataType.name:
                self.names.append(name)
        return names if len(names) > 1 else names[0]

    def relu(self, x: str) -> str:
        return self.op("ElementWiseNeuron", [x], operation=self.pick([4, 6, 8]))

    def eltwise(self, operation: int, x: str, y: str) -> str:
        return self.op("Eltwise_Binary", [x, y], operation=operation)

    def transpose(self, x: str, order: Sequence[int]) -> str:
        return self.op("Transpose", [x], perm=list(order))

    def reshape(self, x: str, dims: Sequence[int]) -> str:
        return self.op("Reshape", [x], [f"[{','.join(str(size) for size in dims)}]"])

    def refactored(self, dims: Sequence[int]) -> list[int]:
        """Other dims of the same number of elements."""
        factors = [size for size in dims if size > 1]
        if self.chance(0.5):
            self.rng.shuffle(factors)
        result = list(factors)
        while len(result) > 1 and self.chance(0.4):
            place = self.rng.randrange(len(result) - 1)
            result[place : place + 2] = [result[place] * result[place + 1]]
        while len(result) < 6 and self.chance(0.4 if result else 1.0):
            result.insert(self.rng.randrange(len(result) + 1), 1)
        return result

    # Readers and outputs

    def output(self, name: str) -> None:
        if name not in self.outputs:
            self.outputs.append(name)

    def read(self, name: str) -> str:
        return self.relu(name)

    def share(self, name: str, p: float = 0.25) -> None:
        if self.chance(p):
            if self.chance(0.5):
                self.output(name)
            else:
                self.read(name)

    def finish(self) -> str:
        """The graph in text form: what nobody reads is a graph output, seldom left as it is."""
        read = {tensor.name for op in self.graph.ops for tensor in op.inputs}
        for op in self.graph.ops:
            for tensor in op.outputs:
                if (tensor.name not in read and self.chance(0.9)) or self.chance(0.06):
                    self.output(tensor.name)
        # The application may read what it hands in, and constants.
        for name, tensor in self.graph.tensors.items():
            if tensor.producer is None and 0 not in tensor.dims and self.chance(0.03):
                self.output(name)
        if not self.outputs and self.names:
            self.output(self.names[-1])
        for name in self.outputs:
            self.write(f"out {name}")
        return str(netforge_testing.print_graph(self.graph))
