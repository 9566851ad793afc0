"""Writing of traces."""

from __future__ import annotations

import os
from types import TracebackType
from typing import overload

from quorvex import _core
from quorvex._core import Packet

__all__ = ["Writer"]


class Writer:
    """Writes a trace file, packet by packet; leaving a `with` block closes it.

    The file is made anew, or gone on with where `append` says so. In pages (the usual form) a reader can begin
    anywhere. A name must be told before its number is used, and ticks must not go back within a thread. Raises OSError
    where the file cannot be written, ValueError for a packet that cannot be. Used by one thread at a time.
    """

    def __init__(self, path: str | os.PathLike[str], *, paged: bool = True, append: bool = False) -> None:
        self._writer = _core.Writer(os.fsencode(path), paged, append)

    @overload
    def put(self, packet: Packet, /) -> None: ...
    @overload
    def put(self, packet: str, /, **fields: object) -> None: ...
    def put(self, packet: Packet | str, /, **fields: object) -> None:
        """Write a packet, or one that is made of a kind and its fields as `Packet` does."""
        if isinstance(packet, str):
            packet = Packet(packet, **fields)  # type: ignore[arg-type]
        elif fields:
            raise TypeError("a packet has its fields already")
        self._writer.put(packet)

    def close(self) -> None:
        """Write what is left, and close the file; again does nothing."""
        self._writer.close()

    def __enter__(self) -> Writer:
        return self

    def __exit__(
        self, kind: type[BaseException] | None, error: BaseException | None, traceback: TracebackType | None
    ) -> None:
        self.close()
