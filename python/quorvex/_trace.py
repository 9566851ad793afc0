"""Reading of traces."""

from __future__ import annotations

import glob
import os
from collections.abc import Iterable, Iterator
from typing import TYPE_CHECKING

from quorvex import _core
from quorvex._core import Packet
from quorvex._tables import Table, open_tables, sql

if TYPE_CHECKING:
    import duckdb

__all__ = ["Trace", "open"]

Path = str | os.PathLike[str]


def _files_of(paths: Path | Iterable[Path]) -> list[str]:
    named = [paths] if isinstance(paths, (str, os.PathLike)) else list(paths)
    files: list[str] = []
    for given in named:
        path = os.fspath(given)
        if os.path.isdir(path):
            files += sorted(glob.glob(os.path.join(glob.escape(path), "**", "*.qvx"), recursive=True))
        else:
            files.append(path)
    if not files:
        raise FileNotFoundError("there are no traces")
    return files


class Trace:
    """One trace, or several that are read as one. `open` makes it."""

    def __init__(self, paths: Path | Iterable[Path], *, strict: bool = False) -> None:
        self.files: list[str] = _files_of(paths)
        """The files, as they were named; of a directory, all traces in it."""
        self.strict = strict
        """Whether what cannot be read is an error."""
        self.read()  # throws now if one of them is no trace
        self.tables: dict[str, Table] = open_tables(self.files)
        """All tables by name."""

    def read(self) -> _core.Reader:
        """Read all packets, from the first on: an iterator, whose `reports()` tell how reading has gone so far."""
        return _core.Reader([os.fsencode(file) for file in self.files], self.strict)

    def __iter__(self) -> Iterator[Packet]:
        return self.read()

    @property
    def spans(self) -> Table:
        """Calls of functions, where they end."""
        return self.tables["spans"]

    @property
    def packets(self) -> Table:
        """What happened and what is defined, packet by packet."""
        return self.tables["packets"]

    @property
    def functions(self) -> Table:
        """The functions that have names."""
        return self.tables["functions"]

    @property
    def threads(self) -> Table:
        """The threads of which packets tell."""
        return self.tables["threads"]

    @property
    def counters(self) -> Table:
        """What counters have come to."""
        return self.tables["counters"]

    @property
    def variables(self) -> Table:
        """Values of variables that were read or written."""
        return self.tables["variables"]

    @property
    def events(self) -> Table:
        """Events that occurred."""
        return self.tables["events"]

    @property
    def messages(self) -> Table:
        """Messages."""
        return self.tables["messages"]

    @property
    def states(self) -> Table:
        """States of state machines, and transitions between them."""
        return self.tables["states"]

    @property
    def losses(self) -> Table:
        """What is missing or could not be read."""
        return self.tables["losses"]

    def sql(self, query: str) -> duckdb.DuckDBPyRelation:
        """Ask DuckDB, which knows all tables by their names; only the columns that the query needs are made.

        The answer is DuckDB's: `.fetchall()`, `.df()`, `.pl()`, `.arrow()`, or shown as it is.
        """
        return sql(self.tables, query)

    def __repr__(self) -> str:
        return f"quorvex.open({self.files!r})"


def open(paths: Path | Iterable[Path], *, strict: bool = False) -> Trace:
    """Open a trace file, several of them, or all `*.qvx` in a directory.

    Packets of several files come in the order of ticks. What is damaged is stepped over and told by reports and tables;
    with `strict` it raises a TraceError. So does a file that cannot be opened, or is no trace.
    """
    return Trace(paths, strict=strict)
