#include "loop/async_impl.h"

#include "core/logging.h"
#include "zelsocket/async.h"

namespace zelsocket {

AsyncImpl::AsyncImpl(IOLoop* loop) : m_loop(loop ? loop : IOLoop::GetLoop()) {
  m_anchor.Attach(new CallbackAnchor<AsyncImpl>(this, &AsyncImpl::_AsyncCallback, &AsyncImpl::_AsyncDropped));
}

AsyncImpl::~AsyncImpl() { m_anchor->Disconnect(); }

int AsyncImpl::AsyncCall(std::function<void()> fn) {
  if (!m_loop) return kNoLoop;
  if (!fn) return -1;
  return Post(std::move(fn));
}

int AsyncImpl::_Post(Call* call) {
  int rc = m_loop->AsyncCall(m_anchor, call);
  if (rc == 0) return 0;
  delete call;
  LogError(tag::kAsync, "AsyncCall, AsyncCallSafe fail, ret=%d, %s", rc, uv_strerror(rc));
  return rc;
}

void AsyncImpl::Cancel() { m_epoch.fetch_add(1, std::memory_order_acq_rel); }

void AsyncImpl::_AsyncCallback(void* data) {
  auto* call = static_cast<Call*>(data);
  if (call->epoch == m_epoch.load(std::memory_order_acquire)) {
    call->Run();
  } else {
    LogInfo(tag::kAsync, "AsyncImpl::_AsyncCallback, AsyncCall Canceled, Cookie=%u.", call->cookie);
  }
  // May drop the last reference to this object.
  delete call;
}

void AsyncImpl::_AsyncDropped(void* data) { delete static_cast<Call*>(data); }

Async::Async(IOLoop* loop) : _impl(new AsyncImpl(loop)) {}

Async::~Async() {
  _impl->Cancel();
  _impl->Release();
}

int Async::AsyncCall(std::function<void()> fn) { return _impl->AsyncCall(std::move(fn)); }

void Async::Cancel() { _impl->Cancel(); }

}  // namespace zelsocket
