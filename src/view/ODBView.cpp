// The view's core: construction and binding, the index and its growth
// policy, copying, sorting, the handle, and the ODBBase operations that are
// forwarded to the source.

#include <zyldb/db/dbrecord.h>
#include <zyldb/platform/Logging.h>
#include <zyldb/platform/SystemWatchdog.h>
#include <zyldb/sexpr/SExpr.h>
#include <zyldb/view/ODBView.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "db/NotifyTypes_internal.h"
#include "db/SortEngine.h"
#include "view/ODBView_internal.h"

namespace {

// The direction of the sort in progress; one sort at a time in the process.
int gSortField = 0;

// An index entry with its record looked up once, so that the comparison
// does not ask the source for records on every call. `record` comes first:
// the comparators take a pointer to a slot holding a dbrecord*.
struct SortItem {
  dbrecord* record;
  ODBViewIndexEntry entry;
};

int compareSortItems(const void* a, const void* b) {
  const SortItem* x = static_cast<const SortItem*>(a);
  const SortItem* y = static_cast<const SortItem*>(b);
  if (!x->record || !y->record) return 0;
  return gSortField < 0 ? dbr_backcmp(&x->record, &y->record) : dbr_cmp(&x->record, &y->record);
}

}  // namespace

// ---- Construction and binding ------------------------------------------------

// The public constructors delegate to this one, so that once it has run the
// destructor cleans up whatever a later step allocated before failing.
ODBViewRep::ODBViewRep(Unbound) { init(); }

ODBViewRep::ODBViewRep(zyldb* db) : ODBViewRep(Unbound{}) {
  odb(db);
  GrowString identity;
  identityFieldSpec(identity);
  fieldSpec(identity.c_str());
}

ODBViewRep::ODBViewRep(zyldb* db, const char* fields) : ODBViewRep(Unbound{}) {
  odb(db);
  if (fields) {
    fieldSpec(fields);
  } else {
    GrowString identity;
    identityFieldSpec(identity);
    fieldSpec(identity.c_str());
  }
}

ODBViewRep::ODBViewRep(zyldb* db, const char** names) : ODBViewRep(Unbound{}) {
  odb(db);
  GrowString joined;
  if (!names) {
    identityFieldSpec(joined);
  } else {
    for (const char** p = names; *p; ++p) joined.append(*p).append(',');
  }
  fieldSpec(joined.c_str());
}

ODBViewRep::~ODBViewRep() {
  odb(nullptr);
  // A view stacked without a table still holds its base view.
  baseView(nullptr);
  fieldSpec(nullptr);
  delete fields_;
  fields_ = nullptr;
  baseRegistration_.reset();
  tableRegistration_.reset();
  index_.clear();
}

void ODBViewRep::releaseRep() {
  if (refCount_ > 1) {
    --refCount_;
    return;
  }
  refCount_ = 0;
  delete this;
}

void ODBViewRep::init() {
  refCount_ = 0;
  baseView_ = nullptr;
  table_ = nullptr;
  index_.clear();
  fieldSpecText_ = nullptr;
  fields_ = nullptr;
  condition_ = nullptr;
  sortOrder_ = nullptr;
  tableRegistration_.reset();
  baseRegistration_.reset();
  internRevision();
}

Qm::Ptr<iObject> ODBViewRep::registerFor(Notifier& notifier,
                                         int (ODBViewRep::*method)(const NotifyMsg&)) {
  Qm::Ptr<iCallbackBase<int, NotifyMsg>> callback(
      new MethodCallback<ODBViewRep, NotifyMsg, int>(this, method));
  Qm::Ptr<CallbackInvoker<NotifyMsg>> invoker(
      new CallbackInvoker<NotifyMsg>(callback, zyl::recordsDeletedType()));
  return notifier.registerCallback(invoker);
}

// A stacked view hears of table deletions through its base view, numbered in
// the base view's rows; the table's own message names table rows and would be
// applied a second time, so it is ignored while a base view is set. During a
// one-pass deletion of the table the view joins it and catches up at its end;
// a deletion made meanwhile (by a listener) is queued behind it.
int ODBViewRep::onTableRecordsDeleted(const NotifyMsg& msg) {
  if (baseView_) return 0;
  if (zyl::RowDeletion* deletion = zyl::RowDeletion::active(table_)) {
    const bool own = deletion->issuing(&msg);
    if (!joinedTable_) {
      joinedTable_ = true;
      deletion->join(this, &zyl::ODBViewInternal::tableDeletionEnded);
    }
    if (own) return 0;
  }
  return recordsDeletedNotify(msg);
}

// The base view announces each lost row with its correct position and then
// repeats the rows in a closing list, which is ignored. A base view always
// announces with its list at hand (announcedRows_): this view joins the
// announcement and applies the list in one pass when it is over.
int ODBViewRep::onBaseRecordsDeleted(const NotifyMsg& msg) {
  ODBViewRep* base = baseView_;
  if (!base || base->announcingClosing_) return 0;
  if (base->announcing_ > 0 && !base->announcedEnds_.empty()) {
    if (!joinedBase_) {
      joinedBase_ = true;
      if (base->deferredStacked_.size() < base->deferredStacked_.capacity())
        base->deferredStacked_.push_back(this);
      else
        zyl::ODBViewInternal::baseAnnouncementEnded(*this);
    }
    return 0;
  }
  return recordsDeletedNotify(msg);
}

void ODBViewRep::linkStacked(ODBViewRep* base) noexcept {
  nextStacked_ = base->firstStacked_;
  base->firstStacked_ = this;
}

void ODBViewRep::unlinkStacked() noexcept {
  if (!baseView_) return;
  for (ODBViewRep** p = &baseView_->firstStacked_; *p; p = &(*p)->nextStacked_) {
    if (*p == this) {
      *p = nextStacked_;
      break;
    }
  }
  nextStacked_ = nullptr;
  auto& waiting = baseView_->deferredStacked_;
  waiting.erase(std::remove(waiting.begin(), waiting.end(), this), waiting.end());
  joinedBase_ = false;
  queuedRows_.clear();
  queuedGroupEnds_.clear();
  lost_ = false;
}

void ODBViewRep::odb(zyldb* db) {
  if (db == table_) return;
  baseView(nullptr);
  clear();
  // Dropping the registration is safe even when the old table is gone.
  tableRegistration_.reset();
  table_ = db;
  if (!db) return;
  fileName(db->get_filename());
  params_.clear();
  addParamsFrom(db);
  internRevision();
  tableRegistration_ = registerFor(*db, &ODBViewRep::onTableRecordsDeleted);
}

void ODBViewRep::baseView(ODBViewRep* base) {
  if (base == baseView_) return;
  // Stacking a view on itself or on a view stacked on it would make every
  // row lookup loop forever.
  for (ODBViewRep* v = base; v; v = v->baseView_)
    if (v == this) return;
  clear();
  params_.clear();
  if (baseView_) {
    unlinkStacked();
    baseRegistration_.reset();
    ODBViewRep* old = baseView_;
    baseView_ = nullptr;
    old->releaseRep();
  }
  if (!base) return;
  // What can fail comes first: on failure the view stays unstacked.
  addParamsFrom(base);
  Qm::Ptr<iObject> registration = registerFor(*base, &ODBViewRep::onBaseRecordsDeleted);
  baseView_ = base;
  baseRegistration_ = std::move(registration);
  base->retainRep();
  linkStacked(base);
}

ODBBase* ODBViewRep::source() const {
  if (baseView_) return baseView_;
  return table_;
}

// ---- Index -----------------------------------------------------------------------

dbrecord* ODBViewRep::operator[](int row) const {
  ODBBase* src = source();
  if (!src || row < 0 || row >= index_.count()) return nullptr;
  return src->get_record(index_[row].row);
}

int ODBViewRep::baseIndex(int row) {
  ODBBase* src = source();
  if (!src || row < 0 || row >= index_.count()) return 0;
  return src->baseIndex(static_cast<int>(index_[row].row));
}

int64_t ODBViewRep::sourceRow(int row) const {
  if (row < 0 || row >= index_.count()) return -1;
  return index_[row].row;
}

void ODBViewRep::buildIndex() {
  index_.setCount(0);
  ODBBase* src = source();
  if (!src) return;
  const unsigned int n = src->get_num_records();
  for (unsigned int r = 0; r < n && r <= static_cast<unsigned int>(INT_MAX); ++r)
    if (satisfiesCondition((*this)[static_cast<int>(r)])) append(static_cast<int>(r));
  sortIndex();
}

void ODBViewRep::sizeIndexFor(int n) { index_.sizeFor(n); }

void ODBViewRep::append(int row) {
  if (index_.count() == INT_MAX) return;
  sizeIndexFor(index_.count() + 1);
  index_[index_.count()].row = static_cast<uint32_t>(row);
  index_.setCount(index_.count() + 1);
}

void ODBViewRep::clear() { index_.clear(); }

int ODBViewRep::findViewIndexForBaseRow(unsigned long row) const {
  for (int j = 0; j < index_.count(); ++j) {
    const long entry = static_cast<int32_t>(index_[j].row);
    if (static_cast<unsigned long>(entry) == row) return j;
  }
  return -1;
}

void ODBViewRep::sort(int field, int order) {
  SystemWatchdog::LifeSupport longOperation;
  ODBBase* src = source();
  if (!src || refuseWhileAnnouncing("sort")) return;
  gSortField = field;
  src->sortPrepare(field, order);
  if (index_.count() < 2) return;
  std::vector<dbrecord*> records(static_cast<size_t>(index_.count()));
  bool missing = false;
  for (int i = 0; i < index_.count(); ++i)
    missing |= (records[i] = src->get_record(index_[i].row)) == nullptr;
  std::vector<ODBViewIndexEntry> sorted(static_cast<size_t>(index_.count()));
  if (!missing) {
    // The table's key-based sort, equal rows keeping their order.
    const std::vector<uint32_t> order = zyl::stableSortOrder(records, field < 0 ? -1 : 1);
    for (int i = 0; i < index_.count(); ++i) sorted[i] = index_[order[i]];
  } else {
    // A row without record compares equal to every other row, which the
    // key-based sort does not do: compare pairwise.
    std::vector<SortItem> items(static_cast<size_t>(index_.count()));
    for (int i = 0; i < index_.count(); ++i) items[i] = {records[i], index_[i]};
    std::stable_sort(items.begin(), items.end(), [](const SortItem& a, const SortItem& b) {
      return compareSortItems(&a, &b) < 0;
    });
    for (int i = 0; i < index_.count(); ++i) sorted[i] = items[i].entry;
  }
  std::copy(sorted.begin(), sorted.end(), index_.data());
}

bool ODBViewRep::satisfiesCondition(dbrecord*) {
  if (condition_) zyl_splat("ODBViewRep::satisfiesCondition, not implemented\n");
  return true;
}

void ODBViewRep::sortIndex() {
  if (sortOrder_) zyl_splat("ODBViewRep::sortIndex(), not implemented!\n");
}

// ---- Copies -----------------------------------------------------------------------

ODBViewRep* ODBViewRep::copy() {
  if (!table_) return nullptr;
  std::unique_ptr<ODBViewRep> v(new ODBViewRep(table_, fieldSpecText_));
  if (baseView_) {
    v->baseView(baseView_);
    v->displayAllRecords();
  } else {
    v->displayAllFromAt(this, 0);
    v->addParamsFrom(table_);
  }
  for (int i = 0; i < index_.count(); ++i) v->set_tag(static_cast<unsigned int>(i), index_[i].tag);
  return v.release();
}

ODBViewRep* ODBViewRep::copyWithNewBaseView() {
  if (!table_) return nullptr;
  zyldb* table = new zyldb(*table_, 1);
  std::unique_ptr<ODBViewRep> v;
  try {
    v.reset(new ODBViewRep(table));
    std::vector<uint32_t> rows;
    rows.reserve(static_cast<size_t>(index_.count()));
    for (int i = 0; i < index_.count(); ++i)
      if ((*this)[i]) rows.push_back(static_cast<uint32_t>(baseIndex(i)));
    // Each row goes in at its own position i, which is at or past the new
    // view's end: in effect an append.
    zyl::ODBViewInternal::insertEach(*v, rows, v->index_.count());
    v->addParamsFrom(this);
    for (int i = 0; i < index_.count(); ++i)
      v->set_tag(static_cast<unsigned int>(i), index_[i].tag);
  } catch (...) {
    v.reset();
    delete table;
    throw;
  }
  return v.release();
}

ODBViewRep* ODBViewRep::newTagSubview() {
  if (!table_) return nullptr;
  std::unique_ptr<ODBViewRep> v(new ODBViewRep(table_, fieldSpecText_));
  v->baseView(this);
  v->displayTaggedRecordsAt(0);
  return v.release();
}

// ---- ODBBase: forwarded and own operations -------------------------------------

int ODBViewRep::insert_records(unsigned int at, unsigned int n) {
  insertBlankRecords(static_cast<int>(std::min<unsigned int>(at, INT_MAX)),
                     static_cast<int>(std::min<unsigned int>(n, INT_MAX)));
  return 0;
}

void ODBViewRep::delete_records(unsigned int at, unsigned int n) {
  if (at > static_cast<unsigned int>(INT_MAX)) return;
  deleteRecords(static_cast<int>(at), static_cast<int>(std::min<unsigned int>(n, INT_MAX)));
}

int ODBViewRep::delete_tagged_records() {
  removeTagged();
  return 0;
}

unsigned int ODBViewRep::get_num_records() const {
  return static_cast<unsigned int>(index_.count());
}

unsigned int ODBViewRep::get_num_fields() const {
  ODBBase* src = source();
  return src ? src->get_num_fields() : 0;
}

dbrecord* ODBViewRep::get_record(unsigned int row) const {
  if (row > static_cast<unsigned int>(INT_MAX)) return nullptr;
  return (*this)[static_cast<int>(row)];
}

dbrecord* ODBViewRep::make_dummy_record() { return table_ ? table_->make_dummy_record() : nullptr; }

LightweightString<char> ODBViewRep::getField(unsigned int row, unsigned int field) const {
  dbrecord* r = get_record(row);
  if (!r) return LightweightString<char>();
  return r->getField(static_cast<unsigned short>(field & 0xFFFF));
}

const char* ODBViewRep::get_fieldname(unsigned int field) const {
  ODBBase* src = source();
  return src ? src->get_fieldname(field) : "";
}

int ODBViewRep::get_fieldsize(unsigned int field) const {
  ODBBase* src = source();
  return src ? src->get_fieldsize(field) : 0;
}

DBFieldTypes::eType ODBViewRep::get_field_type(unsigned int field) const {
  ODBBase* src = source();
  return src ? src->get_field_type(field) : DBFieldTypes::eType{};
}

int ODBViewRep::set_fieldtype(unsigned int field, DBFieldTypes::eType type) {
  ODBBase* src = source();
  return src ? src->set_fieldtype(field, type) : 0;
}

DBFieldTypes::eType ODBViewRep::get_fieldtype(unsigned int field) const {
  return get_field_type(field);
}

int ODBViewRep::get_fieldnum(const LightweightString<char>& name) const {
  ODBBase* src = source();
  return src ? src->get_fieldnum(name) : 0;
}

int ODBViewRep::set_fieldname(unsigned int field, const char* name) {
  ODBBase* src = source();
  return src ? src->set_fieldname(field, name) : 0;
}

void ODBViewRep::set_sortfield(int field) {
  if (ODBBase* src = source()) src->set_sortfield(field);
}

void ODBViewRep::set_sortfields(int* fields) {
  if (ODBBase* src = source()) src->set_sortfields(fields);
}

void ODBViewRep::set_sort_offset(int offset) {
  if (ODBBase* src = source()) src->set_sort_offset(offset);
}

void ODBViewRep::set_tag(unsigned int row, int value) {
  if (row < static_cast<unsigned int>(index_.count())) index_[row].tag = value != 0;
}

void ODBViewRep::invert_tag(unsigned int row) {
  if (row < static_cast<unsigned int>(index_.count())) index_[row].tag = !index_[row].tag;
}

int ODBViewRep::set_all_tags(int value) {
  tagAll(value != 0);
  return 0;
}

int ODBViewRep::invert_all_tags() {
  invertAllTags();
  return 0;
}

void ODBViewRep::set_show_tags_only(int) { removeNonTagged(); }

int ODBViewRep::get_tag(unsigned int row) {
  return row < static_cast<unsigned int>(index_.count()) ? index_[row].tag : 0;
}

int ODBViewRep::get_num_tags() { return countTags(); }

void ODBViewRep::set_query(dbrecord* query) {
  if (ODBBase* src = source()) src->set_query(query);
}

int ODBViewRep::tag_matching_records(int) { return tagMatches(0); }

int ODBViewRep::tag_all_different(int field) {
  tagDuplicates(field);
  invertAllTags();
  return get_num_tags();
}

// The row-addressed edits translate the view row into its source row without
// a bounds check of their own: a row past the end is passed on as it is and
// the source refuses it.
namespace {

unsigned int translate(const ODBViewIndexEntry* index, int32_t count, unsigned int row) {
  return row < static_cast<unsigned int>(count) ? index[row].row : UINT_MAX;
}

}  // namespace

int ODBViewRep::set_field(unsigned int row, const Cookie& id) {
  ODBBase* src = source();
  return src ? src->set_field(translate(index_.data(), index_.count(), row), id) : 0;
}

int ODBViewRep::set_field(unsigned int row, unsigned int field, const char* text) {
  ODBBase* src = source();
  return src ? src->set_field(translate(index_.data(), index_.count(), row), field, text) : 0;
}

int ODBViewRep::set_field(unsigned int row, unsigned int field, int value) {
  ODBBase* src = source();
  return src ? src->set_field(translate(index_.data(), index_.count(), row), field, value) : 0;
}

int ODBViewRep::set_field(unsigned int row, unsigned int field, double value) {
  ODBBase* src = source();
  return src ? src->set_field(translate(index_.data(), index_.count(), row), field, value) : 0;
}

int ODBViewRep::set_field(unsigned int row, unsigned int field, bool value) {
  ODBBase* src = source();
  return src ? src->set_field(translate(index_.data(), index_.count(), row), field, value) : 0;
}

int ODBViewRep::in_field(unsigned int row, unsigned int field, char* buf, int len) const {
  ODBBase* src = source();
  return src ? src->in_field(translate(index_.data(), index_.count(), row), field, buf, len) : 0;
}

int ODBViewRep::in_field(unsigned int row, unsigned int field, int& value) const {
  ODBBase* src = source();
  return src ? src->in_field(translate(index_.data(), index_.count(), row), field, value) : 0;
}

int ODBViewRep::in_field(unsigned int row, unsigned int field, double& value) const {
  ODBBase* src = source();
  return src ? src->in_field(translate(index_.data(), index_.count(), row), field, value) : 0;
}

int ODBViewRep::in_field(unsigned int row, unsigned int field, bool& value) const {
  ODBBase* src = source();
  return src ? src->in_field(translate(index_.data(), index_.count(), row), field, value) : 0;
}

int ODBViewRep::add_records(int n) {
  const int before = index_.count();
  insertBlankRecords(index_.count(), n);
  return before;
}

int ODBViewRep::findFirst(const char* field, const char* value, int) {
  ODBBase* src = source();
  return src ? src->findFirst(field, value, 0) : 0;
}

void ODBViewRep::sortPrepare(int direction, int flag) {
  if (ODBBase* src = source()) src->sortPrepare(direction, flag);
}

int ODBViewRep::match_record(int row) const {
  ODBBase* src = source();
  return src ? src->match_record(row) : 0;
}

int ODBViewRep::get_valid() const {
  ODBBase* src = source();
  return src && src->get_valid() ? 1 : 0;
}

// ---- The handle ------------------------------------------------------------------

ODBView::ODBView(ODBViewRep* rep) : rep_(rep) {
  if (rep_) rep_->retainRep();
}

ODBView::ODBView(const ODBView& other) : rep_(other.rep_) {
  if (rep_) rep_->retainRep();
}

// Retaining the other side first makes self-assignment safe.
ODBView& ODBView::operator=(const ODBView& other) {  // NOLINT(bugprone-unhandled-self-assignment)
  if (other.rep_) other.rep_->retainRep();
  if (rep_) rep_->releaseRep();
  rep_ = other.rep_;
  return *this;
}

ODBView& ODBView::operator=(ODBView&& other) noexcept {
  if (this != &other) {
    if (rep_) rep_->releaseRep();
    rep_ = other.rep_;
    other.rep_ = nullptr;
  }
  return *this;
}

ODBView::~ODBView() {
  if (rep_) rep_->releaseRep();
}

ODBView ODBView::copy() const { return ODBView(rep_ ? rep_->copy() : nullptr); }

ODBView ODBView::copyWithNewBaseView() const {
  return ODBView(rep_ ? rep_->copyWithNewBaseView() : nullptr);
}
