"""The comparison of two runs of one output, with eyes for the noise of the original.

Let `scale` be the largest finite element of the original. Its noise is its largest distance from the run in
double precision, or, without one, eps * scale * 8. Against that:

    rounding      difference <= 8 * noise + 16 * eps * scale
    suspicious    difference <= 100 * noise + 3e-3 * scale
    different     otherwise

eps is that of the output's type. NaN and infinities have to stand at the same places, with the same signs.
Integers and bools have to be equal. In both, elements on which the original disagrees with its own double
run, such as the place of one of two nearly equal maxima, make a difference suspicious only.

An output that one model gives as integers of an encoding and the original as the numbers that they stand for
is compared in integers: a number that is as far off as a verdict allows may come to stand for another one.
"""

from __future__ import annotations

import numpy as np

from netforge.checking.boundaries import LinearEncoding
from netforge.checking.report import Difference, Verdict

ROUNDING_NOISE, ROUNDING_EPS = 8.0, 16.0
SUSPICIOUS_NOISE, SUSPICIOUS_SCALE = 100.0, 3e-3
ASSUMED_EPS = 8.0


def compare(before: np.ndarray, after: np.ndarray, double: np.ndarray | None) -> Difference:
    if before.shape != after.shape:
        return Difference(
            Verdict.DIFFERENT, note=f"dims {list(before.shape)} have become {list(after.shape)}"
        )
    if before.dtype != after.dtype:
        return Difference(Verdict.DIFFERENT, note=f"the type {before.dtype} has become {after.dtype}")
    if before.tobytes() == after.tobytes():
        return Difference(
            Verdict.SAME_BITS, noise=_noise(before, double) if before.dtype.kind == "f" else 0.0
        )
    if double is not None and double.shape != before.shape:
        double = None
    if before.dtype.kind == "c":
        before, after = (array.view(array.real.dtype) for array in (before, after))
        double = None
    if before.dtype.kind not in "fV":
        return _compare_exact(before, after, double)
    return _compare_floats(before, after, double)


def compare_quantised(
    before: np.ndarray, after: np.ndarray, double: np.ndarray | None, encoding: LinearEncoding
) -> Difference:
    """The original's numbers against another model's integers of this encoding."""
    if before.shape != after.shape:
        return compare(before, after, double)
    known = ~np.isnan(before) if before.dtype.kind == "f" else np.ones(before.shape, bool)
    numbers, integers = before[known].astype(np.float64), after[known].astype(np.int64)
    expected = encoding.quantise(numbers).astype(np.int64)
    off = np.abs(expected - integers) * encoding.scale
    floats = before.dtype.kind == "f"
    noise = _noise(before, double) if floats else 0.0
    if not off.any():
        return Difference(Verdict.SAME_BITS, noise=noise)
    size = float(np.abs(numbers[np.isfinite(numbers)]).max(initial=0.0))
    eps = float(np.finfo(before.dtype).eps) if floats else 0.0
    figures = float(off.max()), float((off / np.maximum(np.abs(numbers), encoding.scale)).max())
    allowed = (
        (Verdict.ROUNDING, ROUNDING_NOISE * noise + ROUNDING_EPS * eps * size),
        (Verdict.SUSPICIOUS, SUSPICIOUS_NOISE * noise + SUSPICIOUS_SCALE * size * floats),
    )
    for verdict, reach in allowed:
        lowest, highest = (encoding.quantise(numbers + side * reach) for side in (-1, 1))
        if ((lowest <= integers) & (integers <= highest)).all():
            return Difference(verdict, *figures, noise)
    count = f"{np.count_nonzero(off)} of {before.size} elements stand for other numbers"
    return Difference(Verdict.DIFFERENT, *figures, noise, count)


def _compare_exact(before: np.ndarray, after: np.ndarray, double: np.ndarray | None) -> Difference:
    unequal = before != after
    if not unequal.any():
        return Difference(Verdict.SAME_BITS)
    count = f"{int(unequal.sum())} of {before.size} elements are others"
    if before.dtype.kind not in "iub":
        return Difference(Verdict.DIFFERENT, note=count)
    a, b = (array[unequal].astype(np.float64) for array in (before, after))
    distance = np.abs(a - b)
    figures = float(distance.max()), float((distance / np.maximum(np.maximum(abs(a), abs(b)), 1)).max())
    undecided = double is not None and not (unequal & (double == before)).any()
    if undecided:
        return Difference(
            Verdict.SUSPICIOUS, *figures, note=f"{count}, all undecided in the original's own precision"
        )
    return Difference(Verdict.DIFFERENT, *figures, note=count)


def _compare_floats(before: np.ndarray, after: np.ndarray, double: np.ndarray | None) -> Difference:
    eps = float(np.finfo(before.dtype).eps)
    noise = _noise(before, double)
    a, b = before.astype(np.float64), after.astype(np.float64)
    finite = np.isfinite(a) & np.isfinite(b)
    moved = ~finite & ~((np.isnan(a) & np.isnan(b)) | (a == b))
    if moved.any():
        count = f"{int(moved.sum())} of {a.size} elements are NaN or infinite in one run alone"
        undecided = double is not None and not (moved & _agrees(a, double)).any()
        return Difference(
            Verdict.SUSPICIOUS if undecided else Verdict.DIFFERENT, np.inf, np.inf, noise, count
        )
    a, b = a[finite], b[finite]
    distance = np.abs(a - b)
    if not distance.size or not distance.any():
        # NaN of other bits, or zeros of other signs.
        return Difference(
            Verdict.SAME_BITS if (np.signbit(a) == np.signbit(b)).all() else Verdict.ROUNDING, noise=noise
        )
    largest = float(distance.max())
    size = np.maximum(np.abs(a), np.abs(b))
    relative = float(np.divide(distance, size, out=np.zeros_like(distance), where=size > 0).max())
    scale = float(np.abs(a).max())
    if largest <= ROUNDING_NOISE * noise + ROUNDING_EPS * eps * scale:
        verdict = Verdict.ROUNDING
    elif largest <= SUSPICIOUS_NOISE * noise + SUSPICIOUS_SCALE * scale:
        verdict = Verdict.SUSPICIOUS
    else:
        verdict = Verdict.DIFFERENT
    return Difference(verdict, largest, relative, noise)


def _noise(before: np.ndarray, double: np.ndarray | None) -> float:
    a = before.astype(np.float64)
    finite = np.isfinite(a)
    if double is not None and double.shape == before.shape:
        finite &= np.isfinite(double)
        return float(np.abs(a[finite] - double[finite]).max(initial=0.0))
    eps = float(np.finfo(before.dtype).eps)
    return ASSUMED_EPS * eps * float(np.abs(a[finite]).max(initial=0.0))


def _agrees(a: np.ndarray, double: np.ndarray) -> np.ndarray:
    """Where the original is of the same kind as its double run: finite, NaN, or infinite with this sign."""
    largest = np.finfo(np.float32).max
    double = np.where(np.abs(double) > largest, np.copysign(np.inf, double), double)
    return (np.isfinite(a) & np.isfinite(double)) | (np.isnan(a) & np.isnan(double)) | (a == double)
