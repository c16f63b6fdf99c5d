// Test helpers for the TCP tests: a blocking POSIX peer on loopback, driven from
// its own thread or from the test, and a sink that records every report.
#ifndef ZELSOCKET_TESTS_SOCKET_TCP_PEER_H
#define ZELSOCKET_TESTS_SOCKET_TCP_PEER_H

#include <arpa/inet.h>
#include <dirent.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/test_support.h"
#include "zelsocket/io_loop.h"
#include "zelsocket/tcp.h"

namespace zstest {

// Listens on 127.0.0.1 or ::1, port 0, and serves one connection.
class TcpPeer {
 public:
  explicit TcpPeer(bool ipv6 = false, int rcvbuf = 0, int backlog = 4) : m_ipv6(ipv6) {
    m_listen = ::socket(ipv6 ? AF_INET6 : AF_INET, SOCK_STREAM, 0);
    // Inherited by the accepted socket: a small window keeps writes pending.
    if (rcvbuf > 0) ::setsockopt(m_listen, SOL_SOCKET, SO_RCVBUF, &rcvbuf, sizeof rcvbuf);
    sockaddr_storage ss{};
    socklen_t len;
    if (ipv6) {
      auto* a = reinterpret_cast<sockaddr_in6*>(&ss);
      a->sin6_family = AF_INET6;
      a->sin6_addr = in6addr_loopback;
      len = sizeof *a;
    } else {
      auto* a = reinterpret_cast<sockaddr_in*>(&ss);
      a->sin_family = AF_INET;
      a->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
      len = sizeof *a;
    }
    m_ok = ::bind(m_listen, reinterpret_cast<sockaddr*>(&ss), len) == 0 && ::listen(m_listen, backlog) == 0 &&
           ::getsockname(m_listen, reinterpret_cast<sockaddr*>(&ss), &len) == 0;
    m_port = ntohs(ipv6 ? reinterpret_cast<sockaddr_in6*>(&ss)->sin6_port : reinterpret_cast<sockaddr_in*>(&ss)->sin_port);
  }
  ~TcpPeer() {
    if (m_thread.joinable()) m_thread.join();
    CloseConn();
    if (m_filler >= 0) ::close(m_filler);
    if (m_listen >= 0) ::close(m_listen);
  }

  bool Ok() const { return m_ok; }
  unsigned short Port() const { return m_port; }
  zelsocket::IPEndPoint EndPoint() const { return zelsocket::IPEndPoint(m_ipv6 ? "::1" : "127.0.0.1", m_port); }

  bool Accept(int timeoutMs = 5000) {
    pollfd p{m_listen, POLLIN, 0};
    if (::poll(&p, 1, timeoutMs) != 1) return false;
    m_conn = ::accept(m_listen, nullptr, nullptr);
    return m_conn >= 0;
  }
  // Reads until `n` bytes or end of stream or the time limit.
  std::string Read(std::size_t n, int timeoutMs = 5000) {
    std::string out;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    char buf[65536];
    while (out.size() < n) {
      int left = static_cast<int>(
          std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count());
      if (left <= 0) break;
      pollfd p{m_conn, POLLIN, 0};
      if (::poll(&p, 1, left) != 1) break;
      ssize_t r = ::recv(m_conn, buf, std::min(sizeof buf, n - out.size()), 0);
      if (r <= 0) break;
      out.append(buf, static_cast<std::size_t>(r));
    }
    return out;
  }
  // True at end of stream within the time limit; bytes before it are skipped.
  bool WaitEof(int timeoutMs = 5000) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    char buf[4096];
    for (;;) {
      int left = static_cast<int>(
          std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count());
      pollfd p{m_conn, POLLIN, 0};
      if (left <= 0 || ::poll(&p, 1, left) != 1) return false;
      ssize_t r = ::recv(m_conn, buf, sizeof buf, 0);
      if (r <= 0) return true;
    }
  }
  bool Write(const std::string& data) {
    std::size_t done = 0;
    while (done < data.size()) {
      ssize_t w = ::send(m_conn, data.data() + done, data.size() - done, MSG_NOSIGNAL);
      if (w <= 0) return false;
      done += static_cast<std::size_t>(w);
    }
    return true;
  }
  // Takes the one slot of a backlog-0 listener with a connection nobody accepts
  // yet: further connection attempts stay in progress (their SYNs are dropped)
  // until Accept makes room.
  bool FillBacklog() {
    m_filler = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons(m_port);
    return ::connect(m_filler, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
  }
  void CloseConn() {
    if (m_conn >= 0) ::close(m_conn);
    m_conn = -1;
  }
  // Accepts, echoes `total` bytes, then closes the connection.
  void EchoInBackground(std::size_t total) {
    m_thread = std::thread([this, total] {
      if (!Accept()) return;
      std::size_t done = 0;
      while (done < total) {
        std::string chunk = Read(total - done);
        if (chunk.empty() || !Write(chunk)) break;
        done += chunk.size();
      }
      CloseConn();
    });
  }
  void Join() {
    if (m_thread.joinable()) m_thread.join();
  }

 private:
  bool m_ipv6;
  bool m_ok = false;
  int m_listen = -1;
  int m_conn = -1;
  int m_filler = -1;
  unsigned short m_port = 0;
  std::thread m_thread;
};

// A port on which nothing listens: bound, read back, closed again.
inline unsigned short RefusedPort() {
  int s = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof a;
  ::bind(s, reinterpret_cast<sockaddr*>(&a), len);
  ::getsockname(s, reinterpret_cast<sockaddr*>(&a), &len);
  ::close(s);
  return ntohs(a.sin_port);
}

// The descriptor of this process whose local port is `localPort` and whose peer
// port is `peerPort`, or -1.  Lets a test shrink the kernel buffers of a socket
// that the library created.
inline int FindSocketFd(unsigned short localPort, unsigned short peerPort) {
  DIR* dir = ::opendir("/proc/self/fd");
  if (!dir) return -1;
  int found = -1;
  while (dirent* e = ::readdir(dir)) {
    int fd = std::atoi(e->d_name);
    if (fd <= 2) continue;
    sockaddr_storage local{}, peer{};
    socklen_t l1 = sizeof local, l2 = sizeof peer;
    if (::getsockname(fd, reinterpret_cast<sockaddr*>(&local), &l1) != 0) continue;
    if (::getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &l2) != 0) continue;
    if (local.ss_family != AF_INET || peer.ss_family != AF_INET) continue;
    if (ntohs(reinterpret_cast<sockaddr_in*>(&local)->sin_port) == localPort &&
        ntohs(reinterpret_cast<sockaddr_in*>(&peer)->sin_port) == peerPort) {
      found = fd;
      break;
    }
  }
  ::closedir(dir);
  return found;
}

struct TcpEvent {
  enum Kind { kConnect, kSend, kRecv } kind;
  int status;
  void* ctx;
  std::string data;        // bytes received, or the bytes of the buffer sent
  unsigned short port;     // OnConnect: port of the address
  bool addressValid;       // OnConnect: address set
};

// Records every report; `hook` (if set) runs inside each callback, after the
// event is recorded.
class RecordingSink : public zelsocket::RefCountBase, public zelsocket::ITcpSink {
 public:
  int AddRef() override { return InternalAddRef(); }
  int Release() override { return InternalRelease(); }

  void OnConnect(int status, const zelsocket::IPEndPoint& address, void* ctx) override {
    Add(TcpEvent{TcpEvent::kConnect, status, ctx, std::string(), address.GetPort(), address.IsValid()});
  }
  void OnSend(int status, zelsocket::IConstBuffer* buffer, void* ctx) override {
    Add(TcpEvent{TcpEvent::kSend, status, ctx,
                 std::string(reinterpret_cast<const char*>(buffer->GetBuf()), static_cast<std::size_t>(buffer->GetLength())),
                 0, false});
  }
  void OnRecv(int status, zelsocket::IMutableBuffer* buffer, void* ctx) override {
    Add(TcpEvent{TcpEvent::kRecv, status, ctx,
                 std::string(reinterpret_cast<const char*>(buffer->GetBuf()), static_cast<std::size_t>(buffer->GetLength())),
                 0, false});
  }

  std::vector<TcpEvent> Events() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_events;
  }
  std::vector<TcpEvent> Of(TcpEvent::Kind kind) {
    std::vector<TcpEvent> out;
    for (const TcpEvent& e : Events()) {
      if (e.kind == kind) out.push_back(e);
    }
    return out;
  }
  std::size_t Count(TcpEvent::Kind kind) { return Of(kind).size(); }
  bool WaitFor(TcpEvent::Kind kind, std::size_t n, int timeoutMs = 5000) {
    return WaitUntil([&] { return Count(kind) >= n; }, std::chrono::milliseconds(timeoutMs));
  }

  void SetHook(std::function<void(const TcpEvent&)> fn) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_hook = std::move(fn);
  }

 private:
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
inline void Drain(zelsocket::IOLoop& loop, int rounds = 3) {
  for (int i = 0; i < rounds; ++i) loop.SyncCall([] {});
}

}  // namespace zstest

#endif  // ZELSOCKET_TESTS_SOCKET_TCP_PEER_H
