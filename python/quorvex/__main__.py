"""`python -m quorvex`: tables of traces, and answers to queries about them, as files."""

from __future__ import annotations

import argparse
import contextlib
import os
import sys
import tempfile
from collections.abc import Callable, Iterator
from typing import TYPE_CHECKING, Any

import quorvex
from quorvex._tables import need

if TYPE_CHECKING:
    import pyarrow

_GROUP_ROWS = 1 << 20  # in a row group of a Parquet file


def _write_parquet(batches: pyarrow.RecordBatchReader, path: str) -> None:
    table_of = need("pyarrow").Table.from_batches
    with need("pyarrow.parquet").ParquetWriter(path, batches.schema, compression="zstd") as file:
        group: list[pyarrow.RecordBatch] = []
        rows = 0
        for batch in batches:
            group.append(batch)
            rows += batch.num_rows
            if rows >= _GROUP_ROWS:
                file.write_table(table_of(group))
                group, rows = [], 0
        if group:
            file.write_table(table_of(group))


def _write_arrow(batches: pyarrow.RecordBatchReader, path: str) -> None:
    with need("pyarrow").ipc.new_file(path, batches.schema) as file:
        for batch in batches:
            file.write_batch(batch)


_FORMATS: dict[str, Callable[[Any, str], None]] = {
    ".parquet": _write_parquet,
    ".arrow": _write_arrow,
    ".feather": _write_arrow,
}


@contextlib.contextmanager
def _whole_file(path: str, force: bool) -> Iterator[str]:
    """Give a name to write to; the file appears under its own name once it is whole."""
    if os.path.exists(path) and not force:
        raise FileExistsError(f"{path} exists (-f replaces it)")
    handle, written = tempfile.mkstemp(suffix=".part", prefix=".", dir=os.path.dirname(path) or ".")
    os.close(handle)
    try:
        yield written
        mask = os.umask(0)
        os.umask(mask)
        os.chmod(written, 0o666 & ~mask)
        os.replace(written, path)
    except BaseException:
        os.unlink(written)
        raise


def _parser() -> argparse.ArgumentParser:
    parser = argparse.ArgumentParser(prog="python -m quorvex", description=__doc__)
    verbs = parser.add_subparsers(dest="verb", required=True)
    table = verbs.add_parser("table", help="write a table of traces to a file")
    table.add_argument("table", choices=list(quorvex.tables()), help="which one")
    table.add_argument("--columns", metavar="NAME,...", help="these columns alone, in this order")
    query = verbs.add_parser("sql", help="ask a query about the tables of traces; DuckDB answers")
    query.add_argument("query", help="as: select function, sum(self_ns) from spans group by all order by 2 desc")
    for verb in (table, query):
        verb.add_argument("traces", nargs="+", help="traces, or directories of them")
        verb.add_argument(
            "-o",
            "--output",
            required=verb is table,
            metavar="FILE",
            help="a file in Parquet (.parquet) or Arrow (.arrow)",
        )
        verb.add_argument("-f", "--force", action="store_true", help="replace a file that exists")
    return parser


def _run(options: argparse.Namespace) -> None:
    write = None
    if options.output is not None:
        write = _FORMATS.get(os.path.splitext(options.output)[1])
        if write is None:
            raise ValueError(f"{options.output}: the name must end in one of {', '.join(_FORMATS)}")
    trace = quorvex.open(options.traces)
    if options.verb == "sql":
        answer = trace.sql(options.query)
        if write is None:
            print(answer)
            return
        batches = answer.to_arrow_reader() if hasattr(answer, "to_arrow_reader") else answer.fetch_arrow_reader()
    else:
        table = trace.tables[options.table]
        if options.columns:
            table = table.select(*options.columns.split(","))
        batches = need("pyarrow").RecordBatchReader.from_stream(table)
    assert write is not None
    with _whole_file(options.output, options.force) as path:
        write(batches, path)


def main() -> int:
    """Run the program; 0 if all went well, 1 with a line on standard error if not."""
    options = _parser().parse_args()
    try:
        _run(options)
    except (OSError, ValueError, ImportError, RuntimeError) as error:
        print(f"quorvex: {error}", file=sys.stderr)
        return 1
    except KeyboardInterrupt:
        return 130
    return 0


if __name__ == "__main__":
    sys.exit(main())
