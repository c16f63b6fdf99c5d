#include "zelsocket/ip_address.h"

#include <uv.h>

#include <cstring>

namespace zelsocket {

namespace {

static_assert(sizeof(sockaddr_storage) == 128, "the address block is 128 bytes");

sockaddr_storage* NewBlock() { return new sockaddr_storage(); }

sockaddr_in* V4(sockaddr_storage* block) { return reinterpret_cast<sockaddr_in*>(block); }
sockaddr_in6* V6(sockaddr_storage* block) { return reinterpret_cast<sockaddr_in6*>(block); }

bool ParseInto(sockaddr_storage* block, const char* text) {
  if (uv_ip6_addr(text, 0, V6(block)) == 0) return true;
  if (uv_ip4_addr(text, 0, V4(block)) == 0) return true;
  std::memset(block, 0, sizeof *block);
  return false;
}

void WriteV6(sockaddr_storage* block, const in6_addr& address, unsigned short portNetworkOrder) {
  sockaddr_in6* sa = V6(block);
  sa->sin6_family = AF_INET6;
  sa->sin6_port = portNetworkOrder;
  sa->sin6_flowinfo = 0;
  sa->sin6_addr = address;
  sa->sin6_scope_id = 0;
}

}  // namespace

// The statics are built when the library is loaded.
IPAddress IPAddress::None("255.255.255.255");
IPAddress IPAddress::Any("0.0.0.0");
IPAddress IPAddress::Loopback("127.0.0.1");

IPAddress::IPAddress() : _block(NewBlock()) {}
IPAddress::IPAddress(const char* text) : _block(NewBlock()) { ParseInto(_block, text); }
IPAddress::IPAddress(unsigned int address) : _block(NewBlock()) {
  in_addr a;
  a.s_addr = address;
  SetAddress(a);
}
IPAddress::IPAddress(const in_addr& address) : _block(NewBlock()) { SetAddress(address); }
IPAddress::IPAddress(const in6_addr& address) : _block(NewBlock()) { SetAddress6(address); }
IPAddress::IPAddress(const IPAddress& other) : _block(NewBlock()) { *_block = *other._block; }
IPAddress::~IPAddress() { delete _block; }

IPAddress& IPAddress::operator=(const IPAddress& other) {
  if (this != &other) *_block = *other._block;
  return *this;
}

bool IPAddress::operator==(const IPAddress& other) {
  if (_block->ss_family != other._block->ss_family) return false;
  switch (_block->ss_family) {
    case AF_INET:
      return std::memcmp(_block, other._block, sizeof(sockaddr_in)) == 0;
    case AF_INET6:
      return std::memcmp(_block, other._block, sizeof(sockaddr_in6)) == 0;
    default:
      return true;  // both unset (or both of a family we never write)
  }
}

bool IPAddress::operator!=(const IPAddress& other) { return !(*this == other); }

bool IPAddress::IsValid() const { return _block->ss_family == AF_INET || _block->ss_family == AF_INET6; }

unsigned short IPAddress::GetFamily() const { return _block->ss_family; }

std::string IPAddress::GetString() const {
  char text[64] = {0};
  if (_block->ss_family == AF_INET) uv_ip4_name(V4(_block), text, sizeof text);
  else if (_block->ss_family == AF_INET6) uv_ip6_name(V6(_block), text, sizeof text);
  return text;
}

bool IPAddress::Parse(const char* text) { return ParseInto(_block, text); }
bool IPAddress::FromString(const char* text) { return ParseInto(_block, text); }

const in_addr& IPAddress::GetAddress() const { return V4(_block)->sin_addr; }
const in6_addr& IPAddress::GetAddress6() const { return V6(_block)->sin6_addr; }
const sockaddr_in& IPAddress::GetSockAddr() const { return *V4(_block); }
const sockaddr_in6& IPAddress::GetSockAddr6() const { return *V6(_block); }

void IPAddress::SetAddress(const in_addr& address) {
  sockaddr_in* sa = V4(_block);
  sa->sin_family = AF_INET;
  sa->sin_port = 0;
  sa->sin_addr = address;
}

void IPAddress::SetAddress6(const in6_addr& address) { WriteV6(_block, address, 0); }

IPEndPoint::IPEndPoint() : _block(NewBlock()) {}
IPEndPoint::IPEndPoint(const sockaddr* address) : _block(NewBlock()) { FromSockaddr(address); }
IPEndPoint::IPEndPoint(const char* text, unsigned short port) : _block(NewBlock()) {
  IPAddress address(text);
  if (address.IsValid()) FromIPPort(address, port);
}
IPEndPoint::IPEndPoint(const IPAddress& address, unsigned short port) : _block(NewBlock()) {
  FromIPPort(address, port);
}
IPEndPoint::IPEndPoint(const IPEndPoint& other) : _block(NewBlock()) { *_block = *other._block; }
IPEndPoint::~IPEndPoint() { delete _block; }

IPEndPoint& IPEndPoint::operator=(const IPEndPoint& other) {
  if (this != &other) *_block = *other._block;
  return *this;
}

bool IPEndPoint::IsValid() const {
  return (_block->ss_family == AF_INET || _block->ss_family == AF_INET6) && GetPort() != 0;
}

unsigned short IPEndPoint::GetPort() const {
  if (_block->ss_family == AF_INET) return ntohs(V4(_block)->sin_port);
  if (_block->ss_family == AF_INET6) return ntohs(V6(_block)->sin6_port);
  return 0;
}

IPAddress IPEndPoint::GetAddress() const {
  if (_block->ss_family == AF_INET) return IPAddress(V4(_block)->sin_addr);
  if (_block->ss_family == AF_INET6) return IPAddress(V6(_block)->sin6_addr);
  return IPAddress();
}

sockaddr* IPEndPoint::GetSockAddr() { return reinterpret_cast<sockaddr*>(_block); }
const sockaddr* IPEndPoint::GetSockAddr() const { return reinterpret_cast<const sockaddr*>(_block); }

bool IPEndPoint::FromSockaddr(const sockaddr* address) {
  std::memset(_block, 0, sizeof *_block);
  if (!address) return false;
  if (address->sa_family == AF_INET) {
    std::memcpy(_block, address, sizeof(sockaddr_in));
    return true;
  }
  if (address->sa_family == AF_INET6) {
    std::memcpy(_block, address, sizeof(sockaddr_in6));
    return true;
  }
  return false;
}

bool IPEndPoint::FromIPPort(const IPAddress& address, unsigned short port) {
  if (!address.IsValid()) {
    std::memset(_block, 0, sizeof *_block);
    return false;
  }
  if (address.GetFamily() == AF_INET) {
    sockaddr_in* sa = V4(_block);
    sa->sin_family = AF_INET;
    sa->sin_addr = address.GetAddress();
    sa->sin_port = htons(port);
  } else {
    WriteV6(_block, address.GetAddress6(), htons(port));
  }
  return true;
}

}  // namespace zelsocket
