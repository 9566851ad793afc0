"""Reading of traces."""

from __future__ import annotations

import glob
import os
from collections.abc import Iterable, Iterator

from quorvex import _core
from quorvex._core import Packet

__all__ = ["Trace", "open"]

Path = str | os.PathLike[str]


def _files_of(paths: Path | Iterable[Path]) -> list[str]:
    named = [paths] if isinstance(paths, (str, os.PathLike)) else list(paths)
    files: list[str] = []
    for path in map(os.fspath, named):
        if os.path.isdir(path):
            files += sorted(glob.glob(os.path.join(glob.escape(path), "**", "*.qvx"), recursive=True))
        else:
            files.append(path)
    if not files:
        raise FileNotFoundError("there are no traces")
    return files


class Trace:
    """One trace, or several that are read as one. `open` makes it."""

    def __init__(self, paths: Path | Iterable[Path], *, strict: bool = False) -> None:
        self.files: list[str] = _files_of(paths)
        """The files, as they were named; of a directory, all traces in it."""
        self.strict = strict
        """Whether what cannot be read is an error."""
        self.packets()  # throws now if one of them is no trace

    def packets(self) -> _core.Reader:
        """Read all packets, from the first on: an iterator, whose `reports()` tell how reading has gone so far."""
        return _core.Reader([os.fsencode(file) for file in self.files], self.strict)

    def __iter__(self) -> Iterator[Packet]:
        return self.packets()

    def __repr__(self) -> str:
        return f"quorvex.open({self.files!r})"


def open(paths: Path | Iterable[Path], *, strict: bool = False) -> Trace:
    """Open a trace file, several of them, or all `*.qvx` in a directory.

    Packets of several files come in the order of ticks. What is damaged is stepped over and told by reports and tables;
    with `strict` it raises a TraceError. So does a file that cannot be opened, or is no trace.
    """
    return Trace(paths, strict=strict)


