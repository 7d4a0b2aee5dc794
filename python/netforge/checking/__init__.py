"""Numerical check of what a rewrite did to a model."""

from netforge.checking.checker import Checker, check
from netforge.checking.each_pass import EachPassReport, check_each_pass
from netforge.checking.report import CheckReport, Difference, OutputCheck, Verdict

__all__ = [
    "CheckReport",
    "Checker",
    "Difference",
    "EachPassReport",
    "OutputCheck",
    "Verdict",
    "check",
    "check_each_pass",
]
