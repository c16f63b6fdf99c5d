// Public header: posted functions that can be cancelled until they start.
#ifndef ZELSOCKET_ASYNC_H
#define ZELSOCKET_ASYNC_H

#include <functional>

#include "zelsocket/export.h"

namespace zelsocket {

class IOLoop;
class AsyncImpl;

// Posts functions to a loop and can cancel all of them that have not started.
// Functions run on the loop thread in posting order.  An Async may be destroyed
// at any moment on any thread: nothing it posted starts after that (a function
// already running on the loop thread finishes).
class ZELSOCKET_API Async {
 public:
  explicit Async(IOLoop* loop = nullptr);  // null: IOLoop::GetLoop()
  ~Async();                                // Cancel, then let go
  Async(const Async&) = delete;
  Async& operator=(const Async&) = delete;

  // 0 posted; -100001 no loop; -1 empty function, or the loop refused.
  int AsyncCall(std::function<void()> fn);
  // Cancels every call posted so far that has not started.  Does not wait.
  void Cancel();

 private:
  friend class AsyncImpl;
  AsyncImpl* _impl;
};

}  // namespace zelsocket

#endif  // ZELSOCKET_ASYNC_H
