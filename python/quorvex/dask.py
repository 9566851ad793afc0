"""Tables of many large traces as Dask dataframes.

>>> frame = quorvex.dask.read("s3://runs/*.qvx")                         # doctest: +SKIP
>>> quorvex.dask.by_function(frame).nlargest(10, "self_ns").compute()    # doctest: +SKIP
"""

from __future__ import annotations

import json
import os
import tempfile
from collections.abc import Callable, Iterable, Sequence
from dataclasses import dataclass, replace
from typing import TYPE_CHECKING, Any

from quorvex import _core
from quorvex._joins import State, finish, join_all, state_of
from quorvex._tables import Table, need, tables

if TYPE_CHECKING:
    import pyarrow

__all__ = ["by_function", "plan", "read"]

PAGE = 256 * 1024
_TABLES = ("spans", "packets", "counters", "variables", "events", "messages", "states")
_FAN = 16  # states that are joined by one task


@dataclass(frozen=True)
class File:
    """A trace, wherever it is."""

    number: int
    """Its place in the list of all."""
    path: str
    """Its name or address."""
    size: int
    """Bytes."""
    is_local: bool
    version: str = ""
    """Differs when it has been written anew."""
    storage: tuple[tuple[str, Any], ...] = ()
    """Options for its file system."""

    def system(self) -> tuple[Any, str]:
        """Give its file system, and its name there."""
        system, path = need("fsspec").core.url_to_fs(self.path, **dict(self.storage))
        return system, path


@dataclass(frozen=True)
class Part:
    """A range of pages of a trace."""

    file: File
    first: int
    count: int
    is_last: bool

    @property
    def is_whole(self) -> bool:
        """It is all of its file."""
        return self.first == 0 and self.is_last

    def content(self) -> bytes:
        """Read its bytes; none where they are damaged beyond recognition."""
        begin = self.first * PAGE
        end = self.file.size if self.is_last else begin + self.count * PAGE
        system, path = self.file.system()
        content: bytes = system.cat_file(path, start=begin, end=end) if end > begin else b""
        return content if self.first == 0 or _core.looks_like_trace(content[:PAGE]) else b""

    def tables(self, definitions: bytes | None) -> _core.Tables:
        """Make the tables of this range, from its bytes alone if they are elsewhere."""
        path = os.fsencode(self.file.path)
        known = [] if definitions is None else [definitions]
        if self.file.is_local:
            return _core.Tables([path], known)
        return _core.Tables([(path, self.content(), self.first * PAGE)], known)

    def table(self, name: str, definitions: bytes | None, columns: Sequence[str] | None = None) -> pyarrow.Table:
        """Read a table of this range."""
        every = tuple(column.name for column in tables()[name][1])
        # One thread: others work on other partitions.
        whole = Table(self.tables(definitions), name, tuple(columns or every), threads=1)
        made = (whole if self.is_whole else whole.pages(self.first, self.count)).to_arrow()
        at = made.schema.get_field_index("file")
        if at < 0:
            return made
        number = need("pyarrow").array([self.file.number] * made.num_rows, "int32")
        return made.set_column(at, made.schema.field(at), number)


def _index_path(path: str) -> str:
    return path + ".index"


def _read_index(file: File) -> bytes | None:
    """Read what an earlier run has left beside the trace; None where there is nothing that fits it."""
    system, path = file.system()
    try:
        head, _, definitions = system.cat_file(_index_path(path)).partition(b"\n")
        fits = json.loads(head) == {"size": file.size, "version": file.version}
    except (OSError, ValueError):
        return None
    return bytes(definitions) if fits else None


def _write_index(file: File, definitions: bytes) -> None:
    """Leave it for later runs and other machines, where that is allowed."""
    system, path = file.system()
    head = json.dumps({"size": file.size, "version": file.version}).encode()
    try:
        system.pipe_file(_index_path(path), head + b"\n" + definitions)
    except OSError:
        return


def _definitions_of(part: Part) -> bytes:
    made = _core.Tables([(os.fsencode(part.file.path), part.content(), part.first * PAGE)], [])
    return made.definitions(0, 1)


def _join_definitions(pieces: Sequence[bytes]) -> bytes:
    return _core.Tables([(b"definitions", b"".join(pieces), 0)], []).definitions(0, 1)


def _keep_definitions(file: File, pieces: Sequence[bytes], index: bool) -> bytes:
    definitions = _join_definitions(pieces)
    if index:
        _write_index(file, definitions)
    return definitions


_STATE_COLUMNS = (
    "thread",
    "core",
    "process",
    "function_id",
    "start_tick",
    "end_tick",
    "start_ns",
    "end_ns",
    "depth",
    "has_enter",
    "has_leave",
    "enter_offset",
    "leave_offset",
)


def _state_of(part: Part, definitions: bytes) -> State:
    return state_of(part.table("spans", definitions, _STATE_COLUMNS))


def _joined_spans(part: Part, definitions: bytes, before: State) -> pyarrow.Table:
    frequency = _core.clock_of(definitions)
    named = Table(_core.Tables([(b"definitions", b"", 0)], [definitions]), "functions", ("function_id", "function"))
    names = {row["function_id"]: row["function"] for row in named.to_arrow().to_pylist()}
    return finish(
        part.table("spans", definitions),
        before,
        is_last=part.is_last,
        nanoseconds=lambda ticks: None if frequency is None else ticks * 10**9 // frequency,
        names=names,
    )


def _frame(made: pyarrow.Table, columns: Sequence[str]) -> Any:
    """Give it as pandas has it: plain types of Arrow, so that all partitions have the same."""
    pyarrow, pandas = need("pyarrow"), need("pandas")
    made = made.select(list(columns))
    for at, field in enumerate(made.schema):
        if pyarrow.types.is_dictionary(field.type):
            made = made.set_column(at, field.name, made.column(at).cast(field.type.value_type))
    return made.to_pandas(types_mapper=pandas.ArrowDtype)


def _make(part: Part, table: str, columns: Sequence[str], definitions: bytes | None, before: list[State] | None) -> Any:
    """Make a partition."""
    if table == "spans" and before is not None and definitions is not None:
        return _frame(_joined_spans(part, definitions, join_all(before)), columns)
    return _frame(part.table(table, definitions, columns), columns)


def _call(function: Callable[..., Any], *values: Any) -> tuple[Any, ...]:
    return (function, *values)


class _Plan:
    """The tasks that make a table of files."""

    def __init__(self, name: str, table: str, columns: Sequence[str], index: bool) -> None:
        self.graph: dict[Any, Any] = {}
        self.keys: list[Any] = []
        self.name = name
        self.table = table
        self.columns = tuple(columns)
        self.index = index

    def add(self, file: File, parts: Sequence[Part], definitions: bytes | None) -> None:
        """Add a trace, with what it defines if that is known."""
        name, number = self.name, file.number
        known: Any = None
        befores: list[Any] = [None] * len(parts)
        if len(parts) > 1:
            known = (f"{name}-definitions", number)
            pieces: list[Any] = [(f"{name}-defined", number, n) for n in range(len(parts))]
            if definitions is not None:
                self.graph[known] = _call(_join_definitions, [definitions])
            else:
                for key, part in zip(pieces, parts, strict=True):
                    self.graph[key] = _call(_definitions_of, part)
                level = 0
                while len(pieces) > _FAN:
                    pieces = self._tree(pieces, (f"{name}-defined", number, level), _join_definitions)
                    level += 1
                self.graph[known] = _call(_keep_definitions, file, pieces, self.index)
            if self.table == "spans":
                states: list[Any] = [(f"{name}-state", number, n) for n in range(len(parts) - 1)]
                for key, part in zip(states, parts, strict=False):
                    self.graph[key] = _call(_state_of, part, known)
                befores = self._before(states, [], (number,))
        for part, before in zip(parts, befores, strict=True):
            key = (name, len(self.keys))
            self.graph[key] = _call(_make, part, self.table, self.columns, known, before)
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
        sums = self._tree(states, (f"{self.name}-state", *place), join_all)
        befores: list[list[Any]] = []
        for n, its_before in enumerate(self._before(sums, before, (*place, -1))[:-1]):
            its = self._before(states[n * _FAN : (n + 1) * _FAN], its_before, (*place, n))
            befores += its if n == len(sums) - 1 else its[:-1]
        return befores


def _is_paged(file: File) -> bool:
    """Whether it can be read from any page on; that is told by its first pages."""
    if file.is_local:
        return _core.is_paged(os.fsencode(file.path))
    system, path = file.system()
    with tempfile.NamedTemporaryFile(suffix=".qvx") as beginning:
        beginning.write(system.cat_file(path, start=0, end=min(file.size, 4 * PAGE)))
        beginning.flush()
        return _core.is_paged(os.fsencode(beginning.name))


def _files_of(paths: str | os.PathLike[str] | Iterable[str | os.PathLike[str]], storage: dict[str, Any]) -> list[File]:
    fsspec = need("fsspec")
    from fsspec.implementations.local import LocalFileSystem

    options = tuple(sorted(storage.items()))
    files: list[File] = []
    for given in [paths] if isinstance(paths, (str, os.PathLike)) else paths:
        address = os.fspath(given)
        system, path = fsspec.core.url_to_fs(address, **storage)
        is_local = isinstance(system, LocalFileSystem)
        if system.isdir(path):
            found = {name: facts for name, facts in system.find(path, detail=True).items() if name.endswith(".qvx")}
        elif fsspec.core.has_magic(path):
            found = system.glob(path, detail=True)
        else:
            found = {path: system.info(path)}
        for name, facts in sorted(found.items()):
            version = str(facts.get("ETag") or facts.get("mtime") or facts.get("LastModified") or "")
            full = name if is_local else system.unstrip_protocol(name)
            files.append(File(len(files), full, int(facts["size"]), is_local, version, options))
    if not files:
        raise FileNotFoundError("there are no traces")
    return files


def plan(file: File, pages_per_partition: int) -> list[Part]:
    """Cut a paged trace into ranges of pages."""
    pages = max(1, -(-file.size // PAGE))
    starts = range(0, pages, pages_per_partition)
    return [Part(file, first, min(pages_per_partition, pages - first), first == starts[-1]) for first in starts]


def read(
    paths: str | os.PathLike[str] | Iterable[str | os.PathLike[str]],
    table: str = "spans",
    *,
    columns: Sequence[str] | None = None,
    pages_per_partition: int = 1024,
    storage_options: dict[str, Any] | None = None,
    index: bool = True,
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

    Raises ValueError for a table that is not made of ranges: functions, threads, losses.
    """
    if table not in _TABLES:
        raise ValueError(f"there is no {table} by ranges; these are: {', '.join(_TABLES)}")
    frames = need("dask.dataframe")
    every = [column.name for column in tables()[table][1]]
    wanted = list(columns) if columns is not None else every
    Table(_core.Tables([], []), table, ()).select(*wanted)  # raises for one that there is not
    files = _files_of(paths, storage_options or {})
    token = need("dask.base").tokenize(files, table, wanted, pages_per_partition)
    tasks = _Plan(f"quorvex-{token}", table, wanted, index)
    for file in files:
        parts = plan(file, pages_per_partition)
        if len(parts) > 1 and not _is_paged(file):
            parts = [replace(parts[0], is_last=True)]
        tasks.add(file, parts, _read_index(file) if len(parts) > 1 else None)
    empty = Table(_core.Tables([], []), table, tuple(wanted)).to_arrow()
    return frames.from_graph(
        tasks.graph, _frame(empty, wanted), (None,) * (len(tasks.keys) + 1), tasks.keys, tasks.name
    )


def by_function(spans: Any) -> Any:
    """Sum up calls by function: `calls`, `total_ns`, `self_ns`, `max_ns`. Takes spans of pandas and of Dask."""
    return spans.groupby("function").agg(
        calls=("duration_ns", "count"),
        total_ns=("duration_ns", "sum"),
        self_ns=("self_ns", "sum"),
        max_ns=("duration_ns", "max"),
    )
