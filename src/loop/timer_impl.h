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
// allocates nothing: the function stays in m_fn, and the entry is three words.
// All fields but m_loop and m_impl are guarded by the timer lock.
// The state is guarded by the loop's timer lock, so a timer may be armed,
// cancelled and destroyed on any thread, and an arming takes that one lock.
class TimerImpl : public RefCount {
 public:
  explicit TimerImpl(IOLoop* loop);

  int SetTimeout(int delayMs, int intervalMs, std::function<void()> fn);
  bool IsRunning() const;
  void Cancel();

 private:
  friend class IOLoopImpl;

  // Under the timer lock, when arming `id` comes due: takes the function if
  // that arming is still current, re-arming a repeating timer first (so the
  // function's running time does not stretch the period, and the function may
  // cancel or replace the next firing).  Returns m_id as it was.
  std::uint32_t _TakeDueLocked(std::uint32_t id, std::function<void()>& fire, bool& rearmFailed);
  // Outside the lock, on the loop thread: runs what _TakeDueLocked took.
  void _OnDue(std::uint32_t id, std::uint32_t current, std::function<void()> fire, bool rearmFailed);

  // Under the timer lock: a fresh id, never 0.
  std::uint32_t _NextIdLocked();

  IOLoop* m_loop;
  IOLoopImpl* m_impl;         // m_loop's; null without a loop
  std::uint32_t m_id = 0;     // current arming; 0 when none
  std::uint32_t m_lastId = 0;
  int m_interval = 0;         // of the current arming
  // Entries in the loop's heap; while there are any, the loop holds one
  // reference for all of them, so that arming costs no atomic operation of its own.
  std::uint32_t m_entries = 0;
  std::function<void()> m_fn;
};

}  // namespace zelsocket

#endif  // ZELSOCKET_SRC_LOOP_TIMER_IMPL_H
