#!/usr/bin/env python3
"""What the Python package takes, on traces that it records itself.

    python.py [--spans N] [--packets N] [--keep DIRECTORY] [--qvx PROGRAM]

Processor time is told beside the time that passes, because the machine may have other work. Memory is what a function
took at most beyond the packages that it needs, the peak all that its process did. Each line is measured in a process of
its own.
"""

from __future__ import annotations

import argparse
import cProfile
import json
import os
import pathlib
import resource
import subprocess
import sys
import tempfile
import time
from collections.abc import Callable

import quorvex


def leaf() -> None:
    pass


def work(calls: int) -> None:
    for _ in range(calls - 1):
        leaf()


def record(directory: str, calls: int) -> dict[str, object]:
    with quorvex.record(directory):
        work(calls)
    return {"calls": calls}


def call_costs(calls: int) -> dict[str, object]:
    """Nanoseconds that a call takes more than by itself."""

    def took(run: Callable[[], None]) -> float:
        begin = time.process_time()
        run()
        return (time.process_time() - begin) / calls * 1e9

    plain = took(lambda: work(calls))
    with tempfile.TemporaryDirectory() as traces, quorvex.record(traces):
        recorded = took(lambda: work(calls))
    profile = cProfile.Profile()
    profile.enable()
    profiled = took(lambda: work(calls))
    profile.disable()
    return {"plain_ns": plain, "recorded_ns": recorded - plain, "cProfile_ns": profiled - plain}


def to_pandas(directory: str) -> dict[str, object]:
    return {"rows": len(quorvex.open(directory).spans.to_pandas())}


def to_pandas_four(directory: str) -> dict[str, object]:
    return {
        "rows": len(quorvex.open(directory).spans.select("thread", "function", "start_ns", "duration_ns").to_pandas())
    }


def iterate(directory: str) -> dict[str, object]:
    rows = total = 0
    for packet in quorvex.open(directory):
        rows += 1
        total += packet.tick or 0
    return {"rows": rows}


def group_by(directory: str) -> dict[str, object]:
    query = "select kind, name, count(*), min(tick), max(tick) from packets group by all"
    return {"groups": len(quorvex.open(directory).sql(query).fetchall())}


def self_times(directory: str) -> dict[str, object]:
    query = "select function, count(*), sum(self_ns), max(duration_ns) from spans group by all"
    return {"groups": len(quorvex.open(directory).sql(query).fetchall())}


def plan(partitions: int) -> dict[str, object]:
    """Tell the tasks for so many partitions of 256 MiB, in files of 1 GiB that do not exist, with all their joins."""
    import pickle

    from quorvex import _ranges, dask

    tasks = dask._Tasks("plan", _ranges.Wanted("spans", ("function", "self_ns"), index=False))
    for number in range(partitions // 4):
        file = _ranges.File(number, f"s3://runs/{number}.qvx", 1 << 30, is_local=False)
        tasks.add(_ranges.plan(file, 1024), None)
    return {
        "partitions": len(tasks.keys),
        "tasks": len(tasks.graph),
        "TB": partitions / 4 * (1 << 30) / 1e12,
        "pickled_MB": len(pickle.dumps(tasks.graph)) / 1e6,
    }


def workers(directory: str, count: int) -> dict[str, object]:
    """Sum up the calls by Dask, in so many processes of one thread each."""
    import distributed

    from quorvex import dask

    with (
        distributed.LocalCluster(n_workers=count, threads_per_worker=1, dashboard_address=None) as cluster,
        distributed.Client(cluster) as client,
    ):
        client.run(lambda: __import__("quorvex.dask"))
        frame = dask.read(
            directory, columns=["function", "duration_ns", "self_ns"], pages_per_partition=32, index=False
        )
        dask.by_function(frame.partitions[0]).compute()  # what workers do only once is not measured
        begin = time.perf_counter()
        sums = dask.by_function(frame).compute()
        seconds = time.perf_counter() - begin
    return {"partitions": frame.npartitions, "calls": int(sums.calls.sum()), "query_seconds": seconds}


_BABELTRACE = """
import bt2, sys, time
begin, begin_cpu, rows, total = time.perf_counter(), time.process_time(), 0, 0
for message in bt2.TraceCollectionMessageIterator(sys.argv[1]):
    if type(message) is bt2._EventMessageConst:
        rows += 1
        total += message.default_clock_snapshot.value
        message.event.name
print(time.perf_counter() - begin, time.process_time() - begin_cpu, rows)
"""


def beside_babeltrace(directory: str, qvx: str) -> dict[str, object]:
    """Read the same calls by babeltrace2's Python reader, from CTF, and as frames of pandas, from the trace."""
    with tempfile.TemporaryDirectory() as place:
        subprocess.run([qvx, "export", directory, "--to", "ctf", "-o", f"{place}/ctf"], check=True)
        done = subprocess.run(
            ["/usr/bin/python3", "-c", _BABELTRACE, f"{place}/ctf"], check=True, capture_output=True, text=True
        )
    seconds, cpu, events = map(float, done.stdout.split())
    facts: dict[str, object] = {"events": int(events), "babeltrace2_seconds": seconds, "babeltrace2_cpu": cpu}
    for made in (to_pandas, to_pandas_four):
        made(directory)
        begin = time.process_time()
        made(directory)
        facts[f"{made.__name__}_times_less"] = cpu / (time.process_time() - begin)
    return facts


def measured(*words: str) -> dict[str, float]:
    """Run one of these functions in a process of its own, and print what it took."""
    done = subprocess.run([sys.executable, __file__, "--run", *words], check=True, stdout=subprocess.PIPE, text=True)
    print(done.stdout, end="", flush=True)
    return json.loads(done.stdout[done.stdout.index("{") :])


def run(name: str, *words: str) -> None:
    function = globals()[name]
    values = [int(word) if word.isdigit() else word for word in words]
    # What is imported only once is not measured.
    import duckdb
    import pandas
    import pyarrow
    import pyarrow.dataset

    assert duckdb and pandas and pyarrow
    before = resource.getrusage(resource.RUSAGE_SELF).ru_maxrss
    begin, begin_cpu = time.perf_counter(), time.process_time()
    told = function(*values)
    seconds, cpu = time.perf_counter() - begin, time.process_time() - begin_cpu
    peak = resource.getrusage(resource.RUSAGE_SELF).ru_maxrss
    memory = {"memory_MiB": (peak - before) // 1024, "peak_MiB": peak // 1024}
    facts = {"seconds": seconds, "cpu": cpu, **memory, **told}
    print(f"{name:15} {json.dumps({key: round(v, 2) if isinstance(v, float) else v for key, v in facts.items()})}")


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--spans", type=int, default=5_000_000)
    parser.add_argument("--packets", type=int, default=100_000_000)
    parser.add_argument("--keep", help="have the traces there, and leave them")
    parser.add_argument("--qvx", help="the program, to compare with babeltrace2's reader (python3-bt2)")
    parser.add_argument("--run", nargs="+", help=argparse.SUPPRESS)
    options = parser.parse_args()
    if options.run:
        run(*options.run)
        return
    with tempfile.TemporaryDirectory() as own:
        place = pathlib.Path(options.keep or own)
        measured("plan", "100000")
        measured("call_costs", str(options.spans // 5))
        for size, calls, functions in (
            ("spans", options.spans, ("iterate", "to_pandas", "to_pandas_four")),
            ("packets", options.packets // 20, ("group_by", "self_times")),
            ("packets", options.packets // 2, ("group_by", "self_times")),
        ):
            traces = place / f"{size}-{calls}"
            if not traces.exists():
                measured("record", str(traces), str(calls))
            bytes_ = sum(file.stat().st_size for file in traces.iterdir())
            print(f"{calls} calls, {bytes_ / 1e6:.0f} MB, {os.cpu_count()} processors", flush=True)
            for function in functions:
                measured(function, str(traces))
            if size == "spans":
                one, two, again, twice = (measured("workers", str(traces), count) for count in "1212")
                seconds = [each["query_seconds"] for each in (one, again, two, twice)]
                print(f"two workers: {sum(seconds[:2]) / sum(seconds[2:]):.2f} times one", flush=True)
            if options.qvx and size == "spans":
                measured("beside_babeltrace", str(traces), options.qvx)


if __name__ == "__main__":
    main()
