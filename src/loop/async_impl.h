// Internal: the implementation behind Async.
#ifndef ZELSOCKET_SRC_LOOP_ASYNC_IMPL_H
#define ZELSOCKET_SRC_LOOP_ASYNC_IMPL_H

#include <atomic>
#include <cstdint>
#include <functional>
#include <type_traits>
#include <utility>

#include "loop/io_loop_impl.h"
#include "zelsocket/async.h"
#include "zelsocket/sync.h"

namespace zelsocket {

// Cancellation is an epoch: each call carries the epoch of its posting, Cancel
// moves the epoch on, and a call runs only if its epoch is still current when
// the loop comes to it.  That is "every call posted so far that has not
// started", with one atomic read per call and no list to keep or search, so a
// call costs the same however many are pending, and nothing is locked.
class AsyncImpl : public RefCount {
 public:
  explicit AsyncImpl(IOLoop* loop);

  static AsyncImpl* Of(Async* async) { return async->_impl; }

  int AsyncCall(std::function<void()> fn);
  // AsyncCall for the library's own callables: `fn` lives in the queued record
  // itself, so a call costs one allocation however much it captures.
  template <typename Fn>
  int Post(Fn&& fn) {
    if (!m_loop) return kNoLoop;
    return _Post(new CallOf<typename std::decay<Fn>::type>(m_cookies.GetCookie(),
                                                           m_epoch.load(std::memory_order_acquire), this,
                                                           std::forward<Fn>(fn)));
  }
  void Cancel();

  static constexpr int kNoLoop = -100001;

 private:
  // The loop's queue item itself, so that a call is one allocation.
  struct Call : CallItem {
    Call(std::uint32_t c, std::uint64_t e, AsyncImpl* owner) : cookie(c), epoch(e), self(owner) {}
    void Run() override { self->_Run(*this); }
    void Drop() override {}
    virtual void Invoke() = 0;
    std::uint32_t cookie;
    std::uint64_t epoch;
    RefPtr<AsyncImpl> self;  // the call may outlive the Async that posted it
  };
  template <typename Fn>
  struct CallOf final : Call {
    template <typename G>
    CallOf(std::uint32_t c, std::uint64_t e, AsyncImpl* owner, G&& g) : Call(c, e, owner), fn(std::forward<G>(g)) {}
    void Invoke() override { fn(); }
    Fn fn;
  };

  int _Post(Call* call);
  void _Run(Call& call);

  IOLoop* m_loop;
  CookieMgr m_cookies;
  // 64 bits: a pending call never meets its own epoch again after a wrap.
  std::atomic<std::uint64_t> m_epoch{0};
};

}  // namespace zelsocket

#endif  // ZELSOCKET_SRC_LOOP_ASYNC_IMPL_H
