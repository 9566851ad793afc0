"""Ctrl-C in long calls."""

import signal
import subprocess
import sys
import time

import pytest

import quorvex

CALLS = {
    "iteration": "for _ in trace: pass",
    "rows": "trace.spans.to_arrow()",
    "query": "trace.sql('select function, count(*) from spans group by all').fetchall()",
}


@pytest.fixture(scope="module")
def large(tmp_path_factory):
    """A trace of many files that takes a while to read."""
    place = tmp_path_factory.mktemp("large")
    with quorvex.Writer(place / "0.qvx") as out:
        out.put("Timestamp", tick=0, Frequency=1000)
        enter, leave = (quorvex.Packet(f"Function{step}", tick=1, FuncId=1) for step in ("Enter", "Leave"))
        for _ in range(200_000):
            out.put(enter)
            out.put(leave)
    return [place / "0.qvx"] * 60


@pytest.mark.parametrize("call", CALLS)
def test_ends_the_call(large, call):
    if call != "iteration":
        pytest.importorskip("duckdb")
        pytest.importorskip("pyarrow")
    program = f"""
import signal, quorvex, duckdb, pyarrow.dataset
signal.signal(signal.SIGINT, signal.default_int_handler)  # in the background it would be ignored
trace = quorvex.open({[str(file) for file in large]!r})
print("begun", flush=True)
{CALLS[call]}
print("ended", flush=True)
"""
    child = subprocess.Popen([sys.executable, "-c", program], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    assert child.stdout.readline() == "begun\n"
    time.sleep(0.3)
    child.send_signal(signal.SIGINT)
    asked = time.monotonic()
    said, error = child.communicate(timeout=60)
    assert "ended" not in said
    assert "KeyboardInterrupt" in error or "nterrupted" in error, error
    assert "terminate" not in error
    assert time.monotonic() - asked < 5
