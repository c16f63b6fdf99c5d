// Internal: the implementation behind Timer.
#ifndef ZELSOCKET_SRC_LOOP_TIMER_IMPL_H
#define ZELSOCKET_SRC_LOOP_TIMER_IMPL_H

#include <cstdint>
#include <functional>

#include "zelsocket/io_loop.h"
#include "zelsocket/sync.h"

namespace zelsocket {

class IOLoopImpl;

// Each arming is one entry (due time, id, this) in the loop's timer heap, which
// its 50 ms poll serves beside the delayed calls; only the entry whose id is
// still current fires, the others die as stale when they come due.  Arming
// allocates nothing and counts no reference: the function stays in m_fn, the
// entry is three words, and the Timer's own reference passes to the loop when
// the Timer goes while entries remain (m_orphan), so the last entry frees it.
// The state is guarded by the loop's timer lock, so a timer may be armed,
// cancelled and destroyed on any thread, and an arming takes that one lock.
class TimerImpl : public RefCount {
 public:
  explicit TimerImpl(IOLoop* loop);

  int SetTimeout(int delayMs, int intervalMs, std::function<void()>&& fn);
  bool IsRunning() const;
  void Cancel();
  // For the Timer's destructor: Cancel, then let go of the Timer's reference,
  // or hand it to the loop while entries remain.
  void Dispose();

 private:
  friend class IOLoopImpl;

  // Under the timer lock, when arming `id` comes due and its entry has left the
  // heap: takes the function if that arming is still current, re-arming a
  // repeating timer first (so the function's running time does not stretch the
  // period, and the function may cancel or replace the next firing).  Returns
  // m_id as it was.  `dead` says that the loop now owns the last reference and
  // must release it after the firing.
  std::uint32_t _TakeDueLocked(std::uint32_t id, std::function<void()>& fire, bool& rearmFailed, bool& dead);
  // Outside the lock, on the loop thread: runs what _TakeDueLocked took.  Static:
  // the timer may be gone by then (destroyed by its own function, or on another thread).
  static void _OnDue(std::uint32_t id, std::uint32_t current, std::function<void()> fire, bool rearmFailed);
  // Under the timer lock, for an entry that leaves the heap unfired (a stop):
  // true when the loop then owns the last reference.
  bool _DropEntryLocked() { return --m_entries == 0 && m_orphan; }

  // Under the timer lock: a fresh id, never 0.
  std::uint32_t _NextIdLocked();

  IOLoop* m_loop;
  IOLoopImpl* m_impl;         // m_loop's; null without a loop
  std::uint32_t m_id = 0;     // current arming; 0 when none
  std::uint32_t m_lastId = 0;
  int m_interval = 0;         // of the current arming
  // Entries in the loop's heap.  Only the loop thread removes them, so a count
  // above 0 keeps this alive for it without a reference of its own.
  std::uint32_t m_entries = 0;
  bool m_orphan = false;  // the Timer is gone; the last entry releases
  std::function<void()> m_fn;
};

}  // namespace zelsocket

#endif  // ZELSOCKET_SRC_LOOP_TIMER_IMPL_H
