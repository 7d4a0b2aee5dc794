"""Graphs and backends of another extension module, with other internals of the binding library."""

from __future__ import annotations

import gc
import importlib.util
import os
import subprocess
import sysconfig
import weakref
from pathlib import Path
from types import ModuleType

import libPyGraphRefiner312 as refiner
import netforge
import pybind11
import pytest

SOURCE = Path(__file__).with_name("foreign_bindings.cpp")
INTERNALS = 6  # the modules under test have 5


@pytest.fixture(scope="module")
def foreign(tmp_path_factory: pytest.TempPathFactory) -> ModuleType:
    package = Path(netforge.__file__).parent
    target = tmp_path_factory.mktemp("foreign") / f"foreign_bindings{sysconfig.get_config_var('EXT_SUFFIX')}"
    includes = [SOURCE.parent.parent.parent, pybind11.get_include(), sysconfig.get_paths()["include"]]
    command = [os.environ.get("CXX", "c++"), "-std=c++20", "-O0", "-shared", "-fPIC", "-fvisibility=hidden"]
    command += [f"-DPYBIND11_INTERNALS_VERSION={INTERNALS}", *(f"-I{path}" for path in includes)]
    command += [str(SOURCE), "-o", str(target), str(package / "libnetforge.so"), f"-Wl,-rpath,{package}"]
    subprocess.run(command, check=True)
    spec = importlib.util.spec_from_file_location("foreign_bindings", target)
    assert spec is not None and spec.loader is not None
    module = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(module)
    return module


def test_a_foreign_graph_and_backend_reach_the_optimizer(
    foreign: ModuleType, capfd: pytest.CaptureFixture[str]
) -> None:
    graph = foreign.IrGraph("foreign")
    with pytest.raises(TypeError):
        netforge.dumpModelJson(5, "never.json")
    context = refiner.GraphRefinerContext()
    stages = [refiner.PostLayout]
    optimizer = refiner.GraphRefiner(graph, stages, foreign.BackendInfo(3), context)
    assert len(optimizer.get_current_execution_pass_names()) == 50
    optimizer.optimize()
    assert "Total MACs: 0" in capfd.readouterr().out
    assert refiner.get_dump_pass_config(foreign.BackendInfo(3)) == {}
    # A class of the other module that is not the one asked for stays a wrong type.
    with pytest.raises(TypeError):
        refiner.GraphRefiner(foreign.BackendInfo(3), stages, None, context)
    with pytest.raises(TypeError):
        refiner.get_dump_pass_config(graph)


def test_a_foreign_graph_lives_as_long_as_its_optimizer(foreign: ModuleType) -> None:
    class Watched(foreign.IrGraph):  # the bound class itself takes no weak references
        pass

    graph = Watched("watched")
    gone = weakref.ref(graph)
    optimizer = refiner.GraphRefiner(graph, [], None, refiner.GraphRefinerContext())
    del graph
    gc.collect()
    assert gone() is not None
    optimizer.optimize()
    del optimizer
    gc.collect()
    assert gone() is None
