"""Tables of traces, whose columns other packages take without a copy."""

from __future__ import annotations

import importlib
import os
import re
import threading
from collections.abc import Callable, Iterator, Sequence
from dataclasses import dataclass, replace
from typing import TYPE_CHECKING, Any, NamedTuple

from quorvex import _core

if TYPE_CHECKING:
    import duckdb
    import pandas
    import polars
    import pyarrow

__all__ = ["Column", "Table", "tables"]

ALL = (1 << 64) - 1


class Column(NamedTuple):
    """What a column of a table is."""

    name: str
    format: str
    """Of its values, in Arrow's letters: l (64-bit integer), i (32-bit), g (double), u (text), z (bytes), b (bool)."""
    is_dictionary: bool
    """It holds indices into a dictionary of such values."""
    is_nullable: bool
    """There can be nulls."""
    unit: str
    """Of a number: "ticks", "ns", "bytes"; else empty."""
    meaning: str


def tables() -> dict[str, tuple[str, tuple[Column, ...]]]:
    """Tell which tables there are: of each what its rows are, and its columns."""
    return {
        name: (meaning, tuple(Column(*column) for column in columns))
        for name, (meaning, columns) in _core.tables().items()
    }


def need(package: str) -> Any:
    """Import a package that only some functions need."""
    try:
        return importlib.import_module(package)
    except ImportError as error:
        raise ImportError(f"this needs the package {package.partition('.')[0]}") from error


def _interruptible(call: Callable[[], Any]) -> Any:
    """Call it in a thread of its own, for which this one waits unless it is interrupted."""
    told: list[Any] = []
    raised: list[BaseException] = []

    def run() -> None:
        try:
            told.append(call())
        except BaseException as error:
            raised.append(error)

    thread = threading.Thread(target=run, daemon=True)
    thread.start()
    thread.join()
    if raised:
        raise raised[0]
    return told[0]


@dataclass(frozen=True)
class Table:
    """A table of a trace, or a part of one. It reads nothing by itself, and can be asked any number of times.

    Everything that takes Arrow streams takes it: `pyarrow.table(table)`, `polars.DataFrame(table)`,
    `duckdb.sql("select * from table")`. Batches are made as they are asked for, in several threads; memory does not
    grow with the trace.
    """

    _tables: _core.Tables
    name: str
    """Which table: "spans"."""
    columns: tuple[str, ...]
    """The names of its columns, in order; no others are made."""
    first_page: int = 0
    """It begins with that page (256 KiB) of each file,"""
    page_count: int = ALL
    """and has so many, as far as there are."""
    first_tick: int = 0
    """Rows are from that tick on; spans are those that reach into it,"""
    end_tick: int = ALL
    """and before that one."""
    batch_rows: int = 65536
    """Rows in a batch, at most."""
    threads: int = 0
    """That many read at a time; 0: one a processor."""

    def select(self, *columns: str) -> Table:
        """Take these columns alone, in this order. Raises ValueError for one that the table does not have."""
        known = {column.name for column in tables()[self.name][1]}
        for column in columns:
            if column not in known:
                raise ValueError(f"{self.name} has no column {column}")
        return replace(self, columns=columns)

    def pages(self, first: int, count: int = ALL) -> Table:
        """Take a range of pages of each file. What is open at its ends is told by has_enter and has_leave of spans."""
        return replace(self, first_page=first, page_count=count)

    def between(self, first_tick: int = 0, end_tick: int = ALL) -> Table:
        """Take the rows from a tick on and before another one; spans that reach into that time."""
        return replace(self, first_tick=first_tick, end_tick=end_tick)

    def with_batches(self, rows: int, threads: int = 0) -> Table:
        """Have so many rows in a batch, at most, and so many threads that read; 0: one a processor."""
        return replace(self, batch_rows=rows, threads=threads)

    def __arrow_c_stream__(self, requested_schema: object = None) -> object:
        """Begin to read: a capsule with an Arrow stream. A wish for another schema is not granted."""
        return self._tables.stream(
            self.name,
            self.columns,
            self.first_page,
            self.page_count,
            self.first_tick,
            self.end_tick,
            self.batch_rows,
            self.threads,
        )

    def __arrow_c_schema__(self) -> object:
        """Tell the types of the columns: a capsule with an Arrow schema."""
        return _core.schema(self.name, self.columns)

    def to_batches(self) -> Iterator[pyarrow.RecordBatch]:
        """Read batch by batch, as pyarrow has them."""
        reader = need("pyarrow").RecordBatchReader.from_stream(self)
        try:
            yield _interruptible(reader.read_next_batch)  # which may have to look for names in all of the trace
        except StopIteration:
            return
        for batch in reader:  # noqa: UP028  (here Ctrl-C is noticed; `yield from` would not)
            yield batch

    def to_arrow(self) -> pyarrow.Table:
        """Read all as a table of pyarrow."""
        schema = need("pyarrow").schema(self)
        return need("pyarrow").Table.from_batches(list(self.to_batches()), schema)

    def to_pandas(self) -> pandas.DataFrame:
        """Read all into pandas: numbers and texts stay in Arrow's memory, with their nulls; names are categories."""
        types, arrow_type = need("pyarrow.types"), need("pandas").ArrowDtype

        def kept(kind: object) -> object:
            return None if types.is_dictionary(kind) else arrow_type(kind)

        return self.to_arrow().to_pandas(types_mapper=kept)

    def to_polars(self) -> polars.DataFrame:
        """Read all into polars."""
        return need("polars").DataFrame(self)

    def __repr__(self) -> str:
        return f"<{self.name}: {', '.join(self.columns)}>"


def open_tables(files: Sequence[str]) -> dict[str, Table]:
    """Make the tables of files, by name."""
    made = _core.Tables([os.fsencode(file) for file in files], [])
    return {name: Table(made, name, tuple(each.name for each in columns)) for name, (_, columns) in tables().items()}


def _dataset(table: Table) -> Any:
    """Make what DuckDB takes for a data set, which is asked for the columns that a query needs."""
    arrow: Any = need("pyarrow")
    dataset: Any = need("pyarrow.dataset")
    base: Any = dataset.Dataset

    class Asked(base):
        def __init__(self) -> None:
            pass

        schema = arrow.schema(table)

        def scanner(self, columns: list[str] | None = None, filter: Any = None, **options: Any) -> Any:
            # Any column whose name occurs in the filter may be meant by it.
            names = [name for name in table.columns if columns is None or name in columns or name in str(filter)]
            wanted = table.select(*(names or table.columns[:1]))
            reader = arrow.RecordBatchReader.from_stream(wanted)
            return dataset.Scanner.from_batches(reader, columns=columns, filter=filter)

    return Asked()


def sql(named: dict[str, Table], query: str) -> duckdb.DuckDBPyRelation:
    """Ask a query about tables."""
    connection = need("duckdb").connect()
    for name, table in named.items():
        if re.search(rf"\b{re.escape(name)}\b", query, re.IGNORECASE):
            connection.register(name, _dataset(table))
    return connection.sql(query)
