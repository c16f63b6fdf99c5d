#include <gtest/gtest.h>

#include <cstring>
#include <stdexcept>

#include "zelsocket/channel_option.h"

using namespace zelsocket;

namespace {

std::vector<int> Intervals(const ChannelSendOption& o) {
  std::vector<int> out;
  for (int i = 0; i < o.GetSendCount(); ++i) out.push_back(o.GetSendInterval(i));
  return out;
}

TEST(ChannelSendOptionTest, ValidOnlyWithPacketPerSendAndAnInterval) {
  ChannelSendOption o;
  EXPECT_FALSE(o.IsValid());
  EXPECT_EQ(0, o.GetPacketPerSend());
  EXPECT_EQ(0, o.GetSendCount());
  o.AddSendInterval(10);
  EXPECT_FALSE(o.IsValid());  // packet-per-send still 0
  o.SetPacketPerSend(0);
  EXPECT_TRUE(o.IsValid());
  EXPECT_EQ(1, o.GetPacketPerSend());
  o.SetPacketPerSend(-5);
  EXPECT_EQ(1, o.GetPacketPerSend());
  o.SetPacketPerSend(4);
  EXPECT_EQ(4, o.GetPacketPerSend());
  o.Reset();
  EXPECT_FALSE(o.IsValid());
  EXPECT_EQ(0, o.GetSendCount());
}

TEST(ChannelSendOptionTest, DefaultsAppendToAnExistingSchedule) {
  ChannelSendOption o;
  o.SetDefaultForUdp();
  EXPECT_EQ((std::vector<int>{3000, 5000, 7000}), Intervals(o));
  o.SetDefaultForUdp();
  EXPECT_EQ((std::vector<int>{3000, 5000, 7000, 3000, 5000, 7000}), Intervals(o));
  o.Reset();
  o.SetDefaultForTcp();
  EXPECT_EQ((std::vector<int>{1}), Intervals(o));
  EXPECT_EQ(1, o.GetPacketPerSend());
  o.AddSendInterval(-7);  // stored unchecked
  EXPECT_EQ(-7, o.GetSendInterval(1));
}

TEST(ChannelSendOptionTest, OutOfRangeIndexThrows) {
  ChannelSendOption o;
  o.SetDefaultForUdp();
  try {
    o.GetSendInterval(3);
    FAIL() << "no exception";
  } catch (const std::out_of_range& e) {
    EXPECT_STREQ("invalid vector<T> subscript", e.what());
  }
  EXPECT_THROW(o.GetSendInterval(-1), std::out_of_range);
  ChannelSendOption empty;
  EXPECT_THROW(empty.GetSendInterval(0), std::out_of_range);
}

TEST(ChannelSendOptionTest, AssignmentCopiesIntoSeparateObjects) {
  ChannelSendOption a;
  ChannelSendOption b;
  b.SetPacketPerSend(3);
  b.AddSendInterval(10);
  b.AddSendInterval(20);
  IChannelSendOption* before = a;
  a = b;
  EXPECT_EQ(before, static_cast<IChannelSendOption*>(a));  // same object, new schedule
  EXPECT_EQ((std::vector<int>{10, 20}), Intervals(a));
  EXPECT_EQ(3, a.GetPacketPerSend());
  b.AddSendInterval(30);
  b.SetPacketPerSend(9);
  EXPECT_EQ(2, a.GetSendCount());
  EXPECT_EQ(3, a.GetPacketPerSend());

  ChannelSendOption& self = a;
  a = self;
  EXPECT_EQ((std::vector<int>{10, 20}), Intervals(a));

  ChannelSendOption c(b);
  EXPECT_NE(static_cast<IChannelSendOption*>(b), static_cast<IChannelSendOption*>(c));
  EXPECT_EQ((std::vector<int>{10, 20, 30}), Intervals(c));
}

TEST(ChannelSendOptionTest, CopyToRaisesAZeroPacketPerSendToOne) {
  RefPtr<IChannelSendOption> src;
  RefPtr<IChannelSendOption> dst;
  ASSERT_TRUE(CreateChannelSendOption(src));
  ASSERT_TRUE(CreateChannelSendOption(dst));
  src->AddSendInterval(5);
  dst->SetDefaultForUdp();
  src->CopyTo(dst);
  EXPECT_EQ(1, dst->GetPacketPerSend());
  ASSERT_EQ(1, dst->GetSendCount());
  EXPECT_EQ(5, dst->GetSendInterval(0));
  src->CopyTo(nullptr);  // nothing

  EXPECT_FALSE(CreateChannelSendOption(static_cast<IChannelSendOption**>(nullptr)));
  IChannelSendOption* raw = reinterpret_cast<IChannelSendOption*>(0x1);
  ASSERT_TRUE(CreateChannelSendOption(&raw));
  EXPECT_FALSE(raw->IsValid());
  EXPECT_EQ(0, raw->Release());
}

TEST(ChannelConnectOptionTest, DefaultsAndCopies) {
  ChannelConnectOption o;
  EXPECT_EQ(-1, o.option0);
  EXPECT_TRUE(o.bindAddress == IPAddress::Any);
  EXPECT_EQ(0, o.bindPortMin);
  EXPECT_EQ(0, o.bindPortMax);
  EXPECT_EQ(0, o.nonLspSocket);
  EXPECT_EQ(-1, o.option3);
  EXPECT_EQ(0, o.proxy.kind);
  EXPECT_STREQ("", o.proxy.host);

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
  EXPECT_EQ(5000, assigned.bindPortMin);
  EXPECT_EQ(5002, assigned.bindPortMax);
  EXPECT_EQ(1, assigned.nonLspSocket);
  EXPECT_STREQ("proxy.test", assigned.proxy.host);
  EXPECT_EQ(8080, assigned.proxy.port);
  // The source of the move is left as it was: move copies.
  EXPECT_STREQ("proxy.test", copy.proxy.host);
}

}  // namespace
