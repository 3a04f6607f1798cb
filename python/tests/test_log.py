import os
import random
import threading
import warnings

import pytest
import zyldb

from conftest import CLIPS, lines_of

COLUMNS = [("Name", "text"), ("Scene", "text"), ("Take", "text"), ("Start time", "timecode"),
           ("End time", "timecode"), ("Notes", "text")]


def small_log():
    return zyldb.Log.from_rows(COLUMNS, [
        ["12-1A", "12", "A", "01:00:00:00", "01:00:10:00", ""],
        ["9-1A", "9", "A", "01:00:20:00", "01:00:30:00", "wide"],
        ["12A-1A", "12A", "A", "01:00:40:00", "01:00:50:00", ""],
        ["10-2B", "10", "B", "01:01:00:00", "01:01:10:00", "Circle take"],
        ["12-1B", "12", "B", "01:01:20:00", "01:01:30:00", "NG"],
    ], params={"owner": "assist 2"})


def names(rows):
    return [r["Name"] for r in rows]


def test_open_reads_rows_columns_and_params(clips):
    assert len(clips) == 36
    assert clips[0]["Name"] == "12-1A" and clips[-1]["Name"] == "31-3B"
    assert [c.name for c in clips.columns][:4] == ["Name", "Cookie", "Reel", "Scene"]
    start = clips.columns[6]
    assert (start.name, start.type) == ("Start time", "timecode")
    assert clips.columns[-1].type == "numeric"
    assert clips.params["owner"] == "assist 2, cutting room B"
    assert clips.params["OWNER"] == "assist 2, cutting room B"
    assert list(clips.params)[0] == "ZYLDB"
    assert names(clips[:2]) == ["12-1A", "12-1B"]
    assert len(list(clips)) == 36


def test_record_reads_like_a_mapping(clips):
    rec = clips[4]
    assert rec["scene"] == rec["Scene"] == "12" and rec[3] == "12"
    assert rec["Description"] == 'Over Maria\'s shoulder, Tom says "not tonight" early'
    assert rec.get("Notes") == "Circle take" and rec.get("No such column", "-") == "-"
    d = dict(rec)
    assert list(d) == [c.name for c in clips.columns] and d["Take"] == "B"
    assert "Take" in rec and "Nope" not in rec and len(rec) == 23
    assert rec.items()[0] == ("Name", "12-2B") and rec.values()[0] == "12-2B"
    with pytest.raises(KeyError):
        rec["Nope"]
    with pytest.raises(IndexError):
        rec[23]
    with pytest.raises(IndexError):
        clips[36]
    with pytest.raises(IndexError):
        clips[-37]
    rec["Notes"] = "Print it"
    assert clips[4]["Notes"] == "Print it"


def test_sort_orders_naturally_and_stably_and_records_follow():
    log = small_log()
    first = log[0]
    log.sort(by=["Scene"])
    # Natural order: 9 < 10 < 12 < 12A; the two rows of scene 12 keep their order.
    assert names(log) == ["9-1A", "10-2B", "12-1A", "12-1B", "12A-1A"]
    assert first.row == 2 and first["Name"] == "12-1A"
    log.sort(by=["Scene", "Take"], descending=True)
    assert names(log)[0] == "9-1A" and set(names(log)) == {"9-1A", "10-2B", "12-1A", "12-1B",
                                                            "12A-1A"}
    with pytest.raises(KeyError):
        log.sort(by=["Nope"])
    with pytest.raises(ValueError):
        log.sort(by=[])


def test_sort_matches_a_plain_python_sort_on_timecodes(clips):
    expected = sorted(range(len(clips)), key=lambda r: (clips[r]["snd start"], r))
    wanted = [clips[r]["Name"] for r in expected]
    clips.sort("snd start")
    assert names(clips) == wanted


def test_find_matches_substrings_and_label_ranges(clips):
    assert names(clips[r] for r in clips.find({"Scene": "12"})) == [
        "12-1A", "12-1B", "12-1C", "12-2A", "12-2B", "12-3A", "12-3B", "12A-1A", "12A-1B"]
    assert names(clips[r] for r in clips.find({"scene": "12", "notes": "circle"})) == ["12-2B"]
    # A keycode inside a clip's start..end range finds that clip.
    assert names(clips[r] for r in clips.find({"start keycode": "KU 12 3456 7900"})) == ["12-1A"]
    assert clips.find({}) == list(range(36))
    assert clips.find({"Notes": "no such note"}) == []
    with pytest.raises(KeyError):
        clips.find({"Nope": "1"})
    with pytest.raises(ValueError):
        clips.find({"Scene": "1", "SCENE": "2"})


def test_tags_and_delete_tagged(clips):
    rows = clips.find({"Notes": "NG"})
    clips.tag(rows)
    assert clips.tagged() == rows and all(clips[r].tag == 1 for r in rows)
    clips[0].tag = 1
    clips.tag(0, 0)
    assert clips.tagged() == rows
    kept = [clips[r]["Name"] for r in range(len(clips)) if r not in rows]
    assert clips.delete_tagged() == len(rows)
    assert names(clips) == kept and clips.tagged() == []
    clips.tag([0, 1])
    clips.clear_tags()
    assert clips.tagged() == []
    with pytest.raises(IndexError):
        clips.tag([0, 99])
    with pytest.raises(ValueError):
        clips.tag(0, 256)


def test_deleted_records_raise_and_others_follow(clips):
    gone, stays = clips[3], clips[5]
    del clips[3]
    assert stays.row == 4 and stays["Name"] == "12-3A"
    with pytest.raises(zyldb.DeletedRecordError):
        gone["Name"]
    with pytest.raises(LookupError):
        gone.tag


def test_columns_added_removed_and_renamed(clips):
    col = clips.add_column("Rating", "long")
    assert col == zyldb.Column("Rating", "long", 0) and clips[0]["Rating"] == ""
    clips[0]["Rating"] = 5
    assert clips[0]["Rating"] == "5"
    clips.rename_column("rating", "Stars")
    assert clips[0]["Stars"] == "5" and "Rating" not in clips[0]
    clips.remove_column("Stars")
    assert len(clips.columns) == 23 and "Stars" not in clips[0]
    with pytest.raises(ValueError):
        clips.add_column("Scene")
    with pytest.raises(ValueError):
        clips.add_column("X", "no-such-type")
    with pytest.raises(ValueError):
        clips.rename_column("Take", "scene")
    with pytest.raises(KeyError):
        clips.remove_column("Nope")


def test_merge_fills_matching_columns(clips):
    other = zyldb.Log.from_rows([("Name", "text"), ("Scene", "text"), ("Extra", "text")],
                                [["40-1A", "40", "x"], ["40-1B", "40", "y"]])
    assert clips.merge(other) == 2
    assert clips[-1]["Name"] == "40-1B" and clips[-1]["Reel"] == ""
    with pytest.raises(ValueError):
        clips.merge(clips)
    with pytest.raises(ValueError):
        clips.merge(zyldb.Log.from_rows(["Unrelated"], [["1"]]))


# Values a log file carries: separators, quotes, line breaks, inner blanks,
# non-ASCII text and bytes that are not UTF-8 (the format trims blanks at a
# value's ends; log.audit() flags such values).
AWKWARD = ["plain", "a,b", 'say "hi"', "two\nlines", "in  side", "", "Ünïcødé ✓",
           "bad \udcff byte", "12:00:00;00", "\\server\\share"]


def test_save_round_trips_every_value(tmp_path):
    rng = random.Random(7)
    cols = [("Name", "text"), ("Start time", "timecode"), ("Notes", "text"), ("N", "numeric")]
    rows = [[rng.choice(AWKWARD) for _ in cols] for _ in range(200)]
    for r in rows:
        r[0] = r[0] or "x"  # a row whose cells are all empty ends a log file
    log = zyldb.Log.from_rows(cols, rows, params={"owner": "me", "note": "a, b"})
    assert log.to_rows() == rows
    path = tmp_path / "out.log"
    assert log.save(path) == 200 and log.path == str(path)
    back = zyldb.open(path)
    assert back.to_rows() == rows
    assert [(c.name, c.type) for c in back.columns] == cols
    assert dict(back.params) == dict(log.params)
    back.params["owner"] = "you"
    back.save()
    assert zyldb.open(path).params["owner"] == "you"


def test_save_failures_raise_and_keep_the_old_file(clips, clips_path, tmp_path):
    with pytest.raises(zyldb.SaveError):
        clips.save(tmp_path)  # a directory
    with pytest.raises(OSError):
        clips.save(tmp_path / "no" / "such" / "dir.log")
    assert lines_of(clips_path) == lines_of(CLIPS)
    with pytest.raises(ValueError):
        zyldb.Log(["A"]).save()


def test_load_errors_name_the_file_and_line(tmp_path):
    lines = lines_of(CLIPS)
    bad = tmp_path / "clips.log"
    # Line 20 loses two fields.
    lines[19] = lines[19].rsplit(",", 2)[0]
    bad.write_text("\n".join(lines) + "\n", encoding="utf-8")
    with pytest.raises(zyldb.LoadError) as e:
        zyldb.open(bad)
    assert e.value.line == 20 and str(e.value).startswith(f"{bad}: line 20: record has 21 fields")
    with warnings.catch_warnings(record=True) as caught:
        warnings.simplefilter("always")
        partial = zyldb.open(bad, strict=False)
    assert partial.incomplete and len(partial) == 12
    assert any(issubclass(w.category, zyldb.LoadWarning) for w in caught)
    with pytest.raises(zyldb.SaveError):
        partial.save()
    assert partial.save(force=True) == 12

    for text, line in [("Name,Scene\n1,2\n", 1), ("", 0), ("\x00\x01binary", 0)]:
        p = tmp_path / "other.log"
        p.write_bytes(text.encode("latin-1"))
        with pytest.raises(zyldb.LoadError) as e:
            zyldb.open(p)
        assert e.value.line == line and str(e.value).startswith(str(p))
    with pytest.raises(zyldb.LoadError, match="no such file"):
        zyldb.open(tmp_path / "missing.log")
    with pytest.raises(zyldb.LoadError, match="directory"):
        zyldb.open(tmp_path)


def test_from_rows_accepts_mappings_and_rejects_bad_rows():
    log = zyldb.Log.from_rows(["Name", "Scene"], [{"scene": "4", "Name": "4-1"}, ("5-1",), [None, 7]])
    assert log.to_rows() == [["4-1", "4"], ["5-1", ""], ["", "7"]]
    with pytest.raises(KeyError):
        zyldb.Log.from_rows(["Name"], [{"Nope": "1"}])
    with pytest.raises(ValueError):
        zyldb.Log.from_rows(["Name"], [["a", "b"]])
    with pytest.raises(ValueError):
        zyldb.Log(["Name", "name"])
    with pytest.raises(ValueError):
        zyldb.Log.from_rows(["Name"], [["nul\0byte"]])


def test_closed_log_raises_everywhere(clips):
    rec, view = clips[0], clips.view()
    with clips:
        pass
    assert clips.closed and "closed" in repr(clips)
    for use in (lambda: len(clips), lambda: clips[0], lambda: rec["Name"], lambda: len(view),
                lambda: view[0], lambda: clips.sort("Name"), lambda: clips.save()):
        with pytest.raises(zyldb.ClosedError):
            use()
    clips.close()  # closing twice is fine


def test_threads_sort_separate_logs(tmp_path):
    logs = [zyldb.open(CLIPS) for _ in range(4)]
    expected = sorted(names(logs[0]), reverse=False)

    def work(log):
        for _ in range(20):
            log.sort("Description")
            log.sort("Name")

    threads = [threading.Thread(target=work, args=(log,)) for log in logs]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    for log in logs:
        assert names(log) == expected


def test_help_is_useful():
    assert "timecode" in zyldb.Log.sort.__doc__ and "label" in zyldb.Log.find.__doc__
    assert zyldb.Record.__doc__ and zyldb.View.__doc__ and zyldb.open.__doc__
    assert os.path.exists(os.path.join(os.path.dirname(zyldb.__file__), "__init__.pyi"))


def test_quick_open_and_full_diagnosis_agree(tmp_path):
    # A clean log opens the quick way; blank lines at the end change nothing.
    lines = lines_of(CLIPS)
    p = tmp_path / "trailing.log"
    p.write_text("\n".join(lines) + "\n\n  \n", encoding="utf-8")
    with warnings.catch_warnings():
        warnings.simplefilter("error")
        assert zyldb.open(p).to_rows() == zyldb.open(CLIPS).to_rows()
    # A blank line before the last records loses them: the full diagnosis says where.
    p.write_text("\n".join(lines[:30] + [""] + lines[30:]) + "\n", encoding="utf-8")
    with pytest.raises(zyldb.LoadError) as e:
        zyldb.open(p)
    assert e.value.line == 31 and "blank line" in str(e.value)
    # An unknown column type loads as text with a warning.
    typed = list(lines)
    typed[5] = typed[5].replace('"numeric"', '"fancy"')
    p.write_text("\n".join(typed) + "\n", encoding="utf-8")
    with pytest.warns(zyldb.LoadWarning, match="fancy"):
        log = zyldb.open(p)
    assert len(log) == 36
