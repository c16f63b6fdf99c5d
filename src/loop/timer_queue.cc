#include "loop/timer_queue.h"

#include <algorithm>
#include <memory>
#include <mutex>
#include <thread>
#include <type_traits>

#include "core/check.h"
#include "core/logging.h"
#include "core/platform.h"
#include "loop/io_loop_impl.h"
#include "loop/timer_impl.h"
#include "loop/uv_handles.h"

namespace zelsocket {

namespace {

std::int64_t NowUs() { return static_cast<std::int64_t>(platform::TickUs()); }

std::int64_t DelayUs(int delayMs) { return static_cast<std::int64_t>(delayMs) * 1000; }

}  // namespace

TimerQueue::~TimerQueue() { ZS_DCHECK(m_heap.size() == 0 && m_inCalls.empty() && !m_inArmings); }

void TimerQueue::Open(uv_loop_t* loop) {
  ZS_DCHECK(m_owner->IsLoopThread());
  m_timer = NewLoopHandle<uv_timer_t>(this);
  uv_timer_init(loop, m_timer);
  m_timerDue = kNever;
  m_stampPrepare = NewLoopHandle<uv_prepare_t>(this);
  uv_prepare_init(loop, m_stampPrepare);
  m_stampCheck = NewLoopHandle<uv_check_t>(this);
  uv_check_init(loop, m_stampCheck);
  auto* async = NewLoopHandle<uv_async_t>(this);
  uv_async_init(loop, async, _OnAsync_Static);
  std::lock_guard<ParkingLock> guard(m_lock);
  m_async = async;
  m_armedDue = kNever;
  m_open = true;
}

bool TimerQueue::_AcceptingHere() const {
  ZS_DCHECK(m_owner->IsLoopThread());
  return m_open && !m_owner->StopBegun();
}

int TimerQueue::Delay(CallItem* item, int delayMs) {
  if (!m_owner->IsLoopThread()) return _PushRemote(item, NowUs() + DelayUs(delayMs));
  std::unique_ptr<CallItem> owned(item);
  if (!_AcceptingHere()) return -1;
  ReserveLocal();
  if (m_heap.size() == m_heapSize) {
    uv_prepare_start(m_stampPrepare, _OnStamp_Static);
    uv_check_start(m_stampCheck, _OnStampCheck_Static);
  }
  m_heap.push_back(Entry{DelayUs(delayMs), 0, owned.release()});
  return 0;
}

bool TimerQueue::ArmLocal(int delayMs, std::uint32_t id, TimerImpl* timer) {
  if (!_AcceptingHere()) return false;
  if (m_heap.size() == m_heapSize) {
    uv_prepare_start(m_stampPrepare, _OnStamp_Static);
    uv_check_start(m_stampCheck, _OnStampCheck_Static);
  }
  m_heap.push_back(Entry{DelayUs(delayMs), id, timer});
  return true;
}

bool TimerQueue::ArmRemote(Inbound* node, int delayMs, std::uint32_t id, TimerImpl* timer) {
  node->id = id;
  node->timer = timer;
  return _PushRemote(node, NowUs() + DelayUs(delayMs)) == 0;
}

template <typename Node>
int TimerQueue::_PushRemote(Node* node, std::int64_t due) {
  node->due = due;
  bool wake = false;
  uv_async_t* async = nullptr;
  {
    std::lock_guard<ParkingLock> guard(m_lock);
    if (m_open) {
      if constexpr (std::is_same<Node, CallItem>::value) {
        m_inCalls.push(node);
      } else {
        node->next = m_inArmings;
        m_inArmings = node;
      }
      async = m_async;
      wake = due < m_armedDue;
      if (wake) m_wakers.fetch_add(1, std::memory_order_relaxed);
    }
  }
  if (!async) {
    delete node;  // outside the lock: a call may hold the application's objects
    return -1;
  }
  if (wake) {
    uv_async_send(async);
    m_wakers.fetch_sub(1, std::memory_order_release);
  }
  return 0;
}

bool TimerQueue::RearmFromFiring(std::int64_t due, std::uint32_t id, TimerImpl* timer) {
  if (!_AcceptingHere()) return false;
  ZS_DCHECK(m_heap.size() < m_heap.capacity());
  _PushStamped(Entry{due, id, timer});
  return true;
}

void TimerQueue::_PushStamped(const Entry& entry) {
  // Ahead of the unstamped armings, whose order does not matter.
  m_heap.push_back(entry);
  std::swap(m_heap[m_heapSize], m_heap.back());
  ++m_heapSize;
  std::push_heap(m_heap.begin(), m_heap.begin() + m_heapSize, DueLater());
}

TimerQueue::Entry TimerQueue::_PopTop() {
  std::pop_heap(m_heap.begin(), m_heap.begin() + m_heapSize, DueLater());
  Entry top = m_heap[--m_heapSize];
  // The last unstamped arming, if any, takes the hole.
  m_heap[m_heapSize] = m_heap.back();
  m_heap.pop_back();
  return top;
}

void TimerQueue::_Stamp() {
  ZS_DCHECK(m_owner->IsLoopThread());
  const std::size_t size = m_heap.size();
  if (size == m_heapSize) return;
  // Read after every arming waiting at the tail: their delays count from no
  // earlier than their calls.
  const std::int64_t now = NowUs();
  for (std::size_t i = m_heapSize; i < size; ++i) {
    m_heap[i].due += now;
    std::push_heap(m_heap.begin(), m_heap.begin() + i + 1, DueLater());
  }
  m_heapSize = size;
  if (m_stampPrepare) {
    uv_prepare_stop(m_stampPrepare);
    uv_check_stop(m_stampCheck);
  }
}

// Takes the inbox, or, when it is empty, publishes `armedDue` (if given) in the
// same section, so that no poster can slip in between the two unnoticed.
bool TimerQueue::_TakeInbound(CallList& calls, Inbound*& armings, std::int64_t* armedDue) {
  std::lock_guard<ParkingLock> guard(m_lock);
  if (m_inCalls.empty() && !m_inArmings) {
    if (armedDue) m_armedDue = *armedDue;
    return false;
  }
  calls.splice(m_inCalls);
  armings = m_inArmings;
  m_inArmings = nullptr;
  return true;
}

void TimerQueue::_AdmitInbound(CallList& calls, Inbound* armings) {
  while (CallItem* item = calls.pop()) _PushStamped(Entry{item->due, 0, item});
  while (armings) {
    Inbound* next = armings->next;
    _PushStamped(Entry{armings->due, armings->id, armings->timer});
    delete armings;
    armings = next;
  }
}

void TimerQueue::Settle() {
  ZS_DCHECK(m_owner->IsLoopThread());
  if (!m_timer) return;
  _Stamp();
  for (;;) {
    std::int64_t earliest = m_heapSize ? m_heap[0].due : kNever;
    CallList calls;
    Inbound* armings = nullptr;
    if (!_TakeInbound(calls, armings, &earliest)) {
      _ArmTimer(earliest);
      return;
    }
    _AdmitInbound(calls, armings);
  }
}

void TimerQueue::_ArmTimer(std::int64_t earliest) {
  // Entries only join between two servings, so the earliest can only move
  // earlier until the timer fires.
  if (earliest >= m_timerDue) return;
  m_timerDue = earliest;
  uv_loop_t* loop = m_owner->Loop();
  // libuv counts a timeout from its cached time, which lags behind by what
  // this iteration has run so far; without the update the timer fires early
  // and costs an iteration for nothing.
  uv_update_time(loop);
  const std::int64_t now = NowUs();
  const std::uint64_t timeoutMs = earliest > now ? static_cast<std::uint64_t>(earliest - now + 999) / 1000 : 0;
  uv_timer_start(m_timer, _OnTimer_Static, timeoutMs, 0);
}

void TimerQueue::_OnTimer_Static(uv_timer_t* handle) { static_cast<TimerQueue*>(handle->data)->_Serve(); }

void TimerQueue::_OnStamp_Static(uv_prepare_t* handle) { static_cast<TimerQueue*>(handle->data)->Settle(); }

void TimerQueue::_OnStampCheck_Static(uv_check_t* handle) { static_cast<TimerQueue*>(handle->data)->Settle(); }

void TimerQueue::_OnAsync_Static(uv_async_t* handle) { static_cast<TimerQueue*>(handle->data)->Settle(); }

// Runs what has come due, delayed calls and timers alike, earliest first.
// Re-armings of repeating timers go into the heap and wait for a later pass.
void TimerQueue::_Serve() {
  ZS_DCHECK(m_owner->IsLoopThread());
  m_timerDue = kNever;  // it has fired
  _Stamp();
  CallList calls;
  Inbound* armings = nullptr;
  if (_TakeInbound(calls, armings, nullptr)) _AdmitInbound(calls, armings);
  while (m_heapSize != 0 && !m_owner->StopBegun()) {
    const std::int64_t now = NowUs();
    if (m_heap[0].due > now) break;
    Entry entry = _PopTop();
    if (entry.id == 0) RunCallItem(static_cast<CallItem*>(entry.target));
    else TimerImpl::_OnDue(static_cast<TimerImpl*>(entry.target), entry.id, now, *this);
  }
  if (!m_owner->StopBegun()) Settle();
}

void TimerQueue::Close() {
  ZS_DCHECK(m_owner->IsLoopThread());
  if (!m_timer) return;
  uv_timer_stop(m_timer);
  CloseLoopHandle(m_timer);
  CloseLoopHandle(m_stampPrepare);
  CloseLoopHandle(m_stampCheck);
  CallList calls;
  Inbound* armings = nullptr;
  {
    std::lock_guard<ParkingLock> guard(m_lock);
    m_open = false;
    calls.splice(m_inCalls);
    armings = m_inArmings;
    m_inArmings = nullptr;
  }
  while (m_wakers.load(std::memory_order_acquire) != 0) std::this_thread::yield();
  uv_async_t* async = m_async;  // no poster reads it any more
  m_async = nullptr;
  CloseLoopHandle(async);

  std::size_t count = m_heap.size() + calls.size();
  for (Inbound* a = armings; a; a = a->next) ++count;
  LogInfo(tag::kLoop, "IOLoopImpl::_AsyncStop, pending-delay-async-call=%u", static_cast<unsigned>(count));
  // Dropped outside the lock: a call's owner may post again (and be refused).
  for (std::size_t i = 0; i < m_heap.size(); ++i) _DropEntry(m_heap[i]);
  m_heap.clear();
  m_heapSize = 0;
  while (CallItem* item = calls.pop()) DropCallItem(item);
  while (armings) {
    Inbound* next = armings->next;
    armings->timer->_DropEntry();
    delete armings;
    armings = next;
  }
}

void TimerQueue::_DropEntry(const Entry& entry) {
  if (entry.id == 0) DropCallItem(static_cast<CallItem*>(entry.target));
  else static_cast<TimerImpl*>(entry.target)->_DropEntry();
}

}  // namespace zelsocket
