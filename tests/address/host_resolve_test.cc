#include "zelsocket/host_resolve.h"

#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <thread>

#include "address/host_addr_cache.h"
#include "core/platform.h"
#include "support/process.h"
#include "support/recorder.h"
#include "zelsocket/sync.h"

namespace zelsocket {
namespace {

using zstest::Event;
using zstest::NewRecorder;

// A name of its own for each use: entries left by earlier cases must not answer.
std::string Unique(const std::string& label) {
  static std::atomic<int> n{0};
  return label + "-" + std::to_string(platform::WallClockSeconds()) + "-" + std::to_string(++n) + ".invalid";
}

int Lookups(const zstest::LogRecorder& log, const std::string& host) {
  return log.CountPrefix("_OnHostResolveResult, fail, host=" + host) +
         log.CountPrefix("_OnHostResolveResult, ok, host=" + host + "->");
}

TEST(HostResolveTest, LiteralsAreAnsweredLaterOnTheLoopAndBadArgumentsNever) {
  zstest::LogRecorder log;
  auto sink = NewRecorder();
  EXPECT_FALSE(HostResolve(nullptr, sink, nullptr));
  EXPECT_FALSE(HostResolve("", sink, nullptr));
  EXPECT_FALSE(HostResolve("127.0.0.1", nullptr, nullptr));
  int marker = 0;
  ASSERT_TRUE(HostResolve("::1", sink, &marker));
  size_t duringCall = 99;
  IOLoop::DefaultLoop()->SyncCall([&] {
    ASSERT_TRUE(HostResolve("10.0.0.1", sink, nullptr));
    duringCall = sink->Count("resolve");
  });
  EXPECT_LE(duringCall, 1u);  // never answered inside the call
  ASSERT_TRUE(sink->Wait("resolve", 2));
  std::vector<Event> answers = sink->Of("resolve");
  EXPECT_EQ(answers.size(), 2u);
  EXPECT_EQ(answers[0].status, 0);
  EXPECT_EQ(answers[0].address.GetAddress().GetString(), "::1");
  EXPECT_EQ(answers[0].ctx, &marker);
  EXPECT_TRUE(answers[0].onLoop);
  EXPECT_EQ(answers[1].data, "10.0.0.1");
  EXPECT_EQ(log.CountPrefix("_OnHostResolveResult"), 0);
}

TEST(HostResolveTest, AgeOfTheEntryDecidesHowTheAnswerComes) {
  zstest::LogRecorder log;
  auto sink = NewRecorder();
  struct Case {
    std::int64_t age;
    int err;  // the answer: from the entry (0), or the failed lookup waited for (-1)
    int backgroundLookups;
  };
  const std::map<std::string, Case> cases = {{Unique("fresh"), {1190, 0, 0}},
                                             {Unique("stale"), {1200, 0, 1}},
                                             {Unique("laststale"), {7190, 0, 1}},
                                             {Unique("expired"), {7200, -1, 1}}};
  for (const auto& [host, c] : cases) {
    HostAddrCache::Instance()->PutEntryForTesting(host, IPAddress("10.0.0.4"), platform::WallClockSeconds() - c.age);
    ASSERT_TRUE(HostResolve(host.c_str(), sink, nullptr));
  }
  ASSERT_TRUE(sink->Wait("resolve", cases.size()));
  // A request without entry waits for its own lookup; once answered, any
  // lookup of the others has had every chance to show.
  const std::string missing = Unique("missing");
  ASSERT_TRUE(HostResolve(missing.c_str(), sink, nullptr));
  ASSERT_TRUE(sink->Wait("resolve", cases.size() + 1));
  for (const Event& e : sink->Of("resolve")) {
    if (e.data == missing) {
      EXPECT_EQ(e.status, -1);
      continue;
    }
    const Case& c = cases.at(e.data);
    EXPECT_EQ(e.status, c.err) << e.data;
    EXPECT_EQ(e.address.IsValid(), c.err == 0) << e.data;
    EXPECT_TRUE(zstest::WaitUntil([&] { return Lookups(log, e.data) == c.backgroundLookups; })) << e.data;
    // A failed lookup leaves the old entry in place.
    IPAddress kept;
    std::int64_t time = 0;
    EXPECT_TRUE(HostAddrCache::Instance()->GetEntryForTesting(e.data.c_str(), kept, time));
  }
}

TEST(HostResolveTest, LookupFillsTheCacheAndRequestsAreNotMerged) {
  zstest::LogRecorder log;
  auto sink = NewRecorder();
  const std::string twice = Unique("twice");
  ASSERT_TRUE(HostResolve(twice.c_str(), sink, nullptr));
  ASSERT_TRUE(HostResolve(twice.c_str(), sink, nullptr));
  ASSERT_TRUE(sink->Wait("resolve", 2));
  EXPECT_EQ(Lookups(log, twice), 2);

  // localhost comes from the hosts file, without a DNS server.
  for (int round = 0; round < 2; ++round) {
    ASSERT_TRUE(HostResolve("localhost", sink, nullptr));
    ASSERT_TRUE(sink->Wait("resolve", 3 + round));
    EXPECT_EQ(sink->Of("resolve").back().status, 0);
    EXPECT_EQ(sink->Of("resolve").back().address.GetAddress().GetString(), "127.0.0.1");
    EXPECT_LE(Lookups(log, "localhost"), 1);  // the second came from the entry
  }
  IPAddress cached;
  std::int64_t time = 0;
  EXPECT_FALSE(HostAddrCache::Instance()->GetEntryForTesting("LOCALHOST", cached, time));  // keys are exact
}

// A short-lived sink: the request keeps it until the answer, or until a
// stopping loop drops the request unanswered.
class CountedSink : public IHostResolveSink, public RefCountBase {
 public:
  explicit CountedSink(std::atomic<int>* destroyed) : m_destroyed(destroyed) {}
  ~CountedSink() override { ++*m_destroyed; }
  int AddRef() override { return InternalAddRef(); }
  int Release() override { return InternalRelease(); }
  void OnHostResolve(int, const char*, const IPAddress&, void*) override { ++answered; }
  static std::atomic<int> answered;

 private:
  std::atomic<int>* m_destroyed;
};
std::atomic<int> CountedSink::answered{0};

TEST(HostResolveTest, TheRequestHoldsItsSinkUntilAnsweredOrDropped) {
  std::atomic<int> destroyed{0};
  IOLoop loop;
  ASSERT_EQ(loop.Start(), 0);
  auto resolveAndLetGo = [&] {
    auto* sink = new CountedSink(&destroyed);
    bool accepted = HostResolve("127.0.0.1", sink, nullptr);
    sink->Release();
    return accepted;
  };
  loop.SyncCall([&] { EXPECT_TRUE(resolveAndLetGo()); });
  ASSERT_TRUE(zstest::WaitUntil([&] { return destroyed == 1; }));
  EXPECT_EQ(CountedSink::answered.load(), 1);

  // Posted from the loop thread, which then holds until the stop has begun.
  Semaphore posted, release;
  loop.AsyncCall([&] {
    EXPECT_TRUE(resolveAndLetGo());
    posted.Post();
    release.Wait();
  });
  posted.Wait();
  std::thread stopper([&] { loop.Stop(); });
  ASSERT_TRUE(zstest::WaitUntil([&] { return loop.DelayCall(100000, [] {}) == -1; }));
  release.Post();
  stopper.join();
  EXPECT_EQ(destroyed.load(), 2);
  EXPECT_EQ(CountedSink::answered.load(), 1);
}

int ResolveByName(std::string& report) {
  zstest::ChildProcess dnsmasq;
  unsigned short port = 53;
  report = zstest::StartDnsmasq(dnsmasq, &port);
  if (!report.empty()) return 77;
  auto sink = NewRecorder();
  HostResolve("example.test", sink, nullptr);
  HostResolve("nothing.invalid", sink, nullptr);
  if (!sink->Wait("resolve", 2, std::chrono::seconds(20))) return (report = "no answer", 1);
  std::map<std::string, Event> byHost;
  for (const Event& e : sink->Of("resolve")) byHost[e.data] = e;
  report = "example.test=" + byHost["example.test"].address.GetAddress().GetString() +
           " nothing.invalid=" + std::to_string(byHost["nothing.invalid"].status);
  return report == "example.test=10.1.2.3 nothing.invalid=-1" ? 0 : 1;
}
zstest::ChildRegistration g_resolveByName("ResolveByName", ResolveByName);

TEST(HostResolveTest, ResolvesARealNameThroughDnsmasqInANamespace) { ZS_EXPECT_CHILD_PASSES("ResolveByName"); }

}  // namespace
}  // namespace zelsocket
