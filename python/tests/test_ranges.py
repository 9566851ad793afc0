"""Tables by ranges of pages, by Dask and by Spark: the rows and the sums of one machine."""

import contextlib
import os
import random
import re
import shutil
import subprocess
import sys
import time
from types import SimpleNamespace

import pytest

import quorvex

dask = pytest.importorskip("dask")
pytest.importorskip("dask.dataframe")
import quorvex.dask  # noqa: E402
from quorvex import _ranges  # noqa: E402

PAGE = 256 * 1024
NONE = 0xFFFFFFFF  # no thread, no function


def begun(path, **options):
    """Begins a trace: what it names is named on its first page."""
    out = quorvex.Writer(path, **options)
    out.put("Timestamp", tick=0, Frequency=3_000_000_000)
    for function in range(1, 6):
        out.put("FunctionDefine", tick=0, FuncId=function, text=f"f{function}")
    for counter in (1, 2):
        out.put("CounterDefine", tick=0, CntrId=counter, Dim=0, text=f"counter {counter}")
    for thread in (1, 2):
        out.put("Message", tick=0, text=f"quorvex.thread pid=1 tid={thread} name=thread {thread}")
    return out


def write(path, seed, packets=8_000, wrong=0.0, deep=False, texts=True, **options):
    """Writes calls of some pages that cross these by chance, some packets lost or too many, with messages between."""
    random_ = random.Random(seed)
    with begun(path, **options) as out:
        stacks = {thread: [] for thread in (1, 2, 3, NONE)}
        for tick in range(packets):
            thread = random_.choice(list(stacks))
            stack = stacks[thread]
            where = {"tick": 2 * tick, "thread": thread, "core": 5 if thread == NONE else tick % 2}
            if tick % 500 == 0:
                out.put("CounterValue", CntrId=1 + tick // 500 % 2, Value=tick, **where)
            if texts and tick % 20 == 0:
                out.put("Message", tick=2 * tick, text="x" * 4000)
            if len(stack) > (1000 if deep else 6) or (stack and random_.random() < (0.1 if deep else 0.5)):
                function = stack.pop()
                if random_.random() < wrong:
                    function = random_.choice([NONE, 1, 2, 3, 4, 5])
                if random_.random() >= wrong:
                    out.put("FunctionLeave", FuncId=function, **where)
            else:
                stack.append(random_.randint(1, 5))
                out.put("FunctionEnter", FuncId=stack[-1], **where)
        out.put("EndOfTrace")
    return path


def crossing(path):
    """Writes calls each of which is entered on one page and left on another one."""
    with begun(path) as out:
        for tick, step in enumerate([1, 2, 3, -3, 4, -4, -2, 5, 1, -1, -5, -1]):
            for thread in (1, 2, 3):
                kind = "FunctionEnter" if step > 0 else "FunctionLeave"
                out.put(kind, FuncId=abs(step), tick=10 * tick + thread, thread=thread, core=0)
            for _ in range(5):
                out.put("Message", tick=10 * tick + 3, text="x" * 60_000)


def relative(path):
    """Writes calls that tell their times and threads by what is before them, once for all pages."""
    random_, depth = random.Random(9), 0
    with begun(path) as out:
        out.put("Sync", tick=1000, thread=2, core=1, address=0)
        for number in range(20_000):
            if number % 20 == 0:
                out.put("Message", tick=1000 + 3 * number, text="x" * 2000)
            step = 1 if depth == 0 or (depth < 50 and random_.random() < 0.5) else -1
            depth += step
            out.put("RelFunctionEnter" if step > 0 else "RelFunctionLeave", RelTick=3, RelIP=1, FuncId=1 + depth % 5)


def damaged(path):
    """Writes calls, and spoils some packets of two pages."""
    content = bytearray(write(path, 1, wrong=0.01).read_bytes())
    for page, size in ((1, 5000), (4, 1)):
        content[page * PAGE + 300 : page * PAGE + 300 + size] = b"\xee" * size
    path.write_bytes(content)


CASES = {
    "calls": lambda path: write(path, 0),
    "some lost": lambda path: write(path, 10, wrong=0.01),
    "many lost": lambda path: write(path, 300, wrong=0.3),
    "deep": lambda path: write(path, 1, deep=True),
    "deep, some lost": lambda path: write(path, 2, wrong=0.001, deep=True),
    "every call crosses": crossing,
    "relative": relative,
    "damaged": damaged,
    "no pages": lambda path: write(path, 3, packets=4_000, paged=False),
}


@pytest.fixture(scope="module", params=CASES)
def case(request, tmp_path_factory):
    path = tmp_path_factory.mktemp("case") / "a.qvx"
    CASES[request.param](path)
    return SimpleNamespace(name=request.param, path=path, pages=-(-path.stat().st_size // PAGE))


def calls_of(path):
    """The calls of a trace, by the rules alone: thread, its name, function, start, end, depth."""
    stacks, last, rows = {}, {}, []

    def end(key, tick, level):
        function, name, start = stacks[key].pop()
        rows.append((*key[:2], name, start, tick, level))

    for packet in quorvex.open(path):
        if not packet.kind.endswith(("FunctionEnter", "FunctionLeave")):
            continue
        thread = packet.thread if packet.thread != NONE else None
        key = (thread, f"thread {thread}" if thread in (1, 2) else None, packet.core if thread is None else 0)
        stack = stacks.setdefault(key, [])
        last[key] = packet.tick
        if packet.kind.endswith("Enter"):
            stack.append((packet.FuncId, packet.name, packet.tick))
            continue
        ends = [n for n, (function, *_) in enumerate(stack) if packet.FuncId in (NONE, function)]
        if not ends:
            rows.append((*key[:2], packet.name if packet.FuncId != NONE else None, None, packet.tick, len(stack)))
        while ends and len(stack) > ends[-1]:
            end(key, packet.tick, len(stack) - 1)
    for key, stack in stacks.items():
        while stack:
            end(key, last[key], len(stack) - 1)
    return rows


def rows_of(table):
    """The rows of one machine."""
    return [tuple(row.values()) for row in _ranges.plain(table.to_arrow(), table.columns).to_pylist()]


def test_one_machine_tells_the_calls(case):
    spans = quorvex.open(case.path).spans
    assert rows_of(spans.select("thread", "thread_name", "function", "start_tick", "end_tick", "depth")) == calls_of(
        case.path
    )
    if case.name == "every call crosses":
        places = rows_of(spans.select("enter_offset", "leave_offset"))
        assert all(enter is None or enter // PAGE != leave // PAGE for enter, leave in places)


class ByDask:
    """Dask in this process, or in two others."""

    read = staticmethod(quorvex.dask.read)
    statistics = quorvex.dask

    @staticmethod
    def partitions(frame):
        return frame.npartitions

    @staticmethod
    def rows(frame):
        frame = frame if frame.index.name is None else frame.reset_index()
        made = frame.compute()
        made = made if made.index.names == [None] else made.reset_index()
        assert all(made.dtypes[name] == kind for name, kind in frame.dtypes.items())
        arrow = pytest.importorskip("pyarrow").Table.from_pandas(made, preserve_index=False)
        return [tuple(row.values()) for row in arrow.to_pylist()]


@contextlib.contextmanager
def dask_here(_):
    with dask.config.set(scheduler="synchronous"):
        yield ByDask


@contextlib.contextmanager
def dask_processes(_):
    distributed = pytest.importorskip("distributed")
    with (
        distributed.LocalCluster(n_workers=2, threads_per_worker=1, processes=True, dashboard_address=None) as cluster,
        distributed.Client(cluster),
    ):
        yield ByDask


@contextlib.contextmanager
def standalone(place):
    """A master and two workers on this machine, and the address of the master."""
    import pyspark

    start = [os.path.join(os.path.dirname(pyspark.__file__), "bin", "spark-class")]
    log = place / "master.log"
    children = []

    def begin(name, *words, to):
        words = [*start, f"org.apache.spark.deploy.{name}", *map(str, words)]
        children.append(subprocess.Popen(words, stdout=to, stderr=subprocess.STDOUT))

    def wait_for(pattern, count=1):
        for _ in range(600):
            found = re.findall(pattern, log.read_text())
            if len(found) >= count:
                return found[0]
            time.sleep(0.1)
        raise TimeoutError(log.read_text())

    try:
        with log.open("w") as to:
            begin("master.Master", "--host", "127.0.0.1", "--port", 0, "--webui-port", 0, to=to)
            address = wait_for(r"spark://127\.0\.0\.1:\d+")
            for number in (1, 2):
                work = place / str(number)
                begin("worker.Worker", "-c", 1, "-m", "1g", "--webui-port", 0, "-d", work, address, to=subprocess.DEVNULL)
            wait_for("Registering worker", 2)
        yield address
    finally:
        for child in reversed(children):
            child.terminate()
            child.wait()


@contextlib.contextmanager
def spark_on(cluster):
    pytest.importorskip("pyspark", minversion="4.0")
    if not shutil.which("java"):
        pytest.skip("there is no Java")
    os.environ.update(SPARK_LOCAL_IP="127.0.0.1", PYSPARK_PYTHON=sys.executable)
    from pyspark.sql import SparkSession

    import quorvex.spark

    with cluster as master:
        session = (
            SparkSession.builder.master(master)
            .config("spark.ui.enabled", "false")
            .config("spark.sql.shuffle.partitions", "2")
            .getOrCreate()
        )
        try:
            assert session.sparkContext.master == master
            quorvex.spark.register(session)

            class BySpark:
                statistics = quorvex.spark

                @staticmethod
                def read(*values, **options):
                    return quorvex.spark.read(session, *values, **options)

                @staticmethod
                def partitions(frame):
                    return frame.rdd.getNumPartitions()

                @staticmethod
                def rows(frame):
                    return [tuple(row) for row in frame.collect()]

            BySpark.session = session
            yield BySpark
        finally:
            session.stop()


ENGINES = {
    "dask": dask_here,
    "dask processes": dask_processes,
    "spark": lambda _: spark_on(contextlib.nullcontext("local[2]")),
    "spark standalone": lambda place: spark_on(standalone(place)),
}


@pytest.fixture(scope="session", params=ENGINES)
def engine(request, tmp_path_factory):
    with ENGINES[request.param](tmp_path_factory.mktemp("engine")) as its:
        yield its


def same(engine, path, table="spans", without=("process",), **options):
    """Compares with what one reader tells; gives how many partitions there are."""
    whole = quorvex.open(path).tables[table]
    columns = [name for name in whole.columns if name not in without]
    frame = engine.read(path, table, columns=columns, **options)
    ticks = {name: options[name] for name in ("first_tick", "end_tick") if name in options}
    assert engine.rows(frame) == rows_of(whole.select(*columns).between(**ticks))
    return engine.partitions(frame)


def test_calls_are_those_of_one_machine(engine, case):
    is_paged = case.name != "no pages"
    assert same(engine, case.path, pages_per_partition=1, index=False) == (case.pages if is_paged else 1)
    assert case.pages > 4 or not is_paged
    assert not os.path.exists(f"{case.path}.index")
    if engine is ByDask:
        assert same(engine, case.path, pages_per_partition=3, index=False) == (-(-case.pages // 3) if is_paged else 1)
        assert same(engine, case.path) == 1


TABLES = ["packets", "counters", "events", "messages", "states", "variables"]


def test_other_tables_and_times(engine, tmp_path):
    path = write(tmp_path / "a.qvx", seed=2, wrong=0.01)
    for table in TABLES if engine is ByDask else TABLES[:2]:
        same(engine, path, table, without=(), pages_per_partition=2)
    for first_tick, end_tick in ((0, 1), (4_000, 4_001), (7_000, 9_000), (15_000, 1 << 64)):
        for table in ("spans", "packets"):
            times = {"first_tick": first_tick, "end_tick": min(end_tick, (1 << 64) - 1)}
            same(engine, path, table, pages_per_partition=2, **times)


def in_order(rows):
    return sorted(rows, key=lambda row: tuple((value is not None, value) for value in row))


def test_statistics_of_many_files(engine, tmp_path):
    for number in range(3):
        write(tmp_path / f"{number}.qvx", seed=number, packets=4_000, wrong=0.01)
    trace = quorvex.open(tmp_path)
    frames = {table: engine.read(tmp_path, table, pages_per_partition=1) for table in ("spans", "counters", "packets")}
    assert engine.partitions(frames["spans"]) > 3
    for name in quorvex.statistics.__all__:
        table = {"by_counter": "counters", "by_kind": "packets"}.get(name, "spans")
        ours = engine.rows(getattr(engine.statistics, name)(frames[table]))
        whole = getattr(quorvex.statistics, name)(trace.tables[table]).reset_index()
        arrow = pytest.importorskip("pyarrow").Table.from_pandas(whole, preserve_index=False)
        theirs = [tuple(row.values()) for row in arrow.to_pylist()]
        assert in_order(ours) == in_order(theirs) and len(theirs) > 1, name
    sums = quorvex.statistics.by_function(trace.spans)
    query = "select function, count(duration_ns), sum(duration_ns), sum(self_ns), max(duration_ns) from spans group by 1"
    asked = trace.sql(query).fetchall()
    assert in_order(asked) == in_order([tuple(row) for row in sums.reset_index().astype(object).values.tolist()])


def test_what_cannot_be_asked_for(engine, tmp_path):
    write(tmp_path / "a.qvx", seed=0, packets=1000)
    with pytest.raises(ValueError, match="spans has no column nothing"):
        engine.read(tmp_path, columns=["nothing"])
    with pytest.raises(ValueError, match="there is no losses by ranges"):
        engine.read(tmp_path, "losses")
    with pytest.raises(FileNotFoundError):
        engine.read(tmp_path / "*.nothing")


def test_the_data_source_of_spark(engine, tmp_path):
    if engine is ByDask:
        pytest.skip("there is none of Dask")
    for number in range(2):
        write(tmp_path / f"{number}.qvx", seed=number, packets=4_000)
    source = engine.session.read.format("quorvex").option("pages", 1)
    frame = source.load(str(tmp_path))
    assert engine.partitions(frame) > 4
    frame.createOrReplaceTempView("spans")
    query = "select file, function, count(*), sum(self_ns) from spans group by file, function order by file, function"
    assert engine.rows(engine.session.sql(query)) == quorvex.open(tmp_path).sql(query).fetchall()
    chosen = source.option("table", "packets").option("columns", "tick, kind").option("first_tick", 100)
    packets = quorvex.open(tmp_path / "0.qvx").packets.select("tick", "kind").between(100, 200)
    ours = chosen.option("end_tick", 200).option("index", "false").load(str(tmp_path / "0.qvx"))
    assert engine.rows(ours) == rows_of(packets)
    with pytest.raises(Exception, match="there is no losses by ranges"):
        source.option("table", "losses").load(str(tmp_path))


# What Dask and Spark share is tried by one of them from here on.


@pytest.fixture
def here():
    with dask_here(None) as its:
        yield its


def test_trees_of_many_partitions(here, tmp_path, monkeypatch):
    path = write(tmp_path / "a.qvx", seed=7, wrong=0.01)
    for fan in (2, 3):
        monkeypatch.setattr(quorvex.dask, "_FAN", fan)
        assert same(here, path, pages_per_partition=1) > fan


def test_behind_the_damaged_end_of_a_page(here, tmp_path):
    path = write(tmp_path / "a.qvx", seed=1, packets=40_000, wrong=0.01, texts=False)
    content = bytearray(path.read_bytes())
    content[2 * PAGE + 300 : 3 * PAGE] = b"\xee" * (PAGE - 300)
    path.write_bytes(content)
    # Whoever begins with a page finds packets there that one reader may step over behind damage.
    ours = {row[0] for row in here.rows(here.read(path, "packets", columns=["file_offset"], pages_per_partition=1))}
    theirs = {row[0] for row in rows_of(quorvex.open(path).packets.select("file_offset"))}
    assert ours >= theirs and min(ours - theirs, default=3 * PAGE) == 3 * PAGE


def test_names_are_looked_for_once(here, tmp_path, monkeypatch):
    path = write(tmp_path / "a.qvx", seed=3)
    same(here, path, pages_per_partition=2)
    index = (tmp_path / "a.qvx.index").read_bytes()
    assert index.startswith(b"{") and len(index) < 1000

    def looked(part, definitions, state, look=_ranges.look):
        if not definitions:
            return look(part, definitions, state)
        raise AssertionError("looked for names again")

    monkeypatch.setattr(_ranges, "look", looked)
    same(here, path, pages_per_partition=1)
    (tmp_path / "a.qvx.index").write_bytes(b"no index")
    with pytest.raises(AssertionError, match="looked for names again"):
        same(here, path, pages_per_partition=1)
    monkeypatch.undo()
    same(here, path, pages_per_partition=1)
    assert (tmp_path / "a.qvx.index").read_bytes() == b"no index"
    (tmp_path / "a.qvx.index").write_bytes(index.replace(b'{"size": ', b'{"size": 1'))
    same(here, path, pages_per_partition=1)
    assert (tmp_path / "a.qvx.index").read_bytes() == index


@pytest.fixture
def store():
    """A store of objects, and what has been read there: a list of beginnings and ends."""
    fsspec = pytest.importorskip("fsspec")
    system = fsspec.filesystem("memory")
    asked = []

    def watched(self, path, start=None, end=None, read=type(system).cat_file, **options):
        if not path.endswith(".index"):
            asked.append((start, end))
        return read(self, path, start=start, end=end, **options)

    with pytest.MonkeyPatch.context() as patch:
        patch.setattr(type(system), "cat_file", watched)
        yield SimpleNamespace(system=system, asked=asked)
    system.store.clear()


@pytest.mark.parametrize("name", CASES)
def test_traces_elsewhere(here, tmp_path, store, name):
    CASES[name](tmp_path / "a.qvx")
    store.system.pipe_file("/runs/a.qvx", (tmp_path / "a.qvx").read_bytes())
    spans = quorvex.open(tmp_path).spans
    columns = [column for column in spans.columns if column != "process"]
    for pages in (2, 1024):
        ours = here.rows(here.read("memory://runs/*.qvx", columns=columns, pages_per_partition=pages))
        assert ours == rows_of(spans.select(*columns)), pages


def test_a_time_reads_its_pages_alone(here, tmp_path, store):
    path = write(tmp_path / "a.qvx", seed=6, packets=50_000)
    pages = -(-path.stat().st_size // PAGE)
    assert pages > 40
    store.system.pipe_file("/runs/a.qvx", path.read_bytes())
    here.rows(here.read("memory://runs/*.qvx", "counters", pages_per_partition=4))  # leaves an index
    times = {"first_tick": 50_000, "end_tick": 51_000}
    for table, pages_each, most in (("packets", 4, 8), ("packets", 1024, 8), ("spans", 4, pages * 1.6)):
        columns = ["tick"] if table == "packets" else ["function", "start_tick", "depth", "parent"]
        frame = here.read("memory://runs/*.qvx", table, columns=columns, pages_per_partition=pages_each, **times)
        store.asked.clear()
        rows = here.rows(frame)
        read = sum(end - start for start, end in store.asked)
        assert rows == rows_of(quorvex.open(path).tables[table].select(*columns).between(**times).select(*columns))
        assert len(rows) > 100 and read < most * PAGE, (table, read / PAGE)


def test_an_object_store_is_asked_for_ranges(here, tmp_path, monkeypatch):
    server = pytest.importorskip("moto.server").ThreadedMotoServer(ip_address="127.0.0.1", port=0)
    s3fs = pytest.importorskip("s3fs")
    path = write(tmp_path / "a.qvx", seed=4, wrong=0.01)
    asked = []
    read = s3fs.S3FileSystem._cat_file

    async def watched(self, name, version_id=None, start=None, end=None):
        asked.append((name, start, end))
        return await read(self, name, version_id=version_id, start=start, end=end)

    monkeypatch.setattr(s3fs.S3FileSystem, "_cat_file", watched)
    server.start()
    try:
        host, port = server.get_host_and_port()
        storage = {"key": "k", "secret": "s", "endpoint_url": f"http://{host}:{port}"}
        store = s3fs.S3FileSystem(**storage)
        store.mkdir("runs")
        store.pipe_file("runs/a.qvx", path.read_bytes())
        spans = quorvex.open(path).spans
        columns = [column for column in spans.columns if column != "process"]
        options = {"columns": columns, "pages_per_partition": 2, "storage_options": storage}
        assert here.rows(here.read("s3://runs/*.qvx", **options)) == rows_of(spans.select(*columns))
        store.invalidate_cache()
        assert store.exists("runs/a.qvx.index")
        frame = here.read("s3://runs/*.qvx", **options)
        asked.clear()
        frame.partitions[0].compute()
        assert asked == [("runs/a.qvx", 0, 2 * PAGE)]
    finally:
        server.stop()
