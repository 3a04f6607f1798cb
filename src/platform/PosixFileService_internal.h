#pragma once

// The POSIX file service that OS() starts with. Every operating-system call
// of the file layer is in PosixFileService.cpp.

#include <zyldb/platform/OS.h>

namespace zyl::detail {

// The process's POSIX file service (never null, never destroyed).
FileService& posixFileService() noexcept;

// The process id, for names of temporary files.
long processId() noexcept;

}  // namespace zyl::detail
