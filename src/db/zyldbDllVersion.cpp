#include <zyldb/version.h>
#include <zyldb/zyldbDllVersion.h>

const char* zyldbDllVersionStr() { return ZYLDB_VERSION_STRING; }
