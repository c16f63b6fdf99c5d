// What the address fuzz target does not check: the statics, bytes a parse does
// not write, the scope of a link-local address, and an unknown family.
#include "zelsocket/ip_address.h"

#include <gtest/gtest.h>

namespace zelsocket {
namespace {

TEST(IPAddressTest, StaticsEqualityAndScope) {
  EXPECT_EQ(IPAddress::Any.GetString() + IPAddress::None.GetString(), "0.0.0.0255.255.255.255");
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
  EXPECT_TRUE(scoped.GetSockAddr6().sin6_scope_id != 0 && scoped != IPAddress("fe80::1"));
  IPEndPoint ep;
  ASSERT_TRUE(ep.FromIPPort(scoped, 443));
  EXPECT_EQ(reinterpret_cast<const sockaddr_in6*>(ep.GetSockAddr())->sin6_scope_id, 0u);
  sockaddr other = {};
  other.sa_family = AF_UNIX;
  EXPECT_FALSE(ep.FromSockaddr(&other) || ep.IsValid() || ep.GetSockAddr()->sa_family != 0);  // cleared
}

}  // namespace
}  // namespace zelsocket
