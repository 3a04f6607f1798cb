#pragma once

// zyldb: the in-memory table of a log.
//
// A table is an ordered array of rows (dbrecord, all values text), a list of
// columns (name and type), the file header's parameters, a sort order, a tag
// mode and a list of pending changes. It owns its records; a record keeps a
// pointer back to its table. It implements ODBBase, the interface it shares
// with views, and announces row deletions ("recordsDeleted") and batched
// record changes ("recordsChanged") through its Notifier base.
//
// Row numbers given to the accessors are visible row numbers: in
// show-tags-only mode they index only the tagged rows (in raw order),
// otherwise they are the raw row numbers. In show-tags-only mode the
// row-changing operations refuse to act.
//
// Results follow the library's convention: -1 (all bits set when unsigned)
// when refused or not found, 0 when nothing was done, 1 or a count on
// success. Out-of-range rows and columns give null, 0, -1 or "" and never fail
// hard. Memory exhaustion raises Qm::Exception::BadAlloc; the table then
// stays consistent and destructible.
//
// Threads: a table, its views and the process-wide sort state (dbr_cmp and
// friends) are used by one thread at a time. Only the Notifier base locks its
// own listener list; notifications are delivered on the thread that made the
// change.

#include <zyldb/db/DBFieldTypes.h>
#include <zyldb/db/LoadError.h>
#include <zyldb/db/ODBBase.h>
#include <zyldb/export.h>
#include <zyldb/platform/Cookie.h>
#include <zyldb/platform/LightweightString.h>
#include <zyldb/platform/Notifier.h>
#include <zyldb/platform/TextSearch.h>

#include <cstdint>
#include <ctime>
#include <functional>
#include <map>
#include <memory>
#include <utility>
#include <vector>

class dbrecord;
class TextFile;
class configb;
namespace zyl {
class RowDeletion;
}

// The caller's copy of a table's last load error (see read_error_info); the
// codes are named in DBLoadError.
struct dberror {
  int32_t code = 0;
  int32_t detail = 0;
  int32_t extra1 = 0;
  int32_t extra2 = 0;
};

class ZYLDB_EXPORT zyldb : public ODBBase, public Notifier {
 public:
  // The most parameters a table holds, the magic "ZYLDB" one included.
  static constexpr unsigned int kMaxParams = 40;
  // Row slots are allocated this many at a time.
  static constexpr unsigned int kChunkRows = 500;

  // ---- Construction -------------------------------------------------------

  // An empty, invalid table without storage; the host loads or builds it
  // (set_filename + loadFromFile, or post_init + addField ...).
  zyldb();
  // Loads the file `fileName` with loadFromFile(mode, flag): `mode` bounds the
  // rows read, `flag` asks for a strict header. get_valid() tells whether the
  // load succeeded.
  zyldb(LightweightString<wchar_t> fileName, int mode, bool flag);
  // One column per descriptor before the first one of type 0. Valid, no rows.
  // REQUIRES: descs != nullptr.
  explicit zyldb(const DBFieldDesc* descs);
  // One column per element. Valid, no rows.
  explicit zyldb(const std::vector<DBFieldDesc>& descs);
  // The columns, parameters and revision of `src`; with `copyRecords`
  // non-zero also copies of every row visible in `src` (only the tagged rows
  // when `src` shows tags only). The copied records have no container.
  zyldb(const zyldb& src, int copyRecords);
  // As zyldb(src, 1) but without the parameters; `descs` is not consulted.
  zyldb(const zyldb& src, DBFieldDesc* descs);

  zyldb(const zyldb&) = delete;
  zyldb& operator=(const zyldb&) = delete;

  ~zyldb() override;

  // ---- Storage and lifecycle ----------------------------------------------

  // Resets the table to the empty, invalid state (no columns, parameters or
  // storage; revision 1). A table that still holds any of these is released
  // first, as by free(). The file name is kept.
  void init();
  // Allocates the first kChunkRows row slots, stamps the creation time, sets
  // the sort order to column 0 with offset 0 and records which columns are
  // special label columns. REQUIRES: no storage yet (after init or free).
  void post_init();
  // Grows the row storage by kChunkRows slots, keeping the rows.
  void add_chunk();
  // Destroys every record, releases the storage, parameters, columns and
  // caches, then init().
  void free();

  // Appends `count` blank records (with this table as container). Returns the
  // row number of the first new one (the old row count; also for count < 1),
  // or -1 (as unsigned) in show-tags-only mode.
  int add_records(int count) override;
  // Inserts `count` blank records at raw row `first` (at the end when
  // `first` is past it). Returns the show-tags-only flag, which is non-zero
  // when the call was refused; the result of a successful call (0) carries no
  // meaning. Empties the identifier cache. Sends no notification.
  int insert_records(unsigned int first, unsigned int count) override;
  // Destroys raw rows first..first+count-1 (cut at the end), moves the rest
  // down, empties the identifier cache, sets the changed flag and sends
  // "recordsDeleted" with the deleted row numbers, each followed by a blank.
  // Does nothing when `first` is past the end or in show-tags-only mode.
  void delete_records(unsigned int first, unsigned int count) override;

  unsigned int get_num_records() const override;
  unsigned int get_num_fields() const override { return numFields; }
  // The raw row count, whatever the mode.
  unsigned int getNumRawRecords() const { return numRecords; }
  // The number of row slots allocated (a multiple of kChunkRows).
  unsigned int getCapacity() const { return capacity; }
  // The record at visible row `row`, or null. Owned by the table; valid until
  // the row is deleted or the table freed.
  dbrecord* get_record(unsigned int row) const override;
  // The raw row of a visible row; -1 (as unsigned) when there is none. In
  // show-tags-only mode a linear scan; the row equal to the tagged count is
  // accepted and matches the first raw row without a record.
  unsigned int get_raw_row(unsigned int visibleRow);
  // The visible row of a raw row; -1 (as unsigned) when it is not visible.
  unsigned int get_new_row(unsigned int rawRow);
  int get_valid() const override { return valid; }
  // A table is its own base: returns `row`.
  int baseIndex(int row) override { return row; }
  // A new blank record of get_num_fields() fields; the caller owns it.
  dbrecord* make_dummy_record() override;
  // Assigns `src` to the record at visible row `row` (values only; the
  // target's container and tag stay), also when `src` is that record (its
  // leading white space is then dropped and it is marked changed). Nothing
  // when either is missing.
  void copy_record(int row, dbrecord* src);
  // As above with `other`'s record at `otherRow`.
  void copy_record(int row, zyldb* other, int otherRow);

  // ---- Cell accessors (visible rows) --------------------------------------

  // The cell, shared not copied; "" when the row or column is missing.
  LightweightString<char> getField(unsigned int row, unsigned int field) const override;
  // Store a value (leading blanks dropped; numbers formatted as dbrecord
  // does). 1 on success, 0 for a missing row or column.
  int set_field(unsigned int row, unsigned int field, const char* text) override;
  int set_field(unsigned int row, unsigned int field, int value) override;
  int set_field(unsigned int row, unsigned int field, double value) override;
  int set_field(unsigned int row, unsigned int field, bool value) override;
  // Stores `value` as it is (no trimming); nothing changes, not even the
  // changed flags, when it equals the cell. 1 on success, 0 when missing.
  int setField(unsigned int row, unsigned int field, const LightweightString<char>& value);
  // Copies at most `len` characters of a non-empty cell into `buf` and writes
  // a 0 at buf[len]; returns 1. An empty or missing cell returns 0 and leaves
  // `buf` alone. REQUIRES: buf holds len + 1 bytes.
  int in_field(unsigned int row, unsigned int field, char* buf, int len) const override;
  // A non-empty cell read as a decimal integer (strtol), a number (strtod) or
  // a boolean (true when it begins with lower-case 't'); 1. Empty: 0, value
  // untouched.
  int in_field(unsigned int row, unsigned int field, int& value) const override;
  int in_field(unsigned int row, unsigned int field, double& value) const override;
  int in_field(unsigned int row, unsigned int field, bool& value) const override;

  // ---- Columns --------------------------------------------------------------

  // The column's name; "" for a column out of range or without a name.
  const char* get_fieldname(unsigned int field) const override;
  // The column named `name` (ignoring case), or -1.
  int get_fieldnum(const LightweightString<char>& name) const override;
  // Names a column; '&' is dropped from the name when the library setting
  // "remove_fieldname_ampersands" is on. 1, or 0 for a column out of range.
  int set_fieldname(unsigned int field, const char* name) override;
  // Types a column; a type of 0 is stored as text and recorded as the error
  // (2, 3). 1, or 0 for a column out of range.
  int set_fieldtype(unsigned int field, DBFieldTypes::eType type) override;
  // The column's type, 0 when out of range.
  DBFieldTypes::eType get_field_type(unsigned int field) const override;
  DBFieldTypes::eType get_fieldtype(unsigned int field) const override;
  // The length of the column's longest cell over all raw rows; 0 when out of
  // range or there are no rows.
  int get_fieldsize(unsigned int field) const override;
  // Accepted and ignored: values have no fixed width.
  void setFieldWidth(unsigned int field, int width);
  // Adds a column and widens the (visible) records. Returns its number, or
  // the number of an existing column of that name (then nothing changes).
  int addField(const DBFieldDesc& desc);
  // Removes the column named `name` from the columns and every raw row;
  // nothing when there is none.
  void removeField(const LightweightString<char>& name);
  // True when both tables have the same column names (exact case), in order.
  bool sameColumns(zyldb* other);
  // Appends copies of all of `other`'s raw rows. Returns their count, or -1
  // when the revisions, column names or types differ or this table shows
  // tags only. REQUIRES: other != nullptr.
  int add_zyldb(zyldb* other);
  // Appends `other`'s visible rows, copying the cells of the columns whose
  // names match and converting timecodes between their two text forms.
  // Returns 0 when no column matches, else 1. REQUIRES: other != nullptr.
  int merge_all_matching(zyldb* other);
  // The visible row holding identifier `id` in the "cookie" column, or -1.
  // Served from a cache that is built on first use and emptied only by row
  // insertions and deletions: after a sort it still gives the old rows.
  int getRowIndexByID(const Cookie& id) const;
  // Writes `id` into the row's "cookie" column and enters it into the
  // identifier cache. The result of the record's setField; 0 when the row or
  // the column is missing.
  int set_field(unsigned int row, const Cookie& id) override;

  // ---- Tags -------------------------------------------------------------------

  void set_tag(unsigned int row, int value) override;
  // A tag of 0 becomes 1, any other value 0.
  void invert_tag(unsigned int row) override;
  // The tag byte (0..255), or -1 for a missing row.
  int get_tag(unsigned int row) override;
  // set_tag on raw row numbers 0..n-1 (visible rows in show-tags-only mode,
  // the rest skipped). Returns 0.
  int set_all_tags(int value) override;
  // Inverts every raw row's tag; returns the raw row count.
  int invert_all_tags() override;
  // The number of visible rows with a non-zero tag.
  int get_num_tags() override;
  // Deletes every run of rows tagged exactly 1, one delete_records per run.
  // Returns the number deleted, or -1 in show-tags-only mode.
  int delete_tagged_records() override;
  // Rebuilds the show-tags-only index from the raw rows' tags.
  void index_tags();
  // Turns show-tags-only mode on (indexing the tagged rows) or off.
  void set_show_tags_only(int on) override;
  int get_show_tags_only() override { return showTagsOnly; }

  // ---- Sorting ----------------------------------------------------------------

  // Sorts on `field` alone.
  void set_sortfield(int field) override;
  // Sorts on the fields listed, ending at the first negative entry. The
  // array is used in place and may be changed by sortPrepare. REQUIRES:
  // `fields` outlives every sort of this table.
  void set_sortfields(int* fields) override;
  // Positive: compare from this character on; negative: compare only the
  // last -offset characters (ascending sort only).
  void set_sort_offset(int offset) override;
  // Sets the process-wide comparison state (comco, cmp_fields, ...) for a
  // sort of this table; cuts the sort list at a field out of range by
  // overwriting it with -1. `direction` is not used.
  void sortPrepare(int direction, int flag) override;
  // Sorts the raw rows, descending (dbr_backcmp) when `direction` is
  // negative, else ascending (dbr_cmp). Rows that compare equal keep their
  // order. `flag` non-zero compares plain text instead of strxcmp order.
  void sort(int direction, int flag) override;

  // ---- Search ----------------------------------------------------------------

  // 1 when the column is one of the special label columns ("Start time",
  // "End time", "snd start", ...), else 0.
  int isSpecialLabelField(unsigned long field) const;
  // Replaces the query with one criteria per column; ignored when `criteria`
  // has fewer elements than the table has columns.
  void setQuery(const std::vector<TextSearch::Criteria>& criteria);
  // The query "cell i contains q's value i" for every column; ignored when
  // `query` is null or has fewer fields than the table has columns.
  void set_query(dbrecord* query) override;
  int match_field(const dbrecord* rec, int field) const;
  bool matchField(const dbrecord* rec, unsigned short field,
                  const TextSearch::Criteria& crit) const;
  // Whether the query's text lies within the record's start..end range of
  // the label pair that `field` belongs to.
  bool found_in_special_label_field(const dbrecord* rec, int field) const;
  // 1 when the row matches the query in every column, 0 when not, -1 for a
  // missing row or an empty query.
  int match_record(int row) const override;
  // Tags the matching raw rows; with `keepOthers` 0 untags the others.
  // Returns the number of matches; 0 for an empty query or table.
  int tag_matching_records(int keepOthers) override;
  // Sorts on `field` and tags the first row of every run of values equal
  // ignoring case (never a leading run of empty cells). Returns
  // get_num_tags().
  int tag_all_different(int field) override;
  // The first raw row whose cell in the column `field` equals `value` (its
  // first `n` characters when n > 0), or -1. For the "cookie" column the
  // identifier cache is asked first.
  int findFirst(const char* field, const char* value, int n) override;

  // ---- Change notification ------------------------------------------------

  // Opens an update bracket; returns the new depth. The outermost bracket
  // starts with an empty list of changed identifiers.
  unsigned int beginUpdate();
  void addToUpdate(const Cookie& id);
  // Closes a bracket; the outermost one sends "recordsChanged" (payload
  // WrappedData<CookieVec>) when identifiers were collected. An unmatched
  // end is ignored.
  void endUpdate();
  // Publishes row `row` to `cfg` (dbrecord::update) and collects its
  // identifier. 0 when the row is missing or the record refused, else 1.
  int update(configb* cfg, int row);
  // Clears every record's changed flag and the table's.
  void clear_changed();
  int get_changed() const { return changed; }
  // Called by records of this table when they change.
  void markChanged(bool stampTime) {
    changed = 1;
    if (stampTime) lastChange_ = time(nullptr);
  }
  time_t getLastChange() const { return lastChange_; }
  time_t getCreated() const { return created; }

  // ---- Header parameters ------------------------------------------------------

  // The index of the parameter named `name` (ignoring case), or -1.
  int find_param(const char* name) const;
  // The parameter's value, or null. Valid until the parameter changes.
  const char* get_param_val(const char* name) const override;
  // Sets or adds a parameter (the list starts with "ZYLDB" = "Rev 1").
  // 0 on success, -1 when refused.
  int add_param(const char* name, const char* value) override;
  int set_param_val(const char* name, const char* value) override;
  unsigned int getNumParams() const { return numParams; }
  const char* getParamName(unsigned int i) const { return i < numParams ? paramNames[i] : nullptr; }
  const char* getParamValue(unsigned int i) const {
    return i < numParams ? paramValues[i] : nullptr;
  }
  int getRevision() const { return revision; }
  // Reads the parameter lines and the terminator from `f`'s current line on,
  // leaving the last line read in `scratch`. 0 when a header was read.
  int read_params(TextFile& f, dbrecord* scratch);
  void save_params(TextFile& f);
  // Appends the terminator, widths, types and names lines (only the names
  // line with `namesOnly`).
  int save_column_header(TextFile& f, bool namesOnly);
  // The minimum display width of a column of that name (4 if not listed).
  static int getMinFieldSize(const char* name);

  // ---- Files ------------------------------------------------------------------

  // Progress of a load or save: the bytes read or written so far and the
  // total when it is known (0 when not; while saving, the total is the
  // expected size of the file, which escapes may exceed a little). Called on the loading or saving
  // thread, at most about once per MiB and once at the end (done == total
  // then). It may not use the table.
  using ProgressFn = std::function<void(uint64_t done, uint64_t total)>;
  // Sets the function loadFromFile, load_text, save_text,
  // save_text_without_header and save_tags report to; an empty function
  // (the default) turns reporting off, which then costs nothing.
  void setProgress(ProgressFn fn) { progress_ = std::move(fn); }

  void set_filename(LightweightString<wchar_t> name) override;
  LightweightString<wchar_t> get_filename() override;
  // Resets the table and loads the file it names; sets the valid flag on
  // success. At most `maxRecords` rows are read.
  void loadFromFile(int maxRecords, bool strictHeader);
  int load_text(int maxRecords);
  // Appends rows read from `f`'s current line on; returns how many.
  int add_text(TextFile& f, int skipFirst, int maxRecords);
  // Writes the whole file; the number of rows written, 0 when it failed.
  int save_text() override;
  int save_text_without_header();
  bool save_tags() override;
  void fill_error_info(int code, int detail, int extra1, int extra2);
  // 1 and the last error in `e`, or 0 (e untouched) when there was none.
  int read_error_info(dberror& e);
  void timecode_check(const char* text);

 protected:
  // Whether the batch operations may work on the rows directly instead of
  // through the overridable steps the table's rules are written in:
  // delete_tagged_records, when no listener is registered, drops every tagged
  // row in one pass instead of one delete_records call per run, and
  // tag_matching_records matches rows without calling match_record (the same
  // rows result; nothing can see the difference). A subclass that overrides
  // delete_records, get_tag, get_num_records or match_record and relies on
  // those calls returns false. The table's answer: true.
  virtual bool batchesMayBypassSteps() const { return true; }

  // The sorted part of the identifier cache: built once by getRowIndexByID.
  struct IdRow {
    Cookie id;
    unsigned int row;
  };
  void clearIdCache() const;

  std::vector<LightweightString<char>> fieldNames;
  std::vector<DBFieldTypes::eType> fieldTypes;
  int32_t revision = 1;
  uint32_t numFields = 0;
  uint32_t numRecords = 0;
  uint32_t capacity = 0;
  dbrecord** rows = nullptr;           // owned records, raw order
  dbrecord** tagIndex = nullptr;       // not owned: the visible rows in show-tags-only mode
  char* paramNames[kMaxParams] = {};   // heap_strdup blocks
  char* paramValues[kMaxParams] = {};  // heap_strdup blocks
  uint32_t numParams = 0;
  LightweightString<wchar_t> fileName;
  int32_t defaultSortFields[10] = {};
  int32_t* sortFields = nullptr;
  int32_t showTagsOnly = 0;
  uint32_t numTagged = 0;
  int32_t sortOffset = 0;
  int32_t errorPresent = 0;
  dberror errorInfo;
  int32_t changed = 0;
  time_t created = 0;
  CookieVec pendingUpdates;
  uint32_t updateDepth = 0;
  std::vector<TextSearch::Criteria> query;
  int32_t searchFlag = 0;
  // The identifier cache: `rowById` is built in one go (sorted by Cookie, the
  // first row of an identifier only); `rowByIdSet_` holds the entries made by
  // set_field(row, Cookie), which take precedence.
  mutable std::vector<IdRow> rowById;
  mutable std::map<Cookie, unsigned int> rowByIdSet_;
  std::map<LightweightString<char>, unsigned int, StrCmpCI> fieldByName;
  std::vector<bool> specialLabelFields;
  int32_t valid = 0;
  // Extras: the columns typed as timecodes by a header-less load (ended by
  // -1), and the time of the last change by a record read.
  std::vector<int> timecodeFields_;
  time_t lastChange_ = 0;
  ProgressFn progress_;
  // While a save writes its header: each column's longest value, measured
  // in the save's one pass over the rows, from which get_fieldsize answers
  // (an overriding get_fieldsize is still asked by the header writer).
  const std::vector<size_t>* measuredWidths_ = nullptr;

 private:
  // Deletes many runs of rows in one pass (src/db/RowDeletion_internal.h).
  friend class zyl::RowDeletion;

  class CompiledQuery;  // the query prepared for one tag_matching_records
  void destroyRows() noexcept;
  void growRows(unsigned int newCapacity);
  void ensureCapacity(uint64_t rowsNeeded);
  void buildColumns(const DBFieldDesc* descs, unsigned int n);
  void copyColumnsFrom(const zyldb& src);
  void copyVisibleRowsFrom(const zyldb& src);
  void issueRecordsDeleted(const LightweightString<char>& text);
  // The three loaders of loadFromFile: a ".csv" file, a full column header
  // (false when it is refused), the names line of a header without one.
  void loadCsv(const TextFile& file);
  bool loadColumnHeader(TextFile& file, dbrecord& scratch);
  void loadNamesOnlyHeader(const dbrecord& scratch);
  // A new record of get_num_fields() fields with this table as container:
  // the one place the loader creates records.
  std::unique_ptr<dbrecord> makeRecord();
  // Save checks: records the refusal (DBLoadError::saveRefused) and logs
  // why; checkSavable is false when the file would not load back as the
  // table is.
  bool refuseSave(const char* function, DBLoadError::SaveProblem problem, const char* reason);
  bool checkSavable(const char* function, size_t longestValue);
  int saveCsv();
};

// The process-wide sort state shared by tables and views (see sortPrepare):
// the number of comparisons since the last sortPrepare, and the sort list in
// force (field numbers ended by a negative entry).
ZYLDB_EXPORT extern int comco;
ZYLDB_EXPORT extern int* cmp_fields;

// qsort-style comparators; each argument points at a slot holding a
// dbrecord*. dbr_cmp is ascending: blank records last, empty cells after
// non-empty ones, a timecode column ignoring the separator before the
// frames, the table's offset and plain/strxcmp order. dbr_backcmp is
// descending by plain case-insensitive comparison of the whole cells.
// REQUIRES: sortPrepare of the records' table has run.
ZYLDB_EXPORT int dbr_cmp(const void* a, const void* b);
ZYLDB_EXPORT int dbr_backcmp(const void* a, const void* b);
