// A UDP peer on a plain socket and a thread of its own, bound to 127.0.0.1 on a
// free port, that echoes what it receives — or not, as its filter decides.
#ifndef ZELSOCKET_TESTS_SUPPORT_UDP_ECHO_PEER_H
#define ZELSOCKET_TESTS_SUPPORT_UDP_ECHO_PEER_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>

namespace zstest {

class UdpEchoPeer {
 public:
  // `answer` runs on the peer's thread for each datagram; false drops it.
  explicit UdpEchoPeer(std::function<bool(const std::string&)> answer = nullptr) : m_answer(std::move(answer)) {
    m_fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(m_fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    socklen_t len = sizeof addr;
    getsockname(m_fd, reinterpret_cast<sockaddr*>(&addr), &len);
    m_port = ntohs(addr.sin_port);
    m_thread = std::thread([this] { Run(); });
  }
  ~UdpEchoPeer() {
    m_stop = true;
    m_thread.join();
    close(m_fd);
  }
  UdpEchoPeer(const UdpEchoPeer&) = delete;
  UdpEchoPeer& operator=(const UdpEchoPeer&) = delete;

  unsigned short Port() const { return m_port; }
  int Received() const { return m_received.load(); }

 private:
  void Run() {
    char data[65536];
    while (!m_stop) {
      pollfd p{m_fd, POLLIN, 0};
      if (poll(&p, 1, 20) != 1) continue;
      sockaddr_in from{};
      socklen_t len = sizeof from;
      ssize_t n = recvfrom(m_fd, data, sizeof data, 0, reinterpret_cast<sockaddr*>(&from), &len);
      if (n < 0) continue;
      ++m_received;
      if (m_answer && !m_answer(std::string(data, static_cast<size_t>(n)))) continue;
      sendto(m_fd, data, static_cast<size_t>(n), 0, reinterpret_cast<sockaddr*>(&from), len);
    }
  }

  std::function<bool(const std::string&)> m_answer;
  int m_fd = -1;
  unsigned short m_port = 0;
  std::atomic<bool> m_stop{false};
  std::atomic<int> m_received{0};
  std::thread m_thread;
};

}  // namespace zstest

#endif  // ZELSOCKET_TESTS_SUPPORT_UDP_ECHO_PEER_H
