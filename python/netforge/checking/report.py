"""What a check found."""

from __future__ import annotations

import enum
from dataclasses import dataclass, field


class Verdict(enum.IntEnum):
    """How far two runs of an output are apart, the worse the larger.

    SAME_BITS: every element is the same. ROUNDING: the difference is what another order of the same
    operations makes. SUSPICIOUS: more than that, but no more than an approximation of a function makes.
    DIFFERENT: anything else, such as other dims, a NaN elsewhere, or another integer.
    """

    SAME_BITS = 0
    ROUNDING = 1
    SUSPICIOUS = 2
    DIFFERENT = 3

    def __str__(self) -> str:
        return self.name.lower().replace("_", " ")


@dataclass
class Difference:
    """One output in one regime. `noise` is how far the original itself is from its run in double precision,
    or an estimate of that where there was no such run; all three figures are absolute, `relative` is to the
    larger of the two elements."""

    verdict: Verdict
    absolute: float = 0.0
    relative: float = 0.0
    noise: float = 0.0
    note: str = ""


@dataclass
class OutputCheck:
    """One output over all regimes: the largest differences, and the worst verdict with its regime."""

    name: str
    regimes: dict[str, Difference] = field(default_factory=dict)

    @property
    def worst_regime(self) -> str:
        def badness(regime: str) -> tuple[Verdict, float]:
            found = self.regimes[regime]
            return found.verdict, found.relative

        return max(self.regimes, key=badness, default="")

    @property
    def verdict(self) -> Verdict:
        return max((found.verdict for found in self.regimes.values()), default=Verdict.SAME_BITS)

    @property
    def absolute(self) -> float:
        return max((found.absolute for found in self.regimes.values()), default=0.0)

    @property
    def relative(self) -> float:
        return max((found.relative for found in self.regimes.values()), default=0.0)


@dataclass
class CheckReport:
    """Verdicts by output. `str()` is a table with a row per output, which shows the figures of its
    worst regime, and the notes below it.

    `precision` says what the original was compared with: "double (runtime)", "double (reference)" or
    "single". `seconds` is the time that the check took.
    """

    outputs: list[OutputCheck]
    precision: str
    notes: list[str] = field(default_factory=list)
    seconds: float = 0.0

    @property
    def worst(self) -> Verdict:
        return max((output.verdict for output in self.outputs), default=Verdict.SAME_BITS)

    @property
    def ok(self) -> bool:
        """Whether no output is worse than rounding explains."""
        return self.worst <= Verdict.ROUNDING

    def __str__(self) -> str:
        head = ("output", "verdict", "worst regime", "max abs diff", "max rel diff", "noise")
        rows = [head]
        for output in self.outputs:
            regime = output.worst_regime
            found = output.regimes.get(regime, Difference(Verdict.SAME_BITS))
            figures = [f"{figure:.3g}" for figure in (found.absolute, found.relative, found.noise)]
            rows.append((output.name, str(output.verdict), regime, *figures))
        widths = [max(len(row[column]) for row in rows) for column in range(len(head))]
        lines = [
            "  ".join(cell.ljust(width) for cell, width in zip(row, widths, strict=True)).rstrip()
            for row in rows
        ]
        lines.insert(1, "  ".join("-" * width for width in widths))
        for output in self.outputs:
            note = output.regimes[output.worst_regime].note if output.regimes else ""
            if note:
                lines.append(f"{output.name}: {note}")
        lines.extend(self.notes)
        lines.append(f"worst: {self.worst} (compared in {self.precision} precision, {self.seconds:.1f} s)")
        return "\n".join(lines)
