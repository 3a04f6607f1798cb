#pragma once

// Helpers for the view tests: small named tables, views and message recording.

#include <zyldb/db/dbrecord.h>
#include <zyldb/db/zyldb.h>
#include <zyldb/platform/Notifier.h>
#include <zyldb/view/ODBView.h>

#include <memory>
#include <string>
#include <vector>

namespace zyl::test {

// A table with text columns `columns` and `rows` rows whose first column
// reads "r0", "r1", ...
inline std::unique_ptr<zyldb> makeTable(int rows, std::vector<const char*> columns = {
                                                      "Name", "Reel", "Tag"}) {
  std::vector<DBFieldDesc> descs;
  for (const char* c : columns) descs.push_back({c, DBFieldTypes::text});
  auto t = std::make_unique<zyldb>(descs);
  t->add_records(rows);
  for (int i = 0; i < rows; ++i) t->set_field(i, 0u, ("r" + std::to_string(i)).c_str());
  return t;
}

inline void setColumn(zyldb& t, unsigned col, std::vector<const char*> values) {
  for (unsigned i = 0; i < values.size(); ++i) t.set_field(i, col, values[i]);
}

// A view over `base` (or the table) showing the source rows `rows`.
inline ODBView viewOf(zyldb* table, std::vector<int> rows, ODBViewRep* base = nullptr) {
  ODBView v(new ODBViewRep(table));
  v->baseView(base);
  for (int r : rows) v->append(r);
  return v;
}

// The first column of every view row ("" for a row without record).
inline std::vector<std::string> names(ODBBase& v) {
  std::vector<std::string> out;
  for (unsigned int i = 0; i < v.get_num_records(); ++i)
    out.push_back(v.getField(i, 0).toStdString());
  return out;
}

// Records the "recordsDeleted" and "recordsChanged" messages of one notifier
// as "D:<text>" and "C:<text>".
struct Recorder {
  explicit Recorder(Notifier& n) {
    for (std::string type : {"recordsDeleted", "recordsChanged"})
      regs.push_back(n.addListener(type.c_str(), [this, type](const NotifyMsg& m) {
        log.push_back(type.substr(7, 1) + ":" + m.getText().toStdString());
        return 0;
      }));
  }
  std::vector<std::string> log;
  std::vector<Qm::Ptr<iObject>> regs;
};

}  // namespace zyl::test
