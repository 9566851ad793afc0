"""What is raised where a trace cannot be read."""

from __future__ import annotations

__all__ = ["TraceError"]


class TraceError(ValueError):
    """A trace cannot be read, or not any further."""

    file: str
    """The file as it was named."""
    reason: str
    """What is wrong, without file and offset."""
    offset: int | None
    """Where in the file, in bytes; None where it is of the whole file."""

    def __init__(self, file: str, reason: str, offset: int | None = None) -> None:
        super().__init__(file, reason, offset)
        self.file = file
        self.reason = reason
        self.offset = offset

    def __str__(self) -> str:
        place = "" if self.offset is None else f"offset {self.offset}: "
        return f"{self.file}: {place}{self.reason}"
