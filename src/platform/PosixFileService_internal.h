#pragma once

// The POSIX file service that OS() starts with. Every operating-system call
// of the file layer is in PosixFileService.cpp.

#include <zyldb/platform/OS.h>

#include <string>

namespace zyl::detail {

// The process's POSIX file service (never null, never destroyed).
FileService& posixFileService() noexcept;

// The process id, for names of temporary files.
long processId() noexcept;
// True while process `pid` exists (whoever owns it).
bool processRuns(long pid) noexcept;

// The registry of temporary files of saves in progress (at most 16 at once,
// over all threads), for removal from a signal handler. register returns a
// slot, or -1 when the table is full or the path too long (the save then
// goes on unregistered); release frees the slot; unlink removes every
// registered file and is async-signal-safe.
int registerPendingTemporary(const std::string& path) noexcept;
void releasePendingTemporary(int slot) noexcept;
bool isPendingTemporary(const std::string& path) noexcept;
void unlinkPendingTemporaries() noexcept;

}  // namespace zyl::detail
