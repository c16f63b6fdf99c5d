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

// Microseconds on a monotonic clock that does not wrap: the due times of
// delayed calls and timers.  A fine clock on every platform (the system's tick
// count on Windows moves in steps of 10-16 ms, too coarse for timers that fire
// within a millisecond of their due time).
std::uint64_t TickUs();
// The same clock in milliseconds: schedules and the log's delay fields.
inline std::uint64_t TickMs() { return TickUs() / 1000u; }

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
