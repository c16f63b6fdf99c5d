#include "loop/io_loop_impl.h"

#include <cstdlib>
#include <mutex>
#include <thread>

#include "core/check.h"
#include "core/logging.h"
#include "core/platform.h"
#include "loop/run_on_loop.h"
#include "loop/uv_handles.h"

namespace zelsocket {

namespace {
// Names the calling thread by the address of a variable of its own: every post
// asks whether it runs on the loop thread, and one thread-local address is
// cheaper to get than the thread's id through libuv and the system.
const void* ThisThread() {
  static thread_local char tag;
  return &tag;
}
}  // namespace

IOLoopImpl::IOLoopImpl(IOLoop* owner) : m_owner(owner), m_calls(this), m_timers(this) {}

IOLoopImpl::~IOLoopImpl() {
  // Destroying a running loop would leave its thread on freed state.
  ZS_DCHECK(Loop() == nullptr);
}

// ---------------------------------------------------------------------------
// Start and stop

int IOLoopImpl::Start() {
  int ret = -1;
  if (Loop() == nullptr && !StopBegun()) {
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
      m_threadId.store(nullptr);
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
  m_threadId.store(ThisThread());
  uv_loop_t* loop = Loop();
  m_stopAsync = NewLoopHandle<uv_async_t>(this);
  uv_async_init(loop, m_stopAsync, _OnAsyncStop_Static);
  m_calls.Open(loop);
  m_timers.Open(loop);
  auto* work = NewLoopHandle<uv_async_t>(this);
  uv_async_init(loop, work, _OnAsyncQueueWork_Static);
  {
    std::lock_guard<ParkingLock> guard(m_workLock);
    m_workAsync = work;
  }
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
    m_threadId.store(nullptr);
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
  uv_close(reinterpret_cast<uv_handle_t*>(handle), FreeLoopHandle);
  self->_AsyncStop();
}

void IOLoopImpl::_AsyncStop() {
  ZS_DCHECK(IsLoopThread());
  m_calls.Close();
  m_timers.Close();
  _CloseWorkQueue();
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
  m_calls.RunLateFinals();

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
    if (m_calls.RunFinal(fn)) return;
    {
      std::lock_guard<std::recursive_mutex> life(m_lifeMutex);
      if (Loop() == nullptr && !StopBegun()) {
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
  m_threadId.store(ThisThread());
  fn();
  _ReclaimDeadLoops();
  m_threadId.store(nullptr);
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

bool IOLoopImpl::IsLoopThread() const { return m_threadId.load(std::memory_order_relaxed) == ThisThread(); }

int IOLoopImpl::AsyncCallSafe(IAsyncCallback* callback, void* data, bool sync, std::function<void()> fn) {
  if (!callback && !fn) return -1;
  if (Refusing()) return -1;
  if (sync && IsLoopThread()) {
    if (callback) callback->OnAsyncCall(data);
    else fn();
    return 0;
  }
  auto* item = new CallItem();
  item->cb = callback;
  item->fn = std::move(fn);
  item->data = data;
  return m_calls.Post(item, sync);
}

int IOLoopImpl::PostItem(CallItem* item) {
  if (Refusing()) {
    delete item;
    return -1;
  }
  return m_calls.Post(item, false);
}

int IOLoopImpl::DelayCallSafe(int delayMs, IAsyncCallback* callback, void* data, std::function<void()> fn) {
  if (!callback && !fn) return -1;
  if (Refusing()) return -1;
  auto* item = new CallItem();
  item->cb = callback;
  item->fn = std::move(fn);
  item->data = data;
  return m_timers.Delay(item, delayMs);
}

// ---------------------------------------------------------------------------
// Work

int IOLoopImpl::QueueWork(IWorkCallback* callback, void* data) {
  if (!callback) return -1;
  // libuv would have no handle to wake on a loop that is not running.
  if (Refusing()) return -1;
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

  uv_async_t* async = nullptr;
  {
    std::lock_guard<ParkingLock> guard(m_workLock);
    if (m_workAsync) {
      if (m_workTail) m_workTail->next = item;
      else m_workHead = item;
      m_workTail = item;
      ++m_workCount;
      async = m_workAsync;
      m_workWakers.fetch_add(1, std::memory_order_relaxed);
    }
  }
  if (!async) {
    delete item;
    return -1;
  }
  int rc = uv_async_send(async);
  m_workWakers.fetch_sub(1, std::memory_order_release);
  if (rc != 0) LogInfo(tag::kLoop, "IOLoopImpl::QueueWork, uv_async_send fail, ret=%d", rc);
  return rc;
}

// Hands one job to the pool and lists it as in flight; a refused job is freed.
int IOLoopImpl::_SubmitWork(WorkItem* item) {
  ZS_DCHECK(IsLoopThread());
  item->prev = item->next = nullptr;
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
  if (StopBegun()) return;
  WorkItem* item;
  {
    std::lock_guard<ParkingLock> guard(m_workLock);
    item = m_workHead;
    m_workHead = m_workTail = nullptr;
    m_workCount = 0;
  }
  while (item) {
    WorkItem* next = item->next;
    int rc = _SubmitWork(item);
    if (rc != 0) {
      LogInfo(tag::kLoop, "IOLoopImpl::_OnAsyncQueueWork_Static, uv_queue_work fail, ret=%u",
              static_cast<unsigned>(rc));
    }
    item = next;
  }
}

void IOLoopImpl::_CloseWorkQueue() {
  ZS_DCHECK(IsLoopThread());
  WorkItem* item;
  std::size_t count;
  uv_async_t* async;
  {
    std::lock_guard<ParkingLock> guard(m_workLock);
    async = m_workAsync;
    m_workAsync = nullptr;
    item = m_workHead;
    count = m_workCount;
    m_workHead = m_workTail = nullptr;
    m_workCount = 0;
  }
  if (!async) return;
  LogInfo(tag::kLoop, "IOLoopImpl::_AsyncStop, pending-work=%u", static_cast<unsigned>(count));
  while (m_workWakers.load(std::memory_order_acquire) != 0) std::this_thread::yield();
  CloseLoopHandle(async);
  while (item) {
    WorkItem* next = item->next;
    _DropWork(item);
    item = next;
  }
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
