// Address values, and host resolution over a resolver of the test's own.
#include "zelsocket/host_resolve.h"

#include <gtest/gtest.h>

#include <tuple>

#include "address/host_addr_cache.h"
#include "core/platform.h"
#include "support/recorder.h"

namespace zelsocket {
namespace {

// A zone names an interface: by number on Windows, by name elsewhere.
#ifdef _WIN32
const char* const kScoped = "fe80::1%1";
#else
const char* const kScoped = "fe80::1%lo";
#endif

// Tries IPv6, then IPv4; a failure unsets the value that was there.  The
// printed text has no port, brackets or zone.
TEST(IPAddressTest, ParsesIntoFamilyAndText) {
  const struct { const char* text; unsigned short family; const char* printed; } rows[] = {
      {"127.0.0.1", AF_INET, "127.0.0.1"}, {"2001:DB8::0001", AF_INET6, "2001:db8::1"}, {kScoped, AF_INET6, "fe80::1"},
      {"1.2.3.4.5", 0, ""},                {"example.test", 0, ""},                     {"[::1]", 0, ""}};
  for (const auto& row : rows) {
    IPAddress address("2001:db8::9");
    bool parsed = address.Parse(row.text);
    EXPECT_EQ(std::make_tuple(parsed, address.GetFamily(), address.GetString(), IPEndPoint(row.text, 80).GetPort()),
              std::make_tuple(row.family != 0, row.family, std::string(row.printed), row.family ? 80 : 0))
        << row.text;
  }
}

// Families first; unset values are equal; the whole socket address counts,
// scope included; the statics are what they say.
TEST(IPAddressTest, EqualityAndTheStatics) {
  in_addr loopback{};
  loopback.s_addr = htonl(0x7F000001);
  IPAddress unset("10.0.0.1"), scoped(kScoped);
  unset = IPAddress();  // assignment copies the unset block too
  const struct { IPAddress a, b; bool equal; } rows[] = {
      {IPAddress(), unset, true},                            {IPAddress(), IPAddress::Any, false},
      {IPAddress::Any, IPAddress("0.0.0.0"), true},          {IPAddress::None, IPAddress("255.255.255.255"), true},
      {IPAddress::Loopback, IPAddress(loopback), true},      {IPAddress::Loopback, IPAddress(htonl(0x7F000001)), true},
      {IPAddress::Loopback, IPAddress("127.0.0.2"), false},  {IPAddress("::"), IPAddress("0.0.0.0"), false},
      {IPAddress("::1"), IPAddress(in6addr_loopback), true},  {scoped, IPAddress("fe80::1"), false},
      {IPEndPoint(scoped, 1).GetAddress(), IPAddress("fe80::1"), true},  // the scope is not carried
  };
  for (size_t i = 0; i < std::size(rows); ++i) {
    IPAddress a = rows[i].a;
    EXPECT_EQ(std::make_pair(a == rows[i].b, a != rows[i].b), std::make_pair(rows[i].equal, !rows[i].equal)) << i;
  }
}

// Valid only with a family and a port; the port is in network order in the
// block; a raw address keeps its scope, and one of another family unsets the value.
TEST(IPEndPointTest, PortsFamiliesAndRawAddresses) {
  IPEndPoint any(IPAddress::Any, 0), six("::1", 443), copy("10.0.0.1", 7);
  sockaddr_in6 raw = *reinterpret_cast<const sockaddr_in6*>(six.GetSockAddr());
  EXPECT_EQ(std::make_tuple(any.IsValid(), any.GetSockAddr()->sa_family, raw.sin6_port),
            std::make_tuple(false, AF_INET, htons(443)));
  EXPECT_FALSE(copy.FromIPPort(IPAddress(), 7));
  EXPECT_EQ(copy.GetSockAddr()->sa_family, 0);
  raw.sin6_scope_id = 3;
  ASSERT_TRUE(copy.FromSockaddr(reinterpret_cast<sockaddr*>(&raw)));
  EXPECT_EQ(reinterpret_cast<const sockaddr_in6*>(copy.GetSockAddr())->sin6_scope_id, 3u);
  raw.sin6_family = AF_UNIX;
  EXPECT_FALSE(copy.FromSockaddr(reinterpret_cast<sockaddr*>(&raw)));
  EXPECT_EQ(copy.GetPort(), 0);
  EXPECT_FALSE(copy.FromSockaddr(nullptr));
}

// Every answer comes later, on the loop thread.  A literal needs no lookup;
// otherwise the age of the entry decides: below 1200 s it answers alone, below
// 7200 s it answers and a lookup refreshes it behind; older or missing entries
// wait for their lookup.  A failed lookup leaves the old entry.  A null or
// empty host, or a null sink, is refused at once and never answered.
TEST(HostResolveTest, AnswersByLiteralAndByTheAgeOfTheEntry) {
  static int run = 0;  // the cache outlives a test: names of this run's own
  const std::string tag = "-" + std::to_string(++run) + ".test";
  // The age of the entry (10.0.0.4) put in first (-1: none), what a lookup gives
  // (empty: it fails), the calls; then each answer, the lookups, the entry kept.
  struct Row { std::string host; std::int64_t age; std::string resolves; int calls, status; std::string answer;
               int lookups; std::string kept; } const rows[] = {
      {"::1", -1, "", 1, 0, "::1", 0, ""},
      {"fresh", 1190, "10.0.0.5", 1, 0, "10.0.0.4", 0, "10.0.0.4"},
      {"stale", 1200, "10.0.0.5", 1, 0, "10.0.0.4", 1, "10.0.0.5"},
      {"laststale", 7190, "10.0.0.5", 1, 0, "10.0.0.4", 1, "10.0.0.5"},
      {"stalefails", 1200, "", 1, 0, "10.0.0.4", 1, "10.0.0.4"},
      {"expired", 7200, "10.0.0.5", 1, 0, "10.0.0.5", 1, "10.0.0.5"},
      {"expiredfails", 7200, "", 1, -1, "", 1, "10.0.0.4"},
      {"missing", -1, "10.0.0.5", 2, 0, "10.0.0.5", 2, "10.0.0.5"},  // lookups in flight are not merged
      {"missingfails", -1, "", 1, -1, "", 1, ""},
      {"refused", -1, "refuse", 1, -1, "", 1, ""},  // the lookup could not start
  };
  auto hostOf = [&](const Row& row) { return row.host == "::1" ? row.host : row.host + tag; };
  std::map<std::string, std::string> table;
  for (const Row& row : rows) table[hostOf(row)] = row.resolves;
  zstest::FakeResolver resolver(table);
  auto sink = zstest::NewRecorder();
  EXPECT_FALSE(HostResolve(nullptr, sink, nullptr));
  EXPECT_FALSE(HostResolve("", sink, nullptr));
  EXPECT_FALSE(HostResolve("example.test", nullptr, nullptr));
  size_t answersDuringCalls = 99;
  IOLoop& loop = *IOLoop::DefaultLoop();
  zstest::OnLoop(loop, [&] {
    for (const Row& row : rows) {
      if (row.age >= 0)
        HostAddrCache::Instance()->PutEntryForTesting(hostOf(row), IPAddress("10.0.0.4"),
                                                      platform::WallClockSeconds() - row.age);
      for (int i = 0; i < row.calls; ++i) EXPECT_TRUE(HostResolve(hostOf(row).c_str(), sink, &table)) << row.host;
    }
    answersDuringCalls = sink->Events().size();
  });
  EXPECT_EQ(answersDuringCalls, 0u);
  zstest::Drain(loop);
  EXPECT_EQ(sink->Events().size(), 11u);
  for (const Row& row : rows) {
    std::vector<std::tuple<int, std::string, void*, bool>> answers;  // status, address, ctx, on the loop
    for (const zstest::Event& e : sink->Events())
      if (e.data == hostOf(row)) answers.emplace_back(e.status, e.address.GetAddress().GetString(), e.ctx, e.onLoop);
    EXPECT_EQ(answers, decltype(answers)(row.calls, {row.status, row.answer, &table, true})) << row.host;
    EXPECT_EQ(resolver.Lookups(hostOf(row)), row.lookups) << row.host;
    IPAddress kept;
    std::int64_t time = 0;
    HostAddrCache::Instance()->GetEntryForTesting(hostOf(row).c_str(), kept, time);
    EXPECT_EQ(kept.GetString(), row.kept) << row.host;
  }
}

}  // namespace
}  // namespace zelsocket
