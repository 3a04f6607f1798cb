#pragma once

// Container files: database files that list media items by Cookie, with
// per-item attributes, a display name and a permanence flag.
//
// A container file is an ordinary database text file following three
// conventions (see docs/CONTAINER_FORMAT.md):
//  * one record per item, its column "Cookie" holding the item's cookie text;
//    any other column is a per-item attribute, addressed by column index;
//  * container attributes are header parameters; two keys are fixed,
//    "Name" (UTF-8 display name) and "Permanent" (boolean text);
//  * the container's own identifier is its file name without directory and
//    extension, read as a cookie.
//
// Reader and Writer are tables (they derive from zyldb) and share its thread
// rules: one thread at a time per object, no locks of their own.

#include <zyldb/db/dbrecord.h>
#include <zyldb/db/zyldb.h>
#include <zyldb/export.h>
#include <zyldb/platform/Cookie.h>
#include <zyldb/platform/LightweightString.h>

#include <string>

class ZYLDB_EXPORT QMContainerFile {
 public:
  // "Name": the parameter that holds the container's display name.
  static const char* getNameParamKey();
  // "Permanent": the parameter that holds the container's permanence flag.
  static const char* getPermanentParamKey();

  // The cookie named by the file name of `path` (directory and extension
  // removed). When the whole path ends in "sg", ignoring case, the cookie is
  // converted to type 'M' (a bin); when it ends in "rak", to type 'B' (a
  // rack). A name that is not cookie text gives the invalid cookie.
  static Cookie getCookieFromFilename(const LightweightString<wchar_t>& path);

  class Reader;
  class Writer;
};

// A container file loaded into a table.
class ZYLDB_EXPORT QMContainerFile::Reader : public zyldb {
 public:
  // One item: the reader's record (not owned; valid while the reader holds
  // the row) and the cookie read from its "Cookie" field. An empty item has a
  // null record and the invalid cookie.
  class ZYLDB_EXPORT Item {
   public:
    Item() = default;
    Item(dbrecord* record, const Cookie& cookie) : record_(record), cookie_(cookie) {}

    dbrecord* getRecord() const { return record_; }
    const Cookie& getCookie() const { return cookie_; }

    // The text of attribute column `col` (cut to 16 bits); "" when the record
    // has no such column or the item is empty.
    LightweightString<char> getAttrib(unsigned int col) const;
    // The column's text read with strtol (base 10) or strtod; an empty text
    // reads as 0. `def` when the record has no such column or the item is
    // empty.
    int getAttrib(unsigned int col, int def) const;
    double getAttrib(unsigned int col, double def) const;

   private:
    dbrecord* record_ = nullptr;
    Cookie cookie_;
  };

  // Loads the file at `path`: only its header (parameters and columns) when
  // `headerOnly`, else every record. A file that cannot be loaded gives a
  // reader that is not valid(). The container cookie comes from the file
  // name, without the type conversions of getCookieFromFilename.
  Reader(LightweightString<wchar_t> path, bool headerOnly);
  ~Reader() override;

  // True when the file loaded and has a column "Cookie".
  bool valid() const;
  const Cookie& getCookie() const { return cookie_; }

  // The table's record count (tagged records only while the table shows
  // tagged records only).
  unsigned int getNumItems() const;
  // Item i; an empty item when !valid() or i >= getNumItems().
  Item getItem(unsigned int i) const;
  // The cookies of every item, in item order.
  CookieSet getContents() const;
  // True when some item's "Cookie" field holds `c` (blanks and upper-case
  // hex digits accepted). Does not require valid().
  bool contains(const Cookie& c) const;
  // The column index of attribute `name` (ignoring case); -1 when absent or
  // when !valid().
  int getItemAttribIndex(const char* name) const;

  // The container attribute (header parameter) `key`; "" when absent or when
  // !valid().
  LightweightString<char> getAttrib(LightweightString<char> key) const;
  // The attribute read with strtol (base 10) / strtod, 0 when it does not
  // start with a number; `def` when the attribute is empty or absent.
  int getAttrib(LightweightString<char> key, int def) const;
  double getAttrib(LightweightString<char> key, double def) const;

  LightweightString<char> getName() const;
  LightweightString<wchar_t> getNameW() const;
  // The "Permanent" attribute as a boolean; false when absent or not a
  // boolean text.
  bool isPermanent() const;

 private:
  int cookieColumn() const;

  Cookie cookie_;
};

// Builds a container file in memory and writes it.
class ZYLDB_EXPORT QMContainerFile::Writer : public zyldb {
 public:
  // A table of the columns `descs` (ended by an entry of type 0), which must
  // include one named "Cookie" to hold the items' cookies; the other columns
  // are per-item attributes. REQUIRES: descs != nullptr.
  explicit Writer(DBFieldDesc* descs);
  ~Writer() override;

  // Appends one record holding `c` in its "Cookie" column and returns it
  // (owned by the writer); set the item's attributes on it by column index.
  // Returns null, adding nothing, for the invalid cookie (type 'I').
  // Items keep the order of adding; duplicates are kept.
  dbrecord* addItem(const Cookie& c);

  // Sets the header parameter `key` to `value` (see zyldb::add_param).
  void setAttrib(LightweightString<char> key, LightweightString<char> value);
  void setName(LightweightString<char> name);
  void setPermanent(bool permanent);

  // Writes the container to `path`. A new file is written directly; an
  // existing one is replaced in one step by writing path + ".tmp" and
  // renaming it over the old file, so the old file stays intact when the
  // write fails and no ".tmp" file is left behind. Nothing is reported; the
  // table's file name is afterwards the path written (the ".tmp" name when an
  // existing file was replaced).
  void save(const LightweightString<wchar_t>& path);
  // As save(), and says whether the container was written: false when the
  // file could not be written or could not replace the old one (the old
  // file is then unchanged and the ".tmp" file removed); saveError() then
  // describes the failure.
  bool trySave(const LightweightString<wchar_t>& path);
  // The file service's description of the last trySave()/save() failure;
  // empty after a success.
  const std::string& saveError() const { return saveError_; }

 private:
  int cookieField_ = -1;
  std::string saveError_;
};
