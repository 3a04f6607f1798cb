#pragma once

// ODBViewCursor: walks the rows of a view forwards or backwards, optionally
// visiting only the rows tagged in the view, removes the row it stands on and
// finds a record or a field value.
//
// A cursor is a plain aggregate built by the host: the view handle (which
// keeps the view alive as long as the cursor), the current view row (-1 when
// it stands on no row) and the tags-only flag:
//   ODBViewCursor c{view, -1, 1};
//   for (++c; c.index >= 0; ++c) use(c.index);
//
// Threads: a cursor is used by one thread; it shares the view with other
// cursors and handles without locking.

#include <zyldb/export.h>
#include <zyldb/view/ODBView.h>

#include <cstdint>

class dbrecord;

struct ZYLDB_EXPORT ODBViewCursor {
  ODBView view;
  int32_t index = -1;
  uint8_t tagsOnly = 0;

  // Moves to view row i; -1 when i is out of range.
  void set_index(int i);
  // Steps to the next row (to row 0 from -1), skipping untagged rows when
  // tagsOnly is set; -1 past the end.
  ODBViewCursor& operator++();
  // Steps to the previous row (to the last row from -1), skipping untagged
  // rows when tagsOnly is set; -1 before the start.
  ODBViewCursor& operator--();
  // Drops the current row from the view (announced to the views stacked on
  // it). The cursor then names the row that followed, or -1 past the end.
  // Nothing at -1.
  void remove();
  // Moves to the view row showing `record` (pointer identity, all rows
  // searched) and returns it; -1 (and index -1) when the view does not show it.
  int find(dbrecord* record);
  // From the current row on (inclusive, honouring tagsOnly), finds the first
  // row whose `field` equals `value` ignoring case and stays there. Returns
  // the row, or -1 when the field is unknown, the cursor stands on no row or
  // no row matches (index -1).
  int findField(const char* field, const char* value);
  // A bisection over a view sorted on `field`, between the current row and
  // the end. It never reports a match: it returns -1 and leaves the cursor
  // at -1. A probe that compares equal ends the search (the bounds could not
  // move any more).
  int findFieldSorted(const char* field, const char* value);
};
