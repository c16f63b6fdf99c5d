// Internal: the implementation behind SequenceWork.
#ifndef ZELSOCKET_SRC_LOOP_SEQUENCE_WORK_IMPL_H
#define ZELSOCKET_SRC_LOOP_SEQUENCE_WORK_IMPL_H

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>

#include "loop/callback_anchor.h"
#include "zelsocket/sync.h"

namespace zelsocket {

// Owns its waiting jobs and gives the loop one at a time (`m_current`); the next
// one is handed over from the after-work report of the previous one.
class SequenceWorkImpl : public RefCount {
 public:
  explicit SequenceWorkImpl(IOLoop* loop);
  ~SequenceWorkImpl() override;

  int QueueWork(std::function<void()> work, std::function<void(int)> afterWork);
  void Cancel();

  // Jobs waiting behind the current one; for tests.
  std::size_t PendingCount();

 private:
  struct SequenceWorkCtx {
    RefPtr<SequenceWorkImpl> self;
    // Written under m_mutex, read without it by the pool thread: a job that
    // reads it too early simply runs, and its report still sees the flag.
    std::atomic<bool> canceled{false};
    std::uint32_t cookie = 0;
    std::function<void()> work;
    std::function<void(int)> afterWork;
  };

  void _OnWork(void* data);
  void _OnAfterWork(int status, void* data);
  void _OnWorkDropped(void* data);

  IOLoop* m_loop;
  Mutex m_mutex;
  CookieMgr m_cookies;
  SequenceWorkCtx* m_current = nullptr;  // the job the loop holds; null when idle
  std::deque<SequenceWorkCtx*> m_pending;  // oldest first; empty while idle
  RefPtr<WorkCallbackAnchor<SequenceWorkImpl>> m_anchor;
};

}  // namespace zelsocket

#endif  // ZELSOCKET_SRC_LOOP_SEQUENCE_WORK_IMPL_H
