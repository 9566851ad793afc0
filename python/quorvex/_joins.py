"""Calls that cross the ends of page ranges: what is left of each range, and how neighbours are joined.

Of a thread, the enters and leaves of a range that are no whole call in it are a word. An enter that is followed by the
leave of the same function is taken out, as a call that has ended; what then is left of two neighbouring words is the
same whatever is joined first. Only at the root, where nothing is before, is decided what the leaves end that are left:
each ends the innermost call of its function, and what is open above ends with it.
"""

from __future__ import annotations

from collections.abc import Callable, Iterable, Sequence
from dataclasses import dataclass, field
from typing import TYPE_CHECKING, Any, NamedTuple

import numpy
import numpy.typing

from quorvex._tables import need

if TYPE_CHECKING:
    import pyarrow

__all__ = ["Names", "State", "finish", "join_all", "state_of"]

Numbers = numpy.typing.NDArray[numpy.int64]
Flags = numpy.typing.NDArray[numpy.bool_]


class Enter(NamedTuple):
    """A call that is entered."""

    function: int | None
    tick: int | None
    offset: int
    core: int | None
    process: int | None


class Leave(NamedTuple):
    """A call that is left."""

    function: int | None
    """None ends any."""
    tick: int | None
    offset: int
    core: int | None
    process: int | None


def _is_left_by(enter: Enter, leave: Leave) -> bool:
    return leave.function is None or leave.function == enter.function


def _length(start: int | None, end: int | None) -> int | None:
    return None if start is None or end is None else max(end - start, 0)


@dataclass
class Word:
    """What is left of a thread in a range, and of ranges that have been joined."""

    events: list[Enter | Leave] = field(default_factory=list)
    gaps: list[int] = field(default_factory=lambda: [0])
    """Ticks of calls that have ended before each event, on the level there, and behind the last."""
    last: int | None = None
    """The tick of its last call packet."""

    def joined(self, behind: Word) -> Word:
        """Give the word of both."""
        events, gaps = list(self.events), list(self.gaps)
        gap = gaps.pop() + behind.gaps[0]
        taken = 0
        while events and taken < len(behind.events):
            enter, leave = events[-1], behind.events[taken]
            if not (isinstance(enter, Enter) and isinstance(leave, Leave) and _is_left_by(enter, leave)):
                break
            events.pop()
            gap = gaps.pop() + (_length(enter.tick, leave.tick) or 0) + behind.gaps[taken + 1]
            taken += 1
        return Word(
            events + behind.events[taken:],
            [*gaps, gap, *behind.gaps[taken + 1 :]],
            self.last if behind.last is None else behind.last,
        )


State = dict[int, Word]
"""Of each thread, by its key and in the order in which they appear, its word."""


def _joined(before: State, behind: State) -> State:
    both = dict(before)
    for key, word in behind.items():
        both[key] = both[key].joined(word) if key in both else word
    return both


def join_all(states: Iterable[State]) -> State:
    """Join neighbours, in their order."""
    whole: State = {}
    for state in states:
        whole = _joined(whole, state)
    return whole


@dataclass
class _Open:
    enter: Enter
    callees: int = 0


class _Row(NamedTuple):
    """A row that comes of a join."""

    at: int
    """Where it comes: the offset of the leave that ends it, or behind all."""
    enter: Enter | None
    leave: Leave | None
    end: int | None
    callees: int
    depth: int
    parent: int | None


_END = (1 << 63) - 1


class _Thread:
    """What is open in a thread, as the whole trace has it."""

    def __init__(self) -> None:
        self.stack: list[_Open] = []

    def count(self, ticks: int) -> None:
        if self.stack:
            self.stack[-1].callees += ticks

    def end(self, at: int, leave: Leave | None, end: int | None) -> _Row:
        """End the innermost call."""
        call = self.stack.pop()
        self.count(_length(call.enter.tick, end) or 0)
        parent = self.stack[-1].enter.function if self.stack else None
        return _Row(at, call.enter, leave, end, call.callees, len(self.stack), parent)

    def take(self, word: Word, rows: list[_Row], each: Callable[[int], None] = lambda _: None) -> None:
        """Go through a word; `each` is called behind each event, with its number."""
        self.count(word.gaps[0])
        for number, event in enumerate(word.events):
            if isinstance(event, Enter):
                self.stack.append(_Open(event))
            else:
                self._leave(event, rows)
            each(number)
            self.count(word.gaps[number + 1])

    def _leave(self, leave: Leave, rows: list[_Row]) -> None:
        ends = next((n for n, call in enumerate(reversed(self.stack), 1) if _is_left_by(call.enter, leave)), 0)
        if ends == 0:
            rows.append(_Row(leave.offset, None, leave, leave.tick, 0, len(self.stack), None))
        for left in range(ends, 0, -1):
            rows.append(self.end(leave.offset, leave if left == 1 else None, leave.tick))


class _Range:
    """The rows of a range of pages, with their words."""

    def __init__(self, spans: pyarrow.Table) -> None:
        def numbers(name: str) -> Numbers:
            column = spans.column(name)
            if column.type == need("pyarrow").bool_():
                column = column.cast("int8")
            return numpy.asarray(column.fill_null(-1).to_numpy(), dtype=numpy.int64)

        entered, left = numbers("has_enter") == 1, numbers("has_leave") == 1
        self.is_whole: Flags = entered & left
        is_event: Flags = entered ^ left
        thread = numbers("thread")
        # Of a thread that is not known, what runs on a core is taken for one.
        key = numpy.where(thread >= 0, thread, (1 << 32) + numbers("core"))
        enter_offset, leave_offset = numbers("enter_offset"), numbers("leave_offset")
        start, end, depth = numbers("start_tick"), numbers("end_tick"), numbers("depth")
        known = numpy.flatnonzero(self.is_whole | is_event)
        offset = numpy.where(entered, enter_offset, leave_offset)
        self.keys, place = numpy.unique(key[known], return_inverse=True)
        # All rows of a thread in their order; the first of its segments begins with it, others behind an event.
        order = numpy.lexsort((offset[known], place))
        known, place = known[order], place[order]
        self.events = known[is_event[known]]
        segment = numpy.cumsum(is_event[known]) + place
        self.first_segment = numpy.searchsorted(place[is_event[known]], numpy.arange(len(self.keys))) + numpy.arange(
            len(self.keys)
        )
        whole = self.is_whole[known]
        self.whole, self.segment = known[whole], segment[whole]
        count = len(self.events) + len(self.keys)
        self.lowest = numpy.full(count, numpy.iinfo(numpy.int64).max)
        numpy.minimum.at(self.lowest, self.segment, depth[self.whole])
        self.is_outermost = depth[self.whole] == self.lowest[self.segment]
        gaps = numpy.zeros(count, dtype=numpy.int64)
        outermost = self.whole[self.is_outermost]
        length = numpy.where((start >= 0) & (end >= 0), numpy.maximum(end - start, 0), 0)
        numpy.add.at(gaps, self.segment[self.is_outermost], length[outermost])
        self.depth, self.leave_offset = depth, leave_offset

        columns = ("function_id", "start_tick", "end_tick", "core", "process")
        taken = spans.select(columns).take(self.events).to_pylist()
        events: list[Enter | Leave] = [
            Enter(row["function_id"], row["start_tick"], int(at), row["core"], row["process"])
            if entered[number]
            else Leave(row["function_id"], row["end_tick"], int(at), row["core"], row["process"])
            for number, at, row in zip(self.events, offset[self.events], taken, strict=True)
        ]
        self.words: list[Word] = []
        for number in range(len(self.keys)):
            first = int(self.first_segment[number])
            last = int(self.first_segment[number + 1]) if number + 1 < len(self.keys) else count
            self.words.append(Word(events[first - number : last - number - 1], gaps[first:last].tolist()))
        self._find_last(known, place, [(enter_offset, start), (leave_offset, end)])
        begins = numpy.full(len(self.keys), _END)
        numpy.minimum.at(begins, place, offset[known])
        self.in_order = numpy.argsort(begins, kind="stable").tolist()

    def _find_last(self, known: Numbers, place: Numbers, packets: Sequence[tuple[Numbers, Numbers]]) -> None:
        """Find the tick of the last call packet of each thread, of packets by their offsets and ticks."""
        if len(known) == 0:
            return
        begins = numpy.searchsorted(place, numpy.arange(len(self.keys)))
        lasts = [
            numpy.maximum.reduceat(numpy.where(tick[known] >= 0, offset[known], -1), begins) for offset, tick in packets
        ]
        for (offset, tick), last, other in zip(packets, lasts, reversed(lasts), strict=True):
            found = numpy.flatnonzero((offset[known] == last[place]) & (last[place] > other[place]))
            for row, at in zip(known[found].tolist(), place[found].tolist(), strict=True):
                self.words[at].last = int(tick[row])

    def state(self) -> State:
        return {int(self.keys[number]): self.words[number] for number in self.in_order}


def state_of(spans: pyarrow.Table) -> State:
    """Give what is left of a range, of its rows of spans."""
    return _Range(spans).state()


COLUMNS = (
    "thread",
    "core",
    "process",
    "function_id",
    "start_tick",
    "end_tick",
    "depth",
    "has_enter",
    "has_leave",
    "enter_offset",
    "leave_offset",
)
"""What is to be known of the rows of spans to join them."""


class Names(NamedTuple):
    """What a file calls things, by their numbers."""

    functions: dict[int, str]
    threads: dict[int, str]


def finish(
    spans: pyarrow.Table,
    before: State,
    columns: Sequence[str],
    *,
    is_last: bool,
    nanoseconds: Callable[[int], int | None],
    names: Names,
) -> pyarrow.Table:
    """Give the rows of a range as they are in the table of the whole trace, knowing what is left of all before.

    A call that crosses is a row where it ends. `spans` has COLUMNS and those that are wanted; `nanoseconds` converts
    ticks.
    """
    pyarrow, compute = need("pyarrow"), need("pyarrow.compute")
    spans = spans.combine_chunks()
    its = _Range(spans)
    threads: dict[int, _Thread] = {}
    for key, word in before.items():
        threads[key] = _Thread()
        threads[key].take(word, [])
    rows: list[_Row] = []
    height = numpy.zeros(len(its.lowest), dtype=numpy.int64)
    parent = numpy.full(len(its.lowest), -1, dtype=numpy.int64)
    keys: list[int] = []
    for number in its.in_order:
        key = int(its.keys[number])
        thread = threads.setdefault(key, _Thread())
        first = int(its.first_segment[number])

        def place(event: int, first: int = first, thread: _Thread = thread) -> None:
            segment = first + event + 1
            height[segment] = len(thread.stack)
            top = thread.stack[-1].enter.function if thread.stack else None
            parent[segment] = -1 if top is None else top

        place(-1)
        thread.take(its.words[number], rows, place)
        keys += [key] * (len(rows) - len(keys))
    if is_last:
        whole = _joined(before, its.state())
        for key, word in whole.items():
            thread = threads[key]
            while thread.stack:
                rows.append(thread.end(_END, None, word.last))
            keys += [key] * (len(rows) - len(keys))

    table = spans.select(list(columns))

    def put(name: str, values: Any) -> None:
        nonlocal table
        at = table.schema.get_field_index(name)
        if at >= 0:
            table = table.set_column(at, name, values)

    depth = numpy.array(its.depth)
    depth[its.whole] += height[its.segment] - its.lowest[its.segment]
    put("depth", pyarrow.array(depth, "int32"))
    # Rows that are the outermost between two events have the parent that is open there.
    outermost, top = its.whole[its.is_outermost], parent[its.segment[its.is_outermost]]
    if "parent_id" in table.column_names:
        parent_id = spans.column("parent_id").fill_null(-1).to_numpy().copy()
        parent_id[outermost] = top
        put("parent_id", pyarrow.array(parent_id, mask=parent_id < 0))
    for name in {"thread_name", "function", "parent"}.intersection(columns):
        put(name, spans.column(name).cast("string"))
    if "parent" in table.column_names:
        ids, which = numpy.unique(top, return_inverse=True)
        named = pyarrow.array([names.functions.get(int(each)) for each in ids], "string").take(pyarrow.array(which))
        is_outermost = numpy.zeros(len(depth), dtype=bool)
        is_outermost[outermost] = True
        order = numpy.argsort(outermost)
        values = table.column("parent").combine_chunks()
        put("parent", compute.replace_with_mask(values, pyarrow.array(is_outermost), named.take(pyarrow.array(order))))
    if not its.is_whole.all():
        table = table.filter(pyarrow.array(its.is_whole))
    if not rows:
        return table
    file = spans.column("file")[0].as_py() if "file" in columns and spans.num_rows else 0
    made = [_as_row(row, key, file, nanoseconds, names) for row, key in zip(rows, keys, strict=True)]
    more = pyarrow.Table.from_pylist(made, schema=table.schema)
    at = numpy.concatenate(
        [its.leave_offset[its.is_whole], numpy.array([row.at for row in rows], dtype=numpy.int64)],
    )
    whole = pyarrow.concat_tables([table, more]).combine_chunks()
    return whole.take(pyarrow.array(numpy.argsort(at, kind="stable")))


def _as_row(
    row: _Row, key: int, file: int, nanoseconds: Callable[[int], int | None], names: Names
) -> dict[str, object]:
    first = row.enter or row.leave
    assert first is not None
    start = row.enter.tick if row.enter else None
    length = _length(start, row.end)

    def in_ns(ticks: int | None) -> int | None:
        return None if ticks is None else nanoseconds(ticks)

    own = None if length is None else length - min(row.callees, length)
    return {
        "file": file,
        "thread": key if key < 1 << 32 else None,
        "thread_name": names.threads.get(key),
        "core": first.core,
        "process": first.process,
        "function_id": first.function,
        "function": None if first.function is None else names.functions.get(first.function),
        "start_tick": start,
        "end_tick": row.end,
        "duration_ticks": length,
        "self_ticks": own,
        "callee_ticks": row.callees,
        "start_ns": in_ns(start),
        "end_ns": in_ns(row.end),
        "duration_ns": in_ns(length),
        "self_ns": in_ns(own),
        "depth": row.depth,
        "parent_id": row.parent,
        "parent": None if row.parent is None else names.functions.get(row.parent),
        "has_enter": row.enter is not None,
        "has_leave": row.leave is not None,
        "enter_offset": row.enter.offset if row.enter else None,
        "leave_offset": row.leave.offset if row.leave else None,
    }
