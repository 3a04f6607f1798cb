import gc

import pytest
import zyldb


def numbered(n):
    return zyldb.Log.from_rows(["Name", "Scene"], [[str(i), str(i % 3)] for i in range(n)])


def names(rows):
    return [r["Name"] for r in rows]


def test_view_sorts_finds_and_tags_on_its_own(clips):
    before = names(clips)
    view = clips.view()
    assert len(view) == len(clips) and view.columns == clips.columns
    assert dict(view.params) == dict(clips.params)
    view.sort(by=["Scene", "Take"], descending=True)
    assert names(clips) == before and names(view) != before
    assert sorted(names(view)) == sorted(before)
    rows = view.find({"Notes": "NG"})
    assert [view[r]["Notes"] for r in rows] == ["NG sound"] or all(
        "ng" in view[r]["Notes"].lower() for r in rows)
    view.tag(rows)
    assert view.tagged() == rows and clips.tagged() == []
    assert all(view[r].tag == 1 for r in rows)
    view.clear_tags()
    assert view.tagged() == []
    with pytest.raises(IndexError):
        view.tag(len(view))


def test_view_find_on_a_stacked_view_uses_its_own_rows(clips):
    base = clips.view()
    base.sort("Name", descending=True)
    top = base.view()
    top.sort("Description")
    for view in (base, top):
        rows = view.find({"Scene": "27"})
        assert sorted(view[r]["Name"] for r in rows) == sorted(
            clips[r]["Name"] for r in clips.find({"Scene": "27"}))


def test_delete_through_a_view_reaches_the_log_and_every_view(clips):
    view, other = clips.view(), clips.view()
    other.sort("Description")
    stacked = other.view()
    view.sort("Name", descending=True)
    doomed = {view[r]["Name"] for r in view.find({"Notes": "NG"})}
    view.tag(view.find({"Notes": "NG"}))
    assert view.delete_tagged() == len(doomed)
    for rows in (clips, view, other, stacked):
        assert len(rows) == 36 - len(doomed) and doomed.isdisjoint(names(rows))
    first = stacked[0]
    del stacked[0]
    with pytest.raises(zyldb.DeletedRecordError):
        first["Name"]
    assert len(clips) == len(other) == len(stacked) == 35 - len(doomed)


def test_deletion_messages_are_the_hosts(clips):
    log = numbered(8)
    view = log.view()
    view.remove([0, 1, 2, 4, 6])  # the view now names rows 3, 5, 7
    assert names(view) == ["3", "5", "7"] and len(log) == 8
    got = []
    view.on_deleted(lambda rows: got.append(rows))
    view.on_changed(lambda ids: got.append(("changed", ids)))
    log_got = []
    log.on_deleted(log_got.append)
    log.tag([4, 5])
    log.delete_tagged()
    # The drop of row 5 at position 1, the closing list, then "recordsChanged".
    assert got == [[1], [1], ("changed", [])]
    assert log_got == [[4, 5]]
    assert names(view) == ["3", "7"]


def test_view_outlives_its_log_object():
    view = numbered(5).view()
    rec = view[2]
    gc.collect()
    assert names(view) == ["0", "1", "2", "3", "4"] and rec["Name"] == "2"
    # A view names rows of its log by position: sorting the log reorders it.
    view.log.sort("Name", descending=True)
    assert names(view) == names(view.view()) == ["4", "3", "2", "1", "0"]
    stacked = view.view()
    del view
    gc.collect()
    assert len(stacked) == 5 and stacked[4]["Name"] == "0"


def test_closing_the_log_disarms_its_views(clips):
    base = clips.view()
    top = base.view()
    clips.close()
    for view in (base, top):
        with pytest.raises(zyldb.ClosedError):
            len(view)
        with pytest.raises(zyldb.ClosedError):
            view.sort("Name")
    assert "closed" in repr(top)


@pytest.mark.filterwarnings("ignore::pytest.PytestUnraisableExceptionWarning")
def test_a_raising_callback_does_not_stop_the_deletion():
    log = numbered(6)
    view = log.view()
    seen = []

    def bad(rows):
        raise ValueError("callback failed")

    view.on_deleted(bad)
    view.on_changed(lambda ids: seen.append("changed"))
    log.tag([1, 2])
    with pytest.raises(ValueError, match="callback failed"):
        log.delete_tagged()
    # The deletion completed and the later callback ran.
    assert len(log) == 4 and len(view) == 4 and seen == ["changed"]
    # The exception was raised once; the next change raises the next one.
    view.tag(0)
    with pytest.raises(ValueError):
        view.delete_tagged()
    assert len(log) == 3


@pytest.mark.filterwarnings("ignore::pytest.PytestUnraisableExceptionWarning")
def test_callbacks_may_read_but_not_change_or_close():
    log = numbered(4)
    view = log.view()
    lengths = []

    def reader(rows):
        lengths.append(len(log))

    view.on_deleted(reader)
    del log[0]
    assert lengths and lengths[-1] == 3

    for change in (lambda rows: log.sort("Name"), lambda rows: log.close(),
                   lambda rows: view.tag(0)):
        v = log.view()
        v.on_deleted(change)
        with pytest.raises(RuntimeError):
            del log[0]
        v.on_deleted(lambda rows: None)
    assert not log.closed


def test_view_to_log_and_save_keep_view_order(clips, tmp_path):
    view = clips.view()
    view.sort("Description")
    view.tag([0, 2])
    copy = view.to_log()
    assert names(copy) == names(view)
    path = tmp_path / "view.log"
    assert view.save(str(path)) == 36
    back = zyldb.open(path)
    assert names(back) == names(view)
    assert [r["Tag"] for r in back][:3] == ["1", "0", "1"]
    with pytest.raises(zyldb.SaveError):
        view.save(str(tmp_path / "missing" / "x.log"))


def test_record_of_a_view_follows_the_view():
    log = numbered(5)
    view = log.view()
    rec = view[1]
    view.sort("Name", descending=True)
    assert rec.row == 3 and rec["Name"] == "1"
    rec.tag = 1
    assert view.tagged() == [3] and log.tagged() == []
    rec["Scene"] = "changed"
    assert log[1]["Scene"] == "changed"
