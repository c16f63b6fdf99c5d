// Internal: the implementation behind Async.
#ifndef ZELSOCKET_SRC_LOOP_ASYNC_IMPL_H
#define ZELSOCKET_SRC_LOOP_ASYNC_IMPL_H

#include <cstdint>
#include <deque>
#include <functional>

#include "loop/callback_anchor.h"
#include "zelsocket/sync.h"

namespace zelsocket {

class AsyncImpl : public RefCount {
 public:
  explicit AsyncImpl(IOLoop* loop);
  ~AsyncImpl() override;

  int AsyncCall(std::function<void()> fn);
  void Cancel();

 private:
  struct AsyncCtx {
    std::uint32_t cookie;
    RefPtr<AsyncImpl> self;
    std::function<void()> fn;
  };

  bool _TakePending(std::uint32_t cookie);
  void _AsyncCallback(void* data);
  void _AsyncDropped(void* data);

  IOLoop* m_loop;
  Mutex m_mutex;
  CookieMgr m_cookies;
  std::deque<std::uint32_t> m_pending;  // posted, neither started nor cancelled
  RefPtr<CallbackAnchor<AsyncImpl>> m_anchor;
};

}  // namespace zelsocket

#endif  // ZELSOCKET_SRC_LOOP_ASYNC_IMPL_H
