// Internal: the data sender of the UDP channel, transmitting through an IUdp.
#ifndef ZELSOCKET_SRC_CHANNEL_UDP_DATA_SENDER_H
#define ZELSOCKET_SRC_CHANNEL_UDP_DATA_SENDER_H

#include "channel/data_sender.h"
#include "zelsocket/udp.h"

namespace zelsocket {

class UdpDataSender : public DataSender {
 public:
  explicit UdpDataSender(IOLoop* loop, TickSource tick = nullptr, WallClockSource wallClock = nullptr)
      : DataSender(loop, tick, wallClock) {}
  ~UdpDataSender() override;

  // -1 without a socket; otherwise IUdp::Send's result.  The cookie travels as
  // the send's context, so the socket's report brings it back.
  int SendData(Packet* packet) override;

  RefPtr<IUdp> m_udp;  // set by the channel while its socket is up
};

}  // namespace zelsocket

#endif  // ZELSOCKET_SRC_CHANNEL_UDP_DATA_SENDER_H
