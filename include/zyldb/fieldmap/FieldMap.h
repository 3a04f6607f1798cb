#pragma once

// FieldMap: one user's arrangement of the columns of a table or view (the
// source): an ordered list of column names, each with a visibility flag, and
// a handle on the source whose columns the names refer to. Index 0 is the
// leftmost column as displayed. A map holds no values.
//
// Names compare ignoring case everywhere in this class; append() keeps them
// unique in that sense, set() and setName() do not check (lookups then find
// the first of two equal names).
//
// Text form. A map is kept between runs as the source's header parameter
// "V5_FIELD_MAP" (kFieldMapParam): one item per entry, in map order, separated
// by single blanks. An item is the entry's one-based source column number,
// preceded by "-" when the entry is hidden; 0 stands for a name the source
// does not have. Example: "1 -4 2". The library reads the parameter when a map
// is bound (setSourceDb) but never writes it: the host stores asString() under
// that key (add_param) before saving.
//
// Cost: containsField and append are constant time on average (a count of
// the names held, by case-folded name, is kept beside the list);
// getFieldIdx, isVisible(name), numVisible and getVisibleFieldIndex are
// too, after the first such call that follows an edit (the first position
// of each name and the visible positions are kept, and rebuilt in linear
// time when needed); remove is linear; binding to a source of n columns and
// asString cost O(n log n). So maps of 65 535 columns are cheap, as long as
// edits other than append and lookups are not interleaved one by one.
//
// Thread safety: none of its own; a map is used by one thread at a time.
// Copies share only the reference-counted source. Memory exhaustion raises
// Qm::Exception::BadAlloc.

#include <zyldb/export.h>
#include <zyldb/platform/LightweightString.h>
#include <zyldb/view/ODBView.h>

#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

class zyldb;

class ZYLDB_EXPORT FieldMap {
 public:
  // The header parameter that holds a map's text form.
  static constexpr const char* kFieldMapParam = "V5_FIELD_MAP";

  // No entries, no source.
  FieldMap();
  // Makes a new view over the whole of `db` (not owned; it must outlive the
  // map and its copies), holds it as the map's own source and binds to it
  // with setSourceDb.
  explicit FieldMap(zyldb& db);
  // Binds to `view` (shared) with setSourceDb.
  explicit FieldMap(const ODBView& view);
  FieldMap(const FieldMap& other);
  // Shares other's source and copies its entries; self-assignment is a no-op.
  FieldMap& operator=(const FieldMap& other);
  ~FieldMap();

  // Index of the first entry whose name equals `name` ignoring case; -1 when
  // there is none.
  int getFieldIdx(const LightweightString<char>& name) const;
  bool containsField(const LightweightString<char>& name) const;
  // The entry's flag; false for an index out of range or a name not held.
  bool isVisible(int i) const;
  bool isVisible(const LightweightString<char>& name) const;
  // The entry's name; the empty string for an index out of range.
  LightweightString<char> getName(int i) const;
  LightweightString<char> operator[](int i) const { return getName(i); }
  // The number of entries, visible or not.
  int size() const { return static_cast<int>(names_.size()); }
  int numVisible() const;
  // The source's column number of the n-th visible entry (n counted from 0
  // over visible entries only), looked up by name; -1 when fewer than n + 1
  // entries are visible, when the source lacks the name, or without a source.
  int getVisibleFieldIndex(int n) const;

  // The modifiers below do nothing for an index out of range.
  void set(int i, const LightweightString<char>& name, bool visible);
  void setName(int i, const LightweightString<char>& name);
  void setVisible(int i, bool visible);
  void invertVisible(int i);
  // Exchanges the entries at i and j (names and flags together).
  void swap(int i, int j);
  // Erases the first entry of that name; later entries move up by one.
  // Returns false (and changes nothing) when there is none.
  bool remove(const LightweightString<char>& name);
  // Removes every entry; the source is kept.
  void clear();
  // Adds the entry at the end unless the map already holds the name, in
  // which case the existing entry keeps its place and its flag.
  void append(const LightweightString<char>& name, bool visible);

  // The text form described above. An entry's number is its name's source
  // column plus one; in a map without a source, its own position plus one.
  LightweightString<char> asString() const;

  // Makes `view` the source (shared) and fills the map from the source's
  // "V5_FIELD_MAP" text, appending after any entries the map already holds.
  // Reading stops at the first item that holds no number; items 0 and -0 are
  // skipped. When the map is still empty afterwards it gets every source
  // column, in source order, visible. A map that already has entries and a
  // source without the parameter keeps its entries unchanged.
  void setSourceDb(const ODBView& view);

  // The source handle; empty in a map built by the default constructor.
  const ODBView& getSourceDb() const { return source_; }

 private:
  // The source's interface, or null without a source.
  ODBBase* sourceBase() const;
  void parseText(const char* text);
  // Takes one from the count of the name with that key.
  void uncountName(const std::string& key);
  // The indices of the visible entries, in order; built when first needed
  // after a change.
  const std::vector<int>& visibleOrder() const;

  std::vector<LightweightString<char>> names_;
  std::vector<bool> visible_;  // visible_[i] belongs to names_[i]
  // How many entries hold each name, by its lower-cased text up to any NUL.
  std::unordered_map<std::string, int> nameCount_;
  mutable std::optional<std::vector<int>> visibleOrder_;
  // The first entry of each name, by the same key; built when first needed
  // after a change other than append.
  mutable std::optional<std::unordered_map<std::string, int>> firstIndex_;
  ODBView source_;
};
