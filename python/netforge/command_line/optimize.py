"""`netforge optimize`: imports a model, runs the passes and gives an account of what they did."""

from __future__ import annotations

import argparse
import contextlib
import os
import time
from collections.abc import Iterator
from pathlib import Path

import libPyGraphRefiner312 as refiner

import netforge
from netforge.command_line.account import RunAccount, peak_memory_mib, print_account
from netforge.command_line.capture import captured_output
from netforge.command_line.checks import check_run
from netforge.command_line.models import add_model_arguments, prepared_model
from netforge.command_line.passes import backend_of

_STAGES = ("PreLayout", "PostLayout", "PreQuant", "PostQuant")
_DUMP_LEVELS = {
    "stage": "PreAndPostOptimization",
    "pass": "PostPassChange",
    "op": "PostOpChange",
    "checkpoint": "Checkpoint",
}


def add_command(commands: argparse._SubParsersAction) -> None:
    parser = commands.add_parser("optimize", help="run the passes over a model")
    add_model_arguments(parser)
    parser.add_argument(
        "--stages",
        type=name_list,
        default=list(_STAGES),
        metavar="NAMES",
        help=f"comma-separated, in running order (default: {','.join(_STAGES)})",
    )
    parser.add_argument(
        "--enable-pass", action="append", default=[], metavar="NAME", help="may be given several times"
    )
    parser.add_argument(
        "--disable-pass", action="append", default=[], metavar="NAME", help="may be given several times"
    )
    parser.add_argument("--backend-kind", type=int, metavar="KIND", help="the target backend, 0 to 255")
    parser.add_argument(
        "--dump", choices=tuple(_DUMP_LEVELS), help="write the graph as JSON around stages, passes or ops"
    )
    parser.add_argument("--dump-dir", type=Path, default=Path("."), metavar="DIR", help="where dumps go")
    parser.add_argument(
        "--dump-op-types",
        type=name_list,
        metavar="TYPES",
        help="op types watched by --dump op (default: all)",
    )
    parser.add_argument(
        "--trace", action="store_true", help="check the trace records after each stage, announce each pass"
    )
    parser.add_argument(
        "--custom-io",
        type=Path,
        metavar="FILE.yaml",
        help="the fixed-point forms in which the application writes inputs and reads outputs",
    )
    parser.add_argument(
        "--transform-metadata",
        type=Path,
        metavar="FILE.json",
        help="the file of tensor transforms that is brought up to date with the layouts of the graph",
    )
    parser.add_argument(
        "--output", type=Path, metavar="FILE.onnx", help="write the optimized graph as ONNX model"
    )
    parser.add_argument(
        "--check",
        nargs="?",
        const="whole",
        choices=("whole", "each-pass"),
        metavar="each-pass",
        help="run the model and the optimized graph on several inputs and compare; with each-pass the graph"
        " behind every pass. The exit status is 2 when an output is different",
    )
    parser.set_defaults(run=run)


def name_list(text: str) -> list[str]:
    return [name for name in (part.strip() for part in text.split(",")) if name]


def stages_of(names: list[str]) -> list[refiner.OptimizationStage]:
    unknown = [name for name in names if name not in _STAGES]
    if unknown:
        raise ValueError(f"unknown stage {unknown[0]!r}; the stages are {', '.join(_STAGES)}")
    return [getattr(refiner.OptimizationStage, name) for name in names]


def context_of(options: argparse.Namespace, op_types: list[str]) -> refiner.GraphRefinerContext:
    context = refiner.GraphRefinerContext()
    config = {"enabledPasses": options.enable_pass, "disabledPasses": options.disable_pass}
    context.optimizer_config = {key: names for key, names in config.items() if names}
    context.dump_pass_trace_info = True
    context.enable_trace = options.trace
    context.debug_log = options.trace
    if options.dump:
        context.dump_ir = True
        context.dump_ir_level = getattr(refiner.IrDumpLevel, _DUMP_LEVELS[options.dump])
        context.dump_ir_op_types = options.dump_op_types or op_types
    return context


@contextlib.contextmanager
def working_directory(path: Path) -> Iterator[None]:
    """Dump files land in the current directory of the process, so that is where it has to be."""
    before = os.getcwd()
    os.chdir(path)
    try:
        yield
    finally:
        os.chdir(before)


def run(options: argparse.Namespace) -> int:
    stages = stages_of(options.stages)
    backend = backend_of(options.backend_kind)
    begin = time.perf_counter()
    graph = prepared_model(options)
    if options.transform_metadata is not None:
        graph.transformMetadataPath = str(options.transform_metadata.resolve())
    imported = time.perf_counter()
    account = RunAccount.before(graph, options.model)

    context = context_of(options, sorted(account.types_before))
    optimizer = refiner.GraphRefiner(graph, stages, backend, context)
    if options.dump:
        options.dump_dir.mkdir(parents=True, exist_ok=True)
    dump_dir = options.dump_dir.resolve()
    files_before = file_times(dump_dir) if options.dump else {}
    start = time.perf_counter()
    with working_directory(dump_dir if options.dump else Path.cwd()), captured_output() as printed:
        optimizer.optimize()
    account.after(graph, printed.lines())
    account.seconds_import = imported - begin
    account.seconds_optimize = time.perf_counter() - start
    if options.dump:
        account.dump_dir = dump_dir
        account.dump_files = changed_files(dump_dir, files_before)
    if not options.quiet and options.trace:
        print(printed.text, end="")
    if options.output is not None:
        begin = time.perf_counter()
        netforge.save_onnx(graph, options.output)
        account.output, account.seconds_export = options.output, time.perf_counter() - begin
    account.peak_memory = peak_memory_mib()
    if options.check:
        account.check = check_run(options, graph, stages, backend)
    if not options.quiet:
        print_account(account)
    elif account.is_different:
        print(account.check)
    return 2 if account.is_different else 0


def file_times(folder: Path) -> dict[str, int]:
    return {entry.name: entry.stat().st_mtime_ns for entry in os.scandir(folder) if entry.is_file()}


def changed_files(folder: Path, before: dict[str, int]) -> list[str]:
    return sorted(name for name, when in file_times(folder).items() if before.get(name) != when)
