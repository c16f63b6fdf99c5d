#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <future>
#include <mutex>
#include <string>

#include "address/host_addr_cache.h"
#include "core/platform.h"
#include "support/process.h"
#include "support/test_support.h"
#include "zelsocket/host_resolve.h"
#include "zelsocket/io_loop.h"

using namespace zelsocket;

namespace {

struct Answer {
  int err = 99;
  std::string host;
  IPAddress address;
  bool onLoopThread = false;
  void* ctx = nullptr;
};

// Collects answers; counted, as the library expects of a sink.
class ResolveSink : public IHostResolveSink, public RefCountBase {
 public:
  int AddRef() override { return InternalAddRef(); }
  int Release() override { return InternalRelease(); }
  void OnHostResolve(int err, const char* host, const IPAddress& address, void* ctx) override {
    std::lock_guard<std::mutex> lock(m_mutex);
    Answer a;
    a.err = err;
    a.host = host;
    a.address = address;
    a.onLoopThread = IOLoop::CurrentLoop() != nullptr;
    a.ctx = ctx;
    m_answers.push_back(a);
  }
  size_t Count() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_answers.size();
  }
  Answer At(size_t i) {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_answers.at(i);
  }
  bool WaitFor(size_t n) {
    return zstest::WaitUntil([&] { return Count() >= n; }, std::chrono::milliseconds(10000));
  }

 private:
  std::mutex m_mutex;
  std::vector<Answer> m_answers;
};

// A name per test run, so that entries of earlier tests in this process do not
// answer for later ones.
std::string Unique(const std::string& label) {
  static std::atomic<int> n{0};
  return label + "-" + std::to_string(getpid()) + "-" + std::to_string(++n) + ".invalid";
}

void PutAged(const std::string& host, const char* address, std::int64_t age) {
  HostAddrCache::Instance()->PutEntryForTesting(host, IPAddress(address), platform::WallClockSeconds() - age);
}

int LookupLines(const zstest::LogRecorder& log, const std::string& host) {
  return log.CountPrefix("_OnHostResolveResult, fail, host=" + host) +
         log.CountPrefix("_OnHostResolveResult, ok, host=" + host + "->");
}

TEST(HostResolveTest, LiteralsAreAnsweredLaterOnTheLoopWithoutLookup) {
  zstest::LogRecorder log;
  RefPtr<ResolveSink> sink;
  sink.Attach(new ResolveSink());
  int marker = 0;
  ASSERT_TRUE(HostResolve("127.0.0.1", sink, &marker));
  ASSERT_TRUE(HostResolve("::1", sink, nullptr));
  ASSERT_TRUE(sink->WaitFor(2));
  Answer v4 = sink->At(0);
  EXPECT_EQ(0, v4.err);
  EXPECT_EQ("127.0.0.1", v4.host);
  EXPECT_EQ("127.0.0.1", v4.address.GetString());
  EXPECT_TRUE(v4.onLoopThread);
  EXPECT_EQ(&marker, v4.ctx);
  Answer v6 = sink->At(1);
  EXPECT_EQ(0, v6.err);
  EXPECT_EQ(AF_INET6, v6.address.GetFamily());
  EXPECT_EQ(0, log.CountPrefix("_OnHostResolveResult"));

  // From the loop thread itself: still never answered inside the call.
  std::promise<size_t> during;
  IOLoop::DefaultLoop()->AsyncCall([&] {
    size_t before = sink->Count();
    HostResolve("10.0.0.1", sink, nullptr);
    during.set_value(sink->Count() - before);
  });
  EXPECT_EQ(0u, during.get_future().get());
  EXPECT_TRUE(sink->WaitFor(3));
}

TEST(HostResolveTest, BadArgumentsAreRefusedWithoutCallback) {
  RefPtr<ResolveSink> sink;
  sink.Attach(new ResolveSink());
  EXPECT_FALSE(HostResolve(nullptr, sink, nullptr));
  EXPECT_FALSE(HostResolve("", sink, nullptr));
  EXPECT_FALSE(HostResolve("127.0.0.1", nullptr, nullptr));
  // A later request is answered, and the refused ones never were.
  ASSERT_TRUE(HostResolve("127.0.0.2", sink, nullptr));
  ASSERT_TRUE(sink->WaitFor(1));
  EXPECT_EQ(1u, sink->Count());
}

TEST(HostResolveTest, AgeOfTheEntryDecidesHowTheAnswerComes) {
  zstest::LogRecorder log;
  RefPtr<ResolveSink> sink;
  sink.Attach(new ResolveSink());
  // The names are unresolvable, so a lookup shows as a failure in the log and,
  // for a caller who waits for it, as -1.
  const std::string fresh = Unique("fresh"), stale = Unique("stale"), lastStale = Unique("laststale");
  const std::string expired = Unique("expired"), missing = Unique("missing");
  PutAged(fresh, "10.0.0.1", 1190);
  PutAged(stale, "10.0.0.2", 1200);
  PutAged(lastStale, "10.0.0.3", 7190);
  PutAged(expired, "10.0.0.4", 7200);
  for (const std::string& h : {fresh, stale, lastStale, expired}) ASSERT_TRUE(HostResolve(h.c_str(), sink, nullptr));
  ASSERT_TRUE(sink->WaitFor(4));
  std::map<std::string, Answer> byHost;
  for (size_t i = 0; i < 4; ++i) byHost[sink->At(i).host] = sink->At(i);
  EXPECT_EQ("10.0.0.1", byHost[fresh].address.GetString());
  EXPECT_EQ("10.0.0.2", byHost[stale].address.GetString());
  EXPECT_EQ("10.0.0.3", byHost[lastStale].address.GetString());
  EXPECT_EQ(0, byHost[stale].err);
  EXPECT_EQ(-1, byHost[expired].err);  // waited for the failing lookup
  EXPECT_FALSE(byHost[expired].address.IsValid());

  // The background lookups of the stale entries ran, and failed in the log only.
  EXPECT_TRUE(zstest::WaitUntil([&] { return LookupLines(log, stale) == 1 && LookupLines(log, lastStale) == 1; }));
  // A request with no entry waits for its own lookup; when its answer is in,
  // a lookup for the fresh entry would have had every chance to show.
  ASSERT_TRUE(HostResolve(missing.c_str(), sink, nullptr));
  ASSERT_TRUE(sink->WaitFor(5));
  EXPECT_EQ(-1, sink->At(4).err);
  EXPECT_EQ(0, LookupLines(log, fresh));
  // A failed lookup leaves the old entry in place.
  IPAddress kept;
  std::int64_t time = 0;
  EXPECT_TRUE(HostAddrCache::Instance()->GetEntryForTesting(expired.c_str(), kept, time));
  EXPECT_EQ("10.0.0.4", kept.GetString());
}

TEST(HostResolveTest, SuccessfulLookupFillsTheCacheAndRequestsAreNotMerged) {
  zstest::LogRecorder log;
  RefPtr<ResolveSink> sink;
  sink.Attach(new ResolveSink());
  const std::string twice = Unique("twice");
  ASSERT_TRUE(HostResolve(twice.c_str(), sink, nullptr));
  ASSERT_TRUE(HostResolve(twice.c_str(), sink, nullptr));
  ASSERT_TRUE(sink->WaitFor(2));
  EXPECT_EQ(2, LookupLines(log, twice));

  // localhost comes from the hosts file, without any DNS server.
  ASSERT_TRUE(HostResolve("localhost", sink, nullptr));
  ASSERT_TRUE(sink->WaitFor(3));
  EXPECT_EQ(0, sink->At(2).err);
  EXPECT_EQ("127.0.0.1", sink->At(2).address.GetString());
  IPAddress cached;
  std::int64_t time = 0;
  ASSERT_TRUE(HostAddrCache::Instance()->GetEntryForTesting("localhost", cached, time));
  EXPECT_EQ("127.0.0.1", cached.GetString());
  EXPECT_LE(platform::WallClockSeconds() - time, 60);
  // Keys are exact: another case is another name.
  EXPECT_FALSE(HostAddrCache::Instance()->GetEntryForTesting("LOCALHOST", cached, time));
  // The next request is answered from the entry, without a lookup.
  int before = LookupLines(log, "localhost");
  ASSERT_TRUE(HostResolve("localhost", sink, nullptr));
  ASSERT_TRUE(sink->WaitFor(4));
  EXPECT_EQ("127.0.0.1", sink->At(3).address.GetString());
  EXPECT_EQ(before, LookupLines(log, "localhost"));
}

// Runs only inside the namespace made by the next test.
TEST(HostResolveNetnsChild, ResolvesThroughTheNamespaceDnsServer) {
  if (!zstest::InNamespaceChild()) GTEST_SKIP() << "runs only as the child of HostResolveNetns";
  zstest::ChildProcess dnsmasq;
  ASSERT_TRUE(zstest::StartDnsmasq(dnsmasq, 53));
  ASSERT_TRUE(zstest::WaitForDns(53, std::chrono::seconds(10))) << dnsmasq.Output();
  RefPtr<ResolveSink> sink;
  sink.Attach(new ResolveSink());
  ASSERT_TRUE(HostResolve("example.test", sink, nullptr));
  ASSERT_TRUE(sink->WaitFor(1));
  EXPECT_EQ(0, sink->At(0).err);
  EXPECT_EQ("10.1.2.3", sink->At(0).address.GetString());
  ASSERT_TRUE(HostResolve("nothing.invalid", sink, nullptr));
  ASSERT_TRUE(sink->WaitFor(2));
  EXPECT_EQ(-1, sink->At(1).err);
  EXPECT_FALSE(sink->At(1).address.IsValid());
}

TEST(HostResolveNetns, RealNameEndToEnd) {
  if (zstest::InNamespaceChild()) GTEST_SKIP() << "parent only";
  zstest::NetNamespace ns("zsresolve" + std::to_string(getpid()));
  std::string why = ns.Create();
  if (!why.empty()) GTEST_SKIP() << "cannot make a network namespace here: " << why;
  std::string output;
  EXPECT_TRUE(zstest::RunSelfInNamespace(ns.Name(), "HostResolveNetnsChild.*", 1, &output)) << output;
}

}  // namespace

namespace {

// Says on destruction that it has gone; answers set a flag first.
class ShortLivedSink : public IHostResolveSink, public RefCountBase {
 public:
  ShortLivedSink(std::atomic<int>* answered, std::atomic<int>* destroyed)
      : m_answered(answered), m_destroyed(destroyed) {}
  ~ShortLivedSink() override { ++*m_destroyed; }
  int AddRef() override { return InternalAddRef(); }
  int Release() override { return InternalRelease(); }
  void OnHostResolve(int, const char*, const IPAddress&, void*) override { ++*m_answered; }

 private:
  std::atomic<int>* m_answered;
  std::atomic<int>* m_destroyed;
};

// A caller may let go of its sink at once: the request keeps it until the
// answer, and lets it go afterwards — also when a stopping loop drops the
// request without answering.
TEST(HostResolveSinkLifetime, TheRequestHoldsItsSink) {
  std::atomic<int> answered{0}, destroyed{0};
  IOLoop loop;
  ASSERT_EQ(loop.Start(), 0);
  loop.SyncCall([&] {
    auto* sink = new ShortLivedSink(&answered, &destroyed);
    ASSERT_TRUE(HostResolve("127.0.0.1", sink, nullptr));
    sink->Release();
    EXPECT_EQ(destroyed.load(), 0);
  });
  ASSERT_TRUE(zstest::WaitUntil([&] { return destroyed == 1; }));
  EXPECT_EQ(answered.load(), 1);

  // Now a request that is still queued when its loop stops: dropped unanswered,
  // and its sink released.  The request is posted from the loop thread, which
  // then waits until the stop has begun; the stop runs before the queue does.
  Semaphore posted, release;
  bool accepted = false;
  loop.AsyncCall([&] {
    auto* sink = new ShortLivedSink(&answered, &destroyed);
    accepted = HostResolve("127.0.0.1", sink, nullptr);
    sink->Release();
    posted.Post();
    release.Wait();
  });
  posted.Wait();
  ASSERT_TRUE(accepted);
  std::thread stopper([&] { loop.Stop(); });
  ASSERT_TRUE(zstest::WaitUntil([&] { return loop.DelayCall(100000, [] {}) == -1; }));
  release.Post();
  stopper.join();
  EXPECT_EQ(destroyed.load(), 2);
  EXPECT_EQ(answered.load(), 1);  // the second request was never answered
}

}  // namespace
