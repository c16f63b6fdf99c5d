// Helpers of the loop tests: a recording callback and ways to hold or drain a loop.
#ifndef ZELSOCKET_TESTS_LOOP_LOOP_TEST_UTIL_H
#define ZELSOCKET_TESTS_LOOP_LOOP_TEST_UTIL_H

#include <atomic>
#include <functional>
#include <memory>
#include <vector>

#include "support/test_support.h"
#include "zelsocket/io_loop.h"
#include "zelsocket/sync.h"

namespace zstest {

struct Record {
  std::vector<void*> calls, dropped;
  std::atomic<int> destroyed{0};
};

// Both callback forms of the loop, recording what reaches them.
class Callback : public zelsocket::RefCount, public zelsocket::IAsyncCallback, public zelsocket::IWorkCallback {
 public:
  explicit Callback(Record& record) : m_record(record) {}
  ~Callback() override { ++m_record.destroyed; }
  int AddRef() override { return RefCount::AddRef(); }
  int Release() override { return RefCount::Release(); }
  void OnAsyncCall(void* data) override { m_record.calls.push_back(data); }
  void OnAsyncCallDropped(void* data) override { m_record.dropped.push_back(data); }
  void OnWork(void*) override {}
  void OnAfterWork(int, void* data) override { m_record.calls.push_back(data); }
  void OnWorkDropped(void* data) override { m_record.dropped.push_back(data); }

 private:
  Record& m_record;
};

// Runs `fn` while the loop thread is held inside a posted call, then lets
// everything posted so far run (unless `fn` began a stop).
inline void WhileBlocked(zelsocket::IOLoop& loop, const std::function<void()>& fn) {
  auto blocked = std::make_shared<zelsocket::Semaphore>();
  auto release = std::make_shared<zelsocket::Semaphore>();
  loop.AsyncCall([blocked, release] { blocked->Post(), release->Wait(); });
  blocked->Wait();
  fn();
  release->Post();
  loop.SyncCall([] {});
}

// Returns once every delayed call due within `ms` has run.
inline void Settle(zelsocket::IOLoop& loop, int ms) {
  zelsocket::Semaphore done;
  loop.DelayCall(ms, [&done] { done.Post(); });
  done.Wait();
}

}  // namespace zstest

#endif  // ZELSOCKET_TESTS_LOOP_LOOP_TEST_UTIL_H
