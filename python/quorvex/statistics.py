"""Sums over tables of any size: the same functions for tables of `quorvex.open`, pandas, Dask and Spark.

>>> quorvex.statistics.by_function(quorvex.open("traces").spans)            # doctest: +SKIP
>>> quorvex.statistics.by_function(quorvex.dask.read("s3://runs")).compute()  # doctest: +SKIP
>>> quorvex.statistics.by_function(quorvex.spark.read(spark, "/runs")).show()  # doctest: +SKIP

Each takes a table with the columns that it groups by and those that it sums up - of spans `duration_ns` and `self_ns`,
of counters `value`, of packets `file_offset` and `tick` - and gives a dataframe of the same sort, in no order; a table
of `quorvex.open` gives one of pandas. What is grouped by is its index, in Spark its first columns. What is not known is
a group, too. Numbers are the same whatever the table is of, and however it is divided.
"""

from __future__ import annotations

from typing import Any

from quorvex._tables import Table, need

__all__ = ["by_caller", "by_counter", "by_file", "by_function", "by_kind", "by_thread"]

_Sums = dict[str, tuple[str, str]]

_CALLS: _Sums = {
    "calls": ("duration_ns", "count"),
    "total_ns": ("duration_ns", "sum"),
    "self_ns": ("self_ns", "sum"),
    "max_ns": ("duration_ns", "max"),
}
_VALUES: _Sums = {"values": ("value", "count"), "lowest": ("value", "min"), "highest": ("value", "max")}
_PACKETS: _Sums = {"packets": ("file_offset", "count"), "first_tick": ("tick", "min"), "last_tick": ("tick", "max")}


def _sum_up(table: Any, keys: tuple[str, ...], sums: _Sums) -> Any:
    if isinstance(table, Table):
        table = table.select(*dict.fromkeys([*keys, *(column for column, _ in sums.values())])).to_pandas()
    if not hasattr(table, "mapInArrow"):
        # There are few groups: Dask need not divide them again.
        how: dict[str, Any] = {"split_out": 1} if hasattr(table, "npartitions") else {}
        return table.groupby(list(keys), dropna=False, observed=True).agg(**sums, **how)
    functions = need("pyspark.sql.functions")

    def made(column: str, function: str) -> Any:
        its = getattr(functions, function)(column)
        return functions.coalesce(its, functions.lit(0)) if function == "sum" else its  # of nothing it is 0 everywhere

    return table.groupBy(*keys).agg(*(made(*what).alias(name) for name, what in sums.items()))


def by_function(spans: Any) -> Any:
    """Sum up calls by `function`: `calls` whose duration is known, `total_ns`, `self_ns`, `max_ns`."""
    return _sum_up(spans, ("function",), _CALLS)


def by_caller(spans: Any) -> Any:
    """Sum up calls by `parent`, who calls, and `function`, as `by_function` does."""
    return _sum_up(spans, ("parent", "function"), _CALLS)


def by_thread(spans: Any) -> Any:
    """Sum up calls by `file`, `thread` and `thread_name`, as `by_function` does."""
    return _sum_up(spans, ("file", "thread", "thread_name"), _CALLS)


def by_file(spans: Any) -> Any:
    """Sum up calls by `file`, as `by_function` does."""
    return _sum_up(spans, ("file",), _CALLS)


def by_counter(counters: Any) -> Any:
    """Sum up values by `counter`: how many `values`, the `lowest` and the `highest`."""
    return _sum_up(counters, ("counter",), _VALUES)


def by_kind(packets: Any) -> Any:
    """Sum up packets by `kind`: how many `packets`, `first_tick` and `last_tick`."""
    return _sum_up(packets, ("kind",), _PACKETS)
