// The message types of deletions and changes, interned once per process.

#include <zyldb/platform/Notifier.h>

#include "db/NotifyTypes_internal.h"

namespace zyl {

namespace {

int internedType(const char* name) {
  return NotifyMsgTypeDictionary::instance().intern(LightweightString<char>(name));
}

}  // namespace

int recordsDeletedType() {
  static const int type = internedType("recordsDeleted");
  return type;
}

int recordsChangedType() {
  static const int type = internedType("recordsChanged");
  return type;
}

}  // namespace zyl
