#include "loop/async_impl.h"

#include "core/logging.h"
#include "zelsocket/async.h"

namespace zelsocket {

AsyncImpl::AsyncImpl(IOLoop* loop) : m_loop(loop ? loop : IOLoop::GetLoop()) {}

int AsyncImpl::AsyncCall(std::function<void()> fn) {
  if (!m_loop) return kNoLoop;
  if (!fn) return -1;
  return Post(std::move(fn));
}

int AsyncImpl::_Post(Call* call) {
  int rc = IOLoopImpl::Of(m_loop)->PostItem(call);  // owns `call` from here on
  if (rc != 0) LogError(tag::kAsync, "AsyncCall, AsyncCallSafe fail, ret=%d, %s", rc, uv_strerror(rc));
  return rc;
}

void AsyncImpl::Cancel() { m_epoch.fetch_add(1, std::memory_order_acq_rel); }

// The loop deletes the call afterwards, which may drop the last reference to
// this object.
void AsyncImpl::_Run(Call& call) {
  if (call.epoch == m_epoch.load(std::memory_order_acquire)) {
    call.Invoke();
  } else {
    LogInfo(tag::kAsync, "AsyncImpl::_AsyncCallback, AsyncCall Canceled, Cookie=%u.", call.cookie);
  }
}

Async::Async(IOLoop* loop) : _impl(new AsyncImpl(loop)) {}

Async::~Async() {
  _impl->Cancel();
  _impl->Release();
}

int Async::AsyncCall(std::function<void()> fn) { return _impl->AsyncCall(std::move(fn)); }

void Async::Cancel() { _impl->Cancel(); }

}  // namespace zelsocket
