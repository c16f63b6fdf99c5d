// What the address fuzz target does not check on every input: the statics,
// bytes that a parse does not write, and the scope of a link-local address.
#include "zelsocket/ip_address.h"

#include <gtest/gtest.h>

namespace zelsocket {
namespace {

TEST(IPAddressTest, StaticsEqualityAndScope) {
  EXPECT_EQ(IPAddress::Any.GetString() + IPAddress::None.GetString(), "0.0.0.0255.255.255.255");
  EXPECT_TRUE(IPAddress(IPAddress::Loopback.GetAddress()) == IPAddress("127.0.0.1"));
  EXPECT_TRUE(IPAddress("127.0.0.2") != IPAddress::Loopback);
  // IPv4 written over IPv6 keeps the bytes behind it: equality sees the whole block.
  IPAddress reused("2001:db8::1");
  reused.SetAddress(IPAddress::Loopback.GetAddress());
  EXPECT_EQ(reused.GetString(), "127.0.0.1");
  EXPECT_TRUE(reused != IPAddress::Loopback);
  // An address keeps its zone's scope; an end point built from it does not.
#ifdef _WIN32
  IPAddress scoped("fe80::1%1");
#else
  IPAddress scoped("fe80::1%lo");
#endif
  EXPECT_NE(scoped.GetSockAddr6().sin6_scope_id, 0u);
  EXPECT_TRUE(scoped != IPAddress("fe80::1"));
  IPEndPoint ep;
  ASSERT_TRUE(ep.FromIPPort(scoped, 443));
  EXPECT_EQ(reinterpret_cast<const sockaddr_in6*>(ep.GetSockAddr())->sin6_scope_id, 0u);
  // An unknown family or an unset address clears the block; port 0 is accepted but not valid.
  sockaddr other = {};
  other.sa_family = AF_UNIX;
  EXPECT_FALSE(ep.FromSockaddr(&other) || ep.IsValid() || ep.GetSockAddr()->sa_family != 0);
  ep = IPEndPoint("127.0.0.1", 9);
  EXPECT_FALSE(ep.FromIPPort(IPAddress(), 9) || ep.GetSockAddr()->sa_family != 0);
  EXPECT_TRUE(ep.FromIPPort(IPAddress::Loopback, 0));
  EXPECT_FALSE(ep.IsValid());
}

}  // namespace
}  // namespace zelsocket
