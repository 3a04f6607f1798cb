#include <strings.h>
#include <zyldb/platform/AssocList.h>

namespace {

bool sameKey(const LightweightString<char>& a, const LightweightString<char>& b) {
  return a.size() == b.size() && ::strncasecmp(a.c_str(), b.c_str(), a.size()) == 0;
}

}  // namespace

AssocList::Entry& AssocList::operator[](const LightweightString<char>& key) {
  for (Entry& e : entries_)
    if (sameKey(e.key, key)) return e;
  entries_.push_back(Entry{key, LightweightString<char>(), false});
  return entries_.back();
}

const AssocList::Entry* AssocList::find(const LightweightString<char>& key) const {
  for (const Entry& e : entries_)
    if (sameKey(e.key, key)) return &e;
  return nullptr;
}
