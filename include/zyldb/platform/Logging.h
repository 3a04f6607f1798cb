#pragma once

// Logging and the fatal-error function.
//
// vorn_printf and LogBoth format one message (warnings are single lines that
// end in a line feed) and hand it to the log sink. The default sink writes to
// stderr; a host installs its own with zyl::setLogSink and receives every
// message, exactly as formatted. LogBoth marks messages that the host should
// show to the user as well as log (its sink sees kUser).
//
// zyl_splat reports a feature that cannot work (a programming error). It calls
// the installed splat handler; the default handler logs the text and aborts.
// A handler that returns makes zyl_splat return to its caller.
//
// The sink and handler may be replaced at any time; calls on several threads
// are serialised.

#include <zyldb/export.h>

#include <functional>

ZYLDB_EXPORT void vorn_printf(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
ZYLDB_EXPORT void LogBoth(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
ZYLDB_EXPORT void zyl_splat(const char* text);

namespace zyl {

enum class LogLevel { kLog, kUser };
using LogSink = std::function<void(LogLevel level, const char* message)>;
using SplatHandler = std::function<void(const char* text)>;

// Installs `sink` (an empty one restores stderr); returns the previous sink.
ZYLDB_EXPORT LogSink setLogSink(LogSink sink);
// Installs `handler` (an empty one restores log-and-abort); returns the
// previous handler.
ZYLDB_EXPORT SplatHandler setSplatHandler(SplatHandler handler);

}  // namespace zyl
