// The learning send schedule: its estimator driven through the sender on a
// fake clock (so that Karn's rule and the deadline, which the sender applies,
// are part of it), and a channel over loopback that retransmits a lost
// request after the learned wait rather than the initial one.
#include <gtest/gtest.h>

#include <atomic>
#include <sstream>
#include <stdexcept>

#include "channel/fake_clock_sender.h"
#include "core/platform.h"
#include "support/peers.h"
#include "support/recorder.h"
#include "zelsocket/channel.h"
#include "zelsocket/channel_option.h"

namespace zelsocket {
namespace {

struct Row {
  const char* what;
  int minMs, maxMs;
  std::string script;  // aN: answered N ms after its one transmission; r: retransmitted, then
                       // answered; t: no answer until 20 s after it was sent
  double srttMs, rttvarMs, rtoMs;
  int backoff;
};
void PrintTo(const Row& row, std::ostream* out) { *out << row.what; }
std::string Times(const std::string& s, int n) { return n > 0 ? s + Times(s, n - 1) : ""; }

class EstimatorTest : public zstest::LoopFixture, public ::testing::WithParamInterface<Row> {};
using AdaptiveScheduleTest = zstest::LoopFixture;

TEST_P(EstimatorTest, AfterTheScriptTheScheduleHasLearned) {
  const Row& row = GetParam();
  AdaptiveSendConfig config;
  config.minTimeoutMs = row.minMs;
  config.maxTimeoutMs = row.maxMs;
  RefPtr<IChannelSendOption> option;
  ASSERT_TRUE(CreateAdaptiveSendOption(config, option));
  OnLoop([&] {
    FakeClockSender sender(&loop);
    std::istringstream script(row.script);
    unsigned cookie = 0;
    int send = 0, retry = 0;
    for (std::string step; script >> step;) {
      ASSERT_TRUE(sender.SendPacket(zstest::Buf("q"), option, ++cookie, g_tick));
      g_tick += step[0] == 'a' ? std::stoul(step.substr(1)) : step[0] == 'r' ? 5000 : 20000;
      if (step[0] != 'a') sender.RunPassForTesting();
      sender.CancelPacket(cookie, &send, &retry);
    }
  });
  AdaptiveSendStats stats;
  ASSERT_TRUE(GetAdaptiveSendStats(option, stats));
  // Whole microseconds over 1000: exactly the double of each row's literal.
  EXPECT_EQ(std::make_tuple(stats.srttMs, stats.rttvarMs, stats.rtoMs, stats.backoff),
            std::make_tuple(row.srttMs, row.rttvarMs, row.rtoMs, row.backoff));
  // As a plain schedule: ten waits of the RTO in whole milliseconds, rounded up.
  EXPECT_THROW(option->GetSendInterval(10), std::out_of_range);
  ChannelSendOption plain;
  plain.AddSendInterval(7);  // replaced, not kept
  option->CopyTo(nullptr);
  option->CopyTo(plain);
  EXPECT_EQ(std::make_tuple(plain.IsValid(), plain.GetSendCount(), plain.GetSendInterval(9)),
            std::make_tuple(true, 10, static_cast<int>(row.rtoMs)));
}

INSTANTIATE_TEST_SUITE_P(
    Rows, EstimatorTest,
    ::testing::Values(
        Row{"before any sample: the initial wait", 1, 10000, "", 0, 0, 1000, 0},
        Row{"first sample: RTTVAR half of it", 1, 10000, "a40", 40, 20, 120, 0},
        Row{"smoothing with gains 1/8 and 1/4", 1, 10000, "a40 a80", 45, 25, 145, 0},
        Row{"Karn: a retransmitted packet teaches nothing", 1, 10000, "a40 r", 40, 20, 120, 0},
        Row{"two lost first transmissions with no loss before: doubled", 1, 10000, "a40 r r", 40, 20, 240, 1},
        Row{"a timed answer ends the backoff", 1, 10000, "a40 r r a40", 40, 15, 100, 0},
        Row{"a link losing 44%: a run of 7 is its normal", 1, 10000,
            "a40 " + Times("r a40 ", 12) + Times("r ", 7), 40, 0.632, 43, 0},
        Row{"... an outage doubles every 8", 1, 10000, "a40 " + Times("r a40 ", 12) + Times("r ", 16), 40, 0.632, 170,
            2},
        Row{"each timeout doubles", 1, 10000, "t t", 0, 0, 8000, 3},
        Row{"the minimum", 500, 10000, "a40", 40, 20, 500, 0},
        Row{"the maximum, backoff included", 1, 200, "a40 r r", 40, 20, 200, 1}));

// Waits of 100 ms, but 250 ms in all: the third wait is cut to end at the
// deadline, and the packet times out there with its transmissions left over.
TEST_F(AdaptiveScheduleTest, TheDeadlineCutsTheLastWait) {
  RefPtr<IChannelSendOption> option;  // initial wait, min, max, count, deadline
  ASSERT_TRUE(CreateAdaptiveSendOption(AdaptiveSendConfig{100, 1, 10000, 10, 250}, option));
  OnLoop([&] {
    FakeClockSender sender(&loop);
    const std::uint64_t start = g_tick;
    sender.SendPacket(zstest::Buf("q"), option, 1, g_tick);
    for (int step = 0; step < 10; ++step) g_tick += 50, sender.RunPassForTesting();
    EXPECT_EQ(sender.timeouts, (std::vector<Timeout>{{1, 3, 3, start + 250}}));
  });
}

// Five requests answered at once over loopback teach the shortest wait allowed,
// 100 ms (a minimum that a slow sanitizer or emulator does not reach, so no
// answer comes late); the peer then loses the first transmission of the sixth,
// which comes again after that wait, not after the initial 3 s.
TEST_F(AdaptiveScheduleTest, ALostRequestComesAgainAfterTheLearnedWait) {
  std::atomic<int> arrivals{0}, answered{0};
  std::atomic<std::uint64_t> firstUs{0}, secondUs{0};
  zstest::UdpEchoPeer peer([&](const std::string& data) {
    if (data != "6") return true;
    (++arrivals == 1 ? firstUs : secondUs) = platform::TickUs();
    return arrivals > 1;
  });
  RefPtr<IChannel> channel;
  CreateUdpChannel(channel, &loop);
  // The request's text is its cookie; the answer ends it on the loop thread, at once.
  sink->SetHook([&](const zstest::Event& e) {
    int send = 0;
    if (e.kind == "recv") channel->CancelSend(static_cast<unsigned>(std::stoul(e.data)), nullptr, &send);
    answered += send > 0;
  });
  channel->SetSink(sink);
  ASSERT_EQ(0, channel->Connect("127.0.0.1", peer.Port(), nullptr));
  ASSERT_TRUE(sink->Wait("connect", 1));
  RefPtr<IChannelSendOption> option;  // initial wait, min
  ASSERT_TRUE(CreateAdaptiveSendOption(AdaptiveSendConfig{3000, 100}, option));
  for (unsigned i = 1; i <= 6; ++i) {
    unsigned cookie = 0;
    ASSERT_EQ(0, channel->Send(zstest::Buf(std::to_string(i)), option, cookie));
    ASSERT_TRUE(zstest::WaitUntil([&] { return answered == static_cast<int>(i); }));
  }
  ChannelStats stats;
  ASSERT_EQ(0, channel->GetStats(stats));
  const double gapMs = static_cast<double>(secondUs - firstUs) / 1000;
  EXPECT_LT(gapMs, 1500);
  EXPECT_GE(gapMs, 0.5 * stats.rtoMs);  // not before the wait (the first copy may reach the peer late)
  EXPECT_EQ(std::make_tuple(stats.adaptive, stats.transmissions, stats.retransmissions, stats.cancelled),
            std::make_tuple(true, 7ull, 1ull, 6ull));
  EXPECT_GT(stats.latencyP99Ms, 0.9 * gapMs);  // the sixth answer came after the gap
  EXPECT_LT(stats.latencyP50Ms, stats.rtoMs);
  channel->Close();
  channel = nullptr;
}

}  // namespace
}  // namespace zelsocket
