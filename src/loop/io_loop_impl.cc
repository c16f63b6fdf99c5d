#include "loop/io_loop_impl.h"

#include <algorithm>
#include <cstdlib>
#include <mutex>
#include <thread>

#include "core/check.h"
#include "core/logging.h"
#include "core/platform.h"
#include "loop/run_on_loop.h"
#include "loop/timer_impl.h"

namespace zelsocket {

namespace {

constexpr std::uint64_t kDelayPollMs = 50;

template <typename Handle>
Handle* NewHandle(IOLoopImpl* owner) {
  auto* handle = static_cast<Handle*>(std::calloc(1, sizeof(Handle)));
  handle->data = owner;
  return handle;
}

void FreeHandle(uv_handle_t* handle) { std::free(handle); }

template <typename Handle>
void CloseHandle(Handle*& handle) {
  uv_close(reinterpret_cast<uv_handle_t*>(handle), FreeHandle);
  handle = nullptr;
}

}  // namespace

IOLoopImpl::IOLoopImpl(IOLoop* owner) : m_owner(owner) {
  uv_mutex_init(&m_workMutex);
}

IOLoopImpl::~IOLoopImpl() {
  // Destroying a running loop would leave its thread on freed state.
  ZS_DCHECK(Loop() == nullptr);
  uv_mutex_destroy(&m_workMutex);
}

// ---------------------------------------------------------------------------
// Start and stop

int IOLoopImpl::Start() {
  int ret = -1;
  if (Loop() == nullptr && !(m_flags.load() & kStopping)) {
    std::lock_guard<std::recursive_mutex> life(m_lifeMutex);
    auto* loop = static_cast<uv_loop_t*>(std::calloc(1, sizeof(uv_loop_t)));
    bool initialised = loop && uv_loop_init(loop) == 0;
    if (!initialised) {
      LogError(tag::kLoop, "uv_loop_init fail, loop=0x%p", static_cast<void*>(loop));
    } else {
      m_uvLoop.store(loop, std::memory_order_release);
      m_startSem.reset(new Semaphore());
      if (uv_thread_create(&m_thread, _ThreadProc, this) != 0) {
        LogError(tag::kLoop, "uv_thread_create fail");
      } else {
        m_startSem->Wait();
        ret = 0;
      }
    }
    if (ret != 0) {
      m_thread = uv_thread_t{};
      m_threadId.store(uv_thread_t{});
      m_startSem.reset();
      if (initialised) uv_loop_close(loop);
      std::free(loop);
      m_uvLoop.store(nullptr, std::memory_order_release);
    }
  }
  LogInfo(tag::kLoop, "UvLoop.Start, ret=%d", ret);
  return ret;
}

void IOLoopImpl::_ThreadProc(void* arg) {
  auto* self = static_cast<IOLoopImpl*>(arg);
  platform::BlockBrokenPipeOnThisThread();
  self->_InitOnLoopThread();
  platform::SetThreadSlot(self->m_owner);
  self->m_startSem->Post();
  uv_run(self->Loop(), UV_RUN_DEFAULT);
  self->_AfterRun();
  platform::SetThreadSlot(nullptr);
}

void IOLoopImpl::_InitOnLoopThread() {
  m_threadId.store(uv_thread_self());
  uv_loop_t* loop = Loop();

  m_stopAsync = NewHandle<uv_async_t>(this);
  uv_async_init(loop, m_stopAsync, _OnAsyncStop_Static);

  m_callLock.Lock();
  m_callAsync = NewHandle<uv_async_t>(this);
  uv_async_init(loop, m_callAsync, _OnAsyncCall_Static);
  m_callCheck = NewHandle<uv_check_t>(this);
  uv_check_init(loop, m_callCheck);
  m_callIdle = NewHandle<uv_idle_t>(this);
  uv_idle_init(loop, m_callIdle);
  m_callOpen = true;
  m_callScheduled = false;
  m_finalOpen = true;
  m_callLock.Unlock();

  m_delayLock.Lock();
  m_delayTimer = NewHandle<uv_timer_t>(this);
  uv_timer_init(loop, m_delayTimer);
  uv_timer_start(m_delayTimer, _OnDelayTimer_Static, kDelayPollMs, kDelayPollMs);
  m_stampPrepare = NewHandle<uv_prepare_t>(this);
  uv_prepare_init(loop, m_stampPrepare);
  m_stampCheck = NewHandle<uv_check_t>(this);
  uv_check_init(loop, m_stampCheck);
  m_delayOpen = true;
  m_delayLock.Unlock();

  uv_mutex_lock(&m_workMutex);
  m_workAsync = NewHandle<uv_async_t>(this);
  uv_async_init(loop, m_workAsync, _OnAsyncQueueWork_Static);
  m_workOpen = true;
  uv_mutex_unlock(&m_workMutex);

  m_draining = false;
  m_handedOff = false;
}

int IOLoopImpl::Stop() {
  int ret = -1;
  if (Loop() != nullptr && !IsLoopThread() && !(m_flags.fetch_or(kStopping) & kStopping)) {
    uv_async_send(m_stopAsync);
    uv_thread_join(&m_thread);
    std::lock_guard<std::recursive_mutex> life(m_lifeMutex);
    m_stopAsync = nullptr;
    m_thread = uv_thread_t{};
    m_threadId.store(uv_thread_t{});
    uv_loop_t* loop = Loop();
    // A loop that still has handles (sockets the owner did not close) cannot be
    // closed; its storage stays until a late teardown closes the last of them.
    if (!m_handedOff && uv_loop_close(loop) == 0) std::free(loop);
    else if (!m_handedOff) m_deadLoops.push_back(loop);
    m_handedOff = false;
    m_uvLoop.store(nullptr, std::memory_order_release);
    m_flags.fetch_and(~kStopping);
    ret = 0;
  }
  LogInfo(tag::kLoop, "UvLoop.Stop, ret=%d", ret);
  return ret;
}

void IOLoopImpl::_OnAsyncStop_Static(uv_async_t* handle) {
  auto* self = static_cast<IOLoopImpl*>(handle->data);
  // The field belongs to the thread in Stop, which clears it after the join.
  uv_close(reinterpret_cast<uv_handle_t*>(handle), FreeHandle);
  self->_AsyncStop();
}

void IOLoopImpl::_WaitForWakers() {
  while (m_wakers.load(std::memory_order_acquire) != 0) std::this_thread::yield();
}

void IOLoopImpl::_AsyncStop() {
  ZS_DCHECK(IsLoopThread());
  if (m_callAsync) {
    m_callLock.Lock();
    m_callOpen = false;
    m_callScheduled = false;
    std::vector<CallItem*> pending;
    pending.swap(m_callQueue);
    m_callLock.Unlock();
    LogInfo(tag::kLoop, "IOLoopImpl::_AsyncStop, pending-async-call=%u", static_cast<unsigned>(pending.size()));
    _WaitForWakers();
    CloseHandle(m_callAsync);
    CloseHandle(m_callCheck);
    CloseHandle(m_callIdle);
    // Dropped outside the lock: what an item owns may post again (and be refused).
    // A teardown is run, not dropped: its caller cannot go on without it.
    for (CallItem* item : pending) {
      if (item->final) {
        _InvokeItem(item);
      } else {
        _DropItem(item);
      }
    }
  }
  if (m_delayTimer) {
    uv_timer_stop(m_delayTimer);
    CloseHandle(m_delayTimer);
    CloseHandle(m_stampPrepare);
    CloseHandle(m_stampCheck);
    m_delayLock.Lock();
    m_delayOpen = false;
    std::vector<CallItem*> pending;
    pending.swap(m_delayQueue);
    PodVector<TimerEntry> timers;
    timers.swap(m_timerQueue);
    m_timerHeapSize = 0;
    std::vector<TimerImpl*> released;
    for (TimerEntry& entry : timers) {
      if (entry.timer->_DropEntryLocked()) released.push_back(entry.timer);
    }
    m_delayLock.Unlock();
    LogInfo(tag::kLoop, "IOLoopImpl::_AsyncStop, pending-delay-async-call=%u",
            static_cast<unsigned>(pending.size() + timers.size()));
    for (CallItem* item : pending) _DropItem(item);
    for (TimerImpl* timer : released) timer->Release();
  }
  if (m_workAsync) {
    uv_mutex_lock(&m_workMutex);
    m_workOpen = false;
    std::deque<WorkItem*> pending;
    pending.swap(m_workQueue);
    LogInfo(tag::kLoop, "IOLoopImpl::_AsyncStop, pending-work=%u", static_cast<unsigned>(pending.size()));
    uv_mutex_unlock(&m_workMutex);
    _WaitForWakers();
    CloseHandle(m_workAsync);
    for (WorkItem* item : pending) _DropWork(item);
  }
  // Jobs already on the pool: cancel what has not started.  The loop ends now all
  // the same; a job whose work function is running cannot be waited for, as
  // nothing bounds how long it runs (see _AfterRun).
  m_draining = true;
  for (WorkItem* item = m_workInFlight; item; item = item->next) {
    uv_cancel(reinterpret_cast<uv_req_t*>(&item->req));
  }
  uv_stop(Loop());
}

// On the loop thread, after its last pass.  Runs the teardowns that came too
// late for the stop sequence, then settles what is left on the libuv loop.
void IOLoopImpl::_AfterRun() {
  ZS_DCHECK(IsLoopThread());
  std::deque<CallItem*> finals;
  m_callLock.Lock();
  m_finalOpen = false;
  finals.swap(m_finalQueue);
  m_callLock.Unlock();
  for (CallItem* item : finals) {
    _InvokeItem(item);
  }

  uv_loop_t* loop = Loop();
  // With no active handle left and no request but our jobs, one more pass can
  // only run close callbacks and report jobs (cancelled or finished): nothing
  // reaches a sink.  Handles the owner left open would have their I/O delivered
  // (and a resolution its answer), so then the loop is left as it is.
  // active_reqs counts every request in flight on the loop.
  bool quiet = loop->active_handles == 0 && loop->active_reqs.count == m_workInFlightCount;
  if (quiet && uv_loop_alive(loop)) uv_run(loop, UV_RUN_NOWAIT);
  if (m_workInFlightCount == 0) return;
  // Jobs still running report through this loop's storage, which must outlive
  // them.  Their records no longer belong to this IOLoopImpl, which may run
  // again or be destroyed before they end.
  for (WorkItem* item = m_workInFlight; item; item = item->next) item->orphan = true;
  m_workInFlight = nullptr;
  m_workInFlightCount = 0;
  if (!quiet) return;  // Stop keeps the loop among the dead ones
  m_handedOff = true;
  std::thread(&IOLoopImpl::_ReapLoop, loop).detach();
}

// Waits out the orphaned jobs (each is dropped as it reports), then closes and
// frees the loop.  Touches nothing of the IOLoopImpl, which may be gone by now.
void IOLoopImpl::_ReapLoop(uv_loop_t* loop) {
  uv_run(loop, UV_RUN_DEFAULT);
  if (uv_loop_close(loop) == 0) std::free(loop);
}

void IOLoopImpl::RunFinal(const std::function<void()>& fn) {
  if (IsLoopThread()) {
    fn();
    return;
  }
  for (;;) {
    SyncWait wait;
    auto* queued = new CallItem();
    queued->sync = &wait;
    queued->final = true;
    queued->fn = fn;
    m_callLock.Lock();
    if (m_callOpen) {
      m_callQueue.push_back(queued);
      const bool wake = !m_callScheduled;
      m_callScheduled = true;
      uv_async_t* async = m_callAsync;
      if (wake) m_wakers.fetch_add(1, std::memory_order_relaxed);
      m_callLock.Unlock();
      // A failed wake-up leaves the item queued: a later wake-up or the stop
      // sequence runs it.
      if (wake) {
        uv_async_send(async);
        m_wakers.fetch_sub(1, std::memory_order_release);
      }
      wait.sem.Wait();
      return;
    }
    if (m_finalOpen) {
      m_finalQueue.push_back(queued);
      m_callLock.Unlock();
      wait.sem.Wait();
      return;
    }
    m_callLock.Unlock();
    delete queued;
    {
      std::lock_guard<std::recursive_mutex> life(m_lifeMutex);
      if (Loop() == nullptr && !(m_flags.load() & kStopping)) {
        _RunFinalHere(fn);
        return;
      }
    }
    // Starting, or a stop whose loop thread has ended but which has not finished:
    // either is a matter of moments.
    std::this_thread::yield();
  }
}

// No loop thread exists and m_lifeMutex is held: this thread stands in for it,
// so that the teardown and whatever it calls pass the loop-thread checks.
void IOLoopImpl::_RunFinalHere(const std::function<void()>& fn) {
  m_threadId.store(uv_thread_self());
  fn();
  _ReclaimDeadLoops();
  m_threadId.store(uv_thread_t{});
}

void IOLoopImpl::_ReclaimDeadLoops() {
  for (auto it = m_deadLoops.begin(); it != m_deadLoops.end();) {
    uv_loop_t* loop = *it;
    // Only close callbacks can run with no active handle (see _AfterRun).
    if (loop->active_handles == 0 && uv_loop_alive(loop)) uv_run(loop, UV_RUN_NOWAIT);
    if (uv_loop_close(loop) == 0) {
      std::free(loop);
      it = m_deadLoops.erase(it);
    } else {
      ++it;
    }
  }
}

// ---------------------------------------------------------------------------
// Calls

bool IOLoopImpl::IsLoopThread() const {
  uv_thread_t self = uv_thread_self();
  uv_thread_t loop = m_threadId.load(std::memory_order_relaxed);
  return uv_thread_equal(&self, &loop) != 0;
}

bool IOLoopImpl::_StopBegun() const { return (m_flags.load(std::memory_order_acquire) & kStopping) != 0; }

bool IOLoopImpl::_Refusing() const { return Loop() == nullptr || (m_flags.load(std::memory_order_acquire) & kStopping); }

int IOLoopImpl::AsyncCallSafe(IAsyncCallback* callback, void* data, bool sync, std::function<void()> fn) {
  if (!callback && !fn) return -1;
  if (_Refusing()) return -1;
  if (sync && IsLoopThread()) {
    if (callback) callback->OnAsyncCall(data);
    else fn();
    return 0;
  }

  auto* item = new CallItem();
  item->cb = callback;
  item->fn = std::move(fn);
  item->data = data;
  return _Enqueue(item, sync);
}

int IOLoopImpl::PostItem(CallItem* item) {
  if (_Refusing()) {
    delete item;
    return -1;
  }
  return _Enqueue(item, false);
}

int IOLoopImpl::_Enqueue(CallItem* item, bool sync) {
  SyncWait wait;
  if (sync) item->sync = &wait;
  const bool onLoop = !sync && IsLoopThread();

  m_callLock.Lock();
  if (!m_callOpen) {
    m_callLock.Unlock();
    delete item;
    return -1;
  }
  m_callQueue.push_back(item);
  const bool wake = !m_callScheduled;
  m_callScheduled = true;
  uv_async_t* async = m_callAsync;
  if (wake && !onLoop) m_wakers.fetch_add(1, std::memory_order_relaxed);
  m_callLock.Unlock();

  if (wake && onLoop) {
    // The loop is awake already: arming the check handle is enough.
    _ArmCallService(false);
  } else if (wake) {
    int rc = uv_async_send(async);
    m_wakers.fetch_sub(1, std::memory_order_release);
    if (rc != 0) {
      LogError(tag::kLoop, "IoLoop.AsyncCallSafe, uv_async_send fail.");
      m_callLock.Lock();
      // No batch is on its way after all; the next post tries to wake the loop.
      m_callScheduled = false;
      // A SyncCall caller is about to leave: it takes its item back unless
      // the loop has it already.  A posted item stays for a later wake-up.
      auto it = sync ? std::find(m_callQueue.begin(), m_callQueue.end(), item) : m_callQueue.end();
      bool removed = it != m_callQueue.end();
      if (removed) m_callQueue.erase(it);
      m_callLock.Unlock();
      if (!sync) return -1;
      if (removed) {
        delete item;
        return -1;
      }
    }
  }
  if (!sync) return 0;
  wait.sem.Wait();
  return wait.dropped ? -1 : 0;
}

// The wake-up comes in the poll phase; the batch follows in the check phase of
// the same iteration.
void IOLoopImpl::_OnAsyncCall_Static(uv_async_t* handle) {
  static_cast<IOLoopImpl*>(handle->data)->_ArmCallService(true);
}

void IOLoopImpl::_OnCallCheck_Static(uv_check_t* handle) { static_cast<IOLoopImpl*>(handle->data)->_ServeCalls(); }

// Only its being active matters: it makes the poll return at once.
void IOLoopImpl::_OnCallIdle_Static(uv_idle_t* /*handle*/) {}

// From the poll phase the check phase follows anyway; from any other phase the
// poll must not block before it.
void IOLoopImpl::_ArmCallService(bool fromPoll) {
  ZS_DCHECK(IsLoopThread());
  if (!m_callCheck) return;
  uv_check_start(m_callCheck, _OnCallCheck_Static);
  if (!fromPoll) uv_idle_start(m_callIdle, _OnCallIdle_Static);
}

// One batch: the calls queued when it begins, in order.  Calls posted by its
// targets wait for the next batch, after the timers and a poll for I/O, so a
// target that posts itself again cannot starve the loop.
void IOLoopImpl::_ServeCalls() {
  ZS_DCHECK(IsLoopThread());
  // Once a stop has begun, what is queued is the stop's to drop.  libuv on POSIX
  // serves the stop's wake-up ahead of this one, on Windows in the order they
  // were sent; without this a call queued before the stop would still run there.
  if (_StopBegun()) return;
  m_callLock.Lock();
  m_callBatch.swap(m_callQueue);
  m_callLock.Unlock();
  for (CallItem* item : m_callBatch) _InvokeItem(item);
  m_callBatch.clear();
  m_callLock.Lock();
  bool more = !m_callQueue.empty();
  if (!more) m_callScheduled = false;
  m_callLock.Unlock();
  if (!m_callCheck) return;  // a target cannot stop the loop, but stay safe
  if (more) {
    uv_idle_start(m_callIdle, _OnCallIdle_Static);
  } else {
    uv_check_stop(m_callCheck);
    uv_idle_stop(m_callIdle);
  }
}

// Frees the item. It, and what its function captured, is gone before a
// SyncCall caller wakes: that caller may count on its references being released.
void IOLoopImpl::_InvokeItem(CallItem* item) {
  item->Run();
  SyncWait* sync = item->sync;
  delete item;
  if (sync) sync->sem.Post();
}

void IOLoopImpl::_DropItem(CallItem* item) {
  item->Drop();
  SyncWait* sync = item->sync;
  delete item;
  if (sync) {
    sync->dropped = true;
    sync->sem.Post();
  }
}

int IOLoopImpl::DelayCallSafe(int delayMs, IAsyncCallback* callback, void* data, std::function<void()> fn) {
  if (!callback && !fn) return -1;
  if (_Refusing()) return -1;
  auto* item = new CallItem();
  item->cb = callback;
  item->fn = std::move(fn);
  item->data = data;
  item->due = static_cast<std::int64_t>(platform::TickMs()) + static_cast<std::int64_t>(delayMs);
  m_delayLock.Lock();
  if (!m_delayOpen) {
    m_delayLock.Unlock();
    delete item;
    return -1;
  }
  m_delayQueue.push_back(item);
  std::push_heap(m_delayQueue.begin(), m_delayQueue.end(), DueLater());
  m_delayLock.Unlock();
  return 0;
}

std::size_t IOLoopImpl::PendingDelayCalls() {
  m_delayLock.Lock();
  std::size_t n = m_delayQueue.size() + m_timerQueue.size();
  m_delayLock.Unlock();
  return n;
}

void IOLoopImpl::_OnDelayTimer_Static(uv_timer_t* handle) { static_cast<IOLoopImpl*>(handle->data)->_OnDelayTimer(); }

bool IOLoopImpl::PushTimerLocked(int delayMs, std::uint32_t id, TimerImpl* timer) {
  if (!m_delayOpen || _Refusing()) return false;
  ++timer->m_entries;
  if (IsLoopThread()) {
    // Stamped with the others when this phase of the loop ends (see
    // m_timerQueue): one clock read for all armings of a callback run.
    if (m_timerQueue.size() == m_timerHeapSize) {
      uv_prepare_start(m_stampPrepare, _OnStampPrepare_Static);
      uv_check_start(m_stampCheck, _OnStampCheck_Static);
    }
    m_timerQueue.push_back(TimerEntry{delayMs, id, timer});
    return true;
  }
  // The precise clock: the coarse one can lag by more than its resolution
  // (late scheduler ticks on a busy host), which would fire a timer early.
  std::int64_t due = static_cast<std::int64_t>(platform::TickMs()) + static_cast<std::int64_t>(delayMs);
  m_timerQueue.push_back(TimerEntry{due, id, timer});
  std::swap(m_timerQueue[m_timerHeapSize], m_timerQueue.back());
  ++m_timerHeapSize;
  std::push_heap(m_timerQueue.begin(), m_timerQueue.begin() + m_timerHeapSize, TimerDueLater());
  return true;
}

void IOLoopImpl::_OnStampPrepare_Static(uv_prepare_t* handle) { static_cast<IOLoopImpl*>(handle->data)->StampTimers(); }

void IOLoopImpl::_OnStampCheck_Static(uv_check_t* handle) { static_cast<IOLoopImpl*>(handle->data)->StampTimers(); }

void IOLoopImpl::StampTimers() {
  ZS_DCHECK(IsLoopThread());
  m_delayLock.Lock();
  _StampTimersLocked();
  m_delayLock.Unlock();
}

void IOLoopImpl::_StampTimersLocked() {
  ZS_DCHECK(IsLoopThread());
  const std::size_t size = m_timerQueue.size();
  if (size == m_timerHeapSize) return;
  // Read after every arming waiting at the tail: their delays count from no
  // earlier than the calls.
  auto now = static_cast<std::int64_t>(platform::TickMs());
  for (std::size_t i = m_timerHeapSize; i < size; ++i) {
    m_timerQueue[i].due += now;
    std::push_heap(m_timerQueue.begin(), m_timerQueue.begin() + i + 1, TimerDueLater());
  }
  m_timerHeapSize = size;
  if (m_stampPrepare) {
    uv_prepare_stop(m_stampPrepare);
    uv_check_stop(m_stampCheck);
  }
}

// Runs what has come due, delayed calls and timers alike, earliest first.
void IOLoopImpl::_OnDelayTimer() {
  ZS_DCHECK(IsLoopThread());
  if (_StopBegun()) return;
  // Armings left from the close callbacks of the last iteration.
  StampTimers();
  for (;;) {
    CallItem* item = nullptr;
    TimerEntry entry{0, 0, nullptr};
    std::function<void()> fire;
    std::uint32_t current = 0;
    bool rearmFailed = false;
    bool dead = false;
    m_delayLock.Lock();
    auto now = static_cast<std::int64_t>(platform::TickMs());
    bool callDue = !m_delayQueue.empty() && now > m_delayQueue.front()->due;
    bool timerDue = m_timerHeapSize != 0 && now > m_timerQueue.front().due;
    if (callDue && (!timerDue || m_delayQueue.front()->due <= m_timerQueue.front().due)) {
      std::pop_heap(m_delayQueue.begin(), m_delayQueue.end(), DueLater());
      item = m_delayQueue.back();
      m_delayQueue.pop_back();
    } else if (timerDue) {
      std::pop_heap(m_timerQueue.begin(), m_timerQueue.begin() + m_timerHeapSize, TimerDueLater());
      entry = m_timerQueue[--m_timerHeapSize];
      // An arming of a timer fired in this pass, not yet stamped, takes the hole.
      m_timerQueue[m_timerHeapSize] = m_timerQueue.back();
      m_timerQueue.pop_back();
      current = entry.timer->_TakeDueLocked(entry.id, fire, rearmFailed, dead);
    }
    m_delayLock.Unlock();
    if (item) {
      _InvokeItem(item);
    } else if (entry.timer) {
      // Past the unlock the timer may be gone unless it is ours (dead).
      TimerImpl::_OnDue(entry.id, current, std::move(fire), rearmFailed);
      if (dead) entry.timer->Release();
    } else {
      return;
    }
  }
}

// ---------------------------------------------------------------------------
// Work

int IOLoopImpl::QueueWork(IWorkCallback* callback, void* data) {
  if (!callback) return -1;
  // libuv would have no handle to wake on a loop that is not running.
  if (_Refusing()) return -1;
  auto* item = new WorkItem();
  item->req.data = item;
  item->owner = this;
  item->cb = callback;
  item->data = data;

  if (IsLoopThread()) {
    int rc = _SubmitWork(item);
    if (rc != 0) LogInfo(tag::kLoop, "IOLoopImpl::QueueWork, uv_queue_work, fail, ret=%d", rc);
    return rc;
  }

  uv_mutex_lock(&m_workMutex);
  if (!m_workOpen) {
    uv_mutex_unlock(&m_workMutex);
    delete item;
    return -1;
  }
  m_workQueue.push_back(item);
  uv_async_t* async = m_workAsync;
  m_wakers.fetch_add(1, std::memory_order_relaxed);
  uv_mutex_unlock(&m_workMutex);
  int rc = uv_async_send(async);
  m_wakers.fetch_sub(1, std::memory_order_release);
  if (rc != 0) LogInfo(tag::kLoop, "IOLoopImpl::QueueWork, uv_async_send fail, ret=%d", rc);
  return rc;
}

// Hands one job to the pool and lists it as in flight; a refused job is freed.
int IOLoopImpl::_SubmitWork(WorkItem* item) {
  ZS_DCHECK(IsLoopThread());
  int rc = uv_queue_work(Loop(), &item->req, _OnWork_Static, _OnAfterWork_Static);
  if (rc != 0) {
    delete item;
    return rc;
  }
  item->next = m_workInFlight;
  if (m_workInFlight) m_workInFlight->prev = item;
  m_workInFlight = item;
  ++m_workInFlightCount;
  return 0;
}

void IOLoopImpl::_OnAsyncQueueWork_Static(uv_async_t* handle) {
  static_cast<IOLoopImpl*>(handle->data)->_OnAsyncQueueWork();
}

void IOLoopImpl::_OnAsyncQueueWork() {
  ZS_DCHECK(IsLoopThread());
  if (_StopBegun()) return;
  uv_mutex_lock(&m_workMutex);
  while (!m_workQueue.empty()) {
    WorkItem* item = m_workQueue.front();
    m_workQueue.pop_front();
    int rc = _SubmitWork(item);
    if (rc != 0) {
      LogInfo(tag::kLoop, "IOLoopImpl::_OnAsyncQueueWork_Static, uv_queue_work fail, ret=%u",
              static_cast<unsigned>(rc));
    }
  }
  uv_mutex_unlock(&m_workMutex);
}

void IOLoopImpl::_OnWork_Static(uv_work_t* req) {
  auto* item = static_cast<WorkItem*>(req->data);
  item->cb->OnWork(item->data);
}

void IOLoopImpl::_OnAfterWork_Static(uv_work_t* req, int status) {
  auto* item = static_cast<WorkItem*>(req->data);
  if (item->orphan) {
    _DropWork(item);
    return;
  }
  item->owner->_OnAfterWork(item, status);
}

void IOLoopImpl::_OnAfterWork(WorkItem* item, int status) {
  ZS_DCHECK(IsLoopThread());
  if (item->prev) item->prev->next = item->next;
  else m_workInFlight = item->next;
  if (item->next) item->next->prev = item->prev;
  --m_workInFlightCount;

  if (m_draining) {
    _DropWork(item);
    return;
  }
  item->cb->OnAfterWork(status, item->data);
  delete item;
}

void IOLoopImpl::_DropWork(WorkItem* item) {
  item->cb->OnWorkDropped(item->data);
  delete item;
}

void RunFinalOnLoop(IOLoop* loop, const std::function<void()>& fn) {
  if (loop) IOLoopImpl::Of(loop)->RunFinal(fn);
  else fn();
}

// ---------------------------------------------------------------------------
// IOLoop

IOLoop::IOLoop() : _impl(new IOLoopImpl(this)) {}
IOLoop::~IOLoop() { delete _impl; }
int IOLoop::Start() { return _impl->Start(); }
int IOLoop::Stop() { return _impl->Stop(); }
bool IOLoop::IsLoopThread() const { return _impl->IsLoopThread(); }
uv_loop_s* IOLoop::Loop() { return _impl->Loop(); }

int IOLoop::AsyncCall(std::function<void()> fn) {
  if (!fn) return -1;
  return _impl->AsyncCallSafe(nullptr, nullptr, false, std::move(fn));
}
int IOLoop::AsyncCall(IAsyncCallback* callback, void* data) {
  if (!callback) return -1;
  return _impl->AsyncCallSafe(callback, data, false, nullptr);
}
int IOLoop::SyncCall(std::function<void()> fn) {
  if (!fn) return -1;
  return _impl->AsyncCallSafe(nullptr, nullptr, true, std::move(fn));
}
int IOLoop::SyncCall(IAsyncCallback* callback, void* data) {
  if (!callback) return -1;
  return _impl->AsyncCallSafe(callback, data, true, nullptr);
}
int IOLoop::DelayCall(int delayMs, std::function<void()> fn) {
  if (!fn) return -1;
  return _impl->DelayCallSafe(delayMs, nullptr, nullptr, std::move(fn));
}
int IOLoop::DelayCall(int delayMs, IAsyncCallback* callback, void* data) {
  if (!callback) return -1;
  return _impl->DelayCallSafe(delayMs, callback, data, nullptr);
}
int IOLoop::QueueWork(IWorkCallback* callback, void* data) { return _impl->QueueWork(callback, data); }

IOLoop* IOLoop::CurrentLoop() { return static_cast<IOLoop*>(platform::GetThreadSlot()); }

IOLoop* IOLoop::DefaultLoop() {
  static std::atomic<IOLoop*> s_default{nullptr};
  static std::mutex s_mutex;
  IOLoop* loop = s_default.load(std::memory_order_acquire);
  if (loop) return loop;
  std::lock_guard<std::mutex> lock(s_mutex);
  loop = s_default.load(std::memory_order_relaxed);
  if (!loop) {
    loop = new IOLoop();
    if (loop->Start() != 0) {
      delete loop;
      loop = nullptr;
    }
    s_default.store(loop, std::memory_order_release);
  }
  return loop;
}

IOLoop* IOLoop::GetLoop() {
  IOLoop* loop = CurrentLoop();
  return loop ? loop : DefaultLoop();
}

}  // namespace zelsocket
