#include "loop/work_impl.h"

#include <algorithm>

#include "core/check.h"
#include "core/logging.h"
#include "zelsocket/work.h"

namespace zelsocket {

WorkImpl::WorkImpl(IOLoop* loop) : m_loop(loop ? loop : IOLoop::GetLoop()) {
  m_anchor.Attach(new WorkCallbackAnchor<WorkImpl>(this, &WorkImpl::_OnWork, &WorkImpl::_OnAfterWork,
                                                   &WorkImpl::_OnWorkDropped));
}

WorkImpl::~WorkImpl() { m_anchor->Disconnect(); }

int WorkImpl::QueueWork(std::function<void()> work, std::function<void(int)> afterWork) {
  if (!m_loop || !work || !afterWork) return -1;
  std::uint32_t cookie = m_cookies.GetCookie();
  auto* ctx = new WorkCtx{cookie, RefPtr<WorkImpl>(this), std::move(work), std::move(afterWork)};
  {
    // Listed before it is queued, so that the pool cannot run ahead of it.
    AutoMutexLock lock(m_mutex);
    m_pending.push_back(cookie);
  }
  int rc = m_loop->QueueWork(m_anchor, ctx);
  if (rc == 0) return 0;
  _TakePending(cookie);
  delete ctx;
  LogError(tag::kWork, "WorkImpl::QueueWork, QueueWork fail, ret=%d", rc);
  return rc;
}

void WorkImpl::Cancel() {
  AutoMutexLock lock(m_mutex);
  m_pending.clear();
}

// Jobs usually report roughly in queueing order, so searches end near the front.
bool WorkImpl::_IsPending(std::uint32_t cookie) {
  AutoMutexLock lock(m_mutex);
  return std::find(m_pending.begin(), m_pending.end(), cookie) != m_pending.end();
}

bool WorkImpl::_TakePending(std::uint32_t cookie) {
  AutoMutexLock lock(m_mutex);
  auto it = std::find(m_pending.begin(), m_pending.end(), cookie);
  if (it == m_pending.end()) return false;
  m_pending.erase(it);
  return true;
}

void WorkImpl::_OnWork(void* data) {
  auto* ctx = static_cast<WorkCtx*>(data);
  if (_IsPending(ctx->cookie)) {
    ctx->work();
  } else {
    LogInfo(tag::kWork, "WorkImpl::_OnWork, canceled, cookie=%u", ctx->cookie);
  }
}

void WorkImpl::_OnAfterWork(int status, void* data) {
  ZS_ASSERT_LOOP_THREAD(m_loop);
  auto* ctx = static_cast<WorkCtx*>(data);
  if (_TakePending(ctx->cookie)) {
    ctx->afterWork(status);
  } else {
    LogInfo(tag::kWork, "WorkImpl::_OnAfterWork, Canceled, cookie=%u", ctx->cookie);
  }
  // Drops `self`, possibly the last reference to this object.
  delete ctx;
}

// A stopping loop hands the job back without running it: release the record,
// call nothing of the application.  On the loop thread, or, for a job that was
// still running when its loop ended, on the thread that reaps that loop; only
// locked state is touched.
void WorkImpl::_OnWorkDropped(void* data) {
  auto* ctx = static_cast<WorkCtx*>(data);
  _TakePending(ctx->cookie);
  delete ctx;
}

Work::Work(IOLoop* loop) : _impl(new WorkImpl(loop)) {}

Work::~Work() {
  _impl->Cancel();
  _impl->Release();
}

int Work::QueueWork(std::function<void()> work, std::function<void(int)> afterWork) {
  return _impl->QueueWork(std::move(work), std::move(afterWork));
}

void Work::Cancel() { _impl->Cancel(); }

}  // namespace zelsocket
