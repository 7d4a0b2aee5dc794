"""The short account that ends an optimize run."""

from __future__ import annotations

import resource
import sys
from collections import Counter
from dataclasses import dataclass, field
from pathlib import Path
from typing import TYPE_CHECKING

import netforge
from netforge.command_line.capture import captured_output

if TYPE_CHECKING:
    from netforge.checking import CheckReport, EachPassReport

_EXECUTED = "PASS TRACE INFO: "
_SHOWN_PASSES = 12


@dataclass
class RunAccount:
    """Figures of one run: ops by type, cost, passes and time."""

    model: Path
    types_before: Counter[str]
    totals_before: tuple[int, int]
    types_after: Counter[str] = field(default_factory=Counter)
    totals_after: tuple[int, int] = (0, 0)
    changed_passes: list[str] = field(default_factory=list)
    seconds_import: float = 0.0
    seconds_optimize: float = 0.0
    dump_dir: Path | None = None
    dump_files: list[str] = field(default_factory=list)
    import_account: object | None = None
    peak_memory: float = 0.0  # MiB, without what a check takes
    output: Path | None = None
    seconds_export: float = 0.0
    check: CheckReport | EachPassReport | None = None

    @property
    def is_different(self) -> bool:
        """Whether a check found that an output isn't what the model computes."""
        return self.check is not None and self.check.worst.name == "DIFFERENT"

    @classmethod
    def before(cls, graph: netforge.IrGraph, model: Path) -> RunAccount:
        account = cls(model, op_types(graph), totals(graph))
        account.import_account = netforge.import_account(graph)
        return account

    def after(self, graph: netforge.IrGraph, printed: list[str]) -> None:
        self.types_after = op_types(graph)
        self.totals_after = totals(graph)
        for line in printed:
            if line.startswith(_EXECUTED):
                self.changed_passes = [name for name in line[len(_EXECUTED) :].split(", ") if name]


def files_of(model: Path) -> list[Path]:
    """The file of a written model, and that of its constants where they lie outside."""
    return [path for path in (model, model.with_name(f"{model.name}.data")) if path.exists()]


def op_types(graph: netforge.IrGraph) -> Counter[str]:
    return Counter(op.getType() for op in graph.getOps())


def totals(graph: netforge.IrGraph) -> tuple[int, int]:
    """Multiply-accumulates and parameters; the lines that the count prints are not for this account."""
    with captured_output():
        macs, parameters = graph.reEvalMacsParams()
    return macs, parameters


def peak_memory_mib() -> float:
    """Peak resident size of this process in MiB; the system counts in KiB, on macOS in bytes."""
    peak = resource.getrusage(resource.RUSAGE_SELF).ru_maxrss
    return peak / (1 << 20) if sys.platform == "darwin" else peak / 1024


def print_account(account: RunAccount) -> None:
    print(f"Model        {account.model}")
    if account.import_account is not None:
        print_import(account.import_account)
    before, after = account.types_before, account.types_after
    print(f"Ops          {sum(before.values())} -> {sum(after.values())}")
    width = max((len(name) for name in before | after), default=0)
    for name in sorted(before | after):
        mark = "" if before[name] == after[name] else "  *"
        print(f"  {name:<{width}}  {before[name]:6d} -> {after[name]:6d}{mark}")
    for label, index in (("MACs", 0), ("Parameters", 1)):
        old, new = account.totals_before[index], account.totals_after[index]
        print(f"{label:<12} {old:,}" + ("" if old == new else f" -> {new:,}"))
    print(f"Passes       {passes_text(account.changed_passes)}")
    print(f"Seconds      import {account.seconds_import:.2f}, optimize {account.seconds_optimize:.2f}")
    print(f"Peak memory  {account.peak_memory:.0f} MiB")
    if account.output is not None:
        size = sum(path.stat().st_size for path in files_of(account.output))
        print(f"Written      {account.output} ({size / (1 << 20):.1f} MiB, {account.seconds_export:.2f} s)")
    if account.check is not None:
        print("Check")
        for line in str(account.check).splitlines():
            print(f"  {line}")
    if account.dump_dir is not None:
        print(f"Dump files   {len(account.dump_files)} in {account.dump_dir}")
        for name in account.dump_files:
            print(f"  {name}")


def print_import(imported: object) -> None:
    plain = getattr(imported, "plain_ops", {})
    if plain:
        listed = ", ".join(f"{name} ({count})" for name, count in sorted(plain.items()))
        print(f"Plain ops    {listed}")


def passes_text(changed: list[str]) -> str:
    """The passes that changed the graph, each with the number of its changing runs."""
    if not changed:
        return "none changed the graph"
    counts = Counter(changed)
    shown = [name if count == 1 else f"{name} (x{count})" for name, count in counts.items()]
    rest = len(shown) - _SHOWN_PASSES
    return ", ".join(shown[:_SHOWN_PASSES]) + (f" and {rest} more" if rest > 0 else "") + " changed the graph"
