// The shared library is zyldb_core linked whole; this file gives the target a
// source of its own.
