// The retransmission engine on a real loop.  The fuzz target checks each
// packet's counts against a model; these check what it does not see: the
// default timeline and its log line, the order of a forced timeout, and the
// pass posted after a timeout.
#include "channel/data_sender.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <tuple>

#include "channel/fake_udp.h"

namespace zelsocket {
namespace {

std::atomic<std::uint64_t> g_tick{1000000};
std::atomic<std::int64_t> g_wall{1700000000};
using Timeout = std::tuple<unsigned, int, int>;  // cookie, retry, send

class Sender : public DataSender, public IDataSenderSink {
 public:
  explicit Sender(IOLoop* loop) : DataSender(loop, [] { return g_tick.load(); }, [] { return g_wall.load(); }) {
    m_sink = this;
    m_paused = false;
    m_dest = IPEndPoint("127.0.0.1", 4000);
  }
  int SendData(Packet* packet) override { return sent.push_back(packet->cookie), 0; }
  void OnPacketTimeout(unsigned int cookie, int retry, int send) override { timeouts.emplace_back(cookie, retry, send); }
  std::vector<unsigned> sent;
  std::vector<Timeout> timeouts;
};

// The sender's own timer keeps running but finds nothing due until a test
// moves the fake clock and runs a pass itself.
class DataSenderTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(loop.Start(), 0);
    sender.reset(new Sender(&loop));
  }
  void TearDown() override {
    OnLoop([this] { sender.reset(); });
    EXPECT_EQ(loop.Stop(), 0);
  }
  void OnLoop(const std::function<void()>& fn) { ASSERT_EQ(loop.SyncCall(fn), 0); }
  void AdvanceAndPass(int ms) {
    g_tick += static_cast<std::uint64_t>(ms);
    OnLoop([this] { sender->RunPassForTesting(); });
    OnLoop([] {});  // and the pass that one may have posted
  }
  bool Send(unsigned cookie, IChannelSendOption* option, std::uint64_t requestTick = g_tick) {
    bool ok = false;
    OnLoop([&] { ok = sender->SendPacket(zstest::Buf("req"), option, cookie, requestTick); });
    return ok;
  }

  zstest::LogRecorder log;
  IOLoop loop;
  std::unique_ptr<Sender> sender;
};

TEST_F(DataSenderTest, DefaultScheduleSendsAt0And3And8SecondsAndTimesOutAt15) {
  RefPtr<IChannelSendOption> udp = zstest::Schedule({});
  udp->SetDefaultForUdp();
  ASSERT_TRUE(Send(7, udp, g_tick - 5));  // requested 5 ms before it was made
  // Milliseconds on, the wall clock's seconds with them, transmissions by then.
  for (auto [ms, seconds, count] :
       std::vector<std::tuple<int, int, size_t>>{{2999, 3, 1}, {1, 0, 2}, {4999, 5, 2}, {1, 0, 3}, {6999, 7, 3}}) {
    g_wall += seconds;
    AdvanceAndPass(ms);
    EXPECT_EQ(sender->sent.size(), count) << "after " << ms << " ms more";
  }
  EXPECT_TRUE(sender->timeouts.empty());
  AdvanceAndPass(1);
  EXPECT_EQ(sender->timeouts, (std::vector<Timeout>{{7, 3, 3}}));
  // Delays in ms; send times in whole seconds after the packet's creation.
  const std::string line = "timeout, cookie=7, retry=3, send=3, send-count=3, send-delay=5, recv-delay=15000, "
                           "total-delay=15005, send-time=";
  int found = 0;
  for (const auto& l : log.Lines())
    found += l.level == LOG_LEVEL_INFO && l.tag == "data_sender" && l.message.rfind(line, 0) == 0 &&
             l.message.substr(l.message.size() - 6) == ",0,3,8";
  EXPECT_EQ(found, 1);
}

TEST_F(DataSenderTest, ASecondExpiryComesFromThePassPostedByTheFirst) {
  RefPtr<IChannelSendOption> o = zstest::Schedule({100});
  ASSERT_TRUE(Send(1, o) && Send(2, o));
  g_tick += 100;
  size_t inPass = 0, next = 0;
  OnLoop([&] {
    sender->RunPassForTesting();
    inPass = sender->timeouts.size();
  });
  OnLoop([&] { next = sender->timeouts.size(); });  // queued behind the posted pass
  EXPECT_EQ(inPass, 1u);
  EXPECT_EQ(next, 2u);
}

// Cookies are keyed as signed 32-bit values: past 2^31 they sort first.
TEST_F(DataSenderTest, ForcedTimeoutsFollowSignedCookieOrder) {
  for (unsigned c : {1u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu, 0x7FFFFFFEu, 0x80000001u})
    ASSERT_TRUE(Send(c, zstest::Schedule({1000})));
  OnLoop([&] { sender->ForceAllPacketsTimeout(); });
  std::vector<unsigned> order;
  for (const Timeout& t : sender->timeouts) order.push_back(std::get<0>(t));
  EXPECT_EQ(order, (std::vector<unsigned>{0x80000000u, 0x80000001u, 0xFFFFFFFFu, 1u, 0x7FFFFFFEu, 0x7FFFFFFFu}));
}

}  // namespace
}  // namespace zelsocket
