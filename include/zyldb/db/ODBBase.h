#pragma once

// ODBBase: the interface shared by tables (zyldb) and views (ODBViewRep), so
// that views, field maps, cursors and hosts work on either.
//
// Row numbers are visible row numbers: a table's rows (only the tagged ones
// in its show-tags-only mode), a view's own rows. Column numbers are always
// the table's; a view forwards them unchanged to its source (its base view,
// else its table). Results follow the library's convention: -1 (all bits set
// when unsigned) when refused or not found, 0 when nothing was done, 1 or a
// count on success. Out-of-range rows and columns give null, 0, -1 or the
// empty string and never fail hard. Allocation failure throws
// Qm::Exception::BadAlloc. A view without source answers every slot with 0,
// null or "" and does nothing.
//
// Costs: n is the number of rows of the object asked, N the table's rows, c
// its columns, d the depth of a view's stack. A view's forwarded calls add
// O(d). Unless stated, a slot is O(1).
//
// Where table and view answer differently the slot says so; "Table:" and
// "View:" give each side's answer.

#include <zyldb/db/DBFieldTypes.h>
#include <zyldb/export.h>
#include <zyldb/platform/Cookie.h>
#include <zyldb/platform/LightweightString.h>
#include <zyldb/platform/QmPtr.h>

class dbrecord;

class ZYLDB_EXPORT ODBBase : public iObject {
 public:
  ~ODBBase() override;

  // Writes the object to its file name. Table: the whole file; the number
  // of rows written, 0 on failure. View: its parameters, the table's column
  // header and its rows in view order (a "Tag" column carries the view's
  // tags); the rows written, 0 on failure. O(size written).
  virtual int save_text() = 0;
  // Writes only the rows whose record carries the table's tag. True when
  // written. O(size written).
  virtual bool save_tags() = 0;
  // Inserts `count` blank records. Table: at raw row `first` (at the end
  // past it); returns the show-tags-only flag (non-zero: refused); O(N).
  // View: before the source row of view row `first` (appended past the
  // end), with entries for them at that view position; returns 0; O(n + N).
  // Neither tells other views.
  virtual int insert_records(unsigned int first, unsigned int count) = 0;
  // Deletes records. Table: raw rows first..first+count-1, announced as one
  // "recordsDeleted" message; O(N) plus every view's catching up. View: the
  // records of view rows first..first+count-1, through the table (one table
  // message per run of consecutive source rows, as done one run at a time);
  // O(n + N + m log n) for m rows. Every view of the table follows.
  virtual void delete_records(unsigned int first, unsigned int count) = 0;
  // Table: deletes every run of rows tagged exactly 1 (one message per run)
  // and returns how many; -1 in show-tags-only mode; O(N + m log m) plus the
  // views' catching up, O(n + m log n) each. View: removes its tagged rows
  // from itself and its base views only (no record is deleted) and returns
  // 0; O(n).
  virtual int delete_tagged_records() = 0;
  // The number of visible rows (a view: its rows).
  virtual unsigned int get_num_records() const = 0;
  // The number of columns. View: its source's.
  virtual unsigned int get_num_fields() const = 0;
  // The record of a visible row, or null; owned by the table, valid until
  // the row is deleted. View: through its stack, O(d).
  virtual dbrecord* get_record(unsigned int row) const = 0;
  // A new blank record of the table's width, owned by the caller; a view
  // asks its table (null without one).
  virtual dbrecord* make_dummy_record() = 0;
  // The cell, shared not copied; "" when the row or column is missing.
  virtual LightweightString<char> getField(unsigned int row, unsigned int field) const = 0;
  // The column's name, "" when out of range. View: its source's.
  virtual const char* get_fieldname(unsigned int field) const = 0;
  // The length of the column's longest cell; 0 out of range. O(N).
  virtual int get_fieldsize(unsigned int field) const = 0;
  // The column's type (0 out of range). View: its source's.
  virtual DBFieldTypes::eType get_field_type(unsigned int field) const = 0;
  // Types a column: 1, or 0 out of range. View: forwarded to the table.
  virtual int set_fieldtype(unsigned int field, DBFieldTypes::eType type) = 0;
  // The same as get_field_type.
  virtual DBFieldTypes::eType get_fieldtype(unsigned int field) const = 0;
  // The column of that name (ignoring case), or -1. O(log c).
  virtual int get_fieldnum(const LightweightString<char>& name) const = 0;
  // Names a column: 1, or 0 out of range. View: forwarded to the table.
  virtual int set_fieldname(unsigned int field, const char* name) = 0;
  // The file name save_text writes to. A view keeps its own (its table's
  // when bound).
  virtual void set_filename(LightweightString<wchar_t> name) = 0;
  virtual LightweightString<wchar_t> get_filename() = 0;
  // The table's sort columns, always the table's (a view forwards them).
  virtual void set_sortfield(int field) = 0;
  // Sort on the columns listed up to the first negative entry; the array is
  // used in place and must outlive the sorts.
  virtual void set_sortfields(int* fields) = 0;
  virtual void set_sort_offset(int offset) = 0;
  // Sorts by the table's sort columns, descending when `direction` is
  // negative; equal rows keep their order. Table: its rows. View: its own
  // entries only (the table is not reordered). O(n log n) comparisons.
  virtual void sort(int direction, int flag) = 0;
  // Sets a row's tag. Table: the record's tag byte (any value). View: its
  // own tag, 0 or 1 (value != 0); the table's tags are untouched.
  virtual void set_tag(unsigned int row, int value) = 0;
  // Flips a row's tag (0 becomes 1, anything else 0).
  virtual void invert_tag(unsigned int row) = 0;
  // Sets every row's tag; returns 0. O(n).
  virtual int set_all_tags(int value) = 0;
  // Inverts every tag. Table: returns the raw row count. View: 0. O(n).
  virtual int invert_all_tags() = 0;
  // Table: turns show-tags-only mode on or off (O(N)). View: removes its
  // untagged rows (from itself and its base views), whatever `on` is; O(n).
  virtual void set_show_tags_only(int on) = 0;
  // Table: the mode flag. View: always 0.
  virtual int get_show_tags_only() = 0;
  // The row's tag; -1 (table) or 0 (view) for a missing row.
  virtual int get_tag(unsigned int row) = 0;
  // The number of rows with a non-zero tag. O(n).
  virtual int get_num_tags() = 0;
  // Sets the table's search query from a record's cells ("cell i contains
  // value i"); a view forwards it. O(c).
  virtual void set_query(dbrecord* query) = 0;
  // Tags the rows matching the query and returns how many. Table: with
  // `value` 0 the others are untagged. View: always untags the others. O(n)
  // matches.
  virtual int tag_matching_records(int value) = 0;
  // Tags the first row of every run of equal values of `field` (ignoring
  // case) and returns the tag count. Table: sorts itself on `field` first.
  // View: sorts a temporary view, leaving its own order. O(n log n).
  virtual int tag_all_different(int field) = 0;
  // Writes an identifier into the row's "cookie" column. The record's
  // result; 0 when the row or column is missing. View: the source row of
  // the view row, forwarded.
  virtual int set_field(unsigned int row, const Cookie& id) = 0;
  // Stores a value in a cell: 1, or 0 when the row or column is missing.
  // View: the source row of the view row, forwarded.
  virtual int set_field(unsigned int row, unsigned int field, const char* text) = 0;
  virtual int set_field(unsigned int row, unsigned int field, int value) = 0;
  virtual int set_field(unsigned int row, unsigned int field, double value) = 0;
  virtual int set_field(unsigned int row, unsigned int field, bool value) = 0;
  // Reads a non-empty cell (text cut to `len` characters; an integer, a
  // number, a boolean): 1. Empty or missing: 0, the output untouched. View:
  // translated to the source row.
  virtual int in_field(unsigned int row, unsigned int field, char* buf, int len) const = 0;
  virtual int in_field(unsigned int row, unsigned int field, int& value) const = 0;
  virtual int in_field(unsigned int row, unsigned int field, double& value) const = 0;
  virtual int in_field(unsigned int row, unsigned int field, bool& value) const = 0;
  // Appends `count` blank rows; returns the row count before (table: -1 in
  // show-tags-only mode). View: the records go to the end of the table.
  virtual int add_records(int count) = 0;
  // Header parameters. Table: its header (add/set: 0, or -1 when refused).
  // View: its own list, copied from its table or base view when bound
  // (add: 0; set: no meaning). O(number of parameters).
  virtual int add_param(const char* name, const char* value) = 0;
  virtual int set_param_val(const char* name, const char* value) = 0;
  // The value, or (table) null / (view) "" for an unknown name. Valid until
  // the parameter changes.
  virtual const char* get_param_val(const char* name) const = 0;
  // The first row whose cell in the column named `field` equals `value`
  // (its first n characters when n > 0), or -1. Table: a raw row; O(N) (the
  // "cookie" column uses an identifier cache). View: asks its source with
  // n = 0 and returns the source's row, not a view row.
  virtual int findFirst(const char* field, const char* value, int n) = 0;
  // Sets the process-wide comparison state for a sort of the table; a view
  // forwards it.
  virtual void sortPrepare(int direction, int flag) = 0;
  // 1 when the row matches the query, 0 when not, -1 for a missing row or
  // an empty query. View: asks its source about the same row number,
  // untranslated.
  virtual int match_record(int row) const = 0;
  // The table row behind a row: a table returns `row`; a view resolves it
  // through its stack (0 when out of range). O(d).
  virtual int baseIndex(int row) = 0;
  // Table: 1 when loaded or built successfully. View: its source's, 0 or 1.
  virtual int get_valid() const = 0;
};
