// Public header: one-shot and repeating timers on a loop.
#ifndef ZELSOCKET_TIMER_H
#define ZELSOCKET_TIMER_H

#include <functional>

#include "zelsocket/export.h"

namespace zelsocket {

class IOLoop;
class TimerImpl;

// A timer fires once its delay has passed, within about a millisecond when the
// loop is not busy, as IOLoop::DelayCall does; a repeating timer's next due
// time counts from the firing, so it drifts.  The delay never counts from
// before the call: an arming made on the loop thread counts it from the end of
// the callbacks that the loop is running then (one clock read serves them
// all).  Arming on the loop thread allocates nothing; from another thread it
// allocates one small record.  The function runs on the loop thread, and is
// never copied by the library.  SetTimeout on an armed timer replaces it.  The
// timer may be used and destroyed on any thread.
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
