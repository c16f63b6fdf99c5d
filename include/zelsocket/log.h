// Public header: where the library's diagnostic lines go.
#ifndef ZELSOCKET_LOG_H
#define ZELSOCKET_LOG_H

#include "zelsocket/export.h"

namespace zelsocket {

// A lower number is more severe.  No other value is ever passed.
enum LOG_LEVEL {
  LOG_LEVEL_ERROR = 1,  // failures that should not happen
  LOG_LEVEL_INFO = 2,   // state changes, refused operations, failed socket operations
  LOG_LEVEL_DEBUG = 3,  // per-event detail
};

// Receives one line: a level, a component tag ("Loop", "udp", ...) and the
// message, at most 2047 characters, without a line end.  Both strings are valid
// during the call only.  It runs on whatever thread logged (application threads,
// loop threads, libuv's pool), possibly on several at once, so it must be
// thread-safe; a callback that blocks holds up that thread.
typedef void (*LogCallback)(LOG_LEVEL level, const char* tag, const char* message);

// Sends every later line to `callback`; null (the default) writes the bare
// message and a newline to standard output.  Callable at any time from any
// thread; a line being formatted meanwhile goes to the old or the new target.
ZELSOCKET_API void SetLogCallback(LogCallback callback);

}  // namespace zelsocket

#endif  // ZELSOCKET_LOG_H
