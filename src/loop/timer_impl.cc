#include "loop/timer_impl.h"

#include <memory>
#include <mutex>

#include "core/check.h"
#include "core/logging.h"
#include "loop/io_loop_impl.h"
#include "loop/timer_queue.h"
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
  TimerQueue& queue = m_impl->Timers();
  const bool onLoop = m_impl->IsLoopThread();
  // Allocated before the state changes, so that a failure leaves it as it was.
  std::unique_ptr<TimerQueue::Inbound> node;
  if (onLoop) queue.ReserveLocal();
  else node.reset(new TimerQueue::Inbound());
  std::uint32_t id;
  {
    std::lock_guard<ParkingLock> guard(m_lock);
    id = m_id = _NextIdLocked();
    m_interval = intervalMs;
    m_fn.swap(fn);  // the replaced function dies in the caller, outside the lock
    ++m_entries;
  }
  const bool queued = m_impl->Refusing() ? false
                      : onLoop           ? queue.ArmLocal(delayMs, id, this)
                                         : queue.ArmRemote(node.release(), delayMs, id, this);
  if (queued) return 0;
  // Refused: the timer still looks armed (as after a refused delayed call)
  // until it is cancelled or armed again.
  bool dead;
  {
    std::lock_guard<ParkingLock> guard(m_lock);
    dead = _EntryGoneLocked();
  }
  if (dead) Release();
  LogInfo(tag::kTimer, "SetTimeout, DelayCallSafe fail, ret=%d.", -1);
  return -1;
}

std::uint32_t TimerImpl::_NextIdLocked() {
  if (++m_lastId == 0) ++m_lastId;
  return m_lastId;
}

void TimerImpl::_OnDue(TimerImpl* timer, std::uint32_t id, std::int64_t now, TimerQueue& queue) {
  std::function<void()> fire;
  std::uint32_t current, next = 0;
  bool loaned = false, rearmFailed = false, dead;
  {
    std::lock_guard<ParkingLock> guard(timer->m_lock);
    current = timer->m_id;
    if (id == timer->m_id && timer->m_fn) {
      fire.swap(timer->m_fn);
      if (timer->m_interval > 0) {
        next = timer->m_id = timer->_NextIdLocked();
        ++timer->m_entries;  // the re-arming's entry
        rearmFailed = !queue.RearmFromFiring(now + static_cast<std::int64_t>(timer->m_interval) * 1000, next, timer);
        if (rearmFailed) --timer->m_entries;
        // Lent to this firing: a refused re-arming leaves the timer looking
        // armed, as a refused SetTimeout does, and the repetition ends there.
        timer->m_loanId = next;
        ++timer->m_entries;
        loaned = true;
      }
    }
    dead = timer->_EntryGoneLocked();
  }
  if (!fire) {
    LogDebug(tag::kTimer, "_OnTimeout, Canceled, id-old=%d, id-new=%d", static_cast<int>(id),
             static_cast<int>(current));
    if (dead) timer->Release();
    return;
  }
  if (rearmFailed) LogInfo(tag::kTimer, "SetTimeout, DelayCallSafe fail, ret=%d.", -1);
  fire();
  if (!loaned) return;
  {
    std::lock_guard<ParkingLock> guard(timer->m_lock);
    // Given back unless the function was replaced or cancelled meanwhile.
    if (timer->m_loanId == next && timer->m_id == next && !timer->m_fn) timer->m_fn.swap(fire);
    if (timer->m_loanId == next) timer->m_loanId = 0;
    dead = timer->_EntryGoneLocked();
  }
  fire = nullptr;  // a function not given back dies here, outside the lock
  if (dead) timer->Release();
}

void TimerImpl::_DropEntry() {
  bool dead;
  {
    std::lock_guard<ParkingLock> guard(m_lock);
    dead = _EntryGoneLocked();
  }
  if (dead) Release();
}

bool TimerImpl::IsRunning() const {
  if (!m_impl) return false;
  std::lock_guard<ParkingLock> guard(m_lock);
  return m_id != 0 && (static_cast<bool>(m_fn) || m_loanId == m_id);
}

void TimerImpl::Cancel() {
  if (!m_impl) return;
  std::function<void()> old;
  std::lock_guard<ParkingLock> guard(m_lock);
  m_id = 0;
  old.swap(m_fn);
}

void TimerImpl::Dispose() {
  if (m_impl) {
    std::function<void()> old;
    bool handedOver;
    {
      std::lock_guard<ParkingLock> guard(m_lock);
      m_id = 0;
      old.swap(m_fn);
      m_orphan = m_entries != 0;
      handedOver = m_orphan;
    }
    if (handedOver) return;  // `old` dies here; the loop's last entry releases
  }
  Release();
}

Timer::Timer(IOLoop* loop) : _impl(new TimerImpl(loop)) {}

Timer::~Timer() { _impl->Dispose(); }

int Timer::SetTimeout(int delayMs, int intervalMs, std::function<void()> fn) {
  return _impl->SetTimeout(delayMs, intervalMs, std::move(fn));  // `fn` ends holding the replaced function
}

bool Timer::IsRunning() const { return _impl->IsRunning(); }

void Timer::Cancel() { _impl->Cancel(); }

}  // namespace zelsocket
