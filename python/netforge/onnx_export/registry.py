"""The table of writers by op type."""

from __future__ import annotations

from collections.abc import Callable

from netforge.onnx_export.op_writer import OpWriter

Writer = Callable[[OpWriter], None]

writers: dict[str, Writer] = {}


def writer(*types: str) -> Callable[[Writer], Writer]:
    """Enters a function as the writer of these op types. It ends by calling `result` for each output."""

    def enter(function: Writer) -> Writer:
        for type_name in types:
            assert type_name not in writers, type_name
            writers[type_name] = function
        return function

    return enter
