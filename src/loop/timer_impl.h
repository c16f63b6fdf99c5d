// Internal: the implementation behind Timer.
#ifndef ZELSOCKET_SRC_LOOP_TIMER_IMPL_H
#define ZELSOCKET_SRC_LOOP_TIMER_IMPL_H

#include <cstdint>
#include <functional>

#include "zelsocket/io_loop.h"
#include "zelsocket/sync.h"

namespace zelsocket {

// Each arming is one DelayCall carrying the arming's id; only the call whose id
// is still current fires, the others die as stale when they come due.  A small
// lock makes arming and cancelling safe from any thread, so that an owner may be
// destroyed away from the loop thread.
class TimerImpl : public RefCount {
 public:
  explicit TimerImpl(IOLoop* loop);

  int SetTimeout(int delayMs, int intervalMs, std::function<void()> fn);
  bool IsRunning() const;
  void Cancel();

 private:
  int _Arm(int delayMs, int intervalMs, std::function<void()> fn);
  void _OnTimeout(std::uint32_t id, int interval, RefPtr<RefCount> anchor);

  IOLoop* m_loop;
  std::uint32_t m_id = 0;  // current arming; 0 when none
  CookieMgr m_cookies;
  std::function<void()> m_fn;
  mutable Mutex m_mutex;  // guards m_id and m_fn; never held while m_fn runs or dies
};

}  // namespace zelsocket

#endif  // ZELSOCKET_SRC_LOOP_TIMER_IMPL_H
