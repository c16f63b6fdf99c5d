#include "channel/channel_send_option_impl.h"

#include <stdexcept>

namespace zelsocket {

ChannelSendOptionImpl::ChannelSendOptionImpl() { m_intervals.reserve(5); }

void ChannelSendOptionImpl::Reset() {
  m_packetPerSend = 0;
  m_intervals.clear();
}

bool ChannelSendOptionImpl::IsValid() const { return m_packetPerSend != 0 && !m_intervals.empty(); }

void ChannelSendOptionImpl::SetDefaultForUdp() {
  m_packetPerSend = 1;
  m_intervals.push_back(3000);
  m_intervals.push_back(5000);
  m_intervals.push_back(7000);
}

void ChannelSendOptionImpl::SetDefaultForTcp() {
  m_packetPerSend = 1;
  m_intervals.push_back(1);
}

int ChannelSendOptionImpl::GetPacketPerSend() const { return m_packetPerSend; }

void ChannelSendOptionImpl::SetPacketPerSend(int count) { m_packetPerSend = count < 1 ? 1 : count; }

void ChannelSendOptionImpl::AddSendInterval(int milliseconds) { m_intervals.push_back(milliseconds); }

int ChannelSendOptionImpl::GetSendCount() const { return static_cast<int>(m_intervals.size()); }

int ChannelSendOptionImpl::GetSendInterval(int index) const {
  // Compared unsigned so that a negative index is out of range too.
  if (static_cast<size_t>(static_cast<unsigned int>(index)) >= m_intervals.size()) {
    throw std::out_of_range("invalid vector<T> subscript");
  }
  return m_intervals[static_cast<size_t>(index)];
}

void ChannelSendOptionImpl::CopyTo(IChannelSendOption* target) const {
  if (!target || target == this) return;
  target->Reset();
  target->SetPacketPerSend(m_packetPerSend);
  for (int interval : m_intervals) target->AddSendInterval(interval);
}

bool CreateChannelSendOption(IChannelSendOption** out) {
  if (!out) return false;
  *out = nullptr;
  *out = new ChannelSendOptionImpl();
  return true;
}

bool CreateChannelSendOption(RefPtr<IChannelSendOption>& out) {
  out = nullptr;
  IChannelSendOption* option = nullptr;
  if (!CreateChannelSendOption(&option)) return false;
  out.Attach(option);
  return true;
}

ChannelSendOption::ChannelSendOption() : _option(new ChannelSendOptionImpl()) {}

ChannelSendOption::ChannelSendOption(const ChannelSendOption& other) : _option(new ChannelSendOptionImpl()) {
  other._option->CopyTo(_option);
}

ChannelSendOption::~ChannelSendOption() { _option->Release(); }

ChannelSendOption& ChannelSendOption::operator=(const ChannelSendOption& other) {
  if (this != &other && _option != other._option) other._option->CopyTo(_option);
  return *this;
}

ChannelSendOption::operator IChannelSendOption*() const { return _option; }

void ChannelSendOption::Reset() { _option->Reset(); }
bool ChannelSendOption::IsValid() const { return _option->IsValid(); }
void ChannelSendOption::SetDefaultForUdp() { _option->SetDefaultForUdp(); }
void ChannelSendOption::SetDefaultForTcp() { _option->SetDefaultForTcp(); }
int ChannelSendOption::GetPacketPerSend() const { return _option->GetPacketPerSend(); }
void ChannelSendOption::SetPacketPerSend(int count) { _option->SetPacketPerSend(count); }
void ChannelSendOption::AddSendInterval(int milliseconds) { _option->AddSendInterval(milliseconds); }
int ChannelSendOption::GetSendCount() const { return _option->GetSendCount(); }
int ChannelSendOption::GetSendInterval(int index) const { return _option->GetSendInterval(index); }

}  // namespace zelsocket
