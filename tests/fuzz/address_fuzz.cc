// Parses arbitrary text as an address: the parse either yields a valid value
// whose text parses back to the same address, or leaves every byte zero.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "zelsocket/ip_address.h"

using zelsocket::IPAddress;
using zelsocket::IPEndPoint;

namespace {

void Require(bool condition) { if (!condition) std::abort(); }

bool AllZero(const void* p, std::size_t n) {
  return std::all_of(static_cast<const char*>(p), static_cast<const char*>(p) + n, [](char c) { return c == 0; });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) return 0;
  const unsigned short port = static_cast<unsigned short>(data[0] << 8 | data[1]);
  std::string text(reinterpret_cast<const char*>(data + 2), size - 2);
  const char* c = text.c_str();  // stops at the first NUL, as a C caller's text would

  IPAddress address("2001:db8::1");  // a failed parse must destroy the old value
  const bool parsed = address.Parse(c);
  const std::string printed = address.GetString();
  Require(parsed == address.IsValid());
  if (!parsed) {
    Require(address.GetFamily() == 0 && printed.empty() && address == IPAddress());
    Require(AllZero(&address.GetSockAddr6(), sizeof(sockaddr_in6)));
  } else {
    Require(address.GetFamily() == AF_INET || address.GetFamily() == AF_INET6);
    Require(!printed.empty() && printed.size() < 64 && printed.find_first_of("[]%") == std::string::npos);
    Require(address.GetSockAddr().sin_port == 0);
    IPAddress again(printed.c_str());  // names the same address; a zone is the one thing it drops
    Require(again.IsValid() && again.GetFamily() == address.GetFamily());
    if (address.GetFamily() == AF_INET) {
      Require(again == address && again.GetAddress().s_addr == address.GetAddress().s_addr);
    } else {
      Require(std::memcmp(&again.GetAddress6(), &address.GetAddress6(), sizeof(in6_addr)) == 0);
      Require(again.GetString() == printed && IPAddress(address.GetAddress6()) == again);
    }
  }

  IPEndPoint endPoint(c, port), copy;
  Require(endPoint.GetSockAddr() != nullptr && endPoint.IsValid() == (parsed && port != 0));
  Require(endPoint.GetPort() == (parsed ? port : 0) && endPoint.GetAddress().GetString() == printed);
  // Through a raw socket address and back.
  Require(copy.FromSockaddr(endPoint.GetSockAddr()) == parsed);
  Require(copy.GetPort() == endPoint.GetPort() && copy.GetAddress().GetString() == printed);
  if (parsed) {
    const std::size_t n = address.GetFamily() == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
    Require(std::memcmp(copy.GetSockAddr(), endPoint.GetSockAddr(), n) == 0);
    const auto* raw = reinterpret_cast<const sockaddr_in*>(endPoint.GetSockAddr());
    Require(raw->sin_port == htons(port));  // same offset in both structures
  } else {
    Require(AllZero(copy.GetSockAddr(), sizeof(sockaddr_storage)));
  }
  return 0;
}
