#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "channel/channel_test_util.h"
#include "channel/fake_udp.h"
#include "channel/udp_data_sender.h"
#include "zelsocket/io_loop.h"

using namespace zelsocket;

namespace {

std::uint64_t StillTick() { return 5000000; }
std::int64_t StillWall() { return 1700000000; }

class OrderSink : public IDataSenderSink {
 public:
  void OnPacketTimeout(unsigned int cookie, int, int) override { order.push_back(cookie); }
  std::vector<unsigned int> order;
};

// Cookies are keyed as signed 32-bit values: once the cookie source passes
// 2^31, the wrapped cookies sort before the small positive ones.
TEST(CookieOrderTest, ForcedTimeoutsFollowSignedCookieOrderAcross2To31) {
  IOLoop loop;
  ASSERT_EQ(0, loop.Start());
  OrderSink sink;
  RefPtr<zstest::FakeUdp> udp;
  udp.Attach(new zstest::FakeUdp());
  RefPtr<IChannelSendOption> option = zstest::Schedule({1000});
  const std::vector<unsigned int> sent = {1u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu, 0x7FFFFFFEu, 0x80000001u};
  ASSERT_EQ(0, loop.SyncCall([&] {
    UdpDataSender sender(&loop, &StillTick, &StillWall);
    sender.m_udp = RefPtr<IUdp>(udp.Get());
    sender.m_sink = &sink;
    sender.m_dest = IPEndPoint("127.0.0.1", 4000);
    sender.m_paused = false;
    RefPtr<IConstBuffer> data = zstest::Bytes("req");
    for (unsigned int cookie : sent) ASSERT_TRUE(sender.SendPacket(data, option, cookie, StillTick()));
    sender.ForceAllPacketsTimeout();
  }));
  EXPECT_EQ((std::vector<unsigned int>{0x80000000u, 0x80000001u, 0xFFFFFFFFu, 1u, 0x7FFFFFFEu, 0x7FFFFFFFu}),
            sink.order);
  EXPECT_EQ(0, loop.Stop());
}

}  // namespace
