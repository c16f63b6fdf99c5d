// Internal: the send schedule that learns the round-trip time of its packets.
//
// The sender recognises it (by its type, once per packet) and talks to it
// through the members below; IChannelSendOption itself gains nothing.  One
// object may serve channels on several loops at once: the learned state sits
// under m_lock, and the wait that every transmission reads is an atomic copy,
// so that reading it takes no lock.
#ifndef ZELSOCKET_SRC_CHANNEL_ADAPTIVE_SEND_OPTION_H
#define ZELSOCKET_SRC_CHANNEL_ADAPTIVE_SEND_OPTION_H

#include <atomic>
#include <cstdint>
#include <mutex>
#include <typeinfo>

#include "zelsocket/channel_option.h"

namespace zelsocket {

class AdaptiveSendOptionImpl final : public IChannelSendOption, public RefCountBase {
 public:
  explicit AdaptiveSendOptionImpl(const AdaptiveSendConfig& config);

  int AddRef() override { return InternalAddRef(); }
  int Release() override { return InternalRelease(); }

  void Reset() override;
  bool IsValid() const override { return true; }
  void SetDefaultForUdp() override {}
  void SetDefaultForTcp() override {}
  int GetPacketPerSend() const override { return m_packetPerSend.load(std::memory_order_relaxed); }
  void SetPacketPerSend(int count) override { m_packetPerSend.store(count < 1 ? 1 : count, std::memory_order_relaxed); }
  void AddSendInterval(int) override {}
  int GetSendCount() const override { return m_config.sendCount; }
  int GetSendInterval(int index) const override;
  void CopyTo(IChannelSendOption* target) const override;

  // The wait after a transmission now, backoff included.
  std::uint64_t IntervalUs() const { return m_intervalUs.load(std::memory_order_relaxed); }
  std::uint64_t DeadlineUs() const { return static_cast<std::uint64_t>(m_config.deadlineMs) * 1000u; }

  // A packet was answered after exactly one transmission, `rttUs` after it.
  void OnAnswered(std::uint64_t rttUs);
  // A packet's first transmission went unanswered for its whole wait.
  void OnFirstLoss();
  // A packet's schedule ran out with no answer.
  void OnTimedOut();

  AdaptiveSendStats Stats() const;

 private:
  struct Learned {
    std::uint64_t samples = 0;
    std::int64_t srttUs = 0;
    std::int64_t rttvarUs = 0;
    int backoff = 0;
    int lossRun = 0;        // first transmissions unanswered in a row
    int runThreshold = 2;   // the run length that doubles the wait, set as a run begins
    double lossRate = 0;    // of first transmissions, smoothed over about 16 packets
  };
  // Under m_lock: the wait that follows from the learned state.
  std::uint64_t _IntervalLocked() const;
  void _PublishLocked() { m_intervalUs.store(_IntervalLocked(), std::memory_order_relaxed); }

  const AdaptiveSendConfig m_config;  // normalised, never changes
  std::atomic<int> m_packetPerSend{1};
  mutable std::mutex m_lock;
  Learned m_learned;
  std::atomic<std::uint64_t> m_intervalUs;
};

// The learning schedule behind `option`, or null for any other kind.  The
// class is final, so comparing the exact type is enough, and cheaper than a
// dynamic_cast that fails for every plain schedule.
inline AdaptiveSendOptionImpl* AsAdaptive(IChannelSendOption* option) {
  return option && typeid(*option) == typeid(AdaptiveSendOptionImpl) ? static_cast<AdaptiveSendOptionImpl*>(option)
                                                                     : nullptr;
}

}  // namespace zelsocket

#endif  // ZELSOCKET_SRC_CHANNEL_ADAPTIVE_SEND_OPTION_H
