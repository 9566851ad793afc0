"""Traces by ranges of pages, wherever they are: for machines that share the work."""

from __future__ import annotations

import contextlib
import json
import os
import tempfile
from collections.abc import Iterable, Sequence
from dataclasses import dataclass, replace
from typing import TYPE_CHECKING, Any

from quorvex import _core
from quorvex._joins import COLUMNS, Names, State, finish, join_all, state_of
from quorvex._tables import ALL, Table, need, tables

if TYPE_CHECKING:
    import pyarrow

Paths = str | os.PathLike[str] | Iterable[str | os.PathLike[str]]

PAGE = 256 * 1024
_MOST = (1 << 63) - 1
_TABLES = ("spans", "packets", "counters", "variables", "events", "messages", "states")


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
class Wanted:
    """What is to be made of traces."""

    table: str
    columns: tuple[str, ...]
    first_tick: int = 0
    """Rows are from that tick on; spans are those that reach into it,"""
    end_tick: int = ALL
    """and before that one."""
    index: bool = True
    """What traces define is left beside them."""

    @staticmethod
    def of(table: str, columns: Sequence[str] | None, first_tick: int, end_tick: int, index: bool) -> Wanted:
        """Check what is asked for; without columns, all of them."""
        return Wanted(table, tuple(columns_of(table, columns)), first_tick, end_tick, index)

    @property
    def is_spans(self) -> bool:
        """Calls cross ranges."""
        return self.table == "spans"

    @property
    def is_of_all_time(self) -> bool:
        """No time is chosen."""
        return (self.first_tick, self.end_tick) == (0, ALL)


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

    def within(self, wanted: Wanted) -> Part:
        """Give the pages of it that can have packets of the time that is wanted, as the beginnings of some tell.

        Where these do not follow one another in time, it is all.
        """
        if wanted.is_of_all_time or (self.is_whole and (self.file.is_local or not is_paged(self.file))):
            return self  # of a whole file that is here, the library looks at the times
        behind = self.first + self.count
        begins = list(range(self.first, behind, -(-self.count // _PROBES)))
        found = _first_ticks(self.file, begins if self.is_last else [*begins, behind])
        ticks = [tick for tick in found if tick is not None]
        if len(ticks) < len(found) or ticks != sorted(ticks):
            return self
        ticks[0] = ticks[0] if self.first else 0  # what is defined may be older
        ends = ticks[1:] + [ALL] * self.is_last
        kept = [
            n
            for n, (tick, end) in enumerate(zip(ticks, ends, strict=False))
            if tick < wanted.end_tick and end >= wanted.first_tick
        ]
        if not kept:
            return replace(self, count=0)
        last = kept[-1] + 1
        end = begins[last] if last < len(begins) else behind
        first = begins[kept[0]]
        return Part(self.file, first, end - first, self.is_last and end == behind)

    def ends_before(self, wanted: Wanted) -> bool:
        """Whether all in it is before the time that is wanted, as far as pages follow one another in time."""
        if wanted.first_tick == 0 or self.is_last:
            return False
        begin, end = _first_ticks(self.file, [self.first, self.first + self.count])
        return begin is not None and end is not None and begin <= end < wanted.first_tick

    def tables(self, definitions: bytes | None) -> _core.Tables:
        """Make the tables of this range, from its bytes alone if they are elsewhere."""
        path = os.fsencode(self.file.path)
        known = [] if definitions is None else [definitions]
        if self.file.is_local:
            return _core.Tables([path], known)
        return _core.Tables([(path, self.content(), self.first * PAGE)], known)

    def table(self, its: _core.Tables, wanted: Wanted) -> pyarrow.Table:
        """Read a table of this range, of its tables."""
        # One thread: others work on other partitions.
        whole = Table(its, wanted.table, wanted.columns, threads=1).between(wanted.first_tick, wanted.end_tick)
        made = (whole if self.is_whole else whole.pages(self.first, self.count)).to_arrow()
        at = made.schema.get_field_index("file")
        if at < 0:
            return made
        number = need("pyarrow").array([self.file.number] * made.num_rows, "int32")
        return made.set_column(at, made.schema.field(at), number)


_PROBES = 16
"""Pages of a range whose beginnings are looked at for their time."""
_BEGINNING = 8192
"""Bytes of them."""


def _first_ticks(file: File, pages: Sequence[int]) -> list[int | None]:
    """Tell the first ticks of pages; None where none is found, or it cannot be read."""
    system, path = file.system()
    starts = [page * PAGE for page in pages]
    ends = [min(start + _BEGINNING, file.size) for start in starts]
    found = system.cat_ranges([path] * len(starts), starts, ends, on_error="return")
    return [_core.first_tick(each) if isinstance(each, bytes) else None for each in found]


def _index_path(path: str) -> str:
    return path + ".index"


def _head_of(content: bytes) -> object:
    """Tell what an index is of; None for what is none."""
    try:
        head = json.loads(content.partition(b"\n")[0])
    except ValueError:
        return None
    return head if isinstance(head, dict) and head.keys() == {"size", "version"} else None


def _read_index(file: File) -> bytes | None:
    """Read what an earlier run has left beside the trace; None where there is nothing that fits it."""
    system, path = file.system()
    try:
        content: bytes = system.cat_file(_index_path(path))
    except OSError:
        return None
    fits = _head_of(content) == {"size": file.size, "version": file.version}
    return content.partition(b"\n")[2] if fits else None


def _write_index(file: File, definitions: bytes) -> None:
    """Leave it for later runs and other machines, where that is allowed, and nothing else stands there."""
    system, path = file.system()
    try:
        if _head_of(system.cat_file(_index_path(path))) is None:
            return
    except FileNotFoundError:
        pass
    except OSError:
        return
    head = json.dumps({"size": file.size, "version": file.version}).encode()
    with contextlib.suppress(OSError):
        system.pipe_file(_index_path(path), head + b"\n" + definitions)


@dataclass(frozen=True)
class Look:
    """What a first look at a range finds, and at neighbours that are joined."""

    definitions: bytes
    state: State


def look(part: Part, definitions: bool, state: bool) -> Look:
    """Look at a range, once: for what it defines, and what it leaves open, as far as that is wanted."""
    made = part.tables(None)
    if definitions and part.file.is_local:
        made = _core.Tables([(os.fsencode(part.file.path), part.content(), part.first * PAGE)], [])
    return Look(
        made.definitions(0, 1) if definitions else b"",
        state_of(Table(made, "spans", COLUMNS, part.first, part.count, threads=1).to_arrow()) if state else {},
    )


def join_looks(looks: Sequence[Look]) -> Look:
    """Join those of neighbours, in their order."""
    definitions = b"".join(each.definitions for each in looks)
    if definitions:
        definitions = _core.Tables([(b"definitions", definitions, 0)], []).definitions(0, 1)
    return Look(definitions, join_all(each.state for each in looks))


def definitions_of(file: File, looks: Sequence[Look], index: bool) -> bytes:
    """Give what a file defines; with `index` it is left beside the trace, where that is allowed."""
    definitions = join_looks([replace(each, state={}) for each in looks]).definitions
    if index:
        _write_index(file, definitions)
    return definitions


def _joined_spans(part: Part, its: _core.Tables, wanted: Wanted, definitions: bytes, before: State) -> pyarrow.Table:
    frequency = _core.clock_of(definitions)
    named = Table(_core.Tables([(b"definitions", b"", 0)], [definitions]), "functions", ("function_id", "function"))
    functions = {row["function_id"]: row["function"] for row in named.to_arrow().to_pylist()}
    needed = tuple(dict.fromkeys([*wanted.columns, *COLUMNS]))
    made = finish(
        part.table(its, Wanted("spans", needed)),
        before,
        needed,
        is_last=part.is_last,
        nanoseconds=lambda ticks: None if frequency is None else ticks * 10**9 // frequency,
        names=Names(functions, _core.thread_names(definitions)),
    )
    return made if wanted.is_of_all_time else _within(made, wanted)


def _within(spans: pyarrow.Table, wanted: Wanted) -> pyarrow.Table:
    """Choose the calls that reach into the time that is wanted."""
    compute = need("pyarrow.compute")
    start, end = spans.column("start_tick"), spans.column("end_tick")
    begins_before = compute.fill_null(compute.less(start, wanted.first_tick), True)
    has_ended = compute.fill_null(compute.less_equal(end, wanted.first_tick), False)
    begins_behind = compute.fill_null(compute.greater_equal(start, min(wanted.end_tick, _MOST)), False)
    return spans.filter(compute.invert(compute.or_(compute.and_(begins_before, has_ended), begins_behind)))


def make(part: Part, wanted: Wanted, definitions: bytes | None, before: Sequence[Look] | None) -> pyarrow.Table:
    """Make the rows of a range, knowing what its file defines, and for spans what there is before."""
    if wanted.is_spans and part.ends_before(wanted):
        return empty(wanted)
    if not wanted.is_spans:
        part = part.within(wanted)
    if part.count == 0:
        return empty(wanted)
    if not wanted.is_spans or (part.is_whole and part.file.is_local):
        return plain(part.table(part.tables(definitions), wanted), wanted.columns)
    its = part.tables(definitions)
    if definitions is None:
        definitions = its.definitions(0, 1)
    state = join_all(each.state for each in before or [])
    return plain(_joined_spans(part, its, wanted, definitions, state), wanted.columns)


def plain(made: pyarrow.Table, columns: Sequence[str]) -> pyarrow.Table:
    """Give these columns with names as texts, and nulls allowed, so that they are alike in all ranges."""
    arrow: Any = need("pyarrow")

    def simple(kind: Any) -> Any:
        return kind.value_type if arrow.types.is_dictionary(kind) else kind

    made = made.select(list(columns))
    return made.cast(arrow.schema([(field.name, simple(field.type)) for field in made.schema]))


def empty(wanted: Wanted) -> pyarrow.Table:
    """Give a table without rows."""
    return plain(Table(_core.Tables([], []), wanted.table, wanted.columns).to_arrow(), wanted.columns)


def columns_of(table: str, columns: Sequence[str] | None) -> list[str]:
    """Check which are wanted; all where that is not said."""
    if table not in _TABLES:
        raise ValueError(f"there is no {table} by ranges; these are: {', '.join(_TABLES)}")
    every = [column.name for column in tables()[table][1]]
    if columns is None:
        return every
    return list(Table(_core.Tables([], []), table, ()).select(*columns).columns)


def is_paged(file: File) -> bool:
    """Whether it can be read from any page on; that is told by its first pages."""
    if file.is_local:
        return _core.is_paged(os.fsencode(file.path))
    system, path = file.system()
    with tempfile.NamedTemporaryFile(suffix=".qvx") as beginning:
        beginning.write(system.cat_file(path, start=0, end=min(file.size, 4 * PAGE)))
        beginning.flush()
        return _core.is_paged(os.fsencode(beginning.name))


def files_of(paths: Paths, storage: dict[str, Any]) -> list[File]:
    """Find the files; a directory stands for all `*.qvx` in it."""
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


def plan(file: File, pages: int) -> list[Part]:
    """Cut a paged trace into ranges of so many pages."""
    count = max(1, -(-file.size // PAGE))
    starts = range(0, count, pages)
    return [Part(file, first, min(pages, count - first), first == starts[-1]) for first in starts]


def parts_of(file: File, pages: int) -> list[Part]:
    """Cut a trace, if it is one of pages; that is told by its beginning."""
    parts = plan(file, pages)
    return parts if len(parts) == 1 or is_paged(file) else [replace(parts[0], is_last=True)]


def known_definitions(parts: Sequence[Part]) -> bytes | None:
    """Give what an earlier run has left beside a trace, where that is needed and there is something."""
    return _read_index(parts[0].file) if len(parts) > 1 else None


@dataclass
class Plan:
    """The ranges of traces, and what is known of these."""

    wanted: Wanted
    parts: list[list[Part]]
    """Of each trace."""
    known: list[bytes | None]
    """What each defines, where an earlier run has left that."""

    @staticmethod
    def of(paths: Paths, wanted: Wanted, pages: int, storage: dict[str, Any] | None) -> Plan:
        """Find the traces, and cut them into ranges of so many pages."""
        parts = [parts_of(file, pages) for file in files_of(paths, storage or {})]
        return Plan(wanted, parts, [known_definitions(each) for each in parts])
