#include <zyldb/zyldbDllVersion.h>

#include <zyldb/version.h>

const char* zyldbDllVersionStr() { return ZYLDB_VERSION_STRING; }
