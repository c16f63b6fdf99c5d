#include "loop/timer_impl.h"

#include "core/check.h"
#include "core/logging.h"
#include "zelsocket/timer.h"

namespace zelsocket {

TimerImpl::TimerImpl(IOLoop* loop) : m_loop(loop ? loop : IOLoop::GetLoop()) {}

int TimerImpl::SetTimeout(int delayMs, int intervalMs, std::function<void()> fn) {
  if (!fn) return -1;
  if (!m_loop) {
    LogInfo(tag::kTimer, "TimerImpl::SetTimeout, m_loop is null.");
    return -1;
  }
  return _Arm(delayMs, intervalMs, std::move(fn));
}

int TimerImpl::_Arm(int delayMs, int intervalMs, std::function<void()> fn) {
  std::uint32_t id;
  {
    AutoMutexLock lock(m_mutex);
    id = m_id = m_cookies.GetCookie();
    m_fn.swap(fn);  // the replaced function dies below, outside the lock
  }
  RefPtr<RefCount> anchor(this);
  int rc = m_loop->DelayCall(delayMs, [this, id, intervalMs, anchor] { _OnTimeout(id, intervalMs, anchor); });
  if (rc != 0) LogInfo(tag::kTimer, "SetTimeout, DelayCallSafe fail, ret=%d.", rc);
  return rc;
}

void TimerImpl::_OnTimeout(std::uint32_t id, int interval, RefPtr<RefCount> anchor) {
  ZS_DCHECK(m_loop->IsLoopThread());
  std::function<void()> local;
  std::uint32_t current;
  {
    AutoMutexLock lock(m_mutex);
    current = m_id;
    if (id == m_id && m_fn) local.swap(m_fn);
  }
  if (!local) {
    LogDebug(tag::kTimer, "_OnTimeout, Canceled, id-old=%d, id-new=%d", static_cast<int>(id),
             static_cast<int>(current));
    return;
  }
  // Re-armed before the function runs, so its running time does not stretch
  // the period, and the function may cancel or replace the next firing.
  if (interval > 0) _Arm(interval, interval, local);
  local();
}

bool TimerImpl::IsRunning() const {
  AutoMutexLock lock(m_mutex);
  return m_id != 0 && static_cast<bool>(m_fn);
}

void TimerImpl::Cancel() {
  std::function<void()> old;
  {
    AutoMutexLock lock(m_mutex);
    m_id = 0;
    old.swap(m_fn);
  }
}

Timer::Timer(IOLoop* loop) : _impl(new TimerImpl(loop)) {}

Timer::~Timer() {
  _impl->Cancel();
  _impl->Release();
}

int Timer::SetTimeout(int delayMs, int intervalMs, std::function<void()> fn) {
  return _impl->SetTimeout(delayMs, intervalMs, std::move(fn));
}

bool Timer::IsRunning() const { return _impl->IsRunning(); }

void Timer::Cancel() { _impl->Cancel(); }

}  // namespace zelsocket
