#pragma once

// ODBBase: the interface shared by tables (zyldb) and views (ODBViewRep), so
// that views, field maps, cursors and hosts work on either.
//
// Row numbers are visible row numbers (see zyldb's show-tags-only mode);
// column numbers are the table's. Results follow the library's convention:
// -1 (all bits set when unsigned) when refused or not found, 0 when nothing
// was done, 1 or a count on success. Out-of-range rows and columns give null,
// 0, -1 or the empty string and never fail hard.

#include <zyldb/db/DBFieldTypes.h>
#include <zyldb/export.h>
#include <zyldb/platform/Cookie.h>
#include <zyldb/platform/LightweightString.h>
#include <zyldb/platform/QmPtr.h>

class dbrecord;

class ZYLDB_EXPORT ODBBase : public iObject {
 public:
  ~ODBBase() override;

  virtual int save_text() = 0;
  virtual bool save_tags() = 0;
  virtual int insert_records(unsigned int first, unsigned int count) = 0;
  virtual void delete_records(unsigned int first, unsigned int count) = 0;
  virtual int delete_tagged_records() = 0;
  virtual unsigned int get_num_records() const = 0;
  virtual unsigned int get_num_fields() const = 0;
  virtual dbrecord* get_record(unsigned int row) const = 0;
  // A new blank record of the table's width, owned by the caller.
  virtual dbrecord* make_dummy_record() = 0;
  virtual LightweightString<char> getField(unsigned int row, unsigned int field) const = 0;
  virtual const char* get_fieldname(unsigned int field) const = 0;
  virtual int get_fieldsize(unsigned int field) const = 0;
  virtual DBFieldTypes::eType get_field_type(unsigned int field) const = 0;
  virtual int set_fieldtype(unsigned int field, DBFieldTypes::eType type) = 0;
  virtual DBFieldTypes::eType get_fieldtype(unsigned int field) const = 0;
  virtual int get_fieldnum(const LightweightString<char>& name) const = 0;
  virtual int set_fieldname(unsigned int field, const char* name) = 0;
  virtual void set_filename(LightweightString<wchar_t> name) = 0;
  virtual LightweightString<wchar_t> get_filename() = 0;
  virtual void set_sortfield(int field) = 0;
  virtual void set_sortfields(int* fields) = 0;
  virtual void set_sort_offset(int offset) = 0;
  virtual void sort(int direction, int flag) = 0;
  virtual void set_tag(unsigned int row, int value) = 0;
  virtual void invert_tag(unsigned int row) = 0;
  virtual int set_all_tags(int value) = 0;
  virtual int invert_all_tags() = 0;
  virtual void set_show_tags_only(int on) = 0;
  virtual int get_show_tags_only() = 0;
  virtual int get_tag(unsigned int row) = 0;
  virtual int get_num_tags() = 0;
  virtual void set_query(dbrecord* query) = 0;
  virtual int tag_matching_records(int value) = 0;
  virtual int tag_all_different(int field) = 0;
  virtual int set_field(unsigned int row, const Cookie& id) = 0;
  virtual int set_field(unsigned int row, unsigned int field, const char* text) = 0;
  virtual int set_field(unsigned int row, unsigned int field, int value) = 0;
  virtual int set_field(unsigned int row, unsigned int field, double value) = 0;
  virtual int set_field(unsigned int row, unsigned int field, bool value) = 0;
  virtual int in_field(unsigned int row, unsigned int field, char* buf, int len) const = 0;
  virtual int in_field(unsigned int row, unsigned int field, int& value) const = 0;
  virtual int in_field(unsigned int row, unsigned int field, double& value) const = 0;
  virtual int in_field(unsigned int row, unsigned int field, bool& value) const = 0;
  virtual int add_records(int count) = 0;
  virtual int add_param(const char* name, const char* value) = 0;
  virtual int set_param_val(const char* name, const char* value) = 0;
  virtual const char* get_param_val(const char* name) const = 0;
  virtual int findFirst(const char* field, const char* value, int n) = 0;
  virtual void sortPrepare(int direction, int flag) = 0;
  virtual int match_record(int row) const = 0;
  virtual int baseIndex(int row) = 0;
  virtual int get_valid() const = 0;
};
