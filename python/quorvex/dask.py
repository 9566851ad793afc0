"""Tables of many large traces as Dask dataframes.

>>> frame = quorvex.dask.read("s3://runs/*.qvx")                         # doctest: +SKIP
>>> quorvex.dask.by_function(frame).nlargest(10, "self_ns").compute()    # doctest: +SKIP
"""

from __future__ import annotations

import itertools
from collections.abc import Callable, Sequence
from dataclasses import replace
from typing import Any

from quorvex import _ranges
from quorvex._ranges import Look, Part, Paths, Plan, Wanted
from quorvex._tables import ALL, need
from quorvex.statistics import by_caller, by_counter, by_file, by_function, by_kind, by_thread

__all__ = ["by_caller", "by_counter", "by_file", "by_function", "by_kind", "by_thread", "read"]

_FAN = 16  # of what is joined by one task


def _in_pandas(made: Any) -> Any:
    return made.to_pandas(types_mapper=need("pandas").ArrowDtype)


def _frame(part: Part, wanted: Wanted, definitions: bytes | None, before: Sequence[Look] | None) -> Any:
    """Make a partition."""
    return _in_pandas(_ranges.make(part, wanted, definitions, before))


def _joined_definitions(looks: Sequence[Look]) -> Look:
    return _ranges.join_looks([replace(each, state={}) for each in looks])


def _call(function: Callable[..., Any], *values: Any) -> tuple[Any, ...]:
    return (function, *values)


class _Tasks:
    """The tasks that make a table of files."""

    def __init__(self, name: str, wanted: Wanted) -> None:
        self.graph: dict[Any, Any] = {}
        self.keys: list[Any] = []
        self.name = name
        self.wanted = wanted

    def add(self, parts: Sequence[Part], definitions: bytes | None) -> None:
        """Add a trace, with what it defines if that is known."""
        name, file, is_spans = self.name, parts[0].file, self.wanted.is_spans
        number = file.number
        known: Any = None
        befores: list[Any] = [None] * len(parts)
        if len(parts) > 1:
            looks: list[Any] = [(f"{name}-look", number, n) for n in range(len(parts))]
            if is_spans or definitions is None:
                for key, part in zip(looks, parts, strict=True):
                    self.graph[key] = _call(_ranges.look, part, definitions is None, is_spans)
            if is_spans:
                befores = self._before(looks[:-1], [], (number,))
            known = (f"{name}-definitions", number)
            found: list[Any] = [Look(definitions, {})] if definitions is not None else looks
            for level in itertools.count():
                if len(found) <= _FAN:
                    break
                found = self._tree(found, (f"{name}-defined", number, level), _joined_definitions)
            self.graph[known] = _call(_ranges.definitions_of, file, found, self.wanted.index and definitions is None)
        for part, before in zip(parts, befores, strict=True):
            key = (name, len(self.keys))
            self.graph[key] = _call(_frame, part, self.wanted, known, before)
            self.keys.append(key)

    def _tree(self, keys: Sequence[Any], name: tuple[Any, ...], join: Callable[..., Any]) -> list[Any]:
        """Join groups of neighbours: the keys of what comes of that."""
        joined = []
        for n, first in enumerate(range(0, len(keys), _FAN)):
            key = (f"{name[0]}-joined", *name[1:], n)
            self.graph[key] = _call(join, list(keys[first : first + _FAN]))
            joined.append(key)
        return joined

    def _before(self, states: Sequence[Any], before: list[Any], place: tuple[int, ...]) -> list[list[Any]]:
        """Give the keys that joined are what is left of all before each state, and of all of them."""
        if len(states) <= _FAN:
            return [[*before, *states[:n]] for n in range(len(states) + 1)]
        sums = self._tree(states, (f"{self.name}-state", *place), _ranges.join_looks)
        befores: list[list[Any]] = []
        for n, its_before in enumerate(self._before(sums, before, (*place, -1))[:-1]):
            its = self._before(states[n * _FAN : (n + 1) * _FAN], its_before, (*place, n))
            befores += its if n == len(sums) - 1 else its[:-1]
        return befores


def read(
    paths: Paths,
    table: str = "spans",
    *,
    columns: Sequence[str] | None = None,
    pages_per_partition: int = 1024,
    storage_options: dict[str, Any] | None = None,
    index: bool = True,
    first_tick: int = 0,
    end_tick: int = ALL,
) -> Any:
    """Make a Dask dataframe of a table of traces.

    `paths` are files, directories and patterns, local or any addresses that fsspec knows, with `storage_options`. A
    paged trace becomes partitions of so many pages (256 KiB each), any other trace is one. Of a trace elsewhere a
    partition reads its own range of bytes. Calls that cross partitions are rows of the partition where they end, as
    they are in `quorvex.open(path).spans`, but for `process`, which a partition knows once its core enters one there.
    Behind a damaged end of a page, a partition that begins there may have packets that one reader steps over.

    What a trace that has several partitions defines is found in a first pass, which each partition makes for itself;
    it is left beside the trace, in a file of its name with `.index` behind it, unless `index` is false or that is not
    allowed, and spares later runs that pass. Names hold within their file.

    Of a time, from one tick on and before another, are the rows of `Table.between`. Where the pages of a trace follow
    one another in time, those that can have none of it are not read; spans need those behind, which may end them, and
    that first pass reads all.

    Raises ValueError for a table that is not made of ranges: functions, threads, losses.
    """
    frames = need("dask.dataframe")
    wanted = Wanted.of(table, columns, first_tick, end_tick, index)
    plan = Plan.of(paths, wanted, pages_per_partition, storage_options)
    tasks = _Tasks(f"quorvex-{need('dask.base').tokenize(plan.parts, wanted)}", wanted)
    for parts, known in zip(plan.parts, plan.known, strict=True):
        tasks.add(parts, known)
    return frames.from_graph(
        tasks.graph,
        _in_pandas(_ranges.empty(wanted)),
        (None,) * (len(tasks.keys) + 1),
        tasks.keys,
        tasks.name,
    )
