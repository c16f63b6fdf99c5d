// Parses arbitrary text as an address and checks what the value classes
// promise about it: the parse either yields a valid value whose text parses
// back to the same address, or leaves every byte of the block zero.
#ifdef _WIN32
#include <ws2tcpip.h>
#else
#include <arpa/inet.h>
#endif

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "zelsocket/ip_address.h"

using zelsocket::IPAddress;
using zelsocket::IPEndPoint;

namespace {

void Require(bool condition) {
  if (!condition) std::abort();
}

bool AllZero(const void* p, std::size_t n) {
  const auto* bytes = static_cast<const unsigned char*>(p);
  for (std::size_t i = 0; i < n; ++i) {
    if (bytes[i] != 0) return false;
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) return 0;
  const unsigned short port = static_cast<unsigned short>(data[0] << 8 | data[1]);
  std::string text(reinterpret_cast<const char*>(data + 2), size - 2);
  const char* c = text.c_str();  // stops at the first NUL, as a C caller's text would

  // Start from a set value: a failed parse must destroy it.
  IPAddress address("2001:db8::1");
  const bool parsed = address.Parse(c);
  Require(parsed == address.IsValid());
  const std::string printed = address.GetString();
  if (!parsed) {
    Require(address.GetFamily() == 0);
    Require(printed.empty());
    Require(AllZero(&address.GetSockAddr6(), sizeof(sockaddr_in6)));
    Require(address == IPAddress());
  } else {
    Require(address.GetFamily() == AF_INET || address.GetFamily() == AF_INET6);
    Require(!printed.empty() && printed.size() < 64);
    Require(printed.find_first_of("[]%") == std::string::npos);
    Require(address.GetSockAddr().sin_port == 0);
    // The text form names the same address; a zone is the one thing it drops.
    IPAddress again(printed.c_str());
    Require(again.IsValid() && again.GetFamily() == address.GetFamily());
    if (address.GetFamily() == AF_INET) {
      Require(again == address);
      Require(again.GetAddress().s_addr == address.GetAddress().s_addr);
    } else {
      Require(std::memcmp(&again.GetAddress6(), &address.GetAddress6(), sizeof(in6_addr)) == 0);
      Require(again.GetString() == printed);
      Require(IPAddress(address.GetAddress6()) == again);
    }
  }

  // The other name of the operation behaves identically.
  IPAddress twin;
  Require(twin.FromString(c) == parsed);
  Require(twin == address);

  IPEndPoint endPoint(c, port);
  Require(endPoint.GetSockAddr() != nullptr);
  Require(endPoint.IsValid() == (parsed && port != 0));
  Require(endPoint.GetPort() == (parsed ? port : 0));
  Require(endPoint.GetAddress().GetString() == printed);

  // An end point survives the trip through a raw socket address.
  IPEndPoint copy;
  Require(copy.FromSockaddr(endPoint.GetSockAddr()) == parsed);
  Require(copy.GetPort() == endPoint.GetPort());
  Require(copy.GetAddress().GetString() == printed);
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
