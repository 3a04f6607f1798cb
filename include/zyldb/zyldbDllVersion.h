#pragma once

// The version of the zyldb library that a host is running against.
// Safe to call from any thread.

#include <zyldb/export.h>

// The library's version as dotted text of four decimal parts, for example
// "0.1.0.0". The text is static: never null, never to be freed, valid for
// the life of the process.
ZYLDB_EXPORT const char* zyldbDllVersionStr();
