"""Tables by ranges of pages: the same rows as those of one machine."""

import random

import pytest

import quorvex

dask = pytest.importorskip("dask")
pytest.importorskip("dask.dataframe")
import quorvex.dask  # noqa: E402
from quorvex import _ranges  # noqa: E402

PAGE = 256 * 1024


def write(path, seed, packets=60_000, wrong=0.0, deep=False):
    """Writes a trace of some pages: names first, calls that cross pages, some packets lost or too many."""
    random_ = random.Random(seed)
    with quorvex.Writer(path) as out:
        out.put("Timestamp", tick=0, Frequency=3_000_000_000)
        for function in range(1, 6):
            out.put("FunctionDefine", tick=0, FuncId=function, text=f"f{function}")
        stacks = {thread: [] for thread in (1, 2, 3, None)}
        for tick in range(packets):
            thread = random_.choice(list(stacks))
            stack = stacks[thread]
            where = {"tick": 2 * tick, "thread": thread if thread is not None else 0xFFFFFFFF, "core": tick % 2}
            if thread is None:
                where["core"] = 5
            if tick % 5000 == 0:
                out.put("CounterValue", CntrId=1, Value=tick, **where)
            if len(stack) > (1000 if deep else 6) or (stack and random_.random() < (0.1 if deep else 0.5)):
                function = stack.pop()
                if random_.random() < wrong:
                    function = random_.choice([0xFFFFFFFF, 1, 2, 3, 4, 5])
                if random_.random() >= wrong:
                    out.put("FunctionLeave", FuncId=function, **where)
            else:
                stack.append(random_.randint(1, 5))
                out.put("FunctionEnter", FuncId=stack[-1], **where)
        out.put("EndOfTrace")
    return path


def frame_of(table):
    return quorvex.dask._in_pandas(_ranges.plain(table.to_arrow(), table.columns))


def same(path, table="spans", without=("process",), **options):
    """Compares with what one reader tells."""
    with dask.config.set(scheduler="synchronous"):
        frame = quorvex.dask.read(path, table, **options)
        ours = frame.compute().reset_index(drop=True)
    whole = quorvex.open(path).tables[table]
    theirs = frame_of(whole)
    assert list(ours.columns) == list(theirs.columns)
    for name in theirs.columns:
        if name not in without:
            assert ours[name].dtype == theirs[name].dtype == frame[name].dtype
            assert ours[name].equals(theirs[name]), name
    return frame.npartitions


@pytest.mark.parametrize(("wrong", "deep"), [(0, False), (0.01, False), (0.3, False), (0, True), (0.001, True)])
def test_spans_are_those_of_one_reader(tmp_path, wrong, deep):
    path = write(tmp_path / "a.qvx", seed=int(wrong * 1000) + deep, wrong=wrong, deep=deep)
    pages = -(-path.stat().st_size // PAGE)
    assert same(path, pages_per_partition=1) == pages > 4
    assert same(path, pages_per_partition=3) == -(-pages // 3)
    assert same(path) == 1


def test_trees_of_many_partitions(tmp_path, monkeypatch):
    path = write(tmp_path / "a.qvx", seed=7, wrong=0.01)
    for fan in (2, 3):
        monkeypatch.setattr(quorvex.dask, "_FAN", fan)
        assert same(path, pages_per_partition=1) > fan


def test_damaged_pages(tmp_path):
    path = write(tmp_path / "a.qvx", seed=1, wrong=0.01)
    content = bytearray(path.read_bytes())

    def damage(page, size):
        content[page * PAGE + 300 : page * PAGE + 300 + size] = b"\xee" * size
        path.write_bytes(content)

    damage(1, 5000)
    damage(4, 1)
    same(path, pages_per_partition=1)
    # Whoever begins with a page finds packets there that one reader may step over behind damage.
    damage(2, PAGE - 300)
    with dask.config.set(scheduler="synchronous"):
        ours = set(quorvex.dask.read(path, "packets", pages_per_partition=1).compute().file_offset)
    theirs = set(quorvex.open(path).packets.to_arrow().column("file_offset").to_pylist())
    assert ours >= theirs and min(ours - theirs, default=3 * PAGE) == 3 * PAGE


@pytest.mark.parametrize("table", ["packets", "counters", "events", "messages", "states", "variables"])
def test_other_tables(tmp_path, table):
    same(write(tmp_path / "a.qvx", seed=2), table, without=(), pages_per_partition=2)


def test_many_files_and_columns(tmp_path):
    for number in range(3):
        write(tmp_path / f"{number}.qvx", seed=number, packets=20_000)
    with dask.config.set(scheduler="synchronous"):
        frame = quorvex.dask.read(tmp_path, columns=["file", "function", "self_ns", "duration_ns"], pages_per_partition=1)
        assert list(frame.columns) == ["file", "function", "self_ns", "duration_ns"]
        sums = quorvex.dask.by_function(frame).compute().sort_index()
        whole = quorvex.dask.by_function(quorvex.open(tmp_path).spans.to_pandas()).sort_index()
        assert sums.astype("int64").to_dict() == whole.astype("int64").to_dict()
        assert frame.groupby("file").self_ns.count().compute().sort_index().index.tolist() == [0, 1, 2]
    with pytest.raises(ValueError, match="spans has no column nothing"):
        quorvex.dask.read(tmp_path, columns=["nothing"])
    with pytest.raises(ValueError, match="there is no losses by ranges"):
        quorvex.dask.read(tmp_path, "losses")
    with pytest.raises(FileNotFoundError):
        quorvex.dask.read(tmp_path / "*.nothing")


def test_names_are_looked_for_once(tmp_path, monkeypatch):
    path = write(tmp_path / "a.qvx", seed=3)
    same(path, pages_per_partition=2, index=False)
    assert not (tmp_path / "a.qvx.index").exists()
    same(path, pages_per_partition=2)
    index = (tmp_path / "a.qvx.index").read_bytes()
    assert index.startswith(b"{") and len(index) < 1000

    def looked(part, definitions, state, look=_ranges.look):
        if not definitions:
            return look(part, definitions, state)
        raise AssertionError("looked for names again")

    monkeypatch.setattr(_ranges, "look", looked)
    same(path, pages_per_partition=1)
    (tmp_path / "a.qvx.index").write_bytes(b"no index")
    with pytest.raises(AssertionError, match="looked for names again"):
        same(path, pages_per_partition=1)
    monkeypatch.undo()
    same(path, pages_per_partition=1)
    assert (tmp_path / "a.qvx.index").read_bytes() == b"no index"
    (tmp_path / "a.qvx.index").write_bytes(index.replace(b'{"size": ', b'{"size": 1'))
    same(path, pages_per_partition=1)
    assert (tmp_path / "a.qvx.index").read_bytes() == index


def test_a_plain_trace_is_one_partition(tmp_path):
    path = tmp_path / "plain.qvx"
    with quorvex.Writer(path, paged=False) as out:
        for tick in range(30_000):
            out.put("FunctionEnter", tick=tick, FuncId=1)
    assert same(path, pages_per_partition=1) == 1


def test_an_object_store_is_asked_for_ranges(tmp_path, monkeypatch):
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
        with dask.config.set(scheduler="synchronous"):
            frame = quorvex.dask.read("s3://runs/*.qvx", pages_per_partition=2, storage_options=storage)
            whole = frame.compute()
            store.invalidate_cache()
            assert store.exists("runs/a.qvx.index")
            frame = quorvex.dask.read("s3://runs/*.qvx", pages_per_partition=2, storage_options=storage)
            asked.clear()
            frame.partitions[0].compute()
        assert asked == [("runs/a.qvx", 0, 2 * PAGE)]
    finally:
        server.stop()
    theirs = frame_of(quorvex.open(path).spans)
    for name in theirs.columns:
        assert name == "process" or whole[name].reset_index(drop=True).equals(theirs[name]), name


def test_two_processes(tmp_path):
    distributed = pytest.importorskip("distributed")
    path = write(tmp_path / "a.qvx", seed=5)
    with (
        distributed.LocalCluster(n_workers=2, threads_per_worker=1, processes=True, dashboard_address=None) as cluster,
        distributed.Client(cluster),
    ):
        frame = quorvex.dask.read(path, pages_per_partition=1)
        assert len(frame) == quorvex.open(path).spans.to_arrow().num_rows
        assert quorvex.dask.by_function(frame).compute().calls.sum() == frame.duration_ns.count().compute()
