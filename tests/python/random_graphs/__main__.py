"""`python -m random_graphs`: draws graphs, runs the passes over them, reports, writes what fails."""

from __future__ import annotations

import argparse
import sys
from collections.abc import Iterator, Sequence
from concurrent.futures import ProcessPoolExecutor
from concurrent.futures.process import BrokenProcessPool
from os import cpu_count
from pathlib import Path

import libPyGraphRefiner312 as refiner
import netforge_testing

from random_graphs.differential import (
    PIPELINE,
    Failure,
    Outcome,
    Snapshot,
    fails_likewise,
    run_alone,
    run_pipeline,
)
from random_graphs.evaluator import Inconsistent, UnknownOp
from random_graphs.generation import generate
from random_graphs.plants import all_plants
from random_graphs.reduction import reduce

_CHUNK, _ROUND, _GENERATION = 10, 400, "generation"


def check_seed(seed: int, passes: Sequence[str]) -> Outcome:
    """All passes, or the given ones, on the graph of a seed. A graph without values is a plant's fault."""
    text = generate(seed, passes)
    try:
        Snapshot(netforge_testing.read_graph(text), seed)
    except (Inconsistent, UnknownOp) as failure:
        detail = f"{type(failure).__name__}: {failure}"
        return Outcome(failures=[Failure(_GENERATION, _GENERATION, "invalid", detail, text, seed)])
    outcome = run_alone(text, seed, passes or refiner.get_registered_pass_names())
    if not passes:
        outcome.add(run_pipeline(text, seed))
    return outcome


def _check_chunk(seeds: Sequence[int], passes: Sequence[str]) -> list[Outcome]:
    return [check_seed(seed, passes) for seed in seeds]


def check_seeds(seeds: Sequence[int], passes: Sequence[str], workers: int) -> Iterator[Outcome]:
    """In the order of the seeds, whatever the number of workers."""
    if workers == 1:
        yield from (check_seed(seed, passes) for seed in seeds)
        return
    for start in range(0, len(seeds), _ROUND):
        chunks = [
            seeds[place : place + _CHUNK] for place in range(start, min(start + _ROUND, len(seeds)), _CHUNK)
        ]
        with ProcessPoolExecutor(workers) as pool:
            futures = [pool.submit(_check_chunk, chunk, passes) for chunk in chunks]
            for chunk, future in zip(chunks, futures, strict=True):
                try:
                    yield from future.result()
                except BrokenProcessPool:
                    yield from (_check_isolated(seed, passes) for seed in chunk)


def _check_isolated(seed: int, passes: Sequence[str]) -> Outcome:
    """In a process of its own, since one of the last ones crashed."""
    with ProcessPoolExecutor(1) as pool:
        try:
            return pool.submit(check_seed, seed, passes).result()
        except BrokenProcessPool:
            failure = Failure(
                PIPELINE, PIPELINE, "crashes", "the process ended", generate(seed, passes), seed
            )
            return Outcome(failures=[failure])


def write_failure(failure: Failure, folder: Path) -> Path:
    folder.mkdir(parents=True, exist_ok=True)
    path = folder / f"{failure.pass_name}_{failure.kind}_{failure.seed}.txt"
    head = (
        f"# run: {failure.run}\n# pass: {failure.pass_name}\n# kind: {failure.kind}\n# seed: {failure.seed}\n"
    )
    detail = "".join(f"# {line}\n" for line in failure.detail.splitlines())
    path.write_text(head + detail + failure.text)
    return path


def read_failure(path: Path) -> Failure:
    text = path.read_text()
    head = dict(line[2:].split(": ", 1) for line in text.splitlines()[:4])
    graph = "".join(line + "\n" for line in text.splitlines() if not line.startswith("#"))
    return Failure(head["run"], head["pass"], head["kind"], "", graph, int(head["seed"]))


def replay(path: Path) -> int:
    wanted = read_failure(path)
    found = fails_likewise(wanted.text, wanted)
    print(f"{wanted.pass_name}, {wanted.kind}: {found.detail if found else 'fails no more'}")
    return 1 if found else 0


def summary(total: Outcome, count: int) -> str:
    """How often each pass changed a graph, and who never did."""
    lines = [f"{'pass':36}{'alone':>8}{'pipeline':>10}   of {count} graphs"]
    fired = sorted(set(total.alone) | set(total.in_pipeline))
    lines += [f"{name:36}{total.alone[name]:8}{total.in_pipeline[name]:10}" for name in fired]
    planted = set(all_plants())
    never = [name for name in refiner.get_registered_pass_names() if name not in fired]
    silent = [name for name in never if name in planted]
    if silent:
        lines.append("never changed a graph, in spite of plants: " + ", ".join(silent))
    lines.append("never changed a graph and have no plants: " + ", ".join(set_aside(never, planted)))
    return "\n".join(lines)


def set_aside(names: Sequence[str], others: set[str]) -> list[str]:
    return [name for name in names if name not in others] or ["none"]


def main(arguments: Sequence[str] | None = None) -> int:
    parser = argparse.ArgumentParser(prog="random_graphs", description=__doc__)
    parser.add_argument("--count", type=int, default=2000, help="number of graphs")
    parser.add_argument("--seed", type=int, default=1, help="seed of the first")
    parser.add_argument("--workers", type=int, default=cpu_count() or 1)
    parser.add_argument("--passes", nargs="+", default=(), help="plants and runs of these passes only")
    parser.add_argument("--out", type=Path, default=Path("fuzz"), help="folder for what fails")
    parser.add_argument("--most", type=int, default=3, help="failures of a kind that are written")
    parser.add_argument("--replay", type=Path, metavar="FILE")
    options = parser.parse_args(arguments)
    if options.replay:
        return replay(options.replay)

    total, written = Outcome(), dict[tuple[str, str], int]()
    seeds = range(options.seed, options.seed + options.count)
    for number, outcome in enumerate(check_seeds(seeds, options.passes, options.workers), 1):
        total.add(outcome)
        for failure in outcome.failures:
            key = failure.pass_name, failure.kind
            written[key] = written.get(key, 0) + 1
            if written[key] <= options.most:
                smaller = failure if failure.kind in ("crashes", "invalid") else reduce(failure)
                path = write_failure(smaller, options.out)
                print(f"graph {number}: {failure.pass_name}, {failure.kind}: {smaller.detail}\n  -> {path}")
        if number % 100 == 0:
            print(f"{number} graphs, {len(total.failures)} failures", file=sys.stderr, flush=True)
    print(summary(total, options.count))
    for (name, kind), times in sorted(written.items()):
        print(f"FAILED {name}, {kind}: {times} times")
    print(f"{len(total.failures)} failures")
    return 1 if total.failures else 0


if __name__ == "__main__":
    sys.exit(main())
