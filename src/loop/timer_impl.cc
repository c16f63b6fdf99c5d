#include "loop/timer_impl.h"

#include "core/check.h"
#include "core/logging.h"
#include "loop/io_loop_impl.h"
#include "zelsocket/timer.h"

namespace zelsocket {

TimerImpl::TimerImpl(IOLoop* loop)
    : m_loop(loop ? loop : IOLoop::GetLoop()), m_impl(m_loop ? IOLoopImpl::Of(m_loop) : nullptr) {}

int TimerImpl::SetTimeout(int delayMs, int intervalMs, std::function<void()>&& fn) {
  if (!fn) return -1;
  if (!m_loop) {
    LogInfo(tag::kTimer, "TimerImpl::SetTimeout, m_loop is null.");
    return -1;
  }
  m_impl->LockTimers();
  m_id = _NextIdLocked();
  m_interval = intervalMs;
  m_fn.swap(fn);  // the replaced function dies in the caller, outside the lock
  bool queued = m_impl->PushTimerLocked(delayMs, m_id, this);
  m_impl->UnlockTimers();
  if (!queued) {
    LogInfo(tag::kTimer, "SetTimeout, DelayCallSafe fail, ret=%d.", -1);
    return -1;
  }
  return 0;
}

std::uint32_t TimerImpl::_NextIdLocked() {
  if (++m_lastId == 0) ++m_lastId;
  return m_lastId;
}

std::uint32_t TimerImpl::_TakeDueLocked(std::uint32_t id, std::function<void()>& fire, bool& rearmFailed,
                                        bool& dead) {
  std::uint32_t current = m_id;
  rearmFailed = false;
  if (id == m_id && m_fn) {
    if (m_interval > 0) {
      fire = m_fn;
      m_id = _NextIdLocked();
      // A refused re-arming leaves the timer looking armed, as a refused
      // SetTimeout does; the repetition ends there.
      rearmFailed = !m_impl->PushTimerLocked(m_interval, m_id, this);
    } else {
      fire.swap(m_fn);
    }
  }
  dead = _DropEntryLocked();
  return current;
}

void TimerImpl::_OnDue(std::uint32_t id, std::uint32_t current, std::function<void()> fire, bool rearmFailed) {
  if (!fire) {
    LogDebug(tag::kTimer, "_OnTimeout, Canceled, id-old=%d, id-new=%d", static_cast<int>(id),
             static_cast<int>(current));
    return;
  }
  if (rearmFailed) LogInfo(tag::kTimer, "SetTimeout, DelayCallSafe fail, ret=%d.", -1);
  fire();
}

bool TimerImpl::IsRunning() const {
  if (!m_impl) return false;
  m_impl->LockTimers();
  bool running = m_id != 0 && static_cast<bool>(m_fn);
  m_impl->UnlockTimers();
  return running;
}

void TimerImpl::Cancel() {
  if (!m_impl) return;
  std::function<void()> old;
  m_impl->LockTimers();
  m_id = 0;
  old.swap(m_fn);
  m_impl->UnlockTimers();
}

Timer::Timer(IOLoop* loop) : _impl(new TimerImpl(loop)) {}

void TimerImpl::Dispose() {
  if (m_impl) {
    std::function<void()> old;
    m_impl->LockTimers();
    m_id = 0;
    old.swap(m_fn);
    m_orphan = m_entries != 0;
    const bool handedOver = m_orphan;
    m_impl->UnlockTimers();
    if (handedOver) return;  // `old` dies here; the loop's last entry releases
  }
  Release();
}

Timer::~Timer() { _impl->Dispose(); }

int Timer::SetTimeout(int delayMs, int intervalMs, std::function<void()> fn) {
  return _impl->SetTimeout(delayMs, intervalMs, std::move(fn));  // `fn` ends holding the replaced function
}

bool Timer::IsRunning() const { return _impl->IsRunning(); }

void Timer::Cancel() { _impl->Cancel(); }

}  // namespace zelsocket
