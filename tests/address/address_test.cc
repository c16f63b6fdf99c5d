#include "zelsocket/host_resolve.h"

#include <gtest/gtest.h>

#include <map>

#include "address/host_addr_cache.h"
#include "core/platform.h"
#include "support/recorder.h"

namespace zelsocket {
namespace {

// Every answer comes later, on the loop.  A literal needs no lookup; otherwise
// the age of the entry decides: fresh answers alone, stale answers and looks up
// behind, expired and missing wait for their lookup (never merged).  A failed
// lookup leaves the old entry; localhost's expired entry waits for the hosts
// file, then answers alone.  Repeatable: no entry of an earlier run answers.
TEST(HostResolveTest, AnswersByLiteralAndByTheAgeOfTheEntry) {
  zstest::LogRecorder log;
  auto sink = zstest::NewRecorder();
  static int run = 0;
  const std::string tag = std::to_string(platform::WallClockSeconds()) + "-" + std::to_string(++run) + ".invalid";
  using Case = std::tuple<std::int64_t, int, int, std::string>;  // age, error, lookups, answer
  const std::map<std::string, Case> cases = {{"::1", {-1, 0, 0, "::1"}},
                                             {"fresh" + tag, {1190, 0, 0, "10.0.0.4"}},
                                             {"stale" + tag, {1200, 0, 1, "10.0.0.4"}},
                                             {"laststale" + tag, {7190, 0, 1, "10.0.0.4"}},
                                             {"expired" + tag, {7200, -1, 1, ""}},
                                             {"missing" + tag, {-1, -1, 2, ""}},
                                             {"localhost", {7200, 0, 1, "127.0.0.1"}}};
  size_t duringCall = 99;
  IOLoop::DefaultLoop()->SyncCall([&] {
    for (const auto& [host, c] : cases) {
      auto [age, err, lookups, answer] = c;
      if (age >= 0)
        HostAddrCache::Instance()->PutEntryForTesting(host, IPAddress("10.0.0.4"), platform::WallClockSeconds() - age);
      EXPECT_TRUE(HostResolve(host.c_str(), sink, &duringCall));
      EXPECT_TRUE(lookups < 2 || HostResolve(host.c_str(), sink, &duringCall));
    }
    duringCall = sink->Count("resolve");
  });
  EXPECT_EQ(duringCall, 0u);
  ASSERT_TRUE(sink->Wait("resolve", cases.size() + 1));
  ASSERT_TRUE(HostResolve("localhost", sink, &duringCall));
  ASSERT_TRUE(sink->Wait("resolve", cases.size() + 2));
  for (const zstest::Event& e : sink->Of("resolve")) {
    auto [age, err, lookups, answer] = cases.at(e.data);
    EXPECT_TRUE(e.status == err && e.ctx == &duringCall && e.onLoop && e.address.GetAddress().GetString() == answer)
        << e.data;
    EXPECT_TRUE(zstest::WaitUntil([&, lookups = lookups] {
      return log.CountPrefix("_OnHostResolveResult, fail, host=" + e.data) +
                 log.CountPrefix("_OnHostResolveResult, ok, host=" + e.data + "->") ==
             lookups;
    })) << e.data;
    IPAddress kept;
    std::int64_t time = 0;
    EXPECT_EQ(HostAddrCache::Instance()->GetEntryForTesting(e.data.c_str(), kept, time),
              age >= 0 || (err == 0 && lookups > 0))
        << e.data;
  }
}

}  // namespace
}  // namespace zelsocket
