// Public header: the event loop, one libuv loop run by one background thread.
//
// Every socket, timer and channel belongs to one IOLoop and does all its work on
// that loop's thread.  Code reaches the loop thread with AsyncCall (run soon, do
// not wait), SyncCall (run and wait), DelayCall (run after a delay) and
// QueueWork (run on libuv's pool, report on the loop thread).
//
// Under load: each loop iteration serves at most about a millisecond of queued
// calls (the ones queued when it began), then runs the timers that are due and
// polls for I/O, so a flood of calls from any thread delays timers and sockets
// by about that much, not by the flood.
//
// Broken pipes: on POSIX, a write to a TCP peer that has gone raises SIGPIPE,
// whose default action ends the process.  The library changes no process-wide
// setting for this.  All socket writes are made on loop threads, and each loop
// thread blocks SIGPIPE in its own signal mask when it starts, so such a write
// fails with EPIPE and reaches the sink as an error.  The signal stays blocked
// for whatever else runs on a loop thread (sink callbacks, after-work
// functions), and libuv's pool threads, which libuv starts from the first loop
// thread that needs them, inherit the same mask.  Windows has no SIGPIPE.
#ifndef ZELSOCKET_IO_LOOP_H
#define ZELSOCKET_IO_LOOP_H

#include <functional>

#include "zelsocket/export.h"
#include "zelsocket/ref_count.h"

struct uv_loop_s;

namespace zelsocket {

// Callback form of AsyncCall, SyncCall and DelayCall.  The loop holds a reference
// to it while the call is queued.
class ZELSOCKET_API IAsyncCallback : public IRefCount {
 public:
  // Runs on the loop thread with the pointer given to the call.
  virtual void OnAsyncCall(void* data) = 0;
  // Runs on the loop thread instead of OnAsyncCall when the loop stops with the
  // call still queued, so that whatever `data` owns can be released.
  virtual void OnAsyncCallDropped(void* /*data*/) {}
};

// Callback form of QueueWork.
class ZELSOCKET_API IWorkCallback : public IRefCount {
 public:
  // Runs on a thread of libuv's pool.
  virtual void OnWork(void* data) = 0;
  // Runs on the loop thread after OnWork, with libuv's status (0, or
  // UV_ECANCELED-like errors).
  virtual void OnAfterWork(int status, void* data) = 0;
  // Runs instead of OnAfterWork (and instead of OnWork if that had not started)
  // when the loop stops before the job could report; `data` can be released
  // here, and nothing more should be done.  It runs on the loop thread, except
  // for a job whose OnWork was still running when the loop ended: Stop does not
  // wait for such a job, and its drop runs on a thread of the library once
  // OnWork has returned.
  virtual void OnWorkDropped(void* /*data*/) {}
};

class IOLoopImpl;

class ZELSOCKET_API IOLoop {
 public:
  IOLoop();  // stopped; starts nothing
  // The loop must be stopped before it is destroyed.
  ~IOLoop();
  IOLoop(const IOLoop&) = delete;
  IOLoop& operator=(const IOLoop&) = delete;

  // Starts the thread and blocks until it runs.  0, or -1 when already started,
  // stopping, or the loop or thread could not be created.
  int Start();
  // Blocks until the loop thread has ended, which it does once the call running
  // now (if any) returns: no queued call starts after Stop began.  What is still
  // queued is dropped without running (SyncCall callers waiting on it get -1),
  // and jobs whose OnWork is running are not waited for (see OnWorkDropped).
  // -1 when not running, already stopping, or called on the loop thread itself.
  int Stop();

  bool IsLoopThread() const;
  // The libuv loop; null when not started.  For creating handles on this loop.
  uv_loop_s* Loop();

  // All four return 0 when accepted, -1 for an empty function or null callback,
  // a loop that is not running or is stopping.
  // Never runs inline, not even on the loop thread.
  int AsyncCall(std::function<void()> fn);
  int AsyncCall(IAsyncCallback* callback, void* data);
  // Runs the target on the loop thread and returns after it; on the loop thread
  // it runs inline, ahead of everything queued.
  int SyncCall(std::function<void()> fn);
  int SyncCall(IAsyncCallback* callback, void* data);
  // Runs once `delayMs` has passed, counted from the call (0 or less: in a later
  // loop iteration, never inline), within about a millisecond when the loop is
  // not busy.  Calls with equal due times have no order among them.
  int DelayCall(int delayMs, std::function<void()> fn);
  int DelayCall(int delayMs, IAsyncCallback* callback, void* data);
  // OnWork on libuv's pool, then OnAfterWork on the loop thread.  A negative
  // libuv status when the submission failed.
  int QueueWork(IWorkCallback* callback, void* data);

  // The loop whose thread calls this, or null.
  static IOLoop* CurrentLoop();
  // The process-wide default loop, created and started on first use; null if
  // that start failed (the next call tries again).  Never stopped by the library.
  static IOLoop* DefaultLoop();
  // CurrentLoop if not null, else DefaultLoop.
  static IOLoop* GetLoop();

 private:
  friend class IOLoopImpl;
  IOLoopImpl* _impl;
};

}  // namespace zelsocket

#endif  // ZELSOCKET_IO_LOOP_H
