#include "loop/sequence_work_impl.h"

#include "core/check.h"
#include "core/logging.h"
#include "zelsocket/work.h"

namespace zelsocket {

SequenceWorkImpl::SequenceWorkImpl(IOLoop* loop) : m_loop(loop ? loop : IOLoop::GetLoop()) {
  m_anchor.Attach(new WorkCallbackAnchor<SequenceWorkImpl>(this, &SequenceWorkImpl::_OnWork,
                                                           &SequenceWorkImpl::_OnAfterWork,
                                                           &SequenceWorkImpl::_OnWorkDropped));
}

SequenceWorkImpl::~SequenceWorkImpl() {
  m_anchor->Disconnect();
  // Every job holds a reference, so none can be left when the count reaches 0.
  ZS_DCHECK(m_current == nullptr && m_pending.empty());
}

int SequenceWorkImpl::QueueWork(std::function<void()> work, std::function<void(int)> afterWork) {
  if (!m_loop || !work || !afterWork) return -1;
  auto* job = new SequenceWorkCtx();
  job->self = this;
  job->cookie = m_cookies.GetCookie();
  job->work = std::move(work);
  job->afterWork = std::move(afterWork);

  int rc;
  {
    // Guarded, so that a failed allocation cannot leave the lock held.
    AutoMutexLock lock(m_mutex);
    if (m_current) {
      m_pending.push_back(job);
      return 0;
    }
    // Held across the hand-over so that two threads cannot both start a job.  The
    // loop takes its own work lock inside and never calls back with it held.
    m_current = job;
    rc = m_loop->QueueWork(m_anchor, job);
    if (rc != 0) m_current = nullptr;
  }
  if (rc == 0) return 0;
  LogInfo(tag::kWork, "SequenceWorkImpl::QueueWork, QueueWork fail, ret=%d", rc);
  delete job;  // `this` is still held by the caller
  return rc;
}

void SequenceWorkImpl::Cancel() {
  std::deque<SequenceWorkCtx*> dropped;
  {
    AutoMutexLock lock(m_mutex);
    if (m_current) m_current->canceled.store(true, std::memory_order_relaxed);
    dropped.swap(m_pending);
  }
  // Outside the lock: the destructors of the application's functions may do
  // anything, QueueWork on this object included.
  for (SequenceWorkCtx* job : dropped) delete job;
}

std::size_t SequenceWorkImpl::PendingCount() {
  AutoMutexLock lock(m_mutex);
  return m_pending.size();
}

void SequenceWorkImpl::_OnWork(void* data) {
  auto* job = static_cast<SequenceWorkCtx*>(data);
  if (job->canceled.load(std::memory_order_relaxed)) {
    LogInfo(tag::kWork, "SequenceWorkImpl::_OnWork, canceled, cookie=%u", job->cookie);
    return;
  }
  job->work();
}

void SequenceWorkImpl::_OnAfterWork(int status, void* /*data*/) {
  ZS_ASSERT_LOOP_THREAD(m_loop);
  for (;;) {
    SequenceWorkCtx* job;
    {
      AutoMutexLock lock(m_mutex);
      job = m_current;
    }
    ZS_DCHECK(job != nullptr);
    if (!job->canceled.load(std::memory_order_relaxed)) {
      job->afterWork(status);
    } else {
      LogInfo(tag::kWork, "SequenceWorkImpl::_OnAfterWork, canceled, cookie=%u, pending=%u", job->cookie,
              static_cast<unsigned>(PendingCount()));
    }
    SequenceWorkCtx* next = nullptr;
    {
      AutoMutexLock lock(m_mutex);
      m_current = nullptr;
      if (!m_pending.empty()) {
        next = m_pending.front();
        m_pending.pop_front();
        m_current = next;
      }
    }
    // May drop the last reference to this object; only a taken job keeps it.
    delete job;
    if (!next) return;
    int rc = m_loop->QueueWork(m_anchor, next);
    if (rc == 0) return;
    LogInfo(tag::kWork, "SequenceWorkImpl::_OnAfterWork, QueueWork fail, ret=%d", rc);
    status = -1;
  }
}

// A stopping loop hands back the current job without running it.  Nothing more
// can run on this loop, so the waiting jobs go too, and the object is idle
// again: a later QueueWork meets the stopped loop and is refused.  Like
// WorkImpl::_OnWorkDropped, it may run on the thread that reaps an ended loop.
void SequenceWorkImpl::_OnWorkDropped(void* data) {
  auto* job = static_cast<SequenceWorkCtx*>(data);
  std::deque<SequenceWorkCtx*> dropped;
  {
    AutoMutexLock lock(m_mutex);
    if (m_current == job) m_current = nullptr;
    dropped.swap(m_pending);
  }
  for (SequenceWorkCtx* waiting : dropped) delete waiting;
  delete job;  // may drop the last reference to this object
}

SequenceWork::SequenceWork(IOLoop* loop) : _impl(new SequenceWorkImpl(loop)) {}

SequenceWork::~SequenceWork() {
  _impl->Cancel();
  _impl->Release();
}

int SequenceWork::QueueWork(std::function<void()> work, std::function<void(int)> afterWork) {
  return _impl->QueueWork(std::move(work), std::move(afterWork));
}

void SequenceWork::Cancel() { _impl->Cancel(); }

}  // namespace zelsocket
