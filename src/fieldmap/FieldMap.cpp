#include <zyldb/db/zyldb.h>
#include <zyldb/fieldmap/FieldMap.h>

#include <charconv>
#include <cstdio>
#include <cstring>
#include <string>
#include <unordered_map>

namespace {

// The key under which a name is counted: what strcasecmp compares (the text
// up to its first NUL), lower-cased.
std::string nameKey(const LightweightString<char>& name) {
  std::string key(name.c_str());
  for (char& c : key)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return key;
}

bool isDigitOrMinus(char c) { return (c >= '0' && c <= '9') || c == '-'; }

// Reads one item of the text form the way "%d" does, from the at most three
// characters at `p`. Returns the conversion count: 1 with *n set, 0 when the
// characters do not start with a number, EOF when they are all white space.
// The three-character window is part of the format: a visible number up to
// 999 and a hidden one up to -99 read back exactly, a longer item is read
// from its first three characters (-123 as -12).
int readItem(const char* p, size_t avail, int* n) {
  char chunk[4] = {};
  std::memcpy(chunk, p, avail < 3 ? avail : 3);
  return std::sscanf(chunk, "%d", n);
}

}  // namespace

FieldMap::FieldMap() = default;

// The map holds the only handle on its view at first; the view does not own
// the table.
FieldMap::FieldMap(zyldb& db) : source_(new ODBViewRep(&db)) { setSourceDb(source_); }

FieldMap::FieldMap(const ODBView& view) { setSourceDb(view); }

FieldMap::FieldMap(const FieldMap& other) = default;

FieldMap& FieldMap::operator=(const FieldMap& other) {
  if (this == &other) return *this;
  // Copies first, so that memory exhaustion leaves this map as it was.
  auto names = other.names_;
  auto visible = other.visible_;
  auto counts = other.nameCount_;
  source_ = other.source_;
  names_.swap(names);
  visible_.swap(visible);
  nameCount_.swap(counts);
  visibleOrder_.reset();
  firstIndex_.reset();
  return *this;
}

FieldMap::~FieldMap() = default;

ODBBase* FieldMap::sourceBase() const { return source_.rep(); }

void FieldMap::uncountName(const std::string& key) {
  auto it = nameCount_.find(key);
  if (it != nameCount_.end() && --it->second == 0) nameCount_.erase(it);
}

const std::vector<int>& FieldMap::visibleOrder() const {
  if (!visibleOrder_) {
    std::vector<int> order;
    for (size_t i = 0; i < visible_.size(); ++i)
      if (visible_[i]) order.push_back(static_cast<int>(i));
    visibleOrder_ = std::move(order);
  }
  return *visibleOrder_;
}

int FieldMap::getFieldIdx(const LightweightString<char>& name) const {
  if (!containsField(name)) return -1;
  if (!firstIndex_) {
    std::unordered_map<std::string, int> first;
    first.reserve(nameCount_.size());
    for (size_t i = 0; i < names_.size(); ++i)
      first.try_emplace(nameKey(names_[i]), static_cast<int>(i));
    firstIndex_ = std::move(first);
  }
  auto it = firstIndex_->find(nameKey(name));
  return it == firstIndex_->end() ? -1 : it->second;
}

bool FieldMap::containsField(const LightweightString<char>& name) const {
  return nameCount_.count(nameKey(name)) != 0;
}

bool FieldMap::isVisible(int i) const {
  return i >= 0 && static_cast<size_t>(i) < visible_.size() && visible_[i];
}

bool FieldMap::isVisible(const LightweightString<char>& name) const {
  return isVisible(getFieldIdx(name));
}

LightweightString<char> FieldMap::getName(int i) const {
  if (i < 0 || i >= size()) return LightweightString<char>();
  return names_[i];
}

int FieldMap::numVisible() const { return static_cast<int>(visibleOrder().size()); }

int FieldMap::getVisibleFieldIndex(int n) const {
  const std::vector<int>& order = visibleOrder();
  if (n < 0 || static_cast<size_t>(n) >= order.size()) return -1;
  ODBBase* src = sourceBase();
  return src ? src->get_fieldnum(names_[order[n]]) : -1;
}

void FieldMap::set(int i, const LightweightString<char>& name, bool visible) {
  if (i < 0 || i >= size()) return;
  setName(i, name);
  setVisible(i, visible);
}

void FieldMap::setName(int i, const LightweightString<char>& name) {
  if (i < 0 || i >= size()) return;
  std::string oldKey = nameKey(names_[i]);
  ++nameCount_[nameKey(name)];
  uncountName(oldKey);
  firstIndex_.reset();
  names_[i] = name;
}

void FieldMap::setVisible(int i, bool visible) {
  if (i < 0 || i >= size()) return;
  if (visible_[i] != visible) visibleOrder_.reset();
  visible_[i] = visible;
}

void FieldMap::invertVisible(int i) {
  if (i < 0 || i >= size()) return;
  visibleOrder_.reset();
  visible_[i] = !visible_[i];
}

void FieldMap::swap(int i, int j) {
  if (i < 0 || i >= size() || j < 0 || j >= size()) return;
  names_[i].swap(names_[j]);
  visibleOrder_.reset();
  firstIndex_.reset();
  bool v = visible_[i];
  visible_[i] = visible_[j];
  visible_[j] = v;
}

bool FieldMap::remove(const LightweightString<char>& name) {
  int i = getFieldIdx(name);
  if (i < 0) return false;
  uncountName(nameKey(names_[i]));
  visibleOrder_.reset();
  firstIndex_.reset();
  names_.erase(names_.begin() + i);
  visible_.erase(visible_.begin() + i);
  return true;
}

void FieldMap::clear() {
  nameCount_.clear();
  visibleOrder_.reset();
  firstIndex_.reset();
  names_.clear();
  visible_.clear();
}

void FieldMap::append(const LightweightString<char>& name, bool visible) {
  if (containsField(name)) return;
  // Room first, growing geometrically, so that nothing can fail after the
  // name is counted.
  if (names_.size() == names_.capacity()) names_.reserve(2 * names_.size() + 8);
  if (visible_.size() == visible_.capacity()) visible_.reserve(2 * visible_.size() + 64);
  const std::string key = nameKey(name);
  ++nameCount_[key];
  visibleOrder_.reset();
  if (firstIndex_) {
    try {
      firstIndex_->emplace(key, static_cast<int>(names_.size()));
    } catch (...) {
      firstIndex_.reset();  // rebuilt when next needed
    }
  }
  names_.push_back(name);  // cannot fail now: room was reserved
  visible_.push_back(visible);
}

LightweightString<char> FieldMap::asString() const {
  ODBBase* src = sourceBase();
  std::string text;
  for (size_t i = 0; i < names_.size(); ++i) {
    if (i > 0) text += ' ';
    if (!visible_[i]) text += '-';
    int number = src ? src->get_fieldnum(names_[i]) + 1 : static_cast<int>(i) + 1;
    char digits[16];
    auto res = std::to_chars(digits, digits + sizeof digits, number);
    text.append(digits, res.ptr);
  }
  return LightweightString<char>(text);
}

void FieldMap::setSourceDb(const ODBView& view) {
  source_ = view;
  ODBBase* src = sourceBase();
  const char* text = src ? src->get_param_val(kFieldMapParam) : nullptr;
  if (text && *text) {
    parseText(text);
  } else if (!names_.empty()) {
    return;
  }
  if (!names_.empty() || !src) return;
  unsigned int columns = src->get_num_fields();
  for (unsigned int c = 0; c < columns; ++c) {
    LightweightString<char> name(src->get_fieldname(c));
    if (!containsField(name)) append(name, true);
  }
}

// Items are read one at a time from a window of three characters; after each
// the position moves past the item's digits and minus signs and one blank.
// Reading stops at the first window that does not start with a number; a
// window of blanks only yields nothing and reading goes on. Other characters
// that "%d" accepts but the skipping rule does not pass over ('+', tabs) would
// leave the position where it was: it then moves on by one character, so that
// every text is read to its end.
void FieldMap::parseText(const char* text) {
  ODBBase* src = sourceBase();
  const size_t len = std::strlen(text);
  size_t pos = 0;
  while (pos < len) {
    int n = 0;
    int converted = readItem(text + pos, len - pos, &n);
    if (converted == 0) break;
    if (converted == 1 && n != 0) {
      unsigned int col = static_cast<unsigned int>(n < 0 ? -n : n) - 1;
      const char* name = src ? src->get_fieldname(col) : nullptr;
      append(LightweightString<char>(name ? name : ""), n > 0);
    }
    size_t start = pos;
    while (pos < len && isDigitOrMinus(text[pos])) ++pos;
    if (pos < len && text[pos] == ' ') ++pos;
    if (pos == start) ++pos;
  }
}
