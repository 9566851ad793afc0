"""Execution traces: read, write and record them, and ask them questions as tables.

>>> import quorvex
>>> with quorvex.record("traces"):          # doctest: +SKIP
...     work()
>>> trace = quorvex.open("traces")          # doctest: +SKIP
>>> for packet in trace:                    # doctest: +SKIP
...     print(packet.seconds, packet.kind, packet.name)
"""

from quorvex import statistics
from quorvex._core import Packet, Reader, Report, kinds
from quorvex._errors import TraceError
from quorvex._record import record
from quorvex._tables import Column, Table, tables
from quorvex._trace import Trace, open
from quorvex._writer import Writer

__all__ = [
    "Column",
    "Packet",
    "Reader",
    "Report",
    "Table",
    "Trace",
    "TraceError",
    "Writer",
    "kinds",
    "open",
    "record",
    "statistics",
    "tables",
]
