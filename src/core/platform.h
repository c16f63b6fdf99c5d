// Internal: the few services the library takes from the operating system.  This
// file and platform.cc are the only places that know which platform they are on.
#ifndef ZELSOCKET_SRC_CORE_PLATFORM_H
#define ZELSOCKET_SRC_CORE_PLATFORM_H

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <ctime>

namespace zelsocket {
namespace platform {

// Milliseconds on a monotonic clock that does not wrap.  Schedules, delays and
// the log's delay fields use it.
std::uint64_t TickMs();
// Microseconds on the same kind of clock, for what a whole millisecond would
// blur: a channel's round-trip samples and due times on a fast link.
std::uint64_t TickUs();

// Wall clock in whole seconds since the epoch (cache ages, log time stamps).
std::int64_t WallClockSeconds();
// Local time of `seconds`; false when the platform cannot convert it.
bool LocalTime(std::int64_t seconds, std::tm* out);

// Adds with full ordering; returns the value after the addition.
int AtomicAddFull(volatile int* value, int delta);

// One thread-local slot, shared by all loops: each loop thread stores its IOLoop.
void SetThreadSlot(void* value);
void* GetThreadSlot();

// A write to a TCP connection that the peer has closed raises SIGPIPE on POSIX,
// whose default action ends the process.  Every write to a socket happens on a
// loop thread, so blocking the signal in that thread's own mask is enough: the
// write fails with EPIPE, which is reported as an error, and the process-wide
// disposition stays the application's.  Call it on the loop thread itself.
// Nothing to do on Windows, which has no such signal.
void BlockBrokenPipeOnThisThread();

// vsnprintf with one difference: %S (and %ls) take a wide string and print it as
// UTF-8, whatever the locale.  Returns what vsnprintf returns.
int FormatV(char* buffer, std::size_t size, const char* format, va_list args);

}  // namespace platform
}  // namespace zelsocket

#endif  // ZELSOCKET_SRC_CORE_PLATFORM_H
