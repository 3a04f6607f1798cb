#pragma once

// dbrecord: one row of a table, an ordered list of text values (one per
// column) with a back pointer to the owning table and two one-byte flags,
// "changed" and "tag".
//
// Every value is held as text whatever its column's type; numbers and
// booleans are formatted when stored. A null value and an empty value are the
// same to every reader. A record has at most 65535 fields; accessors reject an
// index at or beyond the current count without failing hard.
//
// A record with a container reports each edit to it (the table's changed
// flag); read() also stamps the table's last-change time. The changed flag is
// raised by edits and by read() and cleared only by write(). The tag flag
// belongs to the table's tagging operations: the record never changes it and
// copying or assigning a record does not carry it over.
//
// The line form used by write() and read() is described in
// docs/FILE_FORMAT.md.
//
// Thread safety: none of its own; a record is used by one thread at a time.
// Memory exhaustion raises Qm::Exception::BadAlloc; the record is then left
// valid (possibly with fewer values read).

#include <zyldb/export.h>
#include <zyldb/platform/LightweightString.h>

#include <cstdint>

class zyldb;
class configb;
class TextFile;

class ZYLDB_EXPORT dbrecord {
 public:
  // n empty fields, no container, both flags 0.
  explicit dbrecord(unsigned short n = 0);
  // Shares the values of `other`; the copy has no container and both flags 0.
  dbrecord(const dbrecord& other);
  // Makes the field count equal to other's, then stores each value with
  // set_field(i, value, true): leading white space is dropped, the changed
  // flags are raised, the container and tag of *this are kept.
  dbrecord& operator=(const dbrecord& other);
  ~dbrecord();

  // `table` is not owned; null makes the record free-standing.
  void set_container(zyldb* table) { container_ = table; }
  zyldb* get_container() const { return container_; }

  unsigned int get_num_fields() const { return count_; }
  unsigned int size() const { return count_; }

  // The value's characters ("" for an empty value), or null for an index out
  // of range. Valid until the value is next changed.
  const char* get_field(unsigned short i) const;
  // The value; for an index out of range, a shared static empty string.
  const LightweightString<char>& getField(unsigned short i) const;
  // Copies at most `len` bytes of value i into dst and writes a 0 at
  // dst[len] (an empty value gives dst[0] = 0). Returns 1, or 0 for an index
  // out of range (dst untouched). REQUIRES: dst holds len + 1 bytes.
  int in_field(int i, char* dst, int len) const;
  // 1 when there are no fields or every value is empty, else 0.
  int is_blank() const;

  // Stores `v` (shared) unless it equals the current value; raises the
  // changed flags only when it stored. Returns 1, or 0 for a bad index.
  int setField(unsigned short i, const LightweightString<char>& v);
  // Stores a copy of `s` (null counts as ""), without its leading white space
  // when `trimLeading` (bytes >= 0x80 are never white space). Always raises
  // the changed flags. Returns 1, or 0 for a negative or too large index.
  int set_field(int i, const char* s, bool trimLeading = true);
  // "%d", "%u", "%.8lf" and "t"/"f" forms, stored through set_field(i, text,
  // true). Results as above.
  int set_field(int i, int v);
  int set_field(int i, unsigned int v);
  int set_field(int i, double v);
  int set_field(int i, bool v);

  // Removes value i; later values move down. Out of range: no effect. The
  // flags are not touched.
  void removeField(unsigned short i);
  // Appends empty values or drops trailing ones until there are n. No effect
  // when n < 0 (or n > 65535) or `widths` is null; widths are not otherwise
  // used. The flags are not touched.
  void resizeRecord(int n, int* widths, bool unused);
  // Values have no fixed width: no effect.
  void resizeField(int field, int width);
  // Makes every value empty, keeping the count. The flags are not touched.
  void clear();

  // Publishes the record's name and some of its columns to `cfg` (keys
  // "slate/take", "name", "notes", "who", "scene", "description", "shot",
  // and, unless the library setting dbv_reel_field_editable is 0, "reelid",
  // "reelid1", "24P_reel", "camreel", "comp_reel", "lab_reel"). Returns the
  // number of mapped columns written; 0 when the record has no container or
  // its table has no column "name". REQUIRES: cfg != nullptr.
  int update(configb* cfg);

  // Appends the record's line (every value quoted; see docs/FILE_FORMAT.md)
  // to f and clears the changed flag. Returns 1.
  int write(TextFile& f) const;
  // True when read() gives back exactly what write() writes: at least one
  // field and no value longer than 4095 bytes.
  bool fitsLineForm() const;
  // Replaces the values with the fields of line f.currentLine and advances
  // currentLine. Returns the number of field starts on the line (the number
  // of fields for any line write() produced), or 0 for an essentially empty
  // line or one past the end (then the flags are not touched). On success
  // raises the changed flags and stamps the container's last-change time.
  int read(TextFile& f);

  bool isChanged() const { return changed_ != 0; }
  void setChanged() { changed_ = 1; }
  void clearChanged() { changed_ = 0; }
  uint8_t getTag() const { return tag_; }
  void setTag(uint8_t tag) { tag_ = tag; }

 private:
  void markEdited();
  // Makes room for n values (n <= 65535); existing values are kept.
  void reserve(unsigned int n);
  // Changes the count to n, appending empty values or dropping trailing ones.
  void setCount(unsigned int n);
  // Appends a value, growing the array as needed.
  void append(LightweightString<char>&& v);

  zyldb* container_ = nullptr;
  LightweightString<char>* fields_ = nullptr;  // capacity_ slots, count_ used
  uint16_t count_ = 0;
  uint16_t capacity_ = 0;
  mutable uint8_t changed_ = 0;
  uint8_t tag_ = 0;
};
