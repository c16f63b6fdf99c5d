// The retransmission engine on a fake clock: its own timer finds nothing due
// until the test moves the clock and runs a pass (the fuzz target checks each packet's counts).
#ifndef ZELSOCKET_TESTS_CHANNEL_FAKE_CLOCK_SENDER_H
#define ZELSOCKET_TESTS_CHANNEL_FAKE_CLOCK_SENDER_H

#include <tuple>
#include <vector>

#include "channel/data_sender.h"

namespace zelsocket {

inline std::uint64_t g_tick = 1000000;    // milliseconds
inline std::int64_t g_wall = 1700000000;  // seconds
using Timeout = std::tuple<unsigned, int, int, std::uint64_t>;  // cookie, retry, send, the clock then

class FakeClockSender : public DataSender, public IDataSenderSink {
 public:
  explicit FakeClockSender(IOLoop* loop) : DataSender(loop, [] { return g_tick; }, [] { return g_wall; }) {
    m_sink = this;
    m_paused = false;
    m_dest = IPEndPoint("127.0.0.1", 4000);
  }
  int SendData(Packet*) override { return sent.push_back(g_tick), 0; }
  void OnPacketTimeout(unsigned c, int retry, int send) override { timeouts.emplace_back(c, retry, send, g_tick); }
  std::vector<std::uint64_t> sent;  // the clock at each transmission
  std::vector<Timeout> timeouts;
};

}  // namespace zelsocket

#endif  // ZELSOCKET_TESTS_CHANNEL_FAKE_CLOCK_SENDER_H
