// Helpers for the UDP tests: a sink that records every report, and a plain
// blocking socket to play the peer.
#ifndef ZELSOCKET_TESTS_SOCKET_UDP_TEST_SUPPORT_H
#define ZELSOCKET_TESTS_SOCKET_UDP_TEST_SUPPORT_H

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "support/test_support.h"
#include "zelsocket/io_loop.h"
#include "zelsocket/udp.h"

namespace zstest {

struct UdpEvent {
  int status;
  std::string data;
  zelsocket::IPEndPoint address;
  void* ctx;
  bool onLoopThread;
  int capacity;
};

class UdpRecordingSink : public zelsocket::RefCountBase, public zelsocket::IUdpSink {
 public:
  explicit UdpRecordingSink(zelsocket::IOLoop* loop) : m_loop(loop) {}
  int AddRef() override { return InternalAddRef(); }
  int Release() override { return InternalRelease(); }

  // The hook runs first, so that a test which saw the report also sees what
  // the hook did.
  void OnSend(int status, zelsocket::IConstBuffer* buffer, const zelsocket::IPEndPoint& dest, void* ctx) override {
    UdpEvent event{status, Bytes(buffer), dest, ctx, m_loop->IsLoopThread(), buffer->GetCapacity()};
    SendHook hook = Locked(m_onSend);
    if (hook) hook(status, buffer, dest, ctx);
    std::lock_guard<std::mutex> lock(m_mutex);
    m_sends.push_back(event);
  }
  void OnRecv(int status, zelsocket::IMutableBuffer* buffer, const zelsocket::IPEndPoint& from,
              void* ctx) override {
    UdpEvent event{status, Bytes(buffer), from, ctx, m_loop->IsLoopThread(), buffer->GetCapacity()};
    RecvHook hook = Locked(m_onRecv);
    if (hook) hook(status, buffer, from, ctx);
    std::lock_guard<std::mutex> lock(m_mutex);
    m_recvs.push_back(event);
  }

  using SendHook = std::function<void(int, zelsocket::IConstBuffer*, const zelsocket::IPEndPoint&, void*)>;
  using RecvHook = std::function<void(int, zelsocket::IMutableBuffer*, const zelsocket::IPEndPoint&, void*)>;
  void SetOnSend(SendHook hook) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_onSend = std::move(hook);
  }
  void SetOnRecv(RecvHook hook) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_onRecv = std::move(hook);
  }

  std::vector<UdpEvent> Sends() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_sends;
  }
  std::vector<UdpEvent> Recvs() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_recvs;
  }
  size_t SendCount() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_sends.size();
  }
  size_t RecvCount() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_recvs.size();
  }
  bool WaitSends(size_t n) {
    return WaitUntil([&] { return SendCount() >= n; });
  }
  bool WaitRecvs(size_t n) {
    return WaitUntil([&] { return RecvCount() >= n; });
  }

 private:
  template <typename Hook>
  Hook Locked(const Hook& hook) {
    std::lock_guard<std::mutex> lock(m_mutex);
    return hook;
  }

  static std::string Bytes(const zelsocket::IConstBuffer* b) {
    return b->GetLength() > 0 ? std::string(reinterpret_cast<const char*>(b->GetBuf()), b->GetLength())
                              : std::string();
  }

  zelsocket::IOLoop* m_loop;
  std::mutex m_mutex;
  std::vector<UdpEvent> m_sends;
  std::vector<UdpEvent> m_recvs;
  SendHook m_onSend;
  RecvHook m_onRecv;
};

// A blocking datagram socket bound to a loopback address and a free port.
class RawPeer {
 public:
  explicit RawPeer(const char* address = "127.0.0.1") {
    zelsocket::IPEndPoint bindTo(address, 1);
    reinterpret_cast<sockaddr_in*>(bindTo.GetSockAddr())->sin_port = 0;  // same offset for IPv6
    m_fd = ::socket(bindTo.GetSockAddr()->sa_family, SOCK_DGRAM, 0);
    socklen_t len = bindTo.GetSockAddr()->sa_family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
    if (m_fd >= 0 && ::bind(m_fd, bindTo.GetSockAddr(), len) == 0) {
      sockaddr_storage local = {};
      socklen_t n = sizeof local;
      ::getsockname(m_fd, reinterpret_cast<sockaddr*>(&local), &n);
      m_address.FromSockaddr(reinterpret_cast<sockaddr*>(&local));
    }
  }
  ~RawPeer() {
    if (m_fd >= 0) ::close(m_fd);
  }
  const zelsocket::IPEndPoint& Address() const { return m_address; }
  bool SendTo(const zelsocket::IPEndPoint& to, const std::string& data) {
    socklen_t len = to.GetSockAddr()->sa_family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
    return ::sendto(m_fd, data.data(), data.size(), 0, to.GetSockAddr(), len) == static_cast<ssize_t>(data.size());
  }
  // The next datagram, or false after `timeoutMs`.
  bool RecvFrom(std::string* data, zelsocket::IPEndPoint* from = nullptr, int timeoutMs = 5000) {
    pollfd p = {m_fd, POLLIN, 0};
    if (::poll(&p, 1, timeoutMs) != 1) return false;
    std::vector<char> buf(70000);
    sockaddr_storage src = {};
    socklen_t n = sizeof src;
    ssize_t got = ::recvfrom(m_fd, buf.data(), buf.size(), 0, reinterpret_cast<sockaddr*>(&src), &n);
    if (got < 0) return false;
    data->assign(buf.data(), static_cast<size_t>(got));
    if (from) from->FromSockaddr(reinterpret_cast<sockaddr*>(&src));
    return true;
  }

 private:
  int m_fd = -1;
  zelsocket::IPEndPoint m_address;
};

}  // namespace zstest

#endif  // ZELSOCKET_TESTS_SOCKET_UDP_TEST_SUPPORT_H
