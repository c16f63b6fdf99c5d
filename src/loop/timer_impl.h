// Internal: the implementation behind Timer.
#ifndef ZELSOCKET_SRC_LOOP_TIMER_IMPL_H
#define ZELSOCKET_SRC_LOOP_TIMER_IMPL_H

#include <cstdint>
#include <functional>

#include "core/parking_lock.h"
#include "zelsocket/io_loop.h"
#include "zelsocket/sync.h"

namespace zelsocket {

class IOLoopImpl;
class TimerQueue;

// Each arming is one entry (due time, id, this) in the loop's timer queue; only
// the entry whose id is still current fires, the others die as stale when
// they come due.  An arming on the loop thread allocates nothing and counts no
// reference: the function stays in m_fn, and the Timer's own reference passes
// to the loop when the Timer goes while entries remain (m_orphan), so that the
// last entry frees it.  An arming from another thread allocates the node that
// carries it to the loop.
//
// The state has a lock of its own, so a timer may be armed, cancelled and
// destroyed on any thread.  Nothing under it copies a function or runs the
// application's code: functions are swapped in and out, and a repeating
// timer's function is lent to its firing and given back afterwards (counted as
// an entry meanwhile, which keeps this object alive).
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
  friend class TimerQueue;

  // Loop thread, when arming `id`'s entry has left the queue at `now`: fires
  // the timer if that arming is still current, re-arming a repeating timer
  // first (so that the function's running time does not stretch the period,
  // and the function may cancel or replace the next firing).  Static: the
  // timer may be gone afterwards.
  static void _OnDue(TimerImpl* timer, std::uint32_t id, std::int64_t now, TimerQueue& queue);
  // For an entry that leaves the queue unfired (a stop).
  void _DropEntry();
  // Under m_lock: one entry fewer; true when the loop then owns the last reference.
  bool _EntryGoneLocked() { return --m_entries == 0 && m_orphan; }
  // Under m_lock: a fresh id, never 0.
  std::uint32_t _NextIdLocked();

  IOLoop* m_loop;
  IOLoopImpl* m_impl;  // m_loop's; null without a loop
  mutable ParkingLock m_lock;
  // Guarded by m_lock:
  std::uint32_t m_id = 0;  // current arming; 0 when none
  std::uint32_t m_lastId = 0;
  std::uint32_t m_loanId = 0;  // the arming whose firing has the function out
  int m_interval = 0;          // of the current arming
  // Entries in the loop's queue, and a function out on loan.  Only the loop
  // thread removes them, so a count above 0 keeps this alive for it without a
  // reference of its own.
  std::uint32_t m_entries = 0;
  bool m_orphan = false;  // the Timer is gone; the last entry releases
  std::function<void()> m_fn;
};

}  // namespace zelsocket

#endif  // ZELSOCKET_SRC_LOOP_TIMER_IMPL_H
