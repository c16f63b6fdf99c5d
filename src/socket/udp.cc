// The exported faces of the UDP socket: the interface, the options, the value
// class and the factories.
#include "zelsocket/udp.h"

#include "socket/udp_impl.h"

namespace zelsocket {

IUdp::IUdp() = default;
IUdp::IUdp(const IUdp& other) = default;
IUdp::~IUdp() = default;
IUdp& IUdp::operator=(const IUdp& other) = default;

UdpOpenOptions::UdpOpenOptions() = default;
UdpOpenOptions::UdpOpenOptions(const UdpOpenOptions& other) = default;
UdpOpenOptions::~UdpOpenOptions() = default;
UdpOpenOptions& UdpOpenOptions::operator=(const UdpOpenOptions& other) = default;

bool CreateUdp(IUdp** out, IOLoop* loop) {
  if (!out) return false;
  *out = nullptr;
  *out = new UdpImpl(loop);
  return true;
}

bool CreateUdp(RefPtr<IUdp>& out, IOLoop* loop) {
  out.Attach(new UdpImpl(loop));
  return true;
}

Udp::Udp(IOLoop* loop) : _udp(nullptr) { CreateUdp(&_udp, loop); }

Udp::Udp(IUdp* udp) : _udp(udp) {
  if (_udp) _udp->AddRef();
}

Udp::~Udp() {
  if (_udp) _udp->Release();
  _udp = nullptr;
}

Udp::operator IUdp*() { return _udp; }

void Udp::SetSink(IUdpSink* sink) { _udp->SetSink(sink); }
int Udp::Open(const IPEndPoint& address) { return _udp->Open(address); }
int Udp::Send(IConstBuffer* buffer, const IPEndPoint& dest, void* ctx) { return _udp->Send(buffer, dest, ctx); }
int Udp::Recv(IMutableBuffer* buffer, void* ctx) { return _udp->Recv(buffer, ctx); }
int Udp::StartRecv(IMutableBuffer* buffer, void* ctx) { return _udp->StartRecv(buffer, ctx); }
int Udp::CancelRecv() { return _udp->CancelRecv(); }
int Udp::Close() { return _udp->Close(); }
bool Udp::IsOpen() { return _udp->IsOpen(); }
int Udp::GetLocalAddress(IPEndPoint& address) { return _udp->GetLocalAddress(address); }
int Udp::SetSendBufferSize(unsigned int size) { return _udp->SetSendBufferSize(size); }
int Udp::SetRecvBufferSize(unsigned int size) { return _udp->SetRecvBufferSize(size); }

}  // namespace zelsocket
