// A view's parameters, field spec and file name.

#include <zyldb/platform/Logging.h>
#include <zyldb/sexpr/SExpr.h>
#include <zyldb/view/ODBView.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <string_view>
#include <unordered_map>

namespace {

constexpr char kRevisionKey[] = "ZYLDB";

}  // namespace

void ODBViewRep::storeParam(const char* name, const char* value) {
  AssocList::Entry& e = params_[LightweightString<char>(name)];
  if (value && *value)
    e.set(LightweightString<char>(value));
  else
    e.clearValue();
}

int ODBViewRep::add_param(const char* name, const char* value) {
  storeParam(name, value);
  return 0;
}

int ODBViewRep::set_param_val(const char* name, const char* value) {
  storeParam(name, value);
  return 0;
}

// Looks the name up without adding an entry for it, so that reading a
// parameter never adds a line to the saved header.
const char* ODBViewRep::get_param_val(const char* name) const {
  const AssocList::Entry* e = params_.find(LightweightString<char>(name));
  return e && e->hasValue ? e->value.c_str() : "";
}

void ODBViewRep::addParamsFrom(ODBViewRep* other) {
  if (!other) return;
  // `other` may be this view: every name is then found, so the list does
  // not grow while it is walked.
  const AssocList& from = other->params_;
  for (auto it = from.begin(); it != from.end(); ++it) {
    const AssocList::Entry& e = *it;
    AssocList::Entry& mine = params_[e.key];
    if (&mine == &e) continue;
    if (e.hasValue && !e.value.empty())
      mine.set(e.value);
    else
      mine.clearValue();
  }
}

void ODBViewRep::addParamsFrom(zyldb* db) {
  if (!db) return;
  for (unsigned int i = 0; i < db->getNumParams(); ++i)
    storeParam(db->getParamName(i), db->getParamValue(i));
}

// Only a value with no characters at all is filled in; an absent revision
// stays absent (and no entry is made for it, so a view over a table without
// parameters saves none).
void ODBViewRep::internRevision() {
  AssocList::Entry* e =
      const_cast<AssocList::Entry*>(params_.find(LightweightString<char>(kRevisionKey)));
  if (e && e->hasValue && e->value.isNull()) {
    char text[16];
    std::snprintf(text, sizeof text, "Rev %d", 1);
    e->set(LightweightString<char>(text));
  }
}

void ODBViewRep::fieldSpec(const char* text) {
  delete[] fieldSpecText_;
  fieldSpecText_ = nullptr;
  if (!text) return;
  const size_t n = std::strlen(text);
  fieldSpecText_ = new (std::nothrow) char[n + 1];
  if (!fieldSpecText_) return;
  std::memcpy(fieldSpecText_, text, n + 1);

  // The source's columns by name (the first of equal names), so that a field list
  // naming every one of many columns costs linear time rather than one scan
  // of the columns per name. Same answers as dbFieldIndex.
  std::unordered_map<std::string_view, int> byName;
  ODBBase* src = source();
  const int columns = src ? static_cast<int>(src->get_num_fields()) : 0;
  if (columns > 0) {
    byName.reserve(static_cast<size_t>(columns));
    for (int k = 0; k < columns; ++k)
      if (const char* column = src->get_fieldname(static_cast<unsigned int>(k)))
        byName.emplace(column, k);
  }
  auto indexOf = [&](const char* name) {
    if (columns <= 0) return dbFieldIndex(name);
    const auto it = byName.find(name);
    return it == byName.end() ? -1 : it->second;
  };

  char* save = nullptr;
  for (char* token = strtok_r(fieldSpecText_, "\t,", &save); token;
       token = strtok_r(nullptr, "\t,", &save)) {
    const int k = indexOf(token);
    if (k >= 0) {
      std::unique_ptr<SExprRef> ref(new SExprRef(static_cast<uint32_t>(k), source()));
      fields_ = new SExpr(ref.get(), fields_);
      static_cast<void>(ref.release());  // now owned by fields_
    } else {
      vorn_printf("Warning: ODBView::fieldSpec, non-existant fieldname \"%s\".\n", token);
    }
  }
  // Splitting cut the copy at every delimiter; restore it.
  std::memcpy(fieldSpecText_, text, n + 1);
  if (fields_) fields_ = fields_->reverse();
}

void ODBViewRep::identityFieldSpec(GrowString& out) {
  ODBBase* src = source();
  if (!src) return;
  const unsigned int n = src->get_num_fields();
  for (unsigned int k = 0; k < n; ++k) {
    if (k) out.append(',');
    out.append(src->get_fieldname(k));
  }
}

int ODBViewRep::dbFieldIndex(const char* name) {
  ODBBase* src = source();
  if (!src) return -1;
  const int n = static_cast<int>(src->get_num_fields());
  if (n == 0) return -1;
  if (n < 0) return 0;
  if (!name) return -1;
  for (int k = 0; k < n; ++k) {
    const char* column = src->get_fieldname(static_cast<unsigned int>(k));
    if (column && std::strcmp(column, name) == 0) return k;
  }
  return -1;
}

void ODBViewRep::asString(GrowString& out) {
  out.append("fieldSpec: ").append(fieldSpecText_).append('\n');
  if (fields_) {
    out.append("fields: ");
    fields_->asString(out);
    out.append('\n');
  }
}

LightweightString<wchar_t> ODBViewRep::fileName(LightweightString<wchar_t> name) {
  fileName_ = std::move(name);
  return fileName_;
}

void ODBViewRep::set_filename(LightweightString<wchar_t> name) { fileName(std::move(name)); }

LightweightString<wchar_t> ODBViewRep::get_filename() { return fileName_; }
