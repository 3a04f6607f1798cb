#pragma once

// Helpers for the interchange tests: tables from literals, their contents as
// plain vectors, writers into strings and fixture files.

#include <zyldb/db/DBFieldTypes.h>
#include <zyldb/db/zyldb.h>
#include <zyldb/interchange/Interchange.h>

#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace zyl::interchange::testing {

using Rows = std::vector<std::vector<std::string>>;

inline std::vector<std::string> namesOf(const ODBBase& t) {
  std::vector<std::string> names;
  for (unsigned int c = 0; c < t.get_num_fields(); ++c) names.emplace_back(t.get_fieldname(c));
  return names;
}

inline Rows rowsOf(const ODBBase& t) {
  Rows rows(t.get_num_records());
  for (unsigned int r = 0; r < rows.size(); ++r)
    for (unsigned int c = 0; c < t.get_num_fields(); ++c)
      rows[r].push_back(t.getField(r, c).toStdString());
  return rows;
}

inline std::string typesOf(const ODBBase& t) {
  std::string types;
  for (unsigned int c = 0; c < t.get_num_fields(); ++c)
    types.push_back(static_cast<char>(t.get_field_type(c)));
  return types;
}

// A table of text columns holding `rows`, each value stored as it is.
inline std::unique_ptr<zyldb> makeTable(const std::vector<std::string>& names, const Rows& rows) {
  std::vector<DBFieldDesc> descs;
  for (const std::string& n : names)
    descs.push_back({LightweightString<char>(n), DBFieldTypes::text});
  auto t = std::make_unique<zyldb>(descs);
  for (const auto& row : rows) {
    const unsigned int r = static_cast<unsigned int>(t->add_records(1));
    for (unsigned int c = 0; c < row.size(); ++c)
      t->setField(r, c, LightweightString<char>(row[c]));
  }
  return t;
}

template <class Options, class Writer>
std::string writeWith(Writer writer, const ODBBase& t, const Options& options) {
  std::string out;
  Error err;
  const bool ok = writer(
      t, options,
      [&out](std::string_view chunk) {
        out.append(chunk);
        return true;
      },
      &err);
  if (!ok) return "FAILED: " + err.message;
  return out;
}

inline std::string toCsv(const ODBBase& t, const CsvOptions& o = {}) {
  return writeWith(writeCsv, t, o);
}
inline std::string toTsv(const ODBBase& t, const TsvOptions& o = {}) {
  return writeWith(writeTsv, t, o);
}
inline std::string toAle(const ODBBase& t, const AleOptions& o = {}) {
  return writeWith(writeAle, t, o);
}

inline std::string fixture(const std::string& name) {
  std::ifstream in(std::string(ZYLDB_SOURCE_DIR) + "/tests/interchange/data/" + name,
                   std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

}  // namespace zyl::interchange::testing
