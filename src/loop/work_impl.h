// Internal: the implementation behind Work.
#ifndef ZELSOCKET_SRC_LOOP_WORK_IMPL_H
#define ZELSOCKET_SRC_LOOP_WORK_IMPL_H

#include <cstdint>
#include <deque>
#include <functional>

#include "loop/callback_anchor.h"
#include "zelsocket/sync.h"

namespace zelsocket {

// Cancelling only forgets cookies; each job looks its cookie up when it runs and
// when it reports, so the records can stay with the loop until they come back.
class WorkImpl : public RefCount {
 public:
  explicit WorkImpl(IOLoop* loop);
  ~WorkImpl() override;

  int QueueWork(std::function<void()> work, std::function<void(int)> afterWork);
  void Cancel();

 private:
  struct WorkCtx {
    std::uint32_t cookie;
    RefPtr<WorkImpl> self;
    std::function<void()> work;
    std::function<void(int)> afterWork;
  };

  bool _IsPending(std::uint32_t cookie);
  bool _TakePending(std::uint32_t cookie);
  void _OnWork(void* data);
  void _OnAfterWork(int status, void* data);
  void _OnWorkDropped(void* data);

  IOLoop* m_loop;
  Mutex m_mutex;
  CookieMgr m_cookies;
  std::deque<std::uint32_t> m_pending;  // queued, neither reported nor cancelled
  RefPtr<WorkCallbackAnchor<WorkImpl>> m_anchor;
};

}  // namespace zelsocket

#endif  // ZELSOCKET_SRC_LOOP_WORK_IMPL_H
