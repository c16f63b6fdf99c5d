// Internal: a lock for sections as short as a heap push or pop.
#ifndef ZELSOCKET_SRC_CORE_SPIN_LOCK_H
#define ZELSOCKET_SRC_CORE_SPIN_LOCK_H

#include <atomic>
#include <thread>

namespace zelsocket {

// Taking and giving back cost one atomic exchange and a plain store, where a
// mutex costs two atomic read-modify-writes; on x86 each of those is a full
// barrier, which also keeps the cache misses of consecutive callers from
// overlapping.  A waiter only reads until the lock looks free, and yields once
// it has read for long enough that the holder may have been preempted: with
// more threads than cores, spinning on would keep the holder from running.
// Only for sections that neither block nor run application code.
class SpinLock {
 public:
  SpinLock() = default;
  SpinLock(const SpinLock&) = delete;
  SpinLock& operator=(const SpinLock&) = delete;

  void Lock() {
    while (m_held.exchange(true, std::memory_order_acquire)) {
      for (int reads = 0; m_held.load(std::memory_order_relaxed); ++reads) {
        if (reads == kReadsBeforeYield) {
          std::this_thread::yield();
          reads = 0;
        }
      }
    }
  }
  void Unlock() { m_held.store(false, std::memory_order_release); }

 private:
  static constexpr int kReadsBeforeYield = 64;
  std::atomic<bool> m_held{false};
};

}  // namespace zelsocket

#endif  // ZELSOCKET_SRC_CORE_SPIN_LOCK_H
