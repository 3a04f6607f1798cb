#pragma once

// Names for the codes a table keeps in its last-error record (dberror, read
// with zyldb::read_error_info). The numbers are part of the interface: hosts
// and files of earlier versions compare them as numbers.

#include <cstdint>

struct DBLoadError {
  // dberror::code.
  enum Code : int32_t {
    none = 0,
    // A record line whose field count differs from the column count; loading
    // stopped there. detail: the rows added by that read before the line.
    rowFieldCount = 1,
    // A column type of 0 (or a type keyword that names no type) was stored
    // as text; loading went on. detail: Detail::typeNone.
    fieldType = 2,
    // The column header's lines disagree on the column count; the table is
    // invalid. detail: Detail::typesLine or Detail::namesLine.
    columnHeader = 3,
  };

  // dberror::detail for the codes above that refine it.
  enum Detail : int32_t {
    typeNone = 3,   // with fieldType
    typesLine = 3,  // with columnHeader: the types line
    namesLine = 4,  // with columnHeader: the names line
  };
};
