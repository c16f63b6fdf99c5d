#include "core/parking_lock.h"

#if defined(__x86_64__) || defined(__i386__) || defined(_M_X64) || defined(_M_IX86)
#include <immintrin.h>
#define ZS_CPU_RELAX() _mm_pause()
#else
#define ZS_CPU_RELAX() ((void)0)
#endif

namespace zelsocket {

namespace {
// About a microsecond of pauses: far longer than any section under this lock
// takes when its holder runs, far shorter than a time slice.
constexpr int kSpinReads = 100;
}  // namespace

void ParkingLock::_LockContended() {
  for (int i = 0; i < kSpinReads; ++i) {
    ZS_CPU_RELAX();
    std::uint32_t state = m_state.load(std::memory_order_relaxed);
    if (state == kFree &&
        m_state.compare_exchange_weak(state, kHeld, std::memory_order_acquire, std::memory_order_relaxed)) {
      return;
    }
    if (state == kParked) break;  // others are parked already: join them
  }
  // Whoever takes the lock from here on marks it parked, so that its unlock
  // wakes the next waiter; a spurious wake costs one system call.
  while (m_state.exchange(kParked, std::memory_order_acquire) != kFree) platform::WaitOnWord(&m_state, kParked);
}

void ParkingLock::_WakeOne() { platform::WakeOneWaiter(&m_state); }

}  // namespace zelsocket
