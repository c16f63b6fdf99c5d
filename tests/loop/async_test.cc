#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/test_support.h"
#include "zelsocket/async.h"
#include "zelsocket/io_loop.h"
#include "zelsocket/sync.h"

namespace zelsocket {
namespace {

class AsyncTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(loop.Start(), 0); }
  void TearDown() override { loop.Stop(); }
  IOLoop loop;
};

TEST_F(AsyncTest, RunsPostedFunctionsInOrder) {
  Async async(&loop);
  std::vector<int> order;
  for (int i = 0; i < 100; ++i) ASSERT_EQ(async.AsyncCall([&order, i] { order.push_back(i); }), 0);
  loop.SyncCall([] {});
  ASSERT_EQ(order.size(), 100u);
  for (int i = 0; i < 100; ++i) EXPECT_EQ(order[i], i);
  EXPECT_EQ(async.AsyncCall(std::function<void()>()), -1);
}

TEST_F(AsyncTest, CancelDropsWhatHasNotStartedAndLogsEachCookie) {
  zstest::LogRecorder log;
  Async async(&loop);
  async.Cancel();  // nothing posted: nothing happens
  Semaphore blocked, release;
  loop.AsyncCall([&] {
    blocked.Post();
    release.Wait();
  });
  blocked.Wait();
  int ran = 0;
  auto token = std::make_shared<int>();
  for (int i = 0; i < 3; ++i) async.AsyncCall([&ran, token] { ++ran; });
  async.Cancel();
  async.AsyncCall([&ran] { ran += 100; });  // posted after the cancel: runs
  release.Post();
  loop.SyncCall([] {});
  EXPECT_EQ(ran, 100);
  EXPECT_EQ(token.use_count(), 1);
  for (unsigned cookie = 1; cookie <= 3; ++cookie) {
    EXPECT_TRUE(log.Has(LOG_LEVEL_INFO, "async",
                        "AsyncImpl::_AsyncCallback, AsyncCall Canceled, Cookie=" + std::to_string(cookie) + "."));
  }
  EXPECT_EQ(log.CountPrefix("AsyncImpl::_AsyncCallback, AsyncCall Canceled"), 3);
}

TEST_F(AsyncTest, AFunctionMayPostAgainOrCancelItsOwnAsync) {
  Async async(&loop);
  int depth = 0;
  std::function<void()> step = [&] {
    if (++depth < 5) async.AsyncCall(step);
  };
  async.AsyncCall(step);
  ASSERT_TRUE(zstest::WaitUntil([&] {
    int d = 0;
    loop.SyncCall([&] { d = depth; });
    return d == 5;
  }));
  int after = 0;
  async.AsyncCall([&] {
    async.Cancel();
    after = 1;
  });
  async.AsyncCall([&] { after = 2; });  // cancelled by the first one
  loop.SyncCall([] {});
  loop.SyncCall([] {});
  EXPECT_EQ(after, 1);
}

TEST_F(AsyncTest, DestroyedOnAnotherThreadWithCallsInFlight) {
  std::atomic<int> ran{0};
  auto token = std::make_shared<int>();
  Semaphore blocked, release;
  loop.AsyncCall([&] {
    blocked.Post();
    release.Wait();
  });
  blocked.Wait();
  std::thread other([&] {
    auto* async = new Async(&loop);
    for (int i = 0; i < 50; ++i) async->AsyncCall([&ran, token] { ++ran; });
    delete async;
  });
  other.join();
  release.Post();
  loop.SyncCall([] {});
  EXPECT_EQ(ran.load(), 0);
  EXPECT_EQ(token.use_count(), 1);  // every function object was destroyed
}

TEST_F(AsyncTest, ConcurrentPostersAndACancellerKeepTheAccounting) {
  Async async(&loop);
  std::atomic<int> ran{0}, accepted{0};
  std::vector<std::thread> threads;
  std::atomic<bool> stop{false};
  for (int t = 0; t < 3; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 2000; ++i) accepted += async.AsyncCall([&ran] { ++ran; }) == 0;
    });
  }
  threads.emplace_back([&] {
    while (!stop) {
      async.Cancel();
      std::this_thread::yield();
    }
  });
  for (int t = 0; t < 3; ++t) threads[t].join();
  stop = true;
  threads.back().join();
  loop.SyncCall([] {});
  EXPECT_EQ(accepted.load(), 6000);
  EXPECT_LE(ran.load(), 6000);
}

TEST(AsyncRefused, ALoopThatIsNotRunningRefusesAndTheFailureIsLogged) {
  zstest::LogRecorder log;
  IOLoop loop;
  Async async(&loop);
  EXPECT_EQ(async.AsyncCall([] {}), -1);
  auto lines = log.Lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].level, LOG_LEVEL_ERROR);
  EXPECT_EQ(lines[0].tag, "async");
  EXPECT_EQ(lines[0].message.rfind("AsyncCall, AsyncCallSafe fail, ret=-1, ", 0), 0u);
  // Nothing remains of the refused call: a later Cancel and destruction are quiet.
  async.Cancel();
}

TEST(AsyncStop, CallsDroppedByAStopReleaseTheirFunctions) {
  IOLoop loop;
  ASSERT_EQ(loop.Start(), 0);
  auto token = std::make_shared<int>();
  int ran = 0;
  {
    Async async(&loop);
    Semaphore blocked, release;
    loop.AsyncCall([&] {
      blocked.Post();
      release.Wait();
    });
    blocked.Wait();
    for (int i = 0; i < 5; ++i) async.AsyncCall([&ran, token] { ++ran; });
    std::thread stopper([&] { loop.Stop(); });
    ASSERT_TRUE(zstest::WaitUntil([&] { return loop.DelayCall(100000, [] {}) == -1; }));
    release.Post();
    stopper.join();
  }
  EXPECT_EQ(ran, 0);
  EXPECT_EQ(token.use_count(), 1);
}

}  // namespace
}  // namespace zelsocket
