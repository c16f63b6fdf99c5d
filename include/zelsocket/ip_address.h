// Public header: IPv4/IPv6 addresses and end points as values.
//
// Both classes wrap one 128-byte socket address block of their own (the block
// is handed to socket calls as it is).  In the block, address and port are in
// network byte order; port arguments and GetPort are in host byte order.  No
// locking: copy freely between threads, but do not write one object while
// another thread uses it.
#ifndef ZELSOCKET_IP_ADDRESS_H
#define ZELSOCKET_IP_ADDRESS_H

#ifdef _WIN32
#include <winsock2.h>
#include <ws2tcpip.h>
#else
#include <netinet/in.h>
#include <sys/socket.h>
#endif

#include <string>

#include "zelsocket/export.h"

namespace zelsocket {

// An address without a port.  Unset (family 0) when default-constructed or when
// the last parse failed.
class ZELSOCKET_API IPAddress {
 public:
  IPAddress();
  // As Parse; a failure leaves the value unset.  `text` must not be null.
  explicit IPAddress(const char* text);
  // IPv4, from a value in network byte order (as in in_addr).
  explicit IPAddress(unsigned int address);
  explicit IPAddress(const in_addr& address);
  explicit IPAddress(const in6_addr& address);
  IPAddress(const IPAddress& other);
  ~IPAddress();
  IPAddress& operator=(const IPAddress& other);

  // Families differ: unequal; both unset: equal; IPv4 compares the 16 bytes of
  // sockaddr_in (sin_zero included), IPv6 the 28 bytes of sockaddr_in6 (flow
  // information and scope included).
  bool operator==(const IPAddress& other);
  bool operator!=(const IPAddress& other);

  bool IsValid() const;  // family is AF_INET or AF_INET6
  unsigned short GetFamily() const;
  // Text without port or brackets; empty when unset.
  std::string GetString() const;
  // Tries IPv6, then IPv4.  On failure the value becomes unset (the old value is
  // lost) and the result is false.
  bool Parse(const char* text);
  bool FromString(const char* text);

  // Views of the block, without a family check.
  const in_addr& GetAddress() const;
  const in6_addr& GetAddress6() const;
  const sockaddr_in& GetSockAddr() const;
  const sockaddr_in6& GetSockAddr6() const;
  // Sets family and address with port 0.  SetAddress leaves the other bytes of
  // the block as they were.
  void SetAddress(const in_addr& address);
  void SetAddress6(const in6_addr& address);

  static IPAddress None;      // 255.255.255.255
  static IPAddress Any;       // 0.0.0.0
  static IPAddress Loopback;  // 127.0.0.1

 private:
  sockaddr_storage* _block;
};

// An address and a port.  Valid only with a family and a port other than 0.
class ZELSOCKET_API IPEndPoint {
 public:
  IPEndPoint();
  explicit IPEndPoint(const sockaddr* address);
  // `text` is IPv4 or IPv6; anything else leaves the value unset.
  IPEndPoint(const char* text, unsigned short port);
  IPEndPoint(const IPAddress& address, unsigned short port);
  IPEndPoint(const IPEndPoint& other);
  ~IPEndPoint();
  IPEndPoint& operator=(const IPEndPoint& other);

  bool IsValid() const;
  unsigned short GetPort() const;  // host byte order; 0 when unset
  IPAddress GetAddress() const;    // flow information and scope are dropped
  sockaddr* GetSockAddr();         // never null, also when unset
  const sockaddr* GetSockAddr() const;
  // Copies an AF_INET or AF_INET6 address (scope kept).  Null or another family:
  // false, and the value is unset.
  bool FromSockaddr(const sockaddr* address);
  // False (value unset) for an invalid address; port 0 is accepted here.
  bool FromIPPort(const IPAddress& address, unsigned short port);

 private:
  sockaddr_storage* _block;
};

}  // namespace zelsocket

#endif  // ZELSOCKET_IP_ADDRESS_H
