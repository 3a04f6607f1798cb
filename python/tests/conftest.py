import os
import pathlib
import shutil

import pytest

ROOT = pathlib.Path(os.environ.get("ZYLDB_SOURCE_DIR", pathlib.Path(__file__).parents[2]))
CLIPS = ROOT / "examples" / "clips.log"


@pytest.fixture
def clips_path(tmp_path):
    """A private copy of examples/clips.log (tests may overwrite it)."""
    path = tmp_path / "clips.log"
    shutil.copyfile(CLIPS, path)
    return path


@pytest.fixture
def clips(clips_path):
    import zyldb

    return zyldb.open(clips_path)


def lines_of(path):
    return pathlib.Path(path).read_text(encoding="utf-8").splitlines()
