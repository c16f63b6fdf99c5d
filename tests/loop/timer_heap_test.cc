// Timers as entries in the loop's heap beside the delayed calls: due order
// across both, never early, and the loop's reference to a timer with many
// stale armings.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "support/test_support.h"
#include "zelsocket/io_loop.h"
#include "zelsocket/sync.h"
#include "zelsocket/timer.h"

using namespace zelsocket;

namespace {

TEST(TimerHeap, DelayedCallsAndTimersRunInDueOrderWhicheverHeapTheyAreIn) {
  IOLoop loop;
  ASSERT_EQ(loop.Start(), 0);
  std::vector<std::string> order;  // loop thread only
  Semaphore last;
  Timer t60(&loop), t120(&loop);
  // Armed on the loop thread in one go, so that their due times share a start.
  loop.SyncCall([&] {
    loop.DelayCall(150, [&] {
      order.push_back("call150");
      last.Post();
    });
    t120.SetTimeout(120, 0, [&] { order.push_back("timer120"); });
    loop.DelayCall(90, [&] { order.push_back("call90"); });
    t60.SetTimeout(60, 0, [&] { order.push_back("timer60"); });
    loop.DelayCall(30, [&] { order.push_back("call30"); });
  });
  last.Wait();
  loop.SyncCall([] {});
  EXPECT_EQ(order, (std::vector<std::string>{"call30", "timer60", "call90", "timer120", "call150"}));
  loop.Stop();
}

class TimerNotEarly : public ::testing::TestWithParam<int> {};

TEST_P(TimerNotEarly, FiresNoEarlierThanItsDelay) {
  IOLoop loop;
  ASSERT_EQ(loop.Start(), 0);
  const int delay = GetParam();
  Timer timer(&loop);
  std::atomic<long long> firedAfterUs{-1};
  Semaphore fired;
  auto armed = std::chrono::steady_clock::now();
  ASSERT_EQ(timer.SetTimeout(delay, 0, [&] {
    firedAfterUs = std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - armed).count();
    fired.Post();
  }), 0);
  fired.Wait();
  EXPECT_GE(firedAfterUs.load(), delay * 1000LL);
  loop.Stop();
}

INSTANTIATE_TEST_SUITE_P(Delays, TimerNotEarly, ::testing::Values(0, 1, 7, 49, 51, 120));

// Each arming leaves an entry until its time; the loop holds the timer through
// them, and a stop releases it with the last one (a leak check sees the rest).
TEST(TimerHeap, ManyStaleArmingsFireOnceAndAStopReleasesThemAll) {
  zstest::LogRecorder log;
  IOLoop loop;
  ASSERT_EQ(loop.Start(), 0);
  std::atomic<int> fired{0};
  auto owned = std::make_shared<int>(0);
  {
    Timer timer(&loop);
    for (int i = 0; i < 1000; ++i) ASSERT_EQ(timer.SetTimeout(60000, 0, [&fired, owned] { ++fired; }), 0);
    EXPECT_TRUE(timer.IsRunning());
    // Only the last function is kept: the replaced ones died at once.
    EXPECT_EQ(owned.use_count(), 2);
  }  // destroyed on this thread with 1000 entries queued
  EXPECT_EQ(owned.use_count(), 1);
  ASSERT_EQ(loop.Stop(), 0);
  EXPECT_EQ(fired.load(), 0);
  EXPECT_TRUE(log.Has(LOG_LEVEL_INFO, "Loop", "IOLoopImpl::_AsyncStop, pending-delay-async-call=1000"));
}

}  // namespace
