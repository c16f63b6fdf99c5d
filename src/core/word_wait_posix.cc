// Parking on a 32-bit word: Linux futexes, else a short sleep.
#ifndef _WIN32

#include "core/parking_lock.h"

#ifdef __linux__
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>
#else
#include <chrono>
#include <thread>
#endif

namespace zelsocket {
namespace platform {

#ifdef __linux__
// std::atomic<uint32_t> is a plain 32-bit word on every ABI we build for.
static_assert(sizeof(std::atomic<std::uint32_t>) == sizeof(std::uint32_t), "futex word");

void WaitOnWord(std::atomic<std::uint32_t>* word, std::uint32_t expected) {
  syscall(SYS_futex, reinterpret_cast<std::uint32_t*>(word), FUTEX_WAIT_PRIVATE, expected, nullptr, nullptr, 0);
}

void WakeOneWaiter(std::atomic<std::uint32_t>* word) {
  syscall(SYS_futex, reinterpret_cast<std::uint32_t*>(word), FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
}
#else
// Other POSIX systems: no portable wait on an address; sleeping still lets a
// preempted holder run.
void WaitOnWord(std::atomic<std::uint32_t>* word, std::uint32_t expected) {
  if (word->load(std::memory_order_relaxed) == expected) std::this_thread::sleep_for(std::chrono::microseconds(50));
}
void WakeOneWaiter(std::atomic<std::uint32_t>*) {}
#endif

}  // namespace platform
}  // namespace zelsocket

#endif  // !_WIN32
