#include "loop/io_loop_impl.h"

#include <algorithm>
#include <cstdlib>
#include <mutex>
#include <thread>

#include "core/check.h"
#include "core/logging.h"
#include "core/platform.h"

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
  uv_mutex_init(&m_callMutex);
  uv_mutex_init(&m_delayMutex);
  uv_mutex_init(&m_workMutex);
}

IOLoopImpl::~IOLoopImpl() {
  // Destroying a running loop would leave its thread on freed state.
  ZS_DCHECK(Loop() == nullptr);
  uv_mutex_destroy(&m_workMutex);
  uv_mutex_destroy(&m_delayMutex);
  uv_mutex_destroy(&m_callMutex);
}

// ---------------------------------------------------------------------------
// Start and stop

int IOLoopImpl::Start() {
  int ret = -1;
  if (Loop() == nullptr && !(m_flags.load() & kStopping)) {
    platform::IgnoreBrokenPipe();
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
  self->_InitOnLoopThread();
  platform::SetThreadSlot(self->m_owner);
  self->m_startSem->Post();
  uv_run(self->Loop(), UV_RUN_DEFAULT);
  platform::SetThreadSlot(nullptr);
}

void IOLoopImpl::_InitOnLoopThread() {
  m_threadId.store(uv_thread_self());
  uv_loop_t* loop = Loop();

  m_stopAsync = NewHandle<uv_async_t>(this);
  uv_async_init(loop, m_stopAsync, _OnAsyncStop_Static);

  uv_mutex_lock(&m_callMutex);
  m_callAsync = NewHandle<uv_async_t>(this);
  uv_async_init(loop, m_callAsync, _OnAsyncCall_Static);
  m_callOpen = true;
  uv_mutex_unlock(&m_callMutex);

  uv_mutex_lock(&m_delayMutex);
  m_delayTimer = NewHandle<uv_timer_t>(this);
  uv_timer_init(loop, m_delayTimer);
  uv_timer_start(m_delayTimer, _OnDelayTimer_Static, kDelayPollMs, kDelayPollMs);
  m_delayOpen = true;
  uv_mutex_unlock(&m_delayMutex);

  uv_mutex_lock(&m_workMutex);
  m_workAsync = NewHandle<uv_async_t>(this);
  uv_async_init(loop, m_workAsync, _OnAsyncQueueWork_Static);
  m_workOpen = true;
  uv_mutex_unlock(&m_workMutex);

  m_draining = false;
}

int IOLoopImpl::Stop() {
  int ret = -1;
  if (Loop() != nullptr && !IsLoopThread() && !(m_flags.fetch_or(kStopping) & kStopping)) {
    uv_async_send(m_stopAsync);
    uv_thread_join(&m_thread);
    m_stopAsync = nullptr;
    m_thread = uv_thread_t{};
    m_threadId.store(uv_thread_t{});
    uv_loop_t* loop = Loop();
    // A loop that still has handles (sockets the owner did not close) cannot be
    // closed; its storage must then stay, and is deliberately given up.
    if (uv_loop_close(loop) == 0) std::free(loop);
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
    uv_mutex_lock(&m_callMutex);
    m_callOpen = false;
    std::deque<CallItem*> pending;
    pending.swap(m_callQueue);
    LogInfo(tag::kLoop, "IOLoopImpl::_AsyncStop, pending-async-call=%u", static_cast<unsigned>(pending.size()));
    uv_mutex_unlock(&m_callMutex);
    _WaitForWakers();
    CloseHandle(m_callAsync);
    // Dropped outside the lock: what an item owns may post again (and be refused).
    for (CallItem* item : pending) _DropItem(item);
  }
  if (m_delayTimer) {
    uv_timer_stop(m_delayTimer);
    CloseHandle(m_delayTimer);
    uv_mutex_lock(&m_delayMutex);
    m_delayOpen = false;
    std::vector<CallItem*> pending;
    pending.swap(m_delayQueue);
    LogInfo(tag::kLoop, "IOLoopImpl::_AsyncStop, pending-delay-async-call=%u",
            static_cast<unsigned>(pending.size()));
    uv_mutex_unlock(&m_delayMutex);
    for (CallItem* item : pending) _DropItem(item);
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
  // Jobs already on the pool: cancel what has not started and let the loop run
  // until the rest has come back, so that every record goes on this thread.
  m_draining = true;
  for (WorkItem* item = m_workInFlight; item; item = item->next) {
    uv_cancel(reinterpret_cast<uv_req_t*>(&item->req));
  }
  if (m_workInFlightCount == 0) uv_stop(Loop());
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
  SyncWait wait;
  if (sync) item->sync = &wait;

  uv_mutex_lock(&m_callMutex);
  if (!m_callOpen) {
    uv_mutex_unlock(&m_callMutex);
    delete item;
    return -1;
  }
  m_callQueue.push_back(item);
  uv_async_t* async = m_callAsync;
  m_wakers.fetch_add(1, std::memory_order_relaxed);
  uv_mutex_unlock(&m_callMutex);

  int rc = uv_async_send(async);
  m_wakers.fetch_sub(1, std::memory_order_release);
  if (rc != 0) {
    LogError(tag::kLoop, "IoLoop.AsyncCallSafe, uv_async_send fail.");
    if (!sync) return -1;
    // The item stays queued for a later wake-up, but this caller is about to
    // leave: take it back unless the loop has it already.
    uv_mutex_lock(&m_callMutex);
    auto it = std::find(m_callQueue.begin(), m_callQueue.end(), item);
    bool removed = it != m_callQueue.end();
    if (removed) m_callQueue.erase(it);
    uv_mutex_unlock(&m_callMutex);
    if (removed) {
      delete item;
      return -1;
    }
  }
  if (!sync) return 0;
  wait.sem.Wait();
  return wait.dropped ? -1 : 0;
}

void IOLoopImpl::_OnAsyncCall_Static(uv_async_t* handle) { static_cast<IOLoopImpl*>(handle->data)->_AsyncCall(); }

void IOLoopImpl::_AsyncCall() {
  ZS_DCHECK(IsLoopThread());
  // Once a stop has begun, what is queued is the stop's to drop.  libuv on POSIX
  // serves the stop's wake-up ahead of this one, on Windows in the order they
  // were sent; without this a call queued before the stop would still run there.
  if (_StopBegun()) return;
  CallItem* item = nullptr;
  bool more = false;
  uv_mutex_lock(&m_callMutex);
  if (!m_callQueue.empty()) {
    item = m_callQueue.front();
    m_callQueue.pop_front();
    more = !m_callQueue.empty();
  }
  uv_mutex_unlock(&m_callMutex);
  if (item) _InvokeItem(item);
  // libuv folds many sends into one callback: serve the rest one wake-up each,
  // so that I/O and timers run between queued calls.
  if (more && m_callAsync && uv_async_send(m_callAsync) != 0) LogError(tag::kLoop, "UvLoop._AsyncCall");
  delete item;
}

void IOLoopImpl::_InvokeItem(CallItem* item) {
  if (item->cb) item->cb->OnAsyncCall(item->data);
  else if (item->fn) item->fn();
  if (item->sync) item->sync->sem.Post();
}

void IOLoopImpl::_DropItem(CallItem* item) {
  if (item->cb) item->cb->OnAsyncCallDropped(item->data);
  if (item->sync) {
    item->sync->dropped = true;
    item->sync->sem.Post();
  }
  delete item;
}

int IOLoopImpl::DelayCallSafe(int delayMs, IAsyncCallback* callback, void* data, std::function<void()> fn) {
  if (!callback && !fn) return -1;
  if (_Refusing()) return -1;
  auto* item = new CallItem();
  item->cb = callback;
  item->fn = std::move(fn);
  item->data = data;
  item->due = static_cast<std::int64_t>(platform::TickMs()) + static_cast<std::int64_t>(delayMs);
  uv_mutex_lock(&m_delayMutex);
  if (!m_delayOpen) {
    uv_mutex_unlock(&m_delayMutex);
    delete item;
    return -1;
  }
  m_delayQueue.push_back(item);
  std::push_heap(m_delayQueue.begin(), m_delayQueue.end(), DueLater());
  uv_mutex_unlock(&m_delayMutex);
  return 0;
}

std::size_t IOLoopImpl::PendingDelayCalls() {
  uv_mutex_lock(&m_delayMutex);
  std::size_t n = m_delayQueue.size();
  uv_mutex_unlock(&m_delayMutex);
  return n;
}

void IOLoopImpl::_OnDelayTimer_Static(uv_timer_t* handle) { static_cast<IOLoopImpl*>(handle->data)->_OnDelayTimer(); }

void IOLoopImpl::_OnDelayTimer() {
  ZS_DCHECK(IsLoopThread());
  if (_StopBegun()) return;
  for (;;) {
    CallItem* item = nullptr;
    uv_mutex_lock(&m_delayMutex);
    if (!m_delayQueue.empty() &&
        static_cast<std::int64_t>(platform::TickMs()) > m_delayQueue.front()->due) {
      std::pop_heap(m_delayQueue.begin(), m_delayQueue.end(), DueLater());
      item = m_delayQueue.back();
      m_delayQueue.pop_back();
    }
    uv_mutex_unlock(&m_delayMutex);
    if (!item) return;
    _InvokeItem(item);
    delete item;
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
    if (m_workInFlightCount == 0) uv_stop(Loop());
    return;
  }
  item->cb->OnAfterWork(status, item->data);
  delete item;
}

void IOLoopImpl::_DropWork(WorkItem* item) {
  item->cb->OnWorkDropped(item->data);
  delete item;
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
