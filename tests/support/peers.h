// Echo peers on loopback, each on a libuv loop and a thread of its own, so
// that they run wherever libuv does.  Both bind port 0 on loopback.
#ifndef ZELSOCKET_TESTS_SUPPORT_PEERS_H
#define ZELSOCKET_TESTS_SUPPORT_PEERS_H

#include <atomic>
#include <functional>
#include <memory>
#include <string>

namespace zstest {

struct PeerLoop;

// Echoes each datagram unless `answer` (run on the peer's thread) says no.
class UdpEchoPeer {
 public:
  explicit UdpEchoPeer(std::function<bool(const std::string&)> answer = nullptr, const char* ip = "127.0.0.1");
  ~UdpEchoPeer();
  unsigned short Port() const { return m_port; }
  int Received() const { return m_received.load(); }

 private:
  friend struct PeerLoop;
  std::function<bool(const std::string&)> m_answer;
  std::unique_ptr<PeerLoop> m_loop;
  unsigned short m_port = 0;
  std::atomic<int> m_received{0};
};

// Accepts any number of connections and echoes what each sends.
class TcpEchoPeer {
 public:
  explicit TcpEchoPeer(const char* ip = "127.0.0.1");
  ~TcpEchoPeer();
  unsigned short Port() const { return m_port; }
  int Accepted() const { return m_accepted.load(); }
  int Ended() const { return m_ended.load(); }  // connections whose end the peer saw

 private:
  friend struct PeerLoop;
  std::unique_ptr<PeerLoop> m_loop;
  unsigned short m_port = 0;
  std::atomic<int> m_accepted{0}, m_ended{0};
};

}  // namespace zstest

#endif  // ZELSOCKET_TESTS_SUPPORT_PEERS_H
