// Fuzzes the reading of a field map's text form. The first byte picks the
// source's column count, the rest is the "V5_FIELD_MAP" value. Checks that
// binding never fails hard, that the map's two lists stay in step, and that
// the text written by asString binds back to the same entries (apart from
// entries whose names the source lacks, which the text cannot name).

#include <zyldb/db/zyldb.h>
#include <zyldb/fieldmap/FieldMap.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

struct Entry {
  std::string name;
  bool visible;
  bool operator==(const Entry&) const = default;
};

std::vector<Entry> entriesOf(const FieldMap& m) {
  std::vector<Entry> out;
  for (int i = 0; i < m.size(); ++i) out.push_back({m.getName(i).toStdString(), m.isVisible(i)});
  return out;
}

void check(bool ok) {
  if (!ok) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  // Up to 99 columns, so that every hidden item fits the reader's three
  // characters and the round trip is exact.
  unsigned columns = data[0] % 100;
  std::string text(reinterpret_cast<const char*>(data + 1), size - 1);
  text = text.substr(0, text.find('\0'));

  std::vector<DBFieldDesc> descs;
  for (unsigned i = 0; i < columns; ++i)
    descs.push_back(
        {LightweightString<char>(("c" + std::to_string(i)).c_str()), DBFieldTypes::text});
  zyldb table(descs);
  table.add_param(FieldMap::kFieldMapParam, text.c_str());

  FieldMap map(table);
  std::vector<Entry> first = entriesOf(map);
  check(static_cast<int>(first.size()) <= static_cast<int>(columns) + 1);
  int visible = 0;
  for (const Entry& e : first) visible += e.visible;
  check(map.numVisible() == visible);
  for (int n = 0; n < visible; ++n) {
    int col = map.getVisibleFieldIndex(n);
    check(col >= -1 && col < static_cast<int>(columns));
  }
  check(map.getVisibleFieldIndex(visible) == -1);

  // Rebind a copy of the table holding the map's own text.
  LightweightString<char> written = map.asString();
  zyldb again(descs);
  again.add_param(FieldMap::kFieldMapParam, written.c_str());
  FieldMap rebuilt(again);

  std::vector<Entry> expected;
  for (const Entry& e : first)
    if (!e.name.empty()) expected.push_back(e);
  if (expected.empty())
    for (unsigned i = 0; i < columns; ++i) expected.push_back({"c" + std::to_string(i), true});
  check(entriesOf(rebuilt) == expected);
  if (expected == first) check(rebuilt.asString() == written);
  return 0;
}
