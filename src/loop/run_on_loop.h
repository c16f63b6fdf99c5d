// Internal: the blocking hop of the sockets and the channel.
#ifndef ZELSOCKET_SRC_LOOP_RUN_ON_LOOP_H
#define ZELSOCKET_SRC_LOOP_RUN_ON_LOOP_H

#include <functional>
#include <utility>

#include "zelsocket/io_loop.h"

namespace zelsocket {

// Runs `fn` on the thread of `loop` and returns when it has run: inline when the
// caller is that thread, else through SyncCall.  False when it could not run:
// no loop, or a loop that is not running (or dropped the call while stopping).
template <typename Fn>
bool RunOnLoop(IOLoop* loop, Fn&& fn) {
  if (!loop) return false;
  if (loop->IsLoopThread()) {
    fn();
    return true;
  }
  return loop->SyncCall(std::forward<Fn>(fn)) == 0;
}

// The teardown of an object whose last reference may go on any thread: runs
// `fn` on the loop thread whatever state the loop is in (see
// IOLoopImpl::RunFinal), or inline when the object has no loop at all.
void RunFinalOnLoop(IOLoop* loop, const std::function<void()>& fn);

}  // namespace zelsocket

#endif  // ZELSOCKET_SRC_LOOP_RUN_ON_LOOP_H
