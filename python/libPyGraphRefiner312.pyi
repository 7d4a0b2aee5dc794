"""The optimizer: rewrites a graph through the passes of the stages that the caller asks for."""

from collections.abc import Sequence
from typing import ClassVar

from netforge import BackendInfo, IrGraph

class OptimizationStage:
    PreLayout: ClassVar[OptimizationStage]
    PostLayout: ClassVar[OptimizationStage]
    PreQuant: ClassVar[OptimizationStage]
    PostQuant: ClassVar[OptimizationStage]
    __members__: ClassVar[dict[str, OptimizationStage]]
    def __init__(self, value: int) -> None: ...
    def __int__(self) -> int: ...
    def __index__(self) -> int: ...
    @property
    def name(self) -> str: ...
    @property
    def value(self) -> int: ...

class IrDumpLevel:
    PreAndPostOptimization: ClassVar[IrDumpLevel]
    PostPassChange: ClassVar[IrDumpLevel]
    PostOpChange: ClassVar[IrDumpLevel]
    Checkpoint: ClassVar[IrDumpLevel]
    __members__: ClassVar[dict[str, IrDumpLevel]]
    def __init__(self, value: int) -> None: ...
    def __int__(self) -> int: ...
    def __index__(self) -> int: ...
    @property
    def name(self) -> str: ...
    @property
    def value(self) -> int: ...

class GraphRefinerContext:
    # Reading gives a copy of the dict: assign the whole dict to change it.
    optimizer_config: dict[str, list[str]]
    dump_pass_trace_info: bool
    dump_ir_level: IrDumpLevel
    dump_ir: bool
    dump_ir_pass_names: list[str]
    dump_ir_op_types: list[str]
    debug_log: bool
    enable_trace: bool
    def __init__(self) -> None: ...

PreLayout: OptimizationStage
PostLayout: OptimizationStage
PreQuant: OptimizationStage
PostQuant: OptimizationStage
PreAndPostOptimization: IrDumpLevel
PostPassChange: IrDumpLevel
PostOpChange: IrDumpLevel
Checkpoint: IrDumpLevel

def get_registered_pass_names() -> list[str]: ...
def get_dump_pass_config(backend: BackendInfo | None, /) -> dict[str, bool]: ...

class GraphRefiner:
    def __init__(
        self,
        graph: IrGraph,
        stages: Sequence[OptimizationStage],
        backend: BackendInfo | None,
        context: GraphRefinerContext,
        /,
    ) -> None: ...
    def optimize(self) -> None: ...
    def get_current_execution_pass_names(self) -> list[str]: ...
