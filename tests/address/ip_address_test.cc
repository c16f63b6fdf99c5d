#include "zelsocket/ip_address.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <net/if.h>

#include <cstring>
#include <string>

namespace zelsocket {
namespace {

bool BlockIsZero(const sockaddr* sa) {
  static const unsigned char zero[sizeof(sockaddr_storage)] = {};
  return std::memcmp(sa, zero, sizeof zero) == 0;
}

TEST(IPAddressTest, StaticsAndUnsetValues) {
  EXPECT_TRUE(IPAddress::Any.IsValid());
  EXPECT_EQ(IPAddress::Any.GetString(), "0.0.0.0");
  EXPECT_EQ(IPAddress::Loopback.GetString(), "127.0.0.1");
  EXPECT_EQ(IPAddress::None.GetString(), "255.255.255.255");
  EXPECT_EQ(IPAddress::None.GetFamily(), AF_INET);

  IPAddress unset;
  EXPECT_FALSE(unset.IsValid());
  EXPECT_EQ(unset.GetFamily(), 0);
  EXPECT_EQ(unset.GetString(), "");
  IPAddress otherUnset;
  EXPECT_TRUE(unset == otherUnset);
  EXPECT_FALSE(unset != otherUnset);
  EXPECT_TRUE(unset != IPAddress::Any);
}

TEST(IPAddressTest, ParsesBothFamiliesAndPrintsWithoutPortOrBrackets) {
  IPAddress v6("::1");
  EXPECT_EQ(v6.GetFamily(), AF_INET6);
  EXPECT_EQ(v6.GetString(), "::1");
  EXPECT_EQ(AF_INET6, 10);  // the platform's own value, not another ABI's

  IPAddress full("2001:db8::8:800:200c:417a");
  EXPECT_EQ(full.GetString(), "2001:db8::8:800:200c:417a");
  // A mapped address is tried as IPv6 first and stays IPv6.
  IPAddress mapped("::ffff:10.1.2.3");
  EXPECT_EQ(mapped.GetFamily(), AF_INET6);

  IPAddress v4("192.168.1.20");
  EXPECT_EQ(v4.GetFamily(), AF_INET);
  EXPECT_EQ(v4.GetString(), "192.168.1.20");
  EXPECT_EQ(v4.GetSockAddr().sin_port, 0);
  EXPECT_EQ(v4.GetAddress().s_addr, inet_addr("192.168.1.20"));
}

TEST(IPAddressTest, TextsThatAreNoAddressLeaveTheValueUnset) {
  const std::string longText(4096, '1');
  const char binary[] = {'\x01', '\xff', '\x80', ':', '%', '.', '\0'};
  for (const char* text : {"1.2.3.4.5", "", "256.1.1.1", "1.2.3", "localhost", "[::1]", "::1:", "1::2::3",
                           "127.0.0.1:80", " 127.0.0.1", longText.c_str(), binary}) {
    IPAddress a(text);
    EXPECT_FALSE(a.IsValid()) << text;
    EXPECT_EQ(a.GetString(), "") << text;
    EXPECT_TRUE(a == IPAddress()) << text;
  }
}

TEST(IPAddressTest, FailedParseDestroysThePreviousValue) {
  IPAddress a("10.0.0.1");
  ASSERT_TRUE(a.IsValid());
  EXPECT_FALSE(a.Parse("not an address"));
  EXPECT_FALSE(a.IsValid());
  EXPECT_TRUE(a == IPAddress());

  IPAddress b("fe80::1");
  EXPECT_FALSE(b.FromString("1.2.3.4.5"));
  EXPECT_EQ(b.GetFamily(), 0);
  EXPECT_TRUE(b.FromString("fe80::2"));
  EXPECT_EQ(b.GetString(), "fe80::2");
}

TEST(IPAddressTest, EqualityCoversEveryByteOfTheStructure) {
  in_addr raw;
  raw.s_addr = htonl(INADDR_LOOPBACK);
  IPAddress fromText("127.0.0.1");
  EXPECT_TRUE(fromText == IPAddress::Loopback);
  EXPECT_TRUE(IPAddress(raw) == IPAddress::Loopback);
  EXPECT_TRUE(IPAddress(htonl(INADDR_LOOPBACK)) == IPAddress::Loopback);
  EXPECT_TRUE(IPAddress("127.0.0.2") != IPAddress::Loopback);
  EXPECT_TRUE(IPAddress("::1") != IPAddress::Loopback);

  // Bytes behind the IPv4 address count: a value that held IPv6 before keeps
  // them, and so differs from the same IPv4 address built afresh.
  IPAddress reused("2001:db8::1");
  reused.SetAddress(raw);
  EXPECT_EQ(reused.GetString(), "127.0.0.1");
  EXPECT_TRUE(reused != IPAddress::Loopback);

  // A zone in the text names an interface; its index is the scope, which
  // counts in the comparison.  An in6_addr has none.
  const unsigned loIndex = if_nametoindex("lo");
  ASSERT_NE(loIndex, 0u);
  IPAddress scoped("fe80::1%lo");
  IPAddress plain("fe80::1");
  ASSERT_EQ(scoped.GetFamily(), AF_INET6);
  EXPECT_EQ(scoped.GetSockAddr6().sin6_scope_id, loIndex);
  EXPECT_TRUE(scoped != plain);
  EXPECT_TRUE(IPAddress(scoped.GetAddress6()) == plain);
  IPAddress reset(scoped);
  reset.SetAddress6(scoped.GetAddress6());
  EXPECT_TRUE(reset == plain);
}

TEST(IPAddressTest, CopiesAreIndependent) {
  IPAddress a("10.1.1.1");
  IPAddress b(a);
  IPAddress c;
  c = a;
  a.Parse("::2");
  EXPECT_EQ(b.GetString(), "10.1.1.1");
  EXPECT_EQ(c.GetString(), "10.1.1.1");
  IPAddress& self = c;
  c = self;
  EXPECT_EQ(c.GetString(), "10.1.1.1");
}

TEST(IPEndPointTest, PortAndValidity) {
  IPEndPoint anyZero(IPAddress::Any, 0);
  EXPECT_EQ(anyZero.GetSockAddr()->sa_family, AF_INET);
  EXPECT_TRUE(anyZero.GetAddress() == IPAddress::Any);
  EXPECT_EQ(anyZero.GetPort(), 0);
  EXPECT_FALSE(anyZero.IsValid());

  IPEndPoint dns("127.0.0.1", 53);
  EXPECT_TRUE(dns.IsValid());
  EXPECT_EQ(dns.GetPort(), 53);
  EXPECT_EQ(dns.GetAddress().GetString(), "127.0.0.1");
  EXPECT_EQ(reinterpret_cast<const sockaddr_in*>(dns.GetSockAddr())->sin_port, htons(53));

  IPEndPoint bad("1.2.3.4.5", 80);
  EXPECT_EQ(bad.GetPort(), 0);
  EXPECT_FALSE(bad.IsValid());
  EXPECT_NE(bad.GetSockAddr(), nullptr);
  EXPECT_TRUE(BlockIsZero(bad.GetSockAddr()));

  IPEndPoint unset;
  EXPECT_FALSE(unset.IsValid());
  EXPECT_FALSE(unset.GetAddress().IsValid());
  EXPECT_NE(unset.GetSockAddr(), nullptr);
}

TEST(IPEndPointTest, FromIPPortWritesNetworkOrderAndDropsScope) {
  IPEndPoint ep;
  ASSERT_TRUE(ep.FromIPPort(IPAddress("fe80::1%lo"), 443));
  const auto* sa6 = reinterpret_cast<const sockaddr_in6*>(ep.GetSockAddr());
  EXPECT_EQ(sa6->sin6_family, AF_INET6);
  EXPECT_EQ(sa6->sin6_port, htons(443));
  EXPECT_EQ(sa6->sin6_scope_id, 0u);
  EXPECT_EQ(sa6->sin6_flowinfo, 0u);
  EXPECT_EQ(ep.GetPort(), 443);
  EXPECT_EQ(ep.GetAddress().GetString(), "fe80::1");

  EXPECT_TRUE(ep.FromIPPort(IPAddress::Loopback, 0));  // accepted, though not valid
  EXPECT_FALSE(ep.IsValid());
  EXPECT_EQ(ep.GetSockAddr()->sa_family, AF_INET);

  ep.FromIPPort(IPAddress::Loopback, 9);
  EXPECT_FALSE(ep.FromIPPort(IPAddress(), 9));
  EXPECT_TRUE(BlockIsZero(ep.GetSockAddr()));
}

TEST(IPEndPointTest, FromSockaddrKeepsScopeAndClearsOnFailure) {
  sockaddr_in6 in6 = {};
  in6.sin6_family = AF_INET6;
  in6.sin6_port = htons(7000);
  in6.sin6_flowinfo = htonl(5);
  in6.sin6_scope_id = 3;
  inet_pton(AF_INET6, "fe80::9", &in6.sin6_addr);

  IPEndPoint ep(reinterpret_cast<const sockaddr*>(&in6));
  EXPECT_TRUE(ep.IsValid());
  EXPECT_EQ(std::memcmp(ep.GetSockAddr(), &in6, sizeof in6), 0);
  // The address of an end point drops flow information and scope.
  IPAddress address = ep.GetAddress();
  EXPECT_EQ(address.GetSockAddr6().sin6_scope_id, 0u);
  EXPECT_EQ(address.GetSockAddr6().sin6_flowinfo, 0u);
  EXPECT_EQ(address.GetSockAddr6().sin6_port, 0);

  EXPECT_FALSE(ep.FromSockaddr(nullptr));
  EXPECT_TRUE(BlockIsZero(ep.GetSockAddr()));

  ep.FromIPPort(IPAddress::Loopback, 1);
  sockaddr other = {};
  other.sa_family = AF_UNIX;
  EXPECT_FALSE(ep.FromSockaddr(&other));
  EXPECT_TRUE(BlockIsZero(ep.GetSockAddr()));

  IPEndPoint copy("::1", 5);
  IPEndPoint assigned;
  assigned = copy;
  copy.FromSockaddr(nullptr);
  EXPECT_EQ(assigned.GetPort(), 5);
  EXPECT_EQ(assigned.GetAddress().GetString(), "::1");
}

}  // namespace
}  // namespace zelsocket
