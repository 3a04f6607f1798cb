// Writing a view as a database file, and turning it into a new table.

#include <zyldb/db/dbrecord.h>
#include <zyldb/platform/Logging.h>
#include <zyldb/platform/TextFile.h>
#include <zyldb/platform/TextUtil.h>
#include <zyldb/view/ODBView.h>

#include <memory>
#include <string>
#include <vector>

#include "db/LogFormat.h"

namespace {

std::vector<zyl::logformat::Param> paramsOf(const AssocList& params) {
  std::vector<zyl::logformat::Param> out;
  for (const AssocList::Entry& e : params)
    out.push_back({e.key.view(), e.hasValue ? e.value.view() : std::string_view()});
  return out;
}

// The view's parameters in list order, each as a "name:value" line (the
// magic line first when the list lacks it); then the table's column header.
void writeHeader(const AssocList& params, zyldb* table, TextFile& f) {
  zyl::logformat::appendParamLines(f, paramsOf(params), true);
  table->save_column_header(f, false);
}

// False, with the reason logged, when the file would not load back as the
// view shows it (the same checks as the table's save).
bool savable(const LightweightString<wchar_t>& name, const AssocList& params, zyldb* table,
             ODBViewRep& view, int count) {
  const char* why = zyl::logformat::isCsvName(name.view())
                        ? "a name ending in \".csv\" is loaded as plain CSV"
                        : zyl::logformat::paramsProblem(paramsOf(params));
  if (!why) why = zyl::logformat::columnsProblem(*table);
  for (int i = 0; !why && i < count; ++i) {
    const dbrecord* record = view[i];
    if (record && !record->fitsLineForm())
      why = table->get_num_fields() == 0 ? "rows without columns have no line"
                                         : "a value is longer than 4095 bytes";
  }
  if (!why) return true;
  LogBoth("ODBViewRep::saveAsText: not saved, the file would not load back: %s\n", why);
  return false;
}

}  // namespace

int ODBViewRep::saveAsText(LightweightString<wchar_t> name, bool headerOnly) {
  if (!source() || !table_ || name.empty()) return 0;
  if (!savable(name, params_, table_, *this, headerOnly ? 0 : index_.count())) return 0;
  TextFile f;
  writeHeader(params_, table_, f);
  int written = 0;
  if (!headerOnly && index_.count() > 0) {
    const int tagField = get_fieldnum("Tag");
    for (int i = 0; i < index_.count(); ++i) {
      const dbrecord* record = (*this)[i];
      if (!record) continue;
      // The view's tag goes into the written copy only; the table's record
      // and its changed flag stay as they are.
      dbrecord copy(*record);
      if (tagField != -1) copy.set_field(tagField, index_[i].tag ? "1" : "0", true);
      if (copy.write(f) == 0) break;
      ++written;
    }
  }
  // TextFile::save replaces the file in one step: a failed save leaves the
  // old file as it was.
  if (!f.save(name, TextFile::eLF)) return 0;
  return written;
}

int ODBViewRep::saveAsText(const char* name, bool headerOnly) {
  return saveAsText(Qm::WStringFromAscii(name), headerOnly);
}

int ODBViewRep::saveOnlyTagged(LightweightString<wchar_t> name) {
  if (!source() || !table_ || name.empty()) return 0;
  if (!savable(name, params_, table_, *this, index_.count())) return 0;
  TextFile f;
  writeHeader(params_, table_, f);
  int examined = 0;
  for (; examined < index_.count(); ++examined) {
    dbrecord* record = (*this)[examined];
    if (record && record->getTag() && record->write(f) == 0) break;
  }
  if (!f.save(name, TextFile::eLF)) return 0;
  return examined;
}

int ODBViewRep::saveOnlyTagged(const char* name) {
  return saveOnlyTagged(Qm::WStringFromAscii(name));
}

int ODBViewRep::save_text() { return saveAsText(fileName_, false); }

bool ODBViewRep::save_tags() { return saveOnlyTagged(fileName_) != 0; }

zyldb* Convert_ODBView_to_zyldb(ODBView view) {
  ODBViewRep* v = view.rep();
  if (!v || !v->odb()) return nullptr;
  std::unique_ptr<zyldb> table(new zyldb(*v->odb(), 0));
  const unsigned int n = v->get_num_records();
  if (table->add_records(static_cast<int>(n)) == -1) return nullptr;
  for (unsigned int i = 0; i < n; ++i)
    if (dbrecord* record = v->get_record(i)) table->copy_record(static_cast<int>(i), record);
  return table.release();
}
