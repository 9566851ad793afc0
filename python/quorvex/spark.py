"""Tables of many large traces in Spark.

>>> quorvex.spark.register(spark)                                                              # doctest: +SKIP
>>> spark.read.format("quorvex").option("table", "spans").load("/runs").createTempView("spans")  # doctest: +SKIP
>>> spark.sql("select function, sum(self_ns) from spans group by function").show()             # doctest: +SKIP
"""

from __future__ import annotations

import json
from collections.abc import Iterator, Sequence
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass
from typing import TYPE_CHECKING, Any

from pyspark.sql.datasource import DataSource, DataSourceReader, InputPartition
from pyspark.sql.pandas.types import from_arrow_schema
from pyspark.sql.types import StructType

from quorvex import _ranges
from quorvex._ranges import Look, Part, Paths

if TYPE_CHECKING:
    import pyarrow
    from pyspark.sql import DataFrame, SparkSession

__all__ = ["TraceSource", "read", "register"]


@dataclass
class _Task(InputPartition):
    """What makes a partition."""

    part: Part
    table: str
    columns: tuple[str, ...]
    definitions: bytes | None
    before: Look | None

    def __post_init__(self) -> None:
        super().__init__(None)

    def batches(self) -> Iterator[pyarrow.RecordBatch]:
        before = None if self.before is None else [self.before]
        made = _ranges.make(self.part, self.table, self.columns, self.definitions, before)
        yield from made.combine_chunks().to_batches(max_chunksize=65536)


@dataclass
class _Plan:
    """The ranges of files, and how they are looked at."""

    table: str
    columns: tuple[str, ...]
    index: bool
    parts: list[list[Part]]
    known: list[bytes | None]

    @staticmethod
    def of(paths: Paths, table: str, columns: Sequence[str] | None, pages: int, storage: Any, index: bool) -> _Plan:
        wanted = tuple(_ranges.columns_of(table, columns))
        parts = [_ranges.parts_of(file, pages) for file in _ranges.files_of(paths, storage or {})]
        return _Plan(table, wanted, index, parts, [_ranges.known_definitions(each) for each in parts])

    def looks(self) -> list[tuple[Part, bool, bool]]:
        """Tell which ranges are to be looked at, and for what."""
        is_spans = self.table == "spans"
        return [
            (part, known is None, is_spans)
            for parts, known in zip(self.parts, self.known, strict=True)
            if len(parts) > 1 and (is_spans or known is None)
            for part in parts
        ]

    def tasks(self, looks: Sequence[Look]) -> list[_Task]:
        """Give what makes the partitions, out of what these looks have found."""
        found = iter(looks)
        tasks: list[_Task] = []
        for parts, known in zip(self.parts, self.known, strict=True):
            befores: list[Look | None] = [None] * len(parts)
            if len(parts) > 1:
                is_spans = self.table == "spans"
                its = [next(found) for _ in parts] if is_spans or known is None else []
                if known is None:
                    known = _ranges.definitions_of(parts[0].file, its, self.index)
                if is_spans:
                    before = Look(b"", {})
                    for number, each in enumerate(its):
                        befores[number] = before
                        before = _ranges.join_looks([before, Look(b"", each.state)])
            tasks += [
                _Task(part, self.table, self.columns, known, before)
                for part, before in zip(parts, befores, strict=True)
            ]
        return tasks


def _schema(table: str, columns: Sequence[str]) -> StructType:
    return from_arrow_schema(_ranges.empty(table, columns).schema)


class TraceSource(DataSource):
    """The data source "quorvex", which `register` makes known.

    Options: `path`, one or several with commas between them; `table` (spans); `columns`, with commas between them;
    `pages`, of 256 KiB, in a partition (1024); `storage`, what fsspec is told of the file system, as JSON; `index`, to
    leave names beside traces (true). Where calls cross partitions, the driver looks at the traces first, in threads;
    `read` has the executors do that.
    """

    @classmethod
    def name(cls) -> str:
        """Give the name of the format."""
        return "quorvex"

    def _columns(self) -> list[str] | None:
        return [each.strip() for each in self.options["columns"].split(",")] if "columns" in self.options else None

    def schema(self) -> StructType:
        """Tell the columns."""
        table = self.options.get("table", "spans")
        return _schema(table, _ranges.columns_of(table, self._columns()))

    def reader(self, schema: StructType) -> DataSourceReader:
        """Make what reads."""
        if "path" not in self.options:
            raise ValueError("there is no path")
        return _Reader(
            [each.strip() for each in self.options["path"].split(",")],
            self.options.get("table", "spans"),
            self._columns(),
            int(self.options.get("pages", "1024")),
            json.loads(self.options.get("storage", "{}")),
            self.options.get("index", "true").lower() == "true",
        )


class _Reader(DataSourceReader):
    def __init__(self, *told: Any) -> None:
        self._told = told

    def partitions(self) -> list[InputPartition]:
        plan = _Plan.of(*self._told)
        with ThreadPoolExecutor() as threads:
            return list(plan.tasks(list(threads.map(lambda each: _ranges.look(*each), plan.looks()))))

    def read(self, partition: InputPartition) -> Iterator[Any]:
        assert isinstance(partition, _Task)
        return partition.batches()


def register(spark: SparkSession) -> None:
    """Make the data source "quorvex" known to a session."""
    spark.dataSource.register(TraceSource)


def _looked(parts: Iterator[tuple[Part, bool, bool]]) -> Iterator[Look]:
    return (_ranges.look(*each) for each in parts)


def read(
    spark: SparkSession,
    paths: Paths,
    table: str = "spans",
    *,
    columns: Sequence[str] | None = None,
    pages_per_partition: int = 1024,
    storage_options: dict[str, Any] | None = None,
    index: bool = True,
) -> DataFrame:
    """Make a dataframe of Spark of a table of traces, with the rows of `quorvex.dask.read`.

    The executors look at traces that have several partitions first; what these leave open is joined by the driver.
    """
    plan = _Plan.of(paths, table, columns, pages_per_partition, storage_options, index)
    context = spark.sparkContext
    looks = plan.looks()
    found = context.parallelize(looks, len(looks)).mapPartitions(_looked).collect() if looks else []
    tasks = plan.tasks(found)

    def made(batches: Iterator[pyarrow.RecordBatch]) -> Iterator[pyarrow.RecordBatch]:
        for batch in batches:
            for number in batch.column(0).to_pylist():
                yield from shared.value[number].batches()

    shared = context.broadcast(tasks)
    numbers = spark.range(0, len(tasks), 1, len(tasks))
    return numbers.mapInArrow(made, _schema(plan.table, plan.columns))
