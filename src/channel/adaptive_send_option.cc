#include "channel/adaptive_send_option.h"

#include <algorithm>
#include <stdexcept>

namespace zelsocket {

namespace {

// What the loop's timers resolve: a variation below it cannot be waited for.
constexpr std::int64_t kGranularityUs = 1000;
// Doublings beyond this add nothing: every wait is at the maximum long before.
constexpr int kMaxBackoff = 16;

AdaptiveSendConfig Normalised(AdaptiveSendConfig c) {
  c.minTimeoutMs = std::max(c.minTimeoutMs, 1);
  c.maxTimeoutMs = std::max(c.maxTimeoutMs, c.minTimeoutMs);
  c.initialTimeoutMs = std::max(c.initialTimeoutMs, 1);
  c.sendCount = std::max(c.sendCount, 1);
  c.deadlineMs = std::max(c.deadlineMs, 1);
  return c;
}

// The shortest run of unanswered first transmissions that a link losing
// `rate` of them produces by chance less than once in a thousand runs, within
// [2, 16]: a longer run says the peer or the path is in trouble, not just lossy.
int RunThreshold(double rate) {
  int run = 2;
  for (double chance = rate * rate; chance >= 0.001 && run < 16; chance *= rate) ++run;
  return run;
}

}  // namespace

AdaptiveSendOptionImpl::AdaptiveSendOptionImpl(const AdaptiveSendConfig& config)
    : m_config(Normalised(config)), m_intervalUs(0) {
  std::lock_guard<std::mutex> lock(m_lock);
  _PublishLocked();
}

std::uint64_t AdaptiveSendOptionImpl::_IntervalLocked() const {
  const std::int64_t minUs = std::int64_t{m_config.minTimeoutMs} * 1000;
  const std::int64_t maxUs = std::int64_t{m_config.maxTimeoutMs} * 1000;
  std::int64_t rto = std::int64_t{m_config.initialTimeoutMs} * 1000;
  if (m_learned.samples > 0) rto = m_learned.srttUs + std::max(kGranularityUs, 4 * m_learned.rttvarUs);
  rto = std::clamp(rto, minUs, maxUs);
  for (int i = 0; i < m_learned.backoff && rto < maxUs; ++i) rto *= 2;
  // To the nearest whole millisecond, the grain in which the loop's timers are
  // armed: rounded up, a wait of 2.1 ms would last 3.
  return static_cast<std::uint64_t>((std::min(rto, maxUs) + 500) / 1000 * 1000);
}

void AdaptiveSendOptionImpl::OnAnswered(std::uint64_t rttUs) {
  const auto rtt = static_cast<std::int64_t>(std::min<std::uint64_t>(rttUs, INT64_MAX / 16));
  std::lock_guard<std::mutex> lock(m_lock);
  Learned& l = m_learned;
  if (l.samples == 0) {
    l.srttUs = rtt;
    l.rttvarUs = rtt / 2;
  } else {
    // RTTVAR first, from the SRTT before this sample (RFC 6298, 2.3).
    l.rttvarUs = (3 * l.rttvarUs + std::abs(l.srttUs - rtt)) / 4;
    l.srttUs = (7 * l.srttUs + rtt) / 8;
  }
  ++l.samples;
  // A timed answer is fresh evidence of the path: the estimate now speaks for it.
  l.backoff = 0;
  l.lossRun = 0;
  l.lossRate -= l.lossRate / 16;
  _PublishLocked();
}

void AdaptiveSendOptionImpl::OnFirstLoss() {
  std::lock_guard<std::mutex> lock(m_lock);
  Learned& l = m_learned;
  // Judged by the rate before the run began, which the run itself does not
  // raise: an outage doubles the wait every `runThreshold` packets.
  if (l.lossRun == 0) l.runThreshold = RunThreshold(l.lossRate);
  if (++l.lossRun % l.runThreshold == 0) l.backoff = std::min(l.backoff + 1, kMaxBackoff);
  l.lossRate += (1 - l.lossRate) / 16;
  _PublishLocked();
}

void AdaptiveSendOptionImpl::OnTimedOut() {
  std::lock_guard<std::mutex> lock(m_lock);
  m_learned.backoff = std::min(m_learned.backoff + 1, kMaxBackoff);
  _PublishLocked();
}

void AdaptiveSendOptionImpl::Reset() {
  std::lock_guard<std::mutex> lock(m_lock);
  m_learned = Learned();
  _PublishLocked();
}

int AdaptiveSendOptionImpl::GetSendInterval(int index) const {
  if (index < 0 || index >= m_config.sendCount) throw std::out_of_range("invalid vector<T> subscript");
  return static_cast<int>((IntervalUs() + 999) / 1000);
}

void AdaptiveSendOptionImpl::CopyTo(IChannelSendOption* target) const {
  if (!target || target == this) return;
  if (AdaptiveSendOptionImpl* other = AsAdaptive(target)) {
    Learned learned;
    {
      std::lock_guard<std::mutex> lock(m_lock);
      learned = m_learned;
    }
    std::lock_guard<std::mutex> lock(other->m_lock);
    other->m_learned = learned;
    other->_PublishLocked();
    return;
  }
  const int interval = GetSendInterval(0);
  target->Reset();
  target->SetPacketPerSend(GetPacketPerSend());
  for (int i = 0; i < m_config.sendCount; ++i) target->AddSendInterval(interval);
}

AdaptiveSendStats AdaptiveSendOptionImpl::Stats() const {
  std::lock_guard<std::mutex> lock(m_lock);
  AdaptiveSendStats s;
  s.srttMs = static_cast<double>(m_learned.srttUs) / 1000;
  s.rttvarMs = static_cast<double>(m_learned.rttvarUs) / 1000;
  s.rtoMs = static_cast<double>(_IntervalLocked()) / 1000;
  s.backoff = m_learned.backoff;
  s.samples = m_learned.samples;
  return s;
}

bool CreateAdaptiveSendOption(const AdaptiveSendConfig& config, IChannelSendOption** out) {
  if (!out) return false;
  *out = nullptr;
  *out = new AdaptiveSendOptionImpl(config);
  return true;
}

bool CreateAdaptiveSendOption(const AdaptiveSendConfig& config, RefPtr<IChannelSendOption>& out) {
  out = nullptr;
  IChannelSendOption* option = nullptr;
  if (!CreateAdaptiveSendOption(config, &option)) return false;
  out.Attach(option);
  return true;
}

bool CreateAdaptiveSendOption(IChannelSendOption** out) { return CreateAdaptiveSendOption(AdaptiveSendConfig(), out); }

bool CreateAdaptiveSendOption(RefPtr<IChannelSendOption>& out) {
  return CreateAdaptiveSendOption(AdaptiveSendConfig(), out);
}

bool GetAdaptiveSendStats(IChannelSendOption* option, AdaptiveSendStats& out) {
  AdaptiveSendOptionImpl* adaptive = AsAdaptive(option);
  if (!adaptive) return false;
  out = adaptive->Stats();
  return true;
}

}  // namespace zelsocket
