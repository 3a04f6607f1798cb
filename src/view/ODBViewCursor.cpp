#include <strings.h>
#include <zyldb/db/dbrecord.h>
#include <zyldb/view/ODBViewCursor.h>

#include <cstdint>

namespace {

int rowCount(const ODBView& view) { return view ? static_cast<int>(view->get_num_records()) : 0; }

}  // namespace

void ODBViewCursor::set_index(int i) {
  index = i;
  if (i < 0 || i >= rowCount(view)) index = -1;
}

ODBViewCursor& ODBViewCursor::operator++() {
  const int count = rowCount(view);
  for (;;) {
    if (index >= count) {
      index = -1;
      break;
    }
    ++index;
    if (index >= count) {
      index = -1;
      break;
    }
    if (!tagsOnly || view->get_tag(static_cast<unsigned int>(index))) break;
  }
  return *this;
}

ODBViewCursor& ODBViewCursor::operator--() {
  const int count = rowCount(view);
  for (;;) {
    if (index < 0) index = count;
    --index;
    if (index < 0 || !tagsOnly) break;
    if (view->get_tag(static_cast<unsigned int>(index))) break;
  }
  return *this;
}

void ODBViewCursor::remove() {
  if (index < 0 || !view) return;
  view->remove(index, 1);
  if (index >= rowCount(view)) index = -1;
}

int ODBViewCursor::find(dbrecord* record) {
  index = 0;
  ODBViewCursor search{view, -1, 0};
  ++search;
  dbrecord* here = nullptr;
  while (view && (here = view->get_record(static_cast<unsigned int>(search.index))) != nullptr) {
    if (here == record) break;
    ++search;
    ++index;
  }
  if (!here) {
    index = -1;
    return -1;
  }
  return index;
}

namespace {

// The column for a search, or -1 (the cursor then moves to -1).
int lookupField(ODBViewCursor& c, const char* field) {
  const int f = c.view ? c.view->get_fieldnum(LightweightString<char>(field ? field : "")) : -1;
  if (f < 0) c.index = -1;
  return f;
}

int compareRow(const ODBView& view, int row, int field, const char* value) {
  const LightweightString<char> text =
      view->getField(static_cast<unsigned int>(row), static_cast<unsigned int>(field));
  return strcasecmp(text.c_str(), value ? value : "");
}

}  // namespace

int ODBViewCursor::findField(const char* field, const char* value) {
  const int f = lookupField(*this, field);
  if (f < 0 || index < 0) return -1;
  for (;;) {
    if (compareRow(view, index, f, value) == 0) return index;
    ++*this;
    if (index == -1) return -1;
  }
}

// A probe that compares equal cannot move either bound; rather than probe
// the same row forever, the search ends there, with the same result as every
// other way out.
int ODBViewCursor::findFieldSorted(const char* field, const char* value) {
  const int f = lookupField(*this, field);
  if (f < 0) return -1;
  int64_t lo = index;
  if (index >= 0) index = static_cast<int32_t>(lo - 1);
  const int64_t hi0 = rowCount(view);
  int64_t hi = hi0;
  while (hi - lo > 1) {
    const int64_t mid = (lo + hi) / 2;
    index = static_cast<int32_t>(mid);
    const int cmp = compareRow(view, static_cast<int>(mid), f, value);
    if (cmp < 0) {
      lo = mid;
    } else if (cmp > 0) {
      hi = mid;
    } else {
      break;
    }
  }
  index = -1;
  return -1;
}
