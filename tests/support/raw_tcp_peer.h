// A TCP peer on plain blocking sockets, for tests that must decide exactly
// when bytes arrive and when the connection ends: one accepted connection on
// 127.0.0.1, written to and closed by the test thread.  BSD sockets and
// Winsock differ only in the few calls wrapped here.
#ifndef ZELSOCKET_TESTS_SUPPORT_RAW_TCP_PEER_H
#define ZELSOCKET_TESTS_SUPPORT_RAW_TCP_PEER_H

#ifdef _WIN32
#include <winsock2.h>
#include <ws2tcpip.h>
#else
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#endif

#include <string>

#include "zelsocket/ip_address.h"

namespace zstest {

class RawTcpPeer {
 public:
#ifdef _WIN32
  using Socket = SOCKET;
  static constexpr Socket kNone = INVALID_SOCKET;
  static void CloseSocket(Socket s) { ::closesocket(s); }
  static constexpr int kSendFlags = 0;
#else
  using Socket = int;
  static constexpr Socket kNone = -1;
  static void CloseSocket(Socket s) { ::close(s); }
  static constexpr int kSendFlags = MSG_NOSIGNAL;  // a closed peer is an error here, not a signal
#endif

  RawTcpPeer() {
#ifdef _WIN32
    WSADATA data;
    m_wsa = ::WSAStartup(MAKEWORD(2, 2), &data) == 0;
#endif
    m_listen = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    m_ok = m_listen != kNone && ::bind(m_listen, reinterpret_cast<sockaddr*>(&a), len) == 0 &&
           ::listen(m_listen, 1) == 0 && ::getsockname(m_listen, reinterpret_cast<sockaddr*>(&a), &len) == 0;
    m_port = ntohs(a.sin_port);
  }
  RawTcpPeer(const RawTcpPeer&) = delete;
  RawTcpPeer& operator=(const RawTcpPeer&) = delete;
  ~RawTcpPeer() {
    Close();
    if (m_listen != kNone) CloseSocket(m_listen);
#ifdef _WIN32
    if (m_wsa) ::WSACleanup();
#endif
  }

  bool Ok() const { return m_ok; }
  zelsocket::IPEndPoint EndPoint() const { return zelsocket::IPEndPoint("127.0.0.1", m_port); }

  // Waits up to 5 s for the connection.
  bool Accept() {
    if (!m_ok) return false;
#ifdef _WIN32
    WSAPOLLFD p{m_listen, POLLRDNORM, 0};
    if (::WSAPoll(&p, 1, 5000) != 1) return false;
#else
    pollfd p{m_listen, POLLIN, 0};
    if (::poll(&p, 1, 5000) != 1) return false;
#endif
    m_conn = ::accept(m_listen, nullptr, nullptr);
    return m_conn != kNone;
  }
  bool Write(const std::string& s) {
    return ::send(m_conn, s.data(), static_cast<int>(s.size()), kSendFlags) == static_cast<int>(s.size());
  }
  void Close() {
    if (m_conn != kNone) CloseSocket(m_conn);
    m_conn = kNone;
  }

 private:
  Socket m_listen = kNone;
  Socket m_conn = kNone;
  bool m_ok = false;
#ifdef _WIN32
  bool m_wsa = false;
#endif
  unsigned short m_port = 0;
};

}  // namespace zstest

#endif  // ZELSOCKET_TESTS_SUPPORT_RAW_TCP_PEER_H
