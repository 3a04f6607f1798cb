"""zyldb: clip logs for film and video post-production.

    >>> import zyldb
    >>> log = zyldb.open("examples/clips.log")
    >>> log.sort(by=["Scene", "Take"])
    >>> rows = log.find(where={"Scene": "12"})
    >>> log[rows[0]]["Name"]
    '12-1A'

zyldb.open(path) reads a log into a Log; Log.from_rows and Log.from_pandas
build one. A Log sorts (timecode-aware, natural order), searches (label
ranges included), tags and saves its rows; log.view() gives a View, an
ordered selection of the rows that stays in step with the log. Errors are
exceptions: LoadError (with the file and line), SaveError, KeyError for an
unknown column, IndexError for a row out of range, ClosedError for a closed
log, DeletedRecordError for a record whose row was deleted.

Threads: the GIL is released while a log loads, saves, sorts or is searched,
so other threads can work on other logs meanwhile. A log and its views are
used by one thread at a time; touching a log while another thread sorts or
saves it raises RuntimeError.
"""

from __future__ import annotations

import collections.abc as _abc
import warnings as _warnings

from . import _zyldb
from ._zyldb import (  # noqa: F401  (re-exported)
    ClosedError,
    Column,
    DeletedRecordError,
    Log,
    Record,
    SaveError,
    View,
    __version__,
)

__all__ = [
    "open",
    "Log",
    "View",
    "Record",
    "Column",
    "Params",
    "LoadError",
    "LoadWarning",
    "SaveError",
    "ClosedError",
    "DeletedRecordError",
    "read_csv",
    "write_csv",
    "read_tsv",
    "write_tsv",
    "read_ale",
    "write_ale",
    "Finding",
    "AuditReport",
]

_abc.Mapping.register(Record)


class LoadError(Exception):
    """A file that could not be read as a log, or that lost rows on loading.

    str(e) is "path: line N: what" (or "path: what" for the whole file).
    e.path is the path, e.line the 1-based line (0 for the whole file) and
    e.problems every problem found, as "path: line N: what" texts.
    """

    def __init__(self, message: str, path: str, line: int, problems: list[str]):
        super().__init__(message)
        self.path = path
        self.line = line
        self.problems = problems


class LoadWarning(UserWarning):
    """A problem in a file that still loaded (an unknown column type, a
    revision other than 1, dropped parameter lines, ...)."""


def open(path, strict: bool = True) -> Log:  # noqa: A001  (the package's verb)
    """Reads the log (or, for a name ending in ".csv", comma-separated text) at `path`.

    Raises LoadError with the file and line when the file is not a log. When
    a malformed record or a blank line keeps rows from loading, strict=True
    (the default) raises LoadError too; strict=False returns what loaded,
    with log.incomplete set and one LoadWarning per problem, and such a log
    refuses to save over its file unless save(force=True). Other problems
    that lose nothing are LoadWarnings. The GIL is released while the file
    is read.
    """
    path = _fspath(path)
    log, problems, incomplete = _zyldb._open(path)
    if log is None or (incomplete and strict):
        line, _, message = _main_problem(problems, log is None)
        if log is not None:
            log.close()
        raise LoadError(message, path, line, [p[2] for p in problems])
    for _, _, message in problems:
        _warnings.warn(message, LoadWarning, stacklevel=2)
    return log


def _fspath(path) -> str:
    import os

    path = os.fspath(path)
    if isinstance(path, bytes):
        path = os.fsdecode(path)
    return path


def _main_problem(problems, failed):
    if not problems:
        return (0, "", "the file could not be loaded")
    if failed:
        return problems[0]
    # The problem that cost rows carries a line; the others may not.
    for p in problems:
        if p[0] > 0:
            return p
    return problems[0]


class Params(_abc.Mapping):
    """The header parameters of a log or a view, a live mapping of str to str.

    params["owner"] = "assist 2" sets or adds a parameter (names ignore case
    in a log); parameters cannot be removed. dict(log.params) copies them.
    """

    __slots__ = ("_owner",)

    def __init__(self, owner):
        self._owner = owner

    def __getitem__(self, name):
        for key, value in self._owner._params().items():
            if key.lower() == str(name).lower():
                return value
        raise KeyError(name)

    def __setitem__(self, name, value):
        self._owner._set_param(str(name), value)

    def __iter__(self):
        return iter(self._owner._params())

    def __len__(self):
        return len(self._owner._params())

    def __repr__(self):
        return f"Params({self._owner._params()!r})"


def _params(self) -> Params:
    return Params(self)


@classmethod
def _from_rows(cls, columns, rows=(), params=None) -> Log:
    """A new log with `columns` (names, or (name, type keyword) pairs, or
    Column tuples) holding `rows`: sequences of cells in column order, or
    mappings of column name to cell. Cells are stored as str(value); None is
    an empty cell. `params` (a mapping) become header parameters."""
    log = cls(columns)
    for name, value in (params or {}).items():
        log._set_param(str(name), value)
    log._append_rows(rows)
    return log


def _to_pandas(self):
    """A pandas DataFrame of the rows: one column of str per log column
    (empty cells are "", not NaN), indexed 0..n-1. df.attrs["zyldb"] holds
    {"types": {name: type keyword}, "params": {name: value}}, which
    Log.from_pandas reads back."""
    import pandas as pd

    columns = self.columns
    arrays = self._column_arrays()
    names = [c.name for c in columns]
    if len(set(n.lower() for n in names)) != len(names):
        raise ValueError("column names must differ to make a DataFrame")
    df = pd.DataFrame(dict(zip(names, arrays)), columns=names, copy=False)
    df.attrs["zyldb"] = {
        "types": {c.name: c.type for c in columns},
        "params": dict(self._params()),
    }
    return df


@classmethod
def _from_pandas(cls, df) -> Log:
    """A new log from a DataFrame: its columns in order (names as str), each
    cell str(value), None and NaN as empty cells. Column types and
    parameters come from df.attrs["zyldb"] when present (as to_pandas
    writes them), else every column is text."""
    meta = df.attrs.get("zyldb", {}) if hasattr(df, "attrs") else {}
    types = meta.get("types", {})
    names = [str(c) for c in df.columns]
    log = cls([(n, types.get(n, "text")) for n in names])
    for name, value in meta.get("params", {}).items():
        log._set_param(str(name), value)
    log._append_columns([df[c].tolist() for c in df.columns])
    return log


# ---- Interchange formats ------------------------------------------------------


def read_csv(path, delimiter: str = ",", header: bool = True) -> Log:
    """Reads comma-separated values (RFC 4180 quoting) into a new Log.

    The first record names the columns (header=False names them "Column 1",
    ...); values are kept exactly as the file holds them. Columns whose names
    contain "start" or "end" are typed timecode, the others text. Raises
    LoadError with the line for a malformed file. The log has no path: save
    it with save(path). Releases the GIL while reading.
    """
    return _zyldb._read(_fspath(path), "csv", delimiter, header)


def read_tsv(path) -> Log:
    """Reads tab-separated values (backslash escapes) into a new Log, as read_csv."""
    return _zyldb._read(_fspath(path), "tsv")


def read_ale(path) -> Log:
    """Reads an ALE clip log into a new Log: ALE columns are renamed and
    typed as a log's (Tape -> "Reel", Start -> "Start time", ...), heading
    entries become parameters (FPS, VIDEO_FORMAT, ...). LoadError with the
    line for a malformed file."""
    return _zyldb._read(_fspath(path), "ale")


def write_csv(rows, path, delimiter: str = ",", header: bool = True, bom: bool = False,
              crlf: bool = False, guard_formulas: bool = False) -> None:
    """Writes a Log's or View's rows as comma-separated values, replacing
    `path` in one step. Every value is carried exactly (read_csv gives them
    back) unless guard_formulas quotes values a spreadsheet would evaluate.
    Raises SaveError when the file cannot be written."""
    _zyldb._write(rows, _fspath(path), "csv", dict(
        delimiter=delimiter, header=header, bom=bom, crlf=crlf, guard_formulas=guard_formulas))


def write_tsv(rows, path, crlf: bool = False) -> None:
    """Writes a Log's or View's rows as tab-separated values (backslash escapes)."""
    _zyldb._write(rows, _fspath(path), "tsv", dict(crlf=crlf))


def write_ale(rows, path, fps=None, video_format=None, audio_format=None,
              crlf: bool = False) -> None:
    """Writes a Log's or View's rows as an ALE clip log. The heading's FPS,
    VIDEO_FORMAT and AUDIO_FORMAT default to the log's parameters of those
    names, else "24", "1080" and "48khz". SaveError when the rows cannot be
    written (a column without a name) or the file cannot."""
    _zyldb._write(rows, _fspath(path), "ale", dict(
        fps=fps, video_format=video_format, audio_format=audio_format, crlf=crlf))


# ---- Audit --------------------------------------------------------------------


class Finding:
    """One problem the audit found.

    kind: "overlap", "gap", "reversed-range", "missing-partner",
    "impossible-timecode", "impossible-keycode", "keycode-mismatch",
    "duplicate-name", "duplicate-id" or "unsavable-value"; severity: "error",
    "warning" or "info"; track: "", "picture" or "sound"; rows: the rows
    concerned (of the log or view audited); lines: their file lines (0 when
    unknown); cells: (row, column, value) triples; reel; frame and length on
    the reel's timeline (-1 and 0 when not about a place); message: a
    sentence for a person.
    """

    __slots__ = ("kind", "severity", "track", "rows", "lines", "cells", "reel", "frame",
                 "length", "message")

    def __init__(self, **fields):
        for name in self.__slots__:
            setattr(self, name, fields[name])

    def __repr__(self):
        where = f" line {self.lines[0]}" if self.lines and self.lines[0] else ""
        return f"<zyldb.Finding {self.severity} {self.kind}{where}: {self.message}>"


class AuditReport(list):
    """The findings of log.audit() (a list of Finding), with the frame rates
    used (picture, sound: dicts of name, timebase, drop_frame, how), notes on
    what could not be checked, and to_pandas()."""

    def __init__(self, result):
        super().__init__(Finding(**f) for f in result["findings"])
        self.picture = result["picture"]
        self.sound = result["sound"]
        self.notes = result["notes"]
        self.rows = result["rows"]

    def to_pandas(self):
        """One row per finding: kind, severity, track, reel, frame, length,
        first row, first line, rows, lines and message."""
        import pandas as pd

        return pd.DataFrame(
            [{
                "kind": f.kind, "severity": f.severity, "track": f.track, "reel": f.reel,
                "frame": f.frame, "length": f.length,
                "row": f.rows[0] if f.rows else -1,
                "line": f.lines[0] if f.lines else 0,
                "rows": list(f.rows), "lines": list(f.lines), "message": f.message,
            } for f in self],
            columns=["kind", "severity", "track", "reel", "frame", "length", "row", "line",
                     "rows", "lines", "message"])


def _audit(self, fps=None, gap=None) -> AuditReport:
    """Checks the rows for what an editor would trip over: overlapping or
    reversed timecode ranges, impossible timecodes and keycodes, keycode
    lengths that disagree with durations, duplicate names and identifiers,
    values a save would not give back, and gaps longer than `gap` seconds
    (default 60; negative: none). `fps` ("23.976", "24", "25", "29.97", ...)
    overrides the rate found in the parameters or inferred from the labels.
    Findings carry file lines for a log read from a file. Releases the GIL."""
    return AuditReport(_zyldb._audit(self, fps, gap))


Log.audit = _audit
View.audit = _audit
Log.params = property(_params, doc=Params.__doc__)
View.params = property(_params, doc=Params.__doc__)
Log.from_rows = _from_rows
Log.to_pandas = _to_pandas
View.to_pandas = _to_pandas
Log.from_pandas = _from_pandas
for _cls in (Log, View, Record):
    _cls.__module__ = __name__
del _cls
