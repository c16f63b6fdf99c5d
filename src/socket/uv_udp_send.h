// Internal: one uv_udp_send at a time, with a record that keeps the request,
// the bytes, the sink and this object alive until libuv reports, whatever
// happens to the socket that started it.  Loop thread only.
#ifndef ZELSOCKET_SRC_SOCKET_UV_UDP_SEND_H
#define ZELSOCKET_SRC_SOCKET_UV_UDP_SEND_H

#include <uv.h>

#include "zelsocket/buffer.h"
#include "zelsocket/io_loop.h"
#include "zelsocket/ip_address.h"
#include "zelsocket/ref_count.h"
#include "zelsocket/udp.h"

namespace zelsocket {

class UvUdpSend : public RefCount {
 public:
  explicit UvUdpSend(IOLoop* loop) : m_loop(loop) {}
  ~UvUdpSend() override;

  // Starts one datagram; `sink` hears of it once through OnSend (never inside
  // this call).  -1 for bad arguments or while a datagram is in flight, else
  // 0 or the libuv error.
  int Send(uv_udp_t* handle, IConstBuffer* buffer, const IPEndPoint& dest, IUdpSink* sink, void* ctx);
  // Cuts the report off.  libuv keeps the request and reads the bytes until it
  // completes, so the op stays busy until then.
  void Cancel();
  bool IsBusy() const { return m_ctx != nullptr; }

  static void _OnSend(uv_udp_send_t* req, int status);

 private:
  struct UdpSendCtx {
    uv_udp_t* handle = nullptr;
    uv_udp_send_t req;
    IPEndPoint dest;
    void* userCtx = nullptr;
    RefPtr<UvUdpSend> self;
    RefPtr<IConstBuffer> buffer;
    RefPtr<IUdpSink> sink;
  };

  IOLoop* const m_loop;
  UdpSendCtx* m_ctx = nullptr;
};

}  // namespace zelsocket

#endif  // ZELSOCKET_SRC_SOCKET_UV_UDP_SEND_H
