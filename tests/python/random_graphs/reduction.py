"""Makes a failing graph smaller, statement by statement."""

from __future__ import annotations

from collections.abc import Iterator

from random_graphs.differential import Failure, fails_likewise


def _outputs(statement: str) -> list[str]:
    """The tensors that an op's statement makes, with their words."""
    left = statement.split(" = ", 1)[0]
    return left.rsplit(": ", 1)[-1].split(", ")


def _name(tensor: str) -> str:
    return tensor.split("[", 1)[0]


def _operands(statement: str) -> list[str]:
    right = statement.split(" = ", 1)[-1]
    return [name for name in right.split("(", 1)[-1].split(")", 1)[0].split(", ") if name]


def _is_op(statement: str) -> bool:
    return statement.split(" ", 1)[0] not in ("order", "in", "const", "null", "out", "#")


def _without_unread(statements: list[str]) -> list[str]:
    read = {name for statement in statements if _is_op(statement) for name in _operands(statement)}
    read |= {statement[4:].split(" ")[0] for statement in statements if statement.startswith("out ")}
    return [
        statement
        for statement in statements
        if not statement.startswith(("in ", "const ", "null "))
        or _name(statement.split(" ", 1)[1].split(" ")[0]) in read
    ]


def _smaller(statements: list[str]) -> Iterator[list[str]]:
    """Without an output; with an op's results as graph inputs; with one operand in another's place."""
    for place, statement in enumerate(statements):
        rest = [*statements[:place], *statements[place + 1 :]]
        if statement.startswith("out "):
            yield rest
        elif _is_op(statement):
            names = {_name(tensor) for tensor in _outputs(statement)}
            rest = [other for other in rest if not (other.startswith("out ") and other[4:] in names)]
            read = {name for other in rest if _is_op(other) for name in _operands(other)}
            sources = [f"in {tensor}" for tensor in _outputs(statement) if _name(tensor) in read]
            place = len([other for other in statements[:place] if other in rest])
            yield [*rest[:place], *sources, *rest[place:]]


def reduce(failure: Failure, attempts: int = 2000) -> Failure:
    """The smallest failure of the same kind that is found by taking statements away one by one."""
    statements = [line for line in failure.text.splitlines() if line and not line.startswith("#")]
    best, shrinks = failure, True
    while shrinks:
        shrinks = False
        for candidate in _smaller(statements):
            attempts -= 1
            candidate = _without_unread(candidate)
            found = fails_likewise("\n".join(candidate) + "\n", failure) if attempts > 0 else None
            if found is not None:
                statements, best, shrinks = candidate, found, True
                break
    return best
