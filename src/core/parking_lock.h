// Internal: the lock of the loop's queues and of each timer.
#ifndef ZELSOCKET_SRC_CORE_PARKING_LOCK_H
#define ZELSOCKET_SRC_CORE_PARKING_LOCK_H

#include <atomic>
#include <cstdint>

namespace zelsocket {

// A lock for sections as short as a list push or a heap step.  A waiter spins
// for about a microsecond, then parks in the kernel (a futex, WaitOnAddress)
// until the holder lets go.  Parking is what a pure spin lock lacks: a waiter
// of higher priority that spins (or yields, which gives the CPU to nobody of
// lower priority) on the CPU of a preempted holder keeps that holder from ever
// finishing its section; a parked waiter lets it run.
//
// Free costs one compare-and-swap to take and one exchange to give back, the
// price of a mutex; the exchange tells the holder whether anybody parked.
// Meets Lockable, so std::lock_guard and std::unique_lock release it on every
// path, an exception's included.
class ParkingLock {
 public:
  ParkingLock() = default;
  ParkingLock(const ParkingLock&) = delete;
  ParkingLock& operator=(const ParkingLock&) = delete;

  void lock() {
    std::uint32_t free = kFree;
    if (m_state.compare_exchange_strong(free, kHeld, std::memory_order_acquire, std::memory_order_relaxed)) return;
    _LockContended();
  }
  bool try_lock() {
    std::uint32_t free = kFree;
    return m_state.compare_exchange_strong(free, kHeld, std::memory_order_acquire, std::memory_order_relaxed);
  }
  void unlock() {
    if (m_state.exchange(kFree, std::memory_order_release) == kParked) _WakeOne();
  }

 private:
  static constexpr std::uint32_t kFree = 0;
  static constexpr std::uint32_t kHeld = 1;
  static constexpr std::uint32_t kParked = 2;  // held, and a waiter may be parked

  void _LockContended();
  void _WakeOne();

  std::atomic<std::uint32_t> m_state{kFree};
};

namespace platform {
// Blocks while *word == expected (returns at once if it is not; may return
// spuriously).  WakeOneWaiter wakes one thread blocked on the word.
void WaitOnWord(std::atomic<std::uint32_t>* word, std::uint32_t expected);
void WakeOneWaiter(std::atomic<std::uint32_t>* word);
}  // namespace platform

}  // namespace zelsocket

#endif  // ZELSOCKET_SRC_CORE_PARKING_LOCK_H
