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
from quorvex._ranges import Look, Part, Paths, Plan, Wanted
from quorvex._tables import ALL
from quorvex.statistics import by_caller, by_counter, by_file, by_function, by_kind, by_thread

if TYPE_CHECKING:
    import pyarrow
    from pyspark.sql import DataFrame, SparkSession

__all__ = [
    "TraceSource",
    "by_caller",
    "by_counter",
    "by_file",
    "by_function",
    "by_kind",
    "by_thread",
    "read",
    "register",
]


@dataclass
class _Task(InputPartition):
    """What makes a partition."""

    part: Part
    wanted: Wanted
    definitions: bytes | None
    before: Look | None

    def __post_init__(self) -> None:
        super().__init__(None)

    def batches(self) -> Iterator[pyarrow.RecordBatch]:
        before = None if self.before is None else [self.before]
        made = _ranges.make(self.part, self.wanted, self.definitions, before)
        yield from made.combine_chunks().to_batches(max_chunksize=65536)


def _looks(plan: Plan) -> list[tuple[Part, bool, bool]]:
    """Tell which ranges are to be looked at, and for what."""
    is_spans = plan.wanted.is_spans
    return [
        (part, known is None, is_spans)
        for parts, known in zip(plan.parts, plan.known, strict=True)
        if len(parts) > 1 and (is_spans or known is None)
        for part in parts
    ]


def _tasks(plan: Plan, looks: Sequence[Look]) -> list[_Task]:
    """Give what makes the partitions, out of what these looks have found."""
    found = iter(looks)
    tasks: list[_Task] = []
    is_spans = plan.wanted.is_spans
    for parts, known in zip(plan.parts, plan.known, strict=True):
        befores: list[Look | None] = [None] * len(parts)
        if len(parts) > 1:
            its = [next(found) for _ in parts] if is_spans or known is None else []
            if known is None:
                known = _ranges.definitions_of(parts[0].file, its, plan.wanted.index)
            if is_spans:
                before = Look(b"", {})
                for number, each in enumerate(its):
                    befores[number] = before
                    before = _ranges.join_looks([before, Look(b"", each.state)])
        tasks += [_Task(part, plan.wanted, known, before) for part, before in zip(parts, befores, strict=True)]
    return tasks


def _schema(wanted: Wanted) -> StructType:
    return from_arrow_schema(_ranges.empty(wanted).schema)


class TraceSource(DataSource):
    """The data source "quorvex", which `register` makes known.

    Options: `path`, one or several with commas between them; `table` (spans); `columns`, with commas between them;
    `pages`, of 256 KiB, in a partition (1024); `first_tick` and `end_tick`, a time that is wanted; `storage`, what
    fsspec is told of the file system, as JSON; `index`, to leave names beside traces (true). Where calls cross
    partitions, the driver looks at the traces first, in threads; `read` has the executors do that.
    """

    @classmethod
    def name(cls) -> str:
        """Give the name of the format."""
        return "quorvex"

    def _words(self, option: str) -> list[str] | None:
        return [each.strip() for each in self.options[option].split(",")] if option in self.options else None

    def _wanted(self) -> Wanted:
        return Wanted.of(
            self.options.get("table", "spans"),
            self._words("columns"),
            int(self.options.get("first_tick", "0")),
            int(self.options.get("end_tick", str(ALL))),
            self.options.get("index", "true").lower() == "true",
        )

    def schema(self) -> StructType:
        """Tell the columns."""
        return _schema(self._wanted())

    def reader(self, schema: StructType) -> DataSourceReader:
        """Make what reads."""
        paths = self._words("path")
        if paths is None:
            raise ValueError("there is no path")
        storage = json.loads(self.options.get("storage", "{}"))
        return _Reader(paths, self._wanted(), int(self.options.get("pages", "1024")), storage)


class _Reader(DataSourceReader):
    def __init__(self, *told: Any) -> None:
        self._told = told

    def partitions(self) -> list[InputPartition]:
        plan = Plan.of(*self._told)
        with ThreadPoolExecutor() as threads:
            return list(_tasks(plan, list(threads.map(lambda each: _ranges.look(*each), _looks(plan)))))

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
    first_tick: int = 0,
    end_tick: int = ALL,
) -> DataFrame:
    """Make a dataframe of Spark of a table of traces, with the rows of `quorvex.dask.read`.

    The executors look at traces that have several partitions first; what these leave open is joined by the driver.
    """
    wanted = Wanted.of(table, columns, first_tick, end_tick, index)
    plan = Plan.of(paths, wanted, pages_per_partition, storage_options)
    context = spark.sparkContext
    looks = _looks(plan)
    found = context.parallelize(looks, len(looks)).mapPartitions(_looked).collect() if looks else []
    tasks = _tasks(plan, found)

    def made(batches: Iterator[pyarrow.RecordBatch]) -> Iterator[pyarrow.RecordBatch]:
        for batch in batches:
            for number in batch.column(0).to_pylist():
                yield from shared.value[number].batches()

    shared = context.broadcast(tasks)
    numbers = spark.range(0, len(tasks), 1, len(tasks))
    return numbers.mapInArrow(made, _schema(wanted))
