// Internal: the loop thread, its queues and its four libuv handles.
#ifndef ZELSOCKET_SRC_LOOP_IO_LOOP_IMPL_H
#define ZELSOCKET_SRC_LOOP_IO_LOOP_IMPL_H

#include <uv.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "core/pod_vector.h"
#include "core/spin_lock.h"
#include "zelsocket/io_loop.h"
#include "zelsocket/sync.h"

namespace zelsocket {

class TimerImpl;

class IOLoopImpl {
 public:
  explicit IOLoopImpl(IOLoop* owner);
  ~IOLoopImpl();
  IOLoopImpl(const IOLoopImpl&) = delete;
  IOLoopImpl& operator=(const IOLoopImpl&) = delete;

  int Start();
  int Stop();
  bool IsLoopThread() const;
  uv_loop_t* Loop() const { return m_uvLoop.load(std::memory_order_acquire); }

  // What a SyncCall from another thread waits on.  Lives on the caller's stack.
  struct SyncWait {
    Semaphore sem;
    bool dropped = false;  // written before the post, read after the wait
  };

  // A queued call, run or dropped once and then deleted by the loop.  The
  // library's own posters derive from it to keep their target in the same
  // allocation and post it with PostItem.
  struct CallItem {
    CallItem() = default;
    CallItem(const CallItem&) = delete;
    CallItem& operator=(const CallItem&) = delete;
    virtual ~CallItem() = default;
    virtual void Run() {
      if (cb) cb->OnAsyncCall(data);
      else if (fn) fn();
    }
    virtual void Drop() {
      if (cb) cb->OnAsyncCallDropped(data);
    }
    SyncWait* sync = nullptr;
    bool final = false;  // RunFinal: run, never dropped
    std::int64_t due = 0;
    void* data = nullptr;
    std::function<void()> fn;
    RefPtr<IAsyncCallback> cb;
  };

  // Queues `item` as AsyncCall queues a call, and owns it from here on, also
  // when it refuses (-1).
  int PostItem(CallItem* item);

  int AsyncCallSafe(IAsyncCallback* callback, void* data, bool sync, std::function<void()> fn);
  int DelayCallSafe(int delayMs, IAsyncCallback* callback, void* data, std::function<void()> fn);
  int QueueWork(IWorkCallback* callback, void* data);

  // Runs `fn` on the loop thread and returns after it, in every state of the
  // loop, for the teardown of objects whose last reference may go on any thread.
  // Unlike SyncCall it is never refused or dropped while a stop is under way: the
  // stop sequence runs it instead of dropping it, or the loop thread runs it after
  // its last pass.  Once no loop thread is left, it runs on the caller's thread,
  // which stands in for the loop thread meanwhile.
  void RunFinal(const std::function<void()>& fn);
  static IOLoopImpl* Of(IOLoop* loop) { return loop->_impl; }

  // Items queued now; for tests and the benchmarks.
  std::size_t PendingDelayCalls();

  // Timers share the lock of the delayed calls, which also guards each
  // TimerImpl's own state, so that an arming takes one lock and no allocation.
  void LockTimers() { m_delayLock.Lock(); }
  void UnlockTimers() { m_delayLock.Unlock(); }
  // Under LockTimers: queues arming `id` of `timer` (counted in its m_entries,
  // which keeps it alive) for the poll after `delayMs`.  False when the loop refuses.
  bool PushTimerLocked(int delayMs, std::uint32_t id, TimerImpl* timer);
  // On the loop thread: gives the armings made there since the last stamp their
  // due times now.  The loop does this itself before it polls and after I/O;
  // the benchmarks call it to count its cost with the arming.
  void StampTimers();

 private:

  struct WorkItem {
    uv_work_t req;
    IOLoopImpl* owner = nullptr;
    RefPtr<IWorkCallback> cb;
    void* data = nullptr;
    // Set when the loop ended with the job still on the pool: whoever reaps the
    // loop then drops the record without touching its IOLoopImpl.
    bool orphan = false;
    // Links of the list of jobs handed to libuv's pool (loop thread only).
    WorkItem* prev = nullptr;
    WorkItem* next = nullptr;
  };

  struct DueLater {
    bool operator()(const CallItem* a, const CallItem* b) const { return a->due > b->due; }
  };

  struct TimerEntry {
    std::int64_t due;
    std::uint32_t id;
    TimerImpl* timer;  // counted in timer->m_entries
  };
  struct TimerDueLater {
    bool operator()(const TimerEntry& a, const TimerEntry& b) const { return a.due > b.due; }
  };

  bool _StopBegun() const;
  bool _Refusing() const;
  int _SubmitWork(WorkItem* item);
  void _InitOnLoopThread();
  void _AsyncStop();
  void _ServeCalls();
  void _ArmCallService(bool fromPoll);
  void _AfterRun();
  void _RunFinalHere(const std::function<void()>& fn);
  void _ReclaimDeadLoops();
  static void _ReapLoop(uv_loop_t* loop);
  void _OnDelayTimer();
  void _StampTimersLocked();
  void _OnAsyncQueueWork();
  void _OnAfterWork(WorkItem* item, int status);
  void _WaitForWakers();
  int _Enqueue(CallItem* item, bool sync);
  static void _InvokeItem(CallItem* item);
  static void _DropItem(CallItem* item);
  static void _DropWork(WorkItem* item);

  static void _ThreadProc(void* arg);
  static void _OnAsyncStop_Static(uv_async_t* handle);
  static void _OnAsyncCall_Static(uv_async_t* handle);
  static void _OnCallCheck_Static(uv_check_t* handle);
  static void _OnCallIdle_Static(uv_idle_t* handle);
  static void _OnDelayTimer_Static(uv_timer_t* handle);
  static void _OnStampPrepare_Static(uv_prepare_t* handle);
  static void _OnStampCheck_Static(uv_check_t* handle);
  static void _OnAsyncQueueWork_Static(uv_async_t* handle);
  static void _OnWork_Static(uv_work_t* req);
  static void _OnAfterWork_Static(uv_work_t* req, int status);

  static constexpr std::uint32_t kStopping = 1;

  IOLoop* m_owner;
  std::atomic<uv_loop_t*> m_uvLoop{nullptr};
  uv_thread_t m_thread{};
  std::atomic<uv_thread_t> m_threadId{};
  std::atomic<std::uint32_t> m_flags{0};
  uv_async_t* m_stopAsync = nullptr;
  std::unique_ptr<Semaphore> m_startSem;

  // Each queue accepts only while its `open` flag is set; the loop thread sets it
  // at start and clears it, under the same mutex, when the stop sequence drains
  // the queue.  A caller reads the handle under that mutex too, so it can never
  // wake a handle that is closed or belongs to an earlier run.
  //
  // Queued calls are served in batches: each batch is the queue as it stood when
  // the batch began, served from a check handle, so that timers and a poll for
  // I/O come between two batches.  `m_callScheduled` says that a batch will come
  // without a further wake-up (a wake-up is pending, or the check handle is
  // armed); a post that finds it set pays no system call.  The idle handle keeps
  // the poll from blocking while calls wait for the next batch.
  uv_async_t* m_callAsync = nullptr;
  uv_check_t* m_callCheck = nullptr;
  uv_idle_t* m_callIdle = nullptr;
  std::vector<CallItem*> m_callQueue;
  std::vector<CallItem*> m_callBatch;  // loop thread only; keeps its capacity
  // A spin lock: every section under it is a push, a swap or a flag (and, once,
  // the creation of the call handles); see core/spin_lock.h.
  SpinLock m_callLock;
  bool m_callOpen = false;
  bool m_callScheduled = false;

  uv_timer_t* m_delayTimer = nullptr;
  std::vector<CallItem*> m_delayQueue;  // min-heap by due
  // Timers: a min-heap by due in [0, m_timerHeapSize), beside m_delayQueue,
  // then the armings made on the loop thread whose `due` still holds the delay.
  // The clock is read once for all of them when the running phase of the loop
  // ends, before the poll blocks (prepare) or right after the I/O callbacks
  // (check), whichever comes first, and they join the heap where they lie.  A
  // due time counted from then is never earlier than one counted from the call,
  // and later only by what ran after the call in the same phase.  The order of
  // the unstamped armings does not matter, so an arming from another thread or
  // a pop may swap one of them to the end.
  PodVector<TimerEntry> m_timerQueue;
  std::size_t m_timerHeapSize = 0;
  uv_prepare_t* m_stampPrepare = nullptr;
  uv_check_t* m_stampCheck = nullptr;
  // A spin lock: every section under it is a heap push or pop, a timer's few
  // fields, or a pass over armings just made; see core/spin_lock.h.
  SpinLock m_delayLock;
  bool m_delayOpen = false;

  uv_async_t* m_workAsync = nullptr;
  std::deque<WorkItem*> m_workQueue;
  uv_mutex_t m_workMutex;
  bool m_workOpen = false;

  // Callers between queueing an item and the end of their uv_async_send.  The stop
  // sequence waits for zero before it closes the async handles.
  std::atomic<int> m_wakers{0};

  // Jobs handed to uv_queue_work and not yet reported (loop thread only).  A stop
  // does not wait for them: those still running when the loop ends are handed,
  // with the libuv loop they report to, to a reaper thread.
  WorkItem* m_workInFlight = nullptr;
  std::size_t m_workInFlightCount = 0;
  bool m_draining = false;
  bool m_handedOff = false;  // the reaper owns this run's uv_loop_t (set before the join)

  // RunFinal items that came after the stop sequence drained m_callQueue; the
  // loop thread runs them after its last pass.  Guarded by m_callLock.
  std::deque<CallItem*> m_finalQueue;
  bool m_finalOpen = false;

  // Serialises Start, the end of Stop, and RunFinal on a thread standing in for
  // a loop thread that is gone.  Recursive: a teardown may release further objects.
  std::recursive_mutex m_lifeMutex;
  // Loops that could not be closed at Stop because handles were still open; a
  // late teardown that closes the last of them frees the loop.
  std::vector<uv_loop_t*> m_deadLoops;
};

}  // namespace zelsocket

#endif  // ZELSOCKET_SRC_LOOP_IO_LOOP_IMPL_H
