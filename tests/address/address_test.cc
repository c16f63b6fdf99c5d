// Address values, and host resolution over a resolver of the test's own.
#include "zelsocket/host_resolve.h"

#include <gtest/gtest.h>

#include "address/host_addr_cache.h"
#include "core/platform.h"
#include "support/fake_resolver.h"
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
      {"127.0.0.1", AF_INET, "127.0.0.1"},     {"::1", AF_INET6, "::1"},       {"2001:DB8::0001", AF_INET6, "2001:db8::1"},
      {kScoped, AF_INET6, "fe80::1"},           {"1.2.3.4.5", 0, ""},            {"example.test", 0, ""},
      {"", 0, ""},                              {"[::1]", 0, ""},                {"255.255.255.255", AF_INET, "255.255.255.255"}};
  for (const auto& row : rows) {
    IPAddress address("2001:db8::9");
    EXPECT_EQ(address.Parse(row.text), row.family != 0) << row.text;
    EXPECT_EQ(address.GetFamily(), row.family) << row.text;
    EXPECT_EQ(address.IsValid(), row.family != 0) << row.text;
    EXPECT_EQ(address.GetString(), row.printed) << row.text;
    EXPECT_EQ(IPEndPoint(row.text, 80).GetPort(), row.family != 0 ? 80 : 0) << row.text;
  }
}

// Families first; unset values are equal; the whole socket address counts,
// scope included.
TEST(IPAddressTest, EqualityAndTheStatics) {
  in_addr loopback{};
  loopback.s_addr = htonl(0x7F000001);
  IPAddress set("10.0.0.1"), scoped(kScoped);
  set = IPAddress();  // assignment copies the unset block too
  const struct { IPAddress a, b; bool equal; } rows[] = {
      {IPAddress(), set, true},
      {IPAddress(), IPAddress::Any, false},
      {IPAddress::Any, IPAddress("0.0.0.0"), true},
      {IPAddress::None, IPAddress("255.255.255.255"), true},
      {IPAddress::Loopback, IPAddress("127.0.0.1"), true},
      {IPAddress::Loopback, IPAddress(loopback), true},
      {IPAddress::Loopback, IPAddress(htonl(0x7F000001)), true},
      {IPAddress::Loopback, IPAddress("127.0.0.2"), false},
      {IPAddress("::"), IPAddress("0.0.0.0"), false},
      {IPAddress("::1"), IPAddress(in6addr_loopback), true},
      {scoped, IPAddress("fe80::1"), false},
      {IPAddress(scoped.GetAddress6()), IPAddress("fe80::1"), true},
      {IPEndPoint(scoped, 1).GetAddress(), IPAddress("fe80::1"), true},  // the scope is not carried
  };
  for (size_t i = 0; i < std::size(rows); ++i) {
    IPAddress a = rows[i].a;
    EXPECT_EQ(a == rows[i].b, rows[i].equal) << i;
    EXPECT_EQ(a != rows[i].b, !rows[i].equal) << i;
  }
}

// Valid only with a family and a port; the port is in network order in the
// block, and a raw address of another family unsets the value.
TEST(IPEndPointTest, PortsFamiliesAndRawAddresses) {
  IPEndPoint any(IPAddress::Any, 0), six("::1", 443), copy("10.0.0.1", 7);
  EXPECT_FALSE(any.IsValid());
  EXPECT_EQ(any.GetSockAddr()->sa_family, AF_INET);
  EXPECT_TRUE(six.IsValid());
  EXPECT_EQ(reinterpret_cast<const sockaddr_in6*>(six.GetSockAddr())->sin6_port, htons(443));
  EXPECT_FALSE(IPEndPoint().IsValid());
  EXPECT_NE(IPEndPoint().GetSockAddr(), nullptr);
  EXPECT_FALSE(copy.FromIPPort(IPAddress(), 7));
  EXPECT_EQ(copy.GetSockAddr()->sa_family, 0);
  sockaddr_in6 scoped = *reinterpret_cast<const sockaddr_in6*>(six.GetSockAddr());
  scoped.sin6_scope_id = 3;
  ASSERT_TRUE(copy.FromSockaddr(reinterpret_cast<sockaddr*>(&scoped)));
  EXPECT_EQ(reinterpret_cast<const sockaddr_in6*>(copy.GetSockAddr())->sin6_scope_id, 3u);
  EXPECT_EQ(copy.GetPort(), 443);
  scoped.sin6_family = AF_UNIX;
  EXPECT_FALSE(copy.FromSockaddr(reinterpret_cast<sockaddr*>(&scoped)));
  EXPECT_EQ(copy.GetPort(), 0);
  EXPECT_FALSE(copy.FromSockaddr(nullptr));
}

TEST(HostResolveTest, RefusesBadArgumentsAtOnce) {
  auto sink = zstest::NewRecorder();
  EXPECT_FALSE(HostResolve(nullptr, sink, nullptr));
  EXPECT_FALSE(HostResolve("", sink, nullptr));
  EXPECT_FALSE(HostResolve("example.test", nullptr, nullptr));
  zstest::Drain(*IOLoop::DefaultLoop());
  EXPECT_EQ(sink->Events().size(), 0u);
}

// Every answer comes later, on the loop thread.  A literal needs no lookup;
// otherwise the age of the entry decides: below 1200 s it answers alone, below
// 7200 s it answers and a lookup refreshes it behind; older or missing entries
// wait for their lookup.  A failed lookup leaves the old entry.
TEST(HostResolveTest, AnswersByLiteralAndByTheAgeOfTheEntry) {
  static int run = 0;  // the cache outlives a test: names of this run's own
  const std::string tag = "-" + std::to_string(++run) + ".test";
  struct Row {
    std::string host;
    std::int64_t age;      // of the entry (10.0.0.4) put in first; -1: none
    std::string resolves;  // what a lookup gives; empty: it fails
    int calls, status;
    std::string answer;
    int lookups;
    std::string kept;  // the entry afterwards
  } const rows[] = {
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
  std::map<std::string, std::string> table;
  for (const Row& row : rows) table[row.host + tag] = row.resolves;
  zstest::FakeResolver resolver(table);
  auto sink = zstest::NewRecorder();
  size_t answersDuringCalls = 99;
  IOLoop& loop = *IOLoop::DefaultLoop();
  zstest::OnLoop(loop, [&] {
    for (const Row& row : rows) {
      std::string host = row.host == "::1" ? row.host : row.host + tag;
      if (row.age >= 0)
        HostAddrCache::Instance()->PutEntryForTesting(host, IPAddress("10.0.0.4"), platform::WallClockSeconds() - row.age);
      for (int i = 0; i < row.calls; ++i) EXPECT_TRUE(HostResolve(host.c_str(), sink, &table)) << host;
    }
    answersDuringCalls = sink->Events().size();
  });
  EXPECT_EQ(answersDuringCalls, 0u);
  zstest::Drain(loop);
  for (const Row& row : rows) {
    std::string host = row.host == "::1" ? row.host : row.host + tag;
    int answers = 0;
    for (const zstest::Event& e : sink->Events()) {
      if (e.data != host) continue;
      ++answers;
      EXPECT_EQ(e.status, row.status) << host;
      EXPECT_EQ(e.address.GetAddress().GetString(), row.answer) << host;
      EXPECT_EQ(e.ctx, &table) << host;
      EXPECT_TRUE(e.onLoop) << host;
    }
    EXPECT_EQ(answers, row.calls) << host;
    EXPECT_EQ(resolver.Lookups(host), row.lookups) << host;
    IPAddress kept;
    std::int64_t time = 0;
    HostAddrCache::Instance()->GetEntryForTesting(host.c_str(), kept, time);
    EXPECT_EQ(kept.GetString(), row.kept) << host;
  }
}

}  // namespace
}  // namespace zelsocket
