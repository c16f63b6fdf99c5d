// Public header: one-shot and repeating timers on a loop.
#ifndef ZELSOCKET_TIMER_H
#define ZELSOCKET_TIMER_H

#include <functional>

#include "zelsocket/export.h"

namespace zelsocket {

class IOLoop;
class TimerImpl;

// A timer fires on the loop's 50 ms poll after its due time, the poll that
// serves IOLoop::DelayCall; a repeating timer's next due time counts from the
// firing, so it drifts.  The delay never counts from before the call: an
// arming made on the loop thread counts it from the end of the callbacks that
// the loop is running then (one clock read serves them all).  Arming allocates
// nothing.  The function runs on the loop thread.  SetTimeout on an armed timer
// replaces it.  The timer may be used and destroyed on any thread.
class ZELSOCKET_API Timer {
 public:
  explicit Timer(IOLoop* loop = nullptr);  // null: IOLoop::GetLoop()
  ~Timer();                                // Cancel, then let go
  Timer(const Timer&) = delete;
  Timer& operator=(const Timer&) = delete;

  // First firing after `delayMs`, then every `intervalMs` (0 or less: once).
  // 0, or -1 for an empty function, no loop, or a loop that refused.
  int SetTimeout(int delayMs, int intervalMs, std::function<void()> fn);
  // Armed and not yet fired (inside a one-shot's function: false).
  bool IsRunning() const;
  void Cancel();

 private:
  TimerImpl* _impl;
};

}  // namespace zelsocket

#endif  // ZELSOCKET_TIMER_H
