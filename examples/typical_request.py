#!/usr/bin/python3
"""The typical request, in Python: open a log, look at it through a view
sorted by scene and take, find the takes the notes call no good, tag them,
delete them through the view (the log and every other view follow), and
save the result. The example log itself is not changed.

    PYTHONPATH=build/default/python /usr/bin/python3 examples/typical_request.py [LOG [OUT]]
"""

import os
import sys
import tempfile

import zyldb


def main():
    here = os.path.dirname(os.path.abspath(__file__))
    path = sys.argv[1] if len(sys.argv) > 1 else os.path.join(here, "clips.log")
    out = sys.argv[2] if len(sys.argv) > 2 else os.path.join(tempfile.gettempdir(), "clips_kept.log")

    try:
        log = zyldb.open(path)
    except zyldb.LoadError as e:
        sys.exit(f"typical_request: {e}")
    print(f"opened {path}: {len(log)} clips, {len(log.columns)} columns")

    view = log.view()
    view.sort(by=["Scene", "Take"])
    everything = log.view()  # another view of the same log, to watch it follow
    view.on_deleted(lambda rows: print(f"  view dropped row(s) {rows}"))

    rows = view.find(where={"Notes": "NG"})
    for r in rows:
        clip = view[r]
        print(f"  no good: {clip['Name']} (scene {clip['Scene']}, take {clip['Take']}): {clip['Notes']}")
    view.tag(rows)
    deleted = view.delete_tagged()
    print(f"deleted {deleted} clip(s); the log has {len(log)}, the other view {len(everything)}")

    written = view.save(out)
    print(f"saved {written} clips in scene order to {out}")
    check = zyldb.open(out)
    assert [r["Name"] for r in check] == [r["Name"] for r in view]


if __name__ == "__main__":
    main()
