"""Recording of the functions of Python programs."""

from __future__ import annotations

import os
import sys
import sysconfig
import threading
from collections.abc import Iterable
from contextlib import ContextDecorator
from types import CodeType, TracebackType
from typing import Any

from quorvex import _core

__all__ = ["record"]

_monitoring: Any = getattr(sys, "monitoring", None)
_TOOLS = (4, 3)  # none of those that Python gives to debuggers, coverage, profilers and optimizers
_OWN = os.path.dirname(os.path.abspath(__file__)) + os.sep


def _libraries() -> tuple[str, ...]:
    names = ("stdlib", "platstdlib", "purelib", "platlib")
    return ("<frozen ", *{os.path.realpath(sysconfig.get_paths()[name]) + os.sep for name in names})


def _thread_name() -> str | None:
    # `current_thread` would make an object of a thread that is none of `threading`'s.
    active: dict[int, threading.Thread] = getattr(threading, "_active", {})
    thread = active.get(threading.get_ident())
    # The interpreter takes names that are surrogates; files have bytes.
    return thread.name.encode(errors="replace").decode() if thread else None


class record(ContextDecorator):
    """Record which functions of Python run when, in all threads, while a `with` block or a decorated function runs.

    Each thread records to a file of its own, `thread_NUMBER.qvx` in `directory`, or else where QVX_TRACEDIR says, or in
    the directory for temporary files; no file is replaced. Calls that a block of another recording begins go on to the
    same files. The directory becomes QVX_TRACEDIR, so that what this process starts records there, too, and functions
    in C++ that record themselves do. If QVX_TRACEMODE says nothing else, nothing is lost where the process is killed,
    and the files can be read at any time. Threads of `threading` are told with the name that they have when they begin
    to record.

    What is recorded are functions in the files and directories of `only`; if there are none, all but those of Python's
    own library and of installed packages. A generator or a coroutine is a call each time that it goes on.

    From Python 3.12 on sys.monitoring tells of the calls, of all threads; before that sys.setprofile, of this thread
    and of those that `threading` starts in the block.
    """

    _lock = threading.Lock()
    _active = 0
    _tool = _TOOLS[0]

    def __init__(
        self, directory: str | os.PathLike[str] | None = None, *, only: Iterable[str | os.PathLike[str]] = ()
    ) -> None:
        self._directory = directory
        self._only = tuple(os.path.realpath(path) for path in only)
        self._others = () if self._only else _libraries()

    @property
    def files(self) -> list[str]:
        """The files that threads of this process have recorded to so far."""
        return _core.recorded_files()

    def _name_of(self, code: CodeType) -> str | None:
        path = code.co_filename if code.co_filename.startswith("<") else os.path.realpath(code.co_filename)
        if path.startswith((_OWN, *self._others)):
            return None
        if self._only and not any(path == one or path.startswith(one + os.sep) for one in self._only):
            return None
        name = getattr(code, "co_qualname", code.co_name)  # Python 3.10 knows the short one only
        return f"{name} ({os.path.basename(path)}:{code.co_firstlineno})"

    def __enter__(self) -> record:
        with record._lock:
            record._active += 1
            if record._active > 1:
                return self  # what runs already records all of it
            try:
                self._start()
            except BaseException:
                record._active -= 1
                raise
        return self

    def __exit__(
        self, kind: type[BaseException] | None, error: BaseException | None, traceback: TracebackType | None
    ) -> None:
        with record._lock:
            record._active -= 1
            if record._active == 0:
                self._stop()

    def _start(self) -> None:
        if self._directory is not None:
            os.makedirs(self._directory, exist_ok=True)
            os.environ["QVX_TRACEDIR"] = os.path.abspath(self._directory)
        os.environ.setdefault("QVX_TRACEMODE", "mapped")
        call = _core.callbacks()
        if _monitoring is None:
            _core.start_recording(self._name_of, _thread_name, None)
            threading.setprofile(call["profile"])
            sys.setprofile(call["profile"])
            return
        record._tool = next((tool for tool in _TOOLS if _monitoring.get_tool(tool) is None), _TOOLS[0])
        _monitoring.use_tool_id(record._tool, "quorvex")
        _core.start_recording(self._name_of, _thread_name, _monitoring.DISABLE)
        events = _monitoring.events
        callbacks = {
            events.PY_START: call["enter"],
            events.PY_RESUME: call["enter"],
            events.PY_THROW: call["throw"],
            events.PY_RETURN: call["leave"],
            events.PY_YIELD: call["leave"],
            events.PY_UNWIND: call["unwind"],
        }
        for event, callback in callbacks.items():
            _monitoring.register_callback(record._tool, event, callback)
        _monitoring.restart_events()
        _monitoring.set_events(record._tool, sum(callbacks))

    def _stop(self) -> None:
        if _monitoring is None:
            sys.setprofile(None)
            threading.setprofile(None)
        else:
            _monitoring.set_events(record._tool, 0)
            _monitoring.free_tool_id(record._tool)
        _core.stop_recording()
