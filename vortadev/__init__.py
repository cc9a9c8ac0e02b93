"""The host tool: a simulated phone, and what reads a phone's partitions and collected logs."""

__version__ = "1.0"
