// Internal: the loop thread, its lifecycle, and the queues that cross onto it.
#ifndef ZELSOCKET_SRC_LOOP_IO_LOOP_IMPL_H
#define ZELSOCKET_SRC_LOOP_IO_LOOP_IMPL_H

#include <uv.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "core/parking_lock.h"
#include "loop/call_queue.h"
#include "loop/timer_queue.h"
#include "zelsocket/io_loop.h"
#include "zelsocket/sync.h"

namespace zelsocket {

// The loop's parts, each in a file of its own: the call queue
// (call_queue.cc), the delayed calls and timer armings (timer_queue.cc), and
// here the thread, its start and stop, the teardowns that must run whatever
// state the loop is in, and the jobs handed to libuv's pool.
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
  // A stop has begun: no call starts any more, and new ones are refused.
  bool StopBegun() const { return (m_flags.load(std::memory_order_acquire) & kStopping) != 0; }
  // Not running, or stopping: calls are refused.
  bool Refusing() const { return Loop() == nullptr || StopBegun(); }

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

  TimerQueue& Timers() { return m_timers; }

 private:
  struct WorkItem {
    uv_work_t req;
    IOLoopImpl* owner = nullptr;
    RefPtr<IWorkCallback> cb;
    void* data = nullptr;
    // Set when the loop ended with the job still on the pool: whoever reaps the
    // loop then drops the record without touching its IOLoopImpl.
    bool orphan = false;
    // Links of the submission queue, then of the list of jobs on the pool.
    WorkItem* prev = nullptr;
    WorkItem* next = nullptr;
  };

  int _SubmitWork(WorkItem* item);
  void _InitOnLoopThread();
  void _AsyncStop();
  void _CloseWorkQueue();
  void _AfterRun();
  void _RunFinalHere(const std::function<void()>& fn);
  void _ReclaimDeadLoops();
  static void _ReapLoop(uv_loop_t* loop);
  void _OnAsyncQueueWork();
  void _OnAfterWork(WorkItem* item, int status);
  static void _DropWork(WorkItem* item);

  static void _ThreadProc(void* arg);
  static void _OnAsyncStop_Static(uv_async_t* handle);
  static void _OnAsyncQueueWork_Static(uv_async_t* handle);
  static void _OnWork_Static(uv_work_t* req);
  static void _OnAfterWork_Static(uv_work_t* req, int status);

  static constexpr std::uint32_t kStopping = 1;

  IOLoop* m_owner;
  std::atomic<uv_loop_t*> m_uvLoop{nullptr};
  uv_thread_t m_thread{};
  std::atomic<const void*> m_threadId{nullptr};  // the loop thread, or a thread standing in for it
  std::atomic<std::uint32_t> m_flags{0};
  uv_async_t* m_stopAsync = nullptr;
  std::unique_ptr<Semaphore> m_startSem;

  CallQueue m_calls;
  TimerQueue m_timers;

  // Work submitted from other threads; every submitter wakes the loop itself.
  ParkingLock m_workLock;
  WorkItem* m_workHead = nullptr;  // guarded by m_workLock, as are the three below
  WorkItem* m_workTail = nullptr;
  std::size_t m_workCount = 0;
  uv_async_t* m_workAsync = nullptr;
  std::atomic<int> m_workWakers{0};  // between reading m_workAsync and the end of its send

  // Jobs handed to uv_queue_work and not yet reported (loop thread only).  A stop
  // does not wait for them: those still running when the loop ends are handed,
  // with the libuv loop they report to, to a reaper thread.
  WorkItem* m_workInFlight = nullptr;
  std::size_t m_workInFlightCount = 0;
  bool m_draining = false;
  bool m_handedOff = false;  // the reaper owns this run's uv_loop_t (set before the join)

  // Serialises Start, the end of Stop, and RunFinal on a thread standing in for
  // a loop thread that is gone.  Recursive: a teardown may release further objects.
  std::recursive_mutex m_lifeMutex;
  // Loops that could not be closed at Stop because handles were still open; a
  // late teardown that closes the last of them frees the loop.
  std::vector<uv_loop_t*> m_deadLoops;
};

}  // namespace zelsocket

#endif  // ZELSOCKET_SRC_LOOP_IO_LOOP_IMPL_H
