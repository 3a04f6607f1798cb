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
    // The file is not a regular file (a FIFO, a device, a directory), which
    // a load could block on; nothing was read. detail: 0.
    notRegularFile = 4,
    // A save was refused because the file would not load back as the table
    // is (the reason is logged with LogBoth); no file was written. detail:
    // the SaveProblem.
    saveRefused = 5,
  };

  // dberror::detail for the codes above that refine it.
  enum Detail : int32_t {
    typeNone = 3,   // with fieldType
    typesLine = 3,  // with columnHeader: the types line
    namesLine = 4,  // with columnHeader: the names line
  };

  // dberror::detail with saveRefused.
  enum SaveProblem : int32_t {
    csvName = 1,       // the name ends in ".csv" and the table is not plain CSV
    noColumns = 2,     // rows without columns have no line form
    longValue = 3,     // a value longer than 4095 bytes
    badParameter = 4,  // a parameter that would read back changed
    badColumn = 5,     // a column name or type that would read back changed
  };
};
