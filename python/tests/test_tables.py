"""Tables: what packages take, queries, files."""

import subprocess
import sys

import pytest

import quorvex

pa = pytest.importorskip("pyarrow")


@pytest.fixture
def trace(tmp_path):
    path = tmp_path / "a.qvx"
    with quorvex.Writer(path) as out:
        out.put("Timestamp", tick=0, Frequency=1_000_000)
        for number, name in enumerate(("main", "work"), 1):
            out.put("FunctionDefine", tick=0, thread=7, FuncId=number, text=name)
        out.put("FunctionEnter", tick=10, thread=7, FuncId=1)
        for tick in (20, 40):
            out.put("FunctionEnter", tick=tick, thread=7, FuncId=2)
            out.put("FunctionLeave", tick=tick + 5, thread=7, FuncId=2)
        out.put("FunctionLeave", tick=100, thread=7, FuncId=1)
        out.put("Message", tick=101, text="done")
        out.put("EndOfTrace")
    return quorvex.open(path)


SPANS = [("work", 20, 5000, 1), ("work", 40, 5000, 1), ("main", 10, 80_000, 0)]
CHOSEN = ("function", "start_tick", "self_ns", "depth")


def test_packages_take_tables(trace):
    spans = trace.spans.select(*CHOSEN)
    rows = [dict(zip(CHOSEN, row, strict=True)) for row in SPANS]
    assert pa.table(spans).to_pylist() == spans.to_arrow().to_pylist() == rows
    assert pa.table(spans).to_pylist() == rows  # again
    assert pa.schema(spans) == pa.table(spans).schema
    pandas = pytest.importorskip("pandas")
    frame = spans.to_pandas()
    assert list(frame.itertuples(index=False, name=None)) == SPANS
    assert frame.groupby("function", observed=True).self_ns.sum().to_dict() == {"main": 80_000, "work": 10_000}
    if hasattr(pandas.DataFrame, "from_arrow"):
        assert list(pandas.DataFrame.from_arrow(spans).itertuples(index=False, name=None)) == SPANS
    polars = pytest.importorskip("polars")
    assert polars.DataFrame(spans).rows() == spans.to_polars().rows() == SPANS
    duckdb = pytest.importorskip("duckdb")
    assert duckdb.sql("select * from spans").fetchall() == SPANS


def test_columns_are_not_copied(trace):
    batch = next(trace.spans.to_batches())
    column = batch.column("start_tick").buffers()[1].address
    again = pa.table([batch.column("start_tick")], ["start_tick"]).to_pandas(
        types_mapper=pytest.importorskip("pandas").ArrowDtype
    )
    assert again.start_tick.array.__arrow_array__().chunk(0).buffers()[1].address == column


def test_parts_of_tables(trace):
    def ticks(table):
        return [row["start_tick"] for row in table.to_arrow().to_pylist()]

    assert ticks(trace.spans.between(30, 50)) == [40, 10]
    assert ticks(trace.spans.pages(1)) == []
    assert [batch.num_rows for batch in trace.spans.with_batches(2, threads=1).to_batches()] == [2, 1]
    with pytest.raises(ValueError, match="spans has no column nothing"):
        trace.spans.select("nothing")
    assert [name for name in quorvex.tables()] == list(trace.tables)
    for table in trace.tables.values():
        assert tuple(pa.table(table).column_names) == table.columns
        assert all(column.meaning for column in quorvex.tables()[table.name][1])
    assert trace.messages.to_arrow().column("text").to_pylist() == ["done"]


def test_errors_reach_the_reader(tmp_path, trace):
    (tmp_path / "gone.qvx").write_bytes((tmp_path / "a.qvx").read_bytes())
    gone = quorvex.open(tmp_path / "gone.qvx")
    (tmp_path / "gone.qvx").unlink()
    with pytest.raises((OSError, quorvex.TraceError), match="gone.qvx: No such file or directory"):
        gone.spans.to_arrow()


def test_queries(trace):
    pytest.importorskip("duckdb")
    assert trace.sql("select function, sum(self_ns) from spans group by all order by 2").fetchall() == [
        ("work", 10_000),
        ("main", 80_000),
    ]
    # The filter is on a column that is not asked for; rows are counted without any.
    assert trace.sql("select function from spans where depth = 0 and self_ns > 5").fetchall() == [("main",)]
    assert trace.sql("select count(*) from packets").fetchall() == [(9,)]
    relation = trace.sql("select count(*) from spans join functions using (function_id)")
    assert relation.fetchall() == relation.fetchall() == [(3,)]


def program(*words):
    done = subprocess.run([sys.executable, "-m", "quorvex", *map(str, words)], capture_output=True, text=True, check=False)
    return done.returncode, done.stdout, done.stderr


def test_files(tmp_path, trace):
    for name, read in (("a.parquet", "parquet.read_table"), ("a.arrow", "feather.read_table")):
        out = tmp_path / name
        assert program("table", "spans", tmp_path, "-o", out, "--columns", ",".join(CHOSEN)) == (0, "", "")
        package = pytest.importorskip("pyarrow." + read.partition(".")[0])
        back = package.read_table(out)
        assert [tuple(row.values()) for row in back.to_pylist()] == SPANS
        code, _, error = program("table", "spans", tmp_path, "-o", out)
        assert (code, error) == (1, f"quorvex: {out} exists (-f replaces it)\n")
        assert program("table", "functions", tmp_path, "-f", "-o", out) == (0, "", "")
        assert package.read_table(out).num_rows == 2
    out = tmp_path / "q.parquet"
    assert program("sql", "select function from spans where depth = 0", tmp_path, "-o", out) == (0, "", "")
    assert pa.parquet.read_table(out).to_pylist() == [{"function": "main"}]
    assert "main" in program("sql", "select function from spans", tmp_path)[1]
    assert program("table", "spans", tmp_path / "none", "-o", out, "-f")[2].endswith("none: No such file or directory\n")
    assert program("table", "spans", tmp_path, "-o", "a.csv")[2].startswith("quorvex: a.csv: the name must end in")
    assert program("nothing")[0] == 2
    assert sorted(path.name for path in tmp_path.iterdir()) == ["a.arrow", "a.parquet", "a.qvx", "q.parquet"]
