#include "channel/udp_data_sender.h"

#include <cstdint>

namespace zelsocket {

UdpDataSender::~UdpDataSender() { m_udp = nullptr; }

int UdpDataSender::SendData(Packet* packet) {
  if (!m_udp) return -1;
  return m_udp->Send(packet->buffer, packet->dest,
                     reinterpret_cast<void*>(static_cast<std::uintptr_t>(packet->cookie)));
}

}  // namespace zelsocket
