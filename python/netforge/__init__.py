"""Graphs of neural networks in memory: build, import, read and dump them.

The classes come from the extension module `netforge._core`; `libPyGraphRefiner312` optimizes the graphs.
"""

from netforge._core import *  # noqa: F403

__version__ = "0.1.0"
