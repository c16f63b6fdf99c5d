#include "zelsocket/host_resolve.h"

#include <gtest/gtest.h>

#include <map>
#include <thread>

#include "address/host_addr_cache.h"
#include "core/platform.h"
#include "support/recorder.h"
#include "zelsocket/sync.h"

namespace zelsocket {
namespace {

// Literals are answered later, on the loop; the age of an entry decides the
// rest: fresh answers alone, stale answers and looks up behind, expired and
// missing wait for their lookup.  Requests are not merged, a failed lookup
// leaves the old entry, keys are exact, and localhost comes from the hosts file.
TEST(HostResolveTest, AnswersByLiteralAndByTheAgeOfTheEntry) {
  zstest::LogRecorder log;
  auto sink = zstest::NewRecorder();
  EXPECT_FALSE(HostResolve(nullptr, sink, nullptr) || HostResolve("", sink, nullptr) ||
               HostResolve("127.0.0.1", nullptr, nullptr));
  size_t duringCall = 99;
  IOLoop::DefaultLoop()->SyncCall([&] {
    ASSERT_TRUE(HostResolve("::1", sink, &duringCall));
    duringCall = sink->Count("resolve");
  });
  ASSERT_TRUE(sink->Wait("resolve", 1));
  EXPECT_EQ(duringCall, 0u);
  zstest::Event e = sink->Of("resolve")[0];
  EXPECT_EQ(e.data + "=" + e.address.GetAddress().GetString(), "::1=::1");
  EXPECT_TRUE(e.ctx == &duringCall && e.onLoop && e.status == 0);
  const std::string tag = std::to_string(platform::WallClockSeconds()) + ".invalid";  // no earlier entry answers
  struct Case {
    std::int64_t age;
    int err, lookups;
  };
  const std::map<std::string, Case> cases = {{"fresh" + tag, {1190, 0, 0}}, {"stale" + tag, {1200, 0, 1}},
                                             {"laststale" + tag, {7190, 0, 1}}, {"expired" + tag, {7200, -1, 1}},
                                             {"missing" + tag, {-1, -1, 2}}, {"localhost", {-1, 0, 1}}};
  for (const auto& [host, c] : cases) {
    if (c.age >= 0)
      HostAddrCache::Instance()->PutEntryForTesting(host, IPAddress("10.0.0.4"), platform::WallClockSeconds() - c.age);
    ASSERT_TRUE(HostResolve(host.c_str(), sink, nullptr));
    ASSERT_TRUE(c.lookups < 2 || HostResolve(host.c_str(), sink, nullptr));
  }
  ASSERT_TRUE(sink->Wait("resolve", cases.size() + 2));
  ASSERT_TRUE(HostResolve("localhost", sink, nullptr));  // now from its entry
  ASSERT_TRUE(sink->Wait("resolve", cases.size() + 3));
  for (const zstest::Event& e : sink->Of("resolve")) {
    if (e.data == "::1") continue;
    const Case& c = cases.at(e.data);
    EXPECT_EQ(e.status, c.err) << e.data;
    EXPECT_EQ(e.address.GetAddress().GetString(), c.err ? "" : e.data == "localhost" ? "127.0.0.1" : "10.0.0.4");
    EXPECT_TRUE(zstest::WaitUntil([&] {
      return log.CountPrefix("_OnHostResolveResult, fail, host=" + e.data) +
                 log.CountPrefix("_OnHostResolveResult, ok, host=" + e.data + "->") ==
             c.lookups;
    })) << e.data;
    IPAddress kept;
    std::int64_t time = 0;
    EXPECT_EQ(HostAddrCache::Instance()->GetEntryForTesting(e.data.c_str(), kept, time), c.err == 0 || c.age >= 0);
  }
  IPAddress cached;
  std::int64_t time = 0;
  EXPECT_FALSE(HostAddrCache::Instance()->GetEntryForTesting("LOCALHOST", cached, time));
}

// The request holds its sink until the answer, or until a stopping loop drops
// the request unanswered.
TEST(HostResolveTest, TheRequestHoldsItsSinkUntilAnsweredOrDropped) {
  IOLoop loop;
  ASSERT_EQ(loop.Start(), 0);
  auto onlyOurs = [](zstest::Recorder* s) {
    int refs = s->AddRef();
    return s->Release(), refs == 2;
  };
  auto answered = zstest::NewRecorder(), dropped = zstest::NewRecorder();
  loop.SyncCall([&] { EXPECT_TRUE(HostResolve("127.0.0.1", answered, nullptr)); });
  ASSERT_TRUE(answered->Wait("resolve", 1));
  EXPECT_TRUE(zstest::WaitUntil([&] { return onlyOurs(answered); }));
  Semaphore posted, release;  // posted from the loop thread, which then holds until the stop has begun
  loop.AsyncCall([&] {
    EXPECT_TRUE(HostResolve("127.0.0.1", dropped, nullptr));
    posted.Post();
    release.Wait();
  });
  posted.Wait();
  std::thread stopper([&] { loop.Stop(); });
  ASSERT_TRUE(zstest::WaitUntil([&] { return loop.DelayCall(100000, [] {}) == -1; }));
  release.Post();
  stopper.join();
  EXPECT_TRUE(onlyOurs(dropped));
  EXPECT_EQ(dropped->Count(""), 0u);
}

}  // namespace
}  // namespace zelsocket
