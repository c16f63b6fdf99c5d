// What the address fuzz target does not check on every input: the statics,
// bytes that a parse does not write, and the scope of a link-local address.
#include "zelsocket/ip_address.h"

#include <gtest/gtest.h>
#ifndef _WIN32
#include <net/if.h>
#endif

#include <cstring>

namespace zelsocket {
namespace {

TEST(IPAddressTest, StaticsAndEqualityOverTheWholeBlock) {
  EXPECT_EQ(IPAddress::Any.GetString(), "0.0.0.0");
  EXPECT_EQ(IPAddress::Loopback.GetString(), "127.0.0.1");
  EXPECT_EQ(IPAddress::None.GetString(), "255.255.255.255");
  EXPECT_TRUE(IPAddress(IPAddress::Loopback.GetAddress()) == IPAddress("127.0.0.1"));
  EXPECT_TRUE(IPAddress("127.0.0.2") != IPAddress::Loopback);

  // An IPv4 address written over an IPv6 value keeps the bytes behind it,
  // and so differs from the same address built afresh.
  IPAddress reused("2001:db8::1");
  reused.SetAddress(IPAddress::Loopback.GetAddress());
  EXPECT_EQ(reused.GetString(), "127.0.0.1");
  EXPECT_TRUE(reused != IPAddress::Loopback);

#ifndef _WIN32
  // A zone names an interface whose index is the scope, and the scope counts.
  IPAddress scoped("fe80::1%lo");
  ASSERT_EQ(scoped.GetFamily(), AF_INET6);
  EXPECT_EQ(scoped.GetSockAddr6().sin6_scope_id, if_nametoindex("lo"));
  EXPECT_TRUE(scoped != IPAddress("fe80::1"));
  EXPECT_TRUE(IPAddress(scoped.GetAddress6()) == IPAddress("fe80::1"));
#endif
}

TEST(IPEndPointTest, ScopeIsDroppedFromAddressesButKeptFromSockaddrs) {
  IPEndPoint ep;
  ASSERT_TRUE(ep.FromIPPort(IPAddress("fe80::1%lo"), 443));
  const auto* sa6 = reinterpret_cast<const sockaddr_in6*>(ep.GetSockAddr());
  EXPECT_EQ(sa6->sin6_scope_id, 0u);
  EXPECT_EQ(sa6->sin6_port, htons(443));

  sockaddr_in6 in6 = {};
  in6.sin6_family = AF_INET6;
  in6.sin6_port = htons(7000);
  in6.sin6_flowinfo = htonl(5);
  in6.sin6_scope_id = 3;
  in6.sin6_addr.s6_addr[15] = 9;
  IPEndPoint raw(reinterpret_cast<const sockaddr*>(&in6));
  EXPECT_EQ(std::memcmp(raw.GetSockAddr(), &in6, sizeof in6), 0);
  EXPECT_EQ(raw.GetAddress().GetSockAddr6().sin6_scope_id, 0u);
  EXPECT_EQ(raw.GetAddress().GetSockAddr6().sin6_flowinfo, 0u);

  // A family the class does not know clears the block; so does an unset address.
  sockaddr other = {};
  other.sa_family = AF_UNIX;
  EXPECT_FALSE(raw.FromSockaddr(&other));
  EXPECT_FALSE(raw.IsValid());
  EXPECT_EQ(raw.GetSockAddr()->sa_family, 0);
  ep = IPEndPoint("127.0.0.1", 9);
  EXPECT_FALSE(ep.FromIPPort(IPAddress(), 9));
  EXPECT_EQ(ep.GetSockAddr()->sa_family, 0);
  EXPECT_TRUE(ep.FromIPPort(IPAddress::Loopback, 0));  // accepted, though port 0 is not valid
  EXPECT_FALSE(ep.IsValid());
}

}  // namespace
}  // namespace zelsocket
