"""Recording of Python programs, in processes of their own."""

import subprocess
import sys
import textwrap
from collections import Counter

import pytest

import quorvex


@pytest.fixture
def run(tmp_path):
    """Runs a program that may record to `traces`, and gives what its files tell."""

    def go(source, fails=False):
        program = tmp_path / "program.py"
        program.write_text("import threading, quorvex\n" + textwrap.dedent(source))
        done = subprocess.run([sys.executable, program], cwd=tmp_path, capture_output=True, text=True, check=False)
        assert (done.returncode != 0) == fails, done.stderr
        return quorvex.open(tmp_path / "traces")

    return go


def calls(trace):
    """How often each function is entered; every thread must leave what it enters, in order."""
    counts, stacks = Counter(), {}
    for packet in trace:
        stack = stacks.setdefault(packet.thread, [])
        name = packet.name.split(" ")[0]
        if "<string>" in packet.name:  # what the standard library makes for itself
            continue
        if packet.kind == "FunctionEnter":
            counts[name] += 1
            stack.append(name)
        elif packet.kind == "FunctionLeave":
            assert stack.pop() == name
    assert not any(stacks.values())
    return dict(counts)


FIB = "def fib(n): return n if n < 2 else fib(n - 1) + fib(n - 2)\n"


def test_calls_of_all_threads(run):
    trace = run(
        FIB
        + """
with quorvex.record("traces") as recording:
    fib(5)
    thread = threading.Thread(target=fib, args=(4,))
    thread.start()
    thread.join()
fib(6)
assert len(recording.files) == 2
assert len(set(quorvex.open(recording.files))) == len(list(quorvex.open("traces")))
"""
    )
    assert calls(trace) == {"fib": 15 + 9}
    assert {packet.name for packet in trace if packet.kind == "FunctionEnter"} == {"fib (program.py:2)"}
    assert not any(report.is_lossy for report in trace.read().reports())


def test_a_function_that_two_threads_begin_with(run):
    trace = run(
        """
import os
asked, called = threading.Event(), threading.Event()

def realpath(path, real=os.path.realpath):
    if path.endswith("program.py") and threading.current_thread().name == "first":
        asked.set()
        called.wait()
    return real(path)

def work():
    pass

def second():
    asked.wait()
    work()
    called.set()

os.path.realpath = realpath
with quorvex.record("traces"):
    threads = [threading.Thread(target=work, name="first"), threading.Thread(target=second)]
    for each in threads:
        each.start()
    for each in threads:
        each.join()
"""
    )
    assert calls(trace) == {"work": 2, "second": 1}


def test_names_of_threads(run):
    pytest.importorskip("pyarrow")
    trace = run(
        FIB
        + """
import _thread
names = ["worker", "a \\\\ b\\n", "zwölf", ""]
with quorvex.record("traces"):
    fib(2)
    threads = [threading.Thread(name=name, target=fib, args=(3,)) for name in names]
    for thread in threads: thread.start()
    for thread in threads: thread.join()
    done = _thread.allocate_lock()
    done.acquire()
    def other(): fib(4), done.release()
    _thread.start_new_thread(other, ())
    done.acquire()
with quorvex.record():
    threading.current_thread().name = "later"
    fib(0)
"""
    )
    named = trace.spans.select("thread_name", "function").to_arrow().to_pylist()
    counts = Counter(row["thread_name"] for row in named if row["function"].startswith("fib"))
    counts.pop(None, None)  # before Python 3.12, threads that are not of `threading` are not recorded
    assert counts.pop(next(name for name in counts if name.startswith("Thread-"))) == 5
    assert counts == {"worker": 5, "a \\ b\n": 5, "zwölf": 5, "later": 4}


@pytest.mark.parametrize(
    ("source", "expected"),
    [
        # Generators: each time they go on; closed, thrown into, never started.
        (
            """
            def numbers():
                try:
                    yield 1
                    yield 2
                except KeyError:
                    yield 3
            with quorvex.record("traces"):
                list(numbers())
                one = numbers(); next(one); one.throw(KeyError()); one.close()
                numbers()
            """,
            None,
        ),
        # Exceptions, also of endless calls.
        (
            """
            def endless(): endless()
            def outer():
                try: endless()
                except RecursionError: pass
            with quorvex.record("traces"):
                outer()
            """,
            None,
        ),
        # Classes, methods, closures, lambdas.
        (
            """
            class A:
                def __init__(self): self.f = lambda: 1
                def m(self):
                    def inner(): return self.f()
                    return inner()
            with quorvex.record("traces"):
                A().m()
            """,
            {"A.__init__": 1, "A.m": 1, "A.m.<locals>.inner": 1, "A.__init__.<locals>.<lambda>": 1},
        ),
        # The function around the block is no part of it, nor is what it calls behind it.
        (
            """
            def f(): g()
            def g(): pass
            def around():
                with quorvex.record("traces"): f()
                g()
            around()
            around()
            """,
            {"f": 2, "g": 2},
        ),
        # A block within another, a decorator, an exception through both.
        (
            """
            @quorvex.record("traces")
            def f():
                with quorvex.record(): g()
                g()
                raise KeyError
            def g(): pass
            try: f()
            except KeyError: pass
            """,
            {"f": 1, "g": 2},
        ),
        # Coroutines.
        (
            """
            import asyncio
            async def one():
                await asyncio.sleep(0)
                return 1
            async def all_(): return await asyncio.gather(one(), one())
            with quorvex.record("traces"): asyncio.run(all_())
            """,
            {"all_": 2, "one": 4},
        ),
        # Only some files.
        (
            """
            import json
            def f(): return json.dumps([{}])
            with quorvex.record("traces", only=[json.__path__[0]]): f()
            """,
            {"dumps": 1, "JSONEncoder.encode": 1, "JSONEncoder.iterencode": 1},
        ),
    ],
)
def test_calls_match(run, source, expected):
    if sys.version_info < (3, 11) and expected:
        expected = {name.rpartition(".")[2]: count for name, count in expected.items()}
    counts = calls(run(source))
    assert counts == expected if expected else counts


def test_a_killed_program_loses_nothing(run):
    trace = run(
        FIB + 'import os\nwith quorvex.record("traces"):\n    fib(3)\n    os.kill(os.getpid(), 9)\n', fails=True
    )
    assert calls(trace) == {"fib": 5}


def test_errors_of_the_program_stay_its_own(run):
    with pytest.raises(FileNotFoundError):
        run('import os\nos.mkdir("traces")\nwith quorvex.record("traces"):\n    1 / 0\n', fails=True)


@pytest.mark.skipif(sys.version_info < (3, 12), reason="there is no sys.monitoring")
def test_other_tools_are_left_alone(run):
    trace = run(
        FIB
        + """
import sys, cProfile
sys.monitoring.use_tool_id(4, "other")
profile = cProfile.Profile()
profile.enable()
with quorvex.record("traces"):
    fib(3)
profile.disable()
sys.monitoring.use_tool_id(3, "third")
try:
    with quorvex.record():
        fib(3)
except ValueError:
    sys.monitoring.free_tool_id(3)
with quorvex.record():
    fib(2)
"""
    )
    assert calls(trace) == {"fib": 5 + 3}
