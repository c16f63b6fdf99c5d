// Test helpers for the TCP tests: a blocking POSIX peer on loopback, driven from
// its own thread or from the test, and a sink that records every report.
#ifndef ZELSOCKET_TESTS_SOCKET_TCP_PEER_H
#define ZELSOCKET_TESTS_SOCKET_TCP_PEER_H

#include <dirent.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/test_support.h"
#include "zelsocket/io_loop.h"
#include "zelsocket/tcp.h"

namespace zstest {

inline socklen_t SockLen(const zelsocket::IPEndPoint& ep) {
  return ep.GetSockAddr()->sa_family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
}

// Milliseconds left until `deadline`, at least 0.
inline int MsLeft(std::chrono::steady_clock::time_point deadline) {
  auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
  return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

// Listens on 127.0.0.1 or ::1, port 0, and serves one connection.
class TcpPeer {
 public:
  // `rcvbuf` (inherited by the accepted socket): a small window keeps writes
  // pending.  `backlog` 0 with FillBacklog keeps connection attempts pending.
  explicit TcpPeer(bool ipv6 = false, int rcvbuf = 0, int backlog = 4)
      : m_address(ipv6 ? "::1" : "127.0.0.1", 0), m_listen(::socket(ipv6 ? AF_INET6 : AF_INET, SOCK_STREAM, 0)) {
    if (rcvbuf > 0) ::setsockopt(m_listen, SOL_SOCKET, SO_RCVBUF, &rcvbuf, sizeof rcvbuf);
    socklen_t len = SockLen(m_address);
    m_ok = ::bind(m_listen, m_address.GetSockAddr(), len) == 0 && ::listen(m_listen, backlog) == 0 &&
           ::getsockname(m_listen, m_address.GetSockAddr(), &len) == 0;
  }
  ~TcpPeer() {
    if (m_thread.joinable()) m_thread.join();
    for (int fd : {m_conn, m_filler, m_listen}) {
      if (fd >= 0) ::close(fd);
    }
  }

  bool Ok() const { return m_ok; }
  unsigned short Port() const { return m_address.GetPort(); }
  zelsocket::IPEndPoint EndPoint() const { return m_address; }

  bool Accept(int timeoutMs = 5000) {
    pollfd p{m_listen, POLLIN, 0};
    if (::poll(&p, 1, timeoutMs) != 1) return false;
    if (m_conn >= 0) ::close(m_conn);
    m_conn = ::accept(m_listen, nullptr, nullptr);
    return m_conn >= 0;
  }
  // Reads until `n` bytes, end of stream or the time limit.  With `untilEof`,
  // skips bytes and tells whether end of stream (or a reset) came in time.
  std::string Read(std::size_t n, int timeoutMs = 5000, bool* untilEof = nullptr) {
    std::string out;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    std::vector<char> buf(65536);
    for (;;) {
      if (!untilEof && out.size() >= n) return out;
      pollfd p{m_conn, POLLIN, 0};
      if (::poll(&p, 1, MsLeft(deadline)) != 1) return out;
      ssize_t r = ::recv(m_conn, buf.data(), untilEof ? buf.size() : std::min(buf.size(), n - out.size()), 0);
      if (r <= 0) {
        if (untilEof) *untilEof = true;
        return out;
      }
      if (!untilEof) out.append(buf.data(), static_cast<std::size_t>(r));
    }
  }
  bool WaitEof(int timeoutMs = 5000) {
    bool eof = false;
    Read(0, timeoutMs, &eof);
    return eof;
  }
  bool Write(const std::string& data) {
    return ::send(m_conn, data.data(), data.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(data.size());
  }
  bool FillBacklog() {
    m_filler = ::socket(AF_INET, SOCK_STREAM, 0);
    return ::connect(m_filler, m_address.GetSockAddr(), SockLen(m_address)) == 0;
  }
  void CloseConn() {
    if (m_conn >= 0) ::close(m_conn);
    m_conn = -1;
  }
  // Accepts, echoes `total` bytes, then closes the connection.
  void EchoInBackground(std::size_t total) {
    m_thread = std::thread([this, total] {
      if (!Accept()) return;
      for (std::size_t done = 0; done < total;) {
        std::string chunk = Read(total - done);
        if (chunk.empty() || !Write(chunk)) break;
        done += chunk.size();
      }
      CloseConn();
    });
  }

 private:
  zelsocket::IPEndPoint m_address;
  int m_listen;
  int m_conn = -1;
  int m_filler = -1;
  bool m_ok = false;
  std::thread m_thread;
};

// A port on which nothing listens: bound, read back, closed again.
inline unsigned short RefusedPort() {
  TcpPeer gone;
  return gone.Port();
}

// The descriptor of this process with the given local and peer ports, or -1.
// Lets a test shrink the kernel buffers of a socket that the library created.
inline int FindSocketFd(unsigned short localPort, unsigned short peerPort) {
  DIR* dir = ::opendir("/proc/self/fd");
  int found = -1;
  while (dirent* e = dir ? ::readdir(dir) : nullptr) {
    int fd = std::atoi(e->d_name);
    sockaddr_storage local{}, peer{};
    socklen_t l1 = sizeof local, l2 = sizeof peer;
    if (fd > 2 && ::getsockname(fd, reinterpret_cast<sockaddr*>(&local), &l1) == 0 &&
        ::getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &l2) == 0 &&
        zelsocket::IPEndPoint(reinterpret_cast<sockaddr*>(&local)).GetPort() == localPort &&
        zelsocket::IPEndPoint(reinterpret_cast<sockaddr*>(&peer)).GetPort() == peerPort) {
      found = fd;
      break;
    }
  }
  if (dir) ::closedir(dir);
  return found;
}

struct TcpEvent {
  enum Kind { kConnect, kSend, kRecv } kind;
  int status;
  void* ctx;
  std::string data;     // bytes received, or the bytes of the buffer sent
  unsigned short port;  // OnConnect: port of the address (0 when unset)
};

// Records every report; the hook (if set) runs inside each callback, after the
// event is recorded.
class RecordingSink : public zelsocket::RefCountBase, public zelsocket::ITcpSink {
 public:
  int AddRef() override { return InternalAddRef(); }
  int Release() override { return InternalRelease(); }

  void OnConnect(int status, const zelsocket::IPEndPoint& address, void* ctx) override {
    Add(TcpEvent{TcpEvent::kConnect, status, ctx, std::string(), address.GetPort()});
  }
  void OnSend(int status, zelsocket::IConstBuffer* buffer, void* ctx) override {
    Add(TcpEvent{TcpEvent::kSend, status, ctx, Bytes(buffer), 0});
  }
  void OnRecv(int status, zelsocket::IMutableBuffer* buffer, void* ctx) override {
    Add(TcpEvent{TcpEvent::kRecv, status, ctx, Bytes(buffer), 0});
  }

  std::vector<TcpEvent> Of(TcpEvent::Kind kind) {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<TcpEvent> out;
    for (const TcpEvent& e : m_events) {
      if (e.kind == kind) out.push_back(e);
    }
    return out;
  }
  std::size_t Count(TcpEvent::Kind kind) { return Of(kind).size(); }
  std::size_t Total() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_events.size();
  }
  bool WaitFor(TcpEvent::Kind kind, std::size_t n) {
    return WaitUntil([&] { return Count(kind) >= n; });
  }
  void SetHook(std::function<void(const TcpEvent&)> fn) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_hook = std::move(fn);
  }

 private:
  static std::string Bytes(zelsocket::IConstBuffer* b) {
    return std::string(reinterpret_cast<const char*>(b->GetBuf()), static_cast<std::size_t>(b->GetLength()));
  }
  void Add(const TcpEvent& e) {
    std::function<void(const TcpEvent&)> hook;
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_events.push_back(e);
      hook = m_hook;
    }
    if (hook) hook(e);
  }
  std::mutex m_mutex;
  std::vector<TcpEvent> m_events;
  std::function<void(const TcpEvent&)> m_hook;
};

// Blocks until everything queued on `loop` before this call has run.
inline void Drain(zelsocket::IOLoop& loop) {
  for (int i = 0; i < 3; ++i) loop.SyncCall([] {});
}

}  // namespace zstest

#endif  // ZELSOCKET_TESTS_SOCKET_TCP_PEER_H
