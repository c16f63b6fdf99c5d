#include "zelsocket/channel_option.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <vector>

namespace zelsocket {
namespace {

std::vector<int> Intervals(const IChannelSendOption* o) {
  std::vector<int> out;
  for (int i = 0; i < o->GetSendCount(); ++i) out.push_back(o->GetSendInterval(i));
  return out;
}

TEST(ChannelSendOption, ValidOnlyWithAPacketPerSendAndAnInterval) {
  ChannelSendOption o;
  EXPECT_THROW(o.GetSendInterval(0), std::out_of_range);
  o.AddSendInterval(10);
  EXPECT_FALSE(o.IsValid());  // packet-per-send still 0
  o.SetPacketPerSend(-5);     // raised to the one packet that a send needs
  EXPECT_TRUE(o.IsValid());
  EXPECT_EQ(o.GetPacketPerSend(), 1);
  EXPECT_THROW(o.GetSendInterval(1), std::out_of_range);
  EXPECT_THROW(o.GetSendInterval(-1), std::out_of_range);
  o.Reset();
  EXPECT_FALSE(o.IsValid());
  o.SetDefaultForUdp();
  o.SetDefaultForUdp();  // appends to what is there
  EXPECT_EQ(Intervals(o), (std::vector<int>{3000, 5000, 7000, 3000, 5000, 7000}));
}

// CopyTo and the handle's copies carry the whole schedule and share nothing.
TEST(ChannelSendOption, CopiesReplaceTheScheduleAndRaiseAZeroPacketPerSend) {
  RefPtr<IChannelSendOption> src, dst;
  ASSERT_TRUE(CreateChannelSendOption(src) && CreateChannelSendOption(dst));
  src->AddSendInterval(5);
  dst->SetDefaultForUdp();
  src->CopyTo(dst);
  src->CopyTo(nullptr);
  EXPECT_EQ(dst->GetPacketPerSend(), 1);
  EXPECT_EQ(Intervals(dst), std::vector<int>{5});
  ChannelSendOption a, b;
  b.SetPacketPerSend(3);
  b.AddSendInterval(10);
  a = b;
  ChannelSendOption c(b);
  b.AddSendInterval(20);
  EXPECT_EQ(Intervals(a), std::vector<int>{10});
  EXPECT_EQ(Intervals(c), std::vector<int>{10});
  EXPECT_EQ(a.GetPacketPerSend(), 3);
  EXPECT_EQ(c.GetPacketPerSend(), 3);
}

}  // namespace
}  // namespace zelsocket
