#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <thread>

#include "support/test_support.h"
#include "zelsocket/io_loop.h"
#include "zelsocket/sync.h"
#include "zelsocket/work.h"

using namespace zelsocket;

namespace {

// A job whose work function is stuck must not hold up Stop.  Once it is let go,
// its after-work function does not run (the loop is gone) and its record, with
// what its functions hold, is released; LeakSanitizer checks the loop's storage.
TEST(StopTest, ReturnsWhileAJobIsStuckAndReleasesTheJobWhenItEnds) {
  auto held = std::make_shared<int>(0);
  std::weak_ptr<int> watch = held;
  Semaphore started, release;
  std::atomic<bool> afterRan{false};
  {
    IOLoop loop;
    ASSERT_EQ(0, loop.Start());
    Work work(&loop);
    ASSERT_EQ(0, work.QueueWork([held, &started, &release] { started.Post(), release.Wait(); },
                                [held, &afterRan](int) { afterRan = true; }));
    held.reset();
    started.Wait();

    std::promise<int> stopped;
    std::thread stopper([&] { stopped.set_value(loop.Stop()); });
    std::future<int> result = stopped.get_future();
    bool returned = result.wait_for(std::chrono::seconds(10)) == std::future_status::ready;
    release.Post();  // in every case, so that a failing run still ends
    stopper.join();
    ASSERT_TRUE(returned) << "Stop waited for a running job";
    EXPECT_EQ(0, result.get());
  }
  EXPECT_TRUE(zstest::WaitUntil([&] { return watch.expired(); }));
  EXPECT_FALSE(afterRan.load());
}

}  // namespace
