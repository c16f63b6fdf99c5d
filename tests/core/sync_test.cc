#include <set>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "zelsocket/sync.h"

namespace zelsocket {
namespace {

TEST(CookieMgr, CountsFromOneAndSkipsZeroOnWrap) {
  CookieMgr fresh;
  EXPECT_EQ(fresh.GetCookie(), 1u);
  EXPECT_EQ(fresh.GetCookie(), 2u);
  CookieMgr nearWrap(4294967294u);
  EXPECT_EQ(nearWrap.GetCookie(), 4294967295u);
  EXPECT_EQ(nearWrap.GetCookie(), 1u);
}

TEST(CookieMgr, ConcurrentCallersGetDistinctCookies) {
  CookieMgr cookies;
  std::vector<std::vector<unsigned>> got(4);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&, t] {
      for (int i = 0; i < 5000; ++i) got[t].push_back(cookies.GetCookie());
    });
  for (auto& th : threads) th.join();
  std::set<unsigned> all;
  for (auto& v : got) all.insert(v.begin(), v.end());
  EXPECT_EQ(all.size(), 20000u);
  EXPECT_EQ(*all.begin(), 1u);
  EXPECT_EQ(*all.rbegin(), 20000u);
}

TEST(BitFlag, MaskSemantics) {
  BitFlag flags;
  flags.SetFlag(2);
  EXPECT_TRUE(flags.IsFlagOn(2 | 4));  // one bit of the mask is enough
  EXPECT_FALSE(flags.IsFlagOn(4));
  EXPECT_FALSE(flags.IsFlagOn(0));
  flags.ResetFlag(4);  // not set: nothing changes
  EXPECT_TRUE(flags.IsFlagOn(2));
  flags += 8;
  flags -= 2;
  EXPECT_FALSE(flags.IsFlagOn(2));
  EXPECT_TRUE(flags.IsFlagOn(8));
  BitFlag copy;
  copy = flags;
  EXPECT_TRUE(copy.IsFlagOn(8));
  flags.ResetAll();
  EXPECT_FALSE(flags.IsFlagOn(0xFFFFFFFFu));
}

TEST(ScopeExit, RunsOnEveryPathAndToleratesAnEmptyFunction) {
  int runs = 0;
  { ScopeExit guard([&runs] { ++runs; }); }
  EXPECT_EQ(runs, 1);
  auto early = [&runs](bool leave) {
    ScopeExit guard([&runs] { ++runs; });
    if (leave) return 1;
    return 2;
  };
  early(true);
  early(false);
  EXPECT_EQ(runs, 3);
  { ScopeExit empty{std::function<void()>()}; }
}

TEST(Semaphore, PostBeforeWaitLetsTheWaitPass) {
  Semaphore sem;
  sem.Post();
  sem.Wait();
  std::thread poster([&sem] { sem.Post(); });
  sem.Wait();
  poster.join();
}

TEST(Locks, MutexAndRwlockExcludeWriters) {
  Mutex mutex;
  Rwlock rw;
  long counter = 0;
  long guarded = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&] {
      for (int i = 0; i < 20000; ++i) {
        {
          AutoMutexLock lock(mutex);
          ++counter;
        }
        rw.WLock();
        ++guarded;
        rw.WUnlock();
        rw.RLock();
        volatile long seen = guarded;
        (void)seen;
        rw.RUnlock();
      }
    });
  for (auto& th : threads) th.join();
  EXPECT_EQ(counter, 80000);
  EXPECT_EQ(guarded, 80000);
}

}  // namespace
}  // namespace zelsocket
