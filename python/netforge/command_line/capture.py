"""Catches what the C++ library writes to standard output while a block runs."""

from __future__ import annotations

import contextlib
import os
import sys
import tempfile
from collections.abc import Iterator


class CapturedOutput:
    """The lines that were written; filled when the block ends."""

    def __init__(self) -> None:
        self.text = ""

    def lines(self) -> list[str]:
        return self.text.splitlines()


@contextlib.contextmanager
def captured_output() -> Iterator[CapturedOutput]:
    """Redirects file descriptor 1, because the library writes to the C++ stream and not to `sys.stdout`.

    The text goes through a file, so that a library that prints more than a pipe holds can't block. When the
    block raises, what had been written is passed on to standard output first: it tells how far things got.
    """
    captured = CapturedOutput()
    sys.stdout.flush()
    saved = os.dup(1)
    with tempfile.TemporaryFile() as sink:
        os.dup2(sink.fileno(), 1)
        failed = True
        try:
            yield captured
            failed = False
        finally:
            sys.stdout.flush()
            os.dup2(saved, 1)
            os.close(saved)
            sink.seek(0)
            captured.text = sink.read().decode("utf-8", "replace")
            if failed and captured.text:
                sys.stdout.write(captured.text)
                sys.stdout.flush()
