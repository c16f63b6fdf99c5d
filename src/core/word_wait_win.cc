// Parking on a 32-bit word: WaitOnAddress (Windows 8 and later, Synchronization.lib).
#ifdef _WIN32

#if !defined(_WIN32_WINNT) || _WIN32_WINNT < 0x0602
#undef _WIN32_WINNT
#define _WIN32_WINNT 0x0602  // WaitOnAddress
#endif
#include <windows.h>
#include <synchapi.h>

#include "core/parking_lock.h"

namespace zelsocket {
namespace platform {

static_assert(sizeof(std::atomic<std::uint32_t>) == sizeof(std::uint32_t), "wait word");

void WaitOnWord(std::atomic<std::uint32_t>* word, std::uint32_t expected) {
  WaitOnAddress(reinterpret_cast<volatile VOID*>(word), &expected, sizeof(expected), INFINITE);
}

void WakeOneWaiter(std::atomic<std::uint32_t>* word) { WakeByAddressSingle(reinterpret_cast<PVOID>(word)); }

}  // namespace platform
}  // namespace zelsocket

#endif  // _WIN32
