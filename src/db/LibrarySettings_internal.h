#pragma once

// The library-wide settings, read once from the configuration (config_int)
// when the library is loaded. Tests may change the fields directly and must
// restore them afterwards; the library itself only reads them.

namespace zyl {

struct LibrarySettings {
  // "dbv_reel_field_editable": with 0, dbrecord::update publishes only its
  // first six mappings (the reel columns stay out).
  int dbvReelFieldEditable = 1;
  // "remove_fieldname_ampersands": non-zero strips '&' from column names as
  // they are set.
  int removeFieldnameAmpersands = 1;
};

// The one instance; the first call (made while the library is loaded) reads
// the configuration.
LibrarySettings& librarySettings();

}  // namespace zyl
