// Public header: background jobs on libuv's thread pool, with a Cancel.
//
// A job is a pair of functions: `work` runs on a pool thread, then `afterWork`
// runs on the loop thread with a status.  Work hands every job to the pool at
// once (jobs may overlap and report in any order); SequenceWork hands over one
// job at a time, so that work 1, after-work 1, work 2, after-work 2 ... follow
// strictly one after another.  Both share the process-wide pool of libuv: long
// work functions hold up other jobs of the process.  When the loop stops, jobs
// that have not reported are released without calling either function (a
// running work function still runs to its end).
#ifndef ZELSOCKET_WORK_H
#define ZELSOCKET_WORK_H

#include <functional>

#include "zelsocket/export.h"

namespace zelsocket {

class IOLoop;
class WorkImpl;
class SequenceWorkImpl;

// Concurrent jobs.  May be used and destroyed on any thread, with jobs in
// flight: destruction cancels and does not wait.
class ZELSOCKET_API Work {
 public:
  explicit Work(IOLoop* loop = nullptr);  // null: IOLoop::GetLoop()
  ~Work();                                // Cancel, then let go
  Work(const Work&) = delete;
  Work& operator=(const Work&) = delete;

  // Queues one job; both functions are required.  afterWork gets 0 when `work`
  // has run, or a negative libuv status.  Returns 0, -1 for no loop or an empty
  // function, or the error of IOLoop::QueueWork (nothing of the job remains).
  int QueueWork(std::function<void()> work, std::function<void(int)> afterWork);
  // Jobs not yet started never run; jobs running finish, but no after-work
  // function of a job queued so far is called.  Does not wait.
  void Cancel();

 private:
  WorkImpl* _impl;
};

// Jobs run one at a time in the order of QueueWork; each after-work function
// returns before the next work function starts.  A QueueWork from inside an
// after-work function goes behind the jobs that already wait.
class ZELSOCKET_API SequenceWork {
 public:
  explicit SequenceWork(IOLoop* loop = nullptr);  // null: IOLoop::GetLoop()
  ~SequenceWork();                                // Cancel, then let go
  SequenceWork(const SequenceWork&) = delete;
  SequenceWork& operator=(const SequenceWork&) = delete;

  // As Work::QueueWork.  afterWork may also get -1: the job could not be handed
  // to the pool (the loop no longer takes work) and `work` has not run.
  int QueueWork(std::function<void()> work, std::function<void(int)> afterWork);
  // Destroys the waiting jobs at once, on the calling thread (what their
  // functions hold is released here); the current job is skipped, or finishes
  // without its after-work call.  Does not wait.
  void Cancel();

 private:
  SequenceWorkImpl* _impl;
};

}  // namespace zelsocket

#endif  // ZELSOCKET_WORK_H
