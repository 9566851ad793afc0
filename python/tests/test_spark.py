"""Tables in Spark: the same rows as those of one machine."""

import contextlib
import os
import re
import shutil
import subprocess
import sys
import time

import pytest

import quorvex

pytest.importorskip("pyspark", minversion="4.0")
if not shutil.which("java"):
    pytest.skip("there is no Java", allow_module_level=True)
from test_dask import PAGE, frame_of, write  # noqa: E402


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


@pytest.fixture(scope="module", params=["local", "standalone"])
def spark(request, tmp_path_factory):
    os.environ.update(SPARK_LOCAL_IP="127.0.0.1", PYSPARK_PYTHON=sys.executable)
    from pyspark.sql import SparkSession

    with contextlib.ExitStack() as stack:
        master = "local[2]"
        if request.param == "standalone":
            master = stack.enter_context(standalone(tmp_path_factory.mktemp("spark")))
        session = (
            SparkSession.builder.master(master)
            .config("spark.ui.enabled", "false")
            .config("spark.sql.shuffle.partitions", "2")
            .getOrCreate()
        )
        stack.callback(session.stop)
        assert session.sparkContext.master == master
        import quorvex.spark

        quorvex.spark.register(session)
        yield session


def rows_of(frame):
    return [tuple(row) for row in frame.collect()]


def test_rows_are_those_of_one_reader(spark, tmp_path):
    import quorvex.spark

    path = write(tmp_path / "a.qvx", seed=8, wrong=0.01)
    pages = -(-path.stat().st_size // PAGE)
    spans = quorvex.open(path).spans
    columns = [name for name in spans.columns if name != "process"]
    theirs = [tuple(row.values()) for row in spans.select(*columns).to_arrow().to_pylist()]
    for index in (False, True, True):
        ours = quorvex.spark.read(spark, path, columns=columns, pages_per_partition=1, index=index)
        assert ours.rdd.getNumPartitions() == pages > 4
        assert rows_of(ours) == theirs
    source = spark.read.format("quorvex").option("columns", ",".join(columns)).option("pages", 2)
    assert rows_of(source.load(str(path))) == theirs
    assert rows_of(source.option("index", "false").load(str(tmp_path))) == theirs


def test_queries(spark, tmp_path):
    for number in range(3):
        write(tmp_path / f"{number}.qvx", seed=number, packets=20_000)
    spark.read.format("quorvex").option("pages", 1).load(str(tmp_path)).createOrReplaceTempView("spans")
    query = "select file, function, count(*), sum(self_ns) from spans group by file, function order by file, function"
    assert rows_of(spark.sql(query)) == quorvex.open(tmp_path).sql(query).fetchall()
    counters = spark.read.format("quorvex").option("table", "counters").load(str(tmp_path / "0.qvx"))
    assert counters.count() == len(frame_of(quorvex.open(tmp_path / "0.qvx").counters))
    with pytest.raises(Exception, match="there is no losses by ranges"):
        spark.read.format("quorvex").option("table", "losses").load(str(tmp_path))
