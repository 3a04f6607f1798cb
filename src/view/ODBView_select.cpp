// Which source rows a view shows, in which order, and the view's own tags.

#include <strings.h>
#include <zyldb/db/dbrecord.h>
#include <zyldb/platform/SystemWatchdog.h>
#include <zyldb/view/ODBView.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <unordered_set>

#include "view/ODBView_internal.h"

namespace {

int clampPosition(int at, int count) { return std::min(std::max(at, 0), count); }

unsigned int rowLimit(unsigned int n) { return std::min<unsigned int>(n, INT_MAX); }

}  // namespace

int ODBViewRep::displayRecordsAt(int first, int n, int at) {
  if (!source() || n <= 0 || n > INT_MAX - index_.count()) return 0;
  if (refuseWhileAnnouncing("displayRecordsAt")) return 0;
  at = clampPosition(at, index_.count());
  sizeIndexFor(index_.count() + n);
  // Only the rows are written: each new entry keeps the tag its slot held
  // (that of the entry moved away from it, or 0 in fresh storage).
  std::memmove(index_.data() + at + n, index_.data() + at,
               static_cast<size_t>(index_.count() - at) * sizeof(ODBViewIndexEntry));
  for (int i = 0; i < n; ++i)
    index_[at + i].row = static_cast<uint32_t>(first) + static_cast<uint32_t>(i);
  index_.setCount(index_.count() + n);
  return n;
}

bool ODBViewRep::displayMatchAt(const char* field, const char* value, int at) {
  ODBBase* src = source();
  if (!src) return false;
  const int r = src->findFirst(field, value, 0);
  if (r < 0) return false;
  displayRecordsAt(r, 1, at);
  return true;
}

// The rows are looked up first and inserted together afterwards; lookups do
// not depend on the view, so this is the same as inserting each as found.
int ODBViewRep::displayRecordsAt(const CookieVec& ids, int at) {
  ODBBase* src = source();
  if (!src) return 0;
  SystemWatchdog::LifeSupport longOperation;
  std::vector<uint32_t> rows;
  for (const Cookie& id : ids) {
    const LightweightString<char> text = id.asString(false);
    const int r = src->findFirst("Cookie", text.c_str(), 0);
    if (r >= 0) rows.push_back(static_cast<uint32_t>(r));
  }
  zyl::ODBViewInternal::insertEach(*this, rows, at);
  return static_cast<int>(rows.size());
}

int ODBViewRep::displayRecordsAt(const CookieSet& ids, int at) {
  CookieVec vec;
  for (const Cookie& id : ids) vec.push_back(id);
  return displayRecordsAt(vec, at);
}

int ODBViewRep::displayTaggedRecordsAt(int at) {
  ODBBase* src = source();
  if (!src) return 0;
  if (refuseWhileAnnouncing("displayTaggedRecordsAt")) return 0;
  const int n = std::max(src->get_num_tags(), 0);
  if (n > INT_MAX - index_.count()) return 0;
  sizeIndexFor(index_.count() + n);
  if (n == 0) return 0;
  at = clampPosition(at, index_.count());
  std::memmove(index_.data() + at + n, index_.data() + at,
               static_cast<size_t>(index_.count() - at) * sizeof(ODBViewIndexEntry));
  // The source's tag count decides how many positions open; never write
  // past them should the tagged rows be more.
  int next = at;
  const unsigned int rows = rowLimit(src->get_num_records());
  for (unsigned int r = 0; r < rows && next < at + n; ++r)
    if (src->get_tag(r) != 0) index_[next++].row = r;
  index_.setCount(index_.count() + n);
  return n;
}

int ODBViewRep::displayAllFromAt(ODBViewRep* other, int at) {
  if (!other || baseView_ || !table_) return 0;
  if (other->source() != static_cast<ODBBase*>(table_) || other->index_.count() == 0) return 0;
  // The records this view shows, so that "already shown" is one lookup.
  std::unordered_set<const dbrecord*> shown;
  shown.reserve(static_cast<size_t>(index_.count()) + static_cast<size_t>(other->index_.count()));
  for (int j = 0; j < index_.count(); ++j)
    if (const dbrecord* r = (*this)[j]) shown.insert(r);
  std::vector<uint32_t> rows;
  for (int i = 0; i < other->index_.count(); ++i) {
    const dbrecord* r = (*other)[i];
    if (!r || !shown.insert(r).second) continue;
    rows.push_back(static_cast<uint32_t>(other->baseIndex(i)));
  }
  zyl::ODBViewInternal::insertEach(*this, rows, at);
  return static_cast<int>(rows.size());
}

void ODBViewRep::displayAllRecords() {
  ODBBase* src = source();
  if (!src) return;
  remove(0, index_.count());
  displayRecordsAt(0, static_cast<int>(rowLimit(src->get_num_records())), 0);
}

void ODBViewRep::displayAllRecordsWithBaseTagStatus() {
  ODBBase* src = source();
  if (!src) return;
  displayAllRecords();
  if (src->get_fieldnum("Tag") == -1) return;
  const unsigned int n = rowLimit(src->get_num_records());
  for (unsigned int r = 0; r < n; ++r) set_tag(r, src->get_tag(r) != 0);
}

void ODBViewRep::setupViewTagsFromZyldbTagField() {
  ODBBase* src = source();
  if (!src) return;
  displayAllRecords();
  const int f = src->get_fieldnum("Tag");
  if (f == -1) return;
  const unsigned int n = rowLimit(src->get_num_records());
  for (unsigned int r = 0; r < n; ++r) {
    const LightweightString<char> text = src->getField(r, static_cast<unsigned int>(f));
    const long value = text.empty() ? 0 : std::strtol(text.c_str(), nullptr, 10);
    set_tag(r, value != 0);
  }
}

int ODBViewRep::find(dbrecord* record) const {
  if (!source() || !record) return -1;
  for (int j = 0; j < index_.count(); ++j)
    if ((*this)[j] == record) return j;
  return -1;
}

void ODBViewRep::tagAll(bool on) {
  if (!source()) return;
  for (int j = 0; j < index_.count(); ++j) index_[j].tag = on;
}

void ODBViewRep::invertAllTags() {
  if (!source()) return;
  for (int j = 0; j < index_.count(); ++j) index_[j].tag = !index_[j].tag;
}

int ODBViewRep::countTags() const {
  if (!source()) return 0;
  int n = 0;
  for (int j = 0; j < index_.count(); ++j) n += index_[j].tag != 0;
  return n;
}

bool ODBViewRep::notTagged(int row) {
  if (!source()) return false;
  return row < 0 || row >= index_.count() || !index_[row].tag;
}

bool ODBViewRep::tag(int row) {
  if (!source()) return false;
  return row >= 0 && row < index_.count() && index_[row].tag;
}

int ODBViewRep::tagMatches(int keep) {
  ODBBase* src = source();
  if (!src || index_.count() == 0) return 0;
  int n = 0;
  for (int i = 0; i < index_.count(); ++i) {
    if (src->match_record(static_cast<int>(index_[i].row)) != 0) {
      set_tag(static_cast<unsigned int>(i), 1);
      ++n;
    } else if (keep == 0) {
      set_tag(static_cast<unsigned int>(i), 0);
    }
  }
  return n;
}

int ODBViewRep::tagDuplicatesOrdered(int field) {
  if (!source() || index_.count() < 2) return 0;
  const unsigned short f = static_cast<unsigned short>(field);
  auto text = [&](int row) -> const char* {
    const dbrecord* r = (*this)[row];
    const char* s = r ? r->get_field(f) : nullptr;
    return s ? s : "";
  };
  int prev = 0;
  int n = 0;
  for (int i = 1; i < index_.count(); ++i) {
    if (strcasecmp(text(i), text(prev)) != 0) {
      prev = i;
    } else {
      set_tag(static_cast<unsigned int>(i), 1);
      ++n;
    }
  }
  return n;
}

int ODBViewRep::tagDuplicates(int field) {
  if (!source()) return 0;
  // The temporary view holds a counted reference to this one; this view
  // holds one of its own meanwhile so that dropping the temporary view never
  // destroys it, whether or not a handle holds it.
  struct Hold {
    ODBViewRep* v;
    explicit Hold(ODBViewRep* view) : v(view) { v->retainRep(); }
    ~Hold() { --v->refCount_; }
  } hold(this);
  std::unique_ptr<ODBViewRep> sorted(new ODBViewRep(table_, fieldSpecText_));
  sorted->baseView(this);
  sorted->displayAllRecords();
  sorted->set_sortfield(field);
  sorted->sort(1, 0);
  const int n = sorted->tagDuplicatesOrdered(field);
  sorted->tagBaseFromTags();
  return n;
}

void ODBViewRep::tagBaseFromTags() {
  ODBBase* src = source();
  if (!src) return;
  for (int i = 0; i < index_.count(); ++i) src->set_tag(index_[i].row, index_[i].tag ? 1 : 0);
}
