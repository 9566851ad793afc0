"""The page about data: its examples print what it says."""

import contextlib
import doctest
import io
import pathlib
import re
import subprocess
import sys

import pytest

PAGE = pathlib.Path(__file__).parents[2] / "docs" / "data.md"

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
