// The table: row storage and lifecycle, construction, cell accessors, columns
// and merging, the identifier cache and change notification. Tags, sorting
// and search are in zyldb_sort.cpp.
//
// Row storage invariant: `rows` and `tagIndex` are blocks of at least
// `capacity` pointers from the platform allocator (both null while capacity
// is 0); rows[0..numRecords) hold the owned records in raw order. Storage
// grows through the allocator's reallocate, so a large table grows in place
// (or by remapping) instead of copying its pointer array chunk by chunk.
// Every step that may throw BadAlloc happens before the table's counts change,
// or leaves the counts describing exactly what was built, so a failed
// operation leaves a consistent, destructible table.

#include <strings.h>
#include <zyldb/db/dbrecord.h>
#include <zyldb/db/zyldb.h>
#include <zyldb/platform/OS.h>
#include <zyldb/platform/QmException.h>
#include <zyldb/platform/time_def.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "db/LibrarySettings_internal.h"
#include "db/NotifyTypes_internal.h"
#include "db/RowDeletion_internal.h"

namespace {

// Record field indexes are 16-bit; a larger column number names no cell.
constexpr unsigned int kMaxFieldIndex = 0xFFFF;

const LightweightString<char>& cookieColumnName() {
  static const LightweightString<char> name("cookie");
  return name;
}

using zyl::recordsChangedType;
using zyl::recordsDeletedType;

const LightweightString<char>& cellOf(const dbrecord* rec, unsigned int field) {
  static const LightweightString<char> empty;
  if (rec == nullptr || field > kMaxFieldIndex) return empty;
  return rec->getField(static_cast<unsigned short>(field));
}

// The bytes of one slot of `rows`: the table keeps pointers to its records.
constexpr size_t kRowSlotBytes = sizeof(dbrecord*);  // NOLINT(bugprone-sizeof-expression)

}  // namespace

// ---- Construction -----------------------------------------------------------

zyldb::zyldb() { init(); }

zyldb::zyldb(LightweightString<wchar_t> name, int mode, bool flag) {
  try {
    init();
    fileName = std::move(name);
    loadFromFile(mode, flag);
  } catch (...) {
    free();
    throw;
  }
}

zyldb::zyldb(const DBFieldDesc* descs) {
  unsigned int n = 0;
  if (descs != nullptr)
    while (descs[n].type != DBFieldTypes::none) ++n;
  buildColumns(descs, n);
}

zyldb::zyldb(const std::vector<DBFieldDesc>& descs) {
  buildColumns(descs.data(), static_cast<unsigned int>(descs.size()));
}

// The descriptor constructors' body: names first, then types, column by
// column; a failure releases what was built before the exception leaves.
void zyldb::buildColumns(const DBFieldDesc* descs, unsigned int n) {
  try {
    init();
    fieldNames.resize(n);
    fieldTypes.resize(n, DBFieldTypes::none);
    numFields = n;
    for (unsigned int i = 0; i < n; ++i) {
      set_fieldname(i, descs[i].name.c_str());
      set_fieldtype(i, descs[i].type);
    }
    valid = 1;
    post_init();
  } catch (...) {
    free();
    throw;
  }
}

zyldb::zyldb(const zyldb& src, int copyRecords) : ODBBase(), Notifier() {
  try {
    init();
    copyColumnsFrom(src);
    for (unsigned int i = 0; i < src.numParams; ++i)
      add_param(src.paramNames[i], src.paramValues[i]);
    post_init();
    if (copyRecords != 0) copyVisibleRowsFrom(src);
    valid = 1;
  } catch (...) {
    free();
    throw;
  }
}

zyldb::zyldb(const zyldb& src, DBFieldDesc* /*descs*/) : ODBBase(), Notifier() {
  try {
    init();
    copyColumnsFrom(src);
    post_init();
    copyVisibleRowsFrom(src);
    valid = 1;
  } catch (...) {
    free();
    throw;
  }
}

zyldb::~zyldb() { free(); }

void zyldb::copyColumnsFrom(const zyldb& src) {
  revision = src.revision;
  fieldNames = src.fieldNames;
  fieldTypes = src.fieldTypes;
  numFields = src.numFields;
  fieldByName = src.fieldByName;
}

// The copies are made from the source's visible rows and, unlike the records
// made by add_records, are not given this table as their container.
void zyldb::copyVisibleRowsFrom(const zyldb& src) {
  const unsigned int n = src.get_num_records();
  ensureCapacity(uint64_t{numRecords} + n);
  for (unsigned int i = 0; i < n; ++i) {
    const dbrecord* from = src.get_record(i);
    rows[numRecords] =
        from ? new dbrecord(*from) : new dbrecord(static_cast<unsigned short>(numFields));
    ++numRecords;
  }
}

// ---- Storage ------------------------------------------------------------------

void zyldb::init() {
  // A table that still holds storage, parameters or columns is released
  // first, so that re-initialising (as a reload does) never leaks.
  if (rows != nullptr || tagIndex != nullptr || numParams != 0 || !fieldNames.empty() ||
      !fieldByName.empty()) {
    free();
    return;
  }
  revision = 1;
  valid = 0;
  numFields = 0;
  numRecords = 0;
  capacity = 0;
  numParams = 0;
  showTagsOnly = 0;
  numTagged = 0;
  errorPresent = 0;
  changed = 0;
  updateDepth = 0;
  searchFlag = 0;
}

void zyldb::post_init() {
  if (capacity < kChunkRows) growRows(kChunkRows);
  created = time(nullptr);
  set_sortfield(0);
  set_sort_offset(0);
  std::vector<bool> special;
  special.reserve(numFields);
  for (unsigned int i = 0; i < numFields; ++i) special.push_back(isSpecialLabelField(i) != 0);
  specialLabelFields.swap(special);
}

void zyldb::add_chunk() { growRows(capacity + kChunkRows); }

void zyldb::growRows(unsigned int newCapacity) {
  zyl::Allocator& alloc = OS()->allocator();
  const size_t bytes = size_t{newCapacity} * kRowSlotBytes;
  // capacity is raised only once both blocks have the new size.
  rows = static_cast<dbrecord**>(alloc.reallocate(rows, bytes));
  tagIndex = static_cast<dbrecord**>(alloc.reallocate(tagIndex, bytes));
  capacity = newCapacity;
}

void zyldb::ensureCapacity(uint64_t rowsNeeded) {
  if (rowsNeeded <= capacity) return;
  const uint64_t chunks = (rowsNeeded + kChunkRows - 1) / kChunkRows;
  const uint64_t newCapacity = chunks * kChunkRows;
  if (newCapacity > 0xFFFFFFFFu - kChunkRows) throw Qm::Exception::BadAlloc();
  growRows(static_cast<unsigned int>(newCapacity));
}

void zyldb::destroyRows() noexcept {
  for (unsigned int i = 0; i < numRecords; ++i) delete rows[i];
  numRecords = 0;
  numTagged = 0;
}

void zyldb::free() {
  destroyRows();
  zyl::Allocator& alloc = OS()->allocator();
  alloc.deallocate(rows);
  rows = nullptr;
  alloc.deallocate(tagIndex);
  tagIndex = nullptr;
  capacity = 0;
  for (unsigned int i = 0; i < kMaxParams; ++i) {
    delete[] paramNames[i];
    delete[] paramValues[i];
    paramNames[i] = nullptr;
    paramValues[i] = nullptr;
  }
  numParams = 0;
  fieldByName.clear();
  clearIdCache();
  fieldNames.clear();
  fieldTypes.clear();
  specialLabelFields.clear();
  timecodeFields_.clear();
  init();
}

int zyldb::add_records(int count) {
  if (showTagsOnly != 0) return -1;
  const int first = static_cast<int>(numRecords);
  if (count < 1) return first;
  ensureCapacity(uint64_t{numRecords} + static_cast<unsigned int>(count));
  for (int i = 0; i < count; ++i) {
    dbrecord* rec = new dbrecord(static_cast<unsigned short>(numFields));
    rec->set_container(this);
    rows[numRecords++] = rec;
  }
  return first;
}

int zyldb::insert_records(unsigned int first, unsigned int count) {
  if (showTagsOnly != 0) return showTagsOnly;
  ensureCapacity(uint64_t{numRecords} + count);
  // Build the new records before moving anything, so a failure leaves the
  // rows as they were.
  std::vector<std::unique_ptr<dbrecord>> fresh;
  fresh.reserve(count);
  for (unsigned int i = 0; i < count; ++i) {
    fresh.emplace_back(new dbrecord(static_cast<unsigned short>(numFields)));
    fresh.back()->set_container(this);
  }
  const unsigned int at = std::min(first, numRecords);
  if (count > 0) {
    std::memmove(rows + at + count, rows + at, size_t{numRecords - at} * kRowSlotBytes);
    for (unsigned int i = 0; i < count; ++i) rows[at + i] = fresh[i].release();
    numRecords += count;
  }
  clearIdCache();
  return 0;
}

void zyldb::delete_records(unsigned int first, unsigned int count) {
  if (first >= numRecords || showTagsOnly != 0) return;
  count = std::min(count, numRecords - first);
  // The message text is built before any record goes, so that running out of
  // memory here leaves the table untouched.
  const bool listened = numListeners() != 0;
  LightweightString<char> text;
  if (count > 0 && listened) {
    std::string list;
    list.reserve(size_t{count} * 8);
    char digits[16];
    for (unsigned int r = first; r < first + count; ++r) {
      auto res = std::to_chars(digits, digits + sizeof digits, r);
      list.append(digits, res.ptr);
      list.push_back(' ');
    }
    text = LightweightString<char>(list);
  }
  for (unsigned int r = first; r < first + count; ++r) delete rows[r];
  std::memmove(rows + first, rows + first + count,
               size_t{numRecords - first - count} * kRowSlotBytes);
  numRecords -= count;
  clearIdCache();
  if (count == 0) return;
  changed = 1;
  if (listened) issueRecordsDeleted(text);
}

// Deletions made by a listener during a delivery wait for it to end, so that
// every listener hears them in order.
void zyldb::issueRecordsDeleted(const LightweightString<char>& text) {
  zyl::RowDeletion::announce(*this, text);
}

unsigned int zyldb::get_num_records() const { return showTagsOnly != 0 ? numTagged : numRecords; }

dbrecord* zyldb::get_record(unsigned int row) const {
  if (showTagsOnly != 0) return row < numTagged ? tagIndex[row] : nullptr;
  return row < numRecords ? rows[row] : nullptr;
}

namespace {

// The index of `rec` among the first n entries of `slots`, or all bits set.
unsigned int indexOfRecord(dbrecord* const* slots, unsigned int n, const dbrecord* rec) {
  for (unsigned int i = 0; i < n; ++i)
    if (slots[i] == rec) return i;
  return static_cast<unsigned int>(-1);
}

}  // namespace

unsigned int zyldb::get_raw_row(unsigned int visibleRow) {
  if (showTagsOnly == 0) return visibleRow;
  if (visibleRow > numTagged || numRecords == 0) return static_cast<unsigned int>(-1);
  // The row just past the last tagged one is accepted; the index ends there,
  // so it stands for no record, which only a raw row without one matches.
  // (The slot itself is stale or past the block, and is not read.)
  const dbrecord* sought = visibleRow < numTagged ? tagIndex[visibleRow] : nullptr;
  return indexOfRecord(rows, numRecords, sought);
}

unsigned int zyldb::get_new_row(unsigned int rawRow) {
  if (showTagsOnly == 0) return rawRow;
  if (rawRow >= numRecords || numTagged == 0) return static_cast<unsigned int>(-1);
  return indexOfRecord(tagIndex, numTagged, rows[rawRow]);
}

dbrecord* zyldb::make_dummy_record() {
  return new dbrecord(static_cast<unsigned short>(numFields));
}

void zyldb::copy_record(int row, dbrecord* src) {
  if (src == nullptr || row < 0) return;
  dbrecord* rec = get_record(static_cast<unsigned int>(row));
  // Assigning a record to itself is a real assignment too: leading white
  // space is dropped and the changed flags are raised.
  if (rec != nullptr) *rec = *src;
}

void zyldb::copy_record(int row, zyldb* other, int otherRow) {
  if (other == nullptr || otherRow < 0) return;
  const dbrecord* from = other->get_record(static_cast<unsigned int>(otherRow));
  if (from == nullptr) return;
  dbrecord copy(*from);
  copy_record(row, &copy);
}

// ---- Cell accessors -----------------------------------------------------------

LightweightString<char> zyldb::getField(unsigned int row, unsigned int field) const {
  return cellOf(get_record(row), field);
}

int zyldb::set_field(unsigned int row, unsigned int field, const char* text) {
  dbrecord* rec = get_record(row);
  if (rec == nullptr || field > kMaxFieldIndex) return 0;
  return rec->set_field(static_cast<int>(field), text, true);
}

int zyldb::set_field(unsigned int row, unsigned int field, int value) {
  dbrecord* rec = get_record(row);
  if (rec == nullptr || field > kMaxFieldIndex) return 0;
  return rec->set_field(static_cast<int>(field), value);
}

int zyldb::set_field(unsigned int row, unsigned int field, double value) {
  dbrecord* rec = get_record(row);
  if (rec == nullptr || field > kMaxFieldIndex) return 0;
  return rec->set_field(static_cast<int>(field), value);
}

int zyldb::set_field(unsigned int row, unsigned int field, bool value) {
  dbrecord* rec = get_record(row);
  if (rec == nullptr || field > kMaxFieldIndex) return 0;
  return rec->set_field(static_cast<int>(field), value);
}

int zyldb::setField(unsigned int row, unsigned int field, const LightweightString<char>& value) {
  dbrecord* rec = get_record(row);
  if (rec == nullptr || field > kMaxFieldIndex) return 0;
  return rec->setField(static_cast<unsigned short>(field), value) != 0 ? 1 : 0;
}

int zyldb::in_field(unsigned int row, unsigned int field, char* buf, int len) const {
  if (buf == nullptr || len < 0) return 0;
  const LightweightString<char> cell = getField(row, field);
  if (cell.empty()) return 0;
  const size_t n = std::min(cell.size(), static_cast<size_t>(len));
  std::memcpy(buf, cell.c_str(), n);
  std::memset(buf + n, 0, static_cast<size_t>(len) - n + 1);
  return 1;
}

int zyldb::in_field(unsigned int row, unsigned int field, int& value) const {
  const LightweightString<char> cell = getField(row, field);
  if (cell.empty()) return 0;
  value = static_cast<int>(std::strtol(cell.c_str(), nullptr, 10));
  return 1;
}

int zyldb::in_field(unsigned int row, unsigned int field, double& value) const {
  const LightweightString<char> cell = getField(row, field);
  if (cell.empty()) return 0;
  value = std::strtod(cell.c_str(), nullptr);
  return 1;
}

int zyldb::in_field(unsigned int row, unsigned int field, bool& value) const {
  const LightweightString<char> cell = getField(row, field);
  if (cell.empty()) return 0;
  value = cell.c_str()[0] == 't';
  return 1;
}

// ---- Columns --------------------------------------------------------------------

const char* zyldb::get_fieldname(unsigned int field) const {
  if (field >= numFields || field >= fieldNames.size()) return "";
  return fieldNames[field].c_str();
}

int zyldb::get_fieldnum(const LightweightString<char>& name) const {
  if (numFields == 0 || name.empty()) return -1;
  if (!fieldByName.empty()) {
    auto it = fieldByName.find(name);
    return it == fieldByName.end() ? -1 : static_cast<int>(it->second);
  }
  const unsigned int n =
      std::min<unsigned int>(numFields, static_cast<unsigned int>(fieldNames.size()));
  for (unsigned int i = 0; i < n; ++i)
    if (strcasecmp(fieldNames[i].c_str(), name.c_str()) == 0) return static_cast<int>(i);
  return -1;
}

int zyldb::set_fieldname(unsigned int field, const char* name) {
  if (field >= numFields || field >= fieldNames.size()) return 0;
  if (name == nullptr || *name == 0) {
    fieldNames[field] = LightweightString<char>();
    return 1;
  }
  LightweightString<char> stored =
      (zyl::librarySettings().removeFieldnameAmpersands != 0 && std::strchr(name, '&') != nullptr)
          ? strip_char_from_string('&', name)
          : LightweightString<char>(name);
  fieldByName[stored] = field;
  fieldNames[field] = std::move(stored);
  return 1;
}

int zyldb::set_fieldtype(unsigned int field, DBFieldTypes::eType type) {
  if (type == DBFieldTypes::none) {
    fill_error_info(DBLoadError::fieldType, DBLoadError::typeNone, 0, 0);
    type = DBFieldTypes::text;
  }
  if (field >= numFields || field >= fieldTypes.size()) return 0;
  fieldTypes[field] = type;
  return 1;
}

DBFieldTypes::eType zyldb::get_field_type(unsigned int field) const {
  if (field >= numFields || field >= fieldTypes.size()) return DBFieldTypes::none;
  return fieldTypes[field];
}

DBFieldTypes::eType zyldb::get_fieldtype(unsigned int field) const { return get_field_type(field); }

int zyldb::get_fieldsize(unsigned int field) const {
  if (field >= numFields) return 0;
  if (measuredWidths_ != nullptr && field < measuredWidths_->size())
    return static_cast<int>((*measuredWidths_)[field]);
  size_t longest = 0;
  for (unsigned int i = 0; i < numRecords; ++i)
    longest = std::max(longest, cellOf(rows[i], field).size());
  return static_cast<int>(longest);
}

void zyldb::setFieldWidth(unsigned int /*field*/, int /*width*/) {}

int zyldb::addField(const DBFieldDesc& desc) {
  const int existing = get_fieldnum(desc.name);
  if (existing >= 0) return existing;
  const unsigned int col = numFields;
  // Reserve first: after the name map has its entry nothing else may fail
  // before the column is complete.
  fieldNames.reserve(size_t{col} + 1);
  fieldTypes.reserve(size_t{col} + 1);
  specialLabelFields.reserve(std::max<size_t>(specialLabelFields.size(), col) + 1);
  fieldByName.emplace(desc.name, col);
  fieldNames.resize(col);
  fieldTypes.resize(col, DBFieldTypes::none);
  fieldNames.push_back(desc.name);
  fieldTypes.push_back(desc.type);
  numFields = col + 1;
  specialLabelFields.push_back(isSpecialLabelField(col) != 0);

  int widths[1] = {0};
  const unsigned int n = get_num_records();
  for (unsigned int r = 0; r < n; ++r)
    if (dbrecord* rec = get_record(r))
      rec->resizeRecord(static_cast<int>(numFields), widths, false);
  return static_cast<int>(col);
}

void zyldb::removeField(const LightweightString<char>& name) {
  const int found = get_fieldnum(name);
  if (found < 0 || static_cast<unsigned int>(found) >= numFields) return;
  const unsigned int col = static_cast<unsigned int>(found);
  // The new name map is built aside so that a failure changes nothing.
  std::map<LightweightString<char>, unsigned int, StrCmpCI> byName;
  for (unsigned int i = 0, j = 0; i < numFields && i < fieldNames.size(); ++i) {
    if (i == col) continue;
    if (!fieldNames[i].empty()) byName.emplace(fieldNames[i], j);
    ++j;
  }
  --numFields;
  if (col < fieldTypes.size()) fieldTypes.erase(fieldTypes.begin() + col);
  if (col < fieldNames.size()) fieldNames.erase(fieldNames.begin() + col);
  fieldByName.swap(byName);
  // specialLabelFields keeps its old positions: the flags are not moved.
  for (unsigned int i = 0; i < numRecords; ++i)
    if (rows[i] != nullptr) rows[i]->removeField(static_cast<unsigned short>(col));
}

bool zyldb::sameColumns(zyldb* other) {
  if (other == nullptr) return false;
  const unsigned int n = get_num_fields();
  if (n != other->get_num_fields()) return false;
  for (unsigned int i = 0; i < n; ++i)
    if (std::strcmp(get_fieldname(i), other->get_fieldname(i)) != 0) return false;
  return true;
}

int zyldb::add_zyldb(zyldb* other) {
  if (other == nullptr || showTagsOnly != 0 || revision != other->revision ||
      numFields != other->numFields)
    return -1;
  for (unsigned int i = 0; i < numFields; ++i) {
    if (get_field_type(i) != other->get_field_type(i)) return -1;
    if (std::strcmp(get_fieldname(i), other->get_fieldname(i)) != 0) return -1;
  }
  const unsigned int n = other->numRecords;
  ensureCapacity(uint64_t{numRecords} + n);
  for (unsigned int j = 0; j < n; ++j) {
    const dbrecord* from = other->rows[j];
    dbrecord* rec =
        from ? new dbrecord(*from) : new dbrecord(static_cast<unsigned short>(numFields));
    rec->set_container(this);
    rows[numRecords++] = rec;
  }
  return static_cast<int>(n);
}

int zyldb::merge_all_matching(zyldb* other) {
  if (other == nullptr || numFields == 0) return 0;
  std::vector<int> partner(numFields);
  bool any = false;
  for (unsigned int i = 0; i < numFields; ++i) {
    partner[i] = other->get_fieldnum(LightweightString<char>(get_fieldname(i)));
    any = any || partner[i] >= 0;
  }
  if (!any) return 0;
  const unsigned int n = other->get_num_records();
  for (unsigned int r = 0; r < n; ++r) {
    const int newRow = add_records(1);
    if (newRow < 0) return 1;
    for (unsigned int i = 0; i < numFields; ++i) {
      if (partner[i] < 0) continue;
      const unsigned int j = static_cast<unsigned int>(partner[i]);
      const LightweightString<char> text = other->getField(r, j);
      const DBFieldTypes::eType mine = get_field_type(i);
      const DBFieldTypes::eType theirs = other->get_field_type(j);
      if (mine == DBFieldTypes::timecode && theirs == DBFieldTypes::timecode_s) {
        set_field(static_cast<unsigned int>(newRow), i,
                  time_def(text.c_str(), eLabelTimecode).get_punctuated_str().c_str());
      } else if (mine == DBFieldTypes::timecode_s && theirs == DBFieldTypes::timecode) {
        set_field(static_cast<unsigned int>(newRow), i,
                  time_def(text.c_str(), eLabelTimecode).get_database_str().c_str());
      } else {
        set_field(static_cast<unsigned int>(newRow), i, text.c_str());
      }
    }
  }
  return 1;
}

// ---- Identifier cache -----------------------------------------------------------

void zyldb::clearIdCache() const {
  std::vector<IdRow>().swap(rowById);
  rowByIdSet_.clear();
}

int zyldb::getRowIndexByID(const Cookie& id) const {
  if (rowById.empty() && rowByIdSet_.empty()) {
    const int col = get_fieldnum(cookieColumnName());
    const unsigned int n = get_num_records();
    if (col >= 0 && n > 0) {
      std::vector<IdRow> built;
      built.reserve(n);
      for (unsigned int r = 0; r < n; ++r)
        built.push_back(IdRow{Cookie(getField(r, static_cast<unsigned int>(col)), false), r});
      // Stable, so that of several rows holding one identifier the first
      // stays in front and survives the de-duplication.
      std::stable_sort(built.begin(), built.end(),
                       [](const IdRow& a, const IdRow& b) { return a.id.compare(b.id) < 0; });
      auto last = std::unique(built.begin(), built.end(), [](const IdRow& a, const IdRow& b) {
        return a.id.compare(b.id) == 0;
      });
      built.erase(last, built.end());
      rowById.swap(built);
    }
  }
  auto set = rowByIdSet_.find(id);
  if (set != rowByIdSet_.end()) return static_cast<int>(set->second);
  auto it = std::lower_bound(rowById.begin(), rowById.end(), id,
                             [](const IdRow& a, const Cookie& b) { return a.id.compare(b) < 0; });
  if (it != rowById.end() && it->id.compare(id) == 0) return static_cast<int>(it->row);
  return -1;
}

int zyldb::set_field(unsigned int row, const Cookie& id) {
  dbrecord* rec = get_record(row);
  if (rec == nullptr) return 0;
  const int col = get_fieldnum(cookieColumnName());
  if (col < 0 || static_cast<unsigned int>(col) > kMaxFieldIndex) return 0;
  const int result = rec->setField(static_cast<unsigned short>(col), id.asString(false));
  rowByIdSet_[id] = row;
  return result;
}

// ---- Change notification ----------------------------------------------------------

unsigned int zyldb::beginUpdate() {
  if (updateDepth == 0) pendingUpdates.clear();
  return ++updateDepth;
}

void zyldb::addToUpdate(const Cookie& id) { CookieVec::add(pendingUpdates, id); }

void zyldb::endUpdate() {
  if (updateDepth == 0) return;
  if (--updateDepth > 0) return;
  if (pendingUpdates.empty()) return;
  // The payload and the fresh list are made before the collected list is
  // given up, so a failure keeps the identifiers.
  Qm::Ptr<WrappedData<CookieVec>> payload(new WrappedData<CookieVec>(pendingUpdates));
  CookieVec fresh;
  pendingUpdates = fresh;
  issueNotification(NotifyMsg(payload.get()), recordsChangedType());
}

int zyldb::update(configb* cfg, int row) {
  if (cfg == nullptr || row < 0) return 0;
  dbrecord* rec = get_record(static_cast<unsigned int>(row));
  if (rec == nullptr) return 0;
  if (rec->update(cfg) == 0) return 0;
  const int col = get_fieldnum(cookieColumnName());
  if (col < 0 || static_cast<unsigned int>(col) > kMaxFieldIndex) return 1;
  const char* text = rec->get_field(static_cast<unsigned short>(col));
  if (text == nullptr) return 1;
  const Cookie id(text, false);
  if (id.getType() == 'I') return 1;
  addToUpdate(id);
  return 1;
}

void zyldb::clear_changed() {
  for (unsigned int i = 0; i < numRecords; ++i)
    if (rows[i] != nullptr) rows[i]->clearChanged();
  changed = 0;
}
