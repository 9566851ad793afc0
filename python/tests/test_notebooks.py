"""The notebooks: each runs as it stands, and what it asserts holds.

QUORVEX_REWRITE_GOLDEN=1 puts what their cells show now into them.
"""

import copy
import os
import pathlib
import re

import pytest

FOLDER = pathlib.Path(__file__).parents[2] / "docs" / "notebooks"


def shown(notebook):
    """Of each cell the sorts of what it shows. The rest may differ: times, and the ways of other packages to print."""
    return [
        [sorted(output.get("data", {})) for output in cell.get("outputs", []) if output.output_type != "stream"]
        for cell in notebook.cells
    ]


@pytest.mark.parametrize("path", sorted(FOLDER.glob("*.ipynb")), ids=lambda path: path.stem)
def test_notebook(path, tmp_path):
    nbformat = pytest.importorskip("nbformat")
    nbclient = pytest.importorskip("nbclient")
    for package in ("dask.dataframe", "distributed", "duckdb", "ipykernel", "matplotlib", "pandas", "polars"):
        pytest.importorskip(package)
    kept = nbformat.read(path, 4)
    ran = copy.deepcopy(kept)
    nbclient.NotebookClient(
        ran, timeout=900, record_timing=False, resources={"metadata": {"path": str(tmp_path)}}
    ).execute()
    if "QUORVEX_REWRITE_GOLDEN" in os.environ:
        ran.metadata = kept.metadata
        nbformat.write(ran, path)
    assert shown(ran) == shown(nbformat.read(path, 4))
    texts = [cell.source for cell in kept.cells if cell.cell_type == "markdown"]
    links = re.findall(r"\]\(([^)#:]+)[)#]", "\n".join(texts))
    assert links and all((FOLDER / link).exists() for link in links)
    assert not list(tmp_path.iterdir())  # they leave nothing
