#include <cstring>
#include <stdexcept>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "zelsocket/channel_option.h"

namespace zelsocket {
namespace {

std::vector<int> Intervals(IChannelSendOption* o) {
  std::vector<int> out;
  for (int i = 0; i < o->GetSendCount(); ++i) out.push_back(o->GetSendInterval(i));
  return out;
}

TEST(ChannelSendOption, ValidOnlyWithAPacketPerSendAndAnInterval) {
  ChannelSendOption o;
  EXPECT_FALSE(o.IsValid());
  o.AddSendInterval(10);
  EXPECT_FALSE(o.IsValid());  // packet-per-send still 0
  o.SetPacketPerSend(-5);     // raised to the one packet that a send needs
  EXPECT_TRUE(o.IsValid());
  EXPECT_EQ(o.GetPacketPerSend(), 1);
  o.Reset();
  EXPECT_FALSE(o.IsValid());
  o.SetDefaultForUdp();
  o.SetDefaultForUdp();  // appends to what is there
  EXPECT_EQ(Intervals(o), (std::vector<int>{3000, 5000, 7000, 3000, 5000, 7000}));
}

TEST(ChannelSendOption, AnIndexOutsideTheScheduleThrows) {
  ChannelSendOption o;
  EXPECT_THROW(o.GetSendInterval(0), std::out_of_range);
  o.SetDefaultForUdp();
  EXPECT_THROW(o.GetSendInterval(3), std::out_of_range);
  EXPECT_THROW(o.GetSendInterval(-1), std::out_of_range);
}

TEST(ChannelSendOption, CopyToReplacesTheScheduleAndRaisesAZeroPacketPerSend) {
  RefPtr<IChannelSendOption> src, dst;
  ASSERT_TRUE(CreateChannelSendOption(src));
  ASSERT_TRUE(CreateChannelSendOption(dst));
  src->AddSendInterval(5);
  dst->SetDefaultForUdp();
  src->CopyTo(dst);
  src->CopyTo(nullptr);
  EXPECT_EQ(dst->GetPacketPerSend(), 1);
  EXPECT_EQ(Intervals(dst), std::vector<int>{5});
}

// The option classes copy by hand (handle and fixed arrays): every field must
// arrive, and the copies must not share a schedule.
TEST(ChannelOptions, CopiesCarryEveryFieldAndShareNothing) {
  ChannelSendOption a, b;
  b.SetPacketPerSend(3);
  b.AddSendInterval(10);
  a = b;
  ChannelSendOption c(b);
  b.AddSendInterval(20);
  ChannelSendOption& self = a;
  a = self;
  EXPECT_EQ(Intervals(a), std::vector<int>{10});
  EXPECT_EQ(Intervals(c), std::vector<int>{10});
  EXPECT_EQ(a.GetPacketPerSend(), 3);
  EXPECT_EQ(c.GetPacketPerSend(), 3);

  ChannelConnectOption o;
  o.bindAddress = IPAddress("127.0.0.1");
  o.bindPortMin = 5000;
  o.bindPortMax = 5002;
  o.nonLspSocket = 1;
  std::strcpy(o.proxy.host, "proxy.test");
  o.proxy.port = 8080;
  ChannelConnectOption copy(o);
  ChannelConnectOption moved(std::move(copy));
  ChannelConnectOption assigned;
  assigned = moved;
  EXPECT_TRUE(assigned.bindAddress == IPAddress("127.0.0.1"));
  EXPECT_EQ(assigned.bindPortMin, 5000);
  EXPECT_EQ(assigned.bindPortMax, 5002);
  EXPECT_EQ(assigned.nonLspSocket, 1);
  EXPECT_STREQ(assigned.proxy.host, "proxy.test");
  EXPECT_EQ(assigned.proxy.port, 8080);
}

}  // namespace
}  // namespace zelsocket
