#include <zyldb/platform/configb.h>

#include "db/LibrarySettings_internal.h"

namespace zyl {

LibrarySettings& librarySettings() {
  // A function-local static is initialised on first use, so the settings are
  // valid even when another library object's initialiser asks first.
  static LibrarySettings settings = [] {
    LibrarySettings s;
    s.dbvReelFieldEditable = config_int("dbv_reel_field_editable", 1);
    s.removeFieldnameAmpersands = config_int("remove_fieldname_ampersands", 1);
    return s;
  }();
  return settings;
}

namespace {
// Reads the configuration while the library is loaded rather than at the
// first use, so that later changes to the environment have no effect.
[[maybe_unused]] const LibrarySettings& kReadAtLoad = librarySettings();
}  // namespace

}  // namespace zyl
