#pragma once

// Configuration: configb, a record of key/value settings that a host hands to
// dbrecord::update; strp_field, the value wrapper it stores; and config_int,
// the library's reader of integer settings.
//
// config_int(key, default) looks in this order:
//   1. the environment variable ZYLDB_<KEY>, the key upper-cased with every
//      character that is not a letter or digit made '_'
//      (dbv_reel_field_editable -> ZYLDB_DBV_REEL_FIELD_EDITABLE);
//   2. the file named by the environment variable ZYLDB_CONFIG, lines of
//      "key = value" ('#' starts a comment, keys compare ignoring case);
//   3. the default.
// A value that is not a decimal integer is ignored (the next source is used).

#include <zyldb/export.h>
#include <zyldb/platform/LightweightString.h>

#include <vector>

class ZYLDB_EXPORT strp_field {
 public:
  strp_field() = default;
  strp_field(const char* s) : value_(s) {}
  strp_field(const LightweightString<char>& s) : value_(s) {}
  const char* c_str() const { return value_.c_str(); }
  const LightweightString<char>& value() const { return value_; }

 private:
  LightweightString<char> value_;
};

// An ordered list of settings; keys compare ignoring case, a key set twice
// keeps its first place and takes the new value.
class ZYLDB_EXPORT configb {
 public:
  // Sets `key` to `value`. Returns 1.
  int set(const char* key, const strp_field& value);
  // The value of `key`, or null when it is not set.
  const char* get(const char* key) const;
  bool has(const char* key) const { return get(key) != nullptr; }
  size_t size() const { return entries_.size(); }
  const LightweightString<char>& keyAt(size_t i) const { return entries_[i].first; }
  const LightweightString<char>& valueAt(size_t i) const { return entries_[i].second; }
  void clear() { entries_.clear(); }

 private:
  std::vector<std::pair<LightweightString<char>, LightweightString<char>>> entries_;
};

ZYLDB_EXPORT int config_int(const char* key, int defaultValue);
