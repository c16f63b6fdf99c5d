#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <tuple>
#include <utility>

#include "core/logging.h"
#include "support/test_support.h"
#include "zelsocket/buffer.h"
#include "zelsocket/sync.h"

namespace zelsocket {
namespace {

const char kBytes[] = "0123456789abcdefghijklmnopqrstuvwxyz";

// Reserve/reSize/Append/CopyFrom n, result, length, capacity: 16 at least, Append doubles, shrinks keep it.
struct Step { char op; int n; bool ok; int length, capacity; };
const std::vector<std::vector<Step>> kCases = {
    {{'R', 1, 1, 0, 16}, {'R', 17, 1, 0, 17}, {'R', 5, 1, 0, 17}}, {{'R', 0, 1, 0, 16}}, {{'A', 1, 1, 1, 16}},
    {{'S', 5, 1, 5, 16}, {'S', 0, 1, 0, 16}}, {{'S', 8, 1, 8, 16}, {'A', (1 << 30) - 8, 0, 8, 16}},  // a total of 2^30
    {{'A', 0, 1, 0, 0}, {'A', 10, 1, 10, 20}, {'A', 10, 1, 20, 20}, {'A', 1, 1, 21, 42}},
    {{'C', 8, 1, 8, 16}, {'C', 0, 1, 8, 16}, {'C', 3, 1, 3, 16}}};

TEST(Buffer, GrowthPolicy) {
  for (size_t c = 0; c < kCases.size(); ++c) {
    Buffer b;
    for (size_t i = 0; i < kCases[c].size(); ++i) {
      const Step& s = kCases[c][i];
      bool ok = s.op == 'R' ? b.Reserve(s.n) : s.op == 'S' ? b.Resize(s.n)
                : s.op == 'A' ? b.Append(kBytes, s.n) : b.CopyFrom(kBytes, s.n);
      EXPECT_EQ(std::make_tuple(ok, b.GetLength(), b.GetCapacity()), std::make_tuple(s.ok, s.length, s.capacity))
          << "case " << c << " step " << i;
    }
  }
}

// Copies own their bytes; Compare goes by length first, then by bytes.
TEST(Buffer, CopiesAndComparison) {
  Buffer b, assigned, empty;
  ASSERT_TRUE(b.Append(kBytes, 10));
  ASSERT_TRUE(b.Resize(4));
  ASSERT_TRUE(b.Resize(10));
  ASSERT_TRUE(b.Append(kBytes + 10, 20));
  Buffer copy(b);
  assigned = b;
  b.GetBuf()[0] = 'X';
  assigned = static_cast<Buffer&>(assigned);
  EXPECT_EQ(std::make_pair(copy.Compare(kBytes, 30), assigned.Compare(kBytes, 30)), std::make_pair(0, 0));
  EXPECT_EQ(copy.GetCapacity(), 30);
  copy = empty;
  EXPECT_TRUE(static_cast<IMutableBuffer*>(copy)->IsEmpty());
  EXPECT_EQ(Buffer(empty).GetBuf(), nullptr);
  b.CopyFrom("abc", 3);
  EXPECT_EQ(std::make_tuple(b.Compare("aaaaa", 5), b.Compare("abd", 3) < 0, b.Compare("abb", 3) > 0),
            std::make_tuple(-2, true, true));
  EXPECT_EQ(Buffer().Compare(nullptr, 0), 0);
}

int g_destroyed = 0;
struct Counted : RefCount { ~Counted() override { ++g_destroyed; } };

TEST(RefCount, RefPtrsKeepTheirReferenceAndCookiesSkipZero) {
  CookieMgr nearWrap(4294967294u);
  const std::uint32_t last = nearWrap.GetCookie(), next = nearWrap.GetCookie();
  EXPECT_EQ(std::make_pair(last, next), std::make_pair(4294967295u, 1u));
  auto* object = new Counted();  // count 1, ours
  RefPtr<Counted> a(object), b(a);
  b = object;  // the held pointer again: must not drop to zero on the way
  b = nullptr;
  a = nullptr;
  EXPECT_EQ(g_destroyed, 0);
  RefPtr<Counted>().Attach(object);
  EXPECT_EQ(std::exchange(g_destroyed, 0), 1);
}

// IsFlagOn is true when any bit of the mask is set.
TEST(BitFlagTest, SetResetAndAnyBitOfTheMask) {
  const struct { unsigned set, reset, query; bool on; } rows[] = {
      {0x5, 0, 0x4, true}, {0x5, 0, 0x2, false}, {0x5, 0, 0x6, true}, {0x5, 0x1, 0x1, false},
      {0x5, 0x1, 0x4, true}, {0x5, 0x5, 0x7, false}, {0, 0, 0xFFFFFFFF, false}, {0x80000000, 0, 0x80000001, true}};
  for (const auto& row : rows) {
    BitFlag flags;
    flags += row.set;
    flags -= row.reset;
    EXPECT_EQ(flags.IsFlagOn(row.query), row.on) << std::hex << row.set << " " << row.reset << " " << row.query;
    BitFlag copy(flags);
    copy.ResetAll();
    EXPECT_FALSE(copy.IsFlagOn(0xFFFFFFFF)) << std::hex << row.set;
  }
}

TEST(Log, CallbackGetsLevelTagAndFormattedTextElseBareLinesGoToStandardOutput) {
  testing::internal::CaptureStdout();
  {
    zstest::LogRecorder log;
    LogDebug(tag::kTimer, "%s", std::string(3000, 'a').c_str());  // cut to 2047
    const wchar_t pair[] = {static_cast<wchar_t>(0xD83D), static_cast<wchar_t>(0xDE00), 0};  // UTF-32: 2 invalid
    LogError(tag::kUdp, "%S%S[%5S|%-4S|%u|%lld|%td|%zd|%zu|%jd|%lu|%llx|%.10s|%10u|%p]",
             L"\u007f\u0080\u07ff\u0800\uffff\U0001F600", pair, L"ab", L"c", 4000000000u, -5000000000LL,
             std::ptrdiff_t{-7}, std::ptrdiff_t{-3}, std::size_t{9}, std::intmax_t{-9}, 7ul, 255ull, kBytes + 10, 42u,
             static_cast<const void*>(pair));
    char pointer[32];
    std::snprintf(pointer, sizeof pointer, "%p", static_cast<const void*>(pair));
    std::vector<zstest::LogLine> lines = log.Lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(std::make_tuple(lines[0].level, lines[0].tag), std::make_tuple(LOG_LEVEL_DEBUG, "timer"));
    EXPECT_EQ(lines[0].message, std::string(2047, 'a'));
    EXPECT_EQ(std::make_tuple(lines[1].level, lines[1].tag), std::make_tuple(LOG_LEVEL_ERROR, "udp"));
    EXPECT_EQ(lines[1].message, "\x7f\xc2\x80\xdf\xbf\xe0\xa0\x80\xef\xbf\xbf\xf0\x9f\x98\x80" +
        std::string(sizeof(wchar_t) == 2 ? "\xf0\x9f\x98\x80" : "\xef\xbf\xbd\xef\xbf\xbd") +
        "[   ab|c   |4000000000|-5000000000|-7|-3|9|-9|7|ff|abcdefghij|        42|" + pointer + "]");
  }
  LogInfo(tag::kLoop, "after %s", "x");  // the recorder has put the null callback back
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "after x\n");
}

}  // namespace
}  // namespace zelsocket
