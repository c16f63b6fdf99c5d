// Internal: the blocking hop of the sockets and the channel.
#ifndef ZELSOCKET_SRC_LOOP_RUN_ON_LOOP_H
#define ZELSOCKET_SRC_LOOP_RUN_ON_LOOP_H

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

}  // namespace zelsocket

#endif  // ZELSOCKET_SRC_LOOP_RUN_ON_LOOP_H
