#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/test_support.h"
#include "zelsocket/channel.h"
#include "zelsocket/io_loop.h"

using namespace zelsocket;

namespace {

// Destroying a channel closes it the way Close does, and its log shows that:
// the _Close line comes first, then the socket's close line.
TEST(ChannelDestroyLogTest, DestructorLogsCloseBeforeClosingTheSocket) {
  IOLoop loop;
  ASSERT_EQ(0, loop.Start());
  zstest::LogRecorder log;
  {
    RefPtr<IChannel> channel;
    ASSERT_TRUE(CreateUdpChannel(channel, &loop));
  }
  std::vector<std::string> closeLines;
  for (const auto& line : log.Lines()) {
    if (line.tag == "udp_channel") closeLines.push_back(line.message);
  }
  EXPECT_EQ((std::vector<std::string>{"UdpChannelImpl::_Close",
                                      "UdpChannelImpl::_CloseSocket, forceAllTimeout=0, notifyOnClose=0"}),
            closeLines);
  EXPECT_EQ(0, loop.Stop());
}

// The wrapper owns its channel: once it goes, so does the channel (on the
// default loop, whose thread outlives the test).
TEST(ChannelDestroyLogTest, WrapperReleasesItsChannel) {
  zstest::LogRecorder log;
  { UdpChannel channel; }
  EXPECT_TRUE(zstest::WaitUntil([&] {
    for (const auto& line : log.Lines())
      if (line.message == "UdpChannelImpl::_Close") return true;
    return false;
  }));
}

}  // namespace
