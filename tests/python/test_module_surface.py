"""The optimizer module: its names, texts and what they answer."""

from __future__ import annotations

import subprocess
import sys
from pathlib import Path

import libPyGraphRefiner312 as refiner
import netforge
import pytest
from conftest import make_chain

STAGES = ["PreLayout", "PostLayout", "PreQuant", "PostQuant"]
LEVELS = ["PreAndPostOptimization", "PostPassChange", "PostOpChange", "Checkpoint"]
ATTRIBUTES = {
    "optimizer_config": ({}, {"enabledPasses": ["MatchTopK"], "mine": []}),
    "dump_pass_trace_info": (False, True),
    "dump_ir_level": (refiner.IrDumpLevel.PreAndPostOptimization, refiner.IrDumpLevel.Checkpoint),
    "dump_ir": (False, True),
    "dump_ir_pass_names": ([], ["MatchTopK"]),
    "dump_ir_op_types": ([], ["Transpose"]),
    "debug_log": (False, True),
    "enable_trace": (False, True),
}
# Class or function, and what its docstring ends with after the signature.
DOCSTRINGS = {
    "get_registered_pass_names": (
        refiner.get_registered_pass_names,
        "() -> list[str]\n\nlist of registered pass names\n",
    ),
    "get_dump_pass_config": (refiner.get_dump_pass_config, ") -> dict[str, bool]\n"),
    "optimize": (refiner.GraphRefiner.optimize, ") -> None\n\noptimizes Ir.\n        \n"),
    "get_current_execution_pass_names": (
        refiner.GraphRefiner.get_current_execution_pass_names,
        ") -> list[str]\n\nGet in order execution pipeline pass names.\n        \n",
    ),
    "__init__": (refiner.GraphRefiner.__init__, "arg3: libPyGraphRefiner312.GraphRefinerContext) -> None\n"),
}


def public_names(owner: object) -> set[str]:
    return {name for name in vars(owner) if not name.startswith("_")}


def test_the_module_has_these_names_and_no_others() -> None:
    classes = {"OptimizationStage", "IrDumpLevel", "GraphRefinerContext", "GraphRefiner"}
    functions = {"get_registered_pass_names", "get_dump_pass_config"}
    assert public_names(refiner) == classes | functions | set(STAGES) | set(LEVELS)
    assert public_names(refiner.GraphRefinerContext) == set(ATTRIBUTES)
    assert public_names(refiner.GraphRefiner) == {"optimize", "get_current_execution_pass_names"}
    for enum, members in ((refiner.OptimizationStage, STAGES), (refiner.IrDumpLevel, LEVELS)):
        assert {name: int(value) for name, value in enum.__members__.items()} == {
            name: number for number, name in enumerate(members)
        }
        for name in members:
            assert getattr(refiner, name) is getattr(enum, name)
        with pytest.raises(TypeError):
            _ = getattr(refiner, members[0]) < getattr(refiner, members[1])
    for name in classes:
        assert hasattr(getattr(refiner, name), "_pybind11_conduit_v1_")


def test_docstrings() -> None:
    assert refiner.GraphRefiner.__doc__ == "Class for optimizing Ir"
    assert refiner.GraphRefinerContext.__doc__ is None
    for name, (function, ending) in DOCSTRINGS.items():
        assert (function.__doc__ or "").endswith(ending), name


def test_the_file_carries_no_abi_tag_and_the_version_check_says_what_is_wrong(tmp_path: Path) -> None:
    library = Path(refiner.__file__)
    assert library.name == "libPyGraphRefiner312.so"
    # A copy that was "compiled" for the version after this one, beside a link to its library.
    major, minor = sys.version_info[:2]
    here, other = f"\0{major}.{minor}\0".encode(), f"\0{major}.{minor + 1}\0".encode()
    image = library.read_bytes()
    assert len(here) == len(other) and here in image
    (tmp_path / library.name).write_bytes(image.replace(here, other))
    (tmp_path / "netforge").symlink_to(library.parent / "netforge")
    script = f"import sys; sys.path.insert(0, {str(tmp_path)!r}); import libPyGraphRefiner312"
    run = subprocess.run([sys.executable, "-c", script], capture_output=True, text=True)
    assert run.returncode == 1
    assert run.stderr.endswith(
        f"ImportError: Python version mismatch: module was compiled for Python {major}.{minor + 1}, "
        f"but the interpreter version is incompatible: {sys.version}.\n"
    )


def test_context_attributes_are_copies_with_defaults() -> None:
    context = refiner.GraphRefinerContext()
    for name, (default, other) in ATTRIBUTES.items():
        assert getattr(context, name) == default, name
        setattr(context, name, other)
        assert getattr(context, name) == other, name
    context.optimizer_config["enabledPasses"] = []
    assert context.optimizer_config == ATTRIBUTES["optimizer_config"][1]
    with pytest.raises(TypeError):
        context.optimizer_config = {"enabledPasses": "MatchTopK"}


def test_registered_passes_and_dump_config() -> None:
    names = refiner.get_registered_pass_names()
    assert (len(names), len(set(names)), names[0], names[-1]) == (61, 61, "AlignMatmulRanks", "MatchTopK")
    assert refiner.get_dump_pass_config(None) == dict.fromkeys(sorted(names), True)
    assert list(refiner.get_dump_pass_config(None)) == sorted(names)
    for kind in (0, 3, 6, 7, 8, 255):
        assert refiner.get_dump_pass_config(netforge.BackendInfo(kind)) == {}


def test_none_is_a_null_backend_before_any_module_has_bound_the_classes() -> None:
    script = (
        "import libPyGraphRefiner312 as refiner, sys\n"
        "assert 'netforge' not in sys.modules\n"
        "assert len(refiner.get_dump_pass_config(None)) == 61\n"
        "try: refiner.GraphRefiner(None, [], None, refiner.GraphRefinerContext())\n"
        "except ValueError as error: print(error)\n"
    )
    run = subprocess.run([sys.executable, "-c", script], capture_output=True, text=True, check=True)
    assert "null" in run.stdout


def test_pipelines_by_backend(chain: netforge.IrGraph) -> None:
    def names(stages: list[str], backend: netforge.BackendInfo | None) -> list[str]:
        listed = [getattr(refiner.OptimizationStage, stage) for stage in stages]
        context = refiner.GraphRefinerContext()
        return refiner.GraphRefiner(chain, listed, backend, context).get_current_execution_pass_names()

    default = names(["PostLayout"], None)
    assert (len(default), default[0], default[-1]) == (48, "MatchTopK", "FlattenPReluAlpha")
    assert names(["PostLayout"], netforge.BackendInfo(0)) == default
    accelerator = names(["PostLayout"], netforge.BackendInfo(3))
    assert accelerator == [*default, "FullyConnectedToHadamard", "FoldHadamardWithMul"]
    assert names(["PreLayout", "PreQuant", "PostQuant"], netforge.BackendInfo(3)) == []
    assert names(["PostLayout", "PreLayout", "PostLayout"], None) == default * 2


def test_constructor_arguments(chain: netforge.IrGraph) -> None:
    stages = [refiner.OptimizationStage.PostLayout]
    context = refiner.GraphRefinerContext()
    for wrong in (
        (None, stages, None, context),
        ("graph", stages, None, context),
        (chain, None, None, context),
        (chain, [1], None, context),
        (chain, stages, chain, context),
        (chain, stages, None, None),
        (chain, stages, None),
    ):
        with pytest.raises((TypeError, ValueError)):
            refiner.GraphRefiner(*wrong)
    with pytest.raises(TypeError):
        refiner.GraphRefiner(graph=chain, stages=stages, backend=None, context=context)
    for key in ("enabledPasses", "disabledPasses"):
        context.optimizer_config = {key: ["matchtopk"]}
        with pytest.raises(RuntimeError) as failure:
            refiner.GraphRefiner(chain, stages, None, context)
        assert str(failure.value) == (
            "netforge::graphrefiner::getPassIdFromPassName:  Invalid pass, No pass registered with the name: "
            "matchtopk"
        )


def test_optimize_works_on_the_callers_graph_and_prints(
    chain: netforge.IrGraph, capfd: pytest.CaptureFixture[str]
) -> None:
    context = refiner.GraphRefinerContext()
    context.dump_pass_trace_info = True
    optimizer = refiner.GraphRefiner(chain, [], None, context)
    context.dump_pass_trace_info = False  # the optimizer has its own copy
    assert optimizer.optimize() is None
    assert capfd.readouterr().out == "PASS TRACE INFO: \n"
    optimizer = refiner.GraphRefiner(chain, [refiner.PreLayout, refiner.PostLayout], None, context)
    optimizer.optimize()
    optimizer.optimize()
    assert capfd.readouterr().out.count("Total MACs: ") == 4
    assert chain.checkInvariants() == []


def test_the_optimizer_keeps_its_graph_and_backend_alive(capfd: pytest.CaptureFixture[str]) -> None:
    optimizer = refiner.GraphRefiner(
        make_chain(), [refiner.PostLayout], netforge.BackendInfo(3), refiner.GraphRefinerContext()
    )
    assert len(optimizer.get_current_execution_pass_names()) == 50
    optimizer.optimize()
    assert "Total Params Count: 0\n" in capfd.readouterr().out
