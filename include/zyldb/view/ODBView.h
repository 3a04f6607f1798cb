#pragma once

// Views: ordered, filtered selections of the rows of a table (zyldb) or of
// another view, sharing the table's records.
//
// A view (ODBViewRep) keeps an index with one entry per view row: a row number
// of its source (its base view when it is stacked on one, else its table) and
// the view's own tag of that row. Views stack to any depth; each row resolves
// through the views below it down to the table's record. A view never copies
// records, except when saving and in Convert_ODBView_to_zyldb. Edits made
// through a view go to the table's records; column numbers are the table's.
//
// A view implements ODBBase, so field maps, cursors and hosts work on views
// and tables alike. Operations about the set of rows, their order and their
// tags are the view's own; the rest are forwarded to the source.
//
// Deletions: a table announces deleted rows ("recordsDeleted"); each view
// registered with it drops or renumbers its entries and announces its own
// lost rows to the views stacked on it, so a deletion reaches every view of
// the table before delete_records returns. Insertions are not announced.
// Deleting many runs (deleteTagged, deleteRecords, the table's
// delete_tagged_records) costs O(n + m log n) for m rows under a view of n
// rows: the table removes them in one pass and every view catches up in one
// pass, while listeners get the messages of the run-by-run deletion.
//
// Listeners that edit: while a view delivers its deletion messages it refuses
// changes to its rows (remove, insertions, sorting; a warning is logged and
// nothing happens), and deletions that reach it meanwhile are applied after
// the delivery. See "Re-entrant listeners" in docs/ARCHITECTURE.md.
//
// Ownership and lifetime:
//  * A view does not own its table. Destroy (or unbind with odb(nullptr))
//    every view of a table before destroying the table; a view whose table is
//    gone may only be destroyed or unbound.
//  * ODBView is a handle sharing one ODBViewRep through the representation's
//    own reference count (separate from iObject's); the last handle destroys
//    it. A stacked view holds a counted reference to its base view, so a base
//    view outlives every view stacked on it.
//  * Do not hold an ODBViewRep in a Qm::Ptr.
//
// Threads: a table, its views and the process-wide sort state are used by one
// thread at a time. Only the Notifier base locks its own listener list.

#include <zyldb/db/ODBBase.h>
#include <zyldb/db/zyldb.h>
#include <zyldb/export.h>
#include <zyldb/platform/AssocList.h>
#include <zyldb/platform/Cookie.h>
#include <zyldb/platform/GrowString.h>
#include <zyldb/platform/LightweightString.h>
#include <zyldb/platform/Notifier.h>
#include <zyldb/platform/QmPtr.h>
#include <zyldb/view/ViewIndex.h>

#include <cstdint>
#include <vector>

class dbrecord;
class SExpr;
class ODBViewRep;

namespace zyl {
struct ODBViewInternal;
}

class ZYLDB_EXPORT ODBViewRep : public ODBBase, public Notifier {
 public:
  // A view bound to `db` (may be null) with the identity field spec (every
  // column of the source, in order). It shows no rows until filled.
  explicit ODBViewRep(zyldb* db);
  // As above with the field list `fields` (every column when null).
  ODBViewRep(zyldb* db, const char* fields);
  // As above with the null-terminated array of field names `names`, joined
  // into one field list with a "," after each name; a null array gives every
  // column.
  ODBViewRep(zyldb* db, const char** names);
  ODBViewRep(const ODBViewRep&) = delete;
  ODBViewRep& operator=(const ODBViewRep&) = delete;
  // Unstacks (releasing the base view), unbinds from the table and frees the
  // index, field spec and fields. Safe after the table has been destroyed.
  ~ODBViewRep() override;

  // ---- Reference count (ODBView handles and stacked views) ----------------

  // The number of holders; 0 after construction.
  uint32_t refCount() const { return refCount_; }
  void retainRep() { ++refCount_; }
  // Drops one reference. With a count of 1 or 0 the count becomes 0 and the
  // view is destroyed, so a view nobody retained dies on its first release.
  void releaseRep();

  // ---- Binding --------------------------------------------------------------

  // Resets every member to the unbound state (count 0, no index, no base
  // view or table, no registrations) and interns the revision parameter.
  // REQUIRES: a freshly constructed view; use odb(nullptr) on a live one.
  void init();
  // Binds the view to `db` when it differs from the current table: unstacks
  // and empties the view, leaves the old table's notifier, and, for a
  // non-null `db`, takes its file name and header parameters and registers
  // for its "recordsDeleted" messages.
  void odb(zyldb* db);
  zyldb* odb() const { return table_; }
  // Stacks the view on `base` (null unstacks) when it differs from the
  // current base view: empties the view and its parameters, leaves and
  // releases the old base view, then takes `base`'s parameters, registers
  // for its "recordsDeleted" messages and retains it. The table binding is
  // unchanged.
  void baseView(ODBViewRep* base);
  ODBViewRep* baseView() const { return baseView_; }
  // The base view when there is one, else the table; null when unbound.
  ODBBase* source() const;

  // ---- Index ----------------------------------------------------------------

  // The record of view row `row`, or null (no source, or out of range).
  // Owned by the table.
  dbrecord* operator[](int row) const;
  // The table row of view row `row` through every base view; 0 when out of
  // range or unbound.
  int baseIndex(int row) override;
  // The source row named by view row `row`, or -1 when out of range.
  int64_t sourceRow(int row) const;
  // The number of entries the index can hold.
  int indexCapacity() const { return index_.capacity(); }
  // Empties the view, then appends every source row r that satisfies the
  // condition, then applies the sort order.
  void buildIndex();
  // Resizes the index for `n` entries: at least 20, doubling to grow,
  // halving at most once per call and only below half use; 0 frees it.
  // Leaves the count alone.
  void sizeIndexFor(int n);
  // Appends an entry naming source row `row`; its tag is whatever the slot
  // held.
  void append(int row);
  // Frees the index; count 0.
  void clear();
  // The first view row naming source row `row`, or -1.
  int findViewIndexForBaseRow(unsigned long row) const;
  // Sorts the view rows (rows and tags together) with the table's sort
  // fields (see zyldb::set_sortfield): descending with dbr_backcmp when
  // `field` is negative, else ascending with dbr_cmp; `order` is passed to
  // the source's sortPrepare as its flag. Not stable, not reentrant.
  void sort(int field, int order) override;
  // True; a view has no selection condition of its own.
  bool satisfiesCondition(dbrecord* record);
  // Nothing; a view has no sort order of its own.
  void sortIndex();

  // New views, returned with a reference count of 0 (take them into an
  // ODBView). Null when this view has no table.
  //  copy: same table and field spec; stacked on the same base view and
  //    showing all its rows, or over the table showing this view's rows;
  //    tags copied by position.
  //  copyWithNewBaseView: over a new copy of the table (owned by the caller,
  //    not by the view) showing the table rows of this view's rows, with
  //    this view's parameters and tags.
  //  newTagSubview: stacked on this view, showing the rows tagged in it.
  ODBViewRep* copy();
  ODBViewRep* copyWithNewBaseView();
  ODBViewRep* newTagSubview();

  // ---- Selection and tags ---------------------------------------------------
  // Positions are clamped to 0..count. Without a source these do nothing and
  // return 0.

  // Inserts entries naming source rows first..first+n-1 at `at` (not checked
  // against the source). The new entries keep the tags stored in their
  // slots. Returns n (0 for n <= 0).
  int displayRecordsAt(int first, int n, int at);
  // Inserts the first source row whose `field` matches `value` (the source's
  // findFirst). False when none does.
  bool displayMatchAt(const char* field, const char* value, int at);
  // Inserts, for each identifier in order, the row whose "Cookie" column
  // holds it; unmatched identifiers are skipped. Returns the number inserted.
  int displayRecordsAt(const CookieVec& ids, int at);
  int displayRecordsAt(const CookieSet& ids, int at);
  // Inserts every source row tagged in the source. Returns the number of
  // positions opened (the source's tag count).
  int displayTaggedRecordsAt(int at);
  // Inserts, at `at`, the table rows of `other`'s rows whose records this
  // view does not show yet. Only for a view over the table (no base view)
  // and an `other` lying directly over the same table; else 0. Returns the
  // number inserted.
  int displayAllFromAt(ODBViewRep* other, int at);
  // Shows every source row in source order (the old rows are removed and
  // announced first).
  void displayAllRecords();
  // displayAllRecords, then, when the source has a "Tag" column, each view
  // row's tag from the source's tag of that row.
  void displayAllRecordsWithBaseTagStatus();
  // displayAllRecords, then, when the source has a "Tag" column, each view
  // row's tag from that column's number (strtol; non-zero is tagged).
  void setupViewTagsFromZyldbTagField();
  // The first view row showing `record` (pointer identity), or -1.
  int find(dbrecord* record) const;
  void tagAll(bool on);
  void invertAllTags();
  int countTags() const;
  // True outside 0..count-1, else whether the row is untagged.
  bool notTagged(int row);
  // The row's tag; false outside 0..count-1.
  bool tag(int row);
  // Tags the rows whose source row matches the source's query and counts
  // them; with `keep` 0 the other rows are untagged, else left alone.
  int tagMatches(int keep);
  // Tags the later members of every run of rows whose values in `field` are
  // equal ignoring case; untags the rest. Sorts a temporary view stacked on
  // this one with the table's sort field set to `field`. Returns the number
  // tagged.
  int tagDuplicates(int field);
  // For a view already in order of `field`: tags every row equal (ignoring
  // case) to the first row of its run, leaving other tags alone. Returns the
  // number tagged.
  int tagDuplicatesOrdered(int field);
  // Writes this view's tags to the source's tags of the rows shown.
  void tagBaseFromTags();

  // ---- Editing ----------------------------------------------------------------

  // Inserts n blank records into the source before the source row of view
  // row `at` (appends them to the source when at >= count) and n entries
  // naming them at the same view position; entries after it are renumbered.
  // Other views of the source are not told.
  void insertBlankRecords(int at, int n);
  // Deletes the records of view rows at..at+n-1 from the table (through the
  // base views), one source delete_records per run of consecutive source
  // rows. The table's announcement removes the rows from every view.
  void deleteRecords(int at, int n);
  // Deletes the records of every run of tagged rows; returns how many.
  int deleteTagged();
  // Drops view rows at..at+n-1 (cut at the end) from this view only and
  // announces their numbers to the views stacked on it. Nothing when `at` is
  // out of range.
  void remove(int at, int n);
  // Drops the rows from this view and from every base view below it (not
  // from the table).
  void removeRecordsFromBaseView(int at, int n);
  // Drops, with removeRecordsFromBaseView, every run of rows for which
  // `pred` is true. Returns how many.
  int removeSome(bool (ODBViewRep::*pred)(int));
  int removeTagged();
  int removeNonTagged();
  // Handles a "recordsDeleted" message from the source: renumbers the
  // entries after each listed row, drops the entries naming a listed row,
  // announces each drop (with the view as it stands after that drop) and then
  // the closing list and "recordsChanged". Returns 0.
  int recordsDeletedNotify(const NotifyMsg& msg);

  // ---- Parameters, field spec, file name -------------------------------------

  // Stores each of the other view's / the table's parameters under its name.
  void addParamsFrom(ODBViewRep* other);
  void addParamsFrom(zyldb* db);
  // Stores "Rev 1" under "ZYLDB" only when that entry holds a value with no
  // characters at all; an absent or valueless entry stays as it is (an
  // absent one is not added).
  void internRevision();
  // Replaces the field spec text with a copy of `text` (null frees it) and
  // adds one field reference per known column name in it (tab- and
  // comma-separated), warning about unknown names. The fields list is not
  // emptied first: earlier fields come first, in reverse order.
  void fieldSpec(const char* text);
  // The stored field spec text, or null.
  const char* fieldSpec() const { return fieldSpecText_; }
  // The field references built by fieldSpec; owned by the view, may be null.
  SExpr* fields() const { return fields_; }
  // Appends the source's column names separated by ",".
  void identityFieldSpec(GrowString& out);
  // The first source column named exactly `name` (case-sensitive), or -1
  // (0 for a source reporting a negative column count).
  int dbFieldIndex(const char* name);
  // Appends "fieldSpec: <text>\n" and, when there are fields,
  // "fields: (<names>)\n".
  void asString(GrowString& out);
  // Replaces the stored file name (unless it is that very string) and
  // returns it.
  LightweightString<wchar_t> fileName(LightweightString<wchar_t> name);
  const AssocList& params() const { return params_; }

  // ---- Saving -------------------------------------------------------------------

  // Writes the parameters, the table's column header and, unless
  // `headerOnly`, one line per view row (a "Tag" column carries the view's
  // tag in the written copy) to `name`, replacing the file atomically.
  // Returns the number of record lines written; 0 when unbound, `name` is
  // empty or the file could not be written (the old file is then intact).
  int saveAsText(LightweightString<wchar_t> name, bool headerOnly);
  int saveAsText(const char* name, bool headerOnly);
  // As saveAsText, writing only the rows whose record is tagged in the
  // table. Returns the number of view rows examined (not written), 0 on
  // failure.
  int saveOnlyTagged(LightweightString<wchar_t> name);
  int saveOnlyTagged(const char* name);

  // ---- ODBBase ----------------------------------------------------------------

  int save_text() override;
  bool save_tags() override;
  int insert_records(unsigned int at, unsigned int n) override;
  void delete_records(unsigned int at, unsigned int n) override;
  int delete_tagged_records() override;
  unsigned int get_num_records() const override;
  unsigned int get_num_fields() const override;
  dbrecord* get_record(unsigned int row) const override;
  dbrecord* make_dummy_record() override;
  LightweightString<char> getField(unsigned int row, unsigned int field) const override;
  const char* get_fieldname(unsigned int field) const override;
  int get_fieldsize(unsigned int field) const override;
  DBFieldTypes::eType get_field_type(unsigned int field) const override;
  int set_fieldtype(unsigned int field, DBFieldTypes::eType type) override;
  DBFieldTypes::eType get_fieldtype(unsigned int field) const override;
  int get_fieldnum(const LightweightString<char>& name) const override;
  int set_fieldname(unsigned int field, const char* name) override;
  void set_filename(LightweightString<wchar_t> name) override;
  LightweightString<wchar_t> get_filename() override;
  void set_sortfield(int field) override;
  void set_sortfields(int* fields) override;
  void set_sort_offset(int offset) override;
  void set_tag(unsigned int row, int value) override;
  void invert_tag(unsigned int row) override;
  int set_all_tags(int value) override;
  int invert_all_tags() override;
  // Removes the untagged rows whatever `on` is.
  void set_show_tags_only(int on) override;
  int get_show_tags_only() override { return 0; }
  int get_tag(unsigned int row) override;
  int get_num_tags() override;
  void set_query(dbrecord* query) override;
  // tagMatches(0), whatever the argument.
  int tag_matching_records(int value) override;
  // Tags the first row of every value of `field`; returns the tag count.
  int tag_all_different(int field) override;
  int set_field(unsigned int row, const Cookie& id) override;
  int set_field(unsigned int row, unsigned int field, const char* text) override;
  int set_field(unsigned int row, unsigned int field, int value) override;
  int set_field(unsigned int row, unsigned int field, double value) override;
  int set_field(unsigned int row, unsigned int field, bool value) override;
  int in_field(unsigned int row, unsigned int field, char* buf, int len) const override;
  int in_field(unsigned int row, unsigned int field, int& value) const override;
  int in_field(unsigned int row, unsigned int field, double& value) const override;
  int in_field(unsigned int row, unsigned int field, bool& value) const override;
  // Appends n blank rows; returns the count before the call.
  int add_records(int n) override;
  // Parameters are the view's own; add_param returns 0. get_param_val gives
  // "" for an unknown name; the pointer is valid until the entry changes or
  // the parameters are emptied.
  int add_param(const char* name, const char* value) override;
  int set_param_val(const char* name, const char* value) override;
  const char* get_param_val(const char* name) const override;
  int findFirst(const char* field, const char* value, int n) override;
  void sortPrepare(int direction, int flag) override;
  // The source's match_record of the same row number (not translated).
  int match_record(int row) const override;
  int get_valid() const override;

 private:
  friend struct zyl::ODBViewInternal;

  struct Unbound {};
  explicit ODBViewRep(Unbound);

  // Notifier callbacks: filter what reaches recordsDeletedNotify.
  int onTableRecordsDeleted(const NotifyMsg& msg);
  int onBaseRecordsDeleted(const NotifyMsg& msg);
  Qm::Ptr<iObject> registerFor(Notifier& notifier, int (ODBViewRep::*method)(const NotifyMsg&));
  void storeParam(const char* name, const char* value);
  void linkStacked(ODBViewRep* base) noexcept;
  void unlinkStacked() noexcept;
  // True (after a warning) when the view is announcing a deletion: its rows
  // cannot change until the announcement is over.
  bool refuseWhileAnnouncing(const char* what) const;

  uint32_t refCount_ = 0;
  ODBViewRep* baseView_ = nullptr;
  zyldb* table_ = nullptr;
  zyl::ViewIndex index_;
  char* fieldSpecText_ = nullptr;
  LightweightString<wchar_t> fileName_;
  AssocList params_;
  SExpr* fields_ = nullptr;
  void* condition_ = nullptr;
  void* sortOrder_ = nullptr;
  Qm::Ptr<iObject> tableRegistration_;
  Qm::Ptr<iObject> baseRegistration_;

  // Deletion delivery (see ODBView_edit.cpp). While a view announces lost
  // rows (`announcing_`), the views stacked on it join the announcement and
  // apply its list (`announced*_`) in one pass when the messages have gone;
  // deletions that reach the view meanwhile wait in the queue.
  ODBViewRep* firstStacked_ = nullptr;  // views stacked on this one
  ODBViewRep* nextStacked_ = nullptr;   // the next view stacked on the same base
  int32_t announcing_ = 0;
  bool announcingClosing_ = false;  // the message being issued is a closing list
  bool joinedBase_ = false;         // waits for the base view's announcement to end
  bool joinedTable_ = false;        // waits for the table's deletion to end
  bool lost_ = false;               // a deletion could not be queued
  std::vector<int32_t> announcedRows_;
  std::vector<uint32_t> announcedEnds_;
  std::vector<ODBViewRep*> deferredStacked_;
  std::vector<int32_t> queuedRows_;
  std::vector<uint32_t> queuedGroupEnds_;
};

// A handle sharing one ODBViewRep through its reference count. An empty
// handle holds nothing.
class ZYLDB_EXPORT ODBView {
 public:
  ODBView() = default;
  // Takes a counted reference to `rep` (may be null).
  explicit ODBView(ODBViewRep* rep);
  ODBView(const ODBView& other);
  ODBView(ODBView&& other) noexcept : rep_(other.rep_) { other.rep_ = nullptr; }
  // Retains the right-hand view before releasing the left-hand one, so
  // self-assignment is safe.
  ODBView& operator=(const ODBView& other);
  ODBView& operator=(ODBView&& other) noexcept;
  ~ODBView();

  // A handle on rep()->copy() / rep()->copyWithNewBaseView(); empty for an
  // empty handle or a view without table.
  ODBView copy() const;
  ODBView copyWithNewBaseView() const;

  ODBViewRep* rep() const { return rep_; }
  ODBViewRep* operator->() const { return rep_; }
  explicit operator bool() const { return rep_ != nullptr; }

 private:
  ODBViewRep* rep_ = nullptr;
};

// A new table holding copies of the view's records in view order, with the
// columns and parameters of the view's table; the caller owns it. Null when
// the view (or the handle) has no table or the new table refuses the rows.
ZYLDB_EXPORT zyldb* Convert_ODBView_to_zyldb(ODBView view);
