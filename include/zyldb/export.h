#pragma once

// ZYLDB_EXPORT marks the classes and functions that the shared library
// exports; everything else is built with hidden visibility.
#if defined(ZYLDB_BUILDING)
#define ZYLDB_EXPORT __attribute__((visibility("default")))
#else
#define ZYLDB_EXPORT __attribute__((visibility("default")))
#endif
