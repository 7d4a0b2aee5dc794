"""Kernels of the sparse ops, on tensors with zeros for what isn't specified.

The specified rows of a tensor are those that aren't 0, filled up with the first others: what makes sparse
tensors has to keep to values other than 0.
"""

from __future__ import annotations

import math

import numpy as np

from random_graphs.evaluator import Inconsistent, Node, kernel


def _places(x: np.ndarray, count: int) -> np.ndarray:
    filled = (x != 0).any(axis=-1).reshape(-1)
    if count > filled.size:
        raise Inconsistent(f"{count} elements are specified among {filled.size} rows")
    order = np.argsort(~filled, kind="stable")[:count]
    return np.stack(np.unravel_index(order, x.shape[:-1]), axis=1)


@kernel("GetSparseIndices")
def get_sparse_indices(node: Node, x: np.ndarray) -> np.ndarray:
    return _places(x, int(node.value("num_specified_elements"))).astype(np.float64)


@kernel("GetSparseValues")
def get_sparse_values(node: Node, x: np.ndarray) -> np.ndarray:
    return x[tuple(_places(x, int(node.value("num_specified_elements"))).T)]


@kernel("CreateSparse")
def create_sparse(node: Node, indices: np.ndarray, values: np.ndarray) -> np.ndarray:
    dims = node.out_dims()
    if math.prod(dims[:-1]) < len(values):
        raise Inconsistent("there are more rows than places")
    x = np.zeros(dims)
    x[tuple(indices.astype(np.int64).T)] = values
    return x
