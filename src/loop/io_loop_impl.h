// Internal: the loop thread, its queues and its four libuv handles.
#ifndef ZELSOCKET_SRC_LOOP_IO_LOOP_IMPL_H
#define ZELSOCKET_SRC_LOOP_IO_LOOP_IMPL_H

#include <uv.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <vector>

#include "zelsocket/io_loop.h"
#include "zelsocket/sync.h"

namespace zelsocket {

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

  int AsyncCallSafe(IAsyncCallback* callback, void* data, bool sync, std::function<void()> fn);
  int DelayCallSafe(int delayMs, IAsyncCallback* callback, void* data, std::function<void()> fn);
  int QueueWork(IWorkCallback* callback, void* data);

  // Items queued now; for tests and the benchmarks.
  std::size_t PendingDelayCalls();

 private:
  // What a SyncCall from another thread waits on.  Lives on the caller's stack.
  struct SyncWait {
    Semaphore sem;
    bool dropped = false;  // written before the post, read after the wait
  };

  struct CallItem {
    SyncWait* sync = nullptr;
    std::int64_t due = 0;
    void* data = nullptr;
    std::function<void()> fn;
    RefPtr<IAsyncCallback> cb;
  };

  struct WorkItem {
    uv_work_t req;
    IOLoopImpl* owner = nullptr;
    RefPtr<IWorkCallback> cb;
    void* data = nullptr;
    // Links of the list of jobs handed to libuv's pool (loop thread only).
    WorkItem* prev = nullptr;
    WorkItem* next = nullptr;
  };

  struct DueLater {
    bool operator()(const CallItem* a, const CallItem* b) const { return a->due > b->due; }
  };

  bool _StopBegun() const;
  bool _Refusing() const;
  int _SubmitWork(WorkItem* item);
  void _InitOnLoopThread();
  void _AsyncStop();
  void _AsyncCall();
  void _OnDelayTimer();
  void _OnAsyncQueueWork();
  void _OnAfterWork(WorkItem* item, int status);
  void _WaitForWakers();
  static void _InvokeItem(CallItem* item);
  static void _DropItem(CallItem* item);
  static void _DropWork(WorkItem* item);

  static void _ThreadProc(void* arg);
  static void _OnAsyncStop_Static(uv_async_t* handle);
  static void _OnAsyncCall_Static(uv_async_t* handle);
  static void _OnDelayTimer_Static(uv_timer_t* handle);
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
  uv_async_t* m_callAsync = nullptr;
  std::deque<CallItem*> m_callQueue;
  uv_mutex_t m_callMutex;
  bool m_callOpen = false;

  uv_timer_t* m_delayTimer = nullptr;
  std::vector<CallItem*> m_delayQueue;  // min-heap by due
  uv_mutex_t m_delayMutex;
  bool m_delayOpen = false;

  uv_async_t* m_workAsync = nullptr;
  std::deque<WorkItem*> m_workQueue;
  uv_mutex_t m_workMutex;
  bool m_workOpen = false;

  // Callers between queueing an item and the end of their uv_async_send.  The stop
  // sequence waits for zero before it closes the async handles.
  std::atomic<int> m_wakers{0};

  // Jobs handed to uv_queue_work and not yet reported (loop thread only).  A stop
  // waits for them, so that their records are released on the loop thread.
  WorkItem* m_workInFlight = nullptr;
  std::size_t m_workInFlightCount = 0;
  bool m_draining = false;
};

}  // namespace zelsocket

#endif  // ZELSOCKET_SRC_LOOP_IO_LOOP_IMPL_H
