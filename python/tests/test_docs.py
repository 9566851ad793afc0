"""The page about data: its examples print what it says, and its tables are those that there are.

With QUORVEX_REWRITE_DOCS=1 the outputs of commands and the tables are made anew.
"""

import contextlib
import doctest
import io
import os
import pathlib
import re
import subprocess
import sys

import pytest

import quorvex

PAGE = pathlib.Path(__file__).parents[2] / "docs" / "data.md"
TYPES = {"l": "int64", "i": "int32", "g": "double", "u": "text", "z": "bytes", "b": "bool"}


def tables_as_text():
    text = ""
    for name, (meaning, columns) in quorvex.tables().items():
        text += f"### {name}\n\n{meaning[0].upper()}{meaning[1:]}.\n\n| column | type | meaning |\n|---|---|---|\n"
        for column in columns:
            type_ = TYPES[column.format] + (", or null" if column.is_nullable else "")
            what = f"{column.meaning} ({column.unit})" if column.unit else column.meaning
            text += f"| {column.name} | {type_} | {what} |\n"
        text += "\n"
    return text.rstrip("\n") + "\n"


def test_tables():
    head, mark, tables = PAGE.read_text().partition("## The tables\n\n")
    assert mark
    if os.environ.get("QUORVEX_REWRITE_DOCS"):
        PAGE.write_text(head + mark + tables_as_text())
    else:
        assert tables == tables_as_text()


@pytest.mark.skipif(not PAGE.exists(), reason="only where the sources are")
def test_examples(tmp_path, monkeypatch):
    for package in ("duckdb", "pandas", "polars", "dask.dataframe"):
        pytest.importorskip(package)
    monkeypatch.chdir(tmp_path)
    known, parser = {}, doctest.DocTestParser()
    runner = doctest.DocTestRunner(optionflags=doctest.IGNORE_EXCEPTION_DETAIL)
    for kind, block in re.findall(r"```(pycon|console)\n(.*?)```\n", PAGE.read_text(), re.DOTALL):
        if kind == "pycon":
            test = parser.get_doctest(block, known, PAGE.name, str(PAGE), 0)
            said = io.StringIO()
            with contextlib.redirect_stdout(said):
                runner.run(test, out=said.write, clear_globs=False)
            known = test.globs
            assert runner.failures == 0, said.getvalue()
            continue
        for command, expected in re.findall(r"^\$ (.*)\n((?:[^$].*\n|\n)*)", block, re.MULTILINE):
            command = command.replace("python ", f"{sys.executable} ", 1)
            done = subprocess.run(command, shell=True, capture_output=True, text=True, check=False)
            assert (done.returncode, done.stdout.strip()) == (0, expected.strip()), done.stderr
    assert (tmp_path / "spans.parquet").exists() and known
