import random

import pytest
import zyldb

from conftest import CLIPS

pd = pytest.importorskip("pandas")


def test_to_pandas_keeps_strings_and_types(clips):
    df = clips.to_pandas()
    assert list(df.columns) == [c.name for c in clips.columns] and len(df) == 36
    assert df["Reel"][0] == "001" and df["Notes"][0] == "" and df["Tag"][0] == "0"
    assert all(isinstance(v, str) for v in df["Start time"])
    assert df.attrs["zyldb"]["types"]["Start time"] == "timecode"
    assert df.attrs["zyldb"]["params"]["owner"] == "assist 2, cutting room B"


def test_column_arrays_equal_the_plain_rows():
    # Repeated cells share one str object; the values must not change.
    rng = random.Random(3)
    pool = ["", "a", "a", "b", "Ünï", "bad \udcfe", "x" * 50]
    rows = [[rng.choice(pool) for _ in range(4)] for _ in range(500)]
    for r in rows:
        r[0] = r[0] or "n"
    log = zyldb.Log.from_rows(["A", "B", "C", "D"], rows)
    assert log.to_pandas().values.tolist() == log.to_rows() == rows
    view = log.view()
    view.sort("B")
    assert view.to_pandas().values.tolist() == view.to_rows() == [r.values() for r in view]


def test_pandas_round_trip(clips, tmp_path):
    df = clips.to_pandas()
    back = zyldb.Log.from_pandas(df)
    assert back.to_rows() == clips.to_rows()
    assert back.columns == clips.columns and dict(back.params) == dict(clips.params)
    plain = zyldb.Log.from_pandas(pd.DataFrame({"n": [1, None, 2.5], "s": ["x", float("nan"), "z"]}))
    assert plain.to_rows() == [["1.0", "x"], ["", ""], ["2.5", "z"]]
    assert {c.type for c in plain.columns} == {"text"}


@pytest.mark.parametrize("write,read", [
    (zyldb.write_csv, zyldb.read_csv),
    (zyldb.write_tsv, zyldb.read_tsv),
    (zyldb.write_ale, zyldb.read_ale),
])
def test_interchange_round_trips(clips, tmp_path, write, read):
    clips[0]["Notes"] = 'comma, "quote"\nand a line'
    view = clips.view()
    view.sort("Description")
    path = tmp_path / "out.txt"
    write(view, path)
    back = read(path)
    assert back.path is None and len(back) == 36
    if read is zyldb.read_ale:
        # ALE renames and types columns by its own mapping; the values stay.
        assert [r.values() for r in back] == [r.values() for r in view]
    else:
        assert back.to_rows() == view.to_rows()
        assert [c.name for c in back.columns] == [c.name for c in clips.columns]


def test_interchange_errors(tmp_path):
    bad = tmp_path / "bad.csv"
    bad.write_text('Name,Scene\n"open quote,1\n', encoding="utf-8")
    with pytest.raises(zyldb.LoadError) as e:
        zyldb.read_csv(bad)
    assert e.value.line == 3 and "began on line 2" in str(e.value) and str(bad) in str(e.value)
    with pytest.raises(zyldb.LoadError):
        zyldb.read_ale(tmp_path / "missing.ale")
    with pytest.raises(ValueError):
        zyldb.read_csv(bad, delimiter=";;")
    with pytest.raises(zyldb.SaveError):
        zyldb.write_csv(zyldb.open(CLIPS), tmp_path / "no" / "dir.csv")
    with pytest.raises(TypeError):
        zyldb.write_csv([["a"]], tmp_path / "x.csv")
    no_name = zyldb.Log(["A"])
    no_name.rename_column("A", " ")
    with pytest.raises(zyldb.SaveError):
        zyldb.write_ale(no_name, tmp_path / "x.ale")


def test_audit_reports_findings_with_lines(tmp_path):
    lines = CLIPS.read_text(encoding="utf-8").splitlines()
    # Make line 9's clip (12-1B) start inside 12-1A's range on the same reel.
    lines[8] = lines[8].replace('"01:00:39;13"', '"01:00:30;00"', 1)
    path = tmp_path / "overlap.log"
    path.write_text("\n".join(lines) + "\n", encoding="utf-8")
    log = zyldb.open(path)
    report = log.audit(gap=-1)
    overlaps = [f for f in report if f.kind == "overlap"]
    assert overlaps and overlaps[0].severity == "error" and 9 in overlaps[0].lines
    assert report.picture["name"] == "29.97"
    df = report.to_pandas()
    assert list(df["kind"]).count("overlap") == len(overlaps)
    assert zyldb.open(CLIPS).audit(fps="29.97", gap=-1) == [] or all(
        f.kind != "overlap" for f in zyldb.open(CLIPS).audit(gap=-1))
