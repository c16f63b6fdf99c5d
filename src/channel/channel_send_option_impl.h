// Internal: the one implementation of IChannelSendOption.
#ifndef ZELSOCKET_SRC_CHANNEL_CHANNEL_SEND_OPTION_IMPL_H
#define ZELSOCKET_SRC_CHANNEL_CHANNEL_SEND_OPTION_IMPL_H

#include <vector>

#include "zelsocket/channel_option.h"

namespace zelsocket {

class ChannelSendOptionImpl : public IChannelSendOption, public RefCountBase {
 public:
  ChannelSendOptionImpl();

  int AddRef() override { return InternalAddRef(); }
  int Release() override { return InternalRelease(); }

  void Reset() override;
  bool IsValid() const override;
  void SetDefaultForUdp() override;
  void SetDefaultForTcp() override;
  int GetPacketPerSend() const override;
  void SetPacketPerSend(int count) override;
  void AddSendInterval(int milliseconds) override;
  int GetSendCount() const override;
  int GetSendInterval(int index) const override;
  void CopyTo(IChannelSendOption* target) const override;

 private:
  int m_packetPerSend = 0;
  std::vector<int> m_intervals;
};

}  // namespace zelsocket

#endif  // ZELSOCKET_SRC_CHANNEL_CHANNEL_SEND_OPTION_IMPL_H
