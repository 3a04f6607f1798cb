#pragma once

// AssocList: an insertion-ordered list of named values, keys compared
// ignoring case. An entry may hold no value (distinct from an empty one only
// to hasValue; readers see "" for both).

#include <zyldb/export.h>
#include <zyldb/platform/LightweightString.h>

#include <deque>

class ZYLDB_EXPORT AssocList {
 public:
  struct Entry {
    LightweightString<char> key;
    LightweightString<char> value;
    bool hasValue = false;
    void set(const LightweightString<char>& v) {
      value = v;
      hasValue = true;
    }
    void clearValue() {
      value = LightweightString<char>();
      hasValue = false;
    }
  };
  using const_iterator = std::deque<Entry>::const_iterator;

  // The entry for `key`, appended without a value when there is none. The
  // reference stays valid until the list is emptied.
  Entry& operator[](const LightweightString<char>& key);
  // The entry for `key`, or null.
  const Entry* find(const LightweightString<char>& key) const;

  void clear() { entries_.clear(); }
  size_t size() const { return entries_.size(); }
  bool empty() const { return entries_.empty(); }
  const_iterator begin() const { return entries_.begin(); }
  const_iterator end() const { return entries_.end(); }

 private:
  std::deque<Entry> entries_;
};

using AssocListIter = AssocList::const_iterator;
