"""Numerical check of what a rewrite did to a model."""

from netforge.checking.checker import check
from netforge.checking.report import CheckReport, Difference, OutputCheck, Verdict

__all__ = ["CheckReport", "Difference", "OutputCheck", "Verdict", "check"]
