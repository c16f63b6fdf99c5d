#include "loop/async_impl.h"

#include <algorithm>

#include "core/logging.h"
#include "zelsocket/async.h"

namespace zelsocket {

namespace {
constexpr int kNoLoop = -100001;
}  // namespace

AsyncImpl::AsyncImpl(IOLoop* loop) : m_loop(loop ? loop : IOLoop::GetLoop()) {
  m_anchor.Attach(new CallbackAnchor<AsyncImpl>(this, &AsyncImpl::_AsyncCallback, &AsyncImpl::_AsyncDropped));
}

AsyncImpl::~AsyncImpl() { m_anchor->Disconnect(); }

int AsyncImpl::AsyncCall(std::function<void()> fn) {
  if (!m_loop) return kNoLoop;
  if (!fn) return -1;
  std::uint32_t cookie = m_cookies.GetCookie();
  auto* ctx = new AsyncCtx{cookie, RefPtr<AsyncImpl>(this), std::move(fn)};
  {
    // Listed before it is posted, so the callback cannot run ahead of it.
    AutoMutexLock lock(m_mutex);
    m_pending.push_back(cookie);
  }
  int rc = m_loop->AsyncCall(m_anchor, ctx);
  if (rc == 0) return 0;
  _TakePending(cookie);
  delete ctx;
  LogError(tag::kAsync, "AsyncCall, AsyncCallSafe fail, ret=%d, %s", rc, uv_strerror(rc));
  return rc;
}

void AsyncImpl::Cancel() {
  AutoMutexLock lock(m_mutex);
  m_pending.clear();
}

// Calls usually finish in posting order, so the search ends at the front.
bool AsyncImpl::_TakePending(std::uint32_t cookie) {
  AutoMutexLock lock(m_mutex);
  auto it = std::find(m_pending.begin(), m_pending.end(), cookie);
  if (it == m_pending.end()) return false;
  m_pending.erase(it);
  return true;
}

void AsyncImpl::_AsyncCallback(void* data) {
  auto* ctx = static_cast<AsyncCtx*>(data);
  if (_TakePending(ctx->cookie)) {
    ctx->fn();
  } else {
    LogInfo(tag::kAsync, "AsyncImpl::_AsyncCallback, AsyncCall Canceled, Cookie=%u.", ctx->cookie);
  }
  // May drop the last reference to this object.
  delete ctx;
}

void AsyncImpl::_AsyncDropped(void* data) {
  auto* ctx = static_cast<AsyncCtx*>(data);
  _TakePending(ctx->cookie);
  delete ctx;
}

Async::Async(IOLoop* loop) : _impl(new AsyncImpl(loop)) {}

Async::~Async() {
  _impl->Cancel();
  _impl->Release();
}

int Async::AsyncCall(std::function<void()> fn) { return _impl->AsyncCall(std::move(fn)); }

void Async::Cancel() { _impl->Cancel(); }

}  // namespace zelsocket
