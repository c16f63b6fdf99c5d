// The retransmission engine on a real loop, driven by a fake clock: its own
// timer keeps running but finds nothing due until the test moves the clock and
// runs a pass.  The fuzz target checks each packet's counts against a model;
// this checks what it does not see: the default timeline and its log line, and
// the order of a forced timeout.
#include "channel/data_sender.h"

#include <gtest/gtest.h>

#include <atomic>
#include <tuple>

#include "channel/fake_udp.h"

namespace zelsocket {
namespace {

std::atomic<std::uint64_t> g_tick{1000000};
std::atomic<std::int64_t> g_wall{1700000000};
using Timeout = std::tuple<unsigned, int, int>;  // cookie, retry, send

class Sender : public DataSender, public IDataSenderSink {
 public:
  explicit Sender(IOLoop* loop)
      : DataSender(
            loop, [] { return g_tick.load(); }, [] { return g_wall.load(); }) {
    m_sink = this;
    m_paused = false;
    m_dest = IPEndPoint("127.0.0.1", 4000);
  }
  int SendData(Packet* packet) override { return sent.push_back(packet->cookie), 0; }
  void OnPacketTimeout(unsigned int c, int retry, int send) override { timeouts.emplace_back(c, retry, send); }
  std::vector<unsigned> sent;
  std::vector<Timeout> timeouts;
};

TEST(DataSenderTest, DefaultTimelineAndForcedTimeoutOrder) {
  zstest::LogRecorder log;
  IOLoop loop;
  ASSERT_EQ(loop.Start(), 0);
  std::unique_ptr<Sender> sender(new Sender(&loop));
  auto onLoop = [&](const std::function<void()>& fn) { EXPECT_EQ(loop.SyncCall(fn), 0); };
  auto advanceAndPass = [&](int ms) {
    g_tick += static_cast<std::uint64_t>(ms);
    onLoop([&] { sender->RunPassForTesting(); });
    onLoop([] {});  // and the pass that one may have posted
  };
  auto send = [&](unsigned cookie, IChannelSendOption* option, std::uint64_t requestTick) {
    onLoop([&] { EXPECT_TRUE(sender->SendPacket(zstest::Buf("req"), option, cookie, requestTick)); });
  };

  RefPtr<IChannelSendOption> udp = zstest::Schedule({});
  udp->SetDefaultForUdp();
  send(7, udp, g_tick - 5);  // requested 5 ms before it was made
  // Milliseconds on, the wall clock's seconds with them, transmissions by then.
  for (auto [ms, seconds, count] :
       std::vector<std::tuple<int, int, size_t>>{{2999, 3, 1}, {1, 0, 2}, {4999, 5, 2}, {1, 0, 3}, {6999, 7, 3}}) {
    g_wall += seconds;
    advanceAndPass(ms);
    EXPECT_EQ(sender->sent.size(), count) << "after " << ms << " ms more";
  }
  EXPECT_TRUE(sender->timeouts.empty());
  advanceAndPass(1);
  EXPECT_EQ(sender->timeouts, (std::vector<Timeout>{{7, 3, 3}}));
  // Delays in ms; send times in whole seconds after the packet's creation.
  const std::string line =
      "timeout, cookie=7, retry=3, send=3, send-count=3, send-delay=5, recv-delay=15000, "
      "total-delay=15005, send-time=";
  int found = 0;
  for (const auto& l : log.Lines())
    found += l.level == LOG_LEVEL_INFO && l.tag == "data_sender" && l.message.rfind(line, 0) == 0 &&
             l.message.substr(l.message.size() - 6) == ",0,3,8";
  EXPECT_EQ(found, 1);

  // Cookies are keyed as signed 32-bit values: past 2^31 they sort first.
  sender->timeouts.clear();
  for (unsigned c : {1u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu, 0x7FFFFFFEu, 0x80000001u})
    send(c, zstest::Schedule({1000}), g_tick);
  onLoop([&] { sender->ForceAllPacketsTimeout(); });
  std::vector<unsigned> order;
  for (const Timeout& t : sender->timeouts) order.push_back(std::get<0>(t));
  EXPECT_EQ(order, (std::vector<unsigned>{0x80000000u, 0x80000001u, 0xFFFFFFFFu, 1u, 0x7FFFFFFEu, 0x7FFFFFFFu}));
  onLoop([&] { sender.reset(); });
  EXPECT_EQ(loop.Stop(), 0);
}

}  // namespace
}  // namespace zelsocket
