// Reference counting, cookies and the log: the pieces every other object uses.
#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "core/logging.h"
#include "support/test_support.h"
#include "zelsocket/ref_count.h"
#include "zelsocket/sync.h"

namespace zelsocket {
namespace {

std::atomic<int> g_destroyed{0};

class Counted : public RefCount {
 public:
  ~Counted() override { ++g_destroyed; }
};

TEST(RefCount, ConcurrentReleasesDeleteExactlyOnce) {
  g_destroyed = 0;
  for (int round = 0; round < 50; ++round) {
    auto* object = new Counted();
    for (int i = 0; i < 7; ++i) object->AddRef();
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) threads.emplace_back([object] { object->Release(); });
    for (auto& t : threads) t.join();
  }
  EXPECT_EQ(g_destroyed, 50);
  volatile int value = 5;
  EXPECT_EQ(AtomicAdd(&value, -2), 3);  // the value after the addition
}

TEST(RefPtr, SelfAssignmentKeepsAndAttachAdoptsTheReference) {
  g_destroyed = 0;
  auto* object = new Counted();  // count 1, ours
  {
    RefPtr<Counted> a(object);
    RefPtr<Counted> b(a);
    b = object;  // the held pointer again: must not drop to zero on the way
    b = nullptr;
    EXPECT_EQ(object->AddRef(), 3);  // ours, a's, this one
    object->Release();
  }
  RefPtr<Counted> owner;
  owner.Attach(object);  // takes over our reference without adding one
  owner = nullptr;
  EXPECT_EQ(g_destroyed, 1);
}

TEST(CookieMgr, CountsFromOneSkipsZeroOnWrapAndNeverRepeatsAcrossThreads) {
  CookieMgr nearWrap(4294967294u);
  EXPECT_EQ(nearWrap.GetCookie(), 4294967295u);
  EXPECT_EQ(nearWrap.GetCookie(), 1u);
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

TEST(Log, GoesToTheCallbackWithLevelAndTagElseBareToStandardOutput) {
  testing::internal::CaptureStdout();
  {
    zstest::LogRecorder log;
    LogDebug(tag::kTimer, "d=%d", 4);
    LogError(tag::kAsync, "e");
    EXPECT_TRUE(log.Has(LOG_LEVEL_DEBUG, "timer", "d=4"));
    EXPECT_TRUE(log.Has(LOG_LEVEL_ERROR, "async", "e"));
  }
  LogInfo(tag::kLoop, "after %s", "x");  // the recorder has put the null callback back
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "after x\n");
}

TEST(Log, MessagesAreCutTo2047CharactersAndWideStringsPrintAsUtf8) {
  zstest::LogRecorder log;
  LogInfo(tag::kUdp, "%s", std::string(3000, 'a').c_str());
  LogInfo(tag::kNonLspSocket, "%S[%5S|%-4S|%u]", L"\u00e9\u4e2d\U0001F600", L"ab", L"c", 4000000000u);
  auto lines = log.Lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].message, std::string(2047, 'a'));
  EXPECT_EQ(lines[1].message, "\xc3\xa9\xe4\xb8\xad\xf0\x9f\x98\x80[   ab|c   |4000000000]");
}

// The log formats by hand (for %S); each row is a conversion or a code point at
// an encoding boundary that a hand-written formatter gets wrong.
TEST(Log, SizedConversionsAndUtf8Boundaries) {
  zstest::LogRecorder log;
  const std::ptrdiff_t diff = -5;
  LogInfo(tag::kUdp, "%S%zd|%td|%zu|%jd", L"", static_cast<std::ptrdiff_t>(-3), diff, std::size_t{7},
          static_cast<std::intmax_t>(-9));
  LogInfo(tag::kUdp, "%S", L"\u007f\u0080\u07ff\u0800\uffff");
  const wchar_t pair[] = {static_cast<wchar_t>(0xD83D), static_cast<wchar_t>(0xDE00), 0};
  LogInfo(tag::kUdp, "%S", pair);
  auto lines = log.Lines();
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0].message, "-3|-5|7|-9");
  EXPECT_EQ(lines[1].message, "\x7f\xc2\x80\xdf\xbf\xe0\xa0\x80\xef\xbf\xbf");
  // UTF-16 joins a surrogate pair; in UTF-32 each half is an invalid code point.
  EXPECT_EQ(lines[2].message, sizeof(wchar_t) == 2 ? "\xf0\x9f\x98\x80" : "\xef\xbf\xbd\xef\xbf\xbd");
}

}  // namespace
}  // namespace zelsocket
